#include "../platform/VideoioMedia.h"

#include "playback/TVideoView.h"
#include "playback/VideoReader.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QVideoSink>

#include <mutex>

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
        QSignalSpy ready(&view, &TVideoView::isReadyChanged);
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
        QSignalSpy source(&view, &TVideoView::sourceChanged);
        openIn(view, "clip.mp4");
        QCOMPARE(source.count(), 1);
        QCOMPARE(view.source(), path("clip.mp4"));
        QTRY_VERIFY(frames.count() >= 1);
        QCOMPARE(sink.videoFrame().size(), QSize(320, 240));
        QCOMPARE(view.info()["fps"].toDouble(), 30.0);
        QCOMPARE(view.info()["size"].toSize(), QSize(320, 240));
        QCOMPARE(view.timestamp(), 0);
        QVERIFY(!view.eof());
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
        QTest::newRow("next from the start") << true << "first" << "next" << 33LL;
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

    void tenSeeksBeforeTheReaderRunsGiveOneSeek()
    {
        TVideoView view;
        openIn(view, "clip.mp4");
        QSignalSpy stamps(&view, &TVideoView::timestampChanged);
        {
            ReaderGate gate(view);
            for (int i = 1; i <= 10; ++i)
                emit view.seek(i * 50);
        }
        QVERIFY(drained(view, this));
        QCOMPARE(stamps.count(), 1);
        QCOMPARE(view.timestamp(), 500);
    }

    void aSeekToThePendingValueSendsNothing()
    {
        TVideoView view;
        openIn(view, "clip.mp4");
        QSignalSpy requests(view.videoReader(), &videoio::VideoReader::seekReq);
        ReaderGate gate(view);
        emit view.seek(300);
        emit view.seek(300);
        QCOMPARE(requests.count(), 1);
    }

    void unreadableSourcesCloseTheView_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("message");
        QTest::newRow("missing") << path("missing.mp4") << "Unable to open file at " + path("missing.mp4");
        QTest::newRow("not a video") << path("garbage.mp4") << "Unable to open file at " + path("garbage.mp4");
        QTest::newRow("empty path") << QString() << "Unable to open empty path";
    }
    void unreadableSourcesCloseTheView()
    {
        QFETCH(QString, file);
        QFETCH(QString, message);
        TVideoView view;
        QSignalSpy errors(view.videoReader(), &videoio::VideoReader::readerError);
        QSignalSpy closed(&view, &TVideoView::closeVideo);
        emit view.open(file, 0);
        QTRY_COMPARE(closed.count(), 1);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().first().toString(), message);
        QVERIFY(!view.isOpen());
        QVERIFY(!view.isReady());
        QCOMPARE(view.info()["fps"].toDouble(), 30.0);
        QCOMPARE(view.info()["sar"].toDouble(), 1.0);
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

    void anEmptyReloadKeepsTheFileOnScreen()
    {
        TVideoView view;
        QVideoSink sink;
        view.setVideoSink(&sink);
        openIn(view, "clip.mp4");
        QTRY_VERIFY(sink.videoFrame().isValid());
        view.reload(QString(), 0);
        QVERIFY(view.source().isEmpty());
        QVERIFY(view.isOpen());
        QVERIFY(view.isReady());
        QVERIFY(sink.videoFrame().isValid());
        view.showNothing();
        QVERIFY(!view.isReady());
        QVERIFY(sink.videoFrame().isValid());
    }

    void aNullFrameChangesNothing()
    {
        TVideoView view;
        QSignalSpy stamps(&view, &TVideoView::timestampChanged);
        view.handleFrameUpdate({}, 400, false);
        QCOMPARE(stamps.count(), 0);
        QCOMPARE(view.timestamp(), 0);
        QVERIFY(view.eof());
    }

    void aDeletedSinkIsSkipped()
    {
        TVideoView view;
        auto sink = std::make_unique<QVideoSink>();
        view.setVideoSink(sink.get());
        sink.reset();
        openIn(view, "clip.mp4");
        QCOMPARE(view.videoSink(), nullptr);
    }

    void thumbnailsAreNamedByTimestamp_data()
    {
        QTest::addColumn<qlonglong>("timestamp");
        QTest::addColumn<QString>("name");
        QTest::newRow("at 0 by uid alone") << 0LL << "clipuid";
        QTest::newRow("later with the time") << 500LL << "clipuid_500";
    }
    void thumbnailsAreNamedByTimestamp()
    {
        QFETCH(qlonglong, timestamp);
        QFETCH(QString, name);
        TVideoView view;
        openIn(view, "clip.mp4");
        QSignalSpy info(&view, &TVideoView::infoChanged);
        emit view.updateThumbnail("clipuid", "image://thumbnail/old", path("thumbs"), timestamp);
        QTRY_COMPARE(info.count(), 1);
        QCOMPARE(view.info()["thumbnail"].toString(), "image://thumbnail/" + name);
        QCOMPARE(view.info()["startFrame"].toLongLong(), timestamp);
        QVERIFY(view.info()["updateThumbnail"].toBool());
        const QImage stored = videoio::ThumbnailStore::GetInstance().image(name);
        QCOMPARE(stored.size(), QSize(320, 240));
        QVERIFY(QFile::exists(path("thumbs/" + name + ".jpg")));
    }
};

QTEST_MAIN(tst_TVideoView)
#include "tst_TVideoView.moc"
