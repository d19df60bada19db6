#pragma once

#include <QHash>
#include <QSet>
#include <QList>
#include <QString>
#include <QThread>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

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
//
// The queue keeps only a window of requests in memory: the rest are
// "spilled", rows that the store alone knows, handed back in row order when
// the queue asks (journalFetch). Memory therefore does not grow with the
// backlog; the store itself knows rows by identity only for the window.
//
// The table has a budget: `queue_limit_mb` of the database, and it does not
// grow while its file system has less than 5 % or 512 MiB free. Past either,
// the queue is asked to drop its oldest requests.
class QEL_FailStore : public QThread, public QEL_SendJournal
{
    Q_OBJECT
public:
    // `kept`: the first requests, in memory; `spilled`: how many more rows follow.
    using Loaded = std::function<void(const QList<QEL_QueuedRequest>& kept, qint64 spilled)>;
    // Drops the `count` oldest queued requests (the queue's dropOldest).
    using DropOldest = std::function<int(int count, qint64* oldestMs, qint64* newestMs)>;

    static const qint64 kDefaultLimitBytes = 1024LL << 20;

    explicit QEL_FailStore(const QString& dbPath, QObject* parent = nullptr);
    ~QEL_FailStore() override;

    // Any thread.
    void journalQueued(const QList<QEL_QueuedRequest>& requests) override;
    void journalDone(quint64 id) override;
    void journalReleased(quint64 id) override;
    bool journalHoldsBack() const override { return true; }
    void journalHeldBack(quint64 id) override;
    void journalTakeBack(int count, Fetched done) override;
    void journalDropHeldBack(int count) override;
    void journalFetch(int count, Fetched done) override;
    void journalDropSpilled(int count) override;

    // Before start(): the budget, who drops the oldest requests, and who
    // hears that spilled requests were found to be duplicates and removed.
    void setBudget(qint64 limitBytes, DropOldest dropOldest, std::function<void(int)> forgetSpilled = {});
    // Keeps a text that no queue tracks (it stays until the next start).
    void keepText(const QString& text, qint64 whenMs);

