#pragma once

#include <QThread>

#include <atomic>
#include <memory>

#include "CMux.h"

// The push thread of one camera: owns the camera's CMux and drives its
// uploader step by step for as long as the agent runs. It touches no Qt
// object but itself; the copy thread reaches the CMux only through
// PostImgBuffer.
class MuxThread : public QThread
{
    Q_OBJECT
public:
    explicit MuxThread(QObject* parent = nullptr);
    MuxThread(const char* camera_id, const char* device_id, const char* server_ip, int server_port, int width,
              int height, int bit_rate, int fps, QObject* parent = nullptr);
    ~MuxThread() override;

    void stream() { paused_ = false; }
    void pause() { paused_ = true; }
    // Unpauses only: the push runs until finish().
    void stop() { paused_ = false; stop_ = true; }
    // The agent is stopping: the thread ends at its next step (and any wait
    // or query in progress is cut short). Call wait() afterwards.
    void finish();

    CMux* mux() { return mux_.get(); }

protected:
    void run() override;

private:
    std::unique_ptr<CMux> mux_;
    std::atomic<bool> paused_{true};
    std::atomic<bool> stop_{false};
    std::atomic<bool> finish_{false};
};
