#include "QEL_FailStore.h"

#include <QDateTime>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QFileInfo>
#include <QVariant>
#include <algorithm>
#include <chrono>

#include <glog/logging.h>

#include "ImageFiles.h"

namespace {
const char* const kBusyOption = "QSQLITE_BUSY_TIMEOUT=250";
const int kRetryDelayMs = 500;
const int kStopRetries = 6;
// Room kept below the budget, so that one more batch does not cross it.
const qint64 kBudgetSlackBytes = 64 * 1024;

bool isWrite(int kind)
{
    return kind <= 6;       // Insert, Delete, Keep, Release, HoldBack, DropSpilled, DropHeldBack
}

quint64 hashText(const QString& text)
{
    quint64 h = 1469598103934665603ULL;     // FNV-1a, 64 bits
    for (const QChar c : text)
        h = (h ^ c.unicode()) * 1099511628211ULL;
    return h;
}

QString clock(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms).toString("yyyy-MM-dd hh:mm:ss");
}

// What an operator can act on, from SQLite's primary result code.
QString causeOf(const QSqlError& error)
{
    switch (error.nativeErrorCode().toInt() & 0xff) {
    case 13: return "disk full";                            // SQLITE_FULL
    case 5: case 6: return "locked by another process";     // SQLITE_BUSY, SQLITE_LOCKED
    case 8: return "read-only";                             // SQLITE_READONLY
    case 10: return "I/O error";                            // SQLITE_IOERR
    case 14: return "cannot open the database";             // SQLITE_CANTOPEN
    default: return error.text().trimmed();
    }
}
}  // namespace

QEL_FailStore::QEL_FailStore(const QString& dbPath, QObject* parent)
    : QThread(parent)
    , dbPath_(dbPath)
    , connectionName_(QString("failstore-%1").arg(reinterpret_cast<quintptr>(this)))
{
}

QEL_FailStore::~QEL_FailStore()
{
    stop();
}

void QEL_FailStore::submit(Op op)
{
    {
        std::lock_guard<std::mutex> g(m_);
        pending_.push_back(std::move(op));
    }
    cv_.notify_one();
}

void QEL_FailStore::journalQueued(const QList<QEL_QueuedRequest>& requests)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    {
        std::lock_guard<std::mutex> g(m_);
        for (const QEL_QueuedRequest& r : requests)
            pending_.push_back(Op(Op::Insert, r.id, r.whenMs > 0 ? r.whenMs : now, r.text, r.spilled));
    }
    cv_.notify_one();
}

void QEL_FailStore::journalDone(quint64 id)
{
    submit(Op(Op::Delete, id));
}

void QEL_FailStore::journalReleased(quint64 id)
{
    submit(Op(Op::Release, id));
}

void QEL_FailStore::journalHeldBack(quint64 id)
{
    submit(Op(Op::HoldBack, id));
}

void QEL_FailStore::journalDropHeldBack(int count)
{
    Op op(Op::DropHeldBack);
    op.count = count;
    submit(std::move(op));
}

void QEL_FailStore::journalTakeBack(int count, Fetched done)
{
    Op op(Op::TakeBack);
    op.count = count;
    op.fetched = std::move(done);
    submit(std::move(op));
}

void QEL_FailStore::journalFetch(int count, Fetched done)
{
    Op op(Op::Fetch);
    op.count = count;
    op.fetched = std::move(done);
    submit(std::move(op));
}

void QEL_FailStore::journalDropSpilled(int count)
{
    Op op(Op::DropSpilled);
    op.count = count;
    submit(std::move(op));
}

void QEL_FailStore::setBudget(qint64 limitBytes, DropOldest dropOldest, std::function<void(int)> forgetSpilled)
{
    limitBytes_ = limitBytes;
    dropOldest_ = std::move(dropOldest);
    forgetSpilled_ = std::move(forgetSpilled);
}

void QEL_FailStore::keepText(const QString& text, qint64 whenMs)
{
    submit(Op(Op::Keep, 0, whenMs, text));
}

void QEL_FailStore::loadKept(QEL_SendQueue::TypeOf typeOf, int window, Loaded done)
{
    Op op(Op::Load);
    op.count = window;
    op.typeOf = std::move(typeOf);
    op.loaded = std::move(done);
    submit(std::move(op));
}

