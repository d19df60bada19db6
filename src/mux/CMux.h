#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "PushAddress.h"

// One camera's live push: raw frames in, H.264 in an MPEG transport stream
// out, written straight to a TCP connection to the streaming server (CDN).
//
// Two threads meet here and nowhere else:
//   - the frame-copy thread calls PostImgBuffer (and nothing else);
//   - the camera's push thread (MuxThread) calls everything else: OnTimer,
//     which drives the push-address query, the connection and the stream,
//     OnMux, which encodes, and through FFmpeg's write callback OnSend.
// The frame queue is the only shared state; queueMutex_ guards it, and is
// never held while a frame is copied in or encoded, so the copy thread (which
// holds the application's semaphore while it posts) never waits for an
// encode.
//
// The encoder and muxer live in CMux.cpp, the uploader (query, connection,
// sending) in CMuxPushLink.cpp.
class CMux
{
public:
    // How a posted frame's bytes are laid out.
    enum ImageType : char { kGrey = 1, kRgbBottomUp = 2, kI420 = 3, kNv12 = 4 };

    // Uploader states.
    enum State { kIdle = 0, kQuery = 1, kConnect = 2, kConnecting = 3, kConnected = 4, kStreaming = 5, kRestart = 6 };

    static constexpr int kOutputBuffer = 1 << 20;      // FFmpeg's I/O buffer
    // Stream bytes the socket did not take yet wait in the backlog, in the
    // order the muxer produced them. No frame is encoded while any wait, so
    // it holds about one frame; a frame larger than this ends the connection.
    static constexpr int kBacklogCapacity = 4 << 20;
    // The stream connection's kernel send buffer: small, so that a
    // connection that cannot keep up shows in the backlog (and frames are
    // dropped) after about a second of video, not after many.
    static constexpr int kSendBuffer = 64 << 10;

    CMux();
    ~CMux();
    CMux(const CMux&) = delete;
    CMux& operator=(const CMux&) = delete;

    // ---- encoder and muxer (CMux.cpp) -----------------------------------------
    int Initialize(int width, int height, int bit_rate, int fps, const char* server_ip, int server_port,
                   const char* device_id, const char* camera_id);
    // Copy thread: queues a private copy of one frame taken at `time_ms`
    // (epoch milliseconds). 1 when taken, 0 when it falls into the slot of
    // the previous frame and is dropped.
    int PostImgBuffer(const char* data, int size, int64_t time_ms, char image_type);
    // Push thread: encodes the oldest queued frame and writes its packets.
    // 1 when there was none. While stream bytes still wait in the backlog
    // the frame is dropped instead, before encoding, and the next frame
    // encoded is a key frame: a connection that cannot keep up loses whole
    // frames, never bytes in the middle of the stream.
    int OnMux();
    int WriteHeader();
    int Flush();
    void Release();

    // ---- uploader (CMuxPushLink.cpp) ------------------------------------------------
    void Start() { state_ = kQuery; }
    // One step of the uploader; returns how long the push thread may wait
    // before the next step (milliseconds; a posted frame ends the wait early).
    int64_t OnTimer();
    int GetCdn();
    int Connect();
    static int SocketGetConnectState(int fd, int timeout_ms);
    int OnRequest();
    static int Send(int fd, const char* buf, int len, int* sent);
    int OnSend(const char* buf, int len);
    static int64_t GetMs();

    // Push thread: waits `ms`, less when a frame is posted while streaming,
    // or quit() is called.
    void waitForWork(int64_t ms);
    // Any thread: ends every wait and makes the uploader give up what it is
    // doing at its next step (the agent is stopping).
    void quit();
    bool quitting() const { return quit_.load(); }

    // The stream's connection: Connect makes it; tests hand one in.
    void adoptSocket(int fd) { CloseSocket(); socket_ = fd; }

    // Any thread: whether the push is streaming now (frames are wanted).
    bool streaming() const { return streaming_.load(std::memory_order_relaxed); }

