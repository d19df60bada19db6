#include "QEL_BaseSocket.h"

#include <QDebug>
#include <QMetaObject>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include <glog/logging.h>

#include "CHttpBase.h"
#include "NetWorkConsole.h"
#include "QEL_SQLConf.h"
#include "RetError.h"
#include "globals.h"

namespace {
const int kReadChunk = 2048;
const int kConnectTimeoutMs = 5000;
const int kBackoffFirstMs = 1000;
const int kBackoffMaxMs = 30000;
const int kSocketLockWaitMs = 60000;
}  // namespace

struct QEL_BaseSocket::WriteTicket
{
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    WriteResult result = WriteResult::TimedOut;

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
};

QEL_BaseSocket::QEL_BaseSocket(QObject* parent)
    : QTcpSocket(parent)
    , lock_(new QMutex)
{
    reserved = 0;
    setPeer("NONE", gConfig->serverip_info, gConfig->serverport_info);
    setReadBufferSize(kReadChunk);

    connect(this, &QTcpSocket::connected, this, &QEL_BaseSocket::SlotConnected);
    connect(this, &QTcpSocket::readyRead, this, &QEL_BaseSocket::SlotRecvData);
    connect(this, &QTcpSocket::disconnected, this, &QEL_BaseSocket::SlotDisConnected);
    connect(this, &QAbstractSocket::errorOccurred, this, &QEL_BaseSocket::SlotError);

    // Connection bookkeeping runs after the slots above, so the connect and
    // disconnect log lines come before an attempt's outcome is acted on.
    connect(this, &QTcpSocket::connected, this, [this] {
        if (attemptInProgress_)
            finishAttempt(true);
    });
    connect(this, &QAbstractSocket::stateChanged, this, [this](QAbstractSocket::SocketState s) {
        if (s != QAbstractSocket::UnconnectedState)
            return;
        failPendingWrites();
        if (attemptInProgress_)
            finishAttempt(false);
    });
    connect(this, &QIODevice::bytesWritten, this, &QEL_BaseSocket::onBytesWritten);

    retryTimer_.setSingleShot(true);
    connect(&retryTimer_, &QTimer::timeout, this, &QEL_BaseSocket::beginAttempt);
    attemptTimer_.setSingleShot(true);
    connect(&attemptTimer_, &QTimer::timeout, this, [this] {
        if (attemptInProgress_)
            abort();    // the state change ends the attempt as failed
    });
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
    gConsole->reportLinkLost();
}

void QEL_BaseSocket::SlotRecvData()
{
    while (bytesAvailable() > 0) {
        const QByteArray chunk = read(kReadChunk);
        if (chunk.isEmpty())
            break;
        handleReply(chunk);
    }
}

void QEL_BaseSocket::handleReply(const QByteArray& chunk)
{
    qDebug().noquote() << QString("oxa recv normal") + QString(135, QChar('-'));
    // The text ends at the first zero byte, and never past the bytes read.
    const int len = static_cast<int>(strnlen(chunk.constData(), static_cast<size_t>(chunk.size())));
    const QString text = QString::fromUtf8(chunk.constData(), len);
    qDebug().noquote() << text;

    QStringList lines;
    CHttpBase::getHeadList(text, lines);
    const int number = CHttpBase::getType(lines);
    QString body;
    CHttpBase::getBuffString(text, body);
    if (number != 0)
        gConsole->routeReply(number, body);
}

// ---- connecting -----------------------------------------------------------

int reconnectDelayMs(int failures)
{
    if (failures <= 0)
        return 0;
    const int shift = failures - 1 < 5 ? failures - 1 : 5;
    const int delay = kBackoffFirstMs << shift;
    return delay < kBackoffMaxMs ? delay : kBackoffMaxMs;
}

void QEL_BaseSocket::requestConnect(ConnectWhen when, ConnectDone done, const QString& key)
{
    if (done) {
        bool joined = false;
        if (!key.isEmpty()) {
            for (const Waiter& w : waiters_)
                if (w.key == key)
                    joined = true;
        }
        if (!joined)
            waiters_.push_back(Waiter{key, std::move(done)});
    }
    if (attemptInProgress_)
        return;
    if (retryTimer_.isActive() && when == ConnectWhen::Backoff)
        return;
    // Always begin from the event loop, never inside the caller's stack.
    retryTimer_.start(when == ConnectWhen::Now ? 0 : reconnectDelayMs(failures_));
}

void QEL_BaseSocket::beginAttempt()
{
    if (state() != QAbstractSocket::UnconnectedState) {
        readAll();              // whatever is buffered belongs to the old connection
        abort();
    }
    attemptInProgress_ = true;
    attemptTimer_.start(kConnectTimeoutMs);
    connectToHost(host, static_cast<quint16>(port.toInt(nullptr, 10)), QIODevice::ReadWrite);
}

void QEL_BaseSocket::finishAttempt(bool ok)
{
    attemptInProgress_ = false;
    attemptTimer_.stop();
    if (ok)
        failures_ = 0;
    else if (failures_ < 16)
        ++failures_;

    std::vector<PendingWrite> deferred;
    deferred.swap(deferred_);
    for (PendingWrite& p : deferred)
        startWrite(p.ticket, p.data);

    std::vector<Waiter> waiters;
    waiters.swap(waiters_);
    for (Waiter& w : waiters)
        w.done(ok);
}

// ---- writing --------------------------------------------------------------

QEL_BaseSocket::WriteResult QEL_BaseSocket::writeAndWait(const QByteArray& data, int timeoutMs)
{
    auto ticket = std::make_shared<WriteTicket>();
    QMetaObject::invokeMethod(
        this, [this, ticket, data] { startWrite(ticket, data); }, Qt::QueuedConnection);
    std::unique_lock<std::mutex> g(ticket->m);
    ticket->cv.wait_for(g, std::chrono::milliseconds(timeoutMs), [&] { return ticket->done; });
    return ticket->done ? ticket->result : WriteResult::TimedOut;
}

void QEL_BaseSocket::startWrite(const std::shared_ptr<WriteTicket>& ticket, const QByteArray& data)
{
    if (attemptInProgress_) {
        deferred_.push_back(PendingWrite{ticket, data, 0});
        return;
    }
    if (!writeNow(data)) {
        ticket->finish(WriteResult::NotConnected);
        return;
    }
    if (bytesFlushed_ >= bytesQueued_)
        ticket->finish(WriteResult::Written);
    else
        inFlight_.push_back(PendingWrite{ticket, QByteArray(), bytesQueued_});
}

bool QEL_BaseSocket::writeNow(const QByteArray& data)
{
    if (state() != QAbstractSocket::ConnectedState)
        return false;
    const qint64 n = write(data);
    if (n < 0)
        return false;
    bytesQueued_ += n;
    flush();
    return true;
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

QEL_SocketInfo::QEL_SocketInfo(QObject* parent)
    : QEL_BaseSocket(parent)
{
    setPeer("INFO", gConfig->serverip_info, gConfig->serverport_info);
}

int QEL_SocketInfo::Init()
{
    requestConnect(ConnectWhen::Now);
    // Regarded as connected whatever the outcome: the first send finds out,
    // and a send on a socket that is not really connected reconnects it.
    connected = true;
    return isQel() ? 0 : ERR_NetNoConnect;
}

QEL_SocketFile::QEL_SocketFile(QObject* parent)
    : QEL_BaseSocket(parent)
{
    setPeer("FILE", gConfig->serverip_file, gConfig->serverport_file);
}