bool QEL_FailStore::flush(int ms)
{
    std::unique_lock<std::mutex> g(m_);
    if (!isRunning())
        return pending_.empty();
    const quint64 mine = ++barriersAsked_;
    Op barrier(Op::Barrier);
    barrier.barrier = mine;
    pending_.push_back(std::move(barrier));
    cv_.notify_one();
    return doneCv_.wait_for(g, std::chrono::milliseconds(ms), [&] { return barriersDone_ >= mine; });
}

void QEL_FailStore::whenLoadTried(std::function<void()> done)
{
    {
        std::lock_guard<std::mutex> g(m_);
        if (!loadTried_) {
            whenLoadTried_ = std::move(done);
            return;
        }
    }
    done();
}

void QEL_FailStore::loadTried()
{
    std::function<void()> done;
    {
        std::lock_guard<std::mutex> g(m_);
        if (loadTried_)
            return;
        loadTried_ = true;
        done.swap(whenLoadTried_);
    }
    if (done)
        done();
}

QString QEL_FailStore::trouble() const
{
    std::lock_guard<std::mutex> g(m_);
    if (troubleSinceMs_ == 0)
        return QString();
    return QString("cannot store since %1 (%2)")
        .arg(QDateTime::fromMSecsSinceEpoch(troubleSinceMs_).toString("hh:mm"), troubleWhy_);
}

void QEL_FailStore::whenStored(std::function<void()> done)
{
    Op op(Op::Notify);
    op.notify = std::move(done);
    submit(std::move(op));
}

void QEL_FailStore::reportUnstored(const std::deque<Op>& ops)
{
    int lost = 0;
    for (const Op& op : ops)
        if (op.kind == Op::Insert || op.kind == Op::Keep)
            ++lost;
    if (lost == 0)
        return;
    LOG(INFO) << "savefail:" << "(" << lost << " requests not yet stored could not be stored before the stop"
              << " and are lost; their texts follow)";
    for (const Op& op : ops)
        if (op.kind == Op::Insert || op.kind == Op::Keep)
            LOG(INFO) << "savefail:" << "(not stored: " << op.text.toUtf8().constData() << ")";
}

void QEL_FailStore::stop()
{
    {
        std::lock_guard<std::mutex> g(m_);
        quit_ = true;
    }
    cv_.notify_one();
    wait();
}

int QEL_FailStore::trackedRows() const
{
    std::lock_guard<std::mutex> g(m_);
    return tracked_;
}

