#include "QEL_SendQueue.h"

#include <QDateTime>
#include <QMutexLocker>
#include <atomic>

namespace {
// The span of queueing times of what the budget drops.
void widen(qint64 whenMs, qint64* oldestMs, qint64* newestMs)
{
    if (whenMs > 0 && oldestMs != nullptr && (*oldestMs == 0 || whenMs < *oldestMs))
        *oldestMs = whenMs;
    if (whenMs > 0 && newestMs != nullptr && whenMs > *newestMs)
        *newestMs = whenMs;
}
}  // namespace

QEL_SendQueue::QEL_SendQueue(TypeOf typeOf, QEL_SendJournal* journal)
    : typeOf_(std::move(typeOf))
    , journal_(journal)
{
}

void QEL_SendQueue::setJournal(QEL_SendJournal* journal)
{
    QMutexLocker g(&mutex_);
    journal_ = journal;
}

void QEL_SendQueue::setTypeOf(TypeOf typeOf)
{
    QMutexLocker g(&mutex_);
    typeOf_ = std::move(typeOf);
}

void QEL_SendQueue::setWindow(int window)
{
    QMutexLocker g(&mutex_);
    window_ = window;
}

void QEL_SendQueue::setOnFetched(std::function<void()> fetched)
{
    QMutexLocker g(&mutex_);
    onFetched_ = std::move(fetched);
}

quint64 QEL_SendQueue::newId()
{
    static std::atomic<quint64> next{1};
    return next.fetch_add(1);
}

void QEL_SendQueue::append(const QStringList& texts)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    QList<QEL_QueuedRequest> added;
    added.reserve(texts.size());
    for (const QString& text : texts)
        added.append(QEL_QueuedRequest{newId(), typeOf_ ? typeOf_(text) : 0, text, now});
    QMutexLocker g(&mutex_);
    const bool bounded = window_ > 0 && journal_ != nullptr;
    for (QEL_QueuedRequest& r : added) {
        if (bounded && (spilled_ > 0 || entries_.size() >= window_)) {
            r.spilled = true;       // behind everything spilled before it
            ++spilled_;
        } else {
            entries_.append(r);
        }
    }
    if (journal_ != nullptr)
        journal_->journalQueued(added);
}

void QEL_SendQueue::appendKept(const QList<QEL_QueuedRequest>& requests, qint64 spilled)
{
    QMutexLocker g(&mutex_);
    entries_.append(requests);
    spilled_ += spilled;
    fetchIfLow();
}

void QEL_SendQueue::fetchIfLow()
{
    if (fetching_ || spilled_ == 0 || journal_ == nullptr || entries_.size() > window_ / 2)
        return;
    const int asked = int(qMin<qint64>(spilled_, qMax(1, window_ - entries_.size())));
    fetching_ = true;
    fetchAsked_ = asked;
    journal_->journalFetch(asked, [this, asked](const QList<QEL_QueuedRequest>& got) { fetched(asked, got); });
}

void QEL_SendQueue::fetched(int asked, const QList<QEL_QueuedRequest>& got)
{
    QList<QEL_QueuedRequest> numbered = got;
    for (QEL_QueuedRequest& r : numbered)
        r.number = typeOf_ ? typeOf_(r.text) : 0;
    std::function<void()> notify;
    {
        QMutexLocker g(&mutex_);
        entries_.append(numbered);
        // Asked for is what the journal held; fewer came only if rows vanished.
        spilled_ = qMax<qint64>(0, spilled_ - asked);
        fetching_ = false;
        fetchAsked_ = 0;
        fetchIfLow();
        notify = onFetched_;
    }
    if (notify && !numbered.isEmpty())
        notify();
}

bool QEL_SendQueue::isEmpty() const
{
    QMutexLocker g(&mutex_);
    return entries_.isEmpty() && spilled_ == 0;
}

qint64 QEL_SendQueue::size() const
{
    QMutexLocker g(&mutex_);
    return entries_.size() + held_.size() + heldInJournal_ + spilled_;
}

QStringList QEL_SendQueue::texts() const
{
    QMutexLocker g(&mutex_);
    QStringList out;
    out.reserve(entries_.size());
    for (const QEL_QueuedRequest& r : entries_)
        out.append(r.text);
    return out;
}

bool QEL_SendQueue::headIs(quint64 id) const
{
    return !entries_.isEmpty() && entries_.first().id == id;
}

