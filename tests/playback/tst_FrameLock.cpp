// The frame lock's control loop against two simulated panes: each shows a
// frame every 40 ms on its own clock and reports it after a delivery delay
// that scatters either way; the follower's clock obeys the lock's trims and
// re-seeks as an mpv core would, a little late.
#include "playback/FrameLock.h"

#include <QtTest>

#include <cmath>
#include <random>

using videoplayer::FrameLock;

namespace {

struct Outcome
{
    double finalOffset = 0;  // follower minus leader, ms, at the end
    int trims = 0;
    int reseeks = 0;
    double slowestTrim = 1.0;
    double fastestTrim = 1.0;
};

// `offset`: where the follower starts against the leader (ms on the input's
// axis); `rate`: input ms per wall ms (0.5 in a slow-motion stretch);
// `jitter`: the largest delivery delay either way; `seekMs`: how long a
// re-seek keeps the follower from advancing; `stallMs`: how long the
// follower's core stands still from 0.4 s on, as a starved one does.
Outcome simulate(double offset, double rate, double jitter, double seekMs, double stallMs, double seconds,
                 unsigned seed, bool heard)
{
    FrameLock lock;
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> delay(-jitter, jitter);
    Outcome outcome;
    double leaderStart = 1000.0;
    double followerPos = leaderStart + offset;  // on the input's axis at wall 1000
    double followerSpeed = 1.0;
    double frozenUntil = 0;
    double last = 1000.0;
    const double frame = 40.0 * rate;  // a reported step of the file, on the input's axis
    for (double wall = 1000.0; wall < 1000.0 + seconds * 1000.0; wall += 1.0) {
        const bool stalled = wall >= 1400.0 && wall < 1400.0 + stallMs;
        if (wall >= frozenUntil && !stalled)
            followerPos += rate * followerSpeed * (wall - last);
        last = wall;
        const double leaderPos = leaderStart + rate * (wall - 1000.0);
        // Each pane reports when it crosses a frame of its own.
        for (int pane : {0, 1}) {
            const double pos = pane == 0 ? leaderPos : followerPos;
            const double before = pane == 0 ? leaderPos - rate : followerPos - rate * followerSpeed;
            if (std::floor(pos / frame) == std::floor(before / frame))
                continue;
            const double shown = std::floor(pos / frame) * frame;
            const auto action = lock.report(pane, shown, wall + std::abs(delay(random)) + delay(random) * 0.2, rate, 40.0, heard);
            if (action.kind == FrameLock::Action::Trim) {
                ++outcome.trims;
                followerSpeed = action.speedFactor;
                outcome.slowestTrim = std::min(outcome.slowestTrim, action.speedFactor);
                outcome.fastestTrim = std::max(outcome.fastestTrim, action.speedFactor);
            } else if (action.kind == FrameLock::Action::Reseek) {
                ++outcome.reseeks;
                followerSpeed = 1.0;
                followerPos = action.targetInputMs;
                frozenUntil = wall + seekMs;
            }
        }
        outcome.finalOffset = followerPos - leaderPos;
    }
    return outcome;
}

} // namespace

class tst_FrameLock : public QObject
{
    Q_OBJECT

private slots:
    void closesTheGapWithoutOvershooting_data()
    {
        QTest::addColumn<double>("offset");
        QTest::addColumn<double>("rate");
        QTest::addColumn<double>("jitter");
        QTest::addColumn<double>("seekMs");
        QTest::addColumn<bool>("reseeks");
        QTest::addColumn<double>("seconds");
        QTest::addColumn<bool>("heard");
        QTest::addColumn<double>("stallMs");
        QTest::newRow("in step: left alone") << 0.5 << 1.0 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("a third of a frame behind: trimmed") << -13.0 << 1.0 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("slow motion, a quarter frame ahead: trimmed") << 8.0 << 0.5 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("busy machine, wide scatter: trimmed") << -15.0 << 1.0 << 9.0 << 60.0 << false << 4.0 << true << 0.0;
        // Cuts come every half second or so: the start-up gap must not outlive one.
        QTest::newRow("a frame behind after a cut: closed in time") << -36.0 << 1.0 << 3.0 << 30.0 << false << 0.8 << true << 0.0;
        QTest::newRow("muted, a frame behind after a cut: closed in half the time")
            << -36.0 << 1.0 << 3.0 << 30.0 << false << 0.45 << false << 0.0;
        QTest::newRow("muted, slow motion, half a frame ahead") << 20.0 << 0.5 << 6.0 << 30.0 << false << 0.7 << false << 0.0;
        QTest::newRow("a frame and a half ahead: trimmed") << 60.0 << 1.0 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("starved core: the follower stands still for half a second")
            << 6.0 << 1.0 << 6.0 << 60.0 << true << 4.0 << true << 500.0;
        QTest::newRow("lost seek: fifteen frames behind") << -600.0 << 1.0 << 3.0 << 30.0 << true << 4.0 << true << 0.0;
        QTest::newRow("stray seek ahead, slow seeks") << 320.0 << 1.0 << 6.0 << 120.0 << true << 4.0 << true << 0.0;
    }

