// A send thread's queue and the failure history that journals it.
#include <gtest/gtest.h>

#include <QSet>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QThread>
#include <QVariant>
#include <atomic>

#include "QEL_FailStore.h"
#include "QEL_SendQueue.h"

namespace {

// "7:..." is a request of item 7: enough of a text for the queue.
int typeOfText(const QString& text)
{
    return text.section(':', 0, 0).toInt();
}

struct FakeJournal : QEL_SendJournal
{
    QList<quint64> queued, done, released;
    void journalQueued(const QList<QEL_QueuedRequest>& requests) override
    {
        for (const QEL_QueuedRequest& r : requests)
            queued.append(r.id);
    }
    void journalDone(quint64 id) override { done.append(id); }
    void journalReleased(quint64 id) override { released.append(id); }
};

// What the send thread and the answers do, one step at a time, on the head
// the last Take returned; `result` is what the call must return.
enum Op { Take, Begin, Ack, Refuse, LinkLost, Wait, GiveUp, Done, Damaged, Attempts, TakeBack, NotAnswered };
struct Step
{
    Op op;
    int n = 0;      // the item answering or refusing; for Attempts and TakeBack, the count;
                    // for NotAnswered, 1 if the status blames the request
    bool result = true;
    const char* text = "";
};

struct Scenario
{
    const char* name;
    QStringList texts;
    bool kept;              // read back from the journal at start-up, not journalled again
    std::vector<Step> steps;
    QStringList left;
    QList<int> done;        // which requests the journal was told are finished
    QList<int> released = {};   // ... are let go of, for the next start
};

TEST(SendQueue, AnswersRemoveOnlyTheRequestInFlightAndUnansweredSendsCount)
{
    const Scenario scenarios[] = {
        {"answer before the send, from another item, and repeated", {"7:first", "7:second"}, false,
         {{Take}, {Ack, 7, false}, {Begin}, {Ack, 4, false}, {Ack, 7}, {Ack, 7, false}}, {"7:second"}, {0}},
        {"no answer", {"7:x", "7:y"}, false, {{Take}, {Begin}, {Wait}, {Attempts, 1}, {Ack, 7, false}}, {"7:x", "7:y"}, {}},
        {"answered", {"7:x"}, false, {{Take}, {Begin}, {Ack, 7}, {Wait, 0, false}, {Attempts, 0}}, {}, {0}},
        {"link lost before the answer counts", {"7:x"}, false,
         {{Take}, {Begin}, {LinkLost}, {Wait}, {Attempts, 1}, {Ack, 7, false}}, {"7:x"}, {}},
        {"given up with the server away goes again first at the next answer, once", {"7:a", "7:b", "7:c"}, false,
         {{Take}, {Begin}, {NotAnswered}, {Wait}, {Take}, {Begin}, {LinkLost}, {Wait}, {Attempts, 2}, {GiveUp, 0, true, "7:a"},
          {Take}, {Begin}, {TakeBack, 1}, {Ack, 7}, {Take}, {Begin}, {Wait}, {Take}, {Begin}, {Wait},
          {GiveUp, 0, true, "7:a"}, {TakeBack, 0}},
         {"7:c"}, {1}, {0}},
        {"time-outs: given up until the next start", {"7:a"}, false,
         {{Take}, {Begin}, {Wait}, {Take}, {Begin}, {Wait}, {GiveUp, 0, true, "7:a"}, {TakeBack, 0}}, {}, {}, {0}},
        {"a status that blames the request: given up for good", {"5:big", "5:small"}, false,
         {{Take}, {Begin}, {NotAnswered, 1}, {Wait}, {Take}, {Begin}, {NotAnswered}, {Wait}, {GiveUp, 0, true, "5:big"},
          {TakeBack, 0}},
         {"5:small"}, {}, {0}},
        {"late answer for a resent request", {"7:slow", "7:next"}, false,
         {{Take}, {Begin}, {Wait}, {Attempts, 1}, {Take}, {Begin}, {Ack, 7}, {Wait, 0, false}, {Ack, 7, false}, {Attempts, 0}},
         {"7:next"}, {0}},
        {"give-up touches only the handled head and stays journalled", {"7:lost", "7:lost"}, false,
         {{Take}, {GiveUp, 0, false, "7:other"}, {GiveUp, 0, true, "7:lost"}, {GiveUp, 0, false, "7:lost"}}, {"7:lost"}, {}, {0}},
        {"damaged and done", {"0:damaged", "5:upload"}, false,
         {{Take}, {Damaged}, {Damaged, 0, false}, {Take}, {Begin}, {Done}, {Take, 0, false}, {Attempts, 0}}, {}, {0, 1}},
        {"a refusal is given up at the next pass", {"5:/w/Tar_1_9.tar.gz", "5:next"}, false,
         {{Take}, {Begin}, {Refuse, 6, false}, {Refuse, 5}, {Wait, 0, false}, {Attempts, 2}, {Ack, 5, false}, {Take},
          {GiveUp, 0, true, "5:/w/Tar_1_9.tar.gz"}, {Attempts, 0}},
         {"5:next"}, {}, {0}},
        {"a wait counts only against a head still there", {"5:x", "5:next"}, false,
         {{Take}, {Begin}, {Done}, {Wait, 0, false}, {Attempts, 0}}, {"5:next"}, {0}},
        {"kept requests", {"12:kept"}, true, {{Take}, {Begin}, {Ack, 12}}, {}, {0}},
    };
    for (const Scenario& s : scenarios) {
        SCOPED_TRACE(s.name);
        FakeJournal journal;
        QEL_SendQueue queue(typeOfText, &journal);
        QList<quint64> ids;
        if (s.kept) {
            QList<QEL_QueuedRequest> kept;
            for (const QString& t : s.texts)
                kept.append({QEL_SendQueue::newId(), typeOfText(t), t});
            queue.appendKept(kept);
            EXPECT_TRUE(journal.queued.isEmpty());
            for (const QEL_QueuedRequest& r : kept)
                ids.append(r.id);
        } else {
            queue.append(s.texts);
            ids = journal.queued;
            EXPECT_EQ(QSet<quint64>(ids.begin(), ids.end()).size(), s.texts.size());    // equal texts, two requests
        }
        QEL_QueuedRequest head;
        for (size_t i = 0; i < s.steps.size(); ++i) {
            const Step& st = s.steps[i];
            bool r = false;
            switch (st.op) {
            case Take: r = queue.take(head); break;
            case Begin: r = queue.beginSend(head.id); break;
            case Ack: r = queue.acknowledge(st.n); break;
            case Refuse: r = queue.refuse(st.n); break;
            case LinkLost: r = queue.linkLost(); break;
            case Wait: r = queue.afterWait(); break;
            case GiveUp: r = queue.giveUp(st.text); break;
            case Done: r = queue.removeDone(head.id); break;
            case Damaged: r = queue.dropDamaged(head.id); break;
            case Attempts: r = queue.attempts() == st.n; break;
            case TakeBack: r = queue.takeBack() == st.n; break;
            case NotAnswered: {
                int inFlight = 0;
                r = queue.notAnswered(0, &inFlight, st.n == 1);
                break;
            }
            }
            EXPECT_EQ(r, st.result) << "step " << i;
        }
        EXPECT_EQ(queue.texts(), s.left);
        QList<quint64> done;
        for (int i : s.done)
            done.append(ids[i]);
        EXPECT_EQ(journal.done, done);
        QList<quint64> released;
        for (int i : s.released)
            released.append(ids[i]);
        EXPECT_EQ(journal.released, released);
    }
}

// A database with the failure-history table, and a connection of the test's
// own to look into it (or to hold its lock).
struct FailStore : ::testing::Test
{
    QTemporaryDir dir;
    QString path = dir.filePath("sysconf.db");
    QSqlDatabase db;

