#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <functional>

// One request waiting for the server: its complete text, the item number its
// "SessionId" names (0 when it names none), and an identity that no other
// request of this run shares. Identical texts queued twice are two requests.
struct QEL_QueuedRequest
{
    quint64 id = 0;
    int number = 0;
    QString text;
    qint64 whenMs = 0;      // when it was queued (epoch ms; 0: not known)
    bool spilled = false;   // journalQueued: kept by the journal alone, the queue holds no copy
    bool again = false;     // given up once and brought back: a second give-up is for good
};

// Where a durable queue keeps its copy (the failure history). Called with the
// queue's lock held, so calls for one queue arrive in queue order; the
// receiver must only record them, never call back into the queue from inside
// the call.
class QEL_SendJournal
{
public:
    using Fetched = std::function<void(const QList<QEL_QueuedRequest>& requests)>;
    virtual ~QEL_SendJournal() = default;
    // Newly queued requests, in queue order (the spilled ones after the rest).
    virtual void journalQueued(const QList<QEL_QueuedRequest>& requests) = 0;
    // The request is finished with: answered by the server, or undeliverable.
    virtual void journalDone(quint64 id) = 0;
    // The queue let go of the request without finishing it (given up): the
    // journal keeps it for a later run but need not know it by its identity.
    virtual void journalReleased(quint64) {}
    // Hands the `count` oldest spilled requests back to `done`, later and
    // from any thread, with fresh identities (fewer if some have vanished).
    virtual void journalFetch(int, Fetched) {}
    // Forgets the `count` oldest spilled requests for good (the budget).
    virtual void journalDropSpilled(int) {}
    // Whether the journal can keep held-back requests (see giveUp) for the
    // queue, so that their number is not bounded by memory.
    virtual bool journalHoldsBack() const { return false; }
    // The queue let go of a held-back request: the journal keeps it apart.
    virtual void journalHeldBack(quint64) {}
    // Hands the `count` oldest held-back requests back to `done`, later and
    // from any thread, in the order they were queued, with fresh identities.
    virtual void journalTakeBack(int, Fetched) {}
    // Forgets the `count` oldest held-back requests for good (the budget).
    virtual void journalDropHeldBack(int) {}
};

// The send queue of one send thread: requests first in, first out, one of
// them in flight at a time.
//
// Locking rules, all of them: every member takes the queue's own mutex and
// releases it before returning; nothing here calls out while holding it
// except the journal, which only records. No caller ever holds this lock
// while it writes to a socket, waits for the main thread or for a reply.
//
// Life of a request: append -> take() by the send thread -> beginSend()
// marks it in flight just before it is written -> an answer for its item
// removes it (acknowledge) only while it is in flight; a time-out, a lost
// link, a reply that is not an answer or a failed write ends the flight
// without removing it. A request the send thread gives up (giveUp) leaves
// the queue but stays in the journal.
//
// Given up because the server was away (its last send cut off by a lost
// link, or met by a proxy's 5xx page) is not given up for good: such
// requests are held back (kHeldBackMax in memory, the rest by a journal that
// can) and go again, ahead of the rest, at the server's next answers
// (takeBack). One given up after time-outs (the
// server took it and never answered), one the server blamed (refused, or a
// 4xx status such as 413), one given up a second time and any past the
// bound wait in the journal for the next start.
//
// Memory: with a window set, at most that many requests are held here; the
// rest are "spilled" (the journal alone keeps them, in order) and fetched
// back a window's half at a time as the head end drains, so memory does not
// grow with the backlog. Whatever is queued while anything is spilled spills
// too, so the order is always the order of queueing.
class QEL_SendQueue
{
public:
    using TypeOf = std::function<int(const QString& text)>;

    explicit QEL_SendQueue(TypeOf typeOf, QEL_SendJournal* journal = nullptr);
    QEL_SendQueue(const QEL_SendQueue&) = delete;
    QEL_SendQueue& operator=(const QEL_SendQueue&) = delete;

    void setJournal(QEL_SendJournal* journal);
    // How a text's item number is read (before anything is queued).
    void setTypeOf(TypeOf typeOf);
    // At most `window` requests in memory, the rest spilled to the journal
    // (0, the default: everything in memory). Before anything is queued.
    void setWindow(int window);
    // Any thread, outside the lock: spilled requests came back (the send
    // thread may have found the memory part empty meanwhile).
    void setOnFetched(std::function<void()> fetched);

    // New requests, journalled in the same step.
    void append(const QStringList& texts);
    // Requests that the journal already holds (read back at start-up): these
    // in memory, then `spilled` more that the journal alone holds.
    void appendKept(const QList<QEL_QueuedRequest>& requests, qint64 spilled = 0);
    // A fresh identity, unique in this process.
    static quint64 newId();

