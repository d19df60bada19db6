#include "QEL_ItemHeartBeat.h"

#include <QDebug>
#include <QTimerEvent>

#include <glog/logging.h>

#include "CHttpEndpoints.h"
#include "CHttp_AppBack.h"
#include "QEL_ItemHost.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"

bool heartAcknowledged(qint64 nowMs, qint64 lastHeartMs, bool connected)
{
    return nowMs - lastHeartMs <= QEL_ItemHeartBeat::kHeartBoundMs && connected;
}

QEL_ItemHeartBeat::QEL_ItemHeartBeat(QObject* parent, const HttpPeers& peers)
    : QEL_BaseItem(parent)
    , lastHeart(QDateTime::currentDateTime())
{
    http = new CHttp_Heart(peers);
    number = 4;
}

RetError QEL_ItemHeartBeat::Item_Init()
{
    QEL_BaseItem::Item_Init();
    timers.insert(startTimer(kHeartPeriodMs), "timer_heart");
    timers.insert(startTimer(kSaveFailPeriodMs), "timer_savefail");
    return RET_OK;
}

RetError QEL_ItemHeartBeat::Item_pickInfo(const QString& info, QString& out)
{
    // A heartbeat text from the application must not change the timer's own
    // heartbeat, so it gets a builder of its own.
    return pickInfoOnOwnBuilder<CHttp_Heart>(info, out);
}

void QEL_ItemHeartBeat::timerEvent(QTimerEvent* event)
{
    const QString name = timers.value(event->timerId(), "null");
    if (name == "timer_heart") {
        if (host()->loggedIn() && isChkHeartBack())
            sendHeart();
    } else if (name == "timer_savefail") {
        LOG(INFO) << "savefail:" << "(update info_failhistory ok)";
        host()->refreshFailHistory();
    }
    QEL_BaseItem::timerEvent(event);
}

bool QEL_ItemHeartBeat::isChkHeartBack()
{
    const qint64 now = QDateTime::currentDateTimeUtc().toMSecsSinceEpoch();
    const qint64 last = lastHeart.toUTC().toMSecsSinceEpoch();
    if (heartAcknowledged(now, last, socket->connected))
        return true;
    // A server that closes idle connections (many do after a few seconds)
    // has not let a heartbeat go unanswered: the next one goes on a new
    // connection, quietly.
    const bool closedWhileIdle = heartAcknowledged(now, last, true) && !socket->isQel();
    socket->connected = false;
    if (!closedWhileIdle)
        LOG(INFO) << "error:" << 13 << "(heart time out)";
    // The reconnect's outcome finishes this tick: a heartbeat when it worked,
    // the "/reline/" notice when it did not.
    Item_NetErrorOperate(RET_HEART_TIMEOUT, "heart_noconnected");
    return false;
}

void QEL_ItemHeartBeat::sendHeart()
{
    const QString request = http->getHttp();
    qDebug().noquote() << QString("heart") + QString(145, QChar('-'));
    qDebug().noquote() << QString("\"%1\"").arg(request);
    // Told to the application only when the heartbeat really went out.
    if (!socket->writeNow(request.toUtf8()))
        return;
    CHttp_AppBack back;
    host()->sendInfoToInline(back.BackHeart());
    LOG(INFO) << "heart:" << "(send to service and application ok)";
}

void QEL_ItemHeartBeat::onLinkUp()
{
    // A connection that has just come up is as good as an acknowledged
    // heartbeat: a time-out that ran up while the server was away must not
    // tear it down again.
    lastHeart = QDateTime::currentDateTimeUtc();
}

RetError QEL_ItemHeartBeat::Item_NetErrorOperate(RetError error, const QString& request)
{
    if (error != RET_HEART_TIMEOUT) {
        // A heartbeat the application queued and nobody answered: give it up
        // like any other request instead of reconnecting for ever.
        return QEL_BaseItem::Item_NetErrorOperate(error, request);
    }
    if (reconnecting_)
        return ERR_NetNoConnect;
    reconnecting_ = true;
    // Within the back-off (at once after a working connection): a fleet whose
    // heartbeats tick together does not come back in one wave.
    socket->requestConnect(QEL_BaseSocket::ConnectWhen::Backoff, [this](bool ok) {
        reconnecting_ = false;
        if (ok) {
            socket->connected = true;
            lastHeart = QDateTime::currentDateTimeUtc();
            sendHeart();
        } else {
            host()->reportLinkLost();
        }
    }, QString(), true);
    return RET_OK;
}

RetError QEL_ItemHeartBeat::Item_NetRecvOperate(const QString& body)
{
    QString msg;
    CHttpBase::getBuffItem(body, "msg", msg);
    int r = 0;
    if (msg == "\"OK\"" || msg == "\"ok\"") {
        socket->connected = true;
        lastHeart = QDateTime::currentDateTimeUtc();
        r = 1;
    } else {
        socket->connected = false;
    }
    LOG(INFO) << "heart:" << "(recv heartpage back r:" << r << ")";

    // The answer also releases a heartbeat text the application queued, if
    // that is the request in flight, so the INFO queue does not stall
    // behind it.
    if (thread->queue.acknowledge(number)) {
        thread->answered(number);
        thread->goThrough();
    }
    return RET_OK;
}