    void SetUp() override
    {
        db = QSqlDatabase::addDatabase("QSQLITE", "failstore-test");
        db.setDatabaseName(path);
        ASSERT_TRUE(db.open());
        QSqlQuery(db).exec("CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)");
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
        for (q.exec("select 内容 from info_failhistory order by rowid"); q.next();)
            out.append(q.value(0).toString());
        return out;
    }
    static QList<QEL_QueuedRequest> requests(const QStringList& texts)
    {
        QList<QEL_QueuedRequest> out;
        for (const QString& t : texts)
            out.append(QEL_QueuedRequest{QEL_SendQueue::newId(), 7, t});
        return out;
    }
};

TEST_F(FailStore, TheTableFollowsTheQueue)
{
    QEL_FailStore store(path);
    store.start();
    const QList<QEL_QueuedRequest> queued = requests({"7:a", "7:it's quoted", "7:c"});
    store.journalQueued(queued);
    store.journalDone(queued[0].id);
    store.journalDone(QEL_SendQueue::newId());      // never stored: nothing happens
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList({"7:it's quoted", "7:c"}));
    QSqlQuery q(db);
    q.exec("select 发送时间 from info_failhistory");
    ASSERT_TRUE(q.next());
    EXPECT_GT(q.value(0).toLongLong(), 1600000000000LL);     // epoch milliseconds
}

