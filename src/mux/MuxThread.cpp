#include "MuxThread.h"

MuxThread::MuxThread(QObject* parent)
    : QThread(parent)
{
}

MuxThread::MuxThread(const char* camera_id, const char* device_id, const char* server_ip, int server_port, int width,
                     int height, int bit_rate, int fps, QObject* parent)
    : QThread(parent)
    , mux_(new CMux)
{
    mux_->Initialize(width, height, bit_rate, fps, server_ip, server_port, device_id, camera_id);
    mux_->Start();
}

MuxThread::~MuxThread()
{
    finish();
    wait();
}

void MuxThread::finish()
{
    finish_ = true;
    if (mux_)
        mux_->quit();
}

void MuxThread::run()
{
    if (!mux_)
        return;
    while (!finish_) {
        if (paused_) {
            QThread::usleep(1000);
            continue;
        }
        const int64_t r = mux_->OnTimer();
        if (static_cast<int32_t>(r) == -1)
            return;
        if (r < 1)
            continue;
        mux_->waitForWork(r);
    }
}
