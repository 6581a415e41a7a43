// TVideoView on real media that ffmpeg makes while the test runs, and the
// frame fetcher that hands a reader's pictures to a consumer on numbered frames.
#include "PlayerMedia.h"
#include "../platform/FrameHashes.h"

#include "playback/SmartFrameFetcher.h"
#include "playback/TVideoView.h"
#include "playback/VideoReader.h"
#include "videoio/FFReader.h"
#include "videoio/VideoManager.h"

#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QVideoSink>

#include <atomic>
#include <thread>

using namespace videoio::testing;
using namespace videoplayer;

namespace {

// Holds the view's reader thread, so that requests pile up as they would
// behind a slow decode.
class ReaderGate
{
public:
    explicit ReaderGate(TVideoView &view)
        : m_reader(view.videoReader())
    {
        QMetaObject::invokeMethod(m_reader, [this] {
            m_entered.release();
            m_open.acquire();
        }, Qt::QueuedConnection);
        m_entered.acquire();
    }
    ~ReaderGate() { release(); }

    void release()
    {
        if (!m_released) {
            m_released = true;
            m_open.release();
        }
    }

private:
    QObject *m_reader;
    QSemaphore m_entered;
    QSemaphore m_open;
    bool m_released = false;
};

// True once everything queued on the reader thread before it has run, and
// the signals it sent have reached the test's thread.
bool drained(TVideoView &view, QObject *receiver)
{
    bool done = false;
    QMetaObject::invokeMethod(view.videoReader(), [&] {
        QMetaObject::invokeMethod(receiver, [&] { done = true; }, Qt::QueuedConnection);
    }, Qt::QueuedConnection);
    return QTest::qWaitFor([&] { return done; }, 10000);
}

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

class tst_TVideoView : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return m_dir.filePath(name); }
    // The fetcher's input shows 100 numbered frames at 25 fps (positions
    // 0..3960); the preview is its second second at slow motion 2: about 50
    // frames from 0 on, 40 ms apart, whose "slowMoFactor" is 2.
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

    void openIn(TVideoView &view, const QString &file)
    {
        view.reload(path(file), 0);
        QTRY_VERIFY_WITH_TIMEOUT(view.isOpen() && view.isReady(), 10000);
    }

