// The two-pane player end to end: a QML scene with two real mpv panes under
// Xvfb, an input whose frames show their own number as a grey level, and a
// preview set rendered from it (one stretch tinted, one at slow motion 2).
// Both panes must follow one clock across the preview boundaries.
#include "PaneOffsets.h"
#include "PlayerMedia.h"

#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"

#include <QGuiApplication>
#include <QPointer>
#include <QProcess>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QScreen>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

using videoplayer::VideoPlayer;

namespace {

const QByteArray kScene = R"(
import QtQuick
import QtQuick.Window
import kutils 1.0
Window {
    width: 640; height: 240; visible: true; color: "black"
    property alias player: player
    property alias left: left
    property alias right: right
    MPVObject { id: left; x: 0; y: 0; width: 320; height: 240 }
    MPVObject { id: right; x: 320; y: 0; width: 320; height: 240 }
    VideoPlayer { id: player; m_mpvs: [left, right] }
    function openAll(input, previewA, previewB) {
        player.addInput(1, 0, input, 4000, 25.0, 1.0, true, { duration: 4000, fps: 25.0 })
        player.addPreview(5, 2, 1, 1, previewA, 1000, 1000, 25.0, 1.0, 1.0, {})
        player.addPreview(5, 3, 1, 1, previewB, 2520, 480, 25.0, 2.0, 1.0, {})
        player.setPreviewSet(1, 5)
    }
}
)";

// Where the preview set cuts the input, on its axis.
const double kCuts[] = {1000, 2001, 2520, 3001};

} // namespace

class tst_VideoPlayerMpv : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    QString input, previewA, previewB;

    struct Scene
    {
        QQmlEngine engine;
        std::unique_ptr<QObject> root;
        QQuickWindow *window = nullptr;
        VideoPlayer *player = nullptr;
        MPVObject *left = nullptr;
        MPVObject *right = nullptr;

        template<typename T>
        T *item(const char *name) const
        {
            return qobject_cast<T *>(root->property(name).value<QObject *>());
        }
        // Waits until both panes show input frame `frame` in grabs of the
        // window; says what they show if they never do.
        QString waitForBothOn(double frame) const
        {
            double left = -1;
            double right = -1;
            const bool landed = QTest::qWaitFor([&] {
                const QImage grab = window->screen()->grabWindow(window->winId()).toImage();
                left = playermedia::frameShown(grab, QRect(40, 40, 240, 160));
                right = playermedia::frameShown(grab, QRect(360, 40, 240, 160));
                return std::abs(left - frame) < 0.5 && std::abs(right - frame) < 0.5;
            }, 30000);
            return landed ? QString() : QStringLiteral("left %1 right %2, asked %3").arg(left).arg(right).arg(frame);
        }
    };

    // A scene whose panes have their native windows; nothing is loaded yet.
    std::unique_ptr<Scene> makeScene()
    {
        auto scene = std::make_unique<Scene>();
        QQmlComponent component(&scene->engine);
        component.setData(kScene, QUrl());
        scene->root.reset(component.create());
        if (!scene->root) {
            qWarning() << component.errorString();
            return nullptr;
        }
        scene->window = qobject_cast<QQuickWindow *>(scene->root.get());
        scene->player = scene->item<VideoPlayer>("player");
        scene->left = scene->item<MPVObject>("left");
        scene->right = scene->item<MPVObject>("right");
        if (!QTest::qWaitFor([&] { return scene->left->surface() && scene->right->surface(); }, 30000))
            return nullptr;
        return scene;
    }

    void openAll(Scene &scene)
    {
        QMetaObject::invokeMethod(scene.root.get(), "openAll", Q_ARG(QVariant, input), Q_ARG(QVariant, previewA),
                                  Q_ARG(QVariant, previewB));
    }

