// Live render end to end: two real mpv panes under Xvfb, the player, and the
// demo's own live-render wiring of the watcher. A filter change must put the
// filtered frame into the right pane, as ffmpeg would filter it, while the
// left pane keeps the plain one.
#include "LiveRenderScene.h"
#include "PlayerMedia.h"

#include "playback/InstantReaderWatcher.h"
#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"
#include "videoio/FFReaderUtils.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QScreen>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>

using videoplayer::InstantReaderWatcher;
using videoplayer::VideoPlayer;
using liverenderscene::kScene;
using liverenderscene::psnr;

class tst_LiveRenderMpv : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_input;  // 4 s at 25 fps of a moving pattern, every picture a key picture
    std::unique_ptr<QQmlEngine> m_engine;
    std::unique_ptr<QObject> m_root;
    QQuickWindow *m_window = nullptr;
    VideoPlayer *m_player = nullptr;
    QObject *m_live = nullptr;

    QImage grab(int column, int row) const
    {
        const QImage window = m_window->screen()->grabWindow(m_window->winId()).toImage();
        return window.copy(column * 320 + 20, row * 240 + 20, 280, 200).convertToFormat(QImage::Format_RGB32);
    }

    // ffmpeg's picture of the input at `ms` through `vf`, shown in the pane
    // below the one it is compared with.
    bool showReference(const char *pane, int ms, const QString &vf)
    {
        const QString file = m_dir.filePath(QStringLiteral("ref-%1-%2.mkv").arg(QLatin1String(pane)).arg(ms));
        QStringList args{"-ss", QString::number(ms / 1000.0, 'f', 3), "-i", m_input, "-frames:v", "1"};
        if (!vf.isEmpty())
            args << "-vf" << vf;
        if (!playermedia::ffmpeg(args << "-c:v" << "ffv1" << file))
            return false;
        auto *reference = m_root->findChild<MPVObject *>(QLatin1String(pane));
        QSignalSpy loaded(reference, &MPVObject::fileLoaded);
        reference->load(file, 0);
        return loaded.wait(15000);
    }

    // Waits until the pane shows what its reference pane shows.
    double matchOf(int column)
    {
        double best = 0;
        QTest::qWaitFor([&] {
            best = psnr(grab(column, 0), grab(column, 1));
            return best >= 35.0;
        }, 30000);
        return best;
    }

    void enableLive()
    {
        // Turning it on realigns the panes, which ends with a stop of their
        // renders: a filter change before that would be stopped. The player's
        // signals are posted before it is idle again.
        QMetaObject::invokeMethod(m_live, "setEnabled", Q_ARG(QVariant, true));
        QTRY_VERIFY_WITH_TIMEOUT(m_player->isIdle(), 30000);
        QCoreApplication::sendPostedEvents();
    }

    int laidCount() const { return m_live->property("laid").toList().size(); }

