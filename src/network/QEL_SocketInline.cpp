#include "QEL_SocketInline.h"

#include <QTimer>
#include <cstring>

#include <glog/logging.h>

#include "RetError.h"

namespace {
const int kInlineReadBuffer = 65535;
const int kInlineWriteWaitMs = 5000;
const char* const kSeparator = ":..!";
}  // namespace

QEL_SocketInline::QEL_SocketInline(QObject* parent)
    : QEL_BaseSocket(parent)
{
    setPeer("INLINE", "127.0.0.1", "8890");
    setReadBufferSize(kInlineReadBuffer);

    // The application may restart at any time: the link comes back by
    // itself, 1 s to 5 s apart while the application is away.
    connect(this, &QEL_BaseSocket::sigDown, this, [this] { requestConnect(ConnectWhen::Backoff); });
    connect(&reconnector(), &QEL_Reconnector::attemptFinished, this, [this](bool ok) {
        if (!ok)
            requestConnect(ConnectWhen::Backoff);
    });
}

int QEL_SocketInline::Init()
{
    requestConnect(ConnectWhen::Now, [this](bool ok) { connected = ok; });
    return isQel() ? RET_OK : ERR_NetNoConnect;
}

void QEL_SocketInline::SlotRecvData()
{
    while (bytesAvailable() > 0) {
        const QByteArray chunk = read(kInlineReadBuffer);
        if (chunk.isEmpty())
            break;
        const int len = static_cast<int>(strnlen(chunk.constData(), static_cast<size_t>(chunk.size())));
        ParsingAndSend(QString::fromUtf8(chunk.constData(), len), owedAcknowledgement());
    }
}

std::function<void()> QEL_SocketInline::owedAcknowledgement()
{
    const quint64 ack = ++lastAck_;
    owed_.insert(ack);
    QTimer::singleShot(kAckBoundMs, this, [this, ack] { acknowledge(ack, false); });
    return [this, ack] {
        if (!whenStored_) {
            acknowledge(ack, true);
            return;
        }
        whenStored_([this, ack] {
            QMetaObject::invokeMethod(this, [this, ack] { acknowledge(ack, true); }, Qt::QueuedConnection);
        });
    };
}

void QEL_SocketInline::acknowledge(quint64 ack, bool stored)
{
    if (!owed_.remove(ack))
        return;     // sent already
    if (stored) {
        unstoredEpisode_ = false;
    } else if (!unstoredEpisode_) {
        unstoredEpisode_ = true;
        LOG(INFO) << "savefail:" << "(acknowledged, not yet stored: the failure history has not committed for "
                  << kAckBoundMs / 1000 << " s; the request stays queued)";
    }
    emit sigToApplication(appBack_.BackReply(SendType(0)));
}

int QEL_SocketInline::splitMessage(const QString& message, int& type, QString& body)
{
    const QStringList parts = message.split(kSeparator, Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (parts.size() != 2)
        return RET_MALFORMED;
    const QStringList head = parts[0].split(":", Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (head.size() != 2)
        return RET_MALFORMED;

    type = head[0].toInt(nullptr, 10);      // not a number: 0
    // The item table has entries 0..20 only; anything else is dropped quietly.
    if (type > 20 || type < 0)
        return RET_TYPE_RANGE;
    body = parts[1];
    return RET_OK;
}

void QEL_SocketInline::ParsingAndSend(const QString& message, const std::function<void()>& handled)
{
    int type = 0;
    QString body;
    if (splitMessage(message, type, body) != RET_OK) {
        if (handled)
            handled();
        return;
    }
    emit sigMessage(type, body, handled);
    // The video item logs its own line for the cameras' announcement.
    if (type != 9)
        LOG(INFO) << "Inline:" << type << "(get info from application)";
}

QEL_ThreadInLine::QEL_ThreadInLine(QObject* parent)
    : QEL_BaseThread(parent)
{
}

void QEL_ThreadInLine::setSocket(QEL_BaseSocket* socket)
{
    socket_ = socket;
}

void QEL_ThreadInLine::drain()
{
    for (;;) {
        QEL_QueuedRequest head;
        // Link down: the texts stay queued for the next start.
        if (quitting() || !socket_->connected || !queue.take(head)) {
            endPass();
            return;
        }
        // Not under the queue lock: producers on the main thread must never
        // wait for the main thread's own write.
        socket_->writeAndWait(head.text.toUtf8(), kInlineWriteWaitMs);
        queue.removeDone(head.id);
    }
}
