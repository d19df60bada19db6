#include "NetWorkConsole.h"

#include <QDateTime>
#include <QMetaObject>
#include <QSet>
#include <QThread>
#include <sys/inotify.h>

#include <glog/logging.h>

#include "CHttpBase.h"
#include "CHttp_AppBack.h"
#include "QEL_BaseItem.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"
#include "QEL_FailStore.h"
#include "QEL_ItemAlarmImage.h"
#include "QEL_ItemHeartBeat.h"
#include "QEL_ItemLoad.h"
#include "QEL_ItemRunState.h"
#include "QEL_ItemVideo.h"
#include "QEL_SQLConf.h"
#include "QEL_SimpleItems.h"
#include "QEL_SocketInline.h"
#include "ThreadCheck.h"

NetWorkConsole::NetWorkConsole(QObject* parent, const QEL_Settings& conf, const QString& dbPath)
    : QObject(parent)
{
    const HttpPeers peers = conf.httpPeers();
    items[0] = new QEL_ItemNone(this);
    items[1] = new QEL_ItemOperaRecord(this, peers);
    items[2] = new QEL_ItemParamter(this, peers);
    items[3] = new QEL_ItemLoad(this, peers);
    items[4] = new QEL_ItemHeartBeat(this, peers);
    items[5] = new QEL_ItemAlarmImage(this, conf);
    items[6] = new QEL_ItemTemplate(this, conf);
    items[7] = new QEL_ItemStatistics(this, peers);
    items[8] = new QEL_ItemROI(this, peers);
    items[9] = new QEL_ItemVideo(this, conf);
    items[10] = new QEL_ItemManualStop(this, peers);
    items[11] = new QEL_ItemDelTemp(this, peers);
    items[12] = new QEL_ItemAddRemind(this, peers);
    items[13] = new QEL_ItemDelRemind(this, peers);
    items[14] = new QEL_ItemGetProductInfo(this, peers);
    items[15] = new QEL_ItemSaveNgVideo(this, peers);
    items[16] = new QEL_ItemTelInfo(this, peers);
    items[17] = new QEL_ItemGetRemind(this, peers);
    items[18] = new QEL_ItemStatistics2(this, peers);
    items[19] = new QEL_ItemRunState(this, peers);
    items[20] = new QEL_ItemDetectCancle(this, peers);

    socketInline = new QEL_SocketInline(parent);
    socketFile = new QEL_SocketFile(parent, conf.serverip_file, conf.serverport_file);
    socketInfo = new QEL_SocketInfo(parent, conf.serverip_info, conf.serverport_info);
    socketRemoval = new QEL_SocketFile(parent, conf.serverip_file, conf.serverport_file);

    threadInfo = new QEL_BaseThread(this);
    threadFile = new QEL_BaseThread(this);
    // Template removals are INFO requests on a connection of their own.
    wireServerSocket(socketFile, threadFile);
    wireServerSocket(socketRemoval, threadInfo);
    wireServerSocket(socketInfo, threadInfo);
    threadInline = new QEL_ThreadInLine(this);
    threadInline->setSocket(socketInline);
    threadInfo->setHost(this);
    threadFile->setHost(this);
    for (QEL_BaseItem* item : items)
        item->setHost(this);
    threadInfo->queue.setTypeOf(&NetWorkConsole::ParseTypeFromInfo);
    threadFile->queue.setTypeOf(&NetWorkConsole::ParseTypeFromInfo);

    // Only the INFO queue is kept in the failure history; uploads are kept
    // as files by their items.
    failStore = new QEL_FailStore(dbPath, this);
    threadInfo->queue.setJournal(failStore);
    threadInfo->queue.setWindow(kInfoWindow);
    // What comes back from the history while the send thread found nothing
    // in memory restarts it.
    threadInfo->queue.setOnFetched(
        [this] { QMetaObject::invokeMethod(this, [this] { threadInfo->startSend(); }, Qt::QueuedConnection); });
    failStore->setBudget(
        queueLimitBytes(conf.queue_limit_mb),
        [this](int count, qint64* oldestMs, qint64* newestMs) {
            return threadInfo->queue.dropOldest(count, oldestMs, newestMs);
        },
        [this](int count) { threadInfo->queue.forgetSpilled(count); });

    // The application hears "/back/" once what its message queued is stored.
    socketInline->setWhenStored([this](std::function<void()> done) { failStore->whenStored(std::move(done)); });
    connect(socketInline, &QEL_SocketInline::sigMessage, this, &NetWorkConsole::takeApplicationMessage);
    connect(socketInline, &QEL_SocketInline::sigToApplication, this, &NetWorkConsole::sendInfoToInline);

    auto* heart = static_cast<QEL_ItemHeartBeat*>(items[4]);
    connect(socketInfo, &QEL_BaseSocket::sigUp, heart, &QEL_ItemHeartBeat::onLinkUp);
}

