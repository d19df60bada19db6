#include "NetWorkConsole.h"

#include <QDateTime>
#include <QMetaObject>
#include <QMutexLocker>
#include <QThread>

#include "CHttpBase.h"
#include "CHttp_AppBack.h"
#include "QEL_BaseItem.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"
#include "QEL_ItemAlarmImage.h"
#include "QEL_ItemHeartBeat.h"
#include "QEL_ItemLoad.h"
#include "QEL_ItemRunState.h"
#include "QEL_SQLConf.h"
#include "QEL_SimpleItems.h"
#include "QEL_SocketInline.h"
#include "globals.h"

namespace {

bool onThreadOf(const QObject* o)
{
    return QThread::currentThread() == o->thread();
}

}  // namespace

NetWorkConsole::NetWorkConsole(QObject* parent)
    : QObject(parent)
{
    loggedIn = false;
    secondState = false;

    items[0] = new QEL_BaseItem(this);
    items[1] = new QEL_ItemOperaRecord(this);
    items[2] = new QEL_ItemParamter(this);
    items[3] = new QEL_ItemLoad(this);
    items[4] = new QEL_ItemHeartBeat(this);
    items[5] = new QEL_ItemAlarmImage(this);
    items[6] = new QEL_ItemTemplate(this);
    items[7] = new QEL_ItemStatistics(this);
    items[8] = new QEL_ItemROI(this);
    items[9] = new QEL_ItemVideo(this);
    items[10] = new QEL_ItemManualStop(this);
    items[11] = new QEL_ItemDelTemp(this);
    items[12] = new QEL_ItemAddRemind(this);
    items[13] = new QEL_ItemDelRemind(this);
    items[14] = new QEL_ItemGetProductInfo(this);
    items[15] = new QEL_ItemSaveNgVideo(this);
    items[16] = new QEL_ItemTelInfo(this);
    items[17] = new QEL_ItemGetRemind(this);
    items[18] = new QEL_ItemStatistics2(this);
    items[19] = new QEL_ItemRunState(this);
    items[20] = new QEL_ItemDetectCancle(this);

    socketInline = new QEL_SocketInline(parent);
    socketFile = new QEL_SocketFile(parent);
    socketInfo = new QEL_SocketInfo(parent);

    threadInfo = new QEL_BaseThread(this);
    threadFile = new QEL_BaseThread(this);
    threadInline = new QEL_ThreadInLine(this);
    threadInline->setSocket(socketInline);
}

void NetWorkConsole::FirstInit()
{
    socketFile->Init();
    socketInfo->Init();
    socketInline->Init();

    for (QEL_BaseItem* item : items)
        item->Item_Init();

    // Requests left over from the last run go out again like new ones; the
    // thread picks them up the next time an item starts it.
    const QStringList history = gConfig->initFailHistory();
    if (!history.isEmpty()) {
        QMutexLocker g(threadInfo->lock);
        threadInfo->queue.append(history);
    }
}

int NetWorkConsole::ParseTypeFromInfo(const QString& text)
{
    if (text.contains("qel_alarmimage"))
        return 5;
    if (text.contains("qel_tempimage"))
        return 6;
    QStringList lines;
    CHttpBase::getHeadList(text, lines);
    return CHttpBase::getType(lines);
}

int NetWorkConsole::ParseTypeFromTrig(const QString& path)
{
    if (path.contains("alarmimage"))
        return 5;
    if (path.contains("cammer"))
        return 6;
    return 0;
}

QEL_BaseItem* NetWorkConsole::routableItem(int number) const
{
    if (number < 1 || number >= kItemCount || number == 9)
        return nullptr;
    QEL_BaseItem* item = items[number];
    return item->canSend() ? item : nullptr;
}

void NetWorkConsole::routeReply(int number, const QString& body)
{
    if (QEL_BaseItem* item = routableItem(number))
        item->Item_NetRecvOperate(body);
}

void NetWorkConsole::sendInfoToInline(const QString& text)
{
    if (!onThreadOf(this)) {
        QMetaObject::invokeMethod(this, [this, text] { sendInfoToInline(text); }, Qt::QueuedConnection);
        return;
    }

    // While the link is being brought up, texts wait here in order; the
    // attempt's outcome decides whether they are queued or dropped.
    if (!inlineHeld_.isEmpty()) {
        inlineHeld_.append(text);
        return;
    }
    if (!threadInline->isSending() && !socketInline->connected) {
        inlineHeld_.append(text);
        socketInline->requestConnect(QEL_BaseSocket::ConnectWhen::Now, [this](bool ok) {
            QStringList held;
            held.swap(inlineHeld_);
            if (!ok)
                return;     // the application is not there: the texts are dropped
            {
                QMutexLocker g(threadInline->lock);
                threadInline->queue.append(held);
            }
            threadInline->startSend();
        });
        return;
    }

    {
        QMutexLocker g(threadInline->lock);
        threadInline->queue.append(text);
    }
    threadInline->startSend();
}

QStringList NetWorkConsole::snapshotInfoQueue() const
{
    QMutexLocker g(threadInfo->lock);
    return threadInfo->queue;
}

void NetWorkConsole::saveWithOutSend()
{
    gConfig->storeFailTexts(snapshotInfoQueue(), false);
}

void NetWorkConsole::saveWithOutSend(const QString& text)
{
    const qint64 when = QDateTime::currentMSecsSinceEpoch();
    if (!onThreadOf(this)) {
        QMetaObject::invokeMethod(
            this, [text, when] { gConfig->insertOnceItem(text, when); }, Qt::QueuedConnection);
        return;
    }
    gConfig->insertOnceItem(text, when);
}

void NetWorkConsole::refreshFailHistory()
{
    gConfig->storeFailTexts(snapshotInfoQueue(), true);
}

void NetWorkConsole::reportLinkLost()
{
    CHttp_AppBack back;
    const QString notice = back.BackReline();
    saveWithOutSend();
    sendInfoToInline(notice);
}