QEL_QueuedRequest QEL_SendQueue::popHead()
{
    const QEL_QueuedRequest head = entries_.takeFirst();
    if (inFlight_ == head.id)
        inFlight_ = 0;
    if (current_ == head.id)
        current_ = 0;
    attempts_ = 0;      // the counter and the refusal are the head's
    atFault_ = false;
    fetchIfLow();
    return head;
}

bool QEL_SendQueue::take(QEL_QueuedRequest& head)
{
    QMutexLocker g(&mutex_);
    if (entries_.isEmpty()) {
        attempts_ = 0;
        current_ = 0;
        fetchIfLow();       // what comes back restarts the sending
        return false;
    }
    head = entries_.first();
    current_ = head.id;
    return true;
}

bool QEL_SendQueue::beginSend(quint64 id)
{
    QMutexLocker g(&mutex_);
    if (!headIs(id))
        return false;
    inFlight_ = id;
    lastSent_ = id;
    answered_ = false;
    away_ = false;
    return true;
}

void QEL_SendQueue::sendFailed(quint64 id)
{
    QMutexLocker g(&mutex_);
    if (inFlight_ == id)
        inFlight_ = 0;
}

bool QEL_SendQueue::afterWait()
{
    QMutexLocker g(&mutex_);
    // Only a request still waiting at the head has gone unanswered.
    const bool unanswered = !answered_ && headIs(lastSent_);
    if (unanswered)
        ++attempts_;
    answered_ = false;
    inFlight_ = 0;
    return unanswered;
}

int QEL_SendQueue::attempts() const
{
    QMutexLocker g(&mutex_);
    return attempts_;
}

void QEL_SendQueue::resetAttempts()
{
    QMutexLocker g(&mutex_);
    attempts_ = 0;
}

bool QEL_SendQueue::acknowledge(int number, QEL_QueuedRequest* removed)
{
    QMutexLocker g(&mutex_);
    if (inFlight_ == 0 || !headIs(inFlight_) || entries_.first().number != number)
        return false;
    const QEL_QueuedRequest done = popHead();
    if (removed != nullptr)
        *removed = done;
    answered_ = true;
    if (journal_ != nullptr)
        journal_->journalDone(done.id);
    return true;
}

bool QEL_SendQueue::refuse(int number)
{
    QMutexLocker g(&mutex_);
    if (inFlight_ == 0 || !headIs(inFlight_) || entries_.first().number != number)
        return false;
    inFlight_ = 0;
    attempts_ = 2;
    answered_ = true;
    atFault_ = true;
    return true;
}

bool QEL_SendQueue::notAnswered(int number, int* inFlight, bool atFault)
{
    QMutexLocker g(&mutex_);
    if (inFlight_ == 0 || !headIs(inFlight_) || (number != 0 && entries_.first().number != number))
        return false;
    *inFlight = entries_.first().number;
    inFlight_ = 0;
    atFault_ = atFault_ || atFault;
    away_ = !atFault;
    return true;
}

bool QEL_SendQueue::linkLost()
{
    QMutexLocker g(&mutex_);
    if (inFlight_ == 0)
        return false;
    // Counted by afterWait like a reply that never came: a server that
    // takes every request and drops the connection gets two sends of it.
    inFlight_ = 0;
    away_ = true;
    return true;
}

bool QEL_SendQueue::removeDone(quint64 id)
{
    QMutexLocker g(&mutex_);
    if (!headIs(id))
        return false;
    popHead();
    if (journal_ != nullptr)
        journal_->journalDone(id);
    return true;
}

bool QEL_SendQueue::giveUp(const QString& text, bool again, const QString& againAs)
{
    QMutexLocker g(&mutex_);
    if (current_ == 0 || !headIs(current_) || entries_.first().text != text)
        return false;
    const bool away = away_ && !atFault_;
    QEL_QueuedRequest head = popHead();
    if (!again || !away || head.again) {
        if (journal_ != nullptr)
            journal_->journalReleased(head.id);
        return true;
    }
    head.again = true;
    if (!againAs.isEmpty())
        head.text = againAs;
    const bool journalHolds = journal_ != nullptr && journal_->journalHoldsBack();
    if (heldInJournal_ > 0 || (held_.size() >= kHeldBackMax && journalHolds)) {
        // Past what memory keeps, the journal keeps them (and, for the
        // order, whatever is held back after them).
        journal_->journalHeldBack(head.id);
        ++heldInJournal_;
    } else if (held_.size() < kHeldBackMax) {
        // The journal keeps knowing it by its identity: answered later, its
        // copy goes like any other's.
        held_.append(head);
    } else if (journal_ != nullptr) {
        journal_->journalReleased(head.id);
    }
    return true;
}

