// Encoder and muxer of one live push: frames are queued by the copy thread,
// encoded one at a time by the push thread with libx264, and muxed into an
// MPEG transport stream whose bytes leave through a custom write callback.
//
// Time bases: a frame's slot is its pts in the encoder's time base 1/fps;
// packets are rescaled to the stream's 1/90000 before they are muxed.

#include "CMux.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include <glog/logging.h>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/opt.h>
#include <libavutil/time.h>
}

#include "FrameSlots.h"
#include "PixelConvert.h"

namespace {

// Drops are logged on the 1st, 6th, 11th ... occurrence in the process.
std::atomic<unsigned long> gDropCount{0};

std::string errorText(int err)
{
    char text[1024] = {};
    av_strerror(err, text, sizeof text);
    return text;
}

}  // namespace

CMux::CMux() = default;

CMux::~CMux()
{
    Release();
}

int CMux::Initialize(int width, int height, int bit_rate, int fps, const char* server_ip, int server_port,
                     const char* device_id, const char* camera_id)
{
    width_ = width;
    height_ = height;
    bitRate_ = bit_rate;
    fps_ = fps;
    haveVideo_ = true;
    backlog_.clear();
    backlogHead_ = 0;
    if (width > 0 && height > 0) {
        framePoolSize_ = static_cast<size_t>(width) * height * 3 / 2;
        framePool_ = av_buffer_pool_init(framePoolSize_, nullptr);
    }

    if (avformat_alloc_output_context2(&formatContext_, nullptr, "mpegts", nullptr) < 0 || formatContext_ == nullptr)
        return 1;

    // PAT/PMT and SDT are repeated with every key frame ("resend_headers"
    // and the muxer's own rule), not by time: the periods are set out of reach.
    char period[21] = {};
    std::snprintf(period, sizeof period, "%d", 1073741822);
    av_opt_set(formatContext_->priv_data, "mpegts_flags", "resend_headers", 0);
    av_opt_set(formatContext_->priv_data, "sdt_period", period, 0);
    av_opt_set(formatContext_->priv_data, "pat_period", period, 0);

    // The I/O buffer is FFmpeg's (av_malloc) and is freed with the context.
    auto* buffer = static_cast<unsigned char*>(av_malloc(kOutputBuffer));
    if (buffer == nullptr)
        return 1;
    io_ = avio_alloc_context(buffer, kOutputBuffer, 1, this, nullptr, MuxOutProc, nullptr);
    if (io_ == nullptr) {
        av_free(buffer);
        return 1;
    }
    formatContext_->pb = io_;
    formatContext_->flags = AVFMT_FLAG_CUSTOM_IO;
    // Every packet leaves as soon as it is muxed: the I/O buffer must not sit
    // on a second of live video (or hide a dead connection) until it is full.
    formatContext_->flush_packets = 1;

    if (AddStream(&video_, formatContext_, &videoCodec_, AV_CODEC_ID_H264) == 0)
        OpenVideo(videoCodec_, &video_);

    serverIp_ = inet_addr(server_ip);
    serverPort_ = htons(static_cast<uint16_t>(server_port & 0xffff));
    std::snprintf(deviceId_, sizeof deviceId_, "%s", device_id);
    std::snprintf(cameraId_, sizeof cameraId_, "%s", camera_id);
    stateTime_ = lastSendTime_ = 0;
    return 0;
}

