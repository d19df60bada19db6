// Cost of keeping the INFO queue in the failure history: how fast the store
// thread takes a burst of queued requests, their deliveries, and reads a
// large history back at start-up. The event loop only hands operations over;
// these are the times until they are on disk.
//
//   bench_failstore [count=10000] [scratch-dir=/tmp]

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "QEL_FailStore.h"

namespace {

QList<QEL_QueuedRequest> makeRequests(int count)
{
    QList<QEL_QueuedRequest> out;
    for (int i = 0; i < count; ++i) {
        const QString body = QString("{\"seq\":%1,\"ng\":3,\"名称\":\"相机\"}").arg(i);
        const QString text = QString("POST /vmu/device/monitor/statistics/upload HTTP/1.1\r\n"
                                     "Content-type: application/json\r\nConnection: keep-alive\r\nSessionId: 7\r\n"
                                     "User-Agent: INFO\r\nContent-Length: %1\r\nHost: 127.0.0.1:8000\r\n\r\n%2")
                                 .arg(body.toUtf8().size())
                                 .arg(body);
        out.append(QEL_QueuedRequest{QEL_SendQueue::newId(), 7, text});
    }
    return out;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    const QString dir = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QDir::tempPath();
    const QString path = dir + "/bench_failstore.db";
    QFile::remove(path);
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "bench");
        db.setDatabaseName(path);
        db.open();
        QSqlQuery(db).exec("CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)");
        db.close();
    }
    QSqlDatabase::removeDatabase("bench");

    const QList<QEL_QueuedRequest> requests = makeRequests(count);
    QElapsedTimer t;
    double queuedMs = 0, handOverMs = 0, deliveredMs = 0, loadMs = 0, oneByOneMs = 0;
    {
        QEL_FailStore store(path);
        store.start();
        t.start();
        store.journalQueued(requests);
        handOverMs = t.nsecsElapsed() / 1e6;
        store.flush(600000);
        queuedMs = t.nsecsElapsed() / 1e6;

        t.restart();
        for (const QEL_QueuedRequest& r : requests)
            store.journalDone(r.id);
        store.flush(600000);
        deliveredMs = t.nsecsElapsed() / 1e6;

        // One request at a time, each committed before the next is queued:
        // the steady trickle of a running line (a commit per request).
        const int trickle = count < 200 ? count : 200;
        t.restart();
        for (int i = 0; i < trickle; ++i) {
            store.journalQueued(QList<QEL_QueuedRequest>() << requests[i]);
            store.flush(600000);
        }
        oneByOneMs = t.nsecsElapsed() / 1e6 / trickle;
        store.journalQueued(requests.mid(trickle));
        store.flush(600000);
    }
    {
        QEL_FailStore store(path);
        store.start();
        std::mutex m;
        std::condition_variable cv;
        int loaded = -1;
        t.start();
        store.loadKept(nullptr, 64, [&](const QList<QEL_QueuedRequest>& kept, qint64 spilled) {
            std::lock_guard<std::mutex> g(m);
            loaded = int(kept.size() + spilled);
            cv.notify_all();
        });
        std::unique_lock<std::mutex> g(m);
        cv.wait(g, [&] { return loaded >= 0; });
        loadMs = t.nsecsElapsed() / 1e6;
        if (loaded != count)
            std::printf("loaded %d of %d\n", loaded, count);
    }
    QFile::remove(path);

    std::printf("requests                          %d\n", count);
    std::printf("hand-over of the burst (caller)   %.2f ms\n", handOverMs);
    std::printf("burst queued, on disk             %.1f ms\n", queuedMs);
    std::printf("burst delivered, rows deleted     %.1f ms\n", deliveredMs);
    std::printf("one request, committed alone      %.2f ms\n", oneByOneMs);
    std::printf("start-up: window read, rest counted %.1f ms\n", loadMs);
    return 0;
}