void QEL_FailStore::run()
{
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", connectionName_);
        db.setDatabaseName(dbPath_);
        db.setConnectOptions(kBusyOption);
        open(db);       // trouble is said by the first write that meets it
        int stopRetries = 0;
        for (;;) {
            std::deque<Op> batch;
            {
                std::unique_lock<std::mutex> g(m_);
                if (dedupe_.phase != Dedupe::Idle && pending_.empty() && !quit_) {
                    // Nothing handed over: a step of the duplicate pass, then look again.
                    g.unlock();
                    dedupeStep(db);
                    continue;
                }
                cv_.wait(g, [this] { return quit_ || !pending_.empty(); });
                if (pending_.empty())
                    break;
                batch.swap(pending_);
            }
            while (!batch.empty()) {
                std::deque<Op> writes;
                while (!batch.empty() && isWrite(batch.front().kind)) {
                    writes.push_back(std::move(batch.front()));
                    batch.pop_front();
                }
                if (!writes.empty() && !runBatch(writes)) {
                    // Nothing of it is lost: it goes back in front, in order.
                    std::unique_lock<std::mutex> g(m_);
                    for (auto it = batch.rbegin(); it != batch.rend(); ++it)
                        pending_.push_front(std::move(*it));
                    for (auto it = writes.rbegin(); it != writes.rend(); ++it)
                        pending_.push_front(std::move(*it));
                    batch.clear();
                    if (quit_ && ++stopRetries > kStopRetries) {
                        reportUnstored(pending_);
                        pending_.clear();
                        break;
                    }
                    cv_.wait_for(g, std::chrono::milliseconds(kRetryDelayMs));
                    break;
                }
                if (batch.empty())
                    break;
                Op op = std::move(batch.front());
                batch.pop_front();
                if (op.kind == Op::Fetch && dedupe_.phase != Dedupe::Idle) {
                    // Spilled rows come back only once their duplicates are gone.
                    dedupe_.fetch.push_back(std::move(op));
                    continue;
                }
                if (op.kind == Op::Load || op.kind == Op::Fetch || op.kind == Op::TakeBack) {
                    const bool read = op.kind == Op::Load ? runLoad(op) : op.kind == Op::Fetch ? runFetch(op) : runTakeBack(op);
                    if (op.kind == Op::Load)
                        loadTried();
                    std::unique_lock<std::mutex> g(m_);
                    if (!read && !quit_) {
                        // Read again shortly; what came after it waits behind it.
                        // (At the stop the rows simply stay for the next start.)
                        for (auto it = batch.rbegin(); it != batch.rend(); ++it)
                            pending_.push_front(std::move(*it));
                        pending_.push_front(std::move(op));
                        batch.clear();
                        cv_.wait_for(g, std::chrono::milliseconds(kRetryDelayMs));
                        break;
                    }
                } else if (op.kind == Op::Notify) {
                    if (op.notify)
                        op.notify();
                } else if (op.kind == Op::Barrier) {
                    std::lock_guard<std::mutex> g(m_);
                    // Whoever waited for the barrier reads the count next.
                    tracked_ = books_.rowOf.size();
                    barriersDone_ = op.barrier;
                    doneCv_.notify_all();
                }
            }
            std::lock_guard<std::mutex> g(m_);
            tracked_ = books_.rowOf.size();
        }
        db.close();
        loadTried();        // a stop before the history could be read
        std::lock_guard<std::mutex> g(m_);
        barriersDone_ = barriersAsked_;
        doneCv_.notify_all();
    }
    QSqlDatabase::removeDatabase(connectionName_);
}

QSqlError QEL_FailStore::open(QSqlDatabase& db)
{
    if (!db.isOpen() && !db.open())
        return db.lastError();
    if (!tableMade_) {
        // Made here rather than at start-up, where the write would hold the
        // start up for as long as another process holds the database; until
        // it can be made, nothing can be stored.
        QSqlQuery create(db);
        if (!create.exec("CREATE TABLE IF NOT EXISTS info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)"))
            return create.lastError();
        tableMade_ = true;
    }
    return QSqlError();
}

