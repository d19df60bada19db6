#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <QThread>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "QEL_SendQueue.h"

// The failure history (table info_failhistory) kept as the durable copy of
// the INFO send queue, on a thread of its own with its own connection to
// the database: a request has its row from the event-loop turn in which it
// was queued until the server has answered it. Neither a large queue nor a
// slow disk nor another process holding the database's lock can stall the
// event loop: callers only hand operations over.
//
// Operations are done in the order they were handed over; each transaction
// takes every operation waiting at that moment. A batch that fails (the
// database is locked beyond the short busy time-out, the disk is full) is
// rolled back and tried again a little later, with nothing lost meanwhile.
class QEL_FailStore : public QThread, public QEL_SendJournal
{
    Q_OBJECT
public:
    using Loaded = std::function<void(const QList<QEL_QueuedRequest>& kept)>;

    explicit QEL_FailStore(const QString& dbPath, QObject* parent = nullptr);
    ~QEL_FailStore() override;

    // Any thread.
    void journalQueued(const QList<QEL_QueuedRequest>& requests) override;
    void journalDone(quint64 id) override;
    // Keeps a text that no queue tracks (it stays until the next start).
    void keepText(const QString& text, qint64 whenMs);

    // Reads the kept requests back: duplicate rows collapse to one, nothing
    // else is deleted. `done` runs on the store thread with the requests in
    // the order they were stored, numbered by `typeOf`.
    void loadKept(QEL_SendQueue::TypeOf typeOf, Loaded done);
    // Compares the table with what the store knows to be undelivered, and
    // says in the log if they differ.
    void check();
    // Waits until everything handed over so far is committed (at most `ms`).
    bool flush(int ms);
    // Any thread: `done` runs on the store thread once everything handed
    // over before this call is committed (not at all if that never happens).
    void whenStored(std::function<void()> done);
    // Commits what is waiting and ends the thread.
    void stop();

    // For tests: rows currently known to the store.
    int trackedRows() const;

protected:
    void run() override;

private:
    struct Op
    {
        enum Kind { Insert, Delete, Keep, Load, Check, Barrier, Notify } kind;
        quint64 id = 0;
        qint64 ms = 0;
        QString text;
        QEL_SendQueue::TypeOf typeOf;
        Loaded loaded;
        quint64 barrier = 0;
        std::function<void()> notify = {};
    };
    // At the stop: says in the log what could not be stored (the texts, so
    // that nothing acknowledged disappears without a trace).
    static void reportUnstored(const std::deque<Op>& ops);

    void submit(Op op);
    bool runBatch(const std::deque<Op>& batch);
    void runLoad(const Op& op);
    void runCheck();

    QString dbPath_;
    QString connectionName_;

    mutable std::mutex m_;
    std::condition_variable cv_;
    std::deque<Op> pending_;
    bool quit_ = false;
    quint64 barriersDone_ = 0;
    quint64 barriersAsked_ = 0;
    std::condition_variable doneCv_;

    // Store thread only.
    QHash<quint64, qint64> rowOf_;     // queue identity -> rowid
    int failedBatches_ = 0;
    int tracked_ = 0;                  // copy of rowOf_.size() for other threads (under m_)
};