private slots:
    void initTestCase()
    {
        // The scene uses the types of this build, not an installed plugin.
        qunsetenv("QML_IMPORT_PATH");
        qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
        qmlRegisterType<VideoPlayer>("kutils", 1, 0, "VideoPlayer");
        input = dir.filePath(QStringLiteral("input.mp4"));
        previewA = dir.filePath(QStringLiteral("tinted.mp4"));
        previewB = dir.filePath(QStringLiteral("slow.mp4"));
        QVERIFY(playermedia::makeInput(input));
        QVERIFY(playermedia::makePreview(input, previewA, 1000, 1000, 1));
        QVERIFY(playermedia::makePreview(input, previewB, 2520, 480, 2));
    }

    // A front end restoring a saved position asks for it right after opening,
    // while both panes are still loading: the request must not be lost to the
    // load's own start position.
    void requestsRightAfterOpeningLand_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<int>("frame");
        QTest::newRow("seek") << "seek" << 35;
        QTest::newRow("next") << "next" << 1;
        QTest::newRow("play") << "play" << -1;
    }

    void requestsRightAfterOpeningLand()
    {
        QFETCH(QString, request);
        QFETCH(int, frame);
        const auto scene = makeScene();
        QVERIFY(scene);
        VideoPlayer *player = scene->player;
        openAll(*scene);
        if (request == QLatin1String("seek"))
            player->seek(frame * 40);
        else if (request == QLatin1String("next"))
            player->next();
        else
            player->play();
        if (frame < 0) {
            QTRY_VERIFY_WITH_TIMEOUT(player->getIsPlaying() && player->getInputTimestamp() > 400, 30000);
            player->pause();
            QTRY_VERIFY_WITH_TIMEOUT(!player->getIsPlaying() && player->isIdle(), 30000);
            frame = static_cast<int>(player->getInputTimestamp() / 40);
        }
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        QCOMPARE(player->getInputTimestamp() / 40, frame);
        const QString missed = scene->waitForBothOn(frame);
        QVERIFY2(missed.isEmpty(), qPrintable(missed));
    }

    // A pane that lost a command while both play (here: sent elsewhere behind
    // the player's back) is brought back long before the next boundary.
    void aStrayPaneIsPulledBackWhilePlaying()
    {
        const auto scene = makeScene();
        QVERIFY(scene);
        VideoPlayer *player = scene->player;
        openAll(*scene);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle() && player->getIsOpen(), 30000);
        player->seek(40);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        player->play();
        QTRY_VERIFY_WITH_TIMEOUT(player->getInputTimestamp() >= 160, 30000);
        const double at = scene->right->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0;
        scene->right->seek(static_cast<qint64>(at) + 320);
        // Until 1000 ms both panes play the input; the player's own switch
        // there would realign them anyway.
        QTRY_VERIFY_WITH_TIMEOUT(player->getInputTimestamp() >= 760, 30000);
        QVERIFY(player->getIsPlaying());
        for (int sample = 0; sample < 5; ++sample) {
            const double l = scene->left->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0;
            const double r = scene->right->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0;
            QVERIFY2(std::abs(l - r) <= 40.0, qPrintable(QStringLiteral("left %1 right %2").arg(l).arg(r)));
            QTest::qWait(20);
        }
    }

    // The scene owns the panes and may destroy one, or everything, in any
    // order while the player's worker is about to command them.
    void destroyingPanesMidPlayOrSeek_data()
    {
        QTest::addColumn<QString>("doomed");
        QTest::addColumn<bool>("playing");
        QTest::newRow("left pane while playing") << "left" << true;
        QTest::newRow("right pane amid seeks") << "right" << false;
        QTest::newRow("player before its panes, amid seeks") << "player" << false;
        QTest::newRow("whole scene while playing") << "scene" << true;
    }

    void destroyingPanesMidPlayOrSeek()
    {
        QFETCH(QString, doomed);
        QFETCH(bool, playing);
        auto scene = makeScene();
        QVERIFY(scene);
        QPointer<VideoPlayer> player = scene->player;
        openAll(*scene);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle() && player->getIsOpen(), 30000);
        if (playing) {
            player->play();
            QTRY_VERIFY_WITH_TIMEOUT(player->getInputTimestamp() > 200, 30000);
        }
        for (int ms = 0; ms < 2000; ms += 160)
            player->seek(ms);
        if (doomed == QLatin1String("left"))
            delete scene->left;
        else if (doomed == QLatin1String("right"))
            delete scene->right;
        else if (doomed == QLatin1String("player"))
            delete scene->player;
        else
            scene.reset();
        if (player) {
            // The survivors go on taking requests.
            player->seek(1200);
            player->play();
            player->next();
            player->setZoom(2.0);
            QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        }
        QTest::qWait(200);
    }

    // A preview at twice its input's rate (an interpolating enhancement) is held
    // on the same instant, never more than one of its own frames away; tools
    // that pair frames by number lose step exactly here.
    void aPreviewAtAnotherRateStaysOnTheSameInstant()
    {
        const QString fast = dir.filePath(QStringLiteral("fifty.mp4"));
        QVERIFY(playermedia::makePreview(input, fast, 1000, 1000, 1, 50));
        const auto scene = makeScene();
        QVERIFY(scene);
        VideoPlayer *player = scene->player;
        player->addInput(1, 0, input, 4000, 25.0, 1.0, true, {{QStringLiteral("duration"), 4000}});
        player->addPreview(5, 4, 1, 1, fast, 1000, 1000, 50.0, 1.0, 1.0, {});
        player->setPreviewSet(1, 5);
        player->seek(1480);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle() && player->getIsOpen(), 30000);
        const auto fileTime = [](MPVObject *pane) { return pane->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0; };
        QTRY_COMPARE_WITH_TIMEOUT(qRound(fileTime(scene->right)), 480, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(qRound(fileTime(scene->left)), 1480, 20000);
        player->seek(1040);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        player->play();
        QTRY_VERIFY_WITH_TIMEOUT(player->getIsPlaying(), 20000);
        QTest::qWait(200);
        int samples = 0;
        const auto inStep = [&] {
            if (!player->getIsPlaying())
                return false;
            // The left pane's report lags its clock by up to one of its 40 ms frames.
            const double lead = fileTime(scene->right) + 1000.0 - fileTime(scene->left);
            if (lead < -20.0 - 5.0 || lead > 40.0 + 20.0 + 5.0) {
                qWarning() << "right pane" << lead << "ms from the left";
                return true;
            }
            return ++samples >= 30 || player->getInputTimestamp() >= 1800;
        };
        QVERIFY(QTest::qWaitFor(inStep, 20000));
        QVERIFY2(samples >= 10, qPrintable(QString::number(samples)));
    }

    // Both panes on one frame through the tinted preview, back on the input and
    // through the slowed one, also with every core busy (the application
    // renders on the machine it previews on). Two software-GL windows flip on
    // their own, so the photographs allow a frame at the cuts.
    void panesStayOnOneFrameAcrossPreviews_data()
    {
        QTest::addColumn<bool>("busy");
        QTest::addColumn<int>("onOneFrame");  // per cent of photographs away from a cut
        QTest::addColumn<double>("mostMs");   // widest steady gap from mpv's reports
        QTest::newRow("idle") << false << 90 << 80.0;
        // The machine the suite runs on is shared beyond the encode: a little
        // slack, and a stalled decoder may stray a frame further before it is pulled back.
        QTest::newRow("beside an encode") << true << 85 << 120.0;
    }

    void panesStayOnOneFrameAcrossPreviews()
    {
        QFETCH(bool, busy);
        QFETCH(int, onOneFrame);
        QFETCH(double, mostMs);
        const auto scene = makeScene();
        QVERIFY(scene);
        VideoPlayer *player = scene->player;
        playermedia::PaneOffsets offsets(scene->left, scene->right, [&](const QString &file, double ms) {
            return file == previewA ? playermedia::PaneOffsets::OnInput{1000 + ms, 1}
                 : file == previewB ? playermedia::PaneOffsets::OnInput{2520 + ms / 2, 2}
                                    : playermedia::PaneOffsets::OnInput{ms, 1};
        });
        const auto nearCut = [](double ms) {
            return std::any_of(std::begin(kCuts), std::end(kCuts), [&](double cut) { return std::abs(ms - cut) <= 80; });
        };
        QProcess encode;
        if (busy)
            QVERIFY(playermedia::startBackgroundEncode(encode));
        openAll(*scene);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle() && player->getIsOpen(), 30000);
        QCOMPARE(player->getPreviewRanges(5).size(), 2u);
        // One pass from 600 ms across both previews; the text says what missed.
        const auto playAcross = [&]() -> QString {
            player->pause();
            player->seek(600);
            if (!QTest::qWaitFor([&] { return player->isIdle() && !player->getIsPlaying(); }, 30000))
                return QStringLiteral("no rest before playing");
            const QString missed = scene->waitForBothOn(600 / 40);
            if (!missed.isEmpty())
                return missed;
            offsets.samples.clear();
            offsets.setTaking(true);
            player->play();
            int photos = 0;
            int photosApart = 0;
            QStringList twoApart;
            int tick = 0;
            const auto photograph = [&] {
                // A grab every few polls: each one holds the X server, and with it both panes' flips.
                if (player->getIsPlaying() && ++tick % 3 == 0) {
                    const QImage grab = scene->window->screen()->grabWindow(scene->window->winId()).toImage();
                    const double left = std::round(playermedia::frameShown(grab, QRect(40, 40, 240, 160)));
                    const double right = std::round(playermedia::frameShown(grab, QRect(360, 40, 240, 160)));
                    if (std::abs(left - right) > 1)
                        twoApart.append(QStringLiteral("%1 beside %2").arg(left).arg(right));
                    if (!nearCut(left * 40)) {
                        ++photos;
                        photosApart += left != right;
                    }
                }
                return player->getInputTimestamp() >= 3300;
            };
            const bool crossed = QTest::qWaitFor(photograph, 40000);
            offsets.setTaking(false);
            if (!crossed || !player->getIsPlaying())
                return QStringLiteral("playback stopped short of 3300 ms");
            // From mpv's reports, away from a cut: mostly on one instant, and never
            // lost. Two cores unpaused together at a cut start up to a frame apart,
            // which the lock's trims take a few hundred milliseconds to close.
            std::vector<double> steady;
            for (const auto &sample : offsets.samples) {
                if (!nearCut(sample.inputMs) && !nearCut(sample.inputMs - sample.rightMinusLeft))
                    steady.push_back(std::abs(sample.rightMinusLeft));
            }
            if (steady.size() <= 30)
                return QStringLiteral("only %1 position samples").arg(steady.size());
            std::sort(steady.begin(), steady.end());
            if (steady[steady.size() / 2] > 5 || steady.back() > mostMs)
                return QStringLiteral("median %1 ms, most %2 ms").arg(steady[steady.size() / 2]).arg(steady.back());
            // Photographs: never two frames apart, and mostly on one frame away from a cut.
            if (!twoApart.isEmpty())
                return twoApart.join(QStringLiteral(", "));
            if (photos <= 20 || (photos - photosApart) * 100 < onOneFrame * photos)
                return QStringLiteral("%1 of %2 apart").arg(photosApart).arg(photos);
            return {};
        };
        // Two software-GL windows flip on their own and the machine is shared:
        // one pass may catch a stray flip, a lock that fails does so twice.
        QString failure = playAcross();
        if (!failure.isEmpty()) {
            qInfo("Retaking the pass after: %s", qPrintable(failure));
            failure = playAcross();
        }
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        encode.kill();
        encode.waitForFinished();

        // Paused, both panes come to rest on one input frame.
        player->pause();
        QTRY_VERIFY_WITH_TIMEOUT(!player->getIsPlaying() && player->isIdle(), 30000);
        player->seek(1480);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        const QString rested = scene->waitForBothOn(1480 / 40);
        QVERIFY2(rested.isEmpty(), qPrintable(rested));
    }
};

QTEST_MAIN(tst_VideoPlayerMpv)
#include "tst_VideoPlayerMpv.moc"
