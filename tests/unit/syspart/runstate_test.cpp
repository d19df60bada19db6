#include <gtest/gtest.h>

#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <utility>

#include "RunStateProbe.h"

namespace {

// Batch output of an older procps top (memory line "KiB Mem:").
const char* const kOldTop =
    "top - 10:15:01 up 3 days,  2:11,  1 user,  load average: 0.08, 0.03, 0.05\n"
    "Tasks: 180 total,   1 running, 179 sleeping,   0 stopped,   0 zombie\n"
    "%Cpu(s):  2.5 us,  0.0 sy,  0.0 ni, 97.5 id,  0.0 wa,  0.0 hi,  0.0 si,  0.0 st\n"
    "KiB Mem:   8069432 total,  2340000 used,  5729432 free,   180212 buffers\n"
    "KiB Swap:  8263676 total,        0 used,  8263676 free.  1520344 cached Mem\n"
    "\n"
    "  PID USER      PR  NI    VIRT    RES    SHR S  %CPU %MEM     TIME+ COMMAND\n"
    "    1 root      20   0   33748   4216   2692 S   0.0  0.1   0:01.20 init\n";

// Batch output of procps-ng 4 (unit label, blank before the colon, decimals).
// The swap line also has "total" and "used" parts and must not count.
const char* const kModernTop =
    "top - 12:31:40 up 6 min,  0 user,  load average: 0.12, 0.10, 0.04\n"
    "Tasks:  83 total,   3 running,  80 sleeping,   0 stopped,   0 zombie\n"
    "%Cpu(s):  1.6 us,  0.0 sy,  0.0 ni, 98.4 id,  0.0 wa,  0.0 hi,  0.0 si,  0.0 st \n"
    "MiB Mem :  15996.6 total,   9000.1 free,   4000.2 used,   2996.3 buff/cache     \n"
    "MiB Swap:   2048.0 total,   2048.0 free,      0.0 used.  11996.4 avail Mem \n"
    "\n"
    "    PID USER      PR  NI    VIRT    RES    SHR S  %CPU  %MEM     TIME+ COMMAND\n"
    "    412 root      20   0   10344   3900   3300 R   0.0   0.0   0:00.01 top\n";

// Each case: top text, expected cpu and memory (hundredths of a percent).
TEST(ParseTopOutput, CpuAndMemory)
{
    const struct { const char* name; const char* text; long long cpu; long long memory; } cases[] = {
        {"old procps", kOldTop, 250, 2899},
        {"procps-ng 4 MiB", kModernTop, 160, 2500},
        {"procps-ng 3.3 KiB with blank",
         "%Cpu(s):  6.2 us,  0.0 sy,  0.0 ni, 93.8 id,  0.0 wa\n"
         "KiB Mem : 16380412 total,  9000000 free,  4096204 used,  3284208 buff/cache\n",
         620, 2500},
        {"GiB", "GiB Mem :     15.6 total,      8.8 free,      3.9 used,      2.9 buff/cache\n", -1, 2500},
        {"idle 100.0", "%Cpu(s):  0.0 us,  0.0 sy,  0.0 ni,100.0 id,  0.0 wa,  0.0 hi,  0.0 si,  0.0 st\n", 0, -1},
        {"idle 0.0", "%Cpu(s):  0.0 us,100.0 sy,  0.0 ni,  0.0 id,  0.0 wa,  0.0 hi,  0.0 si,  0.0 st\n", 10000, -1},
        {"idle 99.9", "%Cpu(s):  0.1 us,  0.0 sy,  0.0 ni, 99.9 id\n", 10, -1},
        {"idle nan", "%Cpu(s):  0.0 us,  nan id\n", -1, -1},
        {"old total 0", "KiB Mem:         0 total,  2340000 used,  5729432 free\n", -1, -1},
        {"modern total 0", "MiB Mem :      0.0 total,      0.0 free,      0.0 used\n", -1, -1},
        {"unrelated text", "hello\nworld\n", -1, -1},
        {"later lines overwrite",
         "%Cpu(s):  2.5 us, 97.5 id\nKiB Mem:   8069432 total,  2340000 used\n"
         "%Cpu(s):  6.2 us, 93.8 id\nKiB Mem:         0 total,  2340000 used\n",
         620, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const RunStateSample s = parseTopOutput(QString::fromUtf8(c.text));
        EXPECT_EQ(s.cpu, c.cpu);
        EXPECT_EQ(s.memory, c.memory);
        EXPECT_EQ(s.nearstart, -1);
    }
}

TEST(ReadUptime, FileContents)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("uptime"));
    const std::pair<const char*, long long> cases[] = {
        {"12345.67 4000.00\n", 12345}, {"99.99 1.00\n", 99}, {"abc def\n", 0}, {nullptr, -1}};
    for (const auto& [content, expected] : cases) {
        QFile f(path);
        if (content) {
            ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
            f.write(content);
            f.close();
        } else {
            f.remove();
        }
        EXPECT_EQ(readUptimeSeconds(path), expected) << (content ? content : "missing file");
    }
}

TEST(MeasureRunState, RealTop)
{
#ifdef QEL_SANITIZED
    GTEST_SKIP() << "top's output is read within 0.6 ms of this process's processor time, which sanitizers exceed";
#endif
    if (QStandardPaths::findExecutable(QStringLiteral("top")).isEmpty())
        GTEST_SKIP() << "top is not installed";
    const long long before = readUptimeSeconds();
    const RunStateSample s = measureRunState();
    EXPECT_TRUE(s.cpu >= 0 && s.cpu <= 10000) << s.cpu;
    EXPECT_TRUE(s.memory >= 0 && s.memory <= 10000) << s.memory;
    EXPECT_TRUE(before > 0 && s.nearstart >= before && s.nearstart <= readUptimeSeconds()) << s.nearstart;
}

TEST(ComposeRunStateBody, AppendsAfterApplicationMembers)
{
    RunStateSample s;
    s.cpu = 250;
    s.memory = 2899;
    QString out;
    ASSERT_TRUE(composeRunStateBody(QStringLiteral("{\"machine\":\"机台1\",\"ok\":true}"), s, out));
    EXPECT_EQ(out, QString::fromUtf8("{\n\t\"machine\":\t\"机台1\",\n\t\"ok\":\ttrue,\n"
                                     "\t\"cpu\":\t250,\n\t\"memory\":\t2899,\n\t\"nearstart\":\t-1\n}"));
}

TEST(ComposeRunStateBody, RejectsWhatIsNotAnObject)
{
    for (const char* in : {"", "{", "not json", "{\"a\":}", "[1,2]", "42", "null"}) {
        QString out = QStringLiteral("untouched");
        EXPECT_FALSE(composeRunStateBody(QString::fromUtf8(in), RunStateSample(), out)) << in;
        EXPECT_EQ(out, QStringLiteral("untouched"));
    }
}

}  // namespace
