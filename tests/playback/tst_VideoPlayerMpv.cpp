// The two-pane player end to end: a QML scene with two real mpv panes under
// Xvfb, an input whose frames show their own number as a grey level, and a
// preview set rendered from it (one stretch tinted, one at slow motion 2).
// Both panes must follow one clock across the preview boundaries.
#include "PlayerMedia.h"

#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"

#include <QElapsedTimer>
#include <QGuiApplication>
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
        player.addPreview(5, 3, 1, 1, previewB, 2500, 500, 25.0, 2.0, 1.0, {})
        player.setPreviewSet(1, 5)
    }
}
)";

struct Report
{
    qint64 wall;
    int pane;
    qint64 inputTime;
};

} // namespace

class tst_VideoPlayerMpv : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // The scene uses the types of this build, not an installed plugin.
        qunsetenv("QML_IMPORT_PATH");
        qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
        qmlRegisterType<VideoPlayer>("kutils", 1, 0, "VideoPlayer");
    }

    void panesStayOnOneClockAcrossPreviewBoundaries()
    {
        QTemporaryDir dir;
        const QString input = dir.filePath(QStringLiteral("input.mp4"));
        const QString previewA = dir.filePath(QStringLiteral("tinted.mp4"));
        const QString previewB = dir.filePath(QStringLiteral("slow.mp4"));
        QVERIFY(playermedia::makeInput(input));
        QVERIFY(playermedia::makePreview(input, previewA, 1000, 1000, 1));
        QVERIFY(playermedia::makePreview(input, previewB, 2500, 500, 2));

        QQmlEngine engine;
        QQmlComponent component(&engine);
        component.setData(kScene, QUrl());
        std::unique_ptr<QObject> root(component.create());
        QVERIFY2(root, qPrintable(component.errorString()));
        auto *window = qobject_cast<QQuickWindow *>(root.get());
        auto *player = qobject_cast<VideoPlayer *>(root->property("player").value<QObject *>());
        auto *left = qobject_cast<MPVObject *>(root->property("left").value<QObject *>());
        auto *right = qobject_cast<MPVObject *>(root->property("right").value<QObject *>());
        QVERIFY(window && player && left && right);
        QTRY_VERIFY_WITH_TIMEOUT(left->surface() && right->surface(), 30000);

        // Where each report of a pane stands on the input's axis, by the file it plays.
        const auto toInput = [&](const std::string &path, qint64 pos) -> qint64 {
            const QString file = QString::fromStdString(path);
            if (file == previewA)
                return 1000 + pos;
            if (file == previewB)
                return 2500 + pos / 2;
            return pos;
        };
        QElapsedTimer clock;
        clock.start();
        std::vector<Report> reports;
        qint64 lastLoad = 0;
        const auto follow = [&](MPVObject *pane, int id) {
            connect(pane, &MPVObject::timePosFullChanged, this, [&, pane, id](int, qlonglong pos, bool) {
                if (player->getIsPlaying())
                    reports.push_back({clock.elapsed(), id, toInput(pane->getCurrentPlayingVideoPath(), pos)});
            });
            connect(pane, &MPVObject::fileLoaded, this, [&] { lastLoad = clock.elapsed(); });
        };
        follow(left, 0);
        follow(right, 1);

        QSignalSpy opened(player, &VideoPlayer::openedInput);
        QMetaObject::invokeMethod(root.get(), "openAll", Q_ARG(QVariant, input), Q_ARG(QVariant, previewA),
                                  Q_ARG(QVariant, previewB));
        QVERIFY(opened.wait(10000));
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        QCOMPARE(player->getPreviewRanges(5).size(), 2u);

        player->seek(600);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        player->play();
        QTRY_VERIFY_WITH_TIMEOUT(player->getIsPlaying(), 30000);
        // Through the tinted preview, back to the input, through the slowed one.
        QTRY_VERIFY_WITH_TIMEOUT(player->getInputTimestamp() >= 3300, 40000);
        QVERIFY(player->getIsPlaying());

        // Each right report against the left pane's latest, carried forward by
        // the wall time between them; reports just after a load may still come
        // from the file before it and are left out.
        std::vector<qint64> offsets;
        qint64 leftWall = -1;
        qint64 leftTime = 0;
        for (const Report &report : reports) {
            if (report.pane == 0) {
                leftWall = report.wall;
                leftTime = report.inputTime;
                continue;
            }
            if (leftWall < 0 || report.wall - leftWall > 100 || std::abs(report.wall - lastLoad) < 300)
                continue;
            offsets.push_back(std::abs(report.inputTime - (leftTime + report.wall - leftWall)));
        }
        QVERIFY2(offsets.size() > 20, qPrintable(QString::number(offsets.size())));
        std::sort(offsets.begin(), offsets.end());
        const qint64 median = offsets[offsets.size() / 2];
        QVERIFY2(median <= 80, qPrintable(QStringLiteral("median offset %1 ms").arg(median)));

        // Paused, both panes come to rest on one input frame.
        player->pause();
        QTRY_VERIFY_WITH_TIMEOUT(!player->getIsPlaying() && player->isIdle(), 30000);
        player->seek(1480);
        QTRY_VERIFY_WITH_TIMEOUT(player->isIdle(), 30000);
        const double expected = 1480 / 40;
        double shownLeft = -1;
        double shownRight = -1;
        const auto bothShowExpected = [&] {
            const QImage grab = window->screen()->grabWindow(window->winId()).toImage();
            shownLeft = playermedia::frameShown(grab, QRect(40, 40, 240, 160));
            shownRight = playermedia::frameShown(grab, QRect(360, 40, 240, 160));
            return std::abs(shownLeft - expected) < 0.5 && std::abs(shownRight - expected) < 0.5;
        };
        QVERIFY2(QTest::qWaitFor(bothShowExpected, 30000),
                 qPrintable(QStringLiteral("left %1 right %2 expected %3").arg(shownLeft).arg(shownRight).arg(expected)));
        QVERIFY2(std::abs(shownLeft - shownRight) < 0.5,
                 qPrintable(QStringLiteral("left %1 right %2").arg(shownLeft).arg(shownRight)));
    }
};

QTEST_MAIN(tst_VideoPlayerMpv)
#include "tst_VideoPlayerMpv.moc"
