#include "TimelineFixture.h"

#include <QtTest>

using videoplayer::Timeline;

// Injection, removal and lookups of one timeline over an input of 10,000 ms
// at 25 fps (a frame is 40 ms).
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

};

QTEST_GUILESS_MAIN(tst_Timeline)
#include "tst_Timeline.moc"