bool QEL_FailStore::runBatch(const std::deque<Op>& batch)
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    const QSqlError notOpen = open(db);
    if (notOpen.isValid()) {
        writeFailed(notOpen);
        db.close();     // opened read-only perhaps: afresh at the next try
        return false;
    }
    const Books before = books_;        // restored if the transaction fails
    bool added = false;
    QSqlError why;
    bool ok = db.transaction();
    if (!ok)
        why = db.lastError();
    {
        QSqlQuery insert(db);
        QSqlQuery remove(db);
        ok = ok && insert.prepare("insert into info_failhistory (发送时间,内容) values (?, ?)");
        ok = ok && remove.prepare("delete from info_failhistory where rowid = ?");
        if (!ok && !why.isValid())
            why = insert.lastError().isValid() ? insert.lastError() : remove.lastError();
        for (const Op& op : batch) {
            if (!ok)
                break;
            if (op.kind == Op::Insert || op.kind == Op::Keep) {
                insert.bindValue(0, op.ms);
                insert.bindValue(1, op.text);
                ok = insert.exec();
                if (!ok) {
                    why = insert.lastError();
                    break;
                }
                added = true;
                ++books_.rows;
                const qint64 row = insert.lastInsertId().toLongLong();
                if (op.kind == Op::Keep)
                    continue;
                if (op.spilled) {
                    // Rows only grow in rowid while older ones remain, so a
                    // new run of spilled rows begins at the first of them.
                    if (books_.spilled++ == 0) {
                        books_.spillFrom = row;
                        books_.skip.clear();
                    }
                } else {
                    books_.rowOf.insert(op.id, row);
                    if (books_.spilled > 0 && row >= books_.spillFrom)
                        books_.skip.insert(row);    // queued in memory before the spilled rows ahead of it came back
                }
            } else if (op.kind == Op::Delete) {
                const auto it = books_.rowOf.find(op.id);
                if (it == books_.rowOf.end())
                    continue;       // never stored (a queue without history)
                remove.bindValue(0, it.value());
                ok = remove.exec();
                if (!ok)
                    why = remove.lastError();
                --books_.rows;
                books_.skip.remove(it.value());
                books_.rowOf.erase(it);
            } else if (op.kind == Op::Release) {
                // The row stays for a later run; a fetch must still pass it over.
                books_.rowOf.remove(op.id);
            } else if (op.kind == Op::HoldBack) {
                const auto it = books_.rowOf.find(op.id);
                if (it != books_.rowOf.end()) {
                    // In rowid order, the order of queueing, whatever the
                    // order they are held back in.
                    const auto at = std::lower_bound(books_.heldBack.begin(), books_.heldBack.end(), it.value());
                    books_.heldBack.insert(at, it.value());
                    books_.rowOf.erase(it);
                }
            } else if (op.kind == Op::DropHeldBack) {
                // The oldest first, as the budget drops everything else.
                const int n = qMin(op.count, books_.heldBack.size());
                ok = removeRows(db, books_.heldBack.mid(0, n));
                if (!ok)
                    why = db.lastError();
                books_.heldBack.erase(books_.heldBack.begin(), books_.heldBack.begin() + n);
            } else if (op.kind == Op::DropSpilled) {
                ok = dropSpilled(db, op.count);
                if (!ok)
                    why = db.lastError();
            }
        }
    }
    if (ok && !db.commit()) {
        ok = false;
        why = db.lastError();
    }
    if (ok) {
        if (failedBatches_ > 0) {
            LOG(INFO) << "savefail:" << "(failure history written again after " << failedBatches_
                      << " failed tries)";
            std::lock_guard<std::mutex> g(m_);
            troubleSinceMs_ = 0;
        }
        failedBatches_ = 0;
        if (added)
            checkBudget(db);
        return true;
    }
    db.rollback();
    books_ = before;
    writeFailed(why);
    // A file system remounted read-only or a file replaced underneath keeps
    // an open connection failing after the cause is gone: the next try opens
    // the database afresh.
    db.close();
    return false;
}

bool QEL_FailStore::takeSpilled(QSqlDatabase& db, int count, QList<SpilledRow>& out)
{
    QSqlQuery q(db);
    q.setForwardOnly(true);
    if (!q.prepare("select rowid, 发送时间, 内容 from info_failhistory where rowid >= ? order by rowid limit ?"))
        return false;
    q.bindValue(0, books_.spillFrom);
    q.bindValue(1, count + books_.skip.size());
    if (!q.exec())
        return false;
    qint64 last = books_.spillFrom - 1;
    while (out.size() < count && q.next()) {
        last = q.value(0).toLongLong();
        if (!books_.skip.contains(last))
            out.append(SpilledRow{last, q.value(1).toLongLong(), q.value(2).toString()});
    }
    if (q.lastError().isValid())
        return false;
    // Asked for is what the books held; fewer came only if rows vanished.
    books_.spillFrom = last + 1;
    books_.spilled = qMax<qint64>(0, books_.spilled - count);
    for (auto it = books_.skip.begin(); it != books_.skip.end();) {
        if (*it < books_.spillFrom)
            it = books_.skip.erase(it);
        else
            ++it;
    }
    return true;
}

bool QEL_FailStore::removeRows(QSqlDatabase& db, const QList<qint64>& rows)
{
    QSqlQuery remove(db);
    if (!remove.prepare("delete from info_failhistory where rowid = ?"))
        return false;
    for (qint64 row : rows) {
        remove.bindValue(0, row);
        if (!remove.exec())
            return false;
    }
    books_.rows -= rows.size();
    return true;
}

bool QEL_FailStore::dropSpilled(QSqlDatabase& db, int count)
{
    QList<SpilledRow> taken;
    if (!takeSpilled(db, count, taken))
        return false;
    QList<qint64> rows;
    for (const SpilledRow& r : taken) {
        rows.append(r.row);
        episodeOldestMs_ = episodeOldestMs_ == 0 ? r.ms : qMin(episodeOldestMs_, r.ms);
        episodeNewestMs_ = qMax(episodeNewestMs_, r.ms);
    }
    return removeRows(db, rows);
}

