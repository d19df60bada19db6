// Cost of the 30 s failure-history rewrite with many requests queued: the
// whole snapshot in one transaction (what the agent does) against one commit
// per row.
//
//   bench_snapshot [count=10000] [scratch-dir=/tmp]

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QStringList>
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <cstdio>

#include "QEL_SQLConf.h"

namespace {

QStringList makeRequests(int count)
{
    QStringList texts;
    for (int i = 0; i < count; ++i) {
        const QString body = QString("{\"seq\":%1,\"ng\":3,\"名称\":\"相机\"}").arg(i);
        texts << QString("POST /vmu/device/monitor/statistics/upload HTTP/1.1\r\n"
                         "Content-type: application/json\r\nConnection: keep-alive\r\nSessionId: 7\r\n"
                         "User-Agent: INFO\r\nContent-Length: %1\r\nHost: 127.0.0.1:8000\r\n\r\n%2")
                     .arg(body.toUtf8().size())
                     .arg(body);
    }
    return texts;
}

double timeIt(const std::function<void()>& f)
{
    QElapsedTimer t;
    t.start();
    f();
    return t.nsecsElapsed() / 1e6;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int count = argc > 1 ? atoi(argv[1]) : 10000;
    const QString dir = argc > 2 ? argv[2] : QDir::tempPath();
    const QString path = dir + "/bench_snapshot.db";
    QFile::remove(path);

    QEL_SQLConf store(nullptr, path);
    if (store.status != QEL_SQLConf::kSuccess) {
        std::fprintf(stderr, "store: %s\n", store.status.toUtf8().constData());
        return 1;
    }
    const QStringList texts = makeRequests(count);

    // Warm the file up once, then measure each way three times; best of three.
    store.storeFailTexts(texts, true);
    double batched = 1e18, rowByRow = 1e18;
    for (int round = 0; round < 3; ++round) {
        batched = std::min(batched, timeIt([&] { store.storeFailTexts(texts, true); }));
        rowByRow = std::min(rowByRow, timeIt([&] {
            store.clearFailTable();
            for (const QString& t : texts)
                store.insertOnceItem(t);
        }));
    }
    std::printf("snapshot of %d queued requests: one transaction %.1f ms, row by row %.1f ms (x%.0f)\n",
                count, batched, rowByRow, rowByRow / batched);
    QFile::remove(path);
    return 0;
}
