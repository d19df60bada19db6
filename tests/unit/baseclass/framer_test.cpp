#include <gtest/gtest.h>

#include <QByteArray>
#include <QList>

#include "ReplyFramer.h"

namespace {

QByteArray reply(const QByteArray& body, int session = 7)
{
    return "HTTP/1.1 200 OK\r\nSessionId: " + QByteArray::number(session) + "\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

struct FramingCase
{
    const char* name;
    QList<QByteArray> reads;
    QList<QByteArray> replies;
    int pendingAfter;
};

TEST(ReplyFramer, CutsTheStreamIntoReplies)
{
    const QByteArray a = reply("{\"code\":0}");
    const QByteArray b = reply("{\"msg\":\"OK\"}", 4);
    const QByteArray big = reply(QByteArray(5000, 'x'), 14);
    const QByteArray unframed = "HTTP/1.1 200 OK\r\nSessionId: 7\r\n\r\n{\"code\":0}";
    const QByteArray garbage = "\x16\x03 garbage {\"code\":0}";
    const FramingCase cases[] = {
        {"one reply in one read", {a}, {a}, 0},
        {"two replies in one read", {a + b}, {a, b}, 0},
        {"head split", {a.left(10), a.mid(10)}, {a}, 0},
        {"body split", {a.left(a.size() - 3), a.right(3)}, {a}, 0},
        {"reply and a half", {a + b.left(20)}, {a}, 20},
        {"longer than a read", {big.left(2048), big.mid(2048, 2048), big.mid(4096)}, {big}, 0},
        {"no length: taken as it arrives", {unframed}, {unframed}, 0},
        {"not a reply: taken as it arrives", {garbage}, {garbage}, 0},
        {"status line prefix waits", {"HTT"}, {}, 3},
        {"empty body", {reply("")}, {reply("")}, 0},
    };
    for (const FramingCase& c : cases) {
        ReplyFramer framer;
        QList<QByteArray> got;
        for (const QByteArray& r : c.reads)
            got += framer.feed(r);
        EXPECT_EQ(got, c.replies) << c.name;
        EXPECT_EQ(framer.pending(), c.pendingAfter) << c.name;
    }
}

TEST(ReplyFramer, ContentLengthIsReadLikeAServerWritesIt)
{
    const struct
    {
        const char* head;
        qint64 length;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 12", 12},
        {"HTTP/1.1 200 OK\r\ncontent-length:3", 3},
        {"HTTP/1.1 200 OK\r\nContent-Length: -1", -1},
        {"HTTP/1.1 200 OK\r\nContent-Length: x", -1},
        {"HTTP/1.1 200 OK\r\nX-Content-Length: 5", -1},
        {"HTTP/1.1 200 OK", -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ReplyFramer::contentLength(c.head), c.length) << c.head;
}

TEST(ReplyFramer, AnAbsurdLengthIsNotWaitedFor)
{
    ReplyFramer framer;
    const QByteArray r = "HTTP/1.1 200 OK\r\nContent-Length: 999999999999\r\n\r\n{}";
    EXPECT_EQ(framer.feed(r), QList<QByteArray>() << r);
    EXPECT_EQ(framer.pending(), 0);
}

TEST(ReplyFramer, ResetForgetsAPartialReply)
{
    ReplyFramer framer;
    const QByteArray a = reply("{\"code\":0}");
    EXPECT_TRUE(framer.feed(a.left(30)).isEmpty());
    framer.reset();
    EXPECT_EQ(framer.feed(a), QList<QByteArray>() << a);
}

}  // namespace