void QEL_FailStore::checkBudget(QSqlDatabase& db)
{
    if (!dropOldest_)
        return;
    QSqlQuery q(db);
    const auto pragma = [&q](const char* name) {
        return q.exec(QString("pragma ") + name) && q.next() ? q.value(0).toLongLong() : 0;
    };
    const qint64 page = pragma("page_size");
    const qint64 file = page * pragma("page_count");
    const qint64 used = file - page * pragma("freelist_count");
    q.finish();
    // Pages freed inside the file are used again; the file grows only into
    // what the floor leaves.
    const qint64 above = roomAboveFloor(QFileInfo(dbPath_).absolutePath());
    const qint64 room = above > limitBytes_ ? limitBytes_ : file + qMax<qint64>(0, above);
    const bool floor = room < limitBytes_;
    const qint64 allowed = qMin(limitBytes_, room);
    // Room kept free inside the file, so that the next batch need not grow it.
    const qint64 slack = qMin(kBudgetSlackBytes, allowed / 8);
    if (used <= allowed - slack) {
        // The episode lasts while the queue stays near its budget: it ends
        // once the queue is well inside it (delivered, not just trimmed).
        if (dropping_ && used <= allowed - 4 * slack)
            LOG(INFO) << "savefail:" << "(the queue is within its budget again after dropping " << episodeDropped_
                      << " of its oldest requests, queued from " << clock(episodeOldestMs_).toUtf8().constData()
                      << " to " << clock(episodeNewestMs_).toUtf8().constData() << ")";
        dropping_ = dropping_ && used > allowed - 4 * slack;
        return;
    }
    const qint64 perRow = qMax<qint64>(64, used / qMax<qint64>(1, books_.rows));
    const int count = int(qMin<qint64>(1 << 16, (used - (allowed - slack)) / perRow + 1));
    const bool newEpisode = !dropping_;
    if (newEpisode)
        episodeDropped_ = episodeOldestMs_ = episodeNewestMs_ = 0;
    // The queue drops from its oldest end; spilled rows among them are
    // deleted by the store's next batch, which also records their times.
    const int dropped = dropOldest_(count, &episodeOldestMs_, &episodeNewestMs_);
    if (dropped == 0)
        return;     // nothing but the request on its way
    dropping_ = true;
    if (newEpisode)
        LOG(ERROR) << "savefail:" << "(the queue is over its budget ("
                   << (floor ? "the disk is below its free-space floor" : "queue_limit_mb")
                   << "): its oldest requests are dropped, " << dropped << " now, queued from "
                   << clock(episodeOldestMs_).toUtf8().constData() << " to "
                   << clock(episodeNewestMs_).toUtf8().constData() << "; the count is in the status line)";
    episodeDropped_ += dropped;
    dropped_ += dropped;
}

void QEL_FailStore::writeFailed(const QSqlError& error)
{
    const QString cause = causeOf(error);
    {
        std::lock_guard<std::mutex> g(m_);
        if (troubleSinceMs_ == 0)
            troubleSinceMs_ = QDateTime::currentMSecsSinceEpoch();
        troubleWhy_ = cause;
    }
    if (failedBatches_++ == 0)
        LOG(INFO) << "savefail:" << "(database: " << trouble().toUtf8().constData()
                  << ", kept in memory for the next try: " << error.text().toUtf8().constData() << ")";
}

