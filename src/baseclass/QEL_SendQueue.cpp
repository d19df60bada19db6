#include "QEL_SendQueue.h"

#include <QMutexLocker>
#include <atomic>

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

quint64 QEL_SendQueue::newId()
{
    static std::atomic<quint64> next{1};
    return next.fetch_add(1);
}

void QEL_SendQueue::append(const QStringList& texts)
{
    QList<QEL_QueuedRequest> added;
    added.reserve(texts.size());
    for (const QString& text : texts)
        added.append(QEL_QueuedRequest{newId(), typeOf_ ? typeOf_(text) : 0, text});
    QMutexLocker g(&mutex_);
    entries_.append(added);
    if (journal_ != nullptr)
        journal_->journalQueued(added);
}

void QEL_SendQueue::appendKept(const QList<QEL_QueuedRequest>& requests)
{
    QMutexLocker g(&mutex_);
    entries_.append(requests);
}

bool QEL_SendQueue::isEmpty() const
{
    QMutexLocker g(&mutex_);
    return entries_.isEmpty();
}

int QEL_SendQueue::size() const
{
    QMutexLocker g(&mutex_);
    return entries_.size();
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
    attempts_ = 0;      // the counter is the head's
    return head;
}

bool QEL_SendQueue::take(QEL_QueuedRequest& head)
{
    QMutexLocker g(&mutex_);
    if (entries_.isEmpty()) {
        attempts_ = 0;
        current_ = 0;
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
    lost_ = false;
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
    const bool unanswered = !answered_ && !lost_ && headIs(lastSent_);
    if (unanswered)
        ++attempts_;
    answered_ = false;
    lost_ = false;
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
    return true;
}

bool QEL_SendQueue::linkLost()
{
    QMutexLocker g(&mutex_);
    if (inFlight_ == 0)
        return false;
    inFlight_ = 0;
    lost_ = true;
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

bool QEL_SendQueue::giveUp(const QString& text)
{
    QMutexLocker g(&mutex_);
    if (current_ == 0 || !headIs(current_) || entries_.first().text != text)
        return false;
    popHead();
    return true;
}

bool QEL_SendQueue::dropDamaged(quint64 id)
{
    return removeDone(id);
}
