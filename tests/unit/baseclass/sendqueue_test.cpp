#include <gtest/gtest.h>

#include <QStringList>

#include "QEL_SendQueue.h"

namespace {

// Records what the queue tells its journal.
struct FakeJournal : QEL_SendJournal
{
    QList<quint64> queued;
    QList<quint64> done;
    void journalQueued(const QList<QEL_QueuedRequest>& requests) override
    {
        for (const QEL_QueuedRequest& r : requests)
            queued.append(r.id);
    }
    void journalDone(quint64 id) override { done.append(id); }
};

// "7:..." is a request of item 7: enough of a text for these tests.
int typeOfText(const QString& text)
{
    return text.section(':', 0, 0).toInt();
}

struct Fixture : ::testing::Test
{
    FakeJournal journal;
    QEL_SendQueue queue{typeOfText, &journal};

    QEL_QueuedRequest sendHead()
    {
        QEL_QueuedRequest head;
        EXPECT_TRUE(queue.take(head));
        EXPECT_TRUE(queue.beginSend(head.id));
        return head;
    }
};

TEST_F(Fixture, QueuedRequestsAreNumberedJournalledAndDistinct)
{
    queue.append(QStringList() << "7:a" << "7:a" << "12:b");
    ASSERT_EQ(journal.queued.size(), 3);
    EXPECT_NE(journal.queued[0], journal.queued[1]);    // equal texts, two requests
    QEL_QueuedRequest head;
    ASSERT_TRUE(queue.take(head));
    EXPECT_EQ(head.number, 7);
    EXPECT_EQ(head.id, journal.queued[0]);
    EXPECT_EQ(queue.texts(), QStringList() << "7:a" << "7:a" << "12:b");
}

TEST_F(Fixture, OnlyTheRequestInFlightIsRemovedByItsOwnItemsAnswer)
{
    queue.append(QStringList() << "7:first" << "7:second");
    QEL_QueuedRequest head;
    ASSERT_TRUE(queue.take(head));

    // An answer while the head waits out its pause: it was never sent.
    EXPECT_FALSE(queue.acknowledge(7));
    ASSERT_TRUE(queue.beginSend(head.id));
    EXPECT_FALSE(queue.acknowledge(4));                  // another item's answer
    EXPECT_TRUE(queue.acknowledge(7));
    EXPECT_EQ(journal.done, QList<quint64>() << head.id);
    // The same answer once more: the next request is not in flight yet.
    EXPECT_FALSE(queue.acknowledge(7));
    EXPECT_EQ(queue.texts(), QStringList() << "7:second");
}

struct WaitCase
{
    const char* name;
    bool answered;
    bool linkLost;
    int attemptsAfter;
};

TEST_F(Fixture, AttemptCounterCountsOnlyUnansweredSends)
{
    const WaitCase cases[] = {
        {"no answer", false, false, 1},
        {"answered", true, false, 0},
        {"link lost", false, true, 0},
    };
    for (const WaitCase& c : cases) {
        QEL_SendQueue q(typeOfText);
        q.append(QStringList() << "7:x" << "7:y");
        QEL_QueuedRequest head;
        ASSERT_TRUE(q.take(head));
        ASSERT_TRUE(q.beginSend(head.id));
        if (c.answered) {
            EXPECT_TRUE(q.acknowledge(7));
        }
        if (c.linkLost) {
            EXPECT_TRUE(q.linkLost());
        }
        q.afterWait();
        EXPECT_EQ(q.attempts(), c.attemptsAfter) << c.name;
        // After the wait nothing is in flight: a late answer removes nothing.
        EXPECT_FALSE(q.acknowledge(7)) << c.name;
    }
}

TEST_F(Fixture, LateAnswerForAResentRequestRemovesItOnce)
{
    queue.append(QStringList() << "7:slow" << "7:next");
    QEL_QueuedRequest first = sendHead();
    queue.afterWait();                      // the wait bound ran out
    EXPECT_EQ(queue.attempts(), 1);
    QEL_QueuedRequest again = sendHead();   // sent a second time
    EXPECT_EQ(again.id, first.id);
    EXPECT_TRUE(queue.acknowledge(7));      // the first send's answer, late
    queue.afterWait();
    EXPECT_FALSE(queue.acknowledge(7));     // the second send's answer
    EXPECT_EQ(queue.texts(), QStringList() << "7:next");
    EXPECT_EQ(queue.attempts(), 0);
}

TEST_F(Fixture, GiveUpLeavesTheJournalAndTouchesOnlyTheHandledHead)
{
    queue.append(QStringList() << "7:lost" << "7:lost");
    QEL_QueuedRequest head;
    ASSERT_TRUE(queue.take(head));
    EXPECT_FALSE(queue.giveUp("7:other"));
    EXPECT_TRUE(queue.giveUp("7:lost"));
    EXPECT_TRUE(journal.done.isEmpty());    // kept for the next start
    // The second, equal text was not taken by the send thread yet.
    EXPECT_FALSE(queue.giveUp("7:lost"));
    EXPECT_EQ(queue.size(), 1);
}

TEST_F(Fixture, DoneAndDamagedRequestsAreJournalledAsFinished)
{
    queue.append(QStringList() << "0:damaged" << "5:upload");
    QEL_QueuedRequest head;
    ASSERT_TRUE(queue.take(head));
    EXPECT_TRUE(queue.dropDamaged(head.id));
    EXPECT_FALSE(queue.dropDamaged(head.id));   // already gone
    QEL_QueuedRequest upload = sendHead();
    EXPECT_TRUE(queue.removeDone(upload.id));
    EXPECT_EQ(journal.done, QList<quint64>() << head.id << upload.id);
    EXPECT_FALSE(queue.take(head));
    EXPECT_EQ(queue.attempts(), 0);
}

TEST_F(Fixture, ARefusalHandsTheRequestToTheErrorPathAtOnce)
{
    queue.append(QStringList() << "5:/work/qel_alarmimage/Tar_1_9.tar.gz" << "5:next");
    QEL_QueuedRequest head = sendHead();
    EXPECT_FALSE(queue.refuse(6));          // another item's refusal
    EXPECT_TRUE(queue.refuse(5));
    queue.afterWait();
    EXPECT_EQ(queue.attempts(), 2);         // the next pass gives it up
    EXPECT_FALSE(queue.acknowledge(5));     // no longer in flight
    ASSERT_TRUE(queue.take(head));
    EXPECT_TRUE(queue.giveUp(head.text));
    EXPECT_EQ(queue.attempts(), 0);
    EXPECT_EQ(queue.texts(), QStringList() << "5:next");
}

TEST_F(Fixture, AWaitCountsAgainstTheHeadOnlyIfItIsStillThere)
{
    queue.append(QStringList() << "5:done-by-send" << "5:next");
    QEL_QueuedRequest head = sendHead();
    EXPECT_TRUE(queue.removeDone(head.id));
    queue.afterWait();
    EXPECT_EQ(queue.attempts(), 0);         // the next request has not been sent
}

TEST_F(Fixture, KeptRequestsAreNotJournalledAgain)
{
    QEL_QueuedRequest kept{QEL_SendQueue::newId(), 12, "12:kept"};
    queue.appendKept(QList<QEL_QueuedRequest>() << kept);
    EXPECT_TRUE(journal.queued.isEmpty());
    EXPECT_EQ(queue.texts(), QStringList() << "12:kept");
    sendHead();
    EXPECT_TRUE(queue.acknowledge(12));
    EXPECT_EQ(journal.done, QList<quint64>() << kept.id);
}

}  // namespace
