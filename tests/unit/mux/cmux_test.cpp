#include "CMux.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int kW = 64, kH = 48;
constexpr int64_t kEpochMs = 1700000000000LL;

// A CMux streaming into one end of a socket pair; the test reads the other.
struct Streaming
{
    Streaming(int sendBuffer = 0)
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

    CMux mux;
    int fds[2] = {-1, -1};
};

std::vector<char> picture(uint8_t shade, size_t size = kW * kH * 3 / 2)
{
    std::vector<char> p(size);
    for (size_t i = 0; i < p.size(); ++i)
        p[i] = static_cast<char>(shade + i % 7);
    return p;
}

TEST(CMux, QueueTakesOneFramePerSlotAndKeepsAtMost51)
{
    Streaming s;
    const auto frame = picture(10);
    const struct
    {
        long timeMs;
        int taken;
    } posts[] = {{0, 1}, {24, 0}, {25, 1}, {74, 0}, {75, 1}, {60, 0}};
    for (const auto& p : posts)
        EXPECT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), p.timeMs, CMux::kI420), p.taken)
            << p.timeMs;
    EXPECT_EQ(s.mux.queued(), 3);

    for (long t = 1000; s.mux.queued() < 51; t += 50)
        s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), t, CMux::kI420);
    // Full: the next post drops the oldest first, whether it is taken or not.
    EXPECT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), 0, CMux::kI420), 0);
    EXPECT_EQ(s.mux.queued(), 50);
    EXPECT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), 999999, CMux::kI420), 1);
    EXPECT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), 999999 + 50, CMux::kI420), 1);
    EXPECT_EQ(s.mux.queued(), 51);
}

TEST(CMux, EveryLayoutEncodesToATransportStream)
{
    Streaming s;
    ASSERT_EQ(s.mux.WriteHeader(), 0);
    EXPECT_EQ(s.mux.OnMux(), 1);        // nothing queued
    // I420 (also with a short post: the copy is padded to a whole picture),
    // grey, bottom-up RGB, NV12 and an unknown code (taken as I420).
    const struct
    {
        char type;
        size_t size;
    } frames[] = {{CMux::kI420, kW * kH * 3 / 2}, {CMux::kI420, 100}, {CMux::kGrey, kW * kH},
                  {CMux::kRgbBottomUp, kW * kH * 3}, {CMux::kNv12, kW * kH * 3 / 2}, {0, kW * kH * 3 / 2}};
    long t = kEpochMs;
    for (int round = 0; round < 5; ++round)
        for (const auto& f : frames) {
            const auto data = picture(static_cast<uint8_t>(round * 20), f.size);
            ASSERT_EQ(s.mux.PostImgBuffer(data.data(), static_cast<int>(data.size()), t += 50, f.type), 1);
            EXPECT_EQ(s.mux.OnMux(), 0);
        }
    s.mux.Flush();
    const std::string ts = s.drain();
    ASSERT_GE(ts.size(), 188u * 10);
    EXPECT_EQ(ts.size() % 188, 0u);
    for (size_t i = 0; i < ts.size(); i += 188)
        ASSERT_EQ(ts[i], 0x47) << "packet " << i / 188;
    EXPECT_EQ(s.mux.backlog(), 0);
}

TEST(CMux, BytesLeaveInTheOrderTheyWereMuxed)
{
    Streaming s(4096);
    std::string chunks[3];
    for (int i = 0; i < 3; ++i)
        chunks[i] = std::string(100 * 1024, static_cast<char>('a' + i));
    const int sent = s.mux.OnSend(chunks[0].data(), static_cast<int>(chunks[0].size()));
    ASSERT_GT(sent, 0);
    ASSERT_LT(sent, static_cast<int>(chunks[0].size()));
    EXPECT_EQ(s.mux.backlog(), static_cast<int>(chunks[0].size()) - sent);
    EXPECT_EQ(s.mux.OnSend(nullptr, 0), 0);     // peer not reading: nothing moves

    // Newer bytes wait behind the older ones, even once the socket has room.
    std::string got = s.drain();
    EXPECT_EQ(s.mux.OnSend(chunks[1].data(), static_cast<int>(chunks[1].size())), 0);
    EXPECT_EQ(s.mux.OnSend(chunks[2].data(), static_cast<int>(chunks[2].size())), 0);
    for (int i = 0; i < 10000 && s.mux.backlog() > 0; ++i) {
        got += s.drain();
        s.mux.OnSend(nullptr, 0);
    }
    got += s.drain();
    EXPECT_EQ(s.mux.backlog(), 0);
    EXPECT_TRUE(got == chunks[0] + chunks[1] + chunks[2]) << "bytes reordered or lost";
    EXPECT_EQ(s.mux.OnSend(nullptr, 0), 0);     // empty backlog

    // More than the backlog can hold ends the stream rather than a gap in it.
    std::vector<char> big(CMux::kBacklogCapacity, 'y');
    EXPECT_GE(s.mux.OnSend(big.data(), static_cast<int>(big.size())), 0);     // most of it waits
    EXPECT_EQ(s.mux.OnSend(big.data(), static_cast<int>(big.size())), -1);
    close(s.fds[1]);
    s.fds[1] = -1;
    EXPECT_EQ(s.mux.OnSend(nullptr, 0), -1);      // peer gone, and no SIGPIPE
}

TEST(CMux, ACongestedConnectionLosesWholeFramesAndResumesOnAKeyFrame)
{
    Streaming s(4096);
    ASSERT_EQ(s.mux.WriteHeader(), 0);
    int64_t t = kEpochMs;
    for (int i = 0; i < 2; ++i) {       // the stream's key frame, and one after it
        const auto frame = picture(static_cast<uint8_t>(100 + i));
        ASSERT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), t += 50, CMux::kI420), 1);
        EXPECT_EQ(s.mux.OnMux(), 0);
    }
    s.drain();
    std::vector<char> stuck(64 * 1024, 'z');
    s.mux.OnSend(stuck.data(), static_cast<int>(stuck.size()));     // the peer is behind
    ASSERT_GT(s.mux.backlog(), 0);
    for (int i = 0; i < 3; ++i) {
        const auto frame = picture(static_cast<uint8_t>(i * 30));
        ASSERT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), t += 50, CMux::kI420), 1);
        EXPECT_EQ(s.mux.OnMux(), 0);
    }
    EXPECT_EQ(s.mux.droppedFrames(), 3u);     // not encoded: nothing new behind the backlog
    // The peer catches up; the next frame is encoded, as a key frame.
    std::string got;
    for (int i = 0; i < 10000 && s.mux.backlog() > 0; ++i) {
        got += s.drain();
        s.mux.OnSend(nullptr, 0);
    }
    got += s.drain();
    ASSERT_EQ(got.size(), stuck.size());
    const auto frame = picture(200);
    ASSERT_EQ(s.mux.PostImgBuffer(frame.data(), static_cast<int>(frame.size()), t += 50, CMux::kI420), 1);
    EXPECT_EQ(s.mux.OnMux(), 0);
    EXPECT_EQ(s.mux.droppedFrames(), 3u);
    const std::string ts = s.drain();
    ASSERT_GE(ts.size(), 188u);
    // The frame's first packet carries the random-access indicator of a key frame.
    bool key = false;
    for (size_t i = 0; i + 188 <= ts.size() && !key; i += 188) {
        const auto* p = reinterpret_cast<const unsigned char*>(ts.data() + i);
        const bool adaptation = (p[3] & 0x20) != 0;
        key = adaptation && p[4] > 0 && (p[5] & 0x40) != 0;
    }
    EXPECT_TRUE(key);
}

}  // namespace
