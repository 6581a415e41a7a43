#include "playback/FrameLock.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace videoplayer {

FrameLock::FrameLock(const Settings &s)
    : settings(s)
    , seekLead(s.seekLeadMs)
{
}

void FrameLock::reset()
{
    const std::lock_guard lock(mutex);
    for (Line &line : lines)
        line = Line{};
    reseekPending = false;
    ++epoch;
}

bool FrameLock::known(const Line &line) const
{
    return static_cast<int>(line.samples.size()) >= settings.minSamples;
}

double FrameLock::phase(const Line &line)
{
    std::vector<double> phases;
    phases.reserve(line.samples.size());
    for (const auto &sample : line.samples)
        phases.push_back(sample.second);
    const auto middle = phases.begin() + static_cast<std::ptrdiff_t>(phases.size() / 2);
    std::nth_element(phases.begin(), middle, phases.end());
    return *middle;
}

void FrameLock::bend(Line &line, double rate, double wallMs)
{
    // A pane's line bends where its speed changes: the phases seen so far are
    // carried over to the new rate at that moment.
    if (line.rate == rate)
        return;
    for (auto &sample : line.samples)
        sample.second += (line.rate - rate) * wallMs;
    line.rate = rate;
}

double FrameLock::gap(double wallMs) const
{
    const Line &leader = lines[kLeader];
    const Line &follower = lines[kFollower];
    return (phase(follower) + follower.rate * wallMs) - (phase(leader) + leader.rate * wallMs);
}

double FrameLock::offsetLocked(double wallMs) const
{
    return known(lines[kLeader]) && known(lines[kFollower]) ? gap(wallMs) : 0;
}

double FrameLock::offsetAt(double wallMs) const
{
    const std::lock_guard lock(mutex);
    return offsetLocked(wallMs);
}

FrameLock::Action FrameLock::report(int pane, double inputMs, double wallMs, double rate, double frameMs,
                                     bool followerHeard)
{
    const std::lock_guard lock(mutex);
    if ((pane != kLeader && pane != kFollower) || !(rate > 0) || !(frameMs > 0) || wallMs <= 0)
        return {};
    Line &line = lines[static_cast<size_t>(pane)];
    // The first frames after a start come at no steady cadence yet.
    if (line.skipped < settings.warmUpReports) {
        ++line.skipped;
        return {};
    }
    bend(line, rate * line.trim, wallMs);
    line.samples.emplace_back(wallMs, inputMs - line.rate * wallMs);
    // A pane that reports rarely (a starved core, a stalled decoder) keeps its
    // last two reports: its falling phase shows how far it has fallen behind,
    // where an emptied window would leave the lock blind to it.
    while (line.samples.size() > 2 && line.samples.front().first < wallMs - settings.windowMs)
        line.samples.pop_front();

    // Either pane's report may move the follower: waiting for the follower's
    // own would leave a gap found on the leader's report standing a frame longer.
    Line &follower = lines[kFollower];
    const Line &leader = lines[kLeader];
    if (leader.samples.size() < 2 || follower.samples.size() < 2)
        return {};
    const bool steady = known(leader) && known(follower);
    const double offset = gap(wallMs);
    // Reports scatter by a few milliseconds, never by half a frame: a gap that
    // wide is acted on from two reports a pane, a smaller one waits for the
    // median of more, and so does the check of a re-seek.
    if (!steady && (reseekPending || std::abs(offset) <= 0.5 * frameMs))
        return {};
    const double followerRate = follower.rate / follower.trim;
    bool again = false;
    if (reseekPending) {
        // What the last re-seek missed by says how long a seek takes now; a
        // miss of over half a frame is put right at once with that lead,
        // rather than trimmed away over a second.
        reseekPending = false;
        seekLead = std::clamp(seekLead - offset / std::max(0.05, followerRate), 0.0, 500.0);
        again = std::abs(offset) > 0.5 * frameMs && correctiveReseeks++ < 1;
    } else {
        correctiveReseeks = 0;
    }
    if (again || std::abs(offset) > settings.reseekFrames * frameMs) {
        if (!again && wallMs - lastReseek < settings.reseekCooldownMs)
            return {};
        lastReseek = wallMs;
        const double target = phase(leader) + leader.rate * (wallMs + seekLead);
        // The follower starts a new line once it plays again.
        follower = Line{};
        reseekPending = true;
        return {Action::Reseek, 1.0, target, epoch};
    }
    double trim = 1.0;
    if (std::abs(offset) > settings.deadbandMs) {
        const double wanted = offset / (settings.horizonMs * followerRate);
        const double bound = followerHeard ? settings.maxTrim : settings.maxSilentTrim;
        trim = 1.0 - std::clamp(wanted, -bound, bound);
    }
    // Small changes are not worth a property write on every frame.
    if (std::abs(trim - follower.trim) < 0.002 && !(trim == 1.0 && follower.trim != 1.0))
        return {};
    follower.trim = trim;
    bend(follower, followerRate * trim, wallMs);
    return {Action::Trim, trim, 0, epoch};
}

} // namespace videoplayer
