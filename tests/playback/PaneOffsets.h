#pragma once

// How far apart the two panes of a player stand on the input's axis while they
// play, from mpv's own position reports. Reading the two panes' positions one
// after the other would add the time between the reads to the offset; instead
// every report is dated by when mpv queued it, and the other pane's latest
// report is carried to that instant along the input's axis.
#include "playback/MPVObject.h"

#include <QObject>
#include <QProcess>
#include <QString>
#include <QThread>

#include <array>
#include <functional>
#include <vector>

namespace playermedia {

class PaneOffsets
{
public:
    // Where a file's position lies on the input's axis, and how many times
    // slower than the input the file runs.
    struct OnInput
    {
        double inputMs = 0;
        double slowdown = 1;
    };
    using Mapping = std::function<OnInput(const QString &file, double fileMs)>;

    struct Sample
    {
        double inputMs;        // the reporting pane's position
        double rightMinusLeft; // on the input's axis, ms
    };

    PaneOffsets(MPVObject *left, MPVObject *right, Mapping mapping)
        : toInput(std::move(mapping))
    {
        watch(left, 0);
        watch(right, 1);
    }

    // Samples are taken only while `on` is true.
    void setTaking(bool on)
    {
        taking = on;
        last = {};
    }

    std::vector<Sample> samples;

private:
    struct Report
    {
        double inputMs = 0;
        double atMs = 0;
        double slowdown = 1;
        bool valid = false;
    };

    void watch(MPVObject *pane, int index)
    {
        QObject::connect(pane, &MPVObject::fileLoaded, pane, [this, pane, index](int) {
            loaded[static_cast<size_t>(index)] = QString::fromStdString(pane->getCurrentPlayingVideoPath());
        });
        QObject::connect(pane, &MPVObject::timePosFullChanged, pane, [this, pane, index](int, qlonglong pos, bool eof) {
            const QString file = QString::fromStdString(pane->getCurrentPlayingVideoPath());
            Report &mine = last[static_cast<size_t>(index)];
            // Until the file asked for has loaded, reports may come from the one before.
            if (eof || file != loaded[static_cast<size_t>(index)] || pane->reportTime() <= 0) {
                mine.valid = false;
                return;
            }
            const OnInput at = toInput(file, static_cast<double>(pos));
            mine = {at.inputMs, pane->reportTime(), at.slowdown, true};
            const Report &other = last[static_cast<size_t>(1 - index)];
            if (!taking || !other.valid)
                return;
            // Both panes advance on the input's axis at the pace of the slower file.
            const double rate = 1.0 / std::max(mine.slowdown, other.slowdown);
            const double otherNow = other.inputMs + rate * (mine.atMs - other.atMs);
            samples.push_back({mine.inputMs, index == 1 ? mine.inputMs - otherNow : otherNow - mine.inputMs});
        });
    }

    Mapping toInput;
    bool taking = false;
    std::array<Report, 2> last;
    std::array<QString, 2> loaded;
};

// An encode on every core, as a render beside the preview would be.
inline bool startBackgroundEncode(QProcess &process)
{
    process.start(QStringLiteral("ffmpeg"),
                  {QStringLiteral("-v"), QStringLiteral("quiet"), QStringLiteral("-f"), QStringLiteral("lavfi"),
                   QStringLiteral("-i"), QStringLiteral("testsrc2=s=1920x1080:r=30"), QStringLiteral("-t"),
                   QStringLiteral("600"), QStringLiteral("-threads"), QString::number(QThread::idealThreadCount()),
                   QStringLiteral("-c:v"), QStringLiteral("libx264"), QStringLiteral("-preset"),
                   QStringLiteral("medium"), QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")});
    return process.waitForStarted();
}

} // namespace playermedia
