// The application link's grammar, how queued texts and watched paths are
// routed to items, and when a link counts as lost and how long until it is
// tried again.
#include <gtest/gtest.h>

#include <QCoreApplication>

#include "NetWorkConsole.h"
#include "QEL_ItemHeartBeat.h"
#include <QSet>

#include "QEL_Reconnector.h"
#include "QEL_SocketInline.h"
#include "RetError.h"

namespace {

TEST(ApplicationMessage, Grammar)
{
    const struct { const char* text; int result, type; const char* body; } cases[] = {
        {"20:a:..!payload", RET_OK, 20, "payload"},
        {"7:x:..!", RET_OK, 7, ""},
        {"abc:a:..!payload", RET_OK, 0, "payload"},       // not a number reads as 0
        {" 5 :a:..!p", RET_OK, 5, "p"},
        {"3:a:..!{\"k\":\"检测\"}", RET_OK, 3, "{\"k\":\"检测\"}"},
        {"99999999999:a:..!p", RET_OK, 0, "p"},           // overflow converts to 0
        {"3:..!payload", RET_MALFORMED, 0, ""},           // head without its field
        {"3:a:b:..!payload", RET_MALFORMED, 0, ""},
        {"3:a:..!x7:b:..!y", RET_MALFORMED, 0, ""},       // two messages in one read
        {"3:a.!payload", RET_MALFORMED, 0, ""},
        {"", RET_MALFORMED, 0, ""},
        {"21:a:..!payload", RET_TYPE_RANGE, 0, ""},
        {"-1:a:..!payload", RET_TYPE_RANGE, 0, ""},
    };
    for (const auto& c : cases) {
        int type = -100;
        QString body("untouched");
        const int r = QEL_SocketInline::splitMessage(QString::fromUtf8(c.text), type, body);
        EXPECT_EQ(r, c.result) << c.text;
        if (r == RET_OK) {
            EXPECT_EQ(type, c.type) << c.text;
            EXPECT_EQ(body, QString::fromUtf8(c.body)) << c.text;
        }
    }
}

// A queued text names its item by its SessionId, an archive by its
// directory; a changed path by the directory the watcher reported.
TEST(QueuedText, ItemFromTextOrPath)
{
    const struct { bool path; const char* text; int item; } cases[] = {
        {false, "GET /x HTTP/1.1\r\nContent-type: a\r\nSessionId:14\r\n\r\n", 14},
        {false, "POST /x HTTP/1.1\r\nSessionId: seven\r\n\r\n", 0},
        {false, "no http here\r\nSessionId: 7\r\n\r\n", 0},
        {false, "/tmp/qel_alarmimage/a.tar.gz", 5},
        {false, "/tmp/qel_tempimage/a.tar.gz", 6},
        {false, "qel_tempimage and qel_alarmimage", 5},            // the first test wins
        {false, "POST /x HTTP/1.1\r\nSessionId: 25\r\n\r\n", 25},   // read as is; routing refuses it
        {true, "/root/bin-AOI/alarmimage/camera1/detect1/NG/a.jpg", 5},
        {true, "/root/bin-AOI/cammer12/t.bmp", 6},
        {true, "/x/alarmimage/cammer1/", 5},
        {true, "/x/camera1/", 0},
    };
    for (const auto& c : cases) {
        const QString text = QString::fromUtf8(c.text);
        EXPECT_EQ(c.path ? NetWorkConsole::ParseTypeFromTrig(text) : NetWorkConsole::ParseTypeFromInfo(text), c.item) << c.text;
    }
}

TEST(Reconnector, BackoffDoublesToItsCap)
{
    const int expected[] = {0, 1000, 2000, 4000, 5000, 5000};
    for (int failures = 0; failures < 6; ++failures)
        EXPECT_EQ(reconnectDelayMs(failures), expected[failures]) << failures;
    EXPECT_EQ(reconnectDelayMs(1000), 5000);
    EXPECT_EQ(reconnectDelayMs(3, 10, 1000), 40);
    // Each wait is drawn from [0, step]: spread over it, not bunched at its end.
    QSet<int> seen;
    int below = 0;
    for (int i = 0; i < 1000; ++i) {
        const int ms = jitteredMs(5000);
        ASSERT_TRUE(ms >= 0 && ms <= 5000) << ms;
        seen.insert(qMin(ms / 500, 9));
        below += ms < 2500;
    }
    EXPECT_EQ(seen.size(), 10);
    EXPECT_TRUE(below > 400 && below < 600) << below;
    EXPECT_EQ(jitteredMs(0), 0);
}

// A server socket's back-off ends only with an answer: a server that takes
// connections and drops them, answering nothing, is not tried in a loop.
TEST(Reconnector, ABackOffUntilAnsweredIsNotEndedByAConnect)
{
    for (bool untilAnswered : {false, true}) {
        SCOPED_TRACE(untilAnswered);
        bool up = false;
        QEL_Reconnector r({[&] { return up; }, [&] { up = false; }, [] {}});
        r.setBackOffUntilAnswered(untilAnswered);
        for (bool ok : {false, false, true}) {      // two refused connects, then one that works
            r.request(QEL_Reconnector::When::Now);
            QCoreApplication::processEvents();
            ASSERT_TRUE(r.attempting());
            up = ok;
            r.attemptEnded(ok);
        }
        EXPECT_EQ(r.failures(), untilAnswered ? 2 : 0);
        r.connectionEnded(false);                   // dropped without an answer
        EXPECT_EQ(r.failures(), untilAnswered ? 3 : 0);
        r.answered();
        r.connectionEnded(true);
        EXPECT_EQ(r.failures(), 0);
    }
}

}  // namespace
