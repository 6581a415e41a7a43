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

};

QTEST_GUILESS_MAIN(tst_TimelineManagers)
#include "tst_TimelineManagers.moc"
