// The video push: which frames are taken, the order bytes leave in when the
// peer is slow, and where the stream server's address is read from.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CMux.h"
#include "PushAddress.h"

namespace {

constexpr int kW = 64, kH = 48;

// A CMux streaming into one end of a socket pair; the test reads the other.
struct Streaming
{
    explicit Streaming(int sendBuffer = 0)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        fcntl(fds[1], F_SETFL, O_NONBLOCK);
        if (sendBuffer > 0)
            setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
        EXPECT_EQ(mux.Initialize(kW, kH, 1000000, 20, "127.0.0.1", 8888, "host", "1"), 0);
        mux.adoptSocket(fds[0]);
    }
    ~Streaming() { close(fds[1]); }
    std::string drain()
    {
        std::string got;
        char buf[65536];
        for (ssize_t n; (n = read(fds[1], buf, sizeof buf)) > 0;)
            got.append(buf, static_cast<size_t>(n));
        return got;
    }
    // Lets the peer read until the backlog is gone; what it read.
    std::string catchUp()
    {
        std::string got;
        for (int i = 0; i < 10000 && mux.backlog() > 0; ++i) {
            got += drain();
            mux.OnSend(nullptr, 0);
        }
        return got + drain();
    }
    // Posts a picture of `size` bytes taken at `timeMs` and encodes it.
    void encode(long timeMs, char type = CMux::kI420, size_t size = kW * kH * 3 / 2)
    {
        std::vector<char> p(size);
        for (size_t i = 0; i < p.size(); ++i)
            p[i] = static_cast<char>(timeMs + i % 7);
        ASSERT_EQ(mux.PostImgBuffer(p.data(), static_cast<int>(p.size()), timeMs, type), 1);
        EXPECT_EQ(mux.OnMux(), 0);
    }
    CMux mux;
    int fds[2] = {-1, -1};
};

TEST(CMux, QueueTakesOneFramePerSlotAndKeepsAtMost51)
{
    Streaming s;
    const std::vector<char> frame(kW * kH * 3 / 2, 'f');
    auto post = [&](long timeMs) { return s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), timeMs, CMux::kI420); };
    for (const auto& [timeMs, taken] : {std::pair<long, int>{0, 1}, {24, 0}, {25, 1}, {74, 0}, {75, 1}, {60, 0}})
        EXPECT_EQ(post(timeMs), taken) << timeMs;
    EXPECT_EQ(s.mux.queued(), 3);
    for (long t = 1000; s.mux.queued() < 51; t += 50)
        post(t);
    EXPECT_EQ(post(0), 0);      // full: the oldest goes first, whether the new one is taken or not
    EXPECT_EQ(s.mux.queued(), 50);
    EXPECT_EQ(post(999999), 1);
    EXPECT_EQ(post(999999 + 50), 1);
    EXPECT_EQ(s.mux.queued(), 51);
}

TEST(CMux, EveryLayoutEncodesToATransportStream)
{
    Streaming s;
    ASSERT_EQ(s.mux.WriteHeader(), 0);
    EXPECT_EQ(s.mux.OnMux(), 1);        // nothing queued
    // A short post is padded to a whole picture; an unknown code is taken as I420.
    const std::pair<char, size_t> layouts[] = {{CMux::kI420, kW * kH * 3 / 2}, {CMux::kI420, 100}, {CMux::kGrey, kW * kH},
                                               {CMux::kRgbBottomUp, kW * kH * 3}, {CMux::kNv12, kW * kH * 3 / 2}, {0, kW * kH}};
    long t = 1700000000000L;
    for (int round = 0; round < 5; ++round)
        for (const auto& [type, size] : layouts)
            s.encode(t += 50, type, size);
    s.mux.Flush();
    const std::string ts = s.drain();
    ASSERT_GE(ts.size(), 188u * 10);
    EXPECT_EQ(ts.size() % 188, 0u);
    for (size_t i = 0; i < ts.size(); i += 188)
        ASSERT_EQ(ts[i], 0x47) << "packet " << i / 188;
}

TEST(CMux, BytesLeaveInTheOrderTheyWereMuxed)
{
    Streaming s(4096);
    std::string chunks[3];
    for (int i = 0; i < 3; ++i)
        chunks[i] = std::string(100 * 1024, static_cast<char>('a' + i));
    const int sent = s.mux.OnSend(chunks[0].data(), static_cast<int>(chunks[0].size()));
    ASSERT_GT(sent, 0);
    EXPECT_EQ(s.mux.backlog(), static_cast<int>(chunks[0].size()) - sent);
    EXPECT_EQ(s.mux.OnSend(nullptr, 0), 0);     // peer not reading: nothing moves
    // Newer bytes wait behind the older ones, even once the socket has room.
    std::string got = s.drain();
    EXPECT_EQ(s.mux.OnSend(chunks[1].data(), static_cast<int>(chunks[1].size())), 0);
    EXPECT_EQ(s.mux.OnSend(chunks[2].data(), static_cast<int>(chunks[2].size())), 0);
    got += s.catchUp();
    EXPECT_EQ(s.mux.backlog(), 0);
    EXPECT_TRUE(got == chunks[0] + chunks[1] + chunks[2]) << "bytes reordered or lost";
    // More than the backlog can hold ends the stream rather than a gap in it.
    std::vector<char> big(CMux::kBacklogCapacity, 'y');
    EXPECT_GE(s.mux.OnSend(big.data(), static_cast<int>(big.size())), 0);
    EXPECT_EQ(s.mux.OnSend(big.data(), static_cast<int>(big.size())), -1);
    close(s.fds[1]);
    s.fds[1] = -1;
    EXPECT_EQ(s.mux.OnSend(nullptr, 0), -1);      // peer gone, and no SIGPIPE
}

