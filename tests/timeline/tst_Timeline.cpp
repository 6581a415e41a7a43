#include "TimelineFixture.h"
#include "timeline/TimelineManager.h"
#include "timeline/Video.h"
#include "timeline/VideoCoorelationManager.h"

#include <QtTest>

#include <random>
#include <unordered_set>

using videoplayer::Timeline;
using videoplayer::VideoCoorelationManager;

// The timeline model: injection, removal and lookups of one timeline over an
// input of 10,000 ms at 25 fps (a frame is 40 ms), also along random sequences
// of adds and deletes; the managers that hold a timeline per set, the video
// records themselves, and the console logger that all of them write to.
class tst_Timeline : public QObject
{
    Q_OBJECT

private:
    struct Built
    {
        Timeline timeline;
        std::map<QString, std::shared_ptr<Video>> byName;
    };
    static std::unique_ptr<Built> build(const QStringList &steps)
    {
        auto built = std::make_unique<Built>();
        built->timeline.setInput(makeTestInput());
        runScript(built->timeline, steps, built->byName);
        return built;
    }

    // What is wrong with the run, or nothing: its invariants, and the lookups
    // against a plain scan of it at both ends of every stretch and gap and
    // past the input.
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
    void cleanup() { ConsoleLogger::setCaptureSink({}); }

    void injectionLaysPiecesByTheCaseRules_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("expectedLog");

