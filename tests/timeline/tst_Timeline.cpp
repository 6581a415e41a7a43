#include "TimelineFixture.h"
#include "timeline/TimelineManager.h"
#include "timeline/Video.h"
#include "timeline/VideoCoorelationManager.h"

#include <QtTest>

using videoplayer::Timeline;
using videoplayer::VideoCoorelationManager;

// The timeline model: injection, removal and lookups of one timeline over an
// input of 10,000 ms at 25 fps (a frame is 40 ms), the managers that hold a
// timeline per set, the video records themselves, and the console logger that
// all of them write to.
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
        QTest::newRow("later starter keeps its range, with a skip")
            << QStringList{"A=2000,3000", "B=2100,3500"} << "I(0,1999) A(2000,2099) B(2100,3500) I(3501,10000)"
            << "Injecting skipped on range (2100, 3500) that conflicts w/ (2000, 3000)";
        QTest::newRow("earlier starter added later is cut without a skip")
            << QStringList{"A=2000,3000", "B=1500,2500"} << "I(0,1499) B(1500,1999) A(2000,3000) I(3001,10000)"
            << "!Injecting skipped";
        QTest::newRow("touching at one millisecond is a conflict")
            << QStringList{"A=2000,3000", "B=3000,4000"} << "I(0,1999) A(2000,2999) B(3000,4000) I(4001,10000)"
            << "Injecting skipped on range (3000, 4000)";
        QTest::newRow("preview without a frame leaves a gap")
            << QStringList{"A=100,120"} << "I(0,99) I(121,10000)" << "";
        QTest::newRow("input piece behind too short: preview becomes last")
            << QStringList{"A=9900,9990"} << "I(0,9899) A(9900,10000)" << "";
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
    }

    void addingTheInputItselfChangesNothingAndLogsNothingOfInjection()
    {
        Timeline timeline;
        const auto input = makeTestInput();
        timeline.setInput(input);
        LogCapture capture;
        timeline.addVideo(input);
        QCOMPARE(describe(timeline), QStringLiteral("I(0,10000)"));
        QCOMPARE(capture.count(QStringLiteral("$$_$$")), 0);
    }

    // The later starter begins less than a frame and a millisecond into its
    // stretch, so the input piece in front of it is dropped and the two would
    // displace each other for ever; the placement gives up on the newcomer.
    void mutuallyDisplacingPreviewsEndWithTheNewcomerLeftOut()
    {
        LogCapture capture;
        const auto built = build({"A=20,500", "B=10,300"});
        QCOMPARE(describe(built->timeline), QStringLiteral("A(20,500) I(501,10000)"));
        QCOMPARE(capture.count(QStringLiteral("Injecting skipped for good"), ConsoleLogger::Warn), 1);
        QVERIFY(built->timeline.videosByUID.count(built->byName.at(QStringLiteral("B"))->uid));
    }

    // All pieces dropped: no stretch is left, and nothing may index one.
    void emptyRunSurvivesEveryOperation()
    {
        LogCapture capture;
        const auto built = build({"A=0,10000@0"});
        Timeline &timeline = built->timeline;
        QVERIFY(timeline.rData.ranges.empty());
        QVERIFY(timeline.rData.videos.empty());

        runScript(timeline, {"B=2000,3000"}, built->byName);
        QVERIFY(timeline.rData.ranges.empty());
        QCOMPARE(capture.count(QStringLiteral("notinjecting last preview why "), ConsoleLogger::Warn), 1);
        QVERIFY(!timeline.getPreviewAt(2500));
        QVERIFY(timeline.getPreviewRanges().empty());
        QCOMPARE(timeline.getRData(2500).index, 0);
        runScript(timeline, {"-A"}, built->byName);
        QCOMPARE(capture.count(QStringLiteral("Could not find matching previewVideo to remove from rData")), 1);
        QVERIFY(timeline.videosByUID.count(built->byName.at(QStringLiteral("A"))->uid) == 0);

        timeline.clear();
        QCOMPARE(describe(timeline), QStringLiteral("I(0,10000)"));
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
    }

    // B starts where A does: it stays out of the run but in the maps, and
    // deleting A takes B's entries keyed by that start with it.
    void previewsSharingAStartShareTheirMapEntries()
    {
        const auto built = build({"A=2000,3000", "B=2000,2500"});
        const auto b = built->byName.at(QStringLiteral("B"));
        QCOMPARE(built->timeline.rangeByVideo.at(b), TimeRange(2000, 2500));
        QCOMPARE(built->timeline.videosByStart.at(2000), built->byName.at(QStringLiteral("A")));
        runScript(built->timeline, {"-A"}, built->byName);
        const Timeline &timeline = built->timeline;
        QCOMPARE(describe(timeline), QStringLiteral("I(0,10000)"));
        // Keyed by start: B's entries under 2000 went with A's.
        QVERIFY(timeline.videosByStart.empty());
        QVERIFY(timeline.startTimes.empty());
        QCOMPARE(timeline.videosByUID.size(), std::size_t(1));
        QCOMPARE(timeline.rangeByVideo.size(), std::size_t(1));
    }

    void deletingTwiceLogsThatThePreviewDoesNotExist()
    {
        LogCapture capture;
        const auto built = build({"A=2000,3000", "-A", "-A"});
        QCOMPARE(describe(built->timeline), QStringLiteral("I(0,10000)"));
        const int uid = built->byName.at(QStringLiteral("A"))->uid;
        QCOMPARE(capture.count(QStringLiteral("Could not delete preview that does not exist: %1").arg(uid),
                               ConsoleLogger::Warn),
                 1);
        QCOMPARE(capture.count(QStringLiteral("Deleted preview %1 from Timeline").arg(uid)), 1);
    }

    void clearKeepsTheMapsUntilAnOldPreviewIsDeleted()
    {
        LogCapture capture;
        const auto built = build({"A=2000,3000", "B=5000,6000"});
        Timeline &timeline = built->timeline;
        timeline.getRData(5500);
        timeline.clear();
        QCOMPARE(describe(timeline), QStringLiteral("I(0,10000)"));
        QCOMPARE(timeline.rData.index, 0);
        QCOMPARE(timeline.videosByUID.size(), std::size_t(2));
        runScript(timeline, {"-A"}, built->byName);
        QCOMPARE(capture.count(QStringLiteral("Could not find matching previewVideo to remove from rData"),
                               ConsoleLogger::Warn),
                 1);
        QCOMPARE(timeline.videosByUID.size(), std::size_t(1));
        QCOMPARE(describe(timeline), QStringLiteral("I(0,10000)"));
    }

    // Lookups go by file: a preview of the input's own file counts as the input.
    void previewOfTheInputsOwnFileIsNotAPreviewForLookups()
    {
        Timeline timeline;
        timeline.setInput(makeTestInput());
        timeline.addVideo(makeTestPreview(QStringLiteral("input.mp4"), 2000, 3000));
        timeline.addVideo(makeTestPreview(QStringLiteral("B"), 5000, 6000));
        QCOMPARE(timeline.rData.videos.size(), std::size_t(5));
        QVERIFY(!timeline.getPreviewAt(2500));
        const std::vector<QPoint> ranges = timeline.getPreviewRanges();
        QCOMPARE(ranges.size(), std::size_t(1));
        QCOMPARE(ranges.front(), QPoint(5000, 6000));
    }

    void getRDataPointsIndexAtTheStretch_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<qint64>("first");
        QTest::addColumn<qint64>("second");
        QTest::addColumn<int>("index");

        // The last millisecond of a gap already belongs to the stretch behind it.
        QTest::newRow("last millisecond of a gap") << QStringList{"A=100,120"} << qint64(0) << qint64(120) << 1;
        QTest::newRow("inside a gap after a move") << QStringList{"A=100,120"} << qint64(5000) << qint64(110) << 1;
        QTest::newRow("past the end keeps the index")
            << QStringList{"A=2000,3000"} << qint64(2500) << qint64(20000) << 1;
        QTest::newRow("one before the next x") << QStringList{"A=2000,3000"} << qint64(0) << qint64(1999) << 0;
    }

    void getRDataPointsIndexAtTheStretch()
    {
        QFETCH(QStringList, steps);
        QFETCH(qint64, first);
        QFETCH(qint64, second);
        QFETCH(int, index);
        const auto built = build(steps);
        built->timeline.getRData(first);
        QCOMPARE(built->timeline.getRData(second).index, index);
        QCOMPARE(built->timeline.rData.index, index);
    }

    // The first preview of a set starts its timeline on the given input; later
    // ones join it and their input argument is ignored.
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
    }

    void insertingUnderAnExistingIdKeepsTheFirst()
    {
        TimelineManager manager;
        auto first = std::make_shared<Timeline>();
        manager.insertTimeline(2, first);
        manager.insertTimeline(2, std::make_shared<Timeline>());
        QCOMPARE(manager.getTimeline(2), first);
        manager.insertTimeline(3, nullptr);
        QCOMPARE(manager.timelines.count(3), std::size_t(0));
    }

    void deleteTimelineLetsAViewKeepIt()
    {
        TimelineManager manager;
        manager.addPreview(makeTestPreview(QStringLiteral("A"), 2000, 3000), 1, makeTestInput());
        const auto shown = manager.getTimeline(1);
        manager.deleteTimeline(1);
        manager.deleteTimeline(1);
        QVERIFY(!manager.getTimeline(1));
        QCOMPARE(shown->rData.videos.size(), std::size_t(3));
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
    // must survive being asked.
    void unknownInputsAndSetsGiveTheEmptyTimeline()
    {
        VideoCoorelationManager manager;
        manager.addPreview(3, 99, makeTestPreview(QStringLiteral("A"), 2000, 3000));
        manager.addPreview(3, makeTestPreview(QStringLiteral("B"), 2000, 3000));
        QVERIFY(manager.previews.empty());
        Timeline &timeline = manager.getTimeline(5);
        QCOMPARE(&timeline, &VideoCoorelationManager::emptyTimeline());
        QVERIFY(timeline.rData.ranges.empty());
        QVERIFY(!timeline.getPreviewAt(0));
        QCOMPARE(&manager.getTimeline(1, 5), &VideoCoorelationManager::emptyTimeline());
        manager.addInput(makeTestInput());
        QCOMPARE(&manager.getTimeline(1, 6), &VideoCoorelationManager::emptyTimeline());
    }

    void previewsGoToTheTimelineOfTheirSet()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        const auto input = makeTestInput();
        manager.addInput(input);
        manager.addInput(makeTestInput());
        QCOMPARE(manager.currentInput, input);
        const auto a = makeTestPreview(QStringLiteral("A"), 2000, 3000);
        manager.addPreview(4, a);
        manager.addPreview(4, 1, a);
        manager.addPreview(5, 1, makeTestPreview(QStringLiteral("B"), 5000, 6000));
        QCOMPARE(capture.count(QStringLiteral("addPreview: Attempted to add same preview twice. Aborting."),
                               ConsoleLogger::Warn),
                 1);
        QCOMPARE(describe(manager.getTimeline(4)), QStringLiteral("I(0,1999) A(2000,3000) I(3001,10000)"));
        QCOMPARE(describe(manager.getTimeline(1, 5)), QStringLiteral("I(0,4999) B(5000,6000) I(6001,10000)"));
        QCOMPARE(manager.previews.size(), std::size_t(2));
        QCOMPARE(manager.previewSets.at(1).at(4).size(), std::size_t(1));
    }

    void deletingPreviewsByIdAndByPlace()
    {
        VideoCoorelationManager manager;
        manager.addInput(makeTestInput());
        const auto a = makeTestPreview(QStringLiteral("A"), 2000, 3000);
        const auto b = makeTestPreview(QStringLiteral("B"), 5000, 6000);
        manager.addPreview(4, a);
        manager.addPreview(5, b);

        manager.deletePreview(a->uid);
        manager.deletePreview(a->uid);
        QCOMPARE(describe(manager.getTimeline(4)), QStringLiteral("I(0,10000)"));
        manager.deletePreview(1, b->uid, 9);
        manager.deletePreview(2, b->uid, 5);
        QCOMPARE(manager.previews.count(b->uid), std::size_t(1));
        manager.deletePreview(1, b->uid, 5);
        QVERIFY(manager.previews.empty());
        QCOMPARE(describe(manager.getTimeline(5)), QStringLiteral("I(0,10000)"));
    }

    void deletingAnInputKeepsItsPreviews()
    {
        VideoCoorelationManager manager;
        auto other = makeTestInput();
        other->uid = 2;
        manager.addInput(makeTestInput());
        manager.addInput(other);
        manager.switchInput(3);
        QCOMPARE(manager.currentInput, other);
        manager.switchInput(1);
        manager.addPreview(4, makeTestPreview(QStringLiteral("A"), 2000, 3000));
        manager.deleteInput(1);
        manager.deleteInput(1);
        QVERIFY(!manager.currentInput);
        QVERIFY(manager.timelines.empty());
        QCOMPARE(manager.previews.size(), std::size_t(1));
    }

    void timestepIsTheFlooredFrameLength_data()
    {
        QTest::addColumn<double>("framerate");
        QTest::addColumn<int>("timestep");
        QTest::newRow("29.97") << 29.97 << 33;
        QTest::newRow("23.976") << 23.976 << 41;
        QTest::newRow("unknown rate") << 0.0 << 0;
        QTest::newRow("negative rate") << -25.0 << 0;
    }

    void timestepIsTheFlooredFrameLength()
    {
        QFETCH(double, framerate);
        QFETCH(int, timestep);
        const auto input = Video::makeInput(nullptr, 1, "in.mp4", 1000, framerate, 1.0, {});
        QCOMPARE(input->info.value(QStringLiteral("timestep")).toInt(), timestep);
    }

    void inputRangeEndsAtTheLastFrame()
    {
        const auto input = Video::makeInput(nullptr, 1, "in.mp4", 1000, 29.97, 1.5,
                                            {{QStringLiteral("duration"), 1000}, {QStringLiteral("sar"), 9.0}});
        QCOMPARE(input->range(), QPoint(0, 967));
        QCOMPARE(input->info.value(QStringLiteral("sar")).toDouble(), 1.5);
    }

    void knownInputKeepsItsRecord_data()
    {
        QTest::addColumn<qint64>("knownDuration");
        QTest::addColumn<qint64>("requestDuration");
        QTest::addColumn<qint64>("expected");
        QTest::newRow("record has a duration") << qint64(5000) << qint64(0) << qint64(5000);
        QTest::newRow("record has none, request has one") << qint64(0) << qint64(3000) << qint64(3000);
        QTest::newRow("neither: the info's duration") << qint64(0) << qint64(0) << qint64(4200);
    }

    void knownInputKeepsItsRecord()
    {
        QFETCH(qint64, knownDuration);
        QFETCH(qint64, requestDuration);
        QFETCH(qint64, expected);
        auto known = std::make_shared<Video>(7, knownDuration, 0, "in.mp4", QVariantMap{});
        const auto again = Video::makeInput(known, 7, "in.mp4", requestDuration, 25.0, 1.0,
                                            {{QStringLiteral("duration"), 4200}});
        QCOMPARE(again, known);
        QCOMPARE(again->duration, TSType(expected));
    }

    void previewTiesImageSequenceToGenerating()
    {
        const auto preview = Video::makePreview(
            12, "render/%06d.png", 2000, 1000, 50.0, 2.0, 1.0, true,
            {{QStringLiteral("fps"), 10.0}, {QStringLiteral("isImageSequence"), false}});
        // The rate given wins over the info's.
        QCOMPARE(preview->info.value(QStringLiteral("fps")).toDouble(), 50.0);
        QCOMPARE(preview->info.value(QStringLiteral("isImageSequence")).toBool(), true);
    }

    void frameRateChangeKeepsTheFrameCount()
    {
        const QVariantMap merged = Video::mergedInfo(
            {{QStringLiteral("fps"), 30.0}, {QStringLiteral("duration"), 1000}}, {{QStringLiteral("fps"), 60.0}});
        QCOMPARE(merged.value(QStringLiteral("duration")).toDouble(), 500.0);
        // Computed from the already changed duration: a deliberate order.
        QCOMPARE(merged.value(QStringLiteral("length")).toDouble(), 250.0);
        QCOMPARE(merged.value(QStringLiteral("fps")).toDouble(), 60.0);
    }

    void frameRateOfZeroIsIgnored()
    {
        Video video(1, 1000, 0, "a.mp4", {{QStringLiteral("fps"), 30.0}, {QStringLiteral("duration"), 1000}});
        video.applyInfo({{QStringLiteral("fps"), 0.0}});
        QCOMPARE(video.info.value(QStringLiteral("fps")).toDouble(), 30.0);
        QCOMPARE(video.info.value(QStringLiteral("duration")).toInt(), 1000);
    }

    void rotationSetsTheShownSize_data()
    {
        QTest::addColumn<int>("rotation");
        QTest::addColumn<double>("width");
        QTest::addColumn<double>("height");
        // originalSize 1920x1080, sar 1.5: the factor follows the stored width.
        QTest::newRow("quarter turn clockwise") << 0 << 1080.0 << 2880.0;
        QTest::newRow("half turn") << 1 << 2880.0 << 1080.0;
    }

    void rotationSetsTheShownSize()
    {
        QFETCH(int, rotation);
        QFETCH(double, width);
        QFETCH(double, height);
        const QVariantMap merged = Video::mergedInfo(
            {{QStringLiteral("originalSize"), QSize(1920, 1080)}, {QStringLiteral("sar"), 1.5}},
            {{QStringLiteral("rotation"), rotation}});
        QCOMPARE(merged.value(QStringLiteral("rotation")).toInt(), rotation);
        QCOMPARE(merged.value(QStringLiteral("width")).toDouble(), width);
        QCOMPARE(merged.value(QStringLiteral("height")).toDouble(), height);
        const QSize shown{static_cast<int>(width), static_cast<int>(height)};
        for (const char *key : {"size", "resolution", "adjustedSize"})
            QCOMPARE(merged.value(QLatin1String(key)).toSize(), shown);
        QCOMPARE(merged.value(QStringLiteral("originalSize")).toSize(), QSize(1920, 1080));
    }

    void flagsAndColourKeysAreMergedOnlyWhenGiven()
    {
        const QVariantMap merged = Video::mergedInfo(
            {{QStringLiteral("colorSpace"), 5}, {QStringLiteral("isTelecined"), true}},
            {{QStringLiteral("isBlackAndWhite"), 1}, {QStringLiteral("overrideInputColorspace"), true},
             {QStringLiteral("colorPrimaries"), QStringLiteral("9")}, {QStringLiteral("colorTrc"), 16.0},
             {QStringLiteral("colorRange"), 2}, {QStringLiteral("unknownKey"), 1}});
        // Flags become booleans and colour keys integers, whatever type they came in.
        QCOMPARE(merged.value(QStringLiteral("isBlackAndWhite")), QVariant(true));
        QCOMPARE(merged.value(QStringLiteral("overrideInputColorspace")), QVariant(1));
        QCOMPARE(merged.value(QStringLiteral("colorPrimaries")), QVariant(9));
        QCOMPARE(merged.value(QStringLiteral("colorSpace")).toInt(), 5);
        QVERIFY(!merged.contains(QStringLiteral("unknownKey")));
        QVERIFY(!merged.contains(QStringLiteral("fps")));
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
        QCOMPARE(getTransposedROI(10, 20, 100, 50, rotation, QSize(1920, 1080)), expected);
        const QVariantMap info{{QStringLiteral("rotation"), rotation},
                               {QStringLiteral("originalSize"), QSize(1920, 1080)}};
        QCOMPARE(getTransposedROI(10, 20, 100, 50, info), expected);
    }

    void lineFormat_data()
    {
        QTest::addColumn<int>("level");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("colour");
        QTest::newRow("info") << 0 << " INFO" << "\033[32m";
        QTest::newRow("warn") << 2 << " WARN" << "\033[33m";
        QTest::newRow("critical") << 3 << " CRIT" << "\033[31m";
        QTest::newRow("fatal") << 4 << "FATAL" << "\033[1;41m";
        QTest::newRow("unknown level") << 9 << "  LOG" << "\033[37m";
    }

    void lineFormat()
    {
        QFETCH(int, level);
        QFETCH(QString, word);
        QFETCH(QString, colour);

        const QString line = QString::fromUtf8(ConsoleLogger::formatLine(QStringLiteral("Timeline ~~ "), QStringLiteral("message ü"), level));
        // <thread colour>\n<stamp>: <level colour><word><reset>: <thread colour><prefix><reset> <message><reset>\n<reset>
        static const QRegularExpression shape(QStringLiteral(
            "^(\033\\[1;3[1-6]m)\n(\\d{4}-\\d{2}-\\d{2}-\\d{2}:\\d{2}:\\d{2}\\.\\d{3}): (\033\\[[0-9;]+m)(.{5})\033\\[0m: "
            "(\033\\[1;3[1-6]m)Timeline ~~ \033\\[0m message ü\033\\[0m\n\033\\[0m$"));
        const QRegularExpressionMatch match = shape.match(line);
        QVERIFY2(match.hasMatch(), qPrintable(line.toUtf8().toPercentEncoding(" :.-~")));
        QCOMPARE(match.captured(4), word);
        QCOMPARE(match.captured(3), colour);
        QCOMPARE(match.captured(1), match.captured(5));
        const QDateTime stamp = QDateTime::fromString(match.captured(2), QStringLiteral("yyyy-MM-dd-HH:mm:ss.zzz"));
        QVERIFY(stamp.isValid());
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTime())) < 60);
    }

    // The real output goes to standard output of the process, so a child process
    // tells whether a disabled logger stays silent and an enabled one speaks.
    void disabledLoggerWritesNothing()
    {
        if (qEnvironmentVariableIsSet("KUTILS_LOGGER_CHILD")) {
            ConsoleLogger logger;
            logger.log(QStringLiteral("silent"));
            logger.enabled = qEnvironmentVariable("KUTILS_LOGGER_CHILD") == QLatin1String("enabled");
            logger.log(QStringLiteral("spoken"), 2);
            return;
        }
        for (const QString mode : {QStringLiteral("disabled"), QStringLiteral("enabled")}) {
            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("KUTILS_LOGGER_CHILD"), mode);
            child.setProcessEnvironment(env);
            child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("disabledLoggerWritesNothing"), QStringLiteral("-silent")});
            QVERIFY(child.waitForFinished(30000));
            const QByteArray out = child.readAllStandardOutput();
            QVERIFY(!out.contains("silent\033"));
            QCOMPARE(out.contains(" WARN\033[0m: "), mode == QLatin1String("enabled"));
            QCOMPARE(out.contains("spoken"), mode == QLatin1String("enabled"));
        }
    }

    // A disabled logger builds a costly message only when a capture sink
    // listens, and the sink sees it with its level and prefix.
    void costlyMessagesAreBuiltOnlyForAListener()
    {
        ConsoleLogger logger;
        QVERIFY(!logger.enabled);
        logger.prefix = QStringLiteral("P ");
        int built = 0;
        const auto listing = [&built] {
            ++built;
            return QStringLiteral("listing");
        };
        logger.log(listing);
        QCOMPARE(built, 0);

        QList<ConsoleLogger::Record> seen;
        ConsoleLogger::setCaptureSink([&seen](const ConsoleLogger::Record &record) { seen.append(record); });
        logger.log(listing, 2);
        QCOMPARE(built, 1);
        QCOMPARE(seen.size(), 1);
        QCOMPARE(seen[0].message, QStringLiteral("listing"));
        QCOMPARE(seen[0].level, 2);
        QCOMPARE(seen[0].prefix, QStringLiteral("P "));
        ConsoleLogger::setCaptureSink({});
        logger.log(QStringLiteral("unseen"));
        QCOMPARE(seen.size(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_Timeline)
#include "tst_Timeline.moc"