int QEL_SendQueue::insertAfterHead(const QList<QEL_QueuedRequest>& requests)
{
    // Never ahead of the request the send thread is handling: its answer
    // must still find it at the head.
    int at = !entries_.isEmpty() && (entries_.first().id == current_ || entries_.first().id == inFlight_) ? 1 : 0;
    for (const QEL_QueuedRequest& r : requests)
        entries_.insert(at++, r);
    return requests.size();
}

int QEL_SendQueue::takeBack()
{
    QMutexLocker g(&mutex_);
    if (heldInJournal_ == 0) {
        const int n = insertAfterHead(held_);
        held_.clear();
        return n;
    }
    // Some are in the journal: all of them come back from there, in the
    // order they were queued, kHeldBackMax per answer.
    for (const QEL_QueuedRequest& r : held_)
        journal_->journalHeldBack(r.id);
    heldInJournal_ += held_.size();
    held_.clear();
    if (takingBack_)
        return 0;
    takingBack_ = true;
    const int asked = int(qMin<qint64>(heldInJournal_, kHeldBackMax));
    journal_->journalTakeBack(asked, [this, asked](const QList<QEL_QueuedRequest>& got) { takenBack(asked, got); });
    return asked;
}

void QEL_SendQueue::takenBack(int asked, const QList<QEL_QueuedRequest>& got)
{
    QList<QEL_QueuedRequest> numbered = got;
    for (QEL_QueuedRequest& r : numbered) {
        r.number = typeOf_ ? typeOf_(r.text) : 0;
        r.again = true;
    }
    std::function<void()> notify;
    {
        QMutexLocker g(&mutex_);
        insertAfterHead(numbered);
        heldInJournal_ = qMax<qint64>(0, heldInJournal_ - asked);
        takingBack_ = false;
        notify = onFetched_;
    }
    if (notify && !numbered.isEmpty())
        notify();
}

qint64 QEL_SendQueue::heldBack() const
{
    QMutexLocker g(&mutex_);
    return held_.size() + heldInJournal_;
}

int QEL_SendQueue::dropOldest(int count, qint64* oldestMs, qint64* newestMs)
{
    QMutexLocker g(&mutex_);
    int dropped = 0;
    while (dropped < count && !held_.isEmpty()) {
        const QEL_QueuedRequest r = held_.takeFirst();
        widen(r.whenMs, oldestMs, newestMs);
        if (journal_ != nullptr)
            journal_->journalDone(r.id);
        ++dropped;
    }
    // Not those on their way back: the journal no longer holds them apart.
    const qint64 inJournal = takingBack_ ? 0 : heldInJournal_;
    const int fromJournal = int(qMin<qint64>(count - dropped, inJournal));
    if (fromJournal > 0) {
        journal_->journalDropHeldBack(fromJournal);
        heldInJournal_ -= fromJournal;
        dropped += fromJournal;
    }
    for (int i = 0; dropped < count && i < entries_.size();) {
        const QEL_QueuedRequest& r = entries_.at(i);
        if (r.id == current_ || r.id == inFlight_) {
            ++i;        // the send thread's: never dropped
            continue;
        }
        widen(r.whenMs, oldestMs, newestMs);
        if (journal_ != nullptr)
            journal_->journalDone(r.id);
        entries_.removeAt(i);
        ++dropped;
    }
    // Spilled ones on their way back are not the journal's to drop any more.
    const int spill = int(qMin<qint64>(count - dropped, spilled_ - fetchAsked_));
    if (spill > 0 && journal_ != nullptr) {
        spilled_ -= spill;
        journal_->journalDropSpilled(spill);
        dropped += spill;
    }
    fetchIfLow();
    return dropped;
}

bool QEL_SendQueue::dropDamaged(quint64 id)
{
    return removeDone(id);
}

void QEL_SendQueue::forgetSpilled(int count)
{
    QMutexLocker g(&mutex_);
    spilled_ = qMax<qint64>(fetchAsked_, spilled_ - count);
}
