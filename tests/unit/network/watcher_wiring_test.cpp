#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTemporaryDir>
#include <atomic>

#include "NetWorkConsole.h"
#include "QEL_BaseThread.h"
#include "QEL_Inotify.h"
#include "QEL_ItemAlarmImage.h"
#include "QEL_SQLConf.h"
#include "globals.h"

namespace {

// A configuration whose paths lie in `dir` and whose servers are a closed
// port on 127.0.0.1: nothing here reaches anything but this machine.
QString writeConfig(const QTemporaryDir& dir)
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const QString closedPort = QString::number(probe.serverPort());
    probe.close();

    const QString path = dir.filePath("sysconf.db");
    const QString root = dir.path() + "/";
    const QList<QPair<QString, QString>> rows = {
        {"alarmimage", root + "alarmimage/"}, {"template", root}, {"apppath", root},
        {"failpath", root + "qel_net/qel_fail/"}, {"logpath", root + "qel_net/qel_log/"},
        {"qelpath", root + "qel_net/"}, {"tdata", root + "qel_net/data/"},
        {"serverip_info", "127.0.0.1"}, {"serverip_file", "127.0.0.1"}, {"serverip_video", "127.0.0.1"},
        {"serverport_info", closedPort}, {"serverport_file", closedPort}, {"serverport_video", closedPort},
        {"camera", "1"}, {"detect", "1"}, {"useInlineName", "x"}, {"apppath_send", "x"}, {"thispath", path},
    };
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "wiring-setup");
        db.setDatabaseName(path);
        EXPECT_TRUE(db.open());
        QSqlQuery q(db);
        q.exec("CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
               "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)");
        for (const auto& r : rows) {
            q.prepare("insert into info_sysconf values (?, ?, '')");
            q.addBindValue(r.first);
            q.addBindValue(r.second);
            q.exec();
        }
        db.close();
    }
    QSqlDatabase::removeDatabase("wiring-setup");
    return path;
}

// Waits, serving events, until the image packer has done what it was given.
void waitForPacker(NetWorkConsole& console)
{
    std::atomic<bool> done{false};
    console.imagePacker().post([&done] { done = true; });
    QElapsedTimer t;
    t.start();
    while (!done && t.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

TEST(DirectoryChanges, ACreatedImageReachesItsItemAndIsPacked)
{
    QTemporaryDir tmp;
    const QString db = writeConfig(tmp);
    gConfig = new QEL_SQLConf(nullptr, db);
    ASSERT_EQ(gConfig->status, QEL_SQLConf::kSuccess);
    {
        QObject app;    // owns the sockets, as the application object does
        NetWorkConsole console(&app, db);
        gConsole = &console;
        console.items[5]->Item_Init();
        waitForPacker(console);     // the start-up look: directories made, nothing to pack

        console.watcher = new QEL_Inotify;
        console.watcher->addWatch(console.items[5]->workList);
        QObject::connect(console.watcher, &QEL_Inotify::sigChange, &console, &NetWorkConsole::SlotSysChange);
        console.watcher->start();

        const QString image = tmp.path() + "/alarmimage/camera1/detect1/NG/new image.jpg";
        {
            QFile f(image);
            ASSERT_TRUE(f.open(QIODevice::WriteOnly));
            f.write("pixels");
        }
        QElapsedTimer t;
        t.start();
        while (console.threadFile->queue.isEmpty() && t.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);

        const QStringList queued = console.threadFile->queue.texts();
        ASSERT_EQ(queued.size(), 1);
        EXPECT_TRUE(queued[0].startsWith(tmp.path() + "/qel_net/qel_alarmimage/Tar_")) << queued[0].toStdString();
        EXPECT_TRUE(queued[0].endsWith("_0.tar.gz"));
        QProcess tar;
        tar.start("tar", QStringList() << "-tzf" << queued[0]);
        ASSERT_TRUE(tar.waitForFinished(10000));
        EXPECT_EQ(tar.readAllStandardOutput(), "./alarmimage/camera1/detect1/NG/new image.jpg\n");
        console.stop();
        gConsole = nullptr;
    }
    delete gConfig;
    gConfig = nullptr;
    QSqlDatabase::removeDatabase("dbinfo");
}

}  // namespace
