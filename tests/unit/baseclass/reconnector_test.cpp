#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <vector>

#include "QEL_Reconnector.h"

namespace {

// A connection that the test controls: attempts succeed or fail at once, or
// hang until the reconnector's own deadline.
struct FakeLink
{
    enum Outcome { Fail, Succeed, Hang } outcome = Fail;
    bool up = false;
    int drops = 0;
    std::vector<qint64> connectAt;      // ms since the start of the test
    QElapsedTimer clock;
    QEL_Reconnector* r = nullptr;

    QEL_Reconnector::Hooks hooks()
    {
        return {[this] { return up; },
                [this] {
                    ++drops;
                    if (up) {
                        up = false;
                    } else if (r->attempting()) {
                        r->attemptEnded(false);     // an aborted attempt ends as failed
                    }
                },
                [this] {
                    connectAt.push_back(clock.elapsed());
                    if (outcome == Hang)
                        return;
                    QTimer::singleShot(0, [this] {
                        up = outcome == Succeed;
                        r->attemptEnded(up);
                    });
                }};
    }
};

void runFor(int ms)
{
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

TEST(Reconnector, FailuresBackOffUpToTheCap)
{
    FakeLink link;
    QEL_Reconnector r(link.hooks(), nullptr, 1000, 20, 80);
    link.r = &r;
    // Like the application link: every failure asks again, after the back-off.
    QObject::connect(&r, &QEL_Reconnector::attemptFinished, [&](bool ok) {
        if (!ok && link.connectAt.size() < 6)
            r.request(QEL_Reconnector::When::Backoff);
    });
    link.clock.start();
    r.request(QEL_Reconnector::When::Now);
    runFor(500);
    ASSERT_EQ(link.connectAt.size(), 6u);
    const int expected[] = {20, 40, 80, 80, 80};
    for (int i = 0; i < 5; ++i) {
        const qint64 gap = link.connectAt[i + 1] - link.connectAt[i];
        EXPECT_GE(gap, expected[i] - 5) << i;    // coarse timers may fire a little early
        EXPECT_LT(gap, expected[i] + 60) << i;
    }
    EXPECT_EQ(r.failures(), 6);
}

TEST(Reconnector, AConnectionThatIsUpIsKeptUnlessForced)
{
    FakeLink link;
    link.up = true;
    QEL_Reconnector r(link.hooks(), nullptr, 1000, 20, 80);
    link.r = &r;
    link.clock.start();
    std::vector<bool> outcomes;
    r.request(QEL_Reconnector::When::Backoff, [&](bool ok) { outcomes.push_back(ok); });
    runFor(30);
    EXPECT_EQ(outcomes, std::vector<bool>{true});
    EXPECT_EQ(link.drops, 0);
    EXPECT_TRUE(link.connectAt.empty());

    link.outcome = FakeLink::Succeed;
    r.request(QEL_Reconnector::When::Now, [&](bool ok) { outcomes.push_back(ok); }, QString(), true);
    runFor(30);
    EXPECT_EQ(link.drops, 1);
    EXPECT_EQ(link.connectAt.size(), 1u);
    EXPECT_EQ(outcomes, (std::vector<bool>{true, true}));
}

TEST(Reconnector, WaitersJoinOneAttemptAndKeyedOnesAreCalledOnce)
{
    FakeLink link;
    link.outcome = FakeLink::Succeed;
    QEL_Reconnector r(link.hooks(), nullptr, 1000, 20, 80);
    link.r = &r;
    link.clock.start();
    int plain = 0, keyed = 0;
    r.request(QEL_Reconnector::When::Now, [&](bool) { ++plain; });
    r.request(QEL_Reconnector::When::Backoff, [&](bool) { ++plain; });
    r.request(QEL_Reconnector::When::Backoff, [&](bool) { ++keyed; }, "k");
    r.request(QEL_Reconnector::When::Backoff, [&](bool) { ++keyed; }, "k");
    runFor(30);
    EXPECT_EQ(link.connectAt.size(), 1u);
    EXPECT_EQ(plain, 2);
    EXPECT_EQ(keyed, 1);
    EXPECT_EQ(r.failures(), 0);
}

TEST(Reconnector, AHangingAttemptEndsAtItsDeadline)
{
    FakeLink link;
    link.outcome = FakeLink::Hang;
    QEL_Reconnector r(link.hooks(), nullptr, 50, 20, 80);
    link.r = &r;
    link.clock.start();
    qint64 endedAt = -1;
    bool result = true;
    r.request(QEL_Reconnector::When::Now, [&](bool ok) {
        result = ok;
        endedAt = link.clock.elapsed();
    });
    runFor(250);
    EXPECT_FALSE(result);
    EXPECT_GE(endedAt, 45);      // coarse timers may fire a little early
    EXPECT_LT(endedAt, 200);
    EXPECT_FALSE(r.pending());
}

}  // namespace
