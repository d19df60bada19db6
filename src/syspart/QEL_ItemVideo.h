#pragma once

#include <QList>
#include <QThread>

#include <condition_variable>
#include <mutex>

#include "QEL_BaseItem.h"
#include "QEL_Settings.h"

struct CameraAnnounce;
class MuxThread;
class QEL_ItemVideo;
class QEL_Semaphore;

// One camera's live push.
struct VideoPushInfo
{
    int cameraid = 0;
    char* sharedMemory = nullptr;       // the application's segment, attached
    int size = 0;                       // bytes of one frame in it
    QEL_Semaphore* semaphore = nullptr; // guards the segment; owned by the item
    MuxThread* mux = nullptr;           // child of the item
};

// Takes the current frame of every camera out of shared memory once per tick
// and posts it to the camera's push. The timer lives on this object, which
// belongs to the main thread; its events only set the tick, under tickMutex_,
// and the copy thread sleeps on the condition variable until then.
class QEL_ItemVideoThreadCopy : public QThread
{
    Q_OBJECT
public:
    explicit QEL_ItemVideoThreadCopy(QEL_ItemVideo* item);
    ~QEL_ItemVideoThreadCopy() override;

    void setRunning();
    // Ends run() at its next wake-up; call wait() afterwards.
    void finish();

protected:
    void timerEvent(QTimerEvent* event) override;
    void run() override;

private:
    // Waits until `ms` have passed (ms >= 0) or, with ms < 0, until the next
    // tick. False when the thread is to end.
    bool waitFor(int ms);

    QEL_ItemVideo* item_;
    std::mutex tickMutex_;
    std::condition_variable tickChanged_;
    bool tick_ = false;
    bool running_ = true;
};

// Item 9: live video of every camera the application announces. It sends
// nothing on the server connections; each camera's push talks to the video
// server and the streaming server by itself.
class QEL_ItemVideo : public QEL_BaseItem
{
    Q_OBJECT
public:
    // Takes the device identifier and the video server from `conf`.
    QEL_ItemVideo(QObject* parent, const QEL_Settings& conf);
    ~QEL_ItemVideo() override;

    RetError Item_Init() override;
    void Item_fromApplication(const QString& body, const Handled& handled) override;

    // Main thread. Type 9: attaches the announced camera buffers and starts
    // their pushes, once per process. 9 when done before, 14 when the body
    // is unusable.
    int attachAnnounced(const QString& body);
    // Main thread. A push thread for one camera, started and unpaused.
    MuxThread* CreateMux(int cameraid, int width, int height, int bit_rate, int fps);
    // Main thread. Starts copying frames; 10 when there is nothing to copy.
    int StartCopy();
    // Main thread: the agent is stopping; every video thread is ended.
    void stopVideo();

    // Filled before StartCopy, read-only afterwards (the copy thread reads it
    // without a lock).
    QList<VideoPushInfo> pushList;
    int fps = 0;

private:
    const QByteArray device_;           // the device identifier, as pushed
    const QByteArray serverIp_;         // the video server
    const int serverPort_;
    // The camera's segment and semaphore, when their ids are the announced ones.
    static bool attachCamera(const CameraAnnounce& camera, VideoPushInfo& push);

    QEL_ItemVideoThreadCopy* copy_;
    bool announced_ = false;
    int copyTimer_ = 0;
};