int CMux::AddStream(OutputStream* ost, AVFormatContext* oc, const AVCodec** codec, AVCodecID id)
{
    *codec = avcodec_find_encoder(id);
    if (*codec == nullptr) {
        std::fprintf(stderr, "Could not find encoder for '%s'\n", avcodec_get_name(id));
        return 1;
    }
    ost->stream = avformat_new_stream(oc, nullptr);
    if (ost->stream == nullptr) {
        std::fprintf(stderr, "Could not allocate stream\n");
        return 1;
    }
    ost->stream->id = static_cast<int>(oc->nb_streams) - 1;
    ost->codec = avcodec_alloc_context3(*codec);
    if (ost->codec == nullptr) {
        std::fprintf(stderr, "Could not alloc an encoding context\n");
        return 1;
    }
    AVCodecContext* c = ost->codec;
    c->codec_id = id;
    c->bit_rate = bitRate_;
    c->width = width_;
    c->height = height_;
    ost->stream->time_base = AVRational{1, 90000};
    c->time_base = AVRational{1, fps_};
    c->gop_size = 12;
    // One encoder thread per camera: a frame comes out as soon as it is
    // encoded (frame-parallel threads hold several back), it costs least
    // per frame, and cameras run side by side on the cores instead.
    c->thread_count = 1;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    // The baseline profile leaves B-frames out whatever is asked here.
    c->max_b_frames = 2;
    c->has_b_frames = 1;
    if (oc->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return 0;
}

AVFrame* CMux::AllocPicture(AVPixelFormat pix_fmt, int width, int height)
{
    AVFrame* picture = av_frame_alloc();
    if (picture == nullptr)
        return nullptr;
    picture->format = pix_fmt;
    picture->width = width;
    picture->height = height;
    if (av_frame_get_buffer(picture, 32) < 0)
        std::fprintf(stderr, "Could not allocate frame data.\n");
    return picture;
}

int CMux::OpenVideo(const AVCodec* codec, OutputStream* ost)
{
    AVDictionary* options = nullptr;
    av_dict_set(&options, "preset", "ultrafast", 0);
    av_dict_set(&options, "profile", "baseline", 0);
    // No look-ahead of any kind: live video, one frame in, its packets out.
    av_dict_set(&options, "tune", "zerolatency", 0);
    const int ret = avcodec_open2(ost->codec, codec, &options);
    av_dict_free(&options);
    if (ret < 0) {
        std::fprintf(stderr, "Could not open video codec: %s\n", errorText(ret).c_str());
        return 1;
    }
    ost->frame = AllocPicture(ost->codec->pix_fmt, ost->codec->width, ost->codec->height);
    if (ost->frame == nullptr) {
        std::fprintf(stderr, "Could not allocate video frame\n");
        return 1;
    }
    if (avcodec_parameters_from_context(ost->stream->codecpar, ost->codec) < 0) {
        std::fprintf(stderr, "Could not copy the stream parameters\n");
        return 1;
    }
    return 0;
}

int CMux::PostImgBuffer(const char* data, int size, int64_t time_ms, char image_type)
{
    // A push that cannot keep up loses its oldest frame, one per post.
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        if (queue_.size() >= static_cast<size_t>(frameslots::kMaxQueued))
            queue_.pop_front();
    }

    const int64_t slot = frameslots::slotOf(time_ms, fps_);
    if (!frameslots::takes(slot, lastSlot_)) {
        if (gDropCount.fetch_add(1) % 5 == 0) {
            char text[200] = {};
            std::snprintf(text, sizeof text, "last:%lld,%lld now:%lld,%lld ,drop it\n",
                          static_cast<long long>(lastSlot_), static_cast<long long>(lastTime_),
                          static_cast<long long>(slot), static_cast<long long>(time_ms));
            LOG(INFO) << "video:put" << text;
        }
        return 0;
    }
    lastSlot_ = slot;
    lastTime_ = time_ms;

    // The copy is made outside the lock. It is never shorter than an I420
    // picture, which is encoded straight from it whatever size was posted.
    PendingFrame pending;
    const size_t posted = size > 0 ? static_cast<size_t>(size) : 0;
    const size_t picture = static_cast<size_t>(std::max(width_, 0)) * std::max(height_, 0) * 3 / 2;
    const size_t allocated = std::max(posted, picture);
    const bool pooled = framePool_ != nullptr && allocated == framePoolSize_;
    pending.data.reset(pooled ? av_buffer_pool_get(framePool_) : av_buffer_alloc(allocated > 0 ? allocated : 1));
    if (!pending.data)
        return 0;
    uint8_t* copy = pending.data->data;
    if (posted > 0)
        std::memcpy(copy, data, posted);
    if (allocated > posted)
        std::memset(copy + posted, 0, allocated - posted);
    pending.size = static_cast<int>(posted);
    pending.imageType = image_type;
    pending.slot = slot;
    pending.sequence = sequence_++;
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        queue_.push_back(std::move(pending));
    }
    frameReady_.notify_one();
    return 1;
}