    void closesTheGapWithoutOvershooting()
    {
        QFETCH(double, offset);
        QFETCH(double, rate);
        QFETCH(double, jitter);
        QFETCH(double, seekMs);
        QFETCH(bool, reseeks);
        QFETCH(double, seconds);
        QFETCH(bool, heard);
        QFETCH(double, stallMs);
        for (unsigned seed : {1u, 2u, 3u}) {
            const Outcome outcome = simulate(offset, rate, jitter, seekMs, stallMs, seconds, seed, heard);
            const QString what = QStringLiteral("seed %1: offset %2 ms after %3 trims, %4 re-seeks")
                                     .arg(seed)
                                     .arg(outcome.finalOffset)
                                     .arg(outcome.trims)
                                     .arg(outcome.reseeks);
            QVERIFY2(std::abs(outcome.finalOffset) <= 4.0, qPrintable(what));
            QVERIFY2((outcome.reseeks > 0) == reseeks, qPrintable(what));
            // Trims stay small enough to go unheard and unseen.
            const double bound = heard ? 0.08 : 0.25;
            QVERIFY2(outcome.slowestTrim >= 1 - bound && outcome.fastestTrim <= 1 + bound, qPrintable(what));
            if (std::abs(offset) <= 2.0)
                QCOMPARE(outcome.trims, 0);
        }
    }

    void nothingUntilBothLinesAreKnownAndAgainAfterReset()
    {
        FrameLock lock;
        // The follower far ahead, but too few steady reports to say so: the
        // first after a start is passed over, then two are needed.
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(lock.report(0, 40.0 * i, 1000.0 + 40 * i, 1.0, 40.0).kind, FrameLock::Action::None);
            QCOMPARE(lock.report(1, 400 + 40.0 * i, 1000.0 + 40 * i, 1.0, 40.0).kind, FrameLock::Action::None);
        }
        lock.report(0, 80.0, 1080.0, 1.0, 40.0);
        const auto action = lock.report(1, 480.0, 1080.0, 1.0, 40.0);
        QCOMPARE(action.kind, FrameLock::Action::Reseek);
        // Where the leader will be once the seek is done.
        QVERIFY(action.targetInputMs > 80.0 && action.targetInputMs < 180.0);
        lock.reset();
        QCOMPARE(lock.offsetAt(1300.0), 0.0);
        // Asked for before the reset, the re-seek is not sent after it: it would
        // undo the player's own pause or seek that came with the reset.
        bool sent = false;
        lock.carryOut(action, [&] { sent = true; });
        QVERIFY(!sent);
        // Bad input is ignored, not divided by.
        QCOMPARE(lock.report(1, 0, 1300.0, 0.0, 40.0).kind, FrameLock::Action::None);
        QCOMPARE(lock.report(3, 0, 1300.0, 1.0, 40.0).kind, FrameLock::Action::None);
        QCOMPARE(lock.report(1, 0, 1300.0, 1.0, std::nan("")).kind, FrameLock::Action::None);
    }
};

QTEST_GUILESS_MAIN(tst_FrameLock)
#include "tst_FrameLock.moc"
