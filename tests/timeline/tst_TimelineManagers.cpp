#include "TimelineFixture.h"
#include "timeline/TimelineManager.h"
#include "timeline/VideoCoorelationManager.h"

#include <QtTest>

using videoplayer::Timeline;
using videoplayer::VideoCoorelationManager;

class tst_TimelineManagers : public QObject
{
    Q_OBJECT

private slots:
    void firstPreviewOfASetStartsItsTimeline()
    {
        LogCapture capture;
        TimelineManager manager;
        const auto input = makeTestInput();
        manager.addPreview(makeTestPreview(QStringLiteral("A"), 2000, 3000), 4, input);

        const int notFound = capture.indexOf(
            QStringLiteral("[Timeline Manager] ! Retrieving but Could not find timeline with psUID: 4"));
        const int invalid = capture.indexOf(
            QStringLiteral("[Timeline Manager] Adding Previews to INVALID timeline of psUID not found: 4 with video A"));
        QVERIFY(notFound >= 0);
        QVERIFY(invalid > notFound);
        QCOMPARE(capture.records[std::size_t(invalid)].level, int(ConsoleLogger::Warn));

        const auto timeline = manager.getTimeline(4);
        QVERIFY(timeline);
        QCOMPARE(timeline->input, input);
        QCOMPARE(describe(*timeline), QStringLiteral("I(0,1999) A(2000,3000) I(3001,10000)"));
    }

    void laterPreviewsGoToTheSameTimelineAndIgnoreTheInputArgument()
    {
        LogCapture capture;
        TimelineManager manager;
        manager.addPreview(makeTestPreview(QStringLiteral("A"), 2000, 3000), 4, makeTestInput());
        manager.addPreview(makeTestPreview(QStringLiteral("B"), 5000, 6000, 25.0, 77), 4, makeTestInput(500));
        QCOMPARE(describe(*manager.getTimeline(4)),
                 QStringLiteral("I(0,1999) A(2000,3000) I(3001,4999) B(5000,6000) I(6001,10000)"));
        QCOMPARE(capture.count(QStringLiteral(
                                   "[Timeline Manager] Adding Previews to valid timeline of psUID: 4 with video B VIDEO UID: 77"),
                               ConsoleLogger::Debug),
                 1);
        QCOMPARE(capture.count(QStringLiteral("[Timeline Manager] Retrieving and Found with psUID: 4 with 5 videos")), 1);
    }

    void insertingUnderAnExistingIdKeepsTheFirst()
    {
        LogCapture capture;
        TimelineManager manager;
        auto first = std::make_shared<Timeline>();
        auto second = std::make_shared<Timeline>();
        manager.insertTimeline(2, first);
        manager.insertTimeline(2, second);
        QCOMPARE(manager.getTimeline(2), first);
        QCOMPARE(capture.count(QStringLiteral(
                     "[Timeline Manager] Inserting timeline but timeline already found with psUID: 2 with 0 videos")),
                 1);
        manager.insertTimeline(3, nullptr);
        QCOMPARE(manager.timelines.count(3), std::size_t(0));
    }

    void deleteTimelineLetsAViewKeepIt()
    {
        LogCapture capture;
        TimelineManager manager;
        manager.addPreview(makeTestPreview(QStringLiteral("A"), 2000, 3000), 1, makeTestInput());
        const auto shown = manager.getTimeline(1);
        manager.deleteTimeline(1);
        manager.deleteTimeline(1);
        QVERIFY(!manager.getTimeline(1));
        QCOMPARE(shown->rData.videos.size(), std::size_t(3));
        QCOMPARE(capture.count(QStringLiteral("[Timeline Manager] Deleting timeline found with psUID: 1 with video 3 videos")),
                 1);
        QCOMPARE(capture.count(QStringLiteral("[Timeline Manager] Deleting timeline but timeline NOT FOUND with psUID: 1")),
                 1);
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
    }

    void deletePreviewOfAnUnknownUidChangesNothing()
    {
        TimelineManager manager;
        manager.addPreview(makeTestPreview(QStringLiteral("A"), 2000, 3000), 1, makeTestInput());
        QCOMPARE(manager.deletePreview(4242), -1);
        QCOMPARE(describe(*manager.getTimeline(1)), QStringLiteral("I(0,1999) A(2000,3000) I(3001,10000)"));
    }

