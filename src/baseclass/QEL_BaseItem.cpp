#include "QEL_BaseItem.h"

#include <QDebug>
#include <QMutexLocker>

#include <glog/logging.h>

#include "CHttpBase.h"
#include "NetWorkConsole.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"
#include "globals.h"

namespace {
const int kSendWriteWaitMs = 30000;
}

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
    socket = gConsole->socketInfo;
    thread = gConsole->threadInfo;
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

void QEL_BaseItem::Item_fromApplication(const QString& body)
{
    QString info;
    if (Item_pickInfo(body, info) == RET_OK)
        Item_addToSendQueue(QStringList() << info);
}

RetError QEL_BaseItem::Item_addToSendQueue(const QStringList& list)
{
    if (list.isEmpty())
        return RET_NOTHING;
    if (!canSend())
        return RET_NOTHING;
    {
        QMutexLocker g(thread->lock);
        thread->queue.append(list);
    }

    if (!thread->isSending() && !socket->connected) {
        // Reconnect first; the thread starts when the attempt has ended.
        QEL_BaseThread* t = thread;
        socket->requestConnect(
            QEL_BaseSocket::ConnectWhen::Backoff,
            [t](bool ok) {
                if (!ok)
                    gConsole->reportLinkLost();
                t->startSend();
            },
            QString("queue:%1").arg(reinterpret_cast<quintptr>(t)));
        return RET_OK;
    }
    thread->startSend();
    return RET_OK;
}

RetError QEL_BaseItem::Item_NetSendOperate(const QString& request)
{
    qDebug().noquote() << QString("oxa send normal") + QString(105, QChar('-'));
    qDebug().noquote() << QString("\"%1\"").arg(request);

    if (socket->connected) {
        const bool locked = socket->socket_lock();
        const QEL_BaseSocket::WriteResult r = socket->writeAndWait(request.toUtf8(), kSendWriteWaitMs);
        if (locked)
            socket->socket_unlock();
        if (r != QEL_BaseSocket::WriteResult::NotConnected) {
            LOG(INFO) << "send:" << number << "(info write to socket alread)";
            return RET_OK;
        }
        // Regarded as connected but it is not: from now on it is not.
        socket->connected = false;
    }
    LOG(INFO) << "send:" << number << "(ERR_NetNoConnect send without connected)";
    emit sigNoConnected();
    return ERR_NetNoConnect;
}

RetError QEL_BaseItem::Item_NetRecvOperate(const QString& body)
{
    QString value;
    CHttpBase::getBuffItem(body, "code", value);
    const char* result = (value == "0" || value == "\"0\"") ? "-- success --" : "-- fail --";

    {
        QMutexLocker g(thread->lock);
        if (!thread->queue.isEmpty()) {
            QStringList lines;
            CHttpBase::getHeadList(thread->queue.first(), lines);
            if (CHttpBase::getType(lines) == number)
                thread->queue.removeFirst();
        }
    }
    thread->counter = -1;
    LOG(INFO) << "recv:" << number << "(result:" << result << ")";
    thread->goThrough();
    return RET_OK;
}

QString QEL_BaseItem::takeHeadIf(const QString& request)
{
    QMutexLocker g(thread->lock);
    if (!thread->queue.isEmpty() && thread->queue.first() == request)
        return thread->queue.takeFirst();
    return QString();
}

RetError QEL_BaseItem::Item_NetErrorOperate(RetError, const QString& request)
{
    // Taken out under the queue lock, stored after it is released: storing
    // goes through the console, which takes the same lock.
    const QString given = takeHeadIf(request);
    if (!given.isNull())
        gConsole->saveWithOutSend(given);
    thread->counter = -1;
    return RET_OK;
}

void QEL_BaseItem::Item_CloseSocket()
{
    {
        QMutexLocker g(thread->lock);
        if (!thread->queue.isEmpty())
            return;
    }
    // Not under the queue lock: closing may emit signals whose handlers take it.
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
    if (thread != nullptr)
        thread->counter = -1;
    return RET_OK;
}
