#include "QEL_BaseSocket.h"

#include <QDebug>
#include <QMetaObject>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include <glog/logging.h>

#include "CHttpBase.h"
#include "RetError.h"
#include "ThreadCheck.h"

namespace {
const int kReadChunk = 2048;
const int kQuietMs = 500;
const int kSocketLockWaitMs = 60000;
}  // namespace

// One worker's wait for the main thread's write (or connection attempt).
struct QEL_BaseSocket::WriteTicket
{
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    WriteResult result = WriteResult::TimedOut;
    std::function<void()> onWritten;
    quint64 requireConnection = 0;      // 0: any
    quint64 connection = 0;             // the one it was written on

    void finish(WriteResult r)
    {
        {
            std::lock_guard<std::mutex> g(m);
            if (done)
                return;
            done = true;
            result = r;
        }
        cv.notify_all();
    }

    WriteResult wait(int timeoutMs)
    {
        std::unique_lock<std::mutex> g(m);
        cv.wait_for(g, std::chrono::milliseconds(timeoutMs), [this] { return done; });
        return done ? result : WriteResult::TimedOut;
    }
};

QEL_BaseSocket::QEL_BaseSocket(QObject* parent)
    : QTcpSocket(parent)
    , lock_(new QMutex)
    , reconnector_(QEL_Reconnector::Hooks{
                       [this] { return state() == QAbstractSocket::ConnectedState; },
                       [this] {
                           if (state() != QAbstractSocket::UnconnectedState) {
                               readAll();      // belongs to the old connection
                               abort();
                           }
                       },
                       [this] {
                           connectToHost(host, static_cast<quint16>(port.toInt(nullptr, 10)),
                                         QIODevice::ReadWrite);
                       }},
                   this)
{
    reserved = 0;
    setPeer("NONE", QString(), QString());
    setReadBufferSize(kReadChunk);

    connect(this, &QTcpSocket::connected, this, &QEL_BaseSocket::SlotConnected);
    connect(this, &QTcpSocket::readyRead, this, &QEL_BaseSocket::SlotRecvData);
    connect(this, &QTcpSocket::disconnected, this, &QEL_BaseSocket::SlotDisConnected);
    connect(this, &QAbstractSocket::errorOccurred, this, &QEL_BaseSocket::SlotError);

    // Connection bookkeeping runs after the slots above, so the connect and
    // disconnect log lines come before an attempt's outcome is acted on.
    connect(this, &QTcpSocket::connected, this, [this] {
        wasUp_ = true;
        answeredHere_ = false;
        ++connection_;
        reconnector_.attemptEnded(true);
        emit sigUp();
    });
    connect(this, &QAbstractSocket::stateChanged, this, [this](QAbstractSocket::SocketState s) {
        if (s != QAbstractSocket::UnconnectedState)
            return;
        failPendingWrites();
        // A reply delimited by the close is complete now, before the link's
        // end is told.
        quiet_.stop();
        for (const ServerReply& reply : framer_.finish())
            handleReply(reply);
        reconnector_.attemptEnded(false);
        if (wasUp_) {
            wasUp_ = false;
            reconnector_.connectionEnded(answeredHere_);
            emit sigDown();
        }
    });
    connect(this, &QIODevice::bytesWritten, this, &QEL_BaseSocket::onBytesWritten);
    quiet_.setSingleShot(true);
    connect(&quiet_, &QTimer::timeout, this, [this] {
        for (const ServerReply& reply : framer_.finish())
            handleReply(reply);
    });
    connect(&reconnector_, &QEL_Reconnector::attemptFinished, this, &QEL_BaseSocket::onAttemptFinished);
}

void QEL_BaseSocket::setPeer(const QString& socketName, const QString& peerHost, const QString& peerPort)
{
    name = socketName;
    connected = false;
    host = peerHost;
    port = peerPort;
    hostAddress.setAddress(host);
}

QEL_BaseSocket::~QEL_BaseSocket()
{
    failPendingWrites();
    for (PendingWrite& p : deferred_)
        p.ticket->finish(WriteResult::NotConnected);
    delete lock_;
}

int QEL_BaseSocket::Init()
{
    return 0;
}

bool QEL_BaseSocket::socket_lock()
{
    return lock_->tryLock(kSocketLockWaitMs);
}

void QEL_BaseSocket::socket_unlock()
{
    lock_->unlock();
}

