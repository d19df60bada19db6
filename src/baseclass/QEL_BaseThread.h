#pragma once

#include <QMutex>
#include <QStringList>
#include <QThread>
#include <QWaitCondition>
#include <atomic>
#include <condition_variable>
#include <mutex>

// Drains a queue of complete request texts towards the server, one request
// in flight: send the head, wait for the reply's wake-up, go on.
//
// The OS thread stays alive between bursts; startSend() begins a draining
// pass and is never lost, even when it races with a pass that is just
// finding the queue empty. isSending() is what callers treat as "running".
class QEL_BaseThread : public QThread
{
    Q_OBJECT
public:
    explicit QEL_BaseThread(QObject* parent = nullptr);
    ~QEL_BaseThread() override;

    // Begin a draining pass (main thread).
    void startSend();
    bool isSending() const;

    // A reply has been handled: wake the waiting pass.
    void goThrough();

    QMutex* lock;                   // guards queue
    QStringList queue;              // first in, first out; unbounded
    std::atomic<int> counter{0};    // sends of the head without a reply

    static const int kReplyWaitMs = 30000;

protected:
    void run() override;
    // One pass: returns when the queue is empty or the socket is not connected.
    virtual void drain();
    // Called by drain() under `lock` when it ends the pass.
    void endPassLocked() { sending_ = false; }

    void clearWake();
    // Waits for goThrough() at most `ms`; false on time-out.
    bool waitForWake(int ms);

private:
    QWaitCondition startCond_;
    bool startRequested_ = false;
    bool sending_ = false;
    bool quit_ = false;

    std::mutex wakeMutex_;
    std::condition_variable wakeCond_;
    bool woken_ = false;
};