    // Reads the first `window` kept requests back and counts the rest (which
    // stay spilled): duplicate rows among them collapse to one, nothing else
    // is deleted. `done` runs on the store thread with the requests in the
    // order they were stored, numbered by `typeOf`. A table that cannot be
    // read (another process holds it exclusively) is read again a little
    // later; what is handed over meanwhile waits behind it, in order.
    void loadKept(QEL_SendQueue::TypeOf typeOf, int window, Loaded done);
    // Any thread: `done` runs once the first reading has been tried, whether
    // or not it could read (at once, on the caller's thread, if it has been).
    // Storage trouble is reported, never a reason to wait.
    void whenLoadTried(std::function<void()> done);
    // Any thread: empty while writes commit; else what keeps the store from
    // writing and since when, e.g. "cannot store since 14:02 (disk full)".
    QString trouble() const;
    // Any thread: requests dropped for the budget since the start.
    qint64 droppedOldest() const { return dropped_.load(); }
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
        // The first seven change the table or the books, in one transaction.
        enum Kind {
            Insert, Delete, Keep, Release, HoldBack, DropSpilled, DropHeldBack,
            Load, Fetch, TakeBack, Barrier, Notify
        } kind;
        explicit Op(Kind k, quint64 i = 0, qint64 m = 0, QString t = QString(), bool s = false)
            : kind(k), id(i), ms(m), text(std::move(t)), spilled(s)
        {
        }
        quint64 id = 0;
        qint64 ms = 0;
        QString text;
        bool spilled = false;
        int count = 0;                  // Load: the window; the others: how many
        QEL_SendQueue::TypeOf typeOf = {};
        Loaded loaded = {};
        Fetched fetched = {};
        quint64 barrier = 0;
        std::function<void()> notify = {};
    };
    // What the store knows of the rows, restored as a whole when a batch fails.
    struct Books
    {
        QHash<quint64, qint64> rowOf;   // queue identity -> rowid, for requests the queue holds
        QSet<qint64> skip;              // rowids at or past spillFrom that are not spilled
        qint64 spillFrom = 0;           // rowid from which the spilled rows begin
        qint64 spilled = 0;             // rows spilled and neither fetched nor dropped
        qint64 rows = 0;                // rows in the table, as far as the store can tell
        QList<qint64> heldBack;         // rowids given up while the server was away, ascending (8 bytes each)
    };
    // At the stop: says in the log what could not be stored (the texts, so
    // that nothing acknowledged disappears without a trace).
    static void reportUnstored(const std::deque<Op>& ops);

    void submit(Op op);
    // Opens the store's connection if it is closed and makes the table if
    // it is missing; what went wrong, if anything.
    class QSqlError open(class QSqlDatabase& db);
    bool runBatch(const std::deque<Op>& batch);
    // False when the table could not be read (nothing changed then).
    bool runLoad(const Op& op);
    bool runFetch(const Op& op);
    bool runTakeBack(const Op& op);
    // One slice of the duplicate pass.
    void dedupeStep(class QSqlDatabase& db);
    struct SpilledRow
    {
        qint64 row;
        qint64 ms;
        QString text;
    };
    // The next `count` spilled rows in row order, past the ones to skip;
    // the books move on past them. False if the table could not be read.
    bool takeSpilled(class QSqlDatabase& db, int count, QList<SpilledRow>& out);
    // Deletes the rows (inside the caller's transaction, if any).
    bool removeRows(class QSqlDatabase& db, const QList<qint64>& rows);
    bool dropSpilled(class QSqlDatabase& db, int count);
    // After a commit that added rows: past the budget, the oldest go.
    void checkBudget(class QSqlDatabase& db);
    void loadTried();
    // A failed write: the episode's start and cause, said once per episode.
    void writeFailed(const class QSqlError& error);

    QString dbPath_;
    QString connectionName_;

    mutable std::mutex m_;
    std::condition_variable cv_;
    std::deque<Op> pending_;
    bool quit_ = false;
    quint64 barriersDone_ = 0;
    quint64 barriersAsked_ = 0;
    std::condition_variable doneCv_;

    bool loadTried_ = false;
    std::function<void()> whenLoadTried_;
    qint64 troubleSinceMs_ = 0;        // first failed write of the episode (0: none)
    QString troubleWhy_;

    // The pass that collapses duplicate rows kept from earlier runs, beyond
    // the first ones read at start-up: a Bloom filter over every row's text
    // marks the hashes seen twice, a second pass keeps the first row of each
    // and removes later rows whose text is equal. Memory: 10 bits a row
    // while it lasts. Store thread only.
    struct Dedupe
    {
        enum Phase { Idle, Mark, Verify } phase = Idle;
        qint64 start = 0;               // the row before the first spilled one
        qint64 cursor = 0;              // the last rowid looked at
        qint64 end = 0;                 // the last row kept from earlier runs
        std::vector<quint64> bits;
        QSet<quint64> suspects;
        QHash<quint64, QString> window; // the rows read at start-up, by hash
        QHash<quint64, qint64> keeper;  // suspect hash -> its first spilled row
        // Adds a text's hash to the filter; whether it was (perhaps) there.
        bool mark(quint64 h);
        qint64 removed = 0;
        std::deque<Op> fetch;           // a fetch held back until the pass is over
    };
    Dedupe dedupe_;
    std::function<void(int)> forgetSpilled_;

    // Store thread only.
    Books books_;
    qint64 limitBytes_ = kDefaultLimitBytes;
    DropOldest dropOldest_;
    bool dropping_ = false;             // an episode over the budget is under way
    qint64 episodeDropped_ = 0, episodeOldestMs_ = 0, episodeNewestMs_ = 0;
    std::atomic<qint64> dropped_{0};
    int failedBatches_ = 0;
    int failedLoads_ = 0;
    bool tableMade_ = false;
    int tracked_ = 0;                  // copy of rowOf_.size() for other threads (under m_)
};
