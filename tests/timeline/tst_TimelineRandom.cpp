#include "TimelineFixture.h"

#include <QtTest>

#include <random>
#include <unordered_set>

using videoplayer::Timeline;

// Random sequences of adds and deletes; after every step the run must keep
// its invariants and the lookups must agree with a plain scan of it, at both
// ends of every stretch and gap and past the input. A failure
// names the seed: KUTILS_TIMELINE_SEED=<seed> replays that one sequence.
class tst_TimelineRandom : public QObject
{
    Q_OBJECT

    static QString brokenInvariant(Timeline &timeline)
    {
        const auto &ranges = timeline.rData.ranges;
        const auto &videos = timeline.rData.videos;
        const auto isPreview = [&](std::size_t i) { return videos[i]->filepath != timeline.input->filepath; };
        if (ranges.size() != videos.size() || (!ranges.empty() && ranges.back().second != timeline.input->duration))
            return QStringLiteral("run lengths differ or the last y is not the input's end");
        std::unordered_set<Video *> seen;
        std::vector<QPoint> previewRanges;
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            if (i > 0 && ranges[i - 1].second > ranges[i].second)
                return QStringLiteral("not sorted by y at %1").arg(i);
            if (videos[i] != timeline.input && !seen.insert(videos[i].get()).second)
                return QStringLiteral("preview %1 stands twice").arg(videos[i]->uid);
            if (isPreview(i))
                previewRanges.emplace_back(int(ranges[i].first), int(ranges[i].second));
        }
        if (timeline.getPreviewRanges() != previewRanges)
            return QStringLiteral("getPreviewRanges disagrees with the run");
        std::vector<TSType> probes{-1, 0, timeline.input->duration, timeline.input->duration + 1};
        for (const auto &range : ranges)
            probes.insert(probes.end(), {range.first - 1, range.first, range.second + 1});
        // getPreviewAt logs a line per stretch: asked at a spread of the probes only.
        const std::size_t spread = std::max<std::size_t>(1, probes.size() / 8);
        for (std::size_t p = 0; p < probes.size(); ++p) {
            const TSType ts = probes[p];
            std::shared_ptr<Video> preview;
            int index = timeline.rData.index;
            for (std::size_t i = ranges.size(); i-- > 0;) {
                if (ranges[i].first <= ts && ts <= ranges[i].second && isPreview(i))
                    preview = videos[i];
                if (ts <= ranges[i].second && ranges[i].first <= ts + 1)
                    index = videos.size() < 2 ? 0 : int(i);
            }
            if (p % spread == 0 && timeline.getPreviewAt(ts) != preview)
                return QStringLiteral("getPreviewAt(%1) disagrees with the run").arg(ts);
            if (timeline.getRData(ts).index != index)
                return QStringLiteral("getRData(%1) index %2, expected %3").arg(ts).arg(timeline.rData.index).arg(index);
        }
        return {};
    }

    static quint64 baseSeed()
    {
        bool ok = false;
        const quint64 seed = qEnvironmentVariable("KUTILS_TIMELINE_SEED").toULongLong(&ok);
        return ok ? seed : 20240611;
    }

private slots:
    void randomSequencesKeepTheInvariants()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // Instrumented builds run a quarter of the sequences to stay inside the test timeout.
        const int sequences = 500;
#else
        const int sequences = 2000;
#endif
        const int count = qEnvironmentVariableIsSet("KUTILS_TIMELINE_SEED") ? 1 : sequences;
        for (quint64 seed = baseSeed(); seed < baseSeed() + quint64(count); ++seed) {
            std::mt19937_64 random(seed);
            const auto pick = [&random](TSType low, TSType high) {
                return std::uniform_int_distribution<TSType>(low, high)(random);
            };
            Timeline timeline;
            const TSType inputLength = pick(0, 3) == 0 ? pick(1, 400) : pick(1000, 20000);
            const double inputRates[] = {25.0, 29.97, 60.0, 0.0, 1.0};
            timeline.setInput(makeTestInput(inputLength, inputRates[pick(0, 4)]));
            std::vector<std::shared_ptr<Video>> added;
            for (int step = int(pick(1, 30)); step > 0; --step) {
                const auto known = [&] { return added[std::size_t(pick(0, TSType(added.size()) - 1))]; };
                if (!added.empty() && pick(0, 3) == 0) {
                    // A known preview, often one already gone, sometimes an unknown id.
                    timeline.deletePreview(pick(0, 9) == 0 ? UID(-7) : known()->uid);
                } else if (pick(0, 9) == 0) {
                    timeline.clear();
                } else if (!added.empty() && pick(0, 7) == 0) {
                    // The same record again, or a new record at a known start.
                    const auto again = known();
                    const TSType start = again->startOffset;
                    added.push_back(pick(0, 1) == 0 ? again : makeTestPreview(QStringLiteral("A%1").arg(step), start, start + pick(0, 3000)));
                    timeline.addVideo(added.back());
                } else {
                    const TSType start = pick(-500, inputLength + 500);
                    const TSType length = pick(0, 4) == 0 ? pick(0, 80) : pick(0, inputLength);
                    const double rates[] = {25.0, 24.0, 60.0, 0.0, 1000.0, 2.5};
                    added.push_back(makeTestPreview(QStringLiteral("P%1").arg(step), start, start + length, rates[pick(0, 5)]));
                    added.back()->slowmotion = double(pick(1, 8)) / 2.0;
                    if (pick(0, 19) == 0)
                        added.back()->filepath = timeline.input->filepath;
                    timeline.addVideo(added.back());
                }
                const QString broken = brokenInvariant(timeline);
                if (!broken.isEmpty())
                    QFAIL(qPrintable(QStringLiteral("seed %1: %2; run %3").arg(seed).arg(broken, describe(timeline))));
            }
        }
    }

    // The displacement bound must never cut a placement that settles by
    // itself: previews that do not overlap any other always find their place.
    void disjointPreviewsAreAllPlaced()
    {
        std::mt19937_64 random(baseSeed());
        for (int round = 0; round < 20; ++round) {
            Timeline timeline;
            timeline.setInput(makeTestInput(100000));
            std::vector<TSType> starts;
            for (TSType start = 1000; start < 99000; start += 1000)
                starts.push_back(start);
            std::shuffle(starts.begin(), starts.end(), random);
            for (const TSType start : starts)
                timeline.addVideo(makeTestPreview(QStringLiteral("P%1").arg(start), start, start + 499));
            QCOMPARE(timeline.getPreviewRanges().size(), starts.size());
            QVERIFY(brokenInvariant(timeline).isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(tst_TimelineRandom)
#include "tst_TimelineRandom.moc"
