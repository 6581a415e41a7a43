#include "TimelineFixture.h"

#include <QtTest>

#include <random>
#include <unordered_set>

using videoplayer::Timeline;

// Random sequences of adds and deletes; after every step the run must keep
// its invariants and the lookups must agree with it. A failure names the seed:
// KUTILS_TIMELINE_SEED=<seed> replays that one sequence.
class tst_TimelineRandom : public QObject
{
    Q_OBJECT

private:
    static QString checkInvariants(Timeline &timeline)
    {
        const auto &ranges = timeline.rData.ranges;
        const auto &videos = timeline.rData.videos;
        if (ranges.size() != videos.size())
            return QStringLiteral("ranges and videos differ in length");
        for (std::size_t i = 1; i < ranges.size(); ++i)
            if (ranges[i - 1].second > ranges[i].second)
                return QStringLiteral("not sorted by y at %1").arg(i);
        if (!ranges.empty() && ranges.back().second != timeline.input->duration)
            return QStringLiteral("last y %1 is not the input's end").arg(ranges.back().second);
        std::unordered_set<Video *> seen;
        for (const auto &video : videos) {
            if (!video)
                return QStringLiteral("empty owner");
            if (video != timeline.input && !seen.insert(video.get()).second)
                return QStringLiteral("preview %1 stands twice").arg(video->uid);
        }

        // Lookups against a plain scan of the run.
        std::vector<QPoint> previewRanges;
        for (std::size_t i = 0; i < ranges.size(); ++i)
            if (videos[i]->filepath != timeline.input->filepath)
                previewRanges.emplace_back(int(ranges[i].first), int(ranges[i].second));
        if (timeline.getPreviewRanges() != previewRanges)
            return QStringLiteral("getPreviewRanges disagrees with the run");
        std::vector<TSType> probes{-1, 0, timeline.input->duration, timeline.input->duration + 1};
        for (const auto &range : ranges)
            probes.insert(probes.end(), {range.first, range.second + 1});
        // getPreviewAt logs a line per stretch, so it is asked at a spread of
        // the probes only; getRData at all of them.
        const std::size_t spread = std::max<std::size_t>(1, probes.size() / 8);
        for (std::size_t p = 0; p < probes.size(); ++p) {
            const TSType ts = probes[p];
            if (p % spread == 0) {
                std::shared_ptr<Video> expected;
                for (std::size_t i = 0; i < ranges.size() && !expected; ++i)
                    if (ranges[i].first <= ts && ts <= ranges[i].second
                        && videos[i]->filepath != timeline.input->filepath)
                        expected = videos[i];
                if (timeline.getPreviewAt(ts) != expected)
                    return QStringLiteral("getPreviewAt(%1) disagrees with the run").arg(ts);
            }

            const int before = timeline.rData.index;
            int expectedIndex = before;
            for (std::size_t i = 0; i < ranges.size(); ++i)
                if (ts <= ranges[i].second && ranges[i].first <= ts + 1) {
                    expectedIndex = videos.size() < 2 ? 0 : int(i);
                    break;
                }
            if (timeline.getRData(ts).index != expectedIndex)
                return QStringLiteral("getRData(%1) index %2, expected %3")
                    .arg(ts)
                    .arg(timeline.rData.index)
                    .arg(expectedIndex);
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
    void randomSequencesKeepTheInvariants_data()
    {
        QTest::addColumn<quint64>("seed");
        const bool replay = qEnvironmentVariableIsSet("KUTILS_TIMELINE_SEED");
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // Instrumented builds run a quarter of the sequences to stay inside the test timeout.
        const int sequences = replay ? 1 : 500;
#else
        const int sequences = replay ? 1 : 2000;
#endif
        for (int i = 0; i < sequences; ++i)
            QTest::newRow(qPrintable(QString::number(baseSeed() + quint64(i)))) << baseSeed() + quint64(i);
    }

    void randomSequencesKeepTheInvariants()
    {
        QFETCH(quint64, seed);
        std::mt19937_64 random(seed);
        const auto pick = [&random](TSType low, TSType high) {
            return std::uniform_int_distribution<TSType>(low, high)(random);
        };

        Timeline timeline;
        const TSType inputLength = pick(0, 3) == 0 ? pick(1, 400) : pick(1000, 20000);
        const double inputRates[] = {25.0, 29.97, 60.0, 0.0, 1.0};
        timeline.setInput(makeTestInput(inputLength, inputRates[pick(0, 4)]));

        std::vector<std::shared_ptr<Video>> added;
        QStringList history;
        const int steps = int(pick(1, 30));
        for (int step = 0; step < steps; ++step) {
            if (!added.empty() && pick(0, 3) == 0) {
                // Deletes: a known preview, often one already gone, sometimes an unknown id.
                const UID uid = pick(0, 9) == 0 ? UID(-7) : added[std::size_t(pick(0, TSType(added.size()) - 1))]->uid;
                history << QStringLiteral("-%1").arg(uid);
                timeline.deletePreview(uid);
            } else if (pick(0, 9) == 0) {
                history << QStringLiteral("clear");
                timeline.clear();
            } else {
                std::shared_ptr<Video> preview;
                if (!added.empty() && pick(0, 7) == 0) {
                    // The same record again, or a new record at a known start.
                    const auto &known = added[std::size_t(pick(0, TSType(added.size()) - 1))];
                    preview = pick(0, 1) == 0 ? known
                                              : makeTestPreview(QStringLiteral("P%1").arg(step), known->startOffset,
                                                                known->startOffset + pick(0, 3000));
                } else {
                    const TSType start = pick(-500, inputLength + 500);
                    const TSType length = pick(0, 4) == 0 ? pick(0, 80) : pick(0, inputLength);
                    const double rates[] = {25.0, 24.0, 60.0, 0.0, 1000.0, 2.5};
                    preview = makeTestPreview(QStringLiteral("P%1").arg(step), start, start + length,
                                              rates[pick(0, 5)]);
                    preview->slowmotion = double(pick(1, 8)) / 2.0;
                    if (pick(0, 19) == 0)
                        preview->filepath = timeline.input->filepath;
                }
                history << QStringLiteral("%1=%2,%3@%4")
                               .arg(QString::fromStdString(preview->filepath))
                               .arg(preview->startOffset)
                               .arg(preview->startOffset + preview->duration)
                               .arg(preview->framerate);
                timeline.addVideo(preview);
                added.push_back(preview);
            }
            const QString broken = checkInvariants(timeline);
            if (!broken.isEmpty())
                QFAIL(qPrintable(QStringLiteral("seed %1, input %2 ms: %3 after %4; run %5")
                                     .arg(seed)
                                     .arg(inputLength)
                                     .arg(broken, history.join(QLatin1Char(' ')), describe(timeline))));
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
            QVERIFY(checkInvariants(timeline).isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(tst_TimelineRandom)
#include "tst_TimelineRandom.moc"
