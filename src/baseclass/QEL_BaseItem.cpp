#include "QEL_BaseItem.h"

#include <QDebug>

#include <glog/logging.h>

#include "CHttpBase.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"
#include "QEL_ItemHost.h"
#include "ThreadCheck.h"

namespace {
const int kSendWriteWaitMs = 30000;
}  // namespace

QEL_BaseItem::QEL_BaseItem(QObject* parent)
    : QObject(parent)
    , textA("null")
    , textB("null")
    , lastTime(QDateTime::fromString("1970-11-12 13:14:15", "yyyy-MM-dd hh:mm:ss"))
{
    connect(this, &QEL_BaseItem::sigNoConnected, this, &QEL_BaseItem::SlotReConnecting);
}

QEL_BaseItem::~QEL_BaseItem()
{
    delete http;
}

RetError QEL_BaseItem::Item_Init()
{
    socket = host()->infoSocket();
    thread = host()->infoThread();
    return RET_OK;
}

RetError QEL_BaseItem::Item_ReInit()
{
    return RET_OK;
}

RetError QEL_BaseItem::Item_pickInfo(const QString& info, QString& out)
{
    if (http == nullptr)
        return RET_MALFORMED;   // no endpoint: nothing to build
    http->repaceBuff(info);
    out = http->getHttp();
    return RET_OK;
}

void QEL_BaseItem::ParseToCamDec(const QString&, int&, int&)
{
}

void QEL_BaseItem::Item_fromApplication(const QString& body, const Handled& handled)
{
    QString info;
    if (Item_pickInfo(body, info) == RET_OK)
        Item_addToSendQueue(QStringList() << info);
    if (handled)
        handled();
}

RetError QEL_BaseItem::Item_addToSendQueue(const QStringList& list)
{
    QEL_ASSERT_MAIN_THREAD();
    if (list.isEmpty())
        return RET_NOTHING;
    if (!canSend())
        return RET_NOTHING;
    thread->queue.append(list);
    startSending();
    return RET_OK;
}

void QEL_BaseItem::startSending()
{
    QEL_ASSERT_MAIN_THREAD();
    if (socket->connected && socket->isQel()) {
        thread->startSend();
        return;
    }
    // Queueing while the link is down asks for it at once (within the
    // back-off); the thread starts when the attempt has ended.
    QEL_BaseThread* t = thread;
    const bool idle = !t->isSending();
    socket->requestConnect(
        QEL_BaseSocket::ConnectWhen::Backoff,
        [t, idle, host = host_](bool ok) {
            if (!ok && idle)
                host->reportLinkLost();
            t->startSend();
        },
        QString("queue:%1").arg(reinterpret_cast<quintptr>(t)));
}

bool QEL_BaseItem::writeRequest(const QString& request)
{
    qDebug().noquote() << QString("oxa send normal") + QString(105, QChar('-'));
    qDebug().noquote() << QString("\"%1\"").arg(request);
    if (!socket->connected)
        return false;
    const bool locked = socket->socket_lock();
    const int n = number;
    // Logged by the main thread as it writes, so the line always comes
    // before the answer's.
    const QEL_BaseSocket::WriteResult r = socket->writeAndWait(request.toUtf8(), kSendWriteWaitMs, [n] {
        LOG(INFO) << "send:" << n << "(info write to socket alread)";
    });
    if (locked)
        socket->socket_unlock();
    if (r != QEL_BaseSocket::WriteResult::NotConnected)
        return true;
    // Regarded as connected but it is not: from now on it is not.
    socket->connected = false;
    return false;
}

RetError QEL_BaseItem::Item_NetSendOperate(const QString& request)
{
    if (writeRequest(request))
        return RET_OK;
    LOG(INFO) << "send:" << number << "(ERR_NetNoConnect send without connected)";
    emit sigNoConnected();
    return ERR_NetNoConnect;
}

RetError QEL_BaseItem::Item_NetRecvOperate(const QString& body)
{
    QString value;
    CHttpBase::getBuffItem(body, "code", value);
    const char* result = (value == "0" || value == "\"0\"") ? "-- success --" : "-- fail --";
    // Only the request in flight is removed: a duplicated or late answer
    // finds nothing of this item in flight and removes nothing.
    if (thread->queue.acknowledge(number))
        thread->answered(number);
    LOG(INFO) << "recv:" << number << "(result:" << result << ")";
    thread->goThrough();
    return RET_OK;
}

RetError QEL_BaseItem::Item_NetErrorOperate(RetError, const QString& request)
{
    // Out of the queue; its copy in the failure history stays there, so the
    // next start sends it again.
    thread->queue.giveUp(request);
    thread->queue.resetAttempts();
    return RET_OK;
}

void QEL_BaseItem::Item_CloseSocket()
{
    if (!thread->queue.isEmpty())
        return;
    socket->disconnectFromHost();
}

void QEL_BaseItem::SlotReConnecting()
{
    QEL_BaseThread* t = thread;
    socket->requestConnect(
        QEL_BaseSocket::ConnectWhen::Backoff, [t](bool) { t->startSend(); },
        QString("restart:%1").arg(reinterpret_cast<quintptr>(t)));
}

QEL_ItemNone::QEL_ItemNone(QObject* parent)
    : QEL_BaseItem(parent)
{
    number = 0;
}

RetError QEL_ItemNone::Item_Init()
{
    return RET_OK;
}

RetError QEL_ItemNone::Item_NetErrorOperate(RetError, const QString&)
{
    return RET_OK;
}
