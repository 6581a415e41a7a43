// The single-clip player in a QML scene with one real mpv pane under Xvfb:
// it loops the whole clip, or its in/out range, for ever, and steps wrap.
#include "PlayerMedia.h"

#include "playback/IsolatedPlayer.h"
#include "playback/MPVObject.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

const QByteArray kScene = R"(
import QtQuick
import QtQuick.Window
import kutils 1.0
Window {
    width: 320; height: 240; visible: true
    property alias player: player
    property alias pane: pane
    MPVObject { id: pane; anchors.fill: parent }
    IsolatedPlayer { id: player; m_mpvs: [pane] }
}
)";

} // namespace

class tst_IsolatedPlayer : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    QString clip;
    std::unique_ptr<QQmlEngine> engine;
    std::unique_ptr<QObject> root;
    IsolatedPlayer *player = nullptr;
    MPVObject *pane = nullptr;

private slots:
    void initTestCase()
    {
        qunsetenv("QML_IMPORT_PATH");
        qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
        qmlRegisterType<IsolatedPlayer>("kutils", 1, 0, "IsolatedPlayer");
        clip = dir.filePath(QStringLiteral("clip.mp4"));
        QVERIFY(playermedia::makeInput(clip));
    }

    void init()
    {
        engine = std::make_unique<QQmlEngine>();
        QQmlComponent component(engine.get());
        component.setData(kScene, QUrl());
        root.reset(component.create());
        QVERIFY2(root, qPrintable(component.errorString()));
        player = qobject_cast<IsolatedPlayer *>(root->property("player").value<QObject *>());
        pane = qobject_cast<MPVObject *>(root->property("pane").value<QObject *>());
        QVERIFY(player && pane);
        QTRY_VERIFY_WITH_TIMEOUT(pane->surface(), 30000);
        player->addInput(1, 0, clip, 4000, 25.0, 1.0, true, {{QStringLiteral("duration"), 4000}});
    }

    void cleanup()
    {
        root.reset();
        engine.reset();
    }

    void loopsForEver_data()
    {
        QTest::addColumn<bool>("trim");
        QTest::addColumn<int>("in");
        QTest::addColumn<int>("out");
        QTest::newRow("whole clip") << false << -1 << -1;
        QTest::newRow("in/out range") << true << 1200 << 2000;
    }

    void loopsForEver()
    {
        QFETCH(bool, trim);
        QFETCH(int, in);
        QFETCH(int, out);
        player->adjustInOutRange(trim, QPoint(in, out));
        const qint64 first = trim ? in : 0;
        const qint64 last = trim ? out : 3960;
        player->seek(last - 400);
        player->play();
        // Two wraps: the second proves that the loop resumed playing by itself.
        int wraps = 0;
        qint64 previous = player->getInputTimestamp();
        qint64 highest = 0;
        const auto sample = [&] {
            const qint64 now = player->getInputTimestamp();
            if (now + 200 < previous)
                ++wraps;
            previous = now;
            highest = std::max(highest, now);
            return wraps >= 2;
        };
        QVERIFY2(QTest::qWaitFor(sample, 20000), qPrintable(QStringLiteral("%1 wraps, at %2").arg(wraps).arg(previous)));
        QVERIFY(player->getIsPlaying());
        QVERIFY2(highest <= last + 60, qPrintable(QString::number(highest)));
        QVERIFY(previous >= first);
        player->pause();
    }

    void stepsAndJumpsWrapAtTheClipEnds_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<qlonglong>("from");
        QTest::addColumn<qlonglong>("expected");
        QTest::newRow("next on the last frame") << "next" << 3960LL << 0LL;
        QTest::newRow("prev on the first frame") << "prev" << 0LL << 3960LL;
        QTest::newRow("end without out point") << "jumpToEnd" << 1000LL << 3960LL;
        QTest::newRow("start without in point") << "jumpToStart" << 1000LL << 0LL;
    }

    void stepsAndJumpsWrapAtTheClipEnds()
    {
        QFETCH(QString, operation);
        QFETCH(qlonglong, from);
        QFETCH(qlonglong, expected);
        player->adjustInOutRange(false, QPoint(-1, -1));
        player->seek(from);
        QVERIFY(QMetaObject::invokeMethod(player, operation.toLatin1().constData()));
        QCOMPARE(player->getInputTimestamp(), expected);
        QVERIFY(!player->getIsPlaying());
    }
};

QTEST_MAIN(tst_IsolatedPlayer)
#include "tst_IsolatedPlayer.moc"
