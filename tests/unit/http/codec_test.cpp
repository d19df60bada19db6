#include "CHttpBase.h"
#include "CHttp_AppBack.h"

#include <gtest/gtest.h>

namespace {

struct HeadCase
{
    const char* name;
    const char* text;
    int result;
    QStringList lines;
    int sessionId;
};

TEST(HttpCodec, HeaderListAndSessionId)
{
    const HeadCase cases[] = {
        {"status line only", "HTTP/1.1 200 OK\r\n\r\n{\"code\":0}", 4, {}, 0},
        {"no separator, one line", "HTTP/1.1 200 OK", 4, {}, 0},
        {"no blank", "HTTP/1.1 200 OK\r\nSessionId:4\r\n\r\n{}", 4, {"HTTP/1.1 200 OK", "SessionId:4"}, 4},
        {"blank", "HTTP/1.1 200 OK\r\nSessionId: 4\r\n\r\n", 4, {"HTTP/1.1 200 OK", "SessionId: 4"}, 4},
        {"blanks both sides", "HTTP/1.1 200 OK\r\nSessionId:  12 \r\n\r\n", 4, {"HTTP/1.1 200 OK", "SessionId:  12 "}, 12},
        {"two colons", "HTTP/1.1 200 OK\r\nSessionId: 4:5\r\n\r\n", 4, {"HTTP/1.1 200 OK", "SessionId: 4:5"}, 0},
        {"substring match", "HTTP/1.1 200 OK\r\nX-SessionId-Old: 7\r\n\r\n", 4, {"HTTP/1.1 200 OK", "X-SessionId-Old: 7"}, 7},
        {"later match wins", "HTTP/1.1 200 OK\r\nSessionId: 4\r\nSessionId: 7\r\n\r\n", 4,
         {"HTTP/1.1 200 OK", "SessionId: 4", "SessionId: 7"}, 7},
        {"bad later match", "HTTP/1.1 200 OK\r\nSessionId: 4\r\nSessionId: 4:5\r\n\r\n", 4,
         {"HTTP/1.1 200 OK", "SessionId: 4", "SessionId: 4:5"}, 0},
        {"not a number", "HTTP/1.1 200 OK\r\nSessionId: 4x\r\n\r\n", 4, {"HTTP/1.1 200 OK", "SessionId: 4x"}, 0},
        {"lower case name", "HTTP/1.1 200 OK\r\nsessionid: 4\r\n\r\n", 4, {"HTTP/1.1 200 OK", "sessionid: 4"}, 0},
        {"no HTTP in first line", "FTP 200 OK\r\nSessionId: 4\r\n\r\n", 0, {}, 0},
        {"leading CR LF", "\r\nHTTP/1.1 200 OK\r\nSessionId: 4\r\n\r\n", 0, {}, 0},
        {"request line", "POST /vmu/x HTTP/1.1\r\nSessionId: 19\r\n\r\n{}", 4, {"POST /vmu/x HTTP/1.1", "SessionId: 19"}, 19},
    };
    for (const HeadCase& c : cases) {
        SCOPED_TRACE(c.name);
        QStringList list{"stale"};
        EXPECT_EQ(CHttpBase::getHeadList(QString::fromUtf8(c.text), list), c.result);
        EXPECT_EQ(list, c.lines);
        EXPECT_EQ(CHttpBase::getType(list), c.sessionId);
    }
}

TEST(HttpCodec, BodyIsTextAfterLastCrLf)
{
    const struct { const char* text; const char* body; } cases[] = {
        {"HTTP/1.1 200 OK\r\nSessionId: 4\r\n\r\n{\"code\":0}", "{\"code\":0}"},
        {"HTTP/1.1 200 OK\r\n\r\n{\"a\":1,\r\n\"b\":2}", "\"b\":2}"},
        {"HTTP/1.1 200 OK\r\n\r\n{}\r\n", ""},
        {"{\"code\":0}", "{\"code\":0}"},
    };
    for (const auto& c : cases) {
        QString body = "stale";
        EXPECT_EQ(CHttpBase::getBuffString(QString::fromUtf8(c.text), body), 4) << c.text;
        EXPECT_EQ(body, QString::fromUtf8(c.body)) << c.text;
    }
}

TEST(HttpCodec, JsonItem)
{
    const struct { const char* json; const char* key; int result; const char* value; } cases[] = {
        {"{\"code\":0}", "code", 4, "0"},
        {"{\"code\":\"0\"}", "code", 4, "\"0\""},
        {"{\"code\":\"00\"}", "code", 4, "\"00\""},
        {"{\"Code\":1}", "code", 4, "1"},
        {"{\"msg\":\"成功\"}", "msg", 4, "\"成功\""},
        {"{\"data\":{\"a\":[1,2]}}", "data", 4, "{\n\t\"a\":\t[1, 2]\n}"},
        {"{\"code\":0}", "msg", 3, "untouched"},
        {"[0,1]", "code", 3, "untouched"},
        {"not json", "code", 3, "untouched"},
        {"{\"code\":", "code", 3, "untouched"},
    };
    for (const auto& c : cases) {
        QString value = "untouched";
        EXPECT_EQ(CHttpBase::getBuffItem(QString::fromUtf8(c.json), c.key, value), c.result) << c.json;
        EXPECT_EQ(value, QString::fromUtf8(c.value)) << c.json;
    }
}

TEST(HttpAppBack, NoticesAreByteExact)
{
    CHttp_AppBack back;
    back.repaceBuff("left over");
    const QString ack = "POST /back/ HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
                        "SessionId: 0\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(back.BackReply(SEND_ACK), ack);
    EXPECT_EQ(back.BackReply(SEND_ACK), ack);
    EXPECT_EQ(back.getHttp(), ack);
    EXPECT_EQ(back.BackHeart(), "POST /heart/ HTTP/1.1\r\nContent-type: application/json\\r\nConnection: keep-alive\r\n"
                                "SessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(back.BackReline(), "POST /reline/ HTTP/1.1\r\nContent-type: application/json\\r\nConnection: keep-alive\r\n"
                                 "SessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n");
}

}  // namespace
