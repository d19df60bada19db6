#include <gtest/gtest.h>

#include "NetWorkConsole.h"
#include "QEL_BaseSocket.h"
#include "QEL_ItemHeartBeat.h"
#include "QEL_SocketInline.h"
#include "RetError.h"

namespace {

struct MessageCase
{
    const char* text;
    int result;
    int type;
    const char* body;
};

TEST(ApplicationMessage, Grammar)
{
    const MessageCase cases[] = {
        {"3:a:..!payload", RET_OK, 3, "payload"},
        {"20:a:..!payload", RET_OK, 20, "payload"},
        {"7:x:..!", RET_OK, 7, ""},
        {":a:..!payload", RET_OK, 0, "payload"},          // empty type reads as 0
        {"abc:a:..!payload", RET_OK, 0, "payload"},       // not a number reads as 0
        {" 5 :a:..!p", RET_OK, 5, "p"},                   // blanks around the number
        {"3:a:..!{\"k\":\"检测\"}", RET_OK, 3, "{\"k\":\"检测\"}"},
        {"3:..!payload", RET_MALFORMED, 0, ""},           // head without ":"
        {"3:a:b:..!payload", RET_MALFORMED, 0, ""},       // two colons in the head
        {"3:a:..!x:..!y", RET_MALFORMED, 0, ""},          // separator twice
        {"3:a:..!x7:b:..!y", RET_MALFORMED, 0, ""},       // two messages in one read
        {"3:a.!payload", RET_MALFORMED, 0, ""},
        {"", RET_MALFORMED, 0, ""},
        {"21:a:..!payload", RET_TYPE_RANGE, 0, ""},
        {"-1:a:..!payload", RET_TYPE_RANGE, 0, ""},
        {"99999999999:a:..!p", RET_OK, 0, "p"},           // overflow converts to 0
    };
    for (const MessageCase& c : cases) {
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

struct TypeCase
{
    const char* text;
    int type;
};

TEST(QueuedText, TypeFromInfo)
{
    const TypeCase cases[] = {
        {"POST /x HTTP/1.1\r\nSessionId: 7\r\n\r\nbody", 7},
        {"GET /x HTTP/1.1\r\nContent-type: a\r\nSessionId:14\r\n\r\n", 14},
        {"POST /x HTTP/1.1\r\nSessionId: seven\r\n\r\n", 0},
        {"POST /x HTTP/1.1\r\nUser-Agent: INFO\r\n\r\n", 0},
        {"no http here\r\nSessionId: 7\r\n\r\n", 0},
        {"", 0},
        {"/tmp/qel_alarmimage/a.tar.gz", 5},
        {"/tmp/qel_tempimage/a.tar.gz", 6},
        {"qel_tempimage and qel_alarmimage", 5},           // the first test wins
        {"POST /x HTTP/1.1\r\nSessionId: 25\r\n\r\n", 25},  // read as is; routing refuses it
    };
    for (const TypeCase& c : cases)
        EXPECT_EQ(NetWorkConsole::ParseTypeFromInfo(QString::fromUtf8(c.text)), c.type) << c.text;
}

TEST(ChangedPath, TypeFromTrig)
{
    const TypeCase cases[] = {
        {"/root/bin-AOI/alarmimage/camera1/detect1/NG/a.jpg", 5},
        {"/root/bin-AOI/cammer12/t.bmp", 6},
        {"/x/alarmimage/cammer1/", 5},
        {"/x/camera1/", 0},
        {"", 0},
    };
    for (const TypeCase& c : cases)
        EXPECT_EQ(NetWorkConsole::ParseTypeFromTrig(QString::fromUtf8(c.text)), c.type) << c.text;
}

TEST(Heartbeat, AcknowledgementBound)
{
    const qint64 last = 1700000000000LL;
    struct
    {
        qint64 elapsed;
        bool connected;
        bool ok;
    } cases[] = {
        {0, true, true},
        {20000, true, true},
        {39000, true, true},
        {39001, true, false},
        {60000, true, false},
        {1000, false, false},
        {-5000, true, true},    // clock stepped back: still within the bound
    };
    for (const auto& c : cases)
        EXPECT_EQ(heartAcknowledged(last + c.elapsed, last, c.connected), c.ok)
            << c.elapsed << " " << c.connected;
}

TEST(Reconnect, BackoffDoublesToFiveSeconds)
{
    const int expected[] = {0, 1000, 2000, 4000, 5000, 5000, 5000};
    for (int failures = 0; failures < 7; ++failures)
        EXPECT_EQ(reconnectDelayMs(failures), expected[failures]) << failures;
    EXPECT_EQ(reconnectDelayMs(1000), 5000);
    EXPECT_EQ(reconnectDelayMs(3, 10, 1000), 40);
}

}  // namespace
