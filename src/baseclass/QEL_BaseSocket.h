#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QMutex>
#include <QString>
#include <QTcpSocket>
#include <QTimer>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "QEL_Reconnector.h"
#include "ReplyFramer.h"

// One TCP connection of the agent (server INFO and FILE ports, and the local
// application link). The object lives in the main thread and every Qt call on
// it is made there. Its jobs are kept apart:
//   - connecting: QEL_Reconnector (one bounded attempt at a time, back-off);
//   - writes from worker threads: handed to the main thread (writeAndWait);
//   - replies: read by ReplyFramer; a 2xx answer is announced with sigReply,
//     any other status with sigNotAnswered;
//   - link loss: announced with sigLinkLost / sigDown, never acted on here.
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

    using ConnectWhen = QEL_Reconnector::When;
    using ConnectDone = QEL_Reconnector::Done;
    // Main thread: see QEL_Reconnector::request.
    void requestConnect(ConnectWhen when, ConnectDone done = {}, const QString& key = {}, bool force = false);
    bool connectPending() const { return reconnector_.pending(); }
    // Any thread but the main one: connect if not connected and wait for
    // the outcome, at most `timeoutMs`.
    bool connectAndWait(int timeoutMs);

    enum class WriteResult { Written, NotConnected, TimedOut };
    // Any thread but the main one: has the main thread write `data` and waits
    // until it has gone to the kernel, the socket turned out not to be
    // connected, or `timeoutMs` passed. A write asked for while a connection
    // attempt is under way waits for that attempt's outcome. `onWritten`, if
    // given, runs on the main thread as soon as the bytes are handed to the
    // socket, before any answer to them can be read.
    WriteResult writeAndWait(const QByteArray& data, int timeoutMs, std::function<void()> onWritten = {});
    // Any thread but the main one: the same without waiting; wait() on the
    // handle later. Writes handed over in order go out in that order, so a
    // sender can keep a few in flight and stream without buffering it all.
    struct WriteTicket;
    class WriteHandle
    {
    public:
        WriteResult wait(int timeoutMs);
        // The connection the bytes went out on (after wait() said Written).
        quint64 connection() const;
    private:
        friend class QEL_BaseSocket;
        std::shared_ptr<WriteTicket> ticket_;
    };
    // With `sameConnection` (a WriteHandle::connection()), the bytes go only
    // on that connection: the rest of a stream never starts a new one.
    WriteHandle writeAsync(const QByteArray& data, std::function<void()> onWritten = {},
                           quint64 sameConnection = 0);
    // The agent is stopping: every worker waiting on this socket is released
    // (its write or connection counts as failed) and no new one waits.
    void closeForStop();
    // Main thread: write at once if connected (the heartbeat's direct write).
    bool writeNow(const QByteArray& data);
    // Any thread: the connection can no longer be trusted (a request body
    // left half written, an answer overdue): it is closed on the main thread
    // before anything written after this call, and a new one is asked for.
    void abortAndReconnect();

    qint32 reserved = 0;
    std::atomic<bool> connected{false};
    QString host;
    QString port;
    QHostAddress hostAddress;
    QString name;

signals:
    // A 2xx reply, whatever item it names: the server is there (emitted
    // before sigReply).
    void sigAnswered();
    // A 2xx reply whose "SessionId" names item `number` (never 0).
    void sigReply(int number, const QString& body);
    // A reply with another status (a proxy's error page, 503 with
    // Retry-After, 413): not an answer. `number` is the item its SessionId
    // names (0: none); `retryAfterMs` -1 when it says nothing.
    void sigNotAnswered(int number, int status, qint64 retryAfterMs);
    // A time-out or network error: the server link is lost.
    void sigLinkLost();
    // The connection is established / has ended.
    void sigUp();
    void sigDown();

public slots:
    virtual void SlotConnected();
    virtual void SlotRecvData();
    virtual void SlotDisConnected();
    virtual void SlotError(QAbstractSocket::SocketError error);

protected:
    // Name for the log lines and the peer to connect to.
    void setPeer(const QString& socketName, const QString& peerHost, const QString& peerPort);
    // One reply, as the framer read it: routed by its status and "SessionId".
    void handleReply(const ServerReply& reply);
    QEL_Reconnector& reconnector() { return reconnector_; }

private:
    struct PendingWrite
    {
        std::shared_ptr<WriteTicket> ticket;
        QByteArray data;
        qint64 target;
    };

    void startWrite(const std::shared_ptr<WriteTicket>& ticket, const QByteArray& data);
    void onBytesWritten(qint64 n);
    void failPendingWrites();
    void onAttemptFinished(bool ok);
    // Any thread: registers a worker's wait (false once the agent is stopping).
    bool track(const std::shared_ptr<WriteTicket>& ticket);

    QMutex* lock_;
    QEL_Reconnector reconnector_;
    ReplyFramer framer_;
    // A reply that runs to the close from a server that never closes is
    // taken once the connection has been quiet this long.
    QTimer quiet_;
    bool wasUp_ = false;
    bool answeredHere_ = false;            // a 2xx reply came on this connection
    quint64 connection_ = 0;               // counts established connections
    std::vector<PendingWrite> deferred_;   // asked for during a connection attempt
    std::vector<PendingWrite> inFlight_;   // written, waiting for bytesWritten
    qint64 bytesQueued_ = 0;
    qint64 bytesFlushed_ = 0;

    std::mutex waitsMutex_;                         // guards waits_ and stopping_
    std::vector<std::weak_ptr<WriteTicket>> waits_;  // workers' waits, to release at a stop
    bool stopping_ = false;
};

class QEL_SocketInfo : public QEL_BaseSocket
{
    Q_OBJECT
public:
    QEL_SocketInfo(QObject* parent, const QString& host, const QString& port);
    int Init() override;
};

class QEL_SocketFile : public QEL_BaseSocket
{
    Q_OBJECT
public:
    QEL_SocketFile(QObject* parent, const QString& host, const QString& port);
};