private slots:
    void initTestCase()
    {
        qunsetenv("QML_IMPORT_PATH");
        qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
        qmlRegisterType<VideoPlayer>("kutils", 1, 0, "VideoPlayer");
        qmlRegisterType<InstantReaderWatcher>("kutils", 1, 0, "InstantReaderWatcher");
        m_input = m_dir.filePath("input.mp4");
        QVERIFY(playermedia::ffmpeg({"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=4", "-c:v",
                                     "libx264", "-qp", "0", "-g", "1", "-pix_fmt", "yuv420p", m_input}));
        m_engine = std::make_unique<QQmlEngine>();
    }

    void init()
    {
        QQmlComponent component(m_engine.get());
        component.setData(QString::fromUtf8(kScene)
                              .arg(QUrl::fromLocalFile(QStringLiteral(KUTILS_SOURCE_DIR "/demo")).toString())
                              .toUtf8(), QUrl());
        m_root.reset(component.create());
        QVERIFY2(m_root, qPrintable(component.errorString()));
        m_window = qobject_cast<QQuickWindow *>(m_root.get());
        m_player = qobject_cast<VideoPlayer *>(m_root->property("player").value<QObject *>());
        m_live = m_root->property("live").value<QObject *>();
        const auto panes = m_root->findChildren<MPVObject *>();
        QTRY_VERIFY_WITH_TIMEOUT(std::all_of(panes.begin(), panes.end(), [](MPVObject *p) { return p->surface(); }),
                                 30000);
        QMetaObject::invokeMethod(m_root.get(), "open", Q_ARG(QVariant, m_input), Q_ARG(QVariant, 4000));
        QTRY_VERIFY_WITH_TIMEOUT(m_player->isIdle() && m_player->getIsOpen(), 30000);
        m_player->seek(1000);
        QTRY_VERIFY_WITH_TIMEOUT(m_player->isIdle() && m_player->getInputTimestamp() == 1000, 30000);
        QCoreApplication::sendPostedEvents();
    }

    void cleanup()
    {
        m_root.reset();
    }

    // Paused at 1000 ms, a filter change renders the 21 pictures from the
    // playhead in two chunks; a second filter replaces the first.
    void rightPaneShowsTheFilteredFrame_data()
    {
        QTest::addColumn<QStringList>("filters");
        QTest::newRow("mirror and negate") << QStringList{"hflip,negate"};
        QTest::newRow("a second filter replaces the first") << QStringList{"negate", "vflip,hue=h=90"};
        QTest::newRow("slowed") << QStringList{"setpts=2*PTS,hflip"};
        QTest::newRow("temporal filter that holds pictures back") << QStringList{"atadenoise,hflip"};
    }

    void rightPaneShowsTheFilteredFrame()
    {
        QFETCH(QStringList, filters);
        QSignalSpy laid(m_live, SIGNAL(chunkLaid(int, int)));
        enableLive();
        for (const QString &vf : filters) {
            laid.clear();
            QMetaObject::invokeMethod(m_live, "setFilter", Q_ARG(QVariant, vf));
            QTRY_COMPARE_WITH_TIMEOUT(laid.count(), 2, 30000);
        }
        QCOMPARE(laidCount(), 2);  // the earlier chain's chunks were closed
        QCOMPARE(laid.at(0).at(0).toInt(), 1000);
        QCOMPARE(laid.at(1).at(1).toInt(), 1839);
        // Exactly the window's pictures, whatever the filter held back.
        size_t pictures = 0;
        for (const QVariant &chunk : m_live->property("laid").toList())
            pictures += videoio::FFReaderUtils::countFrames(chunk.toMap().value("file").toString(), 0);
        QCOMPARE(pictures, size_t(21));

        QTRY_VERIFY_WITH_TIMEOUT(m_player->isIdle(), 30000);
        QVERIFY(showReference("refRight", 1000, filters.last()));
        QVERIFY(showReference("refLeft", 1000, QString()));
        const double right = matchOf(1);
        QVERIFY2(right >= 35.0, qPrintable(QString::number(right)));
        const double left = matchOf(0);
        QVERIFY2(left >= 35.0, qPrintable(QString::number(left)));
        // The filter shows: the panes differ.
        QVERIFY(psnr(grab(0, 0), grab(1, 0)) < 25.0);
    }

    void aBadChainFailsAndThePlayerGoesOn()
    {
        auto *watcher = m_live->property("watcher").value<InstantReaderWatcher *>();
        QSignalSpy failed(watcher, &InstantReaderWatcher::renderFailed);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("failed: the filter chain does not build"));
        enableLive();
        QMetaObject::invokeMethod(m_live, "setFilter", Q_ARG(QVariant, "nosuchfilter"));
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 30000);
        QMetaObject::invokeMethod(m_live, "setEnabled", Q_ARG(QVariant, false));
        m_player->play();
        QTRY_VERIFY_WITH_TIMEOUT(m_player->getIsPlaying() && m_player->getInputTimestamp() > 1400, 30000);
        m_player->pause();
    }
};

QTEST_MAIN(tst_LiveRenderMpv)
#include "tst_LiveRenderMpv.moc"