TEST_F(FailStore, StartUpKeepsRowsAndCollapsesDuplicates)
{
    for (const char* t : {"7:x", "7:y", "7:x", "junk", "7:x"}) {
        QSqlQuery q(db);
        q.prepare("insert into info_failhistory values (1700000000000, ?)");
        q.addBindValue(t);
        ASSERT_TRUE(q.exec());
    }
    QEL_FailStore store(path);
    store.start();
    std::atomic<bool> loaded{false};
    QList<QEL_QueuedRequest> kept;
    store.loadKept(typeOfText, 64, [&](const QList<QEL_QueuedRequest>& k, qint64 spilled) {
        kept = k;
        loaded = spilled == 0;
    });
    for (int i = 0; i < 1000 && !loaded; ++i)
        QThread::msleep(10);
    ASSERT_EQ(kept.size(), 3);
    EXPECT_EQ(kept[0].text, "7:x");
    EXPECT_EQ(kept[2].number, 0);
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList({"7:x", "7:y", "junk"}));    // a crash right after start-up loses nothing
    store.journalDone(kept[1].id);
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList({"7:x", "junk"}));
}

TEST_F(FailStore, ALockedDatabaseDelaysButLosesNothing)
{
    QEL_FailStore store(path);
    store.start();
    ASSERT_TRUE(QSqlQuery(db).exec("BEGIN EXCLUSIVE"));
    const QList<QEL_QueuedRequest> queued = requests({"7:during", "7:lock"});
    store.journalQueued(queued);
    store.journalDone(queued[0].id);
    EXPECT_FALSE(store.flush(1500));        // bounded: the caller is never held
    ASSERT_TRUE(QSqlQuery(db).exec("COMMIT"));
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList({"7:lock"}));
}

