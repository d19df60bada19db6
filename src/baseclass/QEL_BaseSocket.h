#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QMutex>
#include <QString>
#include <QTcpSocket>
#include <QTimer>
#include <atomic>
#include <functional>
#include <memory>
#include <vector>

// One TCP connection of the agent (server INFO and FILE ports, and the local
// application link). The object lives in the main thread and every Qt call on
// it is made there: connecting is asynchronous with a 5 s bound, and worker
// threads hand their writes to the main thread (writeAndWait) instead of
// touching the socket themselves.
// Delay before the next connection attempt after `failures` failed ones in a
// row: none after a success, then 1 s doubling up to 30 s.
int reconnectDelayMs(int failures);

class QEL_BaseSocket : public QTcpSocket
{
    Q_OBJECT
public:
    explicit QEL_BaseSocket(QObject* parent);
    ~QEL_BaseSocket() override;

    virtual int Init();
    virtual bool socket_lock();
    virtual void socket_unlock();

    // Main thread only: true exactly when the socket is in the connected state.
    bool isQel() const;

    enum class ConnectWhen {
        Now,        // attempt at once (cancels a scheduled retry)
        Backoff     // attempt after the current back-off delay
    };
    using ConnectDone = std::function<void(bool ok)>;
    // Main thread. Drops the current connection (if any) and connects again.
    // `done` runs when the attempt ends. Requests made while an attempt is
    // under way or scheduled join it; waiters with the same non-empty key are
    // called once per attempt. Consecutive failures back off 1 s, 2 s, ... 30 s.
    void requestConnect(ConnectWhen when, ConnectDone done = {}, const QString& key = {});
    bool connectPending() const { return attemptInProgress_ || retryTimer_.isActive(); }

    enum class WriteResult { Written, NotConnected, TimedOut };
    // Any thread but the main one: has the main thread write `data` and waits
    // until it has gone to the kernel, the socket turned out not to be
    // connected, or `timeoutMs` passed. A write asked for while a connection
    // attempt is under way waits for that attempt's outcome.
    WriteResult writeAndWait(const QByteArray& data, int timeoutMs);
    // Main thread: write at once if connected (the heartbeat's direct write).
    bool writeNow(const QByteArray& data);

    qint32 reserved = 0;
    std::atomic<bool> connected{false};
    QString host;
    QString port;
    QHostAddress hostAddress;
    QString name;

public slots:
    virtual void SlotConnected();
    virtual void SlotRecvData();
    virtual void SlotDisConnected();
    virtual void SlotError(QAbstractSocket::SocketError error);

protected:
    // Name for the log lines and the peer to connect to.
    void setPeer(const QString& socketName, const QString& peerHost, const QString& peerPort);
    // Routing of one received chunk taken as one complete reply.
    void handleReply(const QByteArray& chunk);

private:
    struct WriteTicket;
    struct PendingWrite
    {
        std::shared_ptr<WriteTicket> ticket;
        QByteArray data;
        qint64 target;
    };
    struct Waiter
    {
        QString key;
        ConnectDone done;
    };

    void startWrite(const std::shared_ptr<WriteTicket>& ticket, const QByteArray& data);
    void onBytesWritten(qint64 n);
    void failPendingWrites();
    void beginAttempt();
    void finishAttempt(bool ok);

    QMutex* lock_;
    bool attemptInProgress_ = false;
    int failures_ = 0;
    QTimer retryTimer_;
    QTimer attemptTimer_;
    std::vector<Waiter> waiters_;
    std::vector<PendingWrite> deferred_;   // asked for during a connection attempt
    std::vector<PendingWrite> inFlight_;   // written, waiting for bytesWritten
    qint64 bytesQueued_ = 0;
    qint64 bytesFlushed_ = 0;
};

class QEL_SocketInfo : public QEL_BaseSocket
{
    Q_OBJECT
public:
    explicit QEL_SocketInfo(QObject* parent);
    int Init() override;
};

class QEL_SocketFile : public QEL_BaseSocket
{
    Q_OBJECT
public:
    explicit QEL_SocketFile(QObject* parent);
};
