// The live-render watcher through QML: filter state in, chunks of a window
// out as previews to inject, readers closed and durations measured on the
// watcher's threads, and failures told instead of leaving the player waiting.
#include "PlayerMedia.h"

#include "playback/InstantReaderWatcher.h"
#include "videoio/FFReader.h"
#include "videoio/FFReaderUtils.h"
#include "videoio/InstantReader.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using videoplayer::InstantReaderWatcher;

namespace {

const QByteArray kScene = R"(
import QtQuick
import kutils 1.0
InstantReaderWatcher {
    function apply(ffmpegArguments, view) {
        const commands = ffmpegArguments === null ? [] : [{ ffmpeg: ffmpegArguments }]
        return setProcessInfo({ video: { procInfo: {} }, output: { commands: commands } }, view)
    }
    function render(view, path, start, end) { return startRender(view, path, start, end) }
}
)";

QStringList chainCommand(const QString &chain)
{
    return {"-i", "in.mp4", "-filter_complex", chain, "-map", "[v]", "-c:v", "ffv1", "out.mkv"};
}

} // namespace

class tst_InstantReaderWatcher : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_clip;  // 4 s at 25 fps: a picture every 40 ms
    std::unique_ptr<QQmlEngine> m_engine;

    std::unique_ptr<InstantReaderWatcher> makeWatcher()
    {
        QQmlComponent component(m_engine.get());
        component.setData(kScene, QUrl());
        std::unique_ptr<InstantReaderWatcher> watcher(qobject_cast<InstantReaderWatcher *>(component.create()));
        if (!watcher)
            qWarning() << component.errorString();
        return watcher;
    }

    static QString apply(InstantReaderWatcher *watcher, const QVariant &arguments, int view)
    {
        QVariant chain;
        QMetaObject::invokeMethod(watcher, "apply", Q_RETURN_ARG(QVariant, chain), Q_ARG(QVariant, arguments),
                                  Q_ARG(QVariant, view));
        return chain.toString();
    }

    static bool render(InstantReaderWatcher *watcher, int view, const QString &path, int start, int end)
    {
        QVariant started;
        QMetaObject::invokeMethod(watcher, "render", Q_RETURN_ARG(QVariant, started), Q_ARG(QVariant, view),
                                  Q_ARG(QVariant, path), Q_ARG(QVariant, start), Q_ARG(QVariant, end));
        return started.toBool();
    }

