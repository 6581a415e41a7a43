// Two mpv panes in one Quick window, on a clip that ffmpeg makes at test time.
// Each frame carries its own number as eight black or white bars (bit i of the
// frame number in bar i), so a grab of the screen tells which frame a pane shows.
#include "PlayerMedia.h"

#include "os/NativeSurface.h"
#include "playback/MPVObject.h"
#include "timeline/ConsoleLogger.h"

#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>

namespace {

constexpr int paneWidth = 320;
constexpr int paneHeight = 240;
constexpr int frameMs = 40;

const QByteArray kPanes = R"(import QtQuick
import kutils.panes 1.0
Rectangle {
    width: 700; height: 280; color: "#303030"
    MPVObject { objectName: "left"; x: 10; y: 20; width: 320; height: 240; Component.onCompleted: setMPVID(0) }
    MPVObject { objectName: "right"; x: 350; y: 20; width: 320; height: 240; Component.onCompleted: setMPVID(1) }
}
)";

// A lossless 2 s clip at 25 fps whose picture is its frame number in bars.
bool makeNumberedClip(const QString &path)
{
    return playermedia::ffmpeg(
        QStringLiteral("-f lavfi -i color=c=black:s=320x240:r=25:d=2,format=yuv420p,"
                       "geq=lum='16+219*mod(floor(N/pow(2\\,floor(X/40)))\\,2)':cb=128:cr=128 "
                       "-c:v libx264 -qp 0 -g 10 -bf 0")
            .split(QLatin1Char(' '))
        << path);
}

// The bars sit where the frame has them only if the pane shows the whole
// decoded picture, unscaled and uncropped.
int frameNumberIn(const QImage &picture)
{
    if (picture.width() < paneWidth || picture.height() < paneHeight)
        return -1;
    int number = 0;
    for (int bit = 0; bit < 8; ++bit) {
        int sum = 0;
        for (int y = 110; y < 130; ++y)
            for (int x = bit * 40 + 10; x < bit * 40 + 30; ++x)
                sum += qGreen(picture.pixel(x, y));
        if (sum / 400 > 128)
            number |= 1 << bit;
    }
    return number;
}

} // namespace