bool QEL_FailStore::runLoad(const Op& op)
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    open(db);       // a table that cannot be made yet holds nothing to read
    QList<QEL_QueuedRequest> kept;
    QList<qint64> rows;
    QList<qint64> duplicates;
    qint64 total = 0;
    qint64 last = 0;
    {
        QSqlQuery q(db);
        q.setForwardOnly(true);
        QSet<QString> seen;
        bool ok = db.isOpen() && q.prepare("select rowid, 内容 from info_failhistory order by rowid limit ?");
        q.bindValue(0, op.count);
        ok = ok && q.exec();
        int read = 0;
        while (ok && q.next()) {
            ++read;
            const qint64 row = q.value(0).toLongLong();
            const QString text = q.value(1).toString();
            last = row;
            if (seen.contains(text)) {
                duplicates.append(row);
                continue;
            }
            seen.insert(text);
            rows.append(row);
            kept.append(QEL_QueuedRequest{QEL_SendQueue::newId(), op.typeOf ? op.typeOf(text) : 0, text});
        }
        QSqlError error = ok ? q.lastError() : (db.isOpen() ? q.lastError() : db.lastError());
        q.finish();
        // Only the count of what lies beyond the first window is read.
        if (!error.isValid() && read == op.count) {
            if (q.exec("select count(*) from info_failhistory") && q.next())
                total = q.value(0).toLongLong();
            else
                error = q.lastError();
            q.finish();
        } else {
            total = read;
        }
        // No table yet: nothing was ever kept.
        if (error.isValid() && !error.text().contains("no such table")) {
            if (failedLoads_++ == 0)
                LOG(INFO) << "savefail:" << "(failure history not read yet (" << causeOf(error).toUtf8().constData()
                          << "), read again every " << kRetryDelayMs << " ms: " << error.text().toUtf8().constData()
                          << ")";
            return false;
        }
    }
    if (failedLoads_ > 0)
        LOG(INFO) << "savefail:" << "(failure history read after " << failedLoads_ << " failed tries)";
    for (int i = 0; i < kept.size(); ++i)
        books_.rowOf.insert(kept.at(i).id, rows.at(i));
    const int read = kept.size() + duplicates.size();
    books_.spilled = total - read;
    books_.spillFrom = last + 1;
    books_.rows = total;
    // Equal texts were stored several times: one row each is enough.
    if (!duplicates.isEmpty() && db.transaction() && !(removeRows(db, duplicates) && db.commit())) {
        db.rollback();      // collapsed at a later start
        books_.rows = total;
    }
    if (books_.spilled > 0) {
        // Duplicates beyond the first rows are found by a pass in the
        // background, a slice at a time between writes.
        dedupe_ = Dedupe();
        QSqlQuery q(db);
        if (q.exec("select max(rowid) from info_failhistory") && q.next()) {
            dedupe_.phase = Dedupe::Mark;
            dedupe_.end = q.value(0).toLongLong();
            dedupe_.start = dedupe_.cursor = books_.spillFrom - 1;
            dedupe_.bits.assign(size_t(qMax<qint64>(1 << 16, total * 10) / 64 + 1), 0);
            // The first rows may be delivered before the pass gets far: their
            // texts are what later rows are compared with.
            for (const QEL_QueuedRequest& r : kept) {
                const quint64 h = hashText(r.text);
                dedupe_.window.insert(h, r.text);
                dedupe_.mark(h);
            }
        }
    }
    if (op.loaded)
        op.loaded(kept, books_.spilled);
    return true;
}

bool QEL_FailStore::Dedupe::mark(quint64 h)
{
    // Seven probes of a Bloom filter: all of them set means "perhaps seen".
    const quint64 size = quint64(bits.size()) * 64;
    bool seen = true;
    for (quint64 i = 0, step = (h >> 33) | 1; i < 7; ++i) {
        const quint64 bit = (h + i * step) % size;
        seen = seen && (bits[bit / 64] >> (bit % 64) & 1);
        bits[bit / 64] |= quint64(1) << (bit % 64);
    }
    return seen;
}

