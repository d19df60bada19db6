#pragma once

#include <QMutex>
#include <QThread>
#include <QWaitCondition>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "QEL_SendQueue.h"

class QEL_BaseSocket;

// Drains a queue of complete request texts towards the server, one request
// in flight: send the head, wait for its answer, go on.
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

    // An answer has been handled: wake the waiting pass.
    void goThrough();
    // The connection `socket` is gone: a request in flight on it is sent
    // again as soon as the connection is back, without counting as
    // unanswered.
    void linkDown(QEL_BaseSocket* socket);

    // Stops the thread for good (waits for the pass under way to end).
    void shutdown();

    QEL_SendQueue queue;

    static const int kReplyWaitMs = 30000;

protected:
    void run() override;
    // One pass: returns when the queue is empty or the socket is not connected.
    virtual void drain();
    bool quitting() const { return quit_; }
    // Ends the pass (called by drain() before it returns).
    void endPass();

    void clearWake();
    // Waits for goThrough() at most `ms`; false on time-out.
    bool waitForWake(int ms);

private:
    mutable QMutex stateLock_;
    QWaitCondition startCond_;
    bool startRequested_ = false;
    bool sending_ = false;
    std::atomic<bool> quit_{false};
    std::atomic<QEL_BaseSocket*> flightSocket_{nullptr};

    std::mutex wakeMutex_;
    std::condition_variable wakeCond_;
    bool woken_ = false;
};