NetWorkConsole::~NetWorkConsole()
{
    stop();
    delete watcher;
}

void NetWorkConsole::stop()
{
    if (stopped_)
        return;
    stopped_ = true;
    QEL_ASSERT_MAIN_THREAD();
    // Nothing new from the application, and no worker left waiting for
    // this thread, which is about to stop serving them.
    socketInline->closeForStop();
    socketInfo->closeForStop();
    socketFile->closeForStop();
    socketRemoval->closeForStop();
    threadInfo->shutdown();
    threadFile->shutdown();
    threadInline->shutdown();
    // What was answered is finished (archives deleted); a tar under way is
    // ended and its partial archive removed, and a look not made now is
    // made at the next start.
    packerShell_.stop();
    imagePacker_.finish();
    // Run-state reports the application was told about and that are not
    // queued yet are stored as they are.
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    for (const QString& request : static_cast<QEL_ItemRunState*>(items[19])->stopMeasuring())
        failStore->keepText(request, now);
    static_cast<QEL_ItemVideo*>(items[9])->stopVideo();
    if (watcher != nullptr)
        watcher->stop();
    // Every request still queued already has its row; the last batch is
    // committed here.
    failStore->stop();
}

void NetWorkConsole::wireServerSocket(QEL_BaseSocket* socket, QEL_BaseThread* sender)
{
    // Any 2xx on it: what that thread gave up while the server was away goes again.
    connect(socket, &QEL_BaseSocket::sigAnswered, sender, &QEL_BaseThread::serverAnswered);
    connect(socket, &QEL_BaseSocket::sigReply, this, &NetWorkConsole::routeReply);
    connect(socket, &QEL_BaseSocket::sigNotAnswered, this, [this, socket](int number, int status, qint64 retryAfterMs) {
        threadInfo->notAnswered(socket, number, status, retryAfterMs);
        threadFile->notAnswered(socket, number, status, retryAfterMs);
    });
    connect(socket, &QEL_BaseSocket::sigLinkLost, this, &NetWorkConsole::reportLinkLost);
    connect(socket, &QEL_BaseSocket::sigDown, this, [this, socket] {
        threadInfo->linkDown(socket);
        threadFile->linkDown(socket);
    });
}

QEL_BaseSocket* NetWorkConsole::infoSocket() { return socketInfo; }
QEL_BaseSocket* NetWorkConsole::fileSocket() { return socketFile; }
QEL_BaseSocket* NetWorkConsole::removalSocket() { return socketRemoval; }
QEL_BaseThread* NetWorkConsole::infoThread() { return threadInfo; }
QEL_BaseThread* NetWorkConsole::fileThread() { return threadFile; }

void NetWorkConsole::FirstInit()
{
    // Reading the history back is the store's first job, so it sees none of
    // the rows that this run is about to add.
    failStore->start();
    failStore->loadKept(QEL_SendQueue::TypeOf(&NetWorkConsole::ParseTypeFromInfo), kInfoWindow,
                        [this](const QList<QEL_QueuedRequest>& kept, qint64 spilled) {
                            QMetaObject::invokeMethod(
                                this, [this, kept, spilled] { queueKept(kept, spilled); }, Qt::QueuedConnection);
                        });

    socketFile->Init();
    socketInfo->Init();
    socketInline->Init();

    for (QEL_BaseItem* item : items)
        item->Item_Init();
}