TEST(CMux, ACongestedConnectionLosesWholeFramesAndResumesOnAKeyFrame)
{
    Streaming s(4096);
    ASSERT_EQ(s.mux.WriteHeader(), 0);
    long t = 1700000000000L;
    s.encode(t += 50);      // the stream's key frame, and one after it
    s.encode(t += 50);
    s.drain();
    std::vector<char> stuck(64 * 1024, 'z');
    s.mux.OnSend(stuck.data(), static_cast<int>(stuck.size()));     // the peer is behind
    ASSERT_GT(s.mux.backlog(), 0);
    for (int i = 0; i < 3; ++i)
        s.encode(t += 50);
    EXPECT_EQ(s.mux.droppedFrames(), 3u);     // not encoded: nothing new behind the backlog
    ASSERT_EQ(s.catchUp().size(), stuck.size());
    s.encode(t += 50);
    EXPECT_EQ(s.mux.droppedFrames(), 3u);
    // The frame's first packet carries the random-access indicator of a key frame.
    const std::string ts = s.drain();
    bool key = false;
    for (size_t i = 0; i + 188 <= ts.size() && !key; i += 188) {
        const auto* p = reinterpret_cast<const unsigned char*>(ts.data() + i);
        key = (p[3] & 0x20) != 0 && p[4] > 0 && (p[5] & 0x40) != 0;
    }
    EXPECT_TRUE(key);
}

TEST(PushAddress, FindsHostPortAndPathWhereverTheServerPutsThem)
{
    const std::string longPath(600, 'p');
    const struct { const char* name; std::string reply; bool found; std::string host; int port; std::string path; bool usable; } cases[] = {
        {"JSON string", "HTTP/1.1 200 OK\r\nContent-Length: 52\r\n\r\n{\"code\":0,\"data\":\"http://10.0.0.5:8080/live/cam1\"}",
         true, "10.0.0.5", 8080, "live/cam1", true},
        {"no port means 80", "{\"data\":\"http://10.0.0.5/live\"}", true, "10.0.0.5", 80, "live", true},
        {"path ends at a brace", "{\"data\":http://10.0.0.5:81/a/b}", true, "10.0.0.5", 81, "a/b", true},
        // The first digit after the scheme starts the host, wherever it is.
        {"host name", "{\"data\":\"http://cdn.example:8080/live\"}", true, "8080", 80, "live", false},
        {"digits alone", "http://3232235777:80/x", true, "3232235777", 80, "x", false},
        {"host cut at a foreign character", "http://10.0.0.5x:82/v", true, "10.0.0.5", 82, "v", true},
        {"path cut at 511", "http://10.0.0.5:83/" + longPath, true, "10.0.0.5", 83, longPath.substr(0, 511), true},
        {"port zero", "http://10.0.0.5:0/x", true, "10.0.0.5", 0, "x", false},
        // A colon later in the JSON is taken for the port: the server is expected to give one.
        {"colon after a portless host", "{\"data\":\"http://10.0.0.5/live\",\"code\":0}", true, "10.0.0.5", 0, "", false},
        {"no scheme", "HTTP/1.1 200 OK\r\n\r\n{\"code\":1}", false, "", 0, "", false},
        {"no digit after the scheme", "http://", false, "", 0, "", false},
        {"neither colon nor slash", "http:10.0.0.5", false, "", 0, "", false},
        {"the scheme after a NUL is not read", std::string("xx\0http://10.0.0.5:1/a", 22), false, "", 0, "", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pushaddress::Address a;
        ASSERT_EQ(pushaddress::findAddress(c.reply.data(), c.reply.size(), a), c.found);
        if (!c.found)
            continue;
        EXPECT_EQ(a.host + ":" + std::to_string(a.port) + "/" + a.path, c.host + ":" + std::to_string(c.port) + "/" + c.path);
        EXPECT_EQ(a.usable(), c.usable);
    }
    // The reply is whole once its head and Content-Length bytes are in; -1: the head is not.
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::pair<std::string, long> framing[] = {
        {head + "Content-Length: 10\r\n", -1}, {head + "Content-Length: 10\r\n\r\n", 10}, {head + "\r\nno length", 0},
        {head + "Content-Length:abc 7\r\n\r\n", 7}, {head + "Content-Length: -5\r\n\r\n", 5},
        {head + "Content-Length: 99999999999999999999\r\n\r\n", 0},
    };
    for (const auto& [reply, body] : framing)
        EXPECT_EQ(pushaddress::wanted(reply.data(), reply.size()),
                  body < 0 ? -1 : static_cast<long>(reply.find("\r\n\r\n") + 4) + body) << reply;
}

}  // namespace