        QTest::newRow("inside: case 1, last y forced up from 9999")
            << QStringList{"A=2000,3000"} << "I(0,1999) A(2000,3000) I(3001,10000)" << "$$_$$ Hit case 1";
        QTest::newRow("at the start: case 2")
            << QStringList{"A=0,3000"} << "A(0,3000) I(3001,10000)" << "$$_$$ Hit case 2";
        QTest::newRow("running past the end is cut to it")
            << QStringList{"A=9000,12000"} << "I(0,8999) A(9000,10000)" << "$$_$$ Hit case 3 left side inject";
        QTest::newRow("earlier starter added later is cut without a skip")
            << QStringList{"A=2000,3000", "B=1500,2500"} << "I(0,1499) B(1500,1999) A(2000,3000) I(3001,10000)"
            << "!Injecting skipped";
        QTest::newRow("touching at one millisecond is a conflict")
            << QStringList{"A=2000,3000", "B=3000,4000"} << "I(0,1999) A(2000,2999) B(3000,4000) I(4001,10000)"
            << "Injecting skipped on range (3000, 4000)";
        QTest::newRow("preview without a frame leaves a gap")
            << QStringList{"A=100,120"} << "I(0,99) I(121,10000)" << "";
        QTest::newRow("40 ms preview and the piece behind both dropped")
            << QStringList{"A=9950,9990"} << "I(0,10000)" << "";
        QTest::newRow("one frame plus a millisecond survives")
            << QStringList{"A=2000,2041"} << "I(0,1999) A(2000,2041) I(2042,10000)" << "";
        QTest::newRow("start one beyond the last y")
            << QStringList{"A=10001,10500"} << "I(0,10000)" << "notinjecting last preview why 10001 <> 10500";
        QTest::newRow("second preview at the same start stays out")
            << QStringList{"A=2000,3000", "B=2000,2500"} << "I(0,1999) A(2000,3000) I(3001,10000)"
            << "Injecting skipped on range (2000, 2500)";
        // Splitting a stretch that is not the last lowers its y once more.
        QTest::newRow("split of an inner input stretch leaves a gap")
            << QStringList{"A=5000,6000", "B=1000,2000"}
            << "I(0,999) B(1000,2000) I(2001,4998) A(5000,6000) I(6001,10000)" << "";
        // Case 3 from a gap: the input behind the preview is lost and the
        // preview, now last, is stretched to the end.
        QTest::newRow("preview starting in a gap drops the input behind it")
            << QStringList{"A=100,120", "B=110,500"} << "I(0,99) B(110,10000)" << "$$_$$ Hit case 3 left side inject";
        QTest::newRow("preview over a neighbour and beyond is cut at the neighbour")
            << QStringList{"A=5000,6000", "B=4000,8000"}
            << "I(0,3999) B(4000,4999) A(5000,6000) I(6001,10000)" << "";
        QTest::newRow("the input itself changes nothing") << QStringList{"I"} << "I(0,10000)" << "!$$_$$";
        // The later starter begins less than a frame and a millisecond into its
        // stretch, so the input piece in front of it is dropped and the two would
        // displace each other for ever; the placement gives up on the newcomer.
        QTest::newRow("mutually displacing previews leave the newcomer out")
            << QStringList{"A=20,500", "B=10,300"} << "A(20,500) I(501,10000)" << "Injecting skipped for good";
    }

    void injectionLaysPiecesByTheCaseRules()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, expected);
        QFETCH(QString, expectedLog);
        LogCapture capture;
        const auto built = build(steps);
        QCOMPARE(describe(built->timeline), expected);
        // "!text": no such line.
        if (expectedLog.startsWith(QLatin1Char('!')))
            QCOMPARE(capture.count(expectedLog.mid(1)), 0);
        else if (!expectedLog.isEmpty())
            QVERIFY2(capture.count(expectedLog) > 0, qPrintable(expectedLog));
        QCOMPARE(brokenInvariant(built->timeline), QString());
    }

    void removalFoldsByTheNeighbourCases_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("caseLog");

        QTest::newRow("I P I folds into one")
            << QStringList{"A=2000,3000", "-A"} << "I(0,10000)" << "$$_$$ Hit case 1.1 I->P->I";
        QTest::newRow("first P then I")
            << QStringList{"A=0,3000", "-A"} << "I(0,10000)" << "$$_$$ Hit case 2.1 P->I";
        QTest::newRow("I then last P")
            << QStringList{"A=9000,10000", "-A"} << "I(0,10000)" << "$$_$$ Hit case 3.1 I->P";
        QTest::newRow("only stretch")
            << QStringList{"A=0,10000", "-A"} << "I(0,10000)" << "$$_$$ Hit case 2.2 P->P";
        QTest::newRow("I P P: input grows forward")
            << QStringList{"A=2000,3000", "B=3001,5000", "-A"} << "I(0,3000) B(3001,5000) I(5001,10000)"
            << "$$_$$ Hit case 1.2 I->P->P";
        QTest::newRow("P P I: input grows backward")
            << QStringList{"A=2000,3000", "B=3001,5000", "-B"} << "I(0,1999) A(2000,3000) I(3001,10000)"
            << "$$_$$ Hit case 1.3 P->P->I";
        QTest::newRow("P P P: the stretch becomes input")
            << QStringList{"A=2000,3000", "B=3001,4000", "C=4001,5000", "-B"}
            << "I(0,1999) A(2000,3000) I(3001,4000) C(4001,5000) I(5001,10000)" << "$$_$$ Hit case 1.4 P->P->P";
        QTest::newRow("P then last P: input stretches stay apart")
            << QStringList{"A=2000,3000", "B=3001,10000", "-B"} << "I(0,1999) A(2000,3000) I(3001,10000)"
            << "$$_$$ Hit case 3.2 P->P";
        QTest::newRow("removing the only preview keeps an earlier gap")
            << QStringList{"A=100,120", "B=5000,6000", "-B"} << "I(0,99) I(121,10000)"
            << "$$_$$ Hit case 1.1 I->P->I";
        QTest::newRow("twice: the second finds nothing")
            << QStringList{"A=2000,3000", "-A", "-A"} << "I(0,10000)" << "Could not delete preview that does not exist";
        // A clear empties the run but not the maps.
        QTest::newRow("after a clear")
            << QStringList{"A=2000,3000", "B=5000,6000", "*", "-A"} << "I(0,10000)"
            << "Could not find matching previewVideo to remove from rData";
        // All pieces dropped: no stretch is left, and nothing may index one.
        QTest::newRow("from an empty run, then cleared")
            << QStringList{"A=0,10000@0", "-A", "*"} << "I(0,10000)"
            << "Could not find matching previewVideo to remove from rData";
    }

    void removalFoldsByTheNeighbourCases()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, expected);
        QFETCH(QString, caseLog);
        LogCapture capture;
        const auto built = build(steps);
        QCOMPARE(describe(built->timeline), expected);
        QCOMPARE(capture.count(caseLog), 1);
        // A deleted preview leaves the maps too, whatever the run held.
        for (const QString &step : steps) {
            if (step.startsWith(QLatin1Char('-')))
                QCOMPARE(built->timeline.videosByUID.count(built->byName.at(step.mid(1))->uid), std::size_t(0));
        }
        QCOMPARE(brokenInvariant(built->timeline), QString());
    }

    // B starts where A does: it stays out of the run but in the maps, and
    // deleting A takes B's entries keyed by that start with it.
    void previewsSharingAStartShareTheirMapEntries()
    {
        const auto built = build({"A=2000,3000", "B=2000,2500", "-A"});
        const Timeline &timeline = built->timeline;
        QCOMPARE(describe(timeline), QStringLiteral("I(0,10000)"));
        // Keyed by start: B's entries under 2000 went with A's.
        QVERIFY(timeline.videosByStart.empty());
        QVERIFY(timeline.startTimes.empty());
        QCOMPARE(timeline.videosByUID.size(), std::size_t(1));
        QCOMPARE(timeline.rangeByVideo.size(), std::size_t(1));
    }

    // The first preview of a set starts its timeline on the given input; later
    // ones join it and their input argument is ignored. An id already taken
    // keeps its timeline, and a deleted one lives on in a view that holds it.
    void previewsOfASetShareOneTimeline()
    {
        LogCapture capture;
        TimelineManager manager;
        const auto input = makeTestInput();
        manager.addPreview(makeTestPreview(QStringLiteral("A"), 2000, 3000), 4, input);
        manager.addPreview(makeTestPreview(QStringLiteral("B"), 5000, 6000), 4, makeTestInput(500));
        const auto timeline = manager.getTimeline(4);
        QVERIFY(timeline);
        QCOMPARE(timeline->input, input);
        QCOMPARE(describe(*timeline), QStringLiteral("I(0,1999) A(2000,3000) I(3001,4999) B(5000,6000) I(6001,10000)"));
        QCOMPARE(capture.count(QStringLiteral("[Timeline Manager] Adding Previews to INVALID timeline"),
                               ConsoleLogger::Warn),
                 1);
        manager.insertTimeline(4, std::make_shared<Timeline>());
        QCOMPARE(manager.getTimeline(4), timeline);
        manager.insertTimeline(3, nullptr);
        QCOMPARE(manager.timelines.count(3), std::size_t(0));
        manager.deleteTimeline(4);
        manager.deleteTimeline(4);
        QVERIFY(!manager.getTimeline(4));
        QCOMPARE(timeline->rData.videos.size(), std::size_t(5));
    }

    void deletePreviewReportsTheSetThatShowedIt_data()
    {
        QTest::addColumn<QString>("range");
        QTest::addColumn<bool>("clearFirst");
        QTest::addColumn<int>("expectedSet");
        QTest::addColumn<QString>("expectedRun");
        QTest::newRow("placed") << "2000,3000" << false << 9 << "I(0,10000)";
        // The search looks at the run only: a preview it does not show is not found.
        QTest::newRow("dropped by the length rule") << "2000,2010" << false << -1 << "I(0,1999) I(2011,10000)";
        QTest::newRow("lost by clear") << "2000,3000" << true << -1 << "I(0,10000)";
    }

    void deletePreviewReportsTheSetThatShowedIt()
    {
        QFETCH(QString, range);
        QFETCH(bool, clearFirst);
        QFETCH(int, expectedSet);
        QFETCH(QString, expectedRun);
        TimelineManager manager;
        const auto input = makeTestInput();
        manager.addPreview(makeTestPreview(QStringLiteral("X"), 500, 600), 8, input);
        const auto preview = makeTestPreview(QStringLiteral("A"), range.section(QLatin1Char(','), 0, 0).toLongLong(),
                                             range.section(QLatin1Char(','), 1).toLongLong());
        manager.addPreview(preview, 9, input);
        if (clearFirst)
            manager.getTimeline(9)->clear();
        QCOMPARE(manager.deletePreview(preview->uid), expectedSet);
        QCOMPARE(describe(*manager.getTimeline(9)), expectedRun);
        QCOMPARE(manager.getTimeline(9)->videosByUID.count(preview->uid), std::size_t(expectedSet == 9 ? 0 : 1));
        QCOMPARE(describe(*manager.getTimeline(8)), QStringLiteral("I(0,499) X(500,600) I(601,10000)"));
        QCOMPARE(manager.deletePreview(4242), -1);
    }

    // Without an input every lookup lands on the shared empty timeline, which
    // must survive being asked; with one, previews go to their set's timeline.
    void previewsComeAndGoByTheirSet()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        manager.addPreview(3, 99, makeTestPreview(QStringLiteral("X"), 2000, 3000));
        manager.addPreview(3, makeTestPreview(QStringLiteral("Y"), 2000, 3000));
        QVERIFY(manager.previews.empty());
        Timeline &empty = manager.getTimeline(5);
        QCOMPARE(&empty, &VideoCoorelationManager::emptyTimeline());
        QVERIFY(!empty.getPreviewAt(0));
        QCOMPARE(&manager.getTimeline(1, 5), &empty);
        const auto input = makeTestInput();
        manager.addInput(input);
        manager.addInput(makeTestInput());
        QCOMPARE(manager.currentInput, input);
        QCOMPARE(&manager.getTimeline(1, 6), &empty);
        const auto a = makeTestPreview(QStringLiteral("A"), 2000, 3000);
        manager.addPreview(4, a);
        manager.addPreview(4, 1, a);
        const auto b = makeTestPreview(QStringLiteral("B"), 5000, 6000);
        manager.addPreview(5, 1, b);
        QCOMPARE(capture.count(QStringLiteral("addPreview: Attempted to add same preview twice. Aborting."),
                               ConsoleLogger::Warn),
                 1);
        QCOMPARE(describe(manager.getTimeline(4)), QStringLiteral("I(0,1999) A(2000,3000) I(3001,10000)"));
        QCOMPARE(describe(manager.getTimeline(1, 5)), QStringLiteral("I(0,4999) B(5000,6000) I(6001,10000)"));
        QCOMPARE(manager.previews.size(), std::size_t(2));
        QCOMPARE(manager.previewSets.at(1).at(4).size(), std::size_t(1));

        // They leave by id, by input and set, and not with their input.
        auto other = makeTestInput();
        other->uid = 2;
        manager.addInput(other);
        manager.switchInput(3);
        QCOMPARE(manager.currentInput, other);
        manager.switchInput(1);
        manager.deletePreview(a->uid);
        manager.deletePreview(a->uid);
        QCOMPARE(describe(manager.getTimeline(4)), QStringLiteral("I(0,10000)"));
        manager.deletePreview(1, b->uid, 9);
        manager.deletePreview(2, b->uid, 5);
        QCOMPARE(manager.previews.count(b->uid), std::size_t(1));
        manager.deletePreview(1, b->uid, 5);
        QVERIFY(manager.previews.empty());
        QCOMPARE(describe(manager.getTimeline(5)), QStringLiteral("I(0,10000)"));
        // Deleting the input keeps its previews.
        manager.addPreview(4, makeTestPreview(QStringLiteral("C"), 2000, 3000));
        manager.deleteInput(1);
        manager.deleteInput(1);
        QVERIFY(!manager.currentInput);
        QVERIFY(manager.timelines.empty());
        QCOMPARE(manager.previews.size(), std::size_t(1));
    }

    // A new input's timestep is the floored frame length and its range ends
    // where the last frame starts; a known record is kept, and takes the
    // duration asked for only when it has none.
    void makeInput_data()
    {
        QTest::addColumn<qint64>("knownDuration"); // -1: no record yet
        QTest::addColumn<double>("framerate");
        QTest::addColumn<qint64>("duration");
        QTest::addColumn<int>("timestep");
        QTest::newRow("29.97") << qint64(-1) << 29.97 << qint64(1000) << 33;
        QTest::newRow("unknown rate") << qint64(-1) << 0.0 << qint64(1000) << 0;
        QTest::newRow("known record with a duration") << qint64(5000) << 25.0 << qint64(5000) << 0;
        QTest::newRow("known record without one") << qint64(0) << 25.0 << qint64(1000) << 0;
    }

    void makeInput()
    {
        QFETCH(qint64, knownDuration);
        QFETCH(double, framerate);
        QFETCH(qint64, duration);
        QFETCH(int, timestep);
        const auto known = knownDuration < 0 ? nullptr : std::make_shared<Video>(7, knownDuration, 0, "in.mp4", QVariantMap{});
        const auto input = Video::makeInput(known, 7, "in.mp4", 1000, framerate, 1.5,
                                            {{QStringLiteral("duration"), 1000}, {QStringLiteral("sar"), 9.0}});
        QCOMPARE(input->duration, TSType(duration));
        if (known) {
            QCOMPARE(input, known);
            return;
        }
        QCOMPARE(input->info.value(QStringLiteral("timestep")).toInt(), timestep);
        QCOMPARE(input->range(), QPoint(0, 1000 - timestep));
        QCOMPARE(input->info.value(QStringLiteral("sar")).toDouble(), 1.5);
    }

    // What an update does to a record's info. Expected keys without a value
    // must be absent.
    void mergedInfo_data()
    {
        QTest::addColumn<QVariantMap>("base");
        QTest::addColumn<QVariantMap>("update");
        QTest::addColumn<QVariantMap>("expected");
        const QVariantMap thirty{{"fps", 30.0}, {"duration", 1000}};
        // The length comes from the already changed duration: a deliberate order.
        QTest::newRow("a new rate keeps the frame count")
            << thirty << QVariantMap{{"fps", 60.0}} << QVariantMap{{"fps", 60.0}, {"duration", 500.0}, {"length", 250.0}};
        QTest::newRow("a zero rate is ignored") << thirty << QVariantMap{{"fps", 0.0}} << thirty;
        // The factor follows the stored width.
        const QVariantMap anamorphic{{"originalSize", QSize(1920, 1080)}, {"sar", 1.5}};
        const QSize upright(1080, 2880);
        QTest::newRow("quarter turn clockwise")
            << anamorphic << QVariantMap{{"rotation", 0}}
            << QVariantMap{{"width", 1080.0}, {"height", 2880.0}, {"size", upright}, {"resolution", upright},
                           {"adjustedSize", upright}, {"originalSize", QSize(1920, 1080)}};
        QTest::newRow("half turn") << anamorphic << QVariantMap{{"rotation", 1}}
                                   << QVariantMap{{"width", 2880.0}, {"height", 1080.0}, {"size", QSize(2880, 1080)}};
        // Flags become booleans and colour keys integers, whatever type they came in.
        QTest::newRow("flags and colour keys only when given")
            << QVariantMap{{"colorSpace", 5}, {"isTelecined", true}}
            << QVariantMap{{"isBlackAndWhite", 1}, {"overrideInputColorspace", true}, {"colorPrimaries", "9"},
                           {"colorTrc", 16.0}, {"colorRange", 2}, {"unknownKey", 1}}
            << QVariantMap{{"isBlackAndWhite", true}, {"overrideInputColorspace", 1}, {"colorPrimaries", 9},
                           {"colorSpace", 5}, {"unknownKey", QVariant()}, {"fps", QVariant()}};
    }

    void mergedInfo()
    {
        QFETCH(QVariantMap, base);
        QFETCH(QVariantMap, update);
        QFETCH(QVariantMap, expected);
        const QVariantMap merged = Video::mergedInfo(base, update);
        for (auto key = expected.cbegin(); key != expected.cend(); ++key) {
            QCOMPARE(merged.contains(key.key()), key->isValid());
            if (key->isValid())
                QCOMPARE(merged.value(key.key()), *key);
        }
    }

    void transposedROIFollowsTheRotationTable_data()
    {
        QTest::addColumn<int>("rotation");
        QTest::addColumn<QRect>("expected");
        // Displayed (10, 20, 100, 50) on a stored picture of 1920x1080.
        QTest::newRow("0") << 0 << QRect(20, 1080 - 10 - 100, 50, 100);
        QTest::newRow("1") << 1 << QRect(1920 - 10 - 100, 1080 - 20 - 50, 100, 50);
        QTest::newRow("2") << 2 << QRect(1920 - 20 - 50, 10, 50, 100);
        QTest::newRow("negative odd") << -1 << QRect(10, 20, 100, 50);
        QTest::newRow("other even behaves as 2") << 4 << QRect(1920 - 20 - 50, 10, 50, 100);
    }

    void transposedROIFollowsTheRotationTable()
    {
        QFETCH(int, rotation);
        QFETCH(QRect, expected);
        const QVariantMap info{{QStringLiteral("rotation"), rotation},
                               {QStringLiteral("originalSize"), QSize(1920, 1080)}};
        QCOMPARE(getTransposedROI(10, 20, 100, 50, info), expected);
    }

    // The real output goes to standard output of the process, so a child process
    // tells whether a disabled logger stays silent and what an enabled one writes.
    void disabledLoggerWritesNothingAndAnEnabledOneWritesItsLineShape()
    {
        if (qEnvironmentVariableIsSet("KUTILS_LOGGER_CHILD")) {
            ConsoleLogger logger;
            logger.prefix = QStringLiteral("Timeline ~~ ");
            logger.log(QStringLiteral("silent"));
            logger.enabled = true;
            logger.log(QStringLiteral("spoken ü"), 2);
            return;
        }
        // <thread colour>\n<stamp>: <level colour><word><reset>: <thread colour><prefix><reset> <message><reset>\n<reset>
        static const QRegularExpression shape(QStringLiteral(
            "(\033\\[1;3[1-6]m)\n(\\d{4}-\\d{2}-\\d{2}-\\d{2}:\\d{2}:\\d{2}\\.\\d{3}): \033\\[33m WARN\033\\[0m: "
            "(\033\\[1;3[1-6]m)Timeline ~~ \033\\[0m spoken ü\033\\[0m\n\033\\[0m"));
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("KUTILS_LOGGER_CHILD"), QStringLiteral("enabled"));
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("disabledLoggerWritesNothingAndAnEnabledOneWritesItsLineShape"),
                     QStringLiteral("-silent")});
        QVERIFY(child.waitForFinished(30000));
        const QString out = QString::fromUtf8(child.readAllStandardOutput());
        // Only the line logged once enabled.
        QVERIFY(!out.contains(QStringLiteral("silent\033")));
        const QRegularExpressionMatch match = shape.match(out);
        QVERIFY2(match.hasMatch(), qPrintable(out.toUtf8().toPercentEncoding(" :.-~")));
        QCOMPARE(match.captured(1), match.captured(3));
        const QDateTime stamp = QDateTime::fromString(match.captured(2), QStringLiteral("yyyy-MM-dd-HH:mm:ss.zzz"));
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTime())) < 60);
    }

    // Random sequences of adds and deletes keep the run whole after every
    // step. A failure names the seed: KUTILS_TIMELINE_SEED=<seed> replays
    // that one sequence.
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

QTEST_GUILESS_MAIN(tst_Timeline)
#include "tst_Timeline.moc"
