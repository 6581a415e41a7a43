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

double FrameLock::offsetLocked(double wallMs) const
{
    const Line &leader = lines[kLeader];
    const Line &follower = lines[kFollower];
    if (!known(leader) || !known(follower))
        return 0;
    return (phase(follower) + follower.rate * wallMs) - (phase(leader) + leader.rate * wallMs);
}

double FrameLock::offsetAt(double wallMs) const
{
    const std::lock_guard lock(mutex);
    return offsetLocked(wallMs);
}

FrameLock::Action FrameLock::report(int pane, double inputMs, double wallMs, double rate, double frameMs)
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
    while (!line.samples.empty() && line.samples.front().first < wallMs - settings.windowMs)
        line.samples.pop_front();

    Line &follower = lines[kFollower];
    if (pane != kFollower || !known(lines[kLeader]) || !known(follower))
        return {};
    const double offset = offsetLocked(wallMs);
    bool again = false;
    if (reseekPending) {
        // What the last re-seek missed by says how long a seek takes now; a
        // miss of over half a frame is put right at once with that lead,
        // rather than trimmed away over a second.
        reseekPending = false;
        seekLead = std::clamp(seekLead - offset / std::max(0.05, follower.rate), 0.0, 500.0);
        again = std::abs(offset) > 0.5 * frameMs && correctiveReseeks++ < 1;
    } else {
        correctiveReseeks = 0;
    }
    if (again || std::abs(offset) > settings.reseekFrames * frameMs) {
        if (!again && wallMs - lastReseek < settings.reseekCooldownMs)
            return {};
        lastReseek = wallMs;
        const Line &leader = lines[kLeader];
        const double target = phase(leader) + leader.rate * (wallMs + seekLead);
        // The follower starts a new line once it plays again.
        follower = Line{};
        reseekPending = true;
        return {Action::Reseek, 1.0, target};
    }
    double trim = 1.0;
    if (std::abs(offset) > settings.deadbandMs) {
        const double wanted = offset / (settings.horizonMs * rate);
        trim = 1.0 - std::clamp(wanted, -settings.maxTrim, settings.maxTrim);
    }
    // Small changes are not worth a property write on every frame.
    if (std::abs(trim - follower.trim) < 0.002 && !(trim == 1.0 && follower.trim != 1.0))
        return {};
    follower.trim = trim;
    bend(follower, rate * trim, wallMs);
    return {Action::Trim, trim, 0};
}

} // namespace videoplayer
