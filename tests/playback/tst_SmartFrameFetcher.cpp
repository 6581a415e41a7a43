#include "PlayerMedia.h"
#include "../platform/FrameHashes.h"

#include "playback/SmartFrameFetcher.h"
#include "videoio/FFReader.h"

#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <thread>

using namespace videoplayer;

namespace {

// Positions of a 25 fps clip from `from` to `to`, as the records a fetch yields.
QStringList run(int from, int to)
{
    QStringList steps;
    for (int ms = from; ms <= to; ms += 40)
        steps << QString::number(ms);
    return steps;
}

QString token(const std::shared_ptr<FetchedFrame> &record)
{
    if (!record)
        return QStringLiteral("null");
    return (record->isEOF ? QStringLiteral("E") : QString()) + QString::number(record->timestamp);
}

} // namespace

// The input shows 100 numbered frames at 25 fps (positions 0..3960); the
// preview is its second second at slow motion 2: about 50 frames from 0 on,
// 40 ms apart, whose "slowMoFactor" is 2.
class tst_SmartFrameFetcher : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    QString input;
    QString preview;
    QHash<qlonglong, QByteArray> pictures;
    int previewLast = 0;

    std::shared_ptr<videoio::Reader> open(bool asPreview)
    {
        auto reader = std::make_shared<videoio::FFReader>(asPreview ? preview : input, asPreview);
        if (asPreview)
            reader->updateInfo({{QStringLiteral("slowMoFactor"), 2.0}});
        return reader;
    }

private slots:
    void initTestCase()
    {
        input = dir.filePath(QStringLiteral("input.mp4"));
        preview = dir.filePath(QStringLiteral("preview.mp4"));
        QVERIFY(playermedia::makeInput(input));
        QVERIFY(playermedia::makePreview(input, preview, 1000, 1000, 2));
        const auto all = videoio::testing::decodeAll(input);
        QCOMPARE(all.positions.size(), 100);
        for (int i = 0; i < all.positions.size(); ++i)
            pictures.insert(all.positions[i], all.hashes[i]);
        // The render's frame count is ffmpeg's to choose; about 2 s.
        const auto rendered = videoio::testing::decodeAll(preview);
        QVERIFY(rendered.positions.size() > 40);
        previewLast = int(rendered.positions.last());
    }

    void fetchesTheStretch_data()
    {
        QTest::addColumn<bool>("asPreview");
        QTest::addColumn<qlonglong>("x");
        QTest::addColumn<qlonglong>("y");
        QTest::addColumn<qlonglong>("start");
        QTest::addColumn<bool>("loop");
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("plain reader: from the start picture to the file's end, whatever y")
            << false << 400LL << 800LL << 400LL << false << run(400, 3960) + QStringList{"E3960", "null"};
        QTest::newRow("open stretch loops back to x; the EOF record is the next pass's first")
            << false << 2000LL << -1LL << 3800LL << true << run(3800, 3960) + QStringList{"E2000", "2040", "2080"};
        QTest::newRow("preview: y against position / slowMoFactor, x = 0 bounded")
            << true << 0LL << 200LL << 0LL << false << run(0, 400) + QStringList{"E400", "null"};
        QTest::newRow("preview loop: never one past y")
            << true << 80LL << 200LL << 0LL << true << run(0, 400) + QStringList{"E80", "120", "160"};
        QTest::newRow("preview ending before y")
            << true << 0LL << 5000LL << 1800LL << false
            << run(1800, previewLast) + QStringList{QStringLiteral("E%1").arg(previewLast), "null"};
    }

    void fetchesTheStretch()
    {
        QFETCH(bool, asPreview);
        QFETCH(qlonglong, x);
        QFETCH(qlonglong, y);
        QFETCH(qlonglong, start);
        QFETCH(bool, loop);
        QFETCH(QStringList, expected);

        SmartFrameFetcher fetcher;
        fetcher.init(open(asPreview), {x, y}, start, loop);
        fetcher.startFetching();
        QStringList got;
        for (int i = 0; i < expected.size(); ++i) {
            const auto record = fetcher.popFrame();
            got << token(record);
            // The picture is the one at the position, not a neighbour's.
            if (record && !asPreview)
                QCOMPARE(videoio::testing::frameHash(record->frame), pictures.value(record->timestamp));
        }
        QCOMPARE(got, expected);
        QCOMPARE(fetcher.isFetching(), loop);
    }

    // Every blocking call comes back: the consumer is woken by stop and by
    // destruction, the producer by a reinit while it waits for room.
    void nothingHangs_data()
    {
        QTest::addColumn<QString>("ending");
        QTest::newRow("stopFetching") << "stop";
        QTest::newRow("destructor") << "destroy";
        QTest::newRow("empty reader") << "empty";
    }

    void nothingHangs()
    {
        QFETCH(QString, ending);
        auto fetcher = std::make_unique<SmartFrameFetcher>();
        fetcher->init(ending == "empty" ? nullptr : open(false), {0, -1}, 0, false);
        // Never started: the consumer waits until the ending wakes it.
        std::atomic<int> outcome{-1};
        std::thread consumer([&] { outcome = fetcher->popFrame() ? 1 : 0; });
        if (ending != "empty")
            QTRY_COMPARE(fetcher->waitingConsumers(), 1);
        if (ending == "stop")
            fetcher->stopFetching(0);
        else if (ending == "destroy")
            fetcher.reset();
        consumer.join();
        QCOMPARE(outcome.load(), 0);
        if (fetcher)
            QVERIFY(!fetcher->popFrame());
    }

    void reinitWhileFullStartsAfresh()
    {
        SmartFrameFetcher fetcher;
        const auto reader = open(false);
        fetcher.init(reader, {0, -1}, 0, true);
        fetcher.startFetching();
        QTRY_COMPARE(fetcher.bufferedFrames(), fetcher.maxBufferedFrames);
        // The producer waits for room; init must end it and drop its pictures.
        fetcher.init(reader, {0, -1}, 2000, false);
        QVERIFY(fetcher.isEmpty());
        fetcher.startFetching();
        QCOMPARE(token(fetcher.popFrame()), QStringLiteral("2000"));
    }
};

QTEST_GUILESS_MAIN(tst_SmartFrameFetcher)
#include "tst_SmartFrameFetcher.moc"
