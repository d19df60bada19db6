// The server link's bytes: replies cut from the stream, read apart, and the
// requests the builders write.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>

#include "CHttpEndpoints.h"
#include "CHttp_AppBack.h"
#include "ReplyFramer.h"

namespace {

QByteArray reply(const QByteArray& body, int session = 7)
{
    return "HTTP/1.1 200 OK\r\nSessionId: " + QByteArray::number(session) + "\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

TEST(ReplyFramer, ReadsRepliesAsHttp11FramesThem)
{
    const QByteArray a = reply("{\"code\":0}"), b = reply("{\"msg\":\"OK\"}", 4), big = reply(QByteArray(5000, 'x'));
    const QByteArray chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nsessionid: 7\r\n\r\n"
                               "4;ext=1\r\n{\"co\r\n6\r\nde\":0}\r\n0\r\nX-Trailer: t\r\n\r\n";
    const QByteArray pretty = "HTTP/1.1 200 OK\r\nSessionid: 7\r\nContent-Length: 17\r\n\r\n{\r\n  \"code\": 0\r\n}";
    const QByteArray untilClose = "HTTP/1.0 200 OK\r\nSessionId: 7\r\n\r\n{\"code\":0}";
    const QByteArray mention = "HTTP/1.1 200 OK\r\nSessionId: 7\r\nAccess-Control-Expose-Headers: SessionId\r\n"
                               "Content-Length: 2\r\n\r\n{}";
    const QByteArray interim = "HTTP/1.1 100 Continue\r\n\r\n";
    const QByteArray noContent = "HTTP/1.1 204 No Content\r\nSessionId: 2\r\n\r\n";
    const QByteArray refused = "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 7\r\nSessionId: 7\r\nContent-Length: 0\r\n\r\n";
    // (status, SessionId, body, Retry-After ms) of each reply
    using R = std::tuple<int, int, QByteArray, qint64>;
    const struct { const char* name; QList<QByteArray> reads; QList<R> replies; int pending; bool close; } cases[] = {
        {"two replies in one read", {a + b}, {R{200, 7, "{\"code\":0}", -1}, R{200, 4, "{\"msg\":\"OK\"}", -1}}, 0, false},
        {"head split", {a.left(10), a.mid(10)}, {R{200, 7, "{\"code\":0}", -1}}, 0, false},
        {"body split, reply and a half", {a.left(a.size() - 3), a.right(3) + b.left(20)}, {R{200, 7, "{\"code\":0}", -1}},
         20, false},
        {"longer than a read", {big.left(2048), big.mid(2048, 2048), big.mid(4096)}, {R{200, 7, QByteArray(5000, 'x'), -1}},
         0, false},
        {"chunks, extensions, trailers, any case", {chunked.left(70), chunked.mid(70)}, {R{200, 7, "{\"code\":0}", -1}}, 0,
         false},
        {"pretty JSON with CR LF", {pretty}, {R{200, 7, "{\r\n  \"code\": 0\r\n}", -1}}, 0, false},
        {"body delimited by the close", {untilClose.left(40), untilClose.mid(40)}, {R{200, 7, "{\"code\":0}", -1}}, int(untilClose.size()), true},
        {"only the header named SessionId routes", {mention}, {R{200, 7, "{}", -1}}, 0, false},
        {"interim replies skipped, no body for 204", {interim + noContent + a}, {R{204, 2, "", -1}, R{200, 7, "{\"code\":0}", -1}},
         0, false},
        {"an error status and Retry-After", {refused}, {R{503, 7, "", 7000}}, 0, false},
        {"not a reply: taken as it arrives", {"\x16\x03 garbage"}, {R{0, 0, "", -1}}, 0, false},
        {"broken framing: taken as it arrives", {"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n{}"}, {R{0, 0, "", -1}}, 0, false},
        {"status line prefix waits", {"HTT"}, {}, 3, false},
        {"absurd length is not waited for", {"HTTP/1.1 200 OK\r\nContent-Length: 999999999999\r\n\r\n{}"}, {R{0, 0, "", -1}},
         0, false},
    };
    for (const auto& c : cases) {
        ReplyFramer framer;
        QList<ServerReply> got;
        for (const QByteArray& r : c.reads)
            got += framer.feed(r);
        EXPECT_EQ(framer.pending(), c.pending) << c.name;
        EXPECT_EQ(framer.waitingForClose(), c.close) << c.name;
        got += framer.finish();
        QList<R> seen;
        for (const ServerReply& r : got)
            seen.append(R{r.status, r.sessionId(), r.body, r.retryAfterMs()});
        EXPECT_EQ(seen, c.replies) << c.name;
    }
    ReplyFramer framer;     // a reset (the link was lost) forgets a partial reply
    EXPECT_TRUE(framer.feed(a.left(30)).isEmpty());
    framer.reset();
    EXPECT_EQ(framer.feed(a).size(), 1);
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