    void correlationManagerStartsWithItsLogLine()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        QCOMPARE(capture.count(QStringLiteral("Started the VideoCoorelationManager")), 1);
        QCOMPARE(capture.records.front().prefix, QStringLiteral("VideoCoorelationManager ~~~===---"));
    }

    void addingAnInputTwiceKeepsTheFirstRecord()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        const auto first = makeTestInput();
        const auto again = makeTestInput();
        manager.addInput(first);
        manager.addInput(again);
        QCOMPARE(manager.currentInput, first);
        QCOMPARE(manager.inputs.at(1), first);
        QCOMPARE(capture.count(QStringLiteral("Added new input! Groovy!")), 1);
        QCOMPARE(capture.count(QStringLiteral("You tried to add the same input twice LOL! Why would you do this?!?!"),
                               ConsoleLogger::Warn),
                 1);
    }

    void previewWithAnUnknownInputIsRefused()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        manager.addPreview(3, 99, makeTestPreview(QStringLiteral("A"), 2000, 3000));
        QVERIFY(manager.previews.empty());
        QCOMPARE(capture.count(QStringLiteral("Could not add preview to 99"), ConsoleLogger::Critical), 1);
        QCOMPARE(capture.count(QStringLiteral("addPreview: Couldn't find inputUID = 99"), ConsoleLogger::Critical), 1);
        manager.addPreview(3, makeTestPreview(QStringLiteral("B"), 2000, 3000));
        QCOMPARE(capture.count(QStringLiteral("Could not add preview to currentInput. It does not exist."),
                               ConsoleLogger::Critical),
                 1);
    }

    void timelineBeforeAnyInputIsTheEmptyOne()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        Timeline &timeline = manager.getTimeline(5);
        QCOMPARE(&timeline, &VideoCoorelationManager::emptyTimeline());
        QVERIFY(timeline.rData.ranges.empty());
        QVERIFY(!timeline.getPreviewAt(0));
        QCOMPARE(&manager.getTimeline(1, 5), &VideoCoorelationManager::emptyTimeline());
        QCOMPARE(capture.count(QStringLiteral("getTimeline: Couldn't find inputUID = 1"), ConsoleLogger::Critical), 1);
    }

    void previewsGoToTheTimelineOfTheirSet()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        const auto input = makeTestInput();
        manager.addInput(input);
        const auto a = makeTestPreview(QStringLiteral("A"), 2000, 3000);
        manager.addPreview(4, a);
        manager.addPreview(4, 1, a);
        manager.addPreview(5, 1, makeTestPreview(QStringLiteral("B"), 5000, 6000));
        QCOMPARE(capture.count(QStringLiteral("addPreview: Attempted to add same preview twice. Aborting."),
                               ConsoleLogger::Warn),
                 1);
        QCOMPARE(capture.count(QStringLiteral("...Setting input to input.mp4")), 2);
        QCOMPARE(describe(manager.getTimeline(4)), QStringLiteral("I(0,1999) A(2000,3000) I(3001,10000)"));
        QCOMPARE(describe(manager.getTimeline(1, 5)), QStringLiteral("I(0,4999) B(5000,6000) I(6001,10000)"));
        QCOMPARE(manager.previews.size(), std::size_t(2));
        QCOMPARE(manager.previewSets.at(1).at(4).size(), std::size_t(1));
        QCOMPARE(&manager.getTimeline(1, 6), &VideoCoorelationManager::emptyTimeline());
        QCOMPARE(capture.count(QStringLiteral("getTimeline: Couldn't find psUID = 6"), ConsoleLogger::Critical), 1);
        QVERIFY(capture.count(QStringLiteral("Returning valid timeline")) >= 2);
    }

    void deletingPreviewsByIdAndByPlace()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        manager.addInput(makeTestInput());
        const auto a = makeTestPreview(QStringLiteral("A"), 2000, 3000);
        const auto b = makeTestPreview(QStringLiteral("B"), 5000, 6000);
        manager.addPreview(4, a);
        manager.addPreview(5, b);

        manager.deletePreview(a->uid);
        QCOMPARE(describe(manager.getTimeline(4)), QStringLiteral("I(0,10000)"));
        QCOMPARE(capture.count(QStringLiteral("Removed preview %1").arg(a->uid)), 1);
        manager.deletePreview(a->uid);
        QCOMPARE(capture.count(QStringLiteral("deletePreview: Could not find preview %1").arg(a->uid)), 1);

        manager.deletePreview(1, b->uid, 9);
        QCOMPARE(capture.count(QStringLiteral("deletePreview: Could not find Timeline for PreviewSet 9"),
                               ConsoleLogger::Warn),
                 1);
        manager.deletePreview(2, b->uid, 5);
        QCOMPARE(capture.count(QStringLiteral("deletePreview: Could not find Timeline data for InputUID 2"),
                               ConsoleLogger::Warn),
                 1);
        QCOMPARE(manager.previews.count(b->uid), std::size_t(1));
        manager.deletePreview(1, b->uid, 5);
        QVERIFY(manager.previews.empty());
        QCOMPARE(describe(manager.getTimeline(5)), QStringLiteral("I(0,10000)"));
    }

    void deletingAnInputKeepsItsPreviews()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        manager.addInput(makeTestInput());
        manager.addPreview(4, makeTestPreview(QStringLiteral("A"), 2000, 3000));
        manager.deleteInput(1);
        QVERIFY(!manager.currentInput);
        QVERIFY(manager.timelines.empty());
        QCOMPARE(manager.previews.size(), std::size_t(1));
        QCOMPARE(capture.count(QStringLiteral("Deleted inputUID: 1")), 1);
        manager.deleteInput(1);
        QCOMPARE(capture.count(QStringLiteral("deleteInput: Couldn't find inputUID = 1"), ConsoleLogger::Critical), 1);

        manager.addInput(makeTestInput());
        manager.deleteInput(1);
        QCOMPARE(capture.count(QStringLiteral("deleteInput: couldn't find timeline for inputUID = 1"),
                               ConsoleLogger::Critical),
                 1);
    }

    void switchingToAnUnknownInputKeepsTheCurrentOne()
    {
        LogCapture capture;
        VideoCoorelationManager manager;
        const auto first = makeTestInput();
        auto second = makeTestInput();
        second->uid = 2;
        manager.addInput(first);
        manager.addInput(second);
        QCOMPARE(manager.currentInput, second);
        manager.switchInput(1);
        QCOMPARE(manager.currentInput, first);
        manager.switchInput(3);
        QCOMPARE(manager.currentInput, first);
        QCOMPARE(capture.count(QStringLiteral("switchInput: Couldn't switch to inputUID = 3, it doesn't exist!"),
                               ConsoleLogger::Critical),
                 1);
    }
};

QTEST_GUILESS_MAIN(tst_TimelineManagers)
#include "tst_TimelineManagers.moc"
