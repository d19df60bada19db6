#include "QEL_Reconnector.h"

#include "ThreadCheck.h"

#include <chrono>
#include <random>
#include <unistd.h>

int reconnectDelayMs(int failures, int firstMs, int maxMs)
{
    if (failures <= 0)
        return 0;
    qint64 delay = firstMs;
    for (int i = 1; i < failures && delay < maxMs; ++i)
        delay *= 2;
    return delay < maxMs ? int(delay) : maxMs;
}

int jitteredMs(int stepMs)
{
    if (stepMs <= 0)
        return 0;
    thread_local std::mt19937 generator(std::random_device{}() ^ unsigned(getpid())
                                        ^ unsigned(std::chrono::steady_clock::now().time_since_epoch().count()));
    return std::uniform_int_distribution<int>(0, stepMs)(generator);
}

QEL_Reconnector::QEL_Reconnector(Hooks hooks, QObject* parent, int attemptMs, int firstDelayMs,
                                 int maxDelayMs)
    : QObject(parent)
    , hooks_(std::move(hooks))
    , attemptMs_(attemptMs)
    , firstDelayMs_(firstDelayMs)
    , maxDelayMs_(maxDelayMs)
{
    retry_.setSingleShot(true);
    // A coarse timer is moved to a round moment of the machine's clock (up
    // to 5 % later), the same moment in every agent: the drawn waits would
    // come back together in waves a second apart.
    retry_.setTimerType(Qt::PreciseTimer);
    connect(&retry_, &QTimer::timeout, this, &QEL_Reconnector::begin);
    deadline_.setSingleShot(true);
    connect(&deadline_, &QTimer::timeout, this, [this] {
        if (attempting_)
            hooks_.drop();      // the owner reports the failed end
        if (attempting_)
            attemptEnded(false);
    });
}

void QEL_Reconnector::request(When when, Done done, const QString& key, bool force)
{
    QEL_ASSERT_MAIN_THREAD();
    if (done) {
        bool joined = false;
        if (!key.isEmpty())
            for (const Waiter& w : waiters_)
                joined = joined || w.key == key;
        if (!joined)
            waiters_.push_back(Waiter{key, std::move(done)});
    }
    force_ = force_ || force;
    if (attempting_)
        return;
    if (retry_.isActive() && when == When::Backoff)
        return;
    // Always begun from the event loop, never inside the caller's stack.
    retry_.start(when == When::Now ? 0 : jitteredMs(reconnectDelayMs(failures_, firstDelayMs_, maxDelayMs_)));
}

void QEL_Reconnector::begin()
{
    const bool force = force_;
    force_ = false;
    if (!force && hooks_.isUp()) {
        // Never tear down a connection that works for a retry that was
        // scheduled before it came up.
        attempting_ = true;
        attemptEnded(true);
        return;
    }
    hooks_.drop();      // its end is not this attempt's failure
    attempting_ = true;
    deadline_.start(attemptMs_);
    hooks_.connect();
}

void QEL_Reconnector::countFailure()
{
    if (failures_ < 30)
        ++failures_;
}

void QEL_Reconnector::answered()
{
    failures_ = 0;
}

void QEL_Reconnector::connectionEnded(bool answered)
{
    if (untilAnswered_ && !answered)
        countFailure();
}

void QEL_Reconnector::attemptEnded(bool ok)
{
    if (!attempting_)
        return;
    attempting_ = false;
    deadline_.stop();
    if (ok && !untilAnswered_)
        failures_ = 0;
    else if (!ok)
        countFailure();
    emit attemptFinished(ok);
    std::vector<Waiter> waiters;
    waiters.swap(waiters_);
    for (Waiter& w : waiters)
        w.done(ok);
}
