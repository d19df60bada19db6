#include "QEL_BaseThread.h"

#include <QMutexLocker>
#include <chrono>
#include <unistd.h>

#include <glog/logging.h>

#include "NetWorkConsole.h"
#include "QEL_BaseItem.h"
#include "RetError.h"
#include "globals.h"

namespace {
const unsigned kPauseBeforeSendUs = 50000;
}

QEL_BaseThread::QEL_BaseThread(QObject* parent)
    : QThread(parent)
    , lock(new QMutex)
{
}

QEL_BaseThread::~QEL_BaseThread()
{
    {
        QMutexLocker g(lock);
        quit_ = true;
        startCond_.wakeAll();
    }
    goThrough();
    wait();
    delete lock;
}

void QEL_BaseThread::startSend()
{
    {
        QMutexLocker g(lock);
        startRequested_ = true;
        sending_ = true;
        startCond_.wakeOne();
    }
    if (!isRunning())
        start(QThread::InheritPriority);
}

bool QEL_BaseThread::isSending() const
{
    QMutexLocker g(lock);
    return sending_;
}

void QEL_BaseThread::run()
{
    for (;;) {
        {
            QMutexLocker g(lock);
            while (!startRequested_ && !quit_)
                startCond_.wait(lock);
            if (quit_)
                return;
            startRequested_ = false;
            sending_ = true;
        }
        drain();
    }
}

void QEL_BaseThread::goThrough()
{
    {
        std::lock_guard<std::mutex> g(wakeMutex_);
        woken_ = true;
    }
    wakeCond_.notify_one();
}

void QEL_BaseThread::clearWake()
{
    std::lock_guard<std::mutex> g(wakeMutex_);
    woken_ = false;
}

bool QEL_BaseThread::waitForWake(int ms)
{
    std::unique_lock<std::mutex> g(wakeMutex_);
    return wakeCond_.wait_for(g, std::chrono::milliseconds(ms), [this] { return woken_; });
}

void QEL_BaseThread::drain()
{
    for (;;) {
        QString entry;
        {
            QMutexLocker g(lock);
            if (queue.isEmpty() || quit_) {
                counter = 0;
                endPassLocked();
                return;
            }
            entry = queue.first();
        }

        const int number = gConsole->ParseTypeFromInfo(entry);
        QEL_BaseItem* item = gConsole->routableItem(number);

        if (item != nullptr && counter > 1) {
            LOG(INFO) << "error:" << "12" << "(tims out range to send by " << number << ")";
            item->Item_NetErrorOperate(RET_TIMEOUT, entry);
            counter = 0;
            continue;
        }

        if (item == nullptr) {
            // A number that names no sending item: the text can never be
            // delivered. Only this very entry goes; the next one is innocent.
            {
                QMutexLocker g(lock);
                if (!queue.isEmpty() && queue.first() == entry)
                    queue.removeFirst();
            }
            LOG(INFO) << "error:" << "11" << "(damaged info)";
            gConsole->items[0]->Item_NetErrorOperate(RET_DAMAGED, entry);
            continue;
        }

        usleep(kPauseBeforeSendUs);
        clearWake();
        const int result = item->Item_NetSendOperate(entry);
        if (result == ERR_NetNoConnect) {
            // The entry stays at the head; the item's reconnect restarts us.
            QMutexLocker g(lock);
            endPassLocked();
            return;
        }
        if (result == RET_DONE) {
            QMutexLocker g(lock);
            if (!queue.isEmpty() && queue.first() == entry)
                queue.removeFirst();
        }
        // A time-out counts like a wake-up that brought no answer.
        waitForWake(kReplyWaitMs);
        ++counter;
    }
}