    bool isEmpty() const;
    // Everything queued, the spilled and held-back requests included.
    qint64 size() const;
    // The texts held in memory (the spilled ones are not read back for this).
    QStringList texts() const;

    // The send thread: the head, remembered as the one it is handling.
    // False (and the attempt counter back to 0) when the queue is empty.
    bool take(QEL_QueuedRequest& head);
    // Marks `id` in flight if it is still the head; false if it is gone.
    bool beginSend(quint64 id);
    // The write did not happen: the request is no longer in flight.
    void sendFailed(quint64 id);
    // After the wait for an answer: counts an unanswered send, unless the
    // answer came while the request was in flight.
    // Returns whether it was counted (the request went unanswered).
    bool afterWait();
    int attempts() const;
    void resetAttempts();

    // An answer from item `number`: removes the head if it is this item's
    // request in flight. Resets the attempt counter in the same step.
    // Returns whether a request was removed (and, if asked, which).
    bool acknowledge(int number, QEL_QueuedRequest* removed = nullptr);
    // A refusal from item `number` for its request in flight: the request
    // stays, and the send thread's next pass gives it up at once.
    bool refuse(int number);
    // A reply that is not an answer (another status than 2xx) for the
    // request in flight, from item `number` or from no item (0): its wait
    // ends and the send counts as unanswered. `inFlight` gets its number.
    // `atFault`: the status blames the request itself (413 and the like),
    // so given up it is not held back.
    bool notAnswered(int number, int* inFlight, bool atFault = false);
    // The connection the request in flight was written on is gone before
    // its answer: the send counts as unanswered. Returns whether a request
    // was in flight.
    bool linkLost();
    // Removes the head if it is still `id` (a send result that completes the
    // request by itself). Journalled as done.
    bool removeDone(quint64 id);
    // Removes the head if it is the request the send thread is handling and
    // still reads `text`; it stays in the journal. If its last send found
    // the server away and `again` allows it (false: it can never go, its
    // file is unreadable), it is held back to go again as `againAs` (its
    // text, if empty). Returns whether removed.
    bool giveUp(const QString& text, bool again = true, const QString& againAs = QString());
    // The server answered: the requests held back go again, first (after
    // the one the send thread is handling). Those the journal keeps come
    // back later (see setOnFetched), at most kHeldBackMax per call. Returns
    // how many go again or were asked for.
    int takeBack();
    // Requests held back, in memory and in the journal.
    qint64 heldBack() const;
    // Held back in memory at most; more go to a journal that holds them
    // (journalHoldsBack), else wait in the journal for the next start.
    static constexpr int kHeldBackMax = 64;
    // Removes the head if it is still `id` and its text can never be
    // delivered (no item takes it). Journalled as done.
    bool dropDamaged(quint64 id);

    // Drops the `count` oldest requests for good, never the one the send
    // thread is handling: those held back (in memory, journalled as done,
    // then those the journal holds), then the rest in memory (journalled as
    // done), then spilled ones. Returns how many went; `oldestMs`/`newestMs` (if given) widen to
    // the queueing times of those in memory.
    int dropOldest(int count, qint64* oldestMs = nullptr, qint64* newestMs = nullptr);
    // The journal removed `count` spilled requests by itself (duplicates).
    void forgetSpilled(int count);

private:
    bool headIs(quint64 id) const;
    QEL_QueuedRequest popHead();
    // Asks the journal for spilled requests once memory is half drained.
    void fetchIfLow();
    void fetched(int asked, const QList<QEL_QueuedRequest>& requests);
    void takenBack(int asked, const QList<QEL_QueuedRequest>& requests);
    // Puts `requests` at the front, behind the request the send thread is
    // handling. Returns how many.
    int insertAfterHead(const QList<QEL_QueuedRequest>& requests);

    mutable QMutex mutex_;
    TypeOf typeOf_;
    QEL_SendJournal* journal_;
    QList<QEL_QueuedRequest> entries_;
    QList<QEL_QueuedRequest> held_;     // given up while the server was away, to go again at its next answer
    qint64 heldInJournal_ = 0;          // ... kept by the journal alone
    bool takingBack_ = false;           // the journal is handing some back
    int window_ = 0;            // 0: no bound
    qint64 spilled_ = 0;        // requests only the journal holds, after entries_
    bool fetching_ = false;     // a fetch is on its way
    int fetchAsked_ = 0;        // ... for this many
    std::function<void()> onFetched_;
    quint64 current_ = 0;       // the head the send thread is handling
    quint64 inFlight_ = 0;      // written, answer awaited (0: none)
    quint64 lastSent_ = 0;      // the last request written
    int attempts_ = 0;          // sends of the head without an answer
    bool answered_ = false;     // the flight ended by an answer
    bool atFault_ = false;      // the server said the head itself is at fault: not held back
    bool away_ = false;         // the last send ended by a lost link or a server-side status
};
