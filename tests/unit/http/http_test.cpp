// The server link's bytes: replies cut from the stream, read apart, and the
// requests the builders write.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "CHttpEndpoints.h"
#include "CHttp_AppBack.h"
#include "ReplyFramer.h"

namespace {

QByteArray reply(const QByteArray& body, int session = 7)
{
    return "HTTP/1.1 200 OK\r\nSessionId: " + QByteArray::number(session) + "\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

TEST(ReplyFramer, CutsTheStreamIntoReplies)
{
    const QByteArray a = reply("{\"code\":0}"), b = reply("{\"msg\":\"OK\"}", 4), big = reply(QByteArray(5000, 'x'));
    const QByteArray unframed = "HTTP/1.1 200 OK\r\nSessionId: 7\r\n\r\n{\"code\":0}";
    const QByteArray absurd = "HTTP/1.1 200 OK\r\nContent-Length: 999999999999\r\n\r\n{}";
    const struct { const char* name; QList<QByteArray> reads, replies; int pending; } cases[] = {
        {"two replies in one read", {a + b}, {a, b}, 0},
        {"head split", {a.left(10), a.mid(10)}, {a}, 0},
        {"body split", {a.left(a.size() - 3), a.right(3)}, {a}, 0},
        {"reply and a half", {a + b.left(20)}, {a}, 20},
        {"longer than a read", {big.left(2048), big.mid(2048, 2048), big.mid(4096)}, {big}, 0},
        {"no length: taken as it arrives", {unframed}, {unframed}, 0},
        {"not a reply: taken as it arrives", {"\x16\x03 garbage"}, {"\x16\x03 garbage"}, 0},
        {"status line prefix waits", {"HTT"}, {}, 3},
        {"absurd length is not waited for", {absurd}, {absurd}, 0},
        {"empty body", {reply("")}, {reply("")}, 0},
        {"header name in any case", {"HTTP/1.1 200 OK\r\ncontent-length:2\r\n\r\n{}HTT"},
         {"HTTP/1.1 200 OK\r\ncontent-length:2\r\n\r\n{}"}, 3},
    };
    for (const auto& c : cases) {
        ReplyFramer framer;
        QList<QByteArray> got;
        for (const QByteArray& r : c.reads)
            got += framer.feed(r);
        EXPECT_EQ(got, c.replies) << c.name;
        EXPECT_EQ(framer.pending(), c.pending) << c.name;
    }
    ReplyFramer framer;     // a reset (the link was lost) forgets a partial reply
    EXPECT_TRUE(framer.feed(a.left(30)).isEmpty());
    framer.reset();
    EXPECT_EQ(framer.feed(a), QList<QByteArray>{a});
}

// The builders take the device identifier and the servers when they are made.
const HttpPeers kPeers{"AOI-7", "127.0.0.1", "8000", "127.0.0.2", "8080"};

#define TAIL(id, agent, len, host) \
    "Connection: keep-alive\r\nSessionId: " id "\r\nUser-Agent: " agent "\r\nContent-Length: " len "\r\nHost: " host "\r\n\r\n"
#define JSON "Content-type: application/json\r\n"
#define FORM "Content-type: application/x-www-form-urlencoded; charset=UTF-8\r\n"
#define MULTI "Content-type: multipart/form-data\r\n"
#define INFO "127.0.0.1:8000"
#define FILES "127.0.0.2:8080"

// One endpoint per shape of request: JSON, form with the device in the body,
// GET with the device in the path, file upload (its length is the file's),
// the file host with the INFO agent, multipart, and the one that has no head
// until its first body. Each fresh, then rebuilt around a UTF-8 body.
TEST(HttpEndpoints, RequestsAreByteExactAndCountUtf8Bytes)
{
    const struct { std::function<CHttpBase*()> make; const char *line, *fresh, *rebuiltTail; } cases[] = {
        {[] { return new CHttp_Param(kPeers); }, "POST /vmu/device/sysparam/upload HTTP/1.1\r\n" JSON, TAIL("2", "INFO", "0", INFO),
         TAIL("2", "INFO", "6", INFO)},
        {[] { return new CHttp_Load(kPeers); }, "POST /vmu/device/login HTTP/1.1\r\n" FORM, TAIL("3", "INFO", "15", INFO) "device_id=AOI-7",
         TAIL("3", "INFO", "6", INFO)},
        {[] { return new CHttp_Heart(kPeers); }, "GET /vmu/device/heartbeat?device_id=AOI-7 HTTP/1.1\r\n" FORM,
         TAIL("4", "INFO", "15", INFO) "device_id=AOI-7", TAIL("4", "INFO", "6", INFO)},
        {[] { return new CHttp_Alarmimage(kPeers); }, "POST /videowatch/uploadImg/saveTarGz/AOI-7 HTTP/1.1\r\nContent-type: application/octet-stream\r\n",
         TAIL("5", "FILE", "0", FILES), TAIL("5", "FILE", "0", FILES)},
        {[] { return new CHttp_DelTemp(kPeers); }, "POST /videowatch/picture/removeTemplate HTTP/1.1\r\n" FORM, TAIL("11", "INFO", "0", FILES),
         TAIL("11", "INFO", "6", FILES)},
        {[] { return new CHttp_GetProductInfo(kPeers); }, "GET /vmu/device/initial?device_id=AOI-7 HTTP/1.1\r\n" MULTI,
         TAIL("14", "INFO", "0", INFO), TAIL("14", "INFO", "6", INFO)},
        {[] { return new CHttp_DetectCancle(kPeers); }, "POST /vmu/device/detect_terminate HTTP/1.1\r\n" JSON, nullptr, TAIL("20", "INFO", "6", INFO)},
    };
    for (const auto& c : cases) {
        std::unique_ptr<CHttpBase> builder(c.make());
        EXPECT_EQ(builder->getHttp(), c.fresh ? QString::fromUtf8(c.line) + c.fresh : QString());
        builder->repaceBuff(QString::fromUtf8("检测"));
        EXPECT_EQ(builder->getHttp(), QString::fromUtf8(c.line) + c.rebuiltTail + QString::fromUtf8("检测"));
    }
    // A builder's servers are its own, whatever another's are; the body keeps its identifier.
    CHttp_Heart heart(HttpPeers{"", "127.0.0.1", "9000", "", ""});
    heart.repaceBuff("device_id=AOI-7");
    EXPECT_EQ(heart.getHttp(),
              "GET /vmu/device/heartbeat?device_id= HTTP/1.1\r\n" FORM TAIL("4", "INFO", "15", "127.0.0.1:9000") "device_id=AOI-7");
    // An archive's length is the file's, set before the rebuild.
    CHttp_TempImage image(kPeers);
    image.filelength(1234);
    image.reloadbase();
    EXPECT_TRUE(image.head.contains("\r\nSessionId: 6\r\nUser-Agent: FILE\r\nContent-Length: 1234\r\n"));
    // The application link's notices carry a stray backslash in their head.
    CHttp_AppBack back;
    EXPECT_EQ(back.BackHeart(), "POST /heart/ HTTP/1.1\r\nContent-type: application/json\\r\nConnection: keep-alive\r\n"
                                "SessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n");
}

}  // namespace
