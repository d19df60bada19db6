#include "QEL_FailStore.h"

#include <QDateTime>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <chrono>

#include <glog/logging.h>

namespace {
const char* const kBusyOption = "QSQLITE_BUSY_TIMEOUT=250";
const int kRetryDelayMs = 500;
const int kStopRetries = 6;

bool isWrite(int kind)
{
    return kind == 0 || kind == 1 || kind == 2;     // Insert, Delete, Keep
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
            pending_.push_back(Op{Op::Insert, r.id, now, r.text, {}, {}, 0});
    }
    cv_.notify_one();
}

void QEL_FailStore::journalDone(quint64 id)
{
    submit(Op{Op::Delete, id, 0, QString(), {}, {}, 0});
}

void QEL_FailStore::keepText(const QString& text, qint64 whenMs)
{
    submit(Op{Op::Keep, 0, whenMs, text, {}, {}, 0});
}

void QEL_FailStore::loadKept(QEL_SendQueue::TypeOf typeOf, Loaded done)
{
    submit(Op{Op::Load, 0, 0, QString(), std::move(typeOf), std::move(done), 0});
}

void QEL_FailStore::check()
{
    submit(Op{Op::Check, 0, 0, QString(), {}, {}, 0});
}

bool QEL_FailStore::flush(int ms)
{
    std::unique_lock<std::mutex> g(m_);
    if (!isRunning())
        return pending_.empty();
    const quint64 mine = ++barriersAsked_;
    pending_.push_back(Op{Op::Barrier, 0, 0, QString(), {}, {}, mine});
    cv_.notify_one();
    return doneCv_.wait_for(g, std::chrono::milliseconds(ms), [&] { return barriersDone_ >= mine; });
}

void QEL_FailStore::whenStored(std::function<void()> done)
{
    Op op{Op::Notify, 0, 0, QString(), {}, {}, 0};
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
        if (!db.open())
            LOG(INFO) << "savefail:" << "(failure history not opened: "
                      << db.lastError().text().toUtf8().constData() << ")";
        int stopRetries = 0;
        for (;;) {
            std::deque<Op> batch;
            {
                std::unique_lock<std::mutex> g(m_);
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
                if (op.kind == Op::Load) {
                    runLoad(op);
                } else if (op.kind == Op::Check) {
                    runCheck();
                } else if (op.kind == Op::Notify) {
                    if (op.notify)
                        op.notify();
                } else if (op.kind == Op::Barrier) {
                    std::lock_guard<std::mutex> g(m_);
                    // Whoever waited for the barrier reads the count next.
                    tracked_ = rowOf_.size();
                    barriersDone_ = op.barrier;
                    doneCv_.notify_all();
                }
            }
            std::lock_guard<std::mutex> g(m_);
            tracked_ = rowOf_.size();
        }
        db.close();
        std::lock_guard<std::mutex> g(m_);
        barriersDone_ = barriersAsked_;
        doneCv_.notify_all();
    }
    QSqlDatabase::removeDatabase(connectionName_);
}

bool QEL_FailStore::runBatch(const std::deque<Op>& batch)
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    if (!db.isOpen() && !db.open())
        return false;
    // Undo list for the in-memory map, should the transaction fail.
    QList<quint64> inserted;
    QList<QPair<quint64, qint64>> deleted;
    QString why;
    bool ok = db.transaction();
    if (!ok)
        why = db.lastError().text();
    {
        QSqlQuery insert(db);
        QSqlQuery remove(db);
        ok = ok && insert.prepare("insert into info_failhistory (发送时间,内容) values (?, ?)");
        ok = ok && remove.prepare("delete from info_failhistory where rowid = ?");
        if (!ok && why.isEmpty())
            why = insert.lastError().text() + remove.lastError().text();
        for (const Op& op : batch) {
            if (!ok)
                break;
            if (op.kind == Op::Insert || op.kind == Op::Keep) {
                insert.bindValue(0, op.ms);
                insert.bindValue(1, op.text);
                ok = insert.exec();
                if (!ok)
                    why = insert.lastError().text();
                if (ok && op.kind == Op::Insert) {
                    rowOf_.insert(op.id, insert.lastInsertId().toLongLong());
                    inserted.append(op.id);
                }
            } else if (op.kind == Op::Delete) {
                const auto it = rowOf_.find(op.id);
                if (it == rowOf_.end())
                    continue;       // never stored (a queue without history)
                remove.bindValue(0, it.value());
                ok = remove.exec();
                if (!ok)
                    why = remove.lastError().text();
                if (ok) {
                    deleted.append(qMakePair(op.id, it.value()));
                    rowOf_.erase(it);
                }
            }
        }
    }
    if (ok && !db.commit()) {
        ok = false;
        why = db.lastError().text();
    }
    if (ok) {
        if (failedBatches_ > 0)
            LOG(INFO) << "savefail:" << "(failure history written again after " << failedBatches_
                      << " failed tries)";
        failedBatches_ = 0;
        return true;
    }
    db.rollback();
    for (quint64 id : inserted)
        rowOf_.remove(id);
    for (const auto& d : deleted)
        rowOf_.insert(d.first, d.second);
    if (failedBatches_++ == 0)
        LOG(INFO) << "savefail:" << "(failure history busy, kept for the next try: "
                  << why.toUtf8().constData() << ")";
    return false;
}

void QEL_FailStore::runLoad(const Op& op)
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    QList<QEL_QueuedRequest> kept;
    QList<qint64> duplicates;
    {
        QSqlQuery q(db);
        QHash<QString, bool> seen;
        if (q.exec("select rowid, 内容 from info_failhistory order by rowid")) {
            while (q.next()) {
                const qint64 row = q.value(0).toLongLong();
                const QString text = q.value(1).toString();
                if (seen.contains(text)) {
                    duplicates.append(row);
                    continue;
                }
                seen.insert(text, true);
                const quint64 id = QEL_SendQueue::newId();
                rowOf_.insert(id, row);
                kept.append(QEL_QueuedRequest{id, op.typeOf ? op.typeOf(text) : 0, text});
            }
        }
    }
    if (!duplicates.isEmpty()) {
        // Equal texts were stored several times: one row each is enough.
        db.transaction();
        QSqlQuery remove(db);
        remove.prepare("delete from info_failhistory where rowid = ?");
        for (qint64 row : duplicates) {
            remove.bindValue(0, row);
            remove.exec();
        }
        db.commit();
    }
    if (op.loaded)
        op.loaded(kept);
}

void QEL_FailStore::runCheck()
{
    QSqlDatabase db = QSqlDatabase::database(connectionName_, false);
    QSqlQuery q(db);
    if (!q.exec("select count(*) from info_failhistory") || !q.next())
        return;
    const qint64 rows = q.value(0).toLongLong();
    if (rows < rowOf_.size())
        LOG(INFO) << "savefail:" << "(failure history holds " << rows << " rows, "
                  << rowOf_.size() << " requests undelivered)";
}
