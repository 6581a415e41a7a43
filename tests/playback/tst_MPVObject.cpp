// Two mpv panes in one Quick window, on clips that ffmpeg makes at test time.
// Each frame carries its own number as eight black or white bars (bit i of the
// frame number in bar i), so a grab of the screen tells which frame a pane shows.
#include "os/NativeSurface.h"
#include "playback/MPVObject.h"
#include "timeline/ConsoleLogger.h"

#include <QGuiApplication>
#include <QProcess>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <mutex>

namespace {

constexpr int paneWidth = 320;
constexpr int paneHeight = 240;
constexpr int fps = 25;
constexpr int frameMs = 1000 / fps;

bool runFfmpeg(const QStringList &arguments)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")} + arguments);
    if (!ffmpeg.waitForFinished(60000) || ffmpeg.exitCode() != 0) {
        qWarning() << "ffmpeg failed:" << ffmpeg.readAllStandardError();
        return false;
    }
    return true;
}

// A lossless clip of `frames` frames whose picture is its frame number in bars.
bool makeNumberedClip(const QString &path, int frames)
{
    const QString source = QStringLiteral("color=c=black:s=%1x%2:r=%3:d=%4,format=yuv420p,"
                                          "geq=lum='16+219*mod(floor(N/pow(2\\,floor(X/40)))\\,2)':cb=128:cr=128")
                               .arg(paneWidth)
                               .arg(paneHeight)
                               .arg(fps)
                               .arg(double(frames) / fps);
    return runFfmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), source,
                      QStringLiteral("-c:v"), QStringLiteral("libx264"), QStringLiteral("-qp"), QStringLiteral("0"),
                      QStringLiteral("-g"), QStringLiteral("10"), QStringLiteral("-bf"), QStringLiteral("0"), path});
}

// The frame that ffmpeg decodes at `ms`, as an RGB image.
QImage ffmpegFrame(const QString &clip, qint64 ms, const QString &out)
{
    if (!runFfmpeg({QStringLiteral("-ss"), QString::number(ms / 1000.0, 'f', 3), QStringLiteral("-i"), clip,
                    QStringLiteral("-frames:v"), QStringLiteral("1"), out}))
        return {};
    return QImage(out).convertToFormat(QImage::Format_RGB32);
}

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

double meanDifference(const QImage &a, const QImage &b)
{
    if (a.size() != b.size())
        return 255.0;
    qint64 total = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            total += qAbs(qRed(p) - qRed(q)) + qAbs(qGreen(p) - qGreen(q)) + qAbs(qBlue(p) - qBlue(q));
        }
    return double(total) / (3.0 * a.width() * a.height());
}

} // namespace

class tst_MPVObject : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void bothPanesLoadAtAPositionAndShowThatFrame();
    void exactSeekWhilePausedShowsTheFrameFfmpegDecodes();
    void playingReachesTheEndAndStaysOpen();
    void pauseIsReportedButUnpausingIsNot();
    void zoomAndPanReachMpv_data();
    void zoomAndPanReachMpv();
    void cropSendsOnlyChanges();
    void executeCommandSplitsOnEveryBlank_data();
    void executeCommandSplitsOnEveryBlank();
    void loadPathsBecomeMpvTargets_data();
    void loadPathsBecomeMpvTargets();
    void imageSequencePatternLoads();
    void failedPropertyReadsAnswerDefaultsAndLog();
    void nativeSurfaceFollowsTheItem();
    void destroyingAPlayingPaneIsClean();

private:
    QImage grabPane(MPVObject *pane) const;
    void loadBoth(qint64 position);

    QTemporaryDir dir;
    QString clip;
    std::unique_ptr<QQuickView> view;
    MPVObject *left = nullptr;
    MPVObject *right = nullptr;
    bool lastSeeking[2] = {false, false};
    qint64 lastTime[2] = {-1, -1};
    std::mutex commandsMutex;
    QList<QStringList> commands;
    std::mutex logMutex;
    QList<ConsoleLogger::Record> logs;
};

void tst_MPVObject::initTestCase()
{
    QVERIFY(dir.isValid());
    clip = dir.filePath(QStringLiteral("numbered.mp4"));
    QVERIFY(makeNumberedClip(clip, 50));

    qmlRegisterType<MPVObject>("kutils.panes", 1, 0, "MPVObject");
    const QString qml = dir.filePath(QStringLiteral("Panes.qml"));
    QFile file(qml);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(R"(import QtQuick
import kutils.panes 1.0
Rectangle {
    width: 700; height: 280; color: "#303030"
    MPVObject { objectName: "left"; x: 10; y: 20; width: 320; height: 240; Component.onCompleted: setMPVID(0) }
    MPVObject { objectName: "right"; x: 350; y: 20; width: 320; height: 240; Component.onCompleted: setMPVID(1) }
}
)");
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
    }
    for (MPVObject *pane : {left, right})
        pane->player().setCommandObserver([this](const QStringList &words) {
            const std::lock_guard lock(commandsMutex);
            commands.append(words);
        });
    ConsoleLogger::setCaptureSink([this](const ConsoleLogger::Record &record) {
        const std::lock_guard lock(logMutex);
        logs.append(record);
    });
}

