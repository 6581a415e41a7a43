#include "../playback/PlayerMedia.h"

#include "playback/ViewNode.h"
#include "timeline/SyncView.h"
#include "videoio/Reader.h"
#include "videoio/VideoManager.h"

#include <QTemporaryDir>
#include <QTest>

using namespace videoplayer;

// A 4 s input at 25 fps with two rendered previews laid over it:
//   I(0,999) P(1000,2000) I(2001,2499) Q(2500,3000) I(3001,4000)
// P is rendered at slow motion 2 (its file is 2 s long), Q at 1. View A shows
// that timeline; view B's timeline has no input and so no stretches at all.
class tst_PlayableNode : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    QString input;
    QString p;
    QString q;

private slots:
    void initTestCase()
    {
        input = dir.filePath(QStringLiteral("input.mp4"));
        p = dir.filePath(QStringLiteral("p.mp4"));
        q = dir.filePath(QStringLiteral("q.mp4"));
        QVERIFY(playermedia::makeInput(input));
        QVERIFY(playermedia::makePreview(input, p, 1000, 1000, 2));
        QVERIFY(playermedia::makePreview(input, q, 2500, 500, 1));
    }

    void initPlayNodes_data()
    {
        QTest::addColumn<qlonglong>("at");
        QTest::addColumn<int>("priorIndex");
        QTest::addColumn<double>("factor");
        QTest::addColumn<int>("index");
        QTest::addColumn<qlonglong>("videoTimestamp");
        QTest::addColumn<qlonglong>("timelineTimestamp");
        QTest::addColumn<QString>("readied");

        QTest::newRow("on the input, the next preview is readied") << 500LL << -1 << 2.0 << 0 << 500LL << 500LL << "P";
        QTest::newRow("in a preview: file time doubled, carried back without the factor")
            << 1500LL << -1 << 2.0 << 1 << 1000LL << 2000LL << "";
        QTest::newRow("a factor of 1.5 multiplies by 1") << 1500LL << -1 << 1.5 << 1 << 500LL << 1500LL << "";
        QTest::newRow("past the first preview, the second is readied")
            << 2200LL << -1 << 2.0 << 2 << 2200LL << 2200LL << "Q";
        QTest::newRow("before the video's start: file 0, timeline up to the start")
            << -100LL << 1 << 2.0 << 1 << 0LL << 1000LL << "";
        QTest::newRow("an index past the end starts at stretch 0") << -100LL << 7 << 2.0 << 0 << 0LL << 0LL << "P";
    }

    void initPlayNodes()
    {
        QFETCH(qlonglong, at);
        QFETCH(int, priorIndex);
        QFETCH(double, factor);
        QFETCH(int, index);
        QFETCH(qlonglong, videoTimestamp);
        QFETCH(qlonglong, timelineTimestamp);
        QFETCH(QString, readied);

        const auto inputVideo = Video::makeInput(nullptr, 1, input.toStdString(), 4000, 25.0, 1.0, {});
        const auto pVideo = Video::makePreview(2, p.toStdString(), 1000, 1000, 25.0, factor, 1.0, false, {});
        const auto qVideo = Video::makePreview(3, q.toStdString(), 2500, 500, 25.0, 1.0, 1.0, false, {});
        auto shown = std::make_shared<Timeline>();
        shown->setInput(inputVideo);
        shown->addVideo(pVideo);
        shown->addVideo(qVideo);
        QCOMPARE(shown->rData.videos.size(), 5u);
        if (priorIndex >= 0)
            shown->rData.index = priorIndex;

        std::mutex timestampMutex;
        std::mutex infoMutex;
        ViewNode left(0, 0, {}, nullptr, 1.0f, {0, 0}, 25.0, 1.0, {}, {}, &timestampMutex, &infoMutex);
        ViewNode right(1, 0, {}, nullptr, 1.0f, {0, 0}, 25.0, 1.0, {}, {}, &timestampMutex, &infoMutex);
        left.timeline = shown;
        right.timeline = std::make_shared<Timeline>();

        // Both previews stand on their last frame, so a readied one shows.
        const auto pReader = videoio::VideoManager::GetPreviewReader(p, factor);
        const auto qReader = videoio::VideoManager::GetPreviewReader(q, 1.0);
        QVERIFY(pReader->last() && qReader->last());

        SyncView sync(&left, &right);
        sync.timestamp = at;
        sync.initPlayNodes();

        const PlayableNode &a = *sync.nodeA();
        QCOMPARE(a.index, index);
        QCOMPARE(a.currentVideo, shown->rData.videos[static_cast<std::size_t>(index)]);
        QCOMPARE(left.currentVideo, a.currentVideo);
        QCOMPARE(qlonglong(a.videoTimestamp), videoTimestamp);
        QCOMPARE(qlonglong(a.timelineTimestamp), timelineTimestamp);
        QCOMPARE(pReader->position() == 0, readied == "P");
        QCOMPARE(qReader->position() == 0, readied == "Q");

        // One reader per file, previews opened with their factor.
        QCOMPARE(sync.readers().size(), 3u);
        QCOMPARE(a.playNodes[1], pReader);
        QVERIFY(pReader->isPreviewReader() && !a.playNodes[0]->isPreviewReader());
        QCOMPARE(pReader->getInfo()["slowMoFactor"].toDouble(), factor);

        const PlayableNode &b = *sync.nodeB();
        QVERIFY(!b.currentVideo && b.videos.empty() && !right.currentVideo);
        QCOMPARE(b.videoTimestamp, TSType(0));
    }

    void previewReaderReplacesAPlainOneOfItsFile()
    {
        const auto shared = videoio::VideoManager::GetReader(input);
        QVERIFY(!shared->isPreviewReader());
        const auto preview = videoio::VideoManager::GetPreviewReader(input, 3.0);
        QVERIFY(preview != shared && preview->isPreviewReader());
        QCOMPARE(videoio::VideoManager::GetReader(input), preview);
        QCOMPARE(videoio::VideoManager::GetPreviewReader(input, 4.0), preview);
        QCOMPARE(preview->getInfo()["slowMoFactor"].toDouble(), 4.0);
    }
};

QTEST_GUILESS_MAIN(tst_PlayableNode)
#include "tst_PlayableNode.moc"
