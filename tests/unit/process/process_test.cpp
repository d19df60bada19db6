#include <gtest/gtest.h>

#include <QObject>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CDebug.h"
#include "C_Process.h"
#include "C_Shell.h"
#include "oxa_cmd.h"

namespace {

struct OxaCmdCase
{
    const char* command;
    std::string expected;
};

TEST(OxaCmd, CollectsStandardOutput)
{
    const OxaCmdCase cases[] = {
        {"printf 'a\\nb\\n'", "a\nb\n"},
        {"true", ""},
        {"printf 'no line end'", "no line end"},
        {"echo out; echo err >&2", "out\n"},                 // standard error is not read
        {"printf 'x'; exit 7", "x"},                          // exit status is ignored
        {"printf '\\344\\270\\255\\n'", "\xe4\xb8\xad\n"},   // bytes pass through
        {"head -c 10000 /dev/zero | tr '\\0' z", std::string(10000, 'z')},  // several 4095-byte reads
    };
    for (const OxaCmdCase& c : cases) {
        SCOPED_TRACE(c.command);
        EXPECT_EQ(oxa_cmd(c.command), c.expected);
    }
}

// The bound is processor time, not wall-clock time: a slow writer is read to
// the end.
TEST(OxaCmd, SlowOutputIsReadToTheEnd)
{
    EXPECT_EQ(oxa_cmd("printf 'a\\n'; sleep 0.3; printf 'b\\n'"), "a\nb\n");
}

// Processor time spent by this process while reading (here by a second
// thread) cuts the reading short after the piece that crossed the bound.
TEST(OxaCmd, ProcessorTimeCutsReadingShort)
{
    std::atomic<bool> stop{false};
    std::thread burner([&stop] {
        volatile unsigned long n = 0;
        while (!stop.load())
            n = n + 1;
    });
    const std::string out = oxa_cmd("sleep 0.1; printf 'a\\n'; sleep 0.3; printf 'b\\n'");
    stop = true;
    burner.join();
    EXPECT_EQ(out, "a\n");
}

struct ShellCase
{
    const char* name;
    QString command;
    QStringList expected;
};

TEST(CShell, SplitsOutputIntoLines)
{
    const QString x1023(1023, QLatin1Char('x'));
    const ShellCase cases[] = {
        {"empty line kept", QStringLiteral("printf 'a\\n\\nb'"), {"a", "", "b"}},
        {"no output", QStringLiteral("true"), {}},
        {"trailing line end", QStringLiteral("printf 'one\\ntwo\\n'"), {"one", "two"}},
        {"utf-8", QStringLiteral("printf '\\344\\270\\255\\346\\226\\207\\n'"), {QString::fromUtf8("中文")}},
        {"long line in 1023-byte pieces", QStringLiteral("head -c 2500 /dev/zero | tr '\\0' x; echo"),
         {x1023, x1023, QString(454, QLatin1Char('x'))}},
        {"exactly 1023 bytes", QStringLiteral("head -c 1023 /dev/zero | tr '\\0' x; echo"), {x1023, ""}},
    };
    for (const ShellCase& c : cases) {
        SCOPED_TRACE(c.name);
        QStringList out{QStringLiteral("stale")};
        C_Shell shell(nullptr, c.command, out);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(CShell, IgnoresParent)
{
    QObject parent;
    QStringList out;
    C_Shell shell(&parent, QStringLiteral("true"), out);
    EXPECT_EQ(shell.parent(), nullptr);
}

void runToEnd(C_Process& p, const QString& script)
{
    p.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
    ASSERT_TRUE(p.waitForFinished(10000));
}

TEST(CProcess, OneChunkBecomesLines)
{
    C_Process p(nullptr);
    runToEnd(p, QStringLiteral("printf 'x\\ny\\n'"));
    EXPECT_EQ(p.buf, QStringLiteral("x\ny\n"));
    EXPECT_EQ(p.lines, QStringList({"x", "y", ""}));
}

TEST(CProcess, TextEndsAtFirstZeroByte)
{
    C_Process p(nullptr);
    runToEnd(p, QStringLiteral("printf 'ab\\000cd\\n'"));
    EXPECT_EQ(p.buf, QStringLiteral("ab"));
    EXPECT_EQ(p.lines, QStringList({"ab"}));
}

TEST(CProcess, EachChunkReplacesThePrevious)
{
    QObject owner;
    C_Process* p = new C_Process(&owner);
    EXPECT_EQ(p->parent(), &owner);

    std::vector<QStringList> seen;
    QObject::connect(p, &QIODevice::readyRead, [&seen, p] { seen.push_back(p->lines); });
    runToEnd(*p, QStringLiteral("printf 'one\\ntwo\\n'; sleep 0.3; printf 'three'"));

    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], QStringList({"one", "two", ""}));
    EXPECT_EQ(seen[1], QStringList({"three"}));
    EXPECT_EQ(p->buf, QStringLiteral("three"));
}

// Debug-console lines caught while a test runs.
std::vector<std::pair<QtMsgType, QString>> gMessages;

void catchMessage(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    gMessages.emplace_back(type, msg);
}

class CDebugTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        gMessages.clear();
        previous_ = qInstallMessageHandler(catchMessage);
    }
    void TearDown() override { qInstallMessageHandler(previous_); }

    QtMessageHandler previous_ = nullptr;
};

TEST_F(CDebugTest, Number)
{
    const int values[] = {0, 42, -7};
    for (int v : values)
        CDebug{v};
    ASSERT_EQ(gMessages.size(), 3u);
    EXPECT_EQ(gMessages[0].second.trimmed(), QStringLiteral("0"));
    EXPECT_EQ(gMessages[1].second.trimmed(), QStringLiteral("42"));
    EXPECT_EQ(gMessages[2].second.trimmed(), QStringLiteral("-7"));
    for (const auto& m : gMessages)
        EXPECT_EQ(m.first, QtDebugMsg);
}

TEST_F(CDebugTest, ColouredLine)
{
    struct Case
    {
        QString text;
        int code2;
        int code1;
        QString expected;
    };
    const Case cases[] = {
        {QStringLiteral("x"), 31, 1, QStringLiteral("\x1b[1;31mx\x1b[0m")},  // third argument first
        {QString(), 32, 0, QStringLiteral("\x1b[0;32m\x1b[0m")},
        {QStringLiteral("warn"), -5, 123, QStringLiteral("\x1b[123;-5mwarn\x1b[0m")},
        {QString::fromUtf8("检测 \"ok\""), 33, 1, QString::fromUtf8("\x1b[1;33m检测 \"ok\"\x1b[0m")},
    };
    for (const Case& c : cases)
        CDebug(c.text, c.code2, c.code1);
    ASSERT_EQ(gMessages.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(gMessages[i].first, QtDebugMsg);
        EXPECT_EQ(gMessages[i].second, cases[i].expected) << i;
    }
}

}  // namespace
