#include <gtest/gtest.h>

#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cJSON.h>

#include <cctype>
#include <ostream>

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

struct TopCase
{
    const char* name;
    const char* text;
    long long cpu;
    long long memory;
};

const TopCase kTopCases[] = {
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
    {"no id part", "%Cpu(s):  2.5 us,  0.0 sy,  0.0 ni,  0.0 wa\n", -1, -1},
    {"idle not a number counts as 0", "%Cpu(s):  2.5 us, xx id\n", 10000, -1},
    {"idle nan", "%Cpu(s):  0.0 us,  nan id\n", -1, -1},
    {"idle inf", "%Cpu(s):  0.0 us,  inf id\n", -1, -1},
    {"idle huge", "%Cpu(s):  0.0 us, 1e30 id\n", -1, -1},
    {"total 0", "KiB Mem:         0 total,  2340000 used,  5729432 free\n", -1, -1},
    {"no total part", "KiB Mem:   2340000 used,  5729432 free\n", -1, -1},
    {"used missing counts as 0", "KiB Mem:   8069432 total,  5729432 free\n", -1, 0},
    {"modern total 0", "MiB Mem :      0.0 total,      0.0 free,      0.0 used\n", -1, -1},
    {"empty text", "", -1, -1},
    {"unrelated text", "hello\nworld\n", -1, -1},
    {"later lines overwrite",
     "%Cpu(s):  2.5 us, 97.5 id\nKiB Mem:   8069432 total,  2340000 used\n"
     "%Cpu(s):  6.2 us, 93.8 id\nMiB Mem :  15996.6 total,   4000.2 used\n",
     620, 2500},
    {"later unusable memory line overwrites with -1",
     "KiB Mem:   8069432 total,  2340000 used\nKiB Mem:         0 total,  2340000 used\n", -1, -1},
    {"swap line alone is not memory", "MiB Swap:   2048.0 total,   2048.0 free,      1024.0 used.  11996.4 avail Mem\n",
     -1, -1},
};

void PrintTo(const TopCase& c, std::ostream* os)
{
    *os << c.name;
}

class ParseTopTest : public ::testing::TestWithParam<TopCase>
{
};

TEST_P(ParseTopTest, CpuAndMemory)
{
    const TopCase& c = GetParam();
    const RunStateSample s = parseTopOutput(QString::fromUtf8(c.text));
    EXPECT_EQ(s.cpu, c.cpu);
    EXPECT_EQ(s.memory, c.memory);
    EXPECT_EQ(s.nearstart, -1);
}

INSTANTIATE_TEST_SUITE_P(TopOutputs, ParseTopTest, ::testing::ValuesIn(kTopCases),
                         [](const ::testing::TestParamInfo<TopCase>& info) {
                             std::string n;
                             for (const char* p = info.param.name; *p; ++p)
                                 n += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                             return n;
                         });

struct UptimeCase
{
    const char* name;
    const char* content;
    long long expected;
};

const UptimeCase kUptimeCases[] = {
    {"proc format", "12345.67 4000.00\n", 12345},
    {"truncated not rounded", "99.99 1.00\n", 99},
    {"no second field", "12345.67\n", 12345},
    {"not a number counts as 0", "abc def\n", 0},
};

TEST(ReadUptime, FileContents)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    for (const UptimeCase& c : kUptimeCases) {
        SCOPED_TRACE(c.name);
        const QString path = dir.filePath(QStringLiteral("uptime"));
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(c.content);
        f.close();
        EXPECT_EQ(readUptimeSeconds(path), c.expected);
    }
}

TEST(ReadUptime, MissingFileIsUnknown)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    EXPECT_EQ(readUptimeSeconds(dir.filePath(QStringLiteral("nope"))), -1);
}

TEST(ReadUptime, ProcUptime)
{
    EXPECT_GT(readUptimeSeconds(), 0);
}

TEST(MeasureRunState, RealTop)
{
    if (QStandardPaths::findExecutable(QStringLiteral("top")).isEmpty())
        GTEST_SKIP() << "top is not installed";
    const long long before = readUptimeSeconds();
    const RunStateSample s = measureRunState();
    EXPECT_GE(s.cpu, 0);
    EXPECT_LE(s.cpu, 10000);
    EXPECT_GE(s.memory, 0);
    EXPECT_LE(s.memory, 10000);
    EXPECT_GE(s.nearstart, before);
    EXPECT_LE(s.nearstart, readUptimeSeconds());
}

TEST(ComposeRunStateBody, AppendsAfterApplicationMembers)
{
    RunStateSample s;
    s.cpu = 250;
    s.memory = 2899;
    s.nearstart = 12345;
    QString out;
    ASSERT_TRUE(composeRunStateBody(QStringLiteral("{\"machine\":\"机台1\",\"ok\":true}"), s, out));
    EXPECT_EQ(out, QString::fromUtf8("{\n"
                                     "\t\"machine\":\t\"机台1\",\n"
                                     "\t\"ok\":\ttrue,\n"
                                     "\t\"cpu\":\t250,\n"
                                     "\t\"memory\":\t2899,\n"
                                     "\t\"nearstart\":\t12345\n"
                                     "}"));
}

TEST(ComposeRunStateBody, EmptyObjectGetsExactlyTheThreeKeys)
{
    QString out;
    ASSERT_TRUE(composeRunStateBody(QStringLiteral("{}"), RunStateSample(), out));
    EXPECT_EQ(out, QStringLiteral("{\n\t\"cpu\":\t-1,\n\t\"memory\":\t-1,\n\t\"nearstart\":\t-1\n}"));

    cJSON* parsed = cJSON_Parse(out.toUtf8().constData());
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(cJSON_GetArraySize(parsed), 3);
    cJSON_Delete(parsed);
}

TEST(ComposeRunStateBody, RejectsWhatIsNotAnObject)
{
    const char* const inputs[] = {"", "{", "not json", "{\"a\":}", "[1,2]", "[]", "42", "\"text\"", "null", "true"};
    for (const char* in : inputs) {
        SCOPED_TRACE(in);
        QString out = QStringLiteral("untouched");
        EXPECT_FALSE(composeRunStateBody(QString::fromUtf8(in), RunStateSample(), out));
        EXPECT_EQ(out, QStringLiteral("untouched"));
    }
}

}  // namespace