void tst_MPVObject::cleanupTestCase()
{
    ConsoleLogger::setCaptureSink({});
    view.reset();
}

void tst_MPVObject::init()
{
    const std::lock_guard lock(commandsMutex);
    commands.clear();
}

QImage tst_MPVObject::grabPane(MPVObject *pane) const
{
    // The scene's own grab holds only what Qt renders; mpv's pixels live in the
    // native child, so the screen is read back.
    const QPointF topLeft = pane->mapToScene(QPointF(0, 0));
    return view->screen()
        ->grabWindow(view->winId(), int(topLeft.x()), int(topLeft.y()), paneWidth, paneHeight)
        .toImage()
        .convertToFormat(QImage::Format_RGB32);
}

void tst_MPVObject::loadBoth(qint64 position)
{
    QSignalSpy leftLoaded(left, &MPVObject::fileLoaded);
    QSignalSpy rightLoaded(right, &MPVObject::fileLoaded);
    left->load(clip, position);
    right->load(clip, position);
    QVERIFY(leftLoaded.count() || leftLoaded.wait(15000));
    QVERIFY(rightLoaded.count() || rightLoaded.wait(15000));
    QCOMPARE(leftLoaded.first().first().toInt(), 0);
    QCOMPARE(rightLoaded.first().first().toInt(), 1);
    // The start position of a load is a seek of its own; let it finish so that
    // its reports do not mix with a test's.
    // mpv reports a property only when it differs from what it last reported,
    // so a seek that starts before the load's "stopped" went out would show no
    // start at all. Both panes must have reported the stop and the position.
    for (int id : {0, 1}) {
        QTRY_VERIFY_WITH_TIMEOUT(!lastSeeking[id], 10000);
        QTRY_COMPARE_WITH_TIMEOUT(lastTime[id], position, 10000);
    }
}