bool QEL_BaseSocket::isQel() const
{
    return state() == QAbstractSocket::ConnectedState;
}

void QEL_BaseSocket::SlotConnected()
{
    LOG(INFO) << "socket:" << "(the socket " << name.toUtf8().constData() << " connected)";
    connected = true;
}

void QEL_BaseSocket::SlotDisConnected()
{
    LOG(INFO) << "socket:" << "(the socket " << name.toUtf8().constData() << " disconnected)";
    connected = false;
}

void QEL_BaseSocket::SlotError(QAbstractSocket::SocketError error)
{
    if (error != QAbstractSocket::SocketTimeoutError && error != QAbstractSocket::NetworkError)
        return;
    emit sigLinkLost();
}

void QEL_BaseSocket::SlotRecvData()
{
    while (bytesAvailable() > 0) {
        const QByteArray chunk = read(kReadChunk);
        if (chunk.isEmpty())
            break;
        for (const ServerReply& reply : framer_.feed(chunk))
            handleReply(reply);
    }
    if (framer_.waitingForClose())
        quiet_.start(kQuietMs);
}

void QEL_BaseSocket::handleReply(const ServerReply& reply)
{
    qDebug().noquote() << QString("oxa recv normal") + QString(135, QChar('-'));
    // The text ends at the first zero byte.
    qDebug().noquote() << QString::fromUtf8(reply.raw.constData(), int(qstrnlen(reply.raw.constData(), uint(reply.raw.size()))));
    const int number = reply.sessionId();
    if (reply.ok()) {
        answeredHere_ = true;
        reconnector_.answered();
        emit sigAnswered();
        if (number != 0)
            emit sigReply(number, QString::fromUtf8(reply.body.constData(),
                                                    int(qstrnlen(reply.body.constData(), uint(reply.body.size())))));
    } else if (reply.status != 0) {
        emit sigNotAnswered(number, reply.status, reply.retryAfterMs());
    }
}

// ---- connecting -----------------------------------------------------------

void QEL_BaseSocket::requestConnect(ConnectWhen when, ConnectDone done, const QString& key, bool force)
{
    reconnector_.request(when, std::move(done), key, force);
}

bool QEL_BaseSocket::track(const std::shared_ptr<WriteTicket>& ticket)
{
    std::lock_guard<std::mutex> g(waitsMutex_);
    if (stopping_) {
        ticket->finish(WriteResult::NotConnected);
        return false;
    }
    // Forget the waits that are over, so the list stays short.
    waits_.erase(std::remove_if(waits_.begin(), waits_.end(),
                                [](const std::weak_ptr<WriteTicket>& w) { return w.expired(); }),
                 waits_.end());
    waits_.push_back(ticket);
    return true;
}

void QEL_BaseSocket::closeForStop()
{
    std::vector<std::weak_ptr<WriteTicket>> waits;
    {
        std::lock_guard<std::mutex> g(waitsMutex_);
        stopping_ = true;
        waits.swap(waits_);
    }
    for (const std::weak_ptr<WriteTicket>& w : waits)
        if (std::shared_ptr<WriteTicket> t = w.lock())
            t->finish(WriteResult::NotConnected);
    abort();
}

bool QEL_BaseSocket::connectAndWait(int timeoutMs)
{
    auto ticket = std::make_shared<WriteTicket>();
    if (!track(ticket))
        return false;
    QMetaObject::invokeMethod(
        this,
        [this, ticket] {
            if (isQel()) {
                ticket->finish(WriteResult::Written);
                return;
            }
            requestConnect(ConnectWhen::Now, [ticket](bool ok) {
                ticket->finish(ok ? WriteResult::Written : WriteResult::NotConnected);
            });
        },
        Qt::QueuedConnection);
    return ticket->wait(timeoutMs) == WriteResult::Written;
}

void QEL_BaseSocket::onAttemptFinished(bool)
{
    // Writes that waited for the attempt go now, or fail if it failed.
    std::vector<PendingWrite> deferred;
    deferred.swap(deferred_);
    for (PendingWrite& p : deferred)
        startWrite(p.ticket, p.data);
}

// ---- writing --------------------------------------------------------------

QEL_BaseSocket::WriteResult QEL_BaseSocket::writeAndWait(const QByteArray& data, int timeoutMs,
                                                         std::function<void()> onWritten)
{
    return writeAsync(data, std::move(onWritten)).wait(timeoutMs);
}

