#pragma once

#include <QMutex>
#include <QThread>
#include <QWaitCondition>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "QEL_SendQueue.h"

class QEL_BaseSocket;
class QEL_ItemHost;

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
    // The connection `socket` is gone: a request in flight on it has gone
    // unanswered, and is sent again once the connection is back (the
    // reconnection's back-off), given up after the second such send.
    void linkDown(QEL_BaseSocket* socket);
    // Main thread: a reply on `socket` that is not an answer (a status
    // other than 2xx; `number`: the item its SessionId names, 0 for none).
    // The request in flight on it ends its wait unanswered, and is sent
    // again only after a back-off: Retry-After (at most 60 s), never less
    // than the reconnection step. Said once per episode.
    void notAnswered(QEL_BaseSocket* socket, int number, int status, qint64 retryAfterMs);
    // Main thread: the request in flight was answered (ends an episode of
    // replies that were not answers).
    void answered(int number);
    // Main thread: a 2xx reply came on one of this thread's connections.
    // What was given up while the server was away goes again now.
    void serverAnswered();

    // Before the first pass: the object that wires the items together.
    void setHost(QEL_ItemHost* host) { host_ = host; }

    // Stops the thread for good (waits for the pass under way to end).
    void shutdown();

    QEL_SendQueue queue;

    static const int kReplyWaitMs = 30000;
    static constexpr int kMaxRetryAfterMs = 60000;

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
    // Waits `ms`, or less if the thread is stopped.
    void pause(int ms);

private:
    mutable QMutex stateLock_;
    QWaitCondition startCond_;
    bool startRequested_ = false;
    bool sending_ = false;
    std::atomic<bool> quit_{false};
    QEL_ItemHost* host_ = nullptr;
    std::atomic<QEL_BaseSocket*> flightSocket_{nullptr};
    std::atomic<int> backoffMs_{0};     // before the next send, after a reply that was not an answer
    int notAnswers_ = 0;                // main thread: such replies since the last answer

    std::mutex wakeMutex_;
    std::condition_variable wakeCond_;
    bool woken_ = false;
};
