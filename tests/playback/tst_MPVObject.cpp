// Two mpv panes in one Quick window under Xvfb: what the panes send their mpv
// and what mpv then holds. What they show of a file, loaded, sought and played
// to its end, is the players' end-to-end test.
#include "PlayerMedia.h"
#include "../timeline/TimelineFixture.h"

#include "os/NativeSurface.h"
#include "playback/MPVObject.h"

#include <QQmlEngine>
#include <QQuickView>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QByteArray kPanes = R"(import QtQuick
import kutils.panes 1.0
Rectangle {
    width: 700; height: 280; color: "#303030"
    MPVObject { objectName: "left"; x: 10; y: 20; width: 320; height: 240; Component.onCompleted: setMPVID(0) }
    MPVObject { objectName: "right"; x: 350; y: 20; width: 320; height: 240; Component.onCompleted: setMPVID(1) }
}
)";

} // namespace

class tst_MPVObject : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    std::unique_ptr<QQuickView> view;
    MPVObject *left = nullptr;
    MPVObject *right = nullptr;
    playermedia::PaneCommands commands;

private slots:
    void initTestCase()
    {
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
        for (MPVObject *pane : {left, right})
            commands.watch(*pane);
    }

    void cleanupTestCase() { view.reset(); }

    void init() { commands.clear(); }

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

    // A raw command is split on every blank: an empty part stays an argument,
    // and mpv refuses the whole command.
    void executeCommandSplitsOnEveryBlank()
    {
        left->executeCommand(QStringLiteral("set video-rotate 180"), true);
        QTRY_COMPARE(left->getPropertyInt(QStringLiteral("video-rotate")), 180.0);
        left->executeCommand(QStringLiteral("set  video-rotate 270"));
        QCOMPARE(left->getPropertyInt(QStringLiteral("video-rotate")), 180.0);
        QCOMPARE(commands.of().last(), QStringLiteral("set  video-rotate 270"));
    }

    void loadPathsBecomeMpvTargets_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("target");
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

    void failedPropertyReadsAnswerDefaultsAndLog()
    {
        LogCapture log;
        QCOMPARE(left->getPropertyDouble(QStringLiteral("no-such-property")), 0.0);
        QCOMPARE(left->getPropertyString(QStringLiteral("no-such-property")), std::string());
        QCOMPARE(left->getPropertyInt(QStringLiteral("no-such-property")), 0.0);
        QCOMPARE(left->getPropertyInt(QStringLiteral("volume")), 100.0);
        // One line for each failed read, none for the good one.
        QCOMPARE(int(log.records.size()), 3);
    }
};

QTEST_MAIN(tst_MPVObject)
#include "tst_MPVObject.moc"