QEL_BaseSocket::WriteHandle QEL_BaseSocket::writeAsync(const QByteArray& data, std::function<void()> onWritten,
                                                      quint64 sameConnection)
{
    WriteHandle handle;
    handle.ticket_ = std::make_shared<WriteTicket>();
    handle.ticket_->onWritten = std::move(onWritten);
    handle.ticket_->requireConnection = sameConnection;
    auto ticket = handle.ticket_;
    if (!track(ticket))
        return handle;
    QMetaObject::invokeMethod(
        this, [this, ticket, data] { startWrite(ticket, data); }, Qt::QueuedConnection);
    return handle;
}

QEL_BaseSocket::WriteResult QEL_BaseSocket::WriteHandle::wait(int timeoutMs)
{
    return ticket_ ? ticket_->wait(timeoutMs) : WriteResult::NotConnected;
}

quint64 QEL_BaseSocket::WriteHandle::connection() const
{
    if (!ticket_)
        return 0;
    std::lock_guard<std::mutex> g(ticket_->m);
    return ticket_->connection;
}

void QEL_BaseSocket::startWrite(const std::shared_ptr<WriteTicket>& ticket, const QByteArray& data)
{
    QEL_ASSERT_MAIN_THREAD();
    {
        // A writer that has given up waiting must not have its bytes sent late.
        std::lock_guard<std::mutex> g(ticket->m);
        if (ticket->done)
            return;
    }
    if (ticket->requireConnection != 0 && (ticket->requireConnection != connection_ || !isQel())) {
        ticket->finish(WriteResult::NotConnected);
        return;
    }
    if (reconnector_.attempting()) {
        deferred_.push_back(PendingWrite{ticket, data, 0});
        return;
    }
    {
        std::lock_guard<std::mutex> g(ticket->m);
        ticket->connection = connection_;
    }
    if (!writeNow(data)) {
        ticket->finish(WriteResult::NotConnected);
        return;
    }
    if (ticket->onWritten)
        ticket->onWritten();
    if (bytesFlushed_ >= bytesQueued_)
        ticket->finish(WriteResult::Written);
    else
        inFlight_.push_back(PendingWrite{ticket, QByteArray(), bytesQueued_});
}

bool QEL_BaseSocket::writeNow(const QByteArray& data)
{
    QEL_ASSERT_MAIN_THREAD();
    if (state() != QAbstractSocket::ConnectedState)
        return false;
    const qint64 n = write(data);
    if (n < 0)
        return false;
    bytesQueued_ += n;
    flush();
    return true;
}

void QEL_BaseSocket::abortAndReconnect()
{
    // Queued like every write, so it lands before any write asked for later.
    QMetaObject::invokeMethod(
        this,
        [this] {
            connected = false;
            if (state() != QAbstractSocket::UnconnectedState) {
                readAll();      // a late answer must not be read as the next one's
                abort();
            }
            requestConnect(ConnectWhen::Backoff);
        },
        Qt::QueuedConnection);
}

void QEL_BaseSocket::onBytesWritten(qint64 n)
{
    bytesFlushed_ += n;
    while (!inFlight_.empty() && inFlight_.front().target <= bytesFlushed_) {
        inFlight_.front().ticket->finish(WriteResult::Written);
        inFlight_.erase(inFlight_.begin());
    }
}

void QEL_BaseSocket::failPendingWrites()
{
    for (PendingWrite& p : inFlight_)
        p.ticket->finish(WriteResult::NotConnected);
    inFlight_.clear();
    bytesQueued_ = 0;
    bytesFlushed_ = 0;
}

// ---- the two server sockets --------------------------------------------------

QEL_SocketInfo::QEL_SocketInfo(QObject* parent, const QString& peerHost, const QString& peerPort)
    : QEL_BaseSocket(parent)
{
    setPeer("INFO", peerHost, peerPort);
    reconnector().setBackOffUntilAnswered(true);
}

int QEL_SocketInfo::Init()
{
    requestConnect(ConnectWhen::Now);
    // Regarded as connected whatever the outcome: the first send finds out,
    // and a send on a socket that is not really connected reconnects it.
    connected = true;
    return isQel() ? 0 : ERR_NetNoConnect;
}

QEL_SocketFile::QEL_SocketFile(QObject* parent, const QString& peerHost, const QString& peerPort)
    : QEL_BaseSocket(parent)
{
    setPeer("FILE", peerHost, peerPort);
    reconnector().setBackOffUntilAnswered(true);
}