void tst_MPVObject::bothPanesLoadAtAPositionAndShowThatFrame()
{
    QSignalSpy leftTime(left, &MPVObject::timePosFullChanged);
    loadBoth(1000);
    QTRY_VERIFY_WITH_TIMEOUT(!leftTime.isEmpty() && leftTime.last().at(1).toLongLong() == 1000, 10000);
    QCOMPARE(left->getCurrentPlayingVideoPath(), clip.toStdString());
    QTRY_COMPARE_WITH_TIMEOUT(frameNumberIn(grabPane(left)), 1000 / frameMs, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(frameNumberIn(grabPane(right)), 1000 / frameMs, 10000);
}

void tst_MPVObject::exactSeekWhilePausedShowsTheFrameFfmpegDecodes()
{
    loadBoth(0);
    const qint64 target = 37 * frameMs;
    QSignalSpy seeking(left, &MPVObject::seekingChanged);
    QSignalSpy time(left, &MPVObject::timePosFullChanged);
    left->seek(target);
    // mpv folds a start into the previous report when the load's own seek was
    // still being reported, so only the stop is certain to come.
    QTRY_VERIFY_WITH_TIMEOUT(!seeking.isEmpty() && !seeking.last().at(1).toBool(), 10000);
    QCOMPARE(seeking.last().at(0).toInt(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(!time.isEmpty() && time.last().at(1).toLongLong() == target, 5000);

    const QImage reference = ffmpegFrame(clip, target, dir.filePath(QStringLiteral("ref.png")));
    QCOMPARE(frameNumberIn(reference), 37); // the fixture itself must tell frames apart
    QTRY_COMPARE_WITH_TIMEOUT(frameNumberIn(grabPane(left)), 37, 10000);
    QVERIFY2(meanDifference(grabPane(left), reference) < 8.0, "the pane differs from ffmpeg's frame");
    // The other pane stayed where it was loaded.
    QCOMPARE(frameNumberIn(grabPane(right)), 0);
}

void tst_MPVObject::playingReachesTheEndAndStaysOpen()
{
    loadBoth(1600);
    QSignalSpy time(right, &MPVObject::timePosFullChanged);
    QSignalSpy paused(right, &MPVObject::paused);
    right->play();
    QTRY_VERIFY_WITH_TIMEOUT(!time.isEmpty() && time.last().at(2).toBool(), 15000);
    const qint64 endPosition = time.last().at(1).toLongLong();
    QVERIFY2(endPosition >= 49 * frameMs - 1 && endPosition <= 2000, qPrintable(QString::number(endPosition)));
    // keep-open holds the last frame and pauses there.
    QTRY_VERIFY_WITH_TIMEOUT(!paused.isEmpty(), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(frameNumberIn(grabPane(right)), 49, 10000);
}

void tst_MPVObject::pauseIsReportedButUnpausingIsNot()
{
    loadBoth(0);
    QSignalSpy paused(left, &MPVObject::paused);
    QSignalSpy time(left, &MPVObject::timePosFullChanged);
    left->play();
    QTRY_VERIFY_WITH_TIMEOUT(!time.isEmpty() && time.last().at(1).toLongLong() > 0, 10000);
    QCOMPARE(paused.count(), 0);
    left->pause();
    QVERIFY(paused.wait(5000));
    QCOMPARE(paused.last().first().toInt(), 0);
}

void tst_MPVObject::zoomAndPanReachMpv_data()
{
    QTest::addColumn<int>("pane");
    QTest::addColumn<double>("zoom");
    QTest::addColumn<QPointF>("pan");
    QTest::addColumn<double>("expectedZoom");
    QTest::addColumn<QPointF>("expectedPan");
    // The right pane applies the split factors (zoom 2, pan x + 0.5); the left never does.
    QTest::newRow("left unit zoom") << 0 << 1.0 << QPointF(0.1, 0.2) << 0.0 << QPointF(0.1, 0.2);
    QTest::newRow("left double zoom") << 0 << 2.0 << QPointF(-0.25, 0.0) << 1.0 << QPointF(-0.25, 0.0);
    QTest::newRow("right unit zoom split") << 1 << 1.0 << QPointF(0.1, 0.2) << 1.0 << QPointF(0.6, 0.2);
    QTest::newRow("right half zoom split") << 1 << 0.5 << QPointF(0.0, -0.1) << 0.0 << QPointF(0.5, -0.1);
}

void tst_MPVObject::zoomAndPanReachMpv()
{
    QFETCH(int, pane);
    QFETCH(double, zoom);
    QFETCH(QPointF, pan);
    QFETCH(double, expectedZoom);
    QFETCH(QPointF, expectedPan);
    MPVObject *target = pane == 0 ? left : right;
    left->setSplitZoomFactor(2.0f);
    left->setSplitPanXFactor(0.5);
    right->setSplitZoomFactor(2.0f);
    right->setSplitPanXFactor(0.5);
    target->setZoom(zoom);
    target->movePan(pan);
    // mpv keeps these in single precision.
    const auto property = [target](const char *name) {
        return float(target->getPropertyDouble(QLatin1String(name)));
    };
    QTRY_COMPARE(property("video-zoom"), float(expectedZoom));
    QTRY_COMPARE(property("video-pan-x"), float(expectedPan.x()));
    QTRY_COMPARE(property("video-pan-y"), float(expectedPan.y()));
    target->setZoom(pane == 1 ? 0.5 : 1.0);
    target->movePan(QPointF(pane == 1 ? -0.5 : 0.0, 0.0));
}

void tst_MPVObject::cropSendsOnlyChanges()
{
    left->clearCrop();
    left->setCrop(10, 20, 160, 90);
    left->setCrop(10, 20, 160, 90);
    left->setCrop(0, 0, 320, 240);
    left->clearCrop();
    left->setCrop(0, 0, 0, 0);
    const std::lock_guard lock(commandsMutex);
    const QList<QStringList> expected{
        {"set", "video-crop", ""},
        {"set", "video-crop", "160x90+10+20"},
        {"set", "video-crop", "320x240+0+0"},
        {"set", "video-crop", ""},
    };
    QCOMPARE(commands, expected);
}

void tst_MPVObject::executeCommandSplitsOnEveryBlank_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("async");
    QTest::addColumn<int>("rotation");
    QTest::newRow("synchronous") << "set video-rotate 90" << false << 90;
    QTest::newRow("asynchronous") << "set video-rotate 180" << true << 180;
    // An empty part stays an argument, and mpv refuses the whole command.
    QTest::newRow("double blank is refused") << "set  video-rotate 270" << false << 0;
}

void tst_MPVObject::executeCommandSplitsOnEveryBlank()
{
    QFETCH(QString, command);
    QFETCH(bool, async);
    QFETCH(int, rotation);
    left->executeCommand(QStringLiteral("set video-rotate 0"));
    left->executeCommand(command, async);
    if (!async)
        QCOMPARE(left->getPropertyInt(QStringLiteral("video-rotate")), double(rotation));
    QTRY_COMPARE(left->getPropertyInt(QStringLiteral("video-rotate")), double(rotation));
    const std::lock_guard lock(commandsMutex);
    QCOMPARE(commands.last().size(), command.count(QLatin1Char(' ')) + 1);
}

void tst_MPVObject::loadPathsBecomeMpvTargets_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("target");
    QTest::newRow("plain") << "/media/a.mp4" << "/media/a.mp4";
    QTest::newRow("sequence %d") << "C:/a/img%d.tif" << "mf://C:/a/img*.tif";
    QTest::newRow("sequence %003d") << "C:/a/img%003d.tif" << "mf://C:/a/img*.tif";
    QTest::newRow("percent d in a name") << "C:/a/100%done.mp4" << "mf://C:/a/100*one.mp4";
    QTest::newRow("network url") << "file:///server/x.mp4" << "\\\\/server/x.mp4";
}

void tst_MPVObject::loadPathsBecomeMpvTargets()
{
    QFETCH(QString, path);
    QFETCH(QString, target);
    // A pane of its own, never shown: only the command matters here.
    MPVObject pane;
    pane.player().setCommandObserver([this](const QStringList &words) {
        const std::lock_guard lock(commandsMutex);
        commands.append(words);
    });
    pane.load(path, 1500);
    const std::lock_guard lock(commandsMutex);
    QCOMPARE(commands.size(), 1);
    QStringList expected{"loadfile", target, "replace"};
    if (MPVPlayer::loadfileTakesIndex())
        expected << "-1";
    expected << "start=+1.500000";
    QCOMPARE(commands.first(), expected);
}

void tst_MPVObject::imageSequencePatternLoads()
{
    QVERIFY(runFfmpeg({QStringLiteral("-i"), clip, QStringLiteral("-frames:v"), QStringLiteral("5"),
                       dir.filePath(QStringLiteral("frame_%03d.png"))}));
    QSignalSpy loaded(left, &MPVObject::fileLoaded);
    left->load(dir.filePath(QStringLiteral("frame_%03d.png")));
    QVERIFY(loaded.wait(15000));
    QTRY_COMPARE_WITH_TIMEOUT(frameNumberIn(grabPane(left)), 0, 10000);
}

void tst_MPVObject::failedPropertyReadsAnswerDefaultsAndLog()
{
    {
        const std::lock_guard lock(logMutex);
        logs.clear();
    }
    QCOMPARE(left->getPropertyDouble(QStringLiteral("no-such-property")), 0.0);
    QCOMPARE(left->getPropertyString(QStringLiteral("no-such-property")), std::string());
    QCOMPARE(left->getPropertyInt(QStringLiteral("no-such-property")), 0.0);
    QCOMPARE(left->getPropertyInt(QStringLiteral("width")) > 0, true);
    const std::lock_guard lock(logMutex);
    QStringList words;
    for (const auto &record : std::as_const(logs))
        words << record.message;
    QCOMPARE(words.size(), 3);
    QVERIFY(words[0].startsWith(QStringLiteral("get_double_property failed -")));
    QVERIFY(words[1].startsWith(QStringLiteral("get_string_property failed -")));
    QCOMPARE(words[2], QStringLiteral("get_int_property failed"));
}

void tst_MPVObject::nativeSurfaceFollowsTheItem()
{
    QCOMPARE(view->devicePixelRatio(), 1.0);
    QTRY_COMPARE(left->surface()->nativeGeometry(), QRect(10, 20, 320, 240));
    right->setWidth(300);
    right->setX(360.7);
    QTRY_COMPARE(right->surface()->nativeGeometry(), QRect(360, 20, 300, 240));
    right->setX(350);
    right->setWidth(320);
    QTRY_COMPARE(right->surface()->nativeGeometry(), QRect(350, 20, 320, 240));
}

void tst_MPVObject::destroyingAPlayingPaneIsClean()
{
    loadBoth(0);
    right->play();
    QSignalSpy time(right, &MPVObject::timePosFullChanged);
    QVERIFY(time.wait(5000));
    delete right;
    right = nullptr;
    // The left pane keeps working after its neighbour went.
    QSignalSpy loaded(left, &MPVObject::fileLoaded);
    left->load(clip, 400);
    QVERIFY(loaded.wait(10000));
}

QTEST_MAIN(tst_MPVObject)
#include "tst_MPVObject.moc"