private slots:
    void initTestCase()
    {
        qunsetenv("QML_IMPORT_PATH");
        qmlRegisterType<InstantReaderWatcher>("kutils", 1, 0, "InstantReaderWatcher");
        m_engine = std::make_unique<QQmlEngine>();
        m_clip = m_dir.filePath("clip.mp4");
        QVERIFY(playermedia::makeInput(m_clip));
    }

    void processInfoFollowsTheFirstCommand_data()
    {
        QTest::addColumn<QVariant>("arguments");
        QTest::addColumn<QString>("chain");
        QTest::addColumn<QString>("encoder");

        const QVariant none = QVariant::fromValue(nullptr);
        QTest::newRow("split at 0") << QVariant(chainCommand("split=2[a][b]")) << "" << "ffv1";
        QTest::newRow("split inside") << QVariant(chainCommand("[0:v]hqdn3d,yadif,split=2[a][b]"))
                                      << "[0:v]hqdn3d,yadif" << "ffv1";
        QTest::newRow("no chain") << QVariant(QStringList{"-i", "in.mp4", "-c:v", "libx264"}) << "" << "libx264";
        QTest::newRow("-filter_complex last") << QVariant(QStringList{"-c:v", "prores", "-filter_complex"}) << ""
                                              << "prores";
        QTest::newRow("-c:v last") << QVariant(QStringList{"-filter_complex", "negate", "-c:v"}) << "negate"
                                   << "earlier";
        QTest::newRow("no commands") << none << "earlier" << "earlier";
    }

    void processInfoFollowsTheFirstCommand()
    {
        QFETCH(QVariant, arguments);
        QFETCH(QString, chain);
        QFETCH(QString, encoder);

        const auto watcher = makeWatcher();
        QVERIFY(watcher);
        QCOMPARE(apply(watcher.get(), QStringList{"-filter_complex", "earlier", "-c:v", "earlier"}, 1), "earlier");
        QCOMPARE(apply(watcher.get(), arguments, 1), chain);
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        watcher->onPreviewCachedToDisk("chunk.mkv", QPoint(0, 99), 1);
        const QVariantMap info = injected.first().at(3).toMap();
        QCOMPARE(info.value("filterComplex").toString(), chain);
        QCOMPARE(info.value("encoderId").toString(), encoder);
        // The other view keeps nothing.
        watcher->onPreviewCachedToDisk("chunk.mkv", QPoint(0, 99), 0);
        QCOMPARE(injected.last().at(3).toMap(), QVariantMap());
    }

    void durationsAreMeasuredOffTheUiThread()
    {
        const auto watcher = makeWatcher();
        QThread *emittedOn = nullptr;
        connect(watcher.get(), &InstantReaderWatcher::fileDurationUpdate, this,
                [&emittedOn] { emittedOn = QThread::currentThread(); }, Qt::DirectConnection);
        QSignalSpy durations(watcher.get(), &InstantReaderWatcher::fileDurationUpdate);
        watcher->queueDurationCheck(1, 42, m_clip, QVariantMap{{"filterComplex", "hflip"}});
        QVERIFY(durations.wait(20000));
        QCOMPARE(durations.first().at(0).toInt(), 42);
        QCOMPARE(durations.first().at(1).toLongLong(), 4000);
        QCOMPARE(durations.first().at(2).toMap().value("filterComplex").toString(), "hflip");
        QCOMPARE(emittedOn, QThread::currentThread());
    }

    // A slowed chain's chunks tile the window on the input's axis, land in the
    // watcher's cache and carry how much longer their files are than the
    // stretch they cover. How a window cuts into chunks is the reader's own
    // test.
    void renderedChunksAreAnnouncedForInjection()
    {
        const auto watcher = makeWatcher();
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        QSignalSpy failed(watcher.get(), &InstantReaderWatcher::renderFailed);
        apply(watcher.get(), chainCommand("setpts=2*PTS"), 1);
        QVERIFY(render(watcher.get(), 1, m_clip, 0, 760));
        QTRY_COMPARE_WITH_TIMEOUT(injected.count(), 1, 30000);
        QCOMPARE(failed.count(), 0);
        const QVariantList &chunk = injected.first();
        const QString file = chunk.at(0).toString();
        const QPoint range = chunk.at(1).toPoint();
        const QVariantMap info = chunk.at(3).toMap();
        QVERIFY(file.startsWith(watcher->cacheFolder()));
        QCOMPARE(chunk.at(2).toInt(), 1);
        QCOMPARE(range, QPoint(0, 799));
        QCOMPARE(info.value("filterComplex").toString(), "setpts=2*PTS");
        QVERIFY(std::abs(info.value("slowMoFactor").toDouble() - 2.0) < 0.01);
        QVERIFY2(std::abs(videoio::FFReaderUtils::getDuration(file) - 2 * 800) <= 2, qPrintable(file));
    }

    // A new render, a new chain or a reset stops the running one: nothing it
    // had in hand is announced after.
    void aNewRenderStopsTheRunningOne_data()
    {
        QTest::addColumn<QString>("interruption");
        QTest::newRow("another window") << "render";
        QTest::newRow("a new chain") << "chain";
        QTest::newRow("reset") << "resetIR";
        QTest::newRow("stop") << "stopRender";
    }

    void aNewRenderStopsTheRunningOne()
    {
        QFETCH(QString, interruption);
        const auto watcher = makeWatcher();
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        apply(watcher.get(), chainCommand("hqdn3d"), 0);
        QVERIFY(render(watcher.get(), 0, m_clip, 0, -1));
        if (interruption == "chain")
            apply(watcher.get(), chainCommand("negate"), 0);
        else if (interruption == "resetIR")
            watcher->resetIR(0);
        else if (interruption == "stopRender")
            watcher->stopRender(0);
        // Whatever the first render handed to the cache comes out of it ahead
        // of the second render's chunks.
        QVERIFY(render(watcher.get(), 0, m_clip, 2000, 2400));
        QTRY_VERIFY_WITH_TIMEOUT(!injected.isEmpty(), 30000);
        for (const QVariantList &chunk : injected)
            QCOMPARE(chunk.at(1).toPoint().x(), 2000);
    }

    void badInputFailsAndReleasesThePlayer_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("end");
        QTest::addColumn<QString>("message");
        // What needs the file is found on the render thread, after startRender
        // accepted the request.
        QTest::addColumn<bool>("accepted");

        QTest::newRow("chain that doesn't build") << "nosuchfilter" << "clip.mp4" << 0 << -1 << "does not build" << true;
        QTest::newRow("missing file") << "hflip" << "missing.mp4" << 0 << -1 << "no such file" << true;
        QTest::newRow("end before start") << "hflip" << "clip.mp4" << 500 << 400 << "before its start" << false;
        QTest::newRow("negative start") << "hflip" << "clip.mp4" << -1 << -1 << "before the input" << false;
        QTest::newRow("one picture") << "hflip" << "clip.mp4" << 1000 << 1000 << "one picture" << true;
    }

    void badInputFailsAndReleasesThePlayer()
    {
        QFETCH(QString, chain);
        QFETCH(QString, file);
        QFETCH(int, start);
        QFETCH(int, end);
        QFETCH(QString, message);
        QFETCH(bool, accepted);

        const auto watcher = makeWatcher();
        QThread *failedOn = nullptr;
        connect(watcher.get(), &InstantReaderWatcher::renderFailed, this,
                [&failedOn] { failedOn = QThread::currentThread(); }, Qt::DirectConnection);
        QSignalSpy failed(watcher.get(), &InstantReaderWatcher::renderFailed);
        QSignalSpy init(watcher.get(), &InstantReaderWatcher::updateFilterInitStatus);
        apply(watcher.get(), chainCommand(chain), 1);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("failed: .*" + message));
        if (message == "one picture")
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("Render of view 1 .*one picture"));
        QCOMPARE(render(watcher.get(), 1, m_dir.filePath(file), start, end), accepted);
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 20000);
        QCOMPARE(failedOn, QThread::currentThread());
        QCOMPARE(failed.first().at(0).toInt(), 1);
        QVERIFY2(failed.first().at(1).toString().contains(message), qPrintable(failed.first().at(1).toString()));
        QTRY_VERIFY_WITH_TIMEOUT(!init.isEmpty() && init.last() == (QVariantList{1, false, false}), 20000);
    }

    void plainReadersAndUnknownViewsAreRefused()
    {
        const auto watcher = makeWatcher();
        QSignalSpy failed(watcher.get(), &InstantReaderWatcher::renderFailed);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("failed: only an instant reader"));
        watcher->addToWatchList(std::make_shared<videoio::FFReader>(m_clip), 0);
        QCOMPARE(failed.count(), 1);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("there is no view 2"));
        QVERIFY(!render(watcher.get(), 2, m_clip, 0, -1));
    }

    // Graphs queued faster than the loop takes them: the newest is installed,
    // the older ones freed, and a reader whose request was dropped is asked
    // again for the newest chain.
    void onlyTheNewestGraphIsInstalled()
    {
        const auto watcher = makeWatcher();
        auto first = std::make_shared<videoio::InstantReader>(m_clip, 0);
        auto second = std::make_shared<videoio::InstantReader>(m_clip, 0);
        watcher->addToWatchList(first, 0);
        watcher->addToWatchList(second, 0);
        second->requestFilterGraph("hflip");
        first->requestFilterGraph("negate");
        first->requestFilterGraph("vflip");
        const int newest = first->requestFilterGraph("hflip,vflip");
        QTRY_COMPARE_WITH_TIMEOUT(first->filterGraphCounter(), newest, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(second->hasFilterGraph(), 20000);
        QCOMPARE(first->filterChain(), std::string("hflip,vflip"));
    }

    void clearedReadersCloseOnTheCloseThread()
    {
        const auto watcher = makeWatcher();
        QThread *closedOn = nullptr;
        {
            auto reader = std::make_shared<videoio::InstantReader>(m_clip, 1);
            connect(reader.get(), &QObject::destroyed, this, [&closedOn] { closedOn = QThread::currentThread(); },
                    Qt::DirectConnection);
            watcher->addToWatchList(reader, 1);
        }
        watcher->clearWatchListatViewID(1);
        QTRY_VERIFY_WITH_TIMEOUT(closedOn, 20000);
        QVERIFY(closedOn != QThread::currentThread());
    }

    void destroyingMidRenderReturnsAndRemovesTheCache()
    {
        auto watcher = makeWatcher();
        QCOMPARE(InstantReaderWatcher::instance(), watcher.get());
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        apply(watcher.get(), chainCommand("hqdn3d=8,atadenoise"), 1);
        QVERIFY(render(watcher.get(), 1, m_clip, 0, -1));
        QVERIFY(injected.wait(30000));
        const QString folder = watcher->cacheFolder();
        QVERIFY(QFileInfo::exists(folder));
        watcher.reset();
        QCOMPARE(InstantReaderWatcher::instance(), nullptr);
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(folder), 20000);
    }
};

QTEST_MAIN(tst_InstantReaderWatcher)
#include "tst_InstantReaderWatcher.moc"
