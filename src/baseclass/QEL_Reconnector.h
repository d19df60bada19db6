#pragma once

#include <QObject>
#include <QString>
#include <QTimer>
#include <functional>
#include <vector>

// Delay before the next connection attempt after `failures` failed ones in a
// row: none after a success, then `firstMs` doubling up to `maxMs`.
int reconnectDelayMs(int failures, int firstMs = 1000, int maxMs = 5000);
// A wait drawn uniformly from [0, stepMs], from a generator seeded per
// process: agents that lost the server at the same moment do not all come
// back in the same instant, again and again.
int jitteredMs(int stepMs);

// The connection attempts of one socket, on the main thread: one attempt at
// a time, bounded in time, with a back-off between failures. It knows
// nothing of sockets: the owner starts and aborts attempts through the hooks
// and reports how each one ended.
class QEL_Reconnector : public QObject
{
    Q_OBJECT
public:
    struct Hooks
    {
        std::function<bool()> isUp;         // the connection is established
        std::function<void()> drop;         // close whatever is there, at once
        std::function<void()> connect;      // begin connecting
    };
    enum class When {
        Now,        // at once (cancels a scheduled retry)
        Backoff     // after the current back-off delay
    };
    using Done = std::function<void(bool ok)>;

    explicit QEL_Reconnector(Hooks hooks, QObject* parent = nullptr, int attemptMs = 5000,
                             int firstDelayMs = 1000, int maxDelayMs = 5000);

    // Asks for an attempt. `done` runs when it ends; requests made while one
    // is under way or scheduled join it, and waiters with the same non-empty
    // key are called once per attempt. A connection that is up is kept (the
    // attempt succeeds at once) unless `force` asks to replace it.
    void request(When when, Done done = {}, const QString& key = {}, bool force = false);
    // The owner: the attempt under way has ended.
    void attemptEnded(bool ok);
    // A server behind a proxy, or one that takes connections and drops
    // them, can be connectable and still not there: with this set, only
    // answered() ends the back-off, and a connection that ends without an
    // answer counts as a failed attempt (connectionEnded).
    void setBackOffUntilAnswered(bool on) { untilAnswered_ = on; }
    // The owner: the server answered on the connection.
    void answered();
    // The owner: an established connection has ended; `answered` says
    // whether anything came back on it.
    void connectionEnded(bool answered);

    bool attempting() const { return attempting_; }
    bool pending() const { return attempting_ || retry_.isActive(); }
    int failures() const { return failures_; }

signals:
    // Emitted when an attempt ends, before its waiters are called.
    void attemptFinished(bool ok);

private:
    void begin();
    void countFailure();

    struct Waiter
    {
        QString key;
        Done done;
    };

    Hooks hooks_;
    int attemptMs_;
    int firstDelayMs_;
    int maxDelayMs_;
    bool attempting_ = false;
    bool force_ = false;
    bool untilAnswered_ = false;
    int failures_ = 0;
    QTimer retry_;
    QTimer deadline_;
    std::vector<Waiter> waiters_;
};