qint64 NetWorkConsole::queueLimitBytes(const QString& text)
{
    // Optional: absent or empty means the default; anything else unusable is said once.
    const qint64 mb = QEL_SQLConf::queueLimitMb(text);
    if (mb >= 0)
        return mb == 0 ? QEL_FailStore::kDefaultLimitBytes : mb << 20;
    LOG(INFO) << "config:" << "(queue_limit_mb \"" << text.trimmed().toUtf8().constData() << "\" is not a number of MiB above 0;"
              << " the default " << (QEL_FailStore::kDefaultLimitBytes >> 20) << " is used)";
    return QEL_FailStore::kDefaultLimitBytes;
}

void NetWorkConsole::queueKept(const QList<QEL_QueuedRequest>& kept, qint64 spilled)
{
    // Requests left over from the last run go out again like new ones. A
    // text this run has already queued (its own login) is not sent twice:
    // its old row is finished with.
    const QStringList queuedNow = threadInfo->queue.texts();
    const QSet<QString> already(queuedNow.begin(), queuedNow.end());
    QList<QEL_QueuedRequest> fresh;
    for (const QEL_QueuedRequest& r : kept) {
        if (already.contains(r.text))
            failStore->journalDone(r.id);
        else
            fresh.append(r);
    }
    if (fresh.isEmpty() && spilled == 0)
        return;
    threadInfo->queue.appendKept(fresh, spilled);
    if (!socketInfo->connected || !socketInfo->isQel()) {
        socketInfo->requestConnect(QEL_BaseSocket::ConnectWhen::Backoff,
                                   [this](bool) { threadInfo->startSend(); });
        return;
    }
    threadInfo->startSend();
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

QEL_BaseItem* NetWorkConsole::item(int number) const
{
    return (number >= 0 && number < kItemCount) ? items[number] : nullptr;
}

void NetWorkConsole::takeApplicationMessage(int type, const QString& body, const std::function<void()>& handled)
{
    QEL_ASSERT_MAIN_THREAD();
    items[type]->Item_fromApplication(body, handled);
}

void NetWorkConsole::routeReply(int number, const QString& body)
{
    QEL_ASSERT_MAIN_THREAD();
    if (QEL_BaseItem* item = routableItem(number))
        item->Item_NetRecvOperate(body);
}

void NetWorkConsole::sendInfoToInline(const QString& text)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, [this, text] { sendInfoToInline(text); }, Qt::QueuedConnection);
        return;
    }
    if (stopped_)
        return;     // the application link is closed for good

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
            threadInline->queue.append(held);
            threadInline->startSend();
        });
        return;
    }

    threadInline->queue.append(QStringList() << text);
    threadInline->startSend();
}

void NetWorkConsole::SlotSysChange(const QList<watchinfo>& changes)
{
    QStringList created[kItemCount];
    for (const watchinfo& w : changes) {
        const QString path = watcher != nullptr ? w.getTriFilePath(watcher->paths) : QString();
        if (path.isEmpty())
            continue;       // a descriptor this watcher never handed out
        const int type = ParseTypeFromTrig(path);
        if (w.mask == IN_CREATE) {
            created[type].append(path);
        } else {
            int camera = 0, detect = 0;
            items[type]->ParseToCamDec(path, camera, detect);
        }
    }
    items[5]->Item_addToSendQueue(created[5]);
    items[6]->Item_addToSendQueue(created[6]);
    items[11]->Item_addToSendQueue(created[11]);
}

void NetWorkConsole::saveWithOutSend()
{
    // Every queued request already has its row (or is on its way to it).
}

void NetWorkConsole::saveWithOutSend(const QString& text)
{
    failStore->keepText(text, QDateTime::currentMSecsSinceEpoch());
}

void NetWorkConsole::refreshFailHistory()
{
    // The table follows the queue as it changes; nothing is counted or
    // scanned here, whatever the backlog.
}

void NetWorkConsole::reportLinkLost()
{
    QEL_ASSERT_MAIN_THREAD();
    CHttp_AppBack back;
    const QString notice = back.BackReline();
    saveWithOutSend();
    sendInfoToInline(notice);
}
