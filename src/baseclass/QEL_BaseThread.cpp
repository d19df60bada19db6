#include "QEL_BaseThread.h"

#include <QDeadlineTimer>
#include <QMutexLocker>
#include <chrono>
#include <unistd.h>

#include <glog/logging.h>

#include "QEL_BaseItem.h"
#include "QEL_BaseSocket.h"
#include "QEL_ItemHost.h"
#include "QEL_Reconnector.h"
#include "RetError.h"

namespace {
const unsigned kPauseBeforeSendUs = 50000;
}

QEL_BaseThread::QEL_BaseThread(QObject* parent)
    : QThread(parent)
    , queue(nullptr)
{
}

QEL_BaseThread::~QEL_BaseThread()
{
    shutdown();
}

void QEL_BaseThread::shutdown()
{
    {
        QMutexLocker g(&stateLock_);
        quit_ = true;
        startCond_.wakeAll();
    }
    goThrough();
    wait();
}

void QEL_BaseThread::startSend()
{
    {
        QMutexLocker g(&stateLock_);
        if (quit_)
            return;
        startRequested_ = true;
        sending_ = true;
        startCond_.wakeOne();
    }
    if (!isRunning())
        start(QThread::InheritPriority);
}

bool QEL_BaseThread::isSending() const
{
    QMutexLocker g(&stateLock_);
    return sending_;
}

void QEL_BaseThread::endPass()
{
    QMutexLocker g(&stateLock_);
    // A start asked for during the pass keeps the thread "running".
    sending_ = startRequested_;
}

void QEL_BaseThread::run()
{
    for (;;) {
        {
            QMutexLocker g(&stateLock_);
            while (!startRequested_ && !quit_)
                startCond_.wait(&stateLock_);
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

void QEL_BaseThread::linkDown(QEL_BaseSocket* socket)
{
    if (flightSocket_.load() == socket && queue.linkLost())
        goThrough();
}

void QEL_BaseThread::notAnswered(QEL_BaseSocket* socket, int number, int status, qint64 retryAfterMs)
{
    int inFlight = 0;
    // A 4xx blames the request (too large, malformed), not the server's
    // state; 408 and 429 only say "not now".
    const bool atFault = status >= 400 && status < 500 && status != 408 && status != 429;
    if (flightSocket_.load() != socket || !queue.notAnswered(number, &inFlight, atFault))
        return;
    ++notAnswers_;
    const int ms = qMax<int>(reconnectDelayMs(notAnswers_), int(qMin<qint64>(retryAfterMs, kMaxRetryAfterMs)));
    backoffMs_ = ms;
    if (notAnswers_ == 1)
        LOG(INFO) << "recv:" << inFlight << "(status " << status << " is not an answer: sent again after "
                  << ms / 1000.0 << " s)";
    goThrough();
}

void QEL_BaseThread::answered(int number)
{
    if (notAnswers_ > 0)
        LOG(INFO) << "recv:" << number << "(answered again after " << notAnswers_ << " replies that were not answers)";
    notAnswers_ = 0;
}

void QEL_BaseThread::serverAnswered()
{
    const int back = queue.takeBack();
    if (back == 0)
        return;
    LOG(INFO) << "send:" << "(" << back << " given up while the server was away go again: it answers)";
    startSend();
}

void QEL_BaseThread::pause(int ms)
{
    QMutexLocker g(&stateLock_);
    QDeadlineTimer deadline(ms);
    while (!quit_ && !deadline.hasExpired())
        startCond_.wait(&stateLock_, deadline);
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
    QEL_ItemHost* host = host_;
    for (;;) {
        QEL_QueuedRequest head;
        if (quit_ || !queue.take(head)) {
            endPass();
            return;
        }

        QEL_BaseItem* item = host->routableItem(head.number);
        if (item == nullptr || item->thread != this) {
            // A number that names no sending item of this thread (none at
            // all, or one whose work the other thread does): the text can
            // never be delivered from here. Only this very entry goes; the
            // next one is innocent.
            queue.dropDamaged(head.id);
            LOG(INFO) << "error:" << "11" << "(damaged info)";
            host->catchAllItem()->Item_NetErrorOperate(RET_DAMAGED, head.text);
            continue;
        }

        if (queue.attempts() > 1) {
            LOG(INFO) << "error:" << "12" << "(tims out range to send by " << head.number << ")";
            item->Item_NetErrorOperate(RET_TIMEOUT, head.text);
            queue.resetAttempts();      // a request kept by its item starts counting again
            continue;
        }

        usleep(kPauseBeforeSendUs);
        clearWake();
        if (!queue.beginSend(head.id))
            continue;       // answered or removed during the pause
        flightSocket_ = item->socket;
        const int result = item->Item_NetSendOperate(head.text);
        if (result == ERR_NetNoConnect) {
            // The entry stays at the head; the item's reconnect restarts us.
            queue.sendFailed(head.id);
            endPass();
            return;
        }
        if (result == RET_GIVEN_UP) {
            // Whether or not the item removed it, it is not sent again.
            queue.sendFailed(head.id);
            queue.giveUp(head.text);
            continue;
        }
        if (result == RET_DONE)
            queue.removeDone(head.id);
        // A time-out counts like a wake-up that brought no answer.
        const bool woken = waitForWake(kReplyWaitMs);
        const bool unanswered = queue.afterWait();
        const int backoff = backoffMs_.exchange(0);
        if (unanswered && backoff > 0 && queue.attempts() <= 1)
            pause(backoff);     // a second refusal is given up at once
        if (!woken && unanswered && result == RET_OK) {
            // An answer that comes now could only be taken for the next
            // request written on this connection: the connection goes
            // before anything else is written on it.
            LOG(INFO) << "send:" << head.number << "(no answer within " << kReplyWaitMs / 1000
                      << " s: connection closed)";
            item->socket->abortAndReconnect();
        }
    }
}
