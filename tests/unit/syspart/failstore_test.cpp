#include <gtest/gtest.h>

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariant>
#include <condition_variable>
#include <mutex>

#include "QEL_FailStore.h"

namespace {

const char* const kCreate = "CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)";

// A database with the failure-history table, and a connection of the test's
// own to look into it (or to hold its lock).
struct StoreFixture : ::testing::Test
{
    QTemporaryDir dir;
    QString path;
    QSqlDatabase db;

    void SetUp() override
    {
        path = dir.filePath("sysconf.db");
        db = QSqlDatabase::addDatabase("QSQLITE", "failstore-test");
        db.setDatabaseName(path);
        ASSERT_TRUE(db.open());
        QSqlQuery(db).exec(kCreate);
    }
    void TearDown() override
    {
        db.close();
        db = QSqlDatabase();
        QSqlDatabase::removeDatabase("failstore-test");
    }

    QStringList rows()
    {
        QStringList out;
        QSqlQuery q(db);
        q.exec("select 内容 from info_failhistory order by rowid");
        while (q.next())
            out.append(q.value(0).toString());
        return out;
    }

    void insertRaw(const QString& text)
    {
        QSqlQuery q(db);
        q.prepare("insert into info_failhistory values (1700000000000, ?)");
        q.addBindValue(text);
        ASSERT_TRUE(q.exec());
    }

    static QList<QEL_QueuedRequest> requests(const QStringList& texts)
    {
        QList<QEL_QueuedRequest> out;
        for (const QString& t : texts)
            out.append(QEL_QueuedRequest{QEL_SendQueue::newId(), 7, t});
        return out;
    }

    // Loads the kept requests and waits for them.
    static QList<QEL_QueuedRequest> load(QEL_FailStore& store)
    {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        QList<QEL_QueuedRequest> got;
        store.loadKept([](const QString& t) { return t.startsWith("7:") ? 7 : 0; },
                       [&](const QList<QEL_QueuedRequest>& kept) {
                           std::lock_guard<std::mutex> g(m);
                           got = kept;
                           done = true;
                           cv.notify_all();
                       });
        std::unique_lock<std::mutex> g(m);
        cv.wait_for(g, std::chrono::seconds(10), [&] { return done; });
        return got;
    }
};

TEST_F(StoreFixture, TheTableFollowsTheQueue)
{
    QEL_FailStore store(path);
    store.start();
    const QList<QEL_QueuedRequest> queued = requests(QStringList() << "7:a" << "7:it's quoted" << "7:c");
    store.journalQueued(queued);
    store.journalDone(queued[0].id);
    store.journalDone(QEL_SendQueue::newId());      // never stored: nothing happens
    ASSERT_TRUE(store.flush(5000));
    // Bound parameters: a text with a single quote is kept like any other.
    EXPECT_EQ(rows(), QStringList() << "7:it's quoted" << "7:c");
    EXPECT_EQ(store.trackedRows(), 2);

    QSqlQuery q(db);
    q.exec("select 发送时间 from info_failhistory");
    ASSERT_TRUE(q.next());
    EXPECT_GT(q.value(0).toLongLong(), 1600000000000LL);     // epoch milliseconds
}

TEST_F(StoreFixture, StartUpKeepsRowsCollapsesDuplicatesAndTracksThem)
{
    for (const char* t : {"7:x", "7:y", "7:x", "junk", "7:x"})
        insertRaw(t);
    QEL_FailStore store(path);
    store.start();
    const QList<QEL_QueuedRequest> kept = load(store);
    ASSERT_EQ(kept.size(), 3);
    EXPECT_EQ(kept[0].text, "7:x");
    EXPECT_EQ(kept[0].number, 7);
    EXPECT_EQ(kept[2].number, 0);
    ASSERT_TRUE(store.flush(5000));
    // Not emptied: a crash right after start-up loses nothing.
    EXPECT_EQ(rows(), QStringList() << "7:x" << "7:y" << "junk");

    store.journalDone(kept[1].id);
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList() << "7:x" << "junk");
}

TEST_F(StoreFixture, ALockedDatabaseDelaysButLosesNothing)
{
    QEL_FailStore store(path);
    store.start();
    ASSERT_TRUE(QSqlQuery(db).exec("BEGIN EXCLUSIVE"));
    const QList<QEL_QueuedRequest> queued = requests(QStringList() << "7:during" << "7:lock");
    store.journalQueued(queued);
    store.journalDone(queued[0].id);
    EXPECT_FALSE(store.flush(1500));        // bounded: the caller is never held
    ASSERT_TRUE(QSqlQuery(db).exec("COMMIT"));
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList() << "7:lock");
}

}  // namespace
