#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <sys/inotify.h>

#include "QEL_Inotify.h"

namespace {

void touch(const QString& path)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
}

// Runs the event loop until a batch has arrived (or `ms` passed).
QList<QList<watchinfo>> batchesWithin(QEL_Inotify& watcher, int ms, int wanted = 1)
{
    QList<QList<watchinfo>> batches;
    QObject::connect(&watcher, &QEL_Inotify::sigChange, [&](QList<watchinfo> b) { batches.append(b); });
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < ms && batches.size() < wanted)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return batches;
}

TEST(Inotify, QuietSpellsBatchChangesOnceEachAndMapThemToTheirDirectory)
{
    QTemporaryDir tmp;
    QStringList dirs;
    for (const char* d : {"a/", "b/", "c/"}) {
        QDir().mkpath(tmp.filePath(d));
        dirs << tmp.filePath(d);
    }
    QEL_Inotify watcher;
    watcher.addWatch(dirs);
    EXPECT_EQ(watcher.paths, dirs);
    watcher.start();

    const QString third = dirs[2] + "img.jpg";
    touch(third);
    QFile::remove(third);
    touch(third);                   // create, delete, create: one of each
    touch(dirs[0] + "first.jpg");

    const QList<QList<watchinfo>> batches = batchesWithin(watcher, 5000);
    ASSERT_EQ(batches.size(), 1);
    const QList<watchinfo>& b = batches[0];
    ASSERT_EQ(b.size(), 3);
    EXPECT_EQ(b[0].mask, quint32(IN_CREATE));
    EXPECT_EQ(b[1].mask, quint32(IN_DELETE));
    EXPECT_EQ(b[0].getTriFilePath(watcher.paths), third);
    EXPECT_EQ(b[2].getTriFilePath(watcher.paths), dirs[0] + "first.jpg");

    // A later spell is a batch of its own.
    touch(dirs[1] + "later.jpg");
    const QList<QList<watchinfo>> later = batchesWithin(watcher, 5000);
    ASSERT_EQ(later.size(), 1);
    EXPECT_EQ(later[0][0].getTriFilePath(watcher.paths), dirs[1] + "later.jpg");
    watcher.stop();
    EXPECT_FALSE(watcher.isRunning());

    // A stop right after the start, before the thread has begun, ends it
    // too (it used to be undone by the starting thread, which then spun).
    for (int i = 0; i < 50; ++i) {
        QEL_Inotify quick;
        quick.start();
        quick.stop();
        EXPECT_FALSE(quick.isRunning());
    }
}

TEST(Inotify, UnknownDescriptorsMapToNothingAndFoldingKeepsFirstOccurrences)
{
    watchinfo w;
    w.name = "x.jpg";
    w.wd = 4;
    EXPECT_TRUE(w.getTriFilePath(QStringList() << "/a/" << "/b/").isEmpty());
    w.wd = 0;
    EXPECT_TRUE(w.getTriFilePath(QStringList() << "/a/").isEmpty());
    w.wd = 2;
    EXPECT_EQ(w.getTriFilePath(QStringList() << "/a/" << "/b/"), "/b/x.jpg");

    watchinfo other = w;
    other.mask = IN_DELETE;
    const QList<watchinfo> folded = foldChanges(QList<watchinfo>() << w << other << w << w);
    ASSERT_EQ(folded.size(), 2);
    EXPECT_EQ(folded[0], w);
    EXPECT_EQ(folded[1], other);
}

}  // namespace
