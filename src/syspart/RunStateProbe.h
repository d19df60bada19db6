#pragma once

class ShellCommand;

#include <QString>

// The host measurements that the run-state report adds to the application's
// JSON body. -1 means "unknown".
struct RunStateSample
{
    long long cpu = -1;         // processor load, hundredths of a percent (0..10000)
    long long memory = -1;      // used memory, hundredths of a percent of total
    long long nearstart = -1;   // whole seconds since boot
};

// cpu and memory from the text of "top -bn 1 -i"; nearstart is left at -1.
// Reads the "%Cpu(s)" line (idle share of the "id" part) and the memory
// summary line, both the "KiB Mem:" form and the "KiB/MiB/GiB Mem :" form of
// newer top versions. Later matching lines overwrite earlier ones.
RunStateSample parseTopOutput(const QString& topText);

// Seconds since boot from a file in "/proc/uptime" format, -1 when unreadable.
long long readUptimeSeconds(const QString& path = QStringLiteral("/proc/uptime"));

// Runs "top -bn 1 -i" and reads /proc/uptime. Blocks until top has ended:
// call it off the main thread.
RunStateSample measureRunState(ShellCommand* shell = nullptr);

// Parses appJson (UTF-8) as a JSON object; returns false and leaves `out`
// alone unless it is one. Otherwise appends "cpu", "memory" and "nearstart"
// (after the application's own members) and sets `out` to the formatted
// (indented) print of the object.
bool composeRunStateBody(const QString& appJson, const RunStateSample& s, QString& out);
