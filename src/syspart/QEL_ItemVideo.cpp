#include "QEL_ItemVideo.h"

#include <QDateTime>
#include <QTimerEvent>

#include <sys/ipc.h>
#include <sys/shm.h>

#include <atomic>
#include <chrono>
#include <cstdio>

#include <glog/logging.h>

#include "MemoryInfo.h"
#include "MuxThread.h"
#include "QEL_Semaphore.h"
#include "ThreadCheck.h"

namespace {

// Every 100th frame posted (the 1st, 101st ...) is logged, process-wide.
std::atomic<unsigned long> gPostCount{0};

constexpr int kSemaphoreWaitMs = 20;

}  // namespace

// ---- copy thread --------------------------------------------------------------

QEL_ItemVideoThreadCopy::QEL_ItemVideoThreadCopy(QEL_ItemVideo* item)
    : QThread(item)
    , item_(item)
{
}

QEL_ItemVideoThreadCopy::~QEL_ItemVideoThreadCopy()
{
    finish();
    wait();
}

void QEL_ItemVideoThreadCopy::setRunning()
{
    std::lock_guard<std::mutex> lock(tickMutex_);
    running_ = true;
}

void QEL_ItemVideoThreadCopy::finish()
{
    {
        std::lock_guard<std::mutex> lock(tickMutex_);
        running_ = false;
    }
    tickChanged_.notify_all();
}

void QEL_ItemVideoThreadCopy::timerEvent(QTimerEvent* event)
{
    {
        std::lock_guard<std::mutex> lock(tickMutex_);
        tick_ = true;
    }
    tickChanged_.notify_all();
    QThread::timerEvent(event);
}

bool QEL_ItemVideoThreadCopy::waitFor(int ms)
{
    std::unique_lock<std::mutex> lock(tickMutex_);
    if (ms >= 0) {
        tickChanged_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return !running_; });
    } else {
        tickChanged_.wait(lock, [this] { return tick_ || !running_; });
        tick_ = false;
    }
    return running_;
}

void QEL_ItemVideoThreadCopy::run()
{
    // Cameras announced after the start are not served by this run.
    const int n = item_->pushList.size();
    if (n == 0 || item_->fps <= 0)
        return;
    // One pass per frame slot (1/fps s), made at the slot's centre: a frame's
    // time is rounded to the nearest slot, so a pass that starts anywhere
    // near a slot boundary would now and then put two frames in one slot
    // (the second dropped) and leave the next one empty.
    const qint64 period = 1000 / item_->fps;
    qint64 lastSlotMs = 0;
    while (waitFor(-1)) {
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        qint64 slotMs = lastSlotMs != 0 ? lastSlotMs + period : (now + period - 1) / period * period;
        if (now - slotMs >= period / 2)
            slotMs = (now + period / 2) / period * period;     // fell behind: this slot, not the missed ones
        if (slotMs > now && !waitFor(static_cast<int>(slotMs - now)))
            break;
        lastSlotMs = slotMs;
        for (int i = 0; i < n; ++i) {
            const VideoPushInfo& push = item_->pushList.at(i);
            // A push that is not streaming (video server or CDN away) gets
            // no frames: they would only fill its queue with video that is
            // stale by the time the connection is back.
            if (!push.mux->mux()->streaming())
                continue;
            // The frame is copied out while the application is kept from
            // writing it; the encode happens later, on the push thread. The
            // application holds it only while it writes a frame: one that
            // stays taken longer costs this camera its frame for this slot,
            // never the other cameras their rate, nor the agent its stop.
            if (!push.semaphore->P_sem_for(kSemaphoreWaitMs))
                continue;
            const qint64 copied = QDateTime::currentDateTime().toMSecsSinceEpoch();
            if (gPostCount.fetch_add(1) % 100 == 0)
                LOG(INFO) << "send video: " << "cur=" << i << " " << (copied % 86400000) / 1000 << "." << copied % 1000;
            // Every camera's frame of this pass carries the pass's slot time,
            // however long the cameras before it took.
            push.mux->mux()->PostImgBuffer(push.sharedMemory, push.size, static_cast<int64_t>(slotMs), CMux::kI420);
            push.semaphore->V_sem();
        }
    }
}

// ---- item ---------------------------------------------------------------------------

QEL_ItemVideo::QEL_ItemVideo(QObject* parent, const QEL_Settings& conf)
    : QEL_BaseItem(parent)
    , device_(conf.useInlineName.toUtf8())
    , serverIp_(conf.serverip_video.toLatin1())
    , serverPort_(conf.serverport_video.toInt())
    , copy_(new QEL_ItemVideoThreadCopy(this))
{
    number = 9;
}