void CMux::startFresh()
{
    staleBefore_ = frameslots::slotOf(GetMs(), fps_);
    keyWanted_ = true;
}

AVPictureType CMux::takeKeyRequest(int64_t slot)
{
    if (!keyWanted_ || slot < staleBefore_)
        return AV_PICTURE_TYPE_NONE;
    keyWanted_ = false;
    return AV_PICTURE_TYPE_I;
}

int CMux::queued() const
{
    std::lock_guard<std::mutex> lock(queueMutex_);
    return static_cast<int>(queue_.size());
}

int CMux::FillFrame(PendingFrame& pending)
{
    AVFrame* frame = video_.frame;
    const int w = video_.codec->width;
    const int h = video_.codec->height;
    if (pending.imageType == kGrey || pending.imageType == kRgbBottomUp || pending.imageType == kNv12) {
        // The frame's own buffer is written; the encoder may still hold it.
        if (av_frame_make_writable(frame) < 0)
            return -1;
        YuvPlanes planes{};
        for (int i = 0; i < 3; ++i) {
            planes.data[i] = frame->data[i];
            planes.linesize[i] = frame->linesize[i];
            const int rows = i == 0 ? h : (h + 1) / 2;
            planes.capacity[i] = static_cast<size_t>(frame->linesize[i]) * rows;
        }
        const uint8_t* src = pending.data->data;
        if (pending.imageType == kGrey)
            pixelconvert::mono8(src, w, h, planes);
        else if (pending.imageType == kRgbBottomUp)
            pixelconvert::rgbBottomUp(src, w, h, planes);
        else
            pixelconvert::nv12(src, w, h, planes);
        return 0;
    }
    return 1;   // I420: encoded from the copy itself
}

void CMux::sayCongestion(bool dropping)
{
    const int64_t now = av_gettime_relative();
    if (congestionLineTime_ >= 0 && now - congestionLineTime_ < kCongestionLinePeriodUs)
        return;     // counted, said with the next line
    LOG(INFO) << "video:(camera " << cameraId_ << (dropping ? " congested" : " caught up") << ": "
              << dropped_ - droppedAtLine_ << " frames dropped before encoding since the last report)";
    droppedAtLine_ = dropped_;
    congestionLineTime_ = now;
}

int CMux::OnMux()
{
    PendingFrame pending;
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        if (queue_.empty())
            return 1;
        pending = std::move(queue_.front());
        queue_.pop_front();
    }
    if (backlog() > 0)
        OnSend(nullptr, 0);
    if (backlog() > 0) {
        // The connection has not taken the last frame yet: this one is not
        // encoded at all (the copy goes back to the pool), and the stream
        // goes on with a key frame once it has caught up.
        ++dropped_;
        keyWanted_ = true;
        sayCongestion(true);
        return 0;
    }
    if (dropped_ != droppedAtLine_)
        sayCongestion(false);
    if (video_.codec == nullptr || video_.frame == nullptr || !avcodec_is_open(video_.codec)) {
        std::fprintf(stderr, "Error sending a frame for encoding\n");
        return 0;
    }

    AVFrame* frame = video_.frame;
    const int filled = FillFrame(pending);
    if (filled < 0) {
        std::fprintf(stderr, "Error sending a frame for encoding\n");
        return 0;
    }
    if (filled == 0) {
        frame->pts = pending.slot;
        frame->pict_type = takeKeyRequest(pending.slot);
        EncodeAndWrite(frame);
        return 0;
    }

    // I420 straight from the copy: the frame takes over the copy's buffer,
    // and the encoder keeps a reference to it, not a further copy.
    AVFrame* direct = av_frame_alloc();
    if (direct == nullptr)
        return 0;
    direct->format = AV_PIX_FMT_YUV420P;
    direct->width = video_.codec->width;
    direct->height = video_.codec->height;
    direct->buf[0] = pending.data.release();
    pixelconvert::i420Planes(direct->buf[0]->data, direct->width, direct->height, direct->data, direct->linesize);
    direct->pts = pending.slot;
    direct->pict_type = takeKeyRequest(pending.slot);
    EncodeAndWrite(direct);
    av_frame_free(&direct);
    return 0;
}

