#include "../platform/VideoioMedia.h"

#include "playback/TVideoView.h"
#include "playback/VideoReader.h"
#include "videoio/VideoManager.h"

#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QVideoSink>

using namespace videoio::testing;

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

} // namespace

class tst_TVideoView : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return m_dir.filePath(name); }

    void openIn(TVideoView &view, const QString &file)
    {
        view.reload(path(file), 0);
        QTRY_VERIFY_WITH_TIMEOUT(view.isOpen() && view.isReady(), 10000);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QCOMPARE(makeH264(path("clip.mp4"), 30, {"-bf", "2", "-g", "10"}), QString());
        QCOMPARE(makeH264(path("other.mp4"), 15), QString());
        QFile garbage(path("garbage.mp4"));
        QVERIFY(garbage.open(QIODevice::WriteOnly));
        garbage.write(QByteArray(2048, 'z'));
    }

    void openingFeedsTheSinkAndTellsTheInfo()
    {
        TVideoView view;
        QVideoSink sink;
        view.setVideoSink(&sink);
        QSignalSpy frames(&sink, &QVideoSink::videoFrameChanged);
        openIn(view, "clip.mp4");
        QCOMPARE(view.source(), path("clip.mp4"));
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
};

QTEST_MAIN(tst_TVideoView)
#include "tst_TVideoView.moc"