void QEL_FailStore::dedupeStep(QSqlDatabase& db)
{
    const int kSlice = 2000;
    Dedupe& d = dedupe_;
    QList<qint64> duplicates;
    int read = 0;
    {
        QSqlQuery q(db);
        q.setForwardOnly(true);
        q.prepare("select rowid, 内容 from info_failhistory where rowid > ? and rowid <= ? order by rowid limit ?");
        q.bindValue(0, d.cursor);
        q.bindValue(1, d.end);
        q.bindValue(2, kSlice);
        if (!q.exec()) {
            // Locked for now: the pass waits, writes go on.
            std::unique_lock<std::mutex> g(m_);
            cv_.wait_for(g, std::chrono::milliseconds(kRetryDelayMs), [this] { return quit_ || !pending_.empty(); });
            return;
        }
        QSqlQuery keeper(db);
        keeper.prepare("select 内容 from info_failhistory where rowid = ?");
        while (q.next()) {
            ++read;
            const qint64 row = q.value(0).toLongLong();
            const QString text = q.value(1).toString();
            const quint64 h = hashText(text);
            d.cursor = row;
            if (d.phase == Dedupe::Mark) {
                if (d.mark(h))
                    d.suspects.insert(h);
            } else if (d.suspects.contains(h)) {
                const auto early = d.window.constFind(h);
                if (early != d.window.constEnd() && early.value() == text) {
                    duplicates.append(row);
                    continue;
                }
                const auto first = d.keeper.constFind(h);
                if (first == d.keeper.constEnd()) {
                    d.keeper.insert(h, row);
                    continue;
                }
                keeper.bindValue(0, first.value());
                if (keeper.exec() && keeper.next() && keeper.value(0).toString() == text)
                    duplicates.append(row);
                keeper.finish();
            }
        }
    }
    if (!duplicates.isEmpty() && db.transaction()) {
        const qint64 rows = books_.rows;
        if (removeRows(db, duplicates) && db.commit()) {
            books_.spilled = qMax<qint64>(0, books_.spilled - duplicates.size());
            d.removed += duplicates.size();
        } else {
            db.rollback();      // sent twice rather than held up
            books_.rows = rows;
        }
    }
    if (read == kSlice)
        return;
    if (d.phase == Dedupe::Mark && !d.suspects.isEmpty()) {
        d.phase = Dedupe::Verify;
        d.cursor = d.start;
        std::vector<quint64>().swap(d.bits);
        return;
    }
    // The pass is over.
    if (d.removed > 0) {
        LOG(INFO) << "savefail:" << "(" << d.removed << " duplicate rows of the failure history collapsed)";
        if (forgetSpilled_)
            forgetSpilled_(int(d.removed));
    }
    std::deque<Op> held;
    held.swap(d.fetch);
    dedupe_ = Dedupe();
    if (!held.empty()) {
        std::lock_guard<std::mutex> g(m_);
        pending_.push_front(std::move(held.front()));
    }
}

bool QEL_FailStore::runTakeBack(const Op& op)
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    if (open(db).isValid())
        return false;
    const int count = qMin(op.count, books_.heldBack.size());
    QSqlQuery q(db);
    if (!q.prepare("select 发送时间, 内容 from info_failhistory where rowid = ?"))
        return false;
    QList<QEL_QueuedRequest> got;
    QList<QPair<quint64, qint64>> rows;
    for (int i = 0; i < count; ++i) {
        q.bindValue(0, books_.heldBack.at(i));
        if (!q.exec())
            return false;
        if (q.next()) {     // gone only if the budget took it
            got.append(QEL_QueuedRequest{QEL_SendQueue::newId(), 0, q.value(1).toString(), q.value(0).toLongLong()});
            rows.append(qMakePair(got.last().id, books_.heldBack.at(i)));
        }
        q.finish();
    }
    for (const auto& r : rows)
        books_.rowOf.insert(r.first, r.second);
    books_.heldBack.erase(books_.heldBack.begin(), books_.heldBack.begin() + count);
    if (op.fetched)
        op.fetched(got);
    return true;
}

bool QEL_FailStore::runFetch(const Op& op)
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    QList<SpilledRow> taken;
    const QSqlError notOpen = open(db);
    if (notOpen.isValid() || !takeSpilled(db, op.count, taken)) {
        if (failedLoads_++ == 0)
            LOG(INFO) << "savefail:" << "(queued requests not read back yet, read again every " << kRetryDelayMs
                      << " ms: " << (notOpen.isValid() ? notOpen : db.lastError()).text().toUtf8().constData() << ")";
        return false;
    }
    failedLoads_ = 0;
    QList<QEL_QueuedRequest> got;
    for (const SpilledRow& r : taken) {
        got.append(QEL_QueuedRequest{QEL_SendQueue::newId(), 0, r.text, r.ms});
        books_.rowOf.insert(got.last().id, r.row);
    }
    if (got.size() < op.count)
        LOG(INFO) << "savefail:" << "(" << op.count - got.size() << " queued requests were no longer in the failure"
                  << " history)";
    if (op.fetched)
        op.fetched(got);
    return true;
}
