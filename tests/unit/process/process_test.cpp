#include <gtest/gtest.h>

#include <QStringList>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CDebug.h"
#include "C_Process.h"
#include "C_Shell.h"
#include "ShellCommand.h"
#include "oxa_cmd.h"

namespace {

TEST(OxaCmd, CollectsStandardOutput)
{
#ifdef QEL_SANITIZED
    GTEST_SKIP() << "reading is bounded by 0.6 ms of this process's processor time, which sanitizers exceed";
#endif
    const std::pair<const char*, std::string> cases[] = {
        {"echo out; echo err >&2", "out\n"},                 // standard error is not read
        {"printf 'x'; exit 7", "x"},                          // exit status is ignored
        {"printf '\\344\\270\\255\\n'", "\xe4\xb8\xad\n"},   // bytes pass through
        {"head -c 10000 /dev/zero | tr '\\0' z", std::string(10000, 'z')},  // several 4095-byte reads
        {"printf 'a\\n'; sleep 0.3; printf 'b\\n'", "a\nb\n"},   // the bound is processor, not wall-clock time
    };
    for (const auto& [command, expected] : cases)
        EXPECT_EQ(oxa_cmd(command), expected) << command;
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

TEST(CShell, SplitsOutputIntoLines)
{
    const QString x1023(1023, QLatin1Char('x'));
    const std::pair<const char*, QStringList> cases[] = {
        {"printf 'a\\n\\nb'", {"a", "", "b"}},
        {"printf 'one\\ntwo\\n'", {"one", "two"}},
        {"printf '\\344\\270\\255\\346\\226\\207\\n'", {QString::fromUtf8("中文")}},
        {"head -c 2500 /dev/zero | tr '\\0' x; echo", {x1023, x1023, QString(454, QLatin1Char('x'))}},
        {"head -c 1023 /dev/zero | tr '\\0' x; echo", {x1023, ""}},
    };
    for (const auto& [command, expected] : cases) {
        QStringList out{QStringLiteral("stale")};
        C_Shell shell(nullptr, QString::fromUtf8(command), out);
        EXPECT_EQ(out, expected) << command;
    }
}

TEST(ShellCommand, StatusOutputAndTheStop)
{
    ShellCommand shell;
    const struct
    {
        const char* command;
        int status;
        const char* output;
    } cases[] = {
        {"printf 'a b'", 0, "a b"},
        {"exit 3", 3, ""},
        {"kill -9 $$", 128 + 9, ""},
        {"/no/such/program 2>/dev/null", 127, ""},
    };
    for (const auto& c : cases) {
        const ShellCommand::Result r = shell.run(c.command, ShellCommand::OnStop::Kill, true);
        EXPECT_EQ(r.status, c.status) << c.command;
        EXPECT_EQ(r.output, c.output) << c.command;
    }

    // The stop ends a long command with everything it started, and runs no
    // further one of its kind; a command that must finish still runs.
    std::thread stopper([&shell] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        shell.stop();
    });
    const auto t0 = std::chrono::steady_clock::now();
    const ShellCommand::Result killed = shell.run("sleep 30 | sleep 30", ShellCommand::OnStop::Kill);
    stopper.join();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
    EXPECT_EQ(killed.status, 128 + 9);
    EXPECT_EQ(shell.run("true", ShellCommand::OnStop::Kill).status, -1);
    EXPECT_EQ(shell.run("exit 4", ShellCommand::OnStop::Finish).status, 4);
}

// Each chunk of output replaces the previous one; text ends at a zero byte.
TEST(CProcess, KeepsTheLatestChunk)
{
    C_Process p(nullptr);
    std::vector<QStringList> seen;
    QObject::connect(&p, &QIODevice::readyRead, [&seen, &p] { seen.push_back(p.lines); });
    p.start(QStringLiteral("/bin/sh"),
            {QStringLiteral("-c"), QStringLiteral("printf 'one\\ntwo\\n'; sleep 0.3; printf 'ab\\000cd'")});
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_EQ(seen, std::vector<QStringList>({{"one", "two", ""}, {"ab"}}));
    EXPECT_EQ(p.buf, QStringLiteral("ab"));
}

std::vector<std::pair<QtMsgType, QString>> gMessages;

TEST(CDebug, Lines)
{
    gMessages.clear();
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext&, const QString& msg) { gMessages.emplace_back(type, msg); });
    CDebug{-7};
    CDebug(QStringLiteral("x"), 31, 1);   // the third argument comes first
    CDebug(QString(), 32, 0);
    CDebug(QString::fromUtf8("检测 \"ok\""), -5, 123);
    qInstallMessageHandler(previous);
    const std::vector<std::pair<QtMsgType, QString>> expected = {
        {QtDebugMsg, QStringLiteral("-7")},
        {QtDebugMsg, QStringLiteral("\x1b[1;31mx\x1b[0m")},
        {QtDebugMsg, QStringLiteral("\x1b[0;32m\x1b[0m")},
        {QtDebugMsg, QString::fromUtf8("\x1b[123;-5m检测 \"ok\"\x1b[0m")},
    };
    EXPECT_EQ(gMessages, expected);
}

}  // namespace