// Sends `frame` (null: drains the encoder) and writes every packet that
// comes out. 0 when the encoder has nothing more to give now.
int CMux::EncodeAndWrite(AVFrame* frame)
{
    AVCodecContext* c = video_.codec;
    if (avcodec_send_frame(c, frame) < 0) {
        std::fprintf(stderr, "Error sending a frame for encoding\n");
        return 1;
    }
    AVPacket* packet = av_packet_alloc();
    if (packet == nullptr)
        return 1;
    int result = 0;
    for (;;) {
        const int ret = avcodec_receive_packet(c, packet);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF)
            break;
        if (ret < 0) {
            std::fprintf(stderr, "Error during encoding\n");
            result = 1;
            break;
        }
        if (staleBefore_ >= 0) {
            // A new connection: what the encoder still held from before it
            // is old video, and a stream must start on a key frame.
            if (packet->pts < staleBefore_ || !(packet->flags & AV_PKT_FLAG_KEY)) {
                av_packet_unref(packet);
                continue;
            }
            staleBefore_ = -1;
        }
        packet->stream_index = video_.stream->index;
        av_packet_rescale_ts(packet, c->time_base, video_.stream->time_base);
        const int written = av_write_frame(formatContext_, packet);
        if (written < 0)
            std::fprintf(stderr, "Error while writing video frame: %s\n", errorText(written).c_str());
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return result;
}

int CMux::WriteHeader()
{
    const int ret = avformat_write_header(formatContext_, nullptr);
    if (ret < 0) {
        std::fprintf(stderr, "Error occurred when opening output file: %s\n", errorText(ret).c_str());
        return 1;
    }
    headerWritten_ = true;
    return 0;
}

int CMux::Flush()
{
    // The encoder is drained once; after that it takes no more frames.
    if (headerWritten_ && !drained_ && video_.codec != nullptr && avcodec_is_open(video_.codec)) {
        drained_ = true;
        EncodeAndWrite(nullptr);
    }
    return 0;
}

int CMux::MuxOutProc(void* opaque, uint8_t* buf, int size)
{
    static_cast<CMux*>(opaque)->OnSend(reinterpret_cast<const char*>(buf), size);
    return size;
}

void CMux::Release()
{
    if (io_ != nullptr) {
        Flush();
        if (headerWritten_)
            av_write_trailer(formatContext_);
        av_freep(&io_->buffer);
        avio_context_free(&io_);
        if (formatContext_ != nullptr)
            formatContext_->pb = nullptr;
    }
    if (haveVideo_) {
        avcodec_free_context(&video_.codec);
        av_frame_free(&video_.frame);
        haveVideo_ = false;
    }
    avformat_free_context(formatContext_);
    formatContext_ = nullptr;
    CloseSocket();
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        queue_.clear();
    }
    av_buffer_pool_uninit(&framePool_);
    std::vector<char>().swap(backlog_);
    backlogHead_ = 0;
    headerWritten_ = false;
    sequence_ = 0;
}