class tst_MPVObject : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    QString clip;
    std::unique_ptr<QQuickView> view;
    MPVObject *left = nullptr;
    MPVObject *right = nullptr;
    bool lastSeeking[2] = {false, false};
    qint64 lastTime[2] = {-1, -1};
    playermedia::PaneCommands commands;
    std::atomic<int> logLines = 0;

    int frameShown(MPVObject *pane) const
    {
        // The scene's own grab holds only what Qt renders; mpv's pixels live in
        // the native child, so the screen is read back.
        const QPointF topLeft = pane->mapToScene(QPointF(0, 0));
        return frameNumberIn(view->screen()
                                 ->grabWindow(view->winId(), int(topLeft.x()), int(topLeft.y()), paneWidth, paneHeight)
                                 .toImage()
                                 .convertToFormat(QImage::Format_RGB32));
    }

    void loadBoth(qint64 position)
    {
        QSignalSpy leftLoaded(left, &MPVObject::fileLoaded);
        QSignalSpy rightLoaded(right, &MPVObject::fileLoaded);
        left->load(clip, position);
        right->load(clip, position);
        QVERIFY(leftLoaded.count() || leftLoaded.wait(15000));
        QVERIFY(rightLoaded.count() || rightLoaded.wait(15000));
        QCOMPARE(leftLoaded.first().first().toInt(), 0);
        QCOMPARE(rightLoaded.first().first().toInt(), 1);
        // The start position of a load is a seek of its own, and mpv reports a
        // property only when it differs from what it last reported: a test's
        // seek that started before the load's "stopped" went out would show no
        // start at all. Both panes must have reported the stop and the position.
        for (int id : {0, 1}) {
            QTRY_VERIFY_WITH_TIMEOUT(!lastSeeking[id], 10000);
            QTRY_COMPARE_WITH_TIMEOUT(lastTime[id], position, 10000);
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        clip = dir.filePath(QStringLiteral("numbered.mp4"));
        QVERIFY(makeNumberedClip(clip));
        qmlRegisterType<MPVObject>("kutils.panes", 1, 0, "MPVObject");
        const QString qml = dir.filePath(QStringLiteral("Panes.qml"));
        QFile file(qml);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(kPanes);

        file.close();
        view = std::make_unique<QQuickView>();
        view->setSource(QUrl::fromLocalFile(qml));
        QCOMPARE(view->status(), QQuickView::Ready);
        left = view->rootObject()->findChild<MPVObject *>(QStringLiteral("left"));
        right = view->rootObject()->findChild<MPVObject *>(QStringLiteral("right"));
        QVERIFY(left && right);
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        // The native windows come once the scene window is on screen.
        QTRY_VERIFY(left->surface() && right->surface());
        QVERIFY(left->surface()->isValid());
        for (MPVObject *pane : {left, right}) {
            connect(pane, &MPVObject::seekingChanged, this, [this](int id, bool value) { lastSeeking[id] = value; });
            connect(pane, &MPVObject::timePosFullChanged, this, [this](int id, qlonglong pos) { lastTime[id] = pos; });
            commands.watch(*pane);
        }
        ConsoleLogger::setCaptureSink([this](const ConsoleLogger::Record &) { ++logLines; });
    }

    void cleanupTestCase()
    {
        ConsoleLogger::setCaptureSink({});
        view.reset();
    }

    void init()
    {
        commands.clear();
        logLines = 0;
    }

    void loadAndExactSeekShowThatFrame()
    {
        loadBoth(1000);
        QCOMPARE(left->getCurrentPlayingVideoPath(), clip.toStdString());
        QTRY_COMPARE_WITH_TIMEOUT(frameShown(left), 1000 / frameMs, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(frameShown(right), 1000 / frameMs, 10000);
        const qint64 target = 37 * frameMs;
        QSignalSpy seeking(left, &MPVObject::seekingChanged);
        QSignalSpy time(left, &MPVObject::timePosFullChanged);
        left->seek(target);
        // mpv folds a start into the previous report when the load's own seek was
        // still being reported, so only the stop is certain to come.
        QTRY_VERIFY_WITH_TIMEOUT(!seeking.isEmpty() && !seeking.last().at(1).toBool(), 10000);
        QCOMPARE(seeking.last().at(0).toInt(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!time.isEmpty() && time.last().at(1).toLongLong() == target, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(frameShown(left), 37, 10000);
        // The other pane stayed where it was loaded.
        QCOMPARE(frameShown(right), 1000 / frameMs);
    }

    void playingReachesTheEndPausesAndStaysOpen()
    {
        loadBoth(1600);
        QSignalSpy time(right, &MPVObject::timePosFullChanged);
        QSignalSpy paused(right, &MPVObject::paused);
        right->play();
        QTRY_VERIFY_WITH_TIMEOUT(!time.isEmpty() && time.last().at(2).toBool(), 15000);
        const qint64 endPosition = time.last().at(1).toLongLong();
        QVERIFY2(endPosition >= 49 * frameMs - 1 && endPosition <= 2000, qPrintable(QString::number(endPosition)));
        // keep-open holds the last frame and pauses there; the unpausing at the
        // start was not reported.
        QTRY_VERIFY_WITH_TIMEOUT(!paused.isEmpty(), 5000);
        QCOMPARE(paused.count(), 1);
        QCOMPARE(paused.last().first().toInt(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(frameShown(right), 49, 10000);
    }

    void zoomAndPanReachMpv()
    {
        // The right pane applies the split factors (zoom 2, pan x + 0.5); the left never does.
        for (MPVObject *pane : {left, right}) {
            pane->setSplitZoomFactor(2.0f);
            pane->setSplitPanXFactor(0.5);
            pane->setZoom(2.0);
            pane->movePan(QPointF(-0.25, -0.1));
        }
        // mpv keeps these in single precision.
        const auto property = [](MPVObject *pane, const char *name) {
            return float(pane->getPropertyDouble(QLatin1String(name)));
        };
        QTRY_COMPARE(property(left, "video-zoom"), 1.0f);
        QTRY_COMPARE(property(left, "video-pan-x"), -0.25f);
        QTRY_COMPARE(property(right, "video-zoom"), 2.0f);
        QTRY_COMPARE(property(right, "video-pan-x"), 0.25f);
        QTRY_COMPARE(property(right, "video-pan-y"), -0.1f);
        left->setZoom(1.0);
        left->movePan(QPointF(0.0, 0.0));
        right->setZoom(0.5);
        right->movePan(QPointF(-0.5, 0.0));
        QTRY_COMPARE(property(right, "video-zoom"), 0.0f);
    }

    void cropSendsOnlyChanges()
    {
        left->clearCrop();
        left->setCrop(10, 20, 160, 90);
        left->setCrop(10, 20, 160, 90);
        left->setCrop(0, 0, 320, 240);
        left->clearCrop();
        left->setCrop(0, 0, 0, 0);
        QCOMPARE(commands.of(), (QStringList{"set video-crop ", "set video-crop 160x90+10+20", "set video-crop 320x240+0+0",
                                             "set video-crop "}));
    }

    void executeCommandSplitsOnEveryBlank_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("async");
        QTest::addColumn<int>("rotation");
        QTest::newRow("asynchronous") << "set video-rotate 180" << true << 180;
        // An empty part stays an argument, and mpv refuses the whole command.
        QTest::newRow("double blank is refused") << "set  video-rotate 270" << false << 0;
    }

    void executeCommandSplitsOnEveryBlank()
    {
        QFETCH(QString, command);
        QFETCH(bool, async);
        QFETCH(int, rotation);
        left->executeCommand(QStringLiteral("set video-rotate 0"));
        QCOMPARE(left->getPropertyInt(QStringLiteral("video-rotate")), 0.0);
        left->executeCommand(command, async);
        QTRY_COMPARE(left->getPropertyInt(QStringLiteral("video-rotate")), double(rotation));
        QCOMPARE(commands.of().last(), command);
    }

    void loadPathsBecomeMpvTargets_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("target");
        QTest::newRow("plain") << "/media/a.mp4" << "/media/a.mp4";
        QTest::newRow("sequence %003d") << "C:/a/img%003d.tif" << "mf://C:/a/img*.tif";
        QTest::newRow("percent d in a name") << "C:/a/100%done.mp4" << "mf://C:/a/100*one.mp4";
        QTest::newRow("network url") << "file:///server/x.mp4" << "\\\\/server/x.mp4";
    }

    void loadPathsBecomeMpvTargets()
    {
        QFETCH(QString, path);
        QFETCH(QString, target);
        // A pane of its own, never shown: only the command matters here.
        MPVObject pane;
        commands.watch(pane, 2);
        pane.load(path, 1500);
        const QString index = MPVPlayer::loadfileTakesIndex() ? QStringLiteral(" -1") : QString();
        QCOMPARE(commands.of(2), QStringList{"loadfile " + target + " replace" + index + " start=+1.500000"});
    }

    void imageSequencePatternLoads()
    {
        QVERIFY(playermedia::ffmpeg({QStringLiteral("-i"), clip, QStringLiteral("-frames:v"), QStringLiteral("5"),
                                     dir.filePath(QStringLiteral("frame_%03d.png"))}));
        QSignalSpy loaded(left, &MPVObject::fileLoaded);
        left->load(dir.filePath(QStringLiteral("frame_%03d.png")));
        QVERIFY(loaded.wait(15000));
        QTRY_COMPARE_WITH_TIMEOUT(frameShown(left), 0, 10000);
    }

    void failedPropertyReadsAnswerDefaultsAndLog()
    {
        QCOMPARE(left->getPropertyDouble(QStringLiteral("no-such-property")), 0.0);
        QCOMPARE(left->getPropertyString(QStringLiteral("no-such-property")), std::string());
        QCOMPARE(left->getPropertyInt(QStringLiteral("no-such-property")), 0.0);
        QVERIFY(left->getPropertyInt(QStringLiteral("width")) > 0);
        // One line for each failed read, none for the good one.
        QCOMPARE(logLines, 3);
    }
};

QTEST_MAIN(tst_MPVObject)
#include "tst_MPVObject.moc"