QEL_ItemVideo::~QEL_ItemVideo()
{
    stopVideo();
    for (const VideoPushInfo& push : pushList) {
        delete push.semaphore;
        shmdt(push.sharedMemory);
    }
}

RetError QEL_ItemVideo::Item_Init()
{
    return RET_OK;
}

void QEL_ItemVideo::Item_fromApplication(const QString& body, const Handled& handled)
{
    // Type 9 is the cameras' announcement; it queues nothing, so it is
    // handled at once.
    LOG(INFO) << "Inline:" << 9 << "(sharedMemory get ready)";
    attachAnnounced(body);
    if (handled)
        handled();
}

int QEL_ItemVideo::attachAnnounced(const QString& body)
{
    QEL_ASSERT_MAIN_THREAD();
    if (announced_)
        return RET_VIDEO_ALREADY;
    QList<CameraAnnounce> cameras;
    if (!memoryinfo::parseAnnouncement(body.toUtf8(), cameras))
        return RET_BAD_APP_JSON;

    for (const CameraAnnounce& c : cameras) {
        VideoPushInfo push;
        if (!attachCamera(c, push))
            continue;       // not the application's buffers: no push, no log line
        push.mux = CreateMux(c.cameraid, c.width, c.height, 1000000, 20);
        pushList.append(push);
    }
    StartCopy();
    announced_ = true;
    return RET_OK;
}

bool QEL_ItemVideo::attachCamera(const CameraAnnounce& camera, VideoPushInfo& push)
{
    if (!camera.usable)
        return false;
    // Looked up, never created: a camera that does not match leaves nothing
    // behind. The segment must hold the frame size announced.
    const int shmid = shmget(ftok("/tmp", camera.shmProject), 0, 0);
    if (shmid == -1 || shmid != camera.shmid)
        return false;
    shmid_ds info{};
    if (shmctl(shmid, IPC_STAT, &info) != 0 || info.shm_segsz < static_cast<size_t>(camera.size))
        return false;
    if (!memoryinfo::frameFits(camera, info.shm_segsz)) {
        // Every frame would be allocated at the announced size, whatever the
        // segment really holds.
        LOG(INFO) << "video:" << camera.cameraid << "(frames of " << camera.width << "x" << camera.height
                  << " refused: larger than " << memoryinfo::kMaxSide << "x" << memoryinfo::kMaxSide
                  << " or than the segment's " << info.shm_segsz << " bytes hold)";
        return false;
    }
    void* memory = shmat(shmid, nullptr, 0);
    if (memory == reinterpret_cast<void*>(-1))
        return false;
    auto* semaphore = new QEL_Semaphore(ftok("/tmp", camera.semProject));
    const int semid = semaphore->get_sem();
    if (semid == -1 || semid != camera.semid) {
        delete semaphore;
        shmdt(memory);
        return false;
    }
    push.cameraid = camera.cameraid;
    push.sharedMemory = static_cast<char*>(memory);
    push.size = camera.size;
    push.semaphore = semaphore;
    return true;
}

MuxThread* QEL_ItemVideo::CreateMux(int cameraid, int width, int height, int bit_rate, int fps_)
{
    QEL_ASSERT_MAIN_THREAD();
    char camera[12] = {};
    std::snprintf(camera, sizeof camera, "%d", cameraid + 1);   // camera 0 is pushed as "1"
    auto* thread = new MuxThread(camera, device_.constData(), serverIp_.constData(), serverPort_, width, height, bit_rate,
                                 fps_, this);
    thread->start(QThread::HighestPriority);
    thread->stream();
    fps = fps_;
    return thread;
}

int QEL_ItemVideo::StartCopy()
{
    QEL_ASSERT_MAIN_THREAD();
    if (pushList.isEmpty() || fps == 0)
        return RET_NOTHING_TO_COPY;
    if (copy_->isRunning())
        return RET_OK;
    copy_->setRunning();
    // Precise: a coarse timer may fire a few milliseconds off, and a frame
    // that lands in the slot of the one before is dropped.
    copyTimer_ = copy_->startTimer(static_cast<int>(1.0f / fps * 1000.0f), Qt::PreciseTimer);
    copy_->start(QThread::InheritPriority);
    return RET_OK;
}

void QEL_ItemVideo::stopVideo()
{
    QEL_ASSERT_MAIN_THREAD();
    if (copyTimer_ != 0) {
        copy_->killTimer(copyTimer_);
        copyTimer_ = 0;
    }
    copy_->finish();
    copy_->wait();
    const QList<MuxThread*> threads = findChildren<MuxThread*>();
    for (MuxThread* t : threads)
        t->finish();
    for (MuxThread* t : threads)
        t->wait();
}
