#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/Timeline.h"

#include <QStringList>

#include <memory>
#include <mutex>
#include <vector>

// Collects every ConsoleLogger call while it lives.
class LogCapture
{
public:
    LogCapture()
    {
        ConsoleLogger::setCaptureSink([this](const ConsoleLogger::Record &record) {
            std::lock_guard lock(mutex);
            records.push_back(record);
        });
    }
    ~LogCapture() { ConsoleLogger::setCaptureSink({}); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    int count(const QString &start, int level = -1) const
    {
        std::lock_guard lock(mutex);
        int found = 0;
        for (const auto &record : records)
            found += record.message.startsWith(start) && (level < 0 || record.level == level);
        return found;
    }

    mutable std::mutex mutex;
    std::vector<ConsoleLogger::Record> records;
};

inline std::shared_ptr<Video> makeTestInput(TSType duration = 10000, double framerate = 25.0)
{
    auto input = std::make_shared<Video>(1, duration, 0, "input.mp4", QVariantMap{});
    input->framerate = framerate;
    input->isGenerating = false;
    return input;
}

inline std::shared_ptr<Video> makeTestPreview(const QString &name, TSType start, TSType end, double framerate = 25.0,
                                              UID uid = -1)
{
    static UID nextUID = 100;
    auto preview = std::make_shared<Video>(uid >= 0 ? uid : nextUID++, end - start, start, name.toStdString(),
                                           QVariantMap{});
    preview->framerate = framerate;
    return preview;
}

// "I(0,1999) A(2000,3000) I(3001,10000)": the input as I, a preview by its path.
inline QString describe(const videoplayer::Timeline &timeline)
{
    QStringList parts;
    for (std::size_t i = 0; i < timeline.rData.ranges.size(); ++i) {
        const auto &video = timeline.rData.videos[i];
        const QString label = video == timeline.input ? QStringLiteral("I") : QString::fromStdString(video->filepath);
        parts << QStringLiteral("%1(%2,%3)")
                     .arg(label)
                     .arg(timeline.rData.ranges[i].first)
                     .arg(timeline.rData.ranges[i].second);
    }
    return parts.join(QLatin1Char(' '));
}

// Runs a script of steps on `timeline`: "A=2000,3000" adds preview A over that
// stretch at 25 fps, "A=2000,3000@0" at another rate, "-A" deletes A, "I"
// adds the input itself and "*" clears the timeline.
inline void runScript(videoplayer::Timeline &timeline, const QStringList &steps,
                      std::map<QString, std::shared_ptr<Video>> &byName)
{
    for (const QString &step : steps) {
        if (step == QLatin1String("I")) {
            timeline.addVideo(timeline.input);
            continue;
        }
        if (step == QLatin1String("*")) {
            timeline.clear();
            continue;
        }
        if (step.startsWith(QLatin1Char('-'))) {
            const auto found = byName.find(step.mid(1));
            timeline.deletePreview(found != byName.end() ? found->second->uid : -12345);
            continue;
        }
        const QString name = step.section(QLatin1Char('='), 0, 0);
        const QString spec = step.section(QLatin1Char('='), 1);
        const QString range = spec.section(QLatin1Char('@'), 0, 0);
        const double rate = spec.contains(QLatin1Char('@')) ? spec.section(QLatin1Char('@'), 1).toDouble() : 25.0;
        auto preview = makeTestPreview(name, range.section(QLatin1Char(','), 0, 0).toLongLong(),
                                       range.section(QLatin1Char(','), 1).toLongLong(), rate);
        byName[name] = preview;
        timeline.addVideo(preview);
    }
}