private slots:
    void initTestCase()
    {
        QCOMPARE(makeH264(path("clip.mp4"), 30, {"-bf", "2", "-g", "10"}), QString());
        QCOMPARE(makeH264(path("other.mp4"), 15), QString());
        QFile garbage(path("garbage.mp4"));
        QVERIFY(garbage.open(QIODevice::WriteOnly));
        garbage.write(QByteArray(2048, 'z'));
        input = m_dir.filePath(QStringLiteral("input.mp4"));
        preview = m_dir.filePath(QStringLiteral("preview.mp4"));
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

    void openingFeedsTheSinkAndTellsTheInfo()
    {
        TVideoView view;
        QVideoSink sink;
        view.setVideoSink(&sink);
        QSignalSpy frames(&sink, &QVideoSink::videoFrameChanged);
        openIn(view, "clip.mp4");
        QTRY_VERIFY(frames.count() >= 1);
        QCOMPARE(sink.videoFrame().size(), QSize(320, 240));
        QCOMPARE(view.info()["fps"].toDouble(), 30.0);
        // An empty reload keeps the file on screen; showing nothing only marks the view unready.
        view.reload(QString(), 0);
        QVERIFY(view.source().isEmpty());
        QVERIFY(view.isOpen() && view.isReady());
        view.showNothing();
        QVERIFY(!view.isReady());
        QVERIFY(sink.videoFrame().isValid());
    }

    void stepsAndSeeksMoveTheFrame_data()
    {
        QTest::addColumn<bool>("looping");
        QTest::addColumn<QString>("start");  // where to stand first: "first" or "last"
        QTest::addColumn<QString>("step");
        QTest::addColumn<qlonglong>("expected");
        QTest::newRow("prev at 0 without looping stays") << false << "first" << "prev" << 0LL;
        QTest::newRow("prev at 0 with looping wraps to the end") << true << "first" << "prev" << 967LL;
        QTest::newRow("next onto the end with looping gives the first") << true << "last" << "next" << 0LL;
        QTest::newRow("next onto the end without looping stays") << false << "last" << "next" << 967LL;
    }
    void stepsAndSeeksMoveTheFrame()
    {
        QFETCH(bool, looping);
        QFETCH(QString, start);
        QFETCH(QString, step);
        QFETCH(qlonglong, expected);
        TVideoView view;
        view.setLooping(looping);
        openIn(view, "clip.mp4");
        QSignalSpy stamps(&view, &TVideoView::timestampChanged);
        start == "first" ? emit view.first() : emit view.last();
        QTRY_COMPARE(stamps.count(), 1);
        step == "prev" ? emit view.stepBackward() : emit view.stepForward();
        QTRY_COMPARE(stamps.count(), 2);
        QCOMPARE(view.timestamp(), expected);
    }

    void seeksBeforeTheReaderRunsGiveOneSeek()
    {
        TVideoView view;
        openIn(view, "clip.mp4");
        QSignalSpy stamps(&view, &TVideoView::timestampChanged);
        QSignalSpy requests(view.videoReader(), &videoio::VideoReader::seekReq);
        {
            ReaderGate gate(view);
            for (int i = 1; i <= 10; ++i)
                emit view.seek(i * 50);
            // A seek to the pending value sends nothing.
            const qsizetype sent = requests.count();
            emit view.seek(500);
            QCOMPARE(requests.count(), sent);
        }
        QVERIFY(drained(view, this));
        QCOMPARE(stamps.count(), 1);
        QCOMPARE(view.timestamp(), 500);
    }

    void unreadableSourcesCloseTheView_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("not a video") << path("garbage.mp4");
        QTest::newRow("empty path") << QString();
    }
    void unreadableSourcesCloseTheView()
    {
        QFETCH(QString, file);
        TVideoView view;
        QSignalSpy errors(view.videoReader(), &videoio::VideoReader::readerError);
        QSignalSpy closed(&view, &TVideoView::closeVideo);
        emit view.open(file, 0);
        QTRY_COMPARE(closed.count(), 1);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().first().toString(), file.isEmpty() ? QStringLiteral("Unable to open empty path")
                                                                   : QStringLiteral("Unable to open file at ") + file);
        QVERIFY(!view.isOpen() && !view.isReady());
        QVERIFY(view.source().isEmpty());
    }

    void reloadingTheSamePathDecodesAfresh()
    {
        QFile::copy(path("clip.mp4"), path("changing.mp4"));
        TVideoView view;
        openIn(view, "changing.mp4");
        QCOMPARE(view.info()["duration"].toLongLong(), 1000);
        // The file is rewritten under the same name, as a render does.
        QVERIFY(QFile::remove(path("changing.mp4")));
        QVERIFY(QFile::copy(path("other.mp4"), path("changing.mp4")));
        QSignalSpy info(&view, &TVideoView::infoChanged);
        QSignalSpy opens(&view, &TVideoView::open);
        view.reload(path("changing.mp4"), 0);
        QTRY_VERIFY(info.count() >= 1);
        QCOMPARE(opens.count(), 0);
        QCOMPARE(view.info()["duration"].toLongLong(), 500);
    }

    // A null frame changes nothing, and a sink deleted behind the view's back is skipped.
    void badFramesAndSinksAreSkipped()
    {
        TVideoView view;
        auto sink = std::make_unique<QVideoSink>();
        view.setVideoSink(sink.get());
        sink.reset();
        QSignalSpy stamps(&view, &TVideoView::timestampChanged);
        view.handleFrameUpdate({}, 400, false);
        QCOMPARE(stamps.count(), 0);
        QCOMPARE(view.timestamp(), 0);
        openIn(view, "clip.mp4");
        QCOMPARE(view.videoSink(), nullptr);
    }

    void thumbnailsAreNamedByTimestamp()
    {
        TVideoView view;
        openIn(view, "clip.mp4");
        QSignalSpy info(&view, &TVideoView::infoChanged);
        // At 0 by the uid alone, later with the time.
        for (const auto &[timestamp, name] : {std::pair{0LL, QStringLiteral("clipuid")}, {500LL, QStringLiteral("clipuid_500")}}) {
            emit view.updateThumbnail("clipuid", "image://thumbnail/old", path("thumbs"), timestamp);
            QTRY_VERIFY(!info.isEmpty());
            info.clear();
            QCOMPARE(view.info()["thumbnail"].toString(), "image://thumbnail/" + name);
            QCOMPARE(view.info()["startFrame"].toLongLong(), timestamp);
            QVERIFY(view.info()["updateThumbnail"].toBool());
            QVERIFY(QFile::exists(path("thumbs/" + name + ".jpg")));
        }
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

QTEST_MAIN(tst_TVideoView)
#include "tst_TVideoView.moc"