// Beyond its window the queue lives in the table alone and comes back in
// order as the head end drains, each request once (rows kept twice, near or
// far apart, collapse); the oldest can be dropped, never the one being sent.
TEST_F(FailStore, ABacklogBeyondTheWindowComesBackInOrderAndTheOldestCanBeDropped)
{
    QStringList old, fresh, want;
    for (int i = 0; i < 10; ++i) {
        old << QString("7:old%1").arg(i);
        fresh << QString("7:new%1").arg(i);
    }
    for (const QString& text : old + QStringList{"7:old1", "7:old8", "7:old8"}) {
        QSqlQuery q(db);
        q.prepare("insert into info_failhistory values (1700000000000, ?)");
        q.addBindValue(text);
        ASSERT_TRUE(q.exec());
    }
    QEL_FailStore store(path);
    QEL_SendQueue queue(typeOfText, &store);
    queue.setWindow(4);
    store.setBudget(QEL_FailStore::kDefaultLimitBytes, {}, [&](int n) { queue.forgetSpilled(n); });
    store.start();
    std::atomic<bool> loaded{false};
    store.loadKept(typeOfText, 4, [&](const QList<QEL_QueuedRequest>& kept, qint64 spilled) {
        queue.appendKept(kept, spilled);
        loaded = true;
    });
    for (int i = 0; i < 1000 && !loaded; ++i)
        QThread::msleep(5);
    queue.append(fresh.mid(0, 5));
    EXPECT_EQ(queue.texts(), old.mid(0, 4));
    QStringList sent;
    QEL_QueuedRequest head;
    for (int spin = 0; spin < 2000 && sent.size() < 17; ++spin) {
        if (!queue.take(head)) {
            QThread::msleep(2);     // spilled ones on their way back
            continue;
        }
        ASSERT_TRUE(queue.beginSend(head.id));
        if (head.text == "7:old5") {
            EXPECT_EQ(queue.dropOldest(3), 3);
        }
        ASSERT_TRUE(queue.acknowledge(7));
        sent << head.text;
        if (sent.size() == 2)
            queue.append(fresh.mid(5));     // room in memory, older ones still in the table
    }
    // In order, each once; three in a row after the one in flight went (those
    // on their way back from the table are not the oldest left to drop).
    const QStringList all = old + fresh;
    int from = 6;
    while (from < sent.size() && sent.at(from) == all.at(from))
        ++from;
    EXPECT_EQ(sent, all.mid(0, from) + all.mid(from + 3));
    EXPECT_TRUE(queue.isEmpty()) << queue.size();
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList());
}

// A long outage behind a proxy gives up request after request: past what
// memory holds, the table keeps them, and they all come back once the
// server answers, in the order they were queued, each answered once. The
// budget drops the oldest of them first.
TEST_F(FailStore, GivenUpWhileTheServerWasAwayAllComeBackInOrder)
{
    QEL_FailStore store(path);
    QEL_SendQueue queue(typeOfText, &store);
    std::atomic<int> fetched{0};
    queue.setOnFetched([&] { ++fetched; });
    store.start();
    const int n = QEL_SendQueue::kHeldBackMax + 6;
    QEL_QueuedRequest head;
    // Each of `texts` cut off twice and given up, then one answered.
    const auto outage = [&](const QStringList& texts) {
        queue.append(texts + QStringList{"7:answered"});
        for (int i = 0; i < texts.size(); ++i) {
            for (int send = 0; send < 2; ++send) {
                ASSERT_TRUE(queue.take(head) && queue.beginSend(head.id));
                ASSERT_TRUE(queue.linkLost());
                ASSERT_TRUE(queue.afterWait());
            }
            ASSERT_TRUE(queue.giveUp(head.text));
        }
        EXPECT_EQ(queue.heldBack(), texts.size());
        EXPECT_EQ(queue.texts(), QStringList{"7:answered"});
    };
    // What goes again, answer by answer (each answer brings back the next ones).
    const auto answered = [&](int count) {
        QStringList sent;
        EXPECT_TRUE(queue.take(head) && queue.beginSend(head.id) && queue.acknowledge(7));
        for (int spin = 0; spin < 3000 && sent.size() < count; ++spin) {
            if (queue.isEmpty() || !queue.take(head)) {
                queue.takeBack();
                QThread::msleep(2);
                continue;
            }
            EXPECT_TRUE(queue.beginSend(head.id) && queue.acknowledge(7));
            sent << head.text;
        }
        return sent;
    };
    QStringList texts;
    for (int i = 0; i < 2 * n; ++i)
        texts << QString("7:away%1").arg(i);
    outage(texts.mid(0, n));
    EXPECT_EQ(queue.dropOldest(1), 1);          // the budget takes the oldest
    EXPECT_EQ(answered(n - 1), texts.mid(1, n - 1));
    outage(texts.mid(n));
    const int dropped = QEL_SendQueue::kHeldBackMax + 1;     // all in memory and the table's oldest
    EXPECT_EQ(queue.dropOldest(dropped), dropped);
    EXPECT_EQ(answered(n - dropped), texts.mid(n + dropped));
    EXPECT_GE(fetched.load(), 2);
    EXPECT_EQ(queue.heldBack(), 0);
    ASSERT_TRUE(store.flush(5000));
    EXPECT_EQ(rows(), QStringList());
}

}  // namespace