    // For tests and the log.
    int state() const { return state_; }
    int queued() const;
    int backlog() const { return static_cast<int>(backlog_.size() - backlogHead_); }
    uint64_t droppedFrames() const { return dropped_; }
    const pushaddress::Address& cdn() const { return cdn_; }

private:
    struct OutputStream
    {
        AVStream* stream = nullptr;          // owned by the format context
        AVCodecContext* codec = nullptr;     // owned
        AVFrame* frame = nullptr;            // owned; planes are re-pointed for I420 frames
    };

    struct PendingFrame
    {
        uint64_t sequence = 0;
        char imageType = kI420;
        // The private copy, at least width*height*3/2 bytes. A reference-
        // counted FFmpeg buffer, so the encoder takes an I420 frame by
        // reference instead of copying it once more.
        std::unique_ptr<AVBufferRef, void (*)(AVBufferRef*)> data{nullptr, unrefBuffer};
        int size = 0;                        // bytes the caller posted
        int64_t slot = 0;                    // pts, in 1/fps units since the epoch
    };

    static void unrefBuffer(AVBufferRef* buffer) { av_buffer_unref(&buffer); }
    int AddStream(OutputStream* ost, AVFormatContext* oc, const AVCodec** codec, AVCodecID id);
    int OpenVideo(const AVCodec* codec, OutputStream* ost);
    static AVFrame* AllocPicture(AVPixelFormat pix_fmt, int width, int height);
    int FillFrame(PendingFrame& pending);
    int EncodeAndWrite(AVFrame* frame);
    static int MuxOutProc(void* opaque, uint8_t* buf, int size);
    int64_t step();     // OnTimer's work
    // After a lost connection: packets of frames from before now are not
    // written, the first frame from now on is encoded as a key frame, and
    // the new stream begins with it.
    void startFresh();
    AVPictureType takeKeyRequest(int64_t slot);
    void CloseSocket();

    // encoder and muxer; push thread only
    OutputStream video_;
    AVFormatContext* formatContext_ = nullptr;   // owned
    const AVCodec* videoCodec_ = nullptr;
    AVIOContext* io_ = nullptr;                  // owned, with its buffer
    // Frame copies of a whole picture come from here and go back when the
    // encoder lets go of them: no fresh pages to fault in for every frame.
    // Thread-safe (its own lock); freed once the last buffer is back.
    AVBufferPool* framePool_ = nullptr;
    size_t framePoolSize_ = 0;
    bool haveVideo_ = false;
    bool headerWritten_ = false;
    bool drained_ = false;
    int64_t staleBefore_ = -1;      // slot; -1: every packet is written
    bool keyWanted_ = false;
    int width_ = 0, height_ = 0, bitRate_ = 0, fps_ = 0;

    // frame queue; see the class comment
    mutable std::mutex queueMutex_;
    std::condition_variable frameReady_;
    std::deque<PendingFrame> queue_;
    std::atomic<bool> quit_{false};

    // producer side; copy thread only
    uint64_t sequence_ = 0;
    int64_t lastSlot_ = -1;
    int64_t lastTime_ = 0;

    // uploader; push thread only (streaming_ mirrors state_ == kStreaming for the copy thread)
    int state_ = kIdle;
    std::atomic<bool> streaming_{false};
    int socket_ = -1;
    uint32_t serverIp_ = 0;         // network order
    uint16_t serverPort_ = 0;       // network order
    pushaddress::Address cdn_;
    int64_t stateTime_ = 0;
    int64_t lastSendTime_ = 0;
    bool sentSinceStep_ = false;    // any stream byte went out since the last streaming step
    bool sendFailed_ = false;       // a send of new stream bytes failed since then
    // Stream bytes not taken by the socket yet: backlog_[backlogHead_..end),
    // oldest first. Sent before anything newer.
    std::vector<char> backlog_;
    size_t backlogHead_ = 0;
    uint64_t dropped_ = 0;          // frames dropped before encoding, in all
    // The log hears of congestion at most once a minute: a slow uplink
    // drops and catches up several times a second.
    static constexpr int64_t kCongestionLinePeriodUs = 60 * 1000000LL;
    void sayCongestion(bool dropping);
    uint64_t droppedAtLine_ = 0;    // dropped_ when the last congestion line was written
    int64_t congestionLineTime_ = -1;   // av_gettime_relative() of that line; -1: none yet
    char deviceId_[128] = {};
    char cameraId_[64] = {};
};
