#pragma once

#include <QObject>
#include <cstddef>
#include <string>

// Logging set-up: log files in the configured directory, flushed line by
// line, with fatal signals reported into the same files.
class GLog : public QObject
{
    Q_OBJECT
public:
    static const unsigned kKeepLogDays = 7;

    GLog(const std::string& logDir, char** argv, QObject* parent);
    ~GLog() override;
};

// Failure writer handed to glog: the crash report becomes a log line.
void SignalHandle(const char* data, size_t size);
