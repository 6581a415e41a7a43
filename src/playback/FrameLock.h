#pragma once

#include <QtGlobal>

#include <array>
#include <deque>
#include <mutex>

namespace videoplayer {

// Holds the right pane on the left pane's frame while both play. The player's
// own sync starts both panes together and realigns them only at seeks and file
// boundaries; between those, two mpv cores drift by their start-up jitter
// (a third of a frame was usual) and a seek lost in one pane is never caught.
//
// Each pane is modelled as a line on the input's axis, position = phase +
// rate * wall time. mpv reports a new position when it hands a frame to its
// output, not when the frame shows, and the report is delivered after a
// varying delay: single phases scatter by several milliseconds either way,
// so a pane's phase is the median of a short window. The offset between the lines, taken now, decides:
// - within a dead band: nothing;
// - up to two frames: a speed trim on the follower (a few percent while it
//   is heard), which closes the gap over a fraction of a second without a
//   visible step;
// - beyond: a frame-exact seek of the follower alone, to where the leader
//   will be once the seek is done.
// Pure arithmetic under a mutex: the player feeds it from the thread that
// receives mpv's reports and resets it from its worker.
class FrameLock
{
public:
    static constexpr int kLeader = 0;
    static constexpr int kFollower = 1;

    struct Settings
    {
        double deadbandMs = 2.0;
        // Two cores unpaused together at a cut start up to a frame apart (on a
        // busy machine, whichever core gets a processor later starts later),
        // and a cut comes every half second or so: the gap must close within
        // a few hundred milliseconds. 8 % takes half a second for a whole
        // frame; a pane that is not heard may run a quarter off, which no eye
        // sees over the few frames it lasts and no ear hears on a muted pane.
        double maxTrim = 0.08;        // at most 8 % off the speed of a pane that is heard
        double maxSilentTrim = 0.25;  // and 25 % off that of a muted one
        double horizonMs = 120.0;     // a gap is closed over about this long
        double reseekFrames = 2.0;
        double seekLeadMs = 40.0;   // a first guess at how long a re-seek takes; learnt
                                    // from what each re-seek misses by
        double windowMs = 300.0;
        int minSamples = 3;
        int warmUpReports = 1;
        double reseekCooldownMs = 300.0;
    };

    struct Action
    {
        enum Kind { None, Trim, Reseek };
        Kind kind = None;
        double speedFactor = 1.0;  // Trim: times the pane's own speed
        double targetInputMs = 0;  // Reseek: where the follower goes, on the input's axis
        quint64 epoch = 0;         // the reset it follows
    };

    FrameLock() = default;
    explicit FrameLock(const Settings &settings);

    // A seek, a load, a speed change: the lines no longer hold.
    void reset();

    // One position report of `pane`: where it stands on the input's axis,
    // when it was reported (ms of a steady clock), how fast the axis runs for
    // it at its own speed (input ms per wall ms) and the length of a frame on
    // the input's axis; whether the follower is heard bounds its trims.
    // Actions are only ever for the follower.
    Action report(int pane, double inputMs, double wallMs, double rate, double frameMs, bool followerHeard = true);

    // Sends `action` through `send` unless a reset came after the report that
    // asked for it. The player's worker resets the lock before it pauses or
    // seeks the panes, and a trim or re-seek sent after that would undo the
    // player's own command; under the lock's mutex the two cannot cross.
    template<typename Send>
    void carryOut(const Action &action, Send &&send)
    {
        const std::lock_guard lock(mutex);
        if (action.epoch == epoch)
            send();
    }

    // The follower's lead over the leader now, on the input's axis; 0 until
    // both lines are known.
    double offsetAt(double wallMs) const;

private:
    struct Line
    {
        std::deque<std::pair<double, double>> samples;  // wall, phase
        double rate = 0;
        double trim = 1.0;
        int skipped = 0;
    };

    bool known(const Line &line) const;
    static double phase(const Line &line);
    static void bend(Line &line, double rate, double wallMs);
    double gap(double wallMs) const;
    double offsetLocked(double wallMs) const;

    Settings settings;
    mutable std::mutex mutex;
    std::array<Line, 2> lines;
    double lastReseek = -1e18;
    double seekLead = Settings{}.seekLeadMs;
    bool reseekPending = false;
    quint64 epoch = 0;
    int correctiveReseeks = 0;
};

} // namespace videoplayer
