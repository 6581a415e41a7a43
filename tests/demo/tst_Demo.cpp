// The demo application end to end, as a user's screenshot would show it: the
// real executable under Xvfb opens a clip that ffmpeg makes here, renders a
// preview through ffmpeg with a warm tint, seeks and writes a screenshot with
// a description of where its panes are. Each frame of the clip carries its own
// number as eight black or white bars (bit i in bar i), so the picture in a
// pane tells which frame it is.
#include "../platform/VideoioMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRect>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int clipWidth = 640;
constexpr int clipHeight = 360;
constexpr int fps = 25;
constexpr int frameMs = 1000 / fps;
constexpr int clipFrames = 200; // eight bars hold up to 255
constexpr int bars = 8;

struct DemoRun
{
    int exitCode = -1;
    QString output;
};

// What one pane shows: the frame number read from its bars and how warm the
// white bars are (red less blue; about 0 untinted, about 200 under the tint).
struct PaneReading
{
    int frame = -1;
    int warmth = 0;
    int whiteBars = 0;
};

// The picture of the clip inside a pane: mpv fits it and centres it.
QRect pictureIn(const QRect &pane)
{
    const double scale = qMin(double(pane.width()) / clipWidth, double(pane.height()) / clipHeight);
    const int width = int(clipWidth * scale);
    const int height = int(clipHeight * scale);
    return {pane.x() + (pane.width() - width) / 2, pane.y() + (pane.height() - height) / 2, width, height};
}

PaneReading readPane(const QImage &shot, const QRect &pane)
{
    const QRect picture = pictureIn(pane);
    PaneReading reading;
    if (!shot.rect().contains(picture))
        return reading;
    reading.frame = 0;
    int warmthSum = 0;
    const int barWidth = picture.width() / bars;
    const int cy = picture.y() + picture.height() / 2;
    for (int bit = 0; bit < bars; ++bit) {
        const int cx = picture.x() + bit * barWidth + barWidth / 2;
        int red = 0;
        int blue = 0;
        int samples = 0;
        for (int y = cy - 8; y <= cy + 8; ++y)
            for (int x = cx - barWidth / 4; x <= cx + barWidth / 4; ++x) {
                const QRgb p = shot.pixel(x, y);
                red += qRed(p);
                blue += qBlue(p);
                ++samples;
            }
        red /= samples;
        blue /= samples;
        // Red survives the tint, so it tells the bit in either pane.
        if (red > 128) {
            reading.frame |= 1 << bit;
            warmthSum += red - blue;
            ++reading.whiteBars;
        }
    }
    reading.warmth = reading.whiteBars ? warmthSum / reading.whiteBars : 0;
    return reading;
}

QRect rectFrom(const QJsonValue &value)
{
    const QJsonArray a = value.toArray();
    return a.size() == 4 ? QRect(a[0].toInt(), a[1].toInt(), a[2].toInt(), a[3].toInt()) : QRect();
}

// The description the demo writes beside a screenshot.
QJsonObject describedShot(const QString &shot)
{
    QFile file(shot + QStringLiteral(".json"));
    return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object() : QJsonObject();
}

// The left and right pane of a screenshot.
std::pair<PaneReading, PaneReading> readPanes(const QString &shot)
{
    const QImage picture = QImage(shot).convertToFormat(QImage::Format_RGB32);
    const QJsonObject described = describedShot(shot);
    return {readPane(picture, rectFrom(described.value(QStringLiteral("leftPane")))),
            readPane(picture, rectFrom(described.value(QStringLiteral("rightPane"))))};
}

} // namespace

// Each run drives several steps: every start of the demo costs seconds.
class tst_Demo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void screenshotShowsThePositionInBothPanesAndTheFilterOnlyInThePreview();
    void playingAcrossThePreviewKeepsBothPanesOnOneFrameAfterTheMachineAndSequenceSteps();
    void withoutAVideoASampleIsMadeOnceAndPreviewed();
    void unusableVideosEndWithAReasonAndNoScreenshot_data();
    void unusableVideosEndWithAReasonAndNoScreenshot();
    void serviceStepsReachTheLocalStandInAndLiveRenderFillsTheRightPane();
    void modelsAndCloudStepsUseTheCloudStandIn();

private:
    // `config` replaces the test's configuration file for the demo alone.
    DemoRun runDemo(const QStringList &arguments, const QString &mediaDir, const QString &config = {});
    // Checks one screenshot and its description; `filtered` says whether the
    // right pane must show the preview.
    void checkShot(const QString &shot, bool filtered);

    QTemporaryDir work;
    QString clip;
};

void tst_Demo::initTestCase()
{
    QVERIFY(work.isValid());
    QVERIFY2(QFile::exists(QStringLiteral(KUTILS_DEMO_BINARY)), "the demo is not built");
    clip = work.filePath(QStringLiteral("bars.mp4"));
    const QString source = QStringLiteral("color=c=black:s=%1x%2:r=%3:d=%4,format=yuv420p,"
                                          "geq=lum='16+219*mod(floor(N/pow(2\\,floor(X/%5)))\\,2)':cb=128:cr=128")
                               .arg(clipWidth)
                               .arg(clipHeight)
                               .arg(fps)
                               .arg(double(clipFrames) / fps)
                               .arg(clipWidth / bars);
    QCOMPARE(videoio::testing::makeMedia({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), source,
                                          QStringLiteral("-c:v"), QStringLiteral("libx264"), QStringLiteral("-qp"),
                                          QStringLiteral("0"), QStringLiteral("-g"), QStringLiteral("25"),
                                          QStringLiteral("-bf"), QStringLiteral("0")},
                                         clip),
             QString());
}

DemoRun tst_Demo::runDemo(const QStringList &arguments, const QString &mediaDir, const QString &config)
{
    QProcess demo;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // Whatever the demo's file manager and child processes touch stays here.
    const QString home = work.filePath(QStringLiteral("home"));
    environment.insert(QStringLiteral("HOME"), home);
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/.local/share"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/.config"));
    environment.insert(QStringLiteral("XDG_DATA_DIRS"), home + QStringLiteral("/machine-share:/nonexistent"));
    environment.insert(QStringLiteral("TMPDIR"), work.path());
    if (!config.isEmpty())
        environment.insert(QStringLiteral("KUTILS_CONFIG_FILE"), config);
    demo.setProcessEnvironment(environment);
    demo.setProcessChannelMode(QProcess::MergedChannels);
    demo.start(QStringLiteral(KUTILS_DEMO_BINARY),
               QStringList{QStringLiteral("--media-dir"), mediaDir} + arguments);
    DemoRun run;
    if (!demo.waitForFinished(240000)) {
        demo.kill();
        demo.waitForFinished();
    }
    run.output = QString::fromUtf8(demo.readAll());
    run.exitCode = demo.exitStatus() == QProcess::NormalExit ? demo.exitCode() : -1;
    return run;
}

void tst_Demo::checkShot(const QString &shot, bool filtered)
{
    const qint64 position = describedShot(shot).value(QStringLiteral("position")).toInteger(-1);
    const int frame = int(position / frameMs);
    QVERIFY2(frame > 0, qPrintable(shot));
    const auto [left, right] = readPanes(shot);
    QCOMPARE(left.frame, frame);
    QCOMPARE(right.frame, frame);
    QVERIFY2(left.warmth < 40, qPrintable(QStringLiteral("the input pane is tinted: %1").arg(left.warmth)));
    if (filtered)
        QVERIFY2(right.warmth > 120, qPrintable(QStringLiteral("no tint in the preview: %1").arg(right.warmth)));
    else
        QVERIFY2(right.warmth < 40, qPrintable(QStringLiteral("tint outside the preview: %1").arg(right.warmth)));
}

void tst_Demo::screenshotShowsThePositionInBothPanesAndTheFilterOnlyInThePreview()
{
    // The preview covers the frames from 2000 to 3960 ms (frames 50 to 99):
    // its last frame, in slow motion.
    const QString shot = work.filePath(QStringLiteral("shot.png"));
    const DemoRun run = runDemo({QStringLiteral("--slowmo"), QStringLiteral("--screenshot"), shot, QStringLiteral("--at"),
                                 QStringLiteral("3970"), QStringLiteral("--in"), QStringLiteral("2000"),
                                 QStringLiteral("--out"), QStringLiteral("3960"), clip},
                                work.filePath(QStringLiteral("media-shots")));
    QVERIFY2(run.exitCode == 0, qPrintable(run.output));
    QVERIFY2(run.output.contains(QStringLiteral("screenshot written to ") + shot), qPrintable(run.output));

    const QJsonObject described = describedShot(shot);
    // The position is the start of the frame that --at falls in.
    QCOMPARE(described.value(QStringLiteral("position")).toInteger(), qint64(3960));
    // The timeline under the panes holds the preview's stretch.
    const QJsonArray ranges = described.value(QStringLiteral("previewRanges")).toArray();
    QCOMPARE(ranges.size(), 1);
    QVERIFY(ranges[0].toObject().value(QStringLiteral("x")).toInt() <= 2000);
    QVERIFY(ranges[0].toObject().value(QStringLiteral("y")).toInt() >= 3960);
    checkShot(shot, true);
}

void tst_Demo::playingAcrossThePreviewKeepsBothPanesOnOneFrameAfterTheMachineAndSequenceSteps()
{
    // The sequence is exported at the playhead (the clip's start: black, then
    // the bars), converted to brighter-than-white EXR, found wide, normalised
    // and stretched back until it is wide again. Then play from before the
    // preview into it, and again from inside it out of it: after each pause
    // the two panes are sought together onto one frame.
    const QString media = work.filePath(QStringLiteral("media-play"));
    const QString into = work.filePath(QStringLiteral("into.png"));
    const QString outOf = work.filePath(QStringLiteral("out-of.png"));
    const QString script = QStringLiteral("machine; sequence; in 1000; out 1960; slowmo on; render; seek 700; play; "
                                          "wait 1200; pause; shot %1; seek 1800; play; wait 1500; pause; shot %2; quit")
                               .arg(into, outOf);
    const DemoRun run = runDemo({QStringLiteral("--script"), script, clip}, media);
    QVERIFY2(run.exitCode == 0, qPrintable(run.output));

    static const QRegularExpression facts(QStringLiteral("kutils-demo: OS: Linux v[0-9.]+\nCPU: .+  [0-9.]+ GB\n"));
    QVERIFY2(run.output.contains(facts), qPrintable(run.output));
    // The panel's model map comes from the example catalogue it installed.
    QVERIFY2(run.output.contains(QStringLiteral("Model Mapping:  3")), qPrintable(run.output));
    QVERIFY2(run.output.contains(QStringLiteral("wide range: values above 1.0")), qPrintable(run.output));
    QVERIFY2(run.output.contains(QStringLiteral("round trip done")), qPrintable(run.output));
    QVERIFY(QFile::exists(media + QStringLiteral("/sequence/normalized/frame_000008.exr")));

    for (const QString &shot : {into, outOf}) {
        const qint64 position = describedShot(shot).value(QStringLiteral("position")).toInteger();
        // Playback moved on from where it started, and the filter follows the stretch.
        QVERIFY2(shot == into ? position > 1000 && position < 1960 : position > 1960,
                 qPrintable(QStringLiteral("%1 stands at %2").arg(shot).arg(position)));
        checkShot(shot, shot == into);
    }
}

void tst_Demo::withoutAVideoASampleIsMadeOnceAndPreviewed()
{
    // The README's first command: no video named, so the demo makes its sample.
    const QString media = work.filePath(QStringLiteral("media-sample"));
    const QString shot = work.filePath(QStringLiteral("sample.png"));
    const DemoRun first = runDemo({QStringLiteral("--screenshot"), shot}, media);
    QVERIFY2(first.exitCode == 0, qPrintable(first.output));
    QVERIFY(first.output.contains(QStringLiteral("Making the sample video")));
    QVERIFY(QFile::exists(media + QStringLiteral("/sample.mp4")));

    // Inside the preview the right pane is the tinted left one: much less blue.
    const QImage picture = QImage(shot).convertToFormat(QImage::Format_RGB32);
    const QJsonObject described = describedShot(shot);
    const auto meanBlue = [&picture](const QRect &pane) {
        qint64 sum = 0;
        qint64 count = 0;
        for (int y = pane.top(); y <= pane.bottom(); y += 4)
            for (int x = pane.left(); x <= pane.right(); x += 4, ++count)
                sum += qBlue(picture.pixel(x, y));
        return count ? double(sum) / count : 0.0;
    };
    const double leftBlue = meanBlue(rectFrom(described.value(QStringLiteral("leftPane"))));
    const double rightBlue = meanBlue(rectFrom(described.value(QStringLiteral("rightPane"))));
    QVERIFY2(leftBlue > 40.0, "the input pane is dark");
    QVERIFY2(rightBlue < leftBlue * 0.6, qPrintable(QStringLiteral("blue %1 and %2").arg(leftBlue).arg(rightBlue)));

    // The second start finds the sample and makes none; its script's unknown
    // step ends the run with the reason.
    const DemoRun second = runDemo({QStringLiteral("--script"), QStringLiteral("jump 5")}, media);
    QCOMPARE(second.exitCode, 3);
    QVERIFY2(second.output.contains(QStringLiteral("unknown step \"jump 5\"")), qPrintable(second.output));
    QVERIFY(!second.output.contains(QStringLiteral("Making the sample video")));
}

void tst_Demo::unusableVideosEndWithAReasonAndNoScreenshot_data()
{
    QTest::addColumn<QString>("video");
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing video") << "/nonexistent/clip.mp4" << "no video at /nonexistent/clip.mp4";
    QTest::newRow("not a video") << KUTILS_DEMO_BINARY << "Unable to open file at";
}

void tst_Demo::unusableVideosEndWithAReasonAndNoScreenshot()
{
    QFETCH(QString, video);
    QFETCH(QString, reason);
    const QString shot = work.filePath(QStringLiteral("refused.png"));
    const DemoRun run = runDemo({QStringLiteral("--screenshot"), shot, video}, work.filePath(QStringLiteral("media-refused")));
    QCOMPARE(run.exitCode, 3);
    QVERIFY2(run.output.contains(reason), qPrintable(run.output));
    QVERIFY(!QFile::exists(shot));
}

void tst_Demo::serviceStepsReachTheLocalStandInAndLiveRenderFillsTheRightPane()
{
    QProcess standin;
    standin.start(QStringLiteral(KUTILS_TELEMETRY_STANDIN),
                  {QStringLiteral("--dir"), work.filePath(QStringLiteral("standin")), QStringLiteral("--base"),
                   qEnvironmentVariable("KUTILS_CONFIG_FILE"), QStringLiteral("--installer-mib"), QStringLiteral("4")});
    QVERIFY(standin.waitForStarted() && standin.waitForReadyRead(30000));
    const QString config = QJsonDocument::fromJson(standin.readLine()).object().value(QStringLiteral("config")).toString();
    // The live mode renders the window at the playhead with the negating
    // filter: the right pane reads the frame number with every bit flipped.
    const QString shot = work.filePath(QStringLiteral("live.png"));
    const QString steps = QStringLiteral("event demo-started; flags; identity; update; "
                                         "seek 2000; filter 1; live on; wait-live; seek 2000; shot %1; quit")
                              .arg(shot);
    const DemoRun run = runDemo({QStringLiteral("--script"), steps, clip}, work.filePath(QStringLiteral("media-services")),
                                config);
    standin.closeWriteChannel();
    QVERIFY(standin.waitForFinished(10000));
    QVERIFY2(run.exitCode == 0, qPrintable(run.output));
    for (const char *line : {"Event delivered to the collector", "Flags: cloud-render=off, new-export-panel=on",
                             "Identity repaired", "Installer saved as"})
        QVERIFY2(run.output.contains(QLatin1String(line)), qPrintable(run.output));
    const QString served = QString::fromUtf8(standin.readAll());
    QVERIFY2(served.contains(QStringLiteral("event \"demo-started\" from demo-device")), qPrintable(served));
    const auto [left, right] = readPanes(shot);
    QCOMPARE(left.frame, 2000 / frameMs);
    QCOMPARE(right.frame, (2000 / frameMs) ^ 0xff);
}

void tst_Demo::modelsAndCloudStepsUseTheCloudStandIn()
{
    // As run-demo.sh --cloud: a sample set for the example catalogue, served
    // by the stand-in's model host, whose configuration names it and the
    // password. The service lives while its standard input stays open
    // (QProcess keeps it so until closed) and leaves its ready line in the
    // media folder, where the cloud panel looks for it.
    const QString media = work.filePath(QStringLiteral("media-cloud"));
    const QString set = media + QStringLiteral("/model-host");
    const QString ready = media + QStringLiteral("/cloud-standin.json");
    const QString config = media + QStringLiteral("/cloud-config.json");
    const QString password = QStringLiteral("demo-test-password");
    QProcess maker;
    maker.start(QStringLiteral(KUTILS_MODEL_SET),
                {QStringLiteral("--catalogue"), QStringLiteral(KUTILS_SOURCE_DIR "/demo/models/models.json"),
                 QStringLiteral("--out"), set, QStringLiteral("--password"), password});
    QVERIFY(maker.waitForFinished(60000) && maker.exitCode() == 0);
    QProcess service;
    service.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    service.setStandardOutputFile(ready);
    service.start(QStringLiteral(KUTILS_CLOUD_STANDIN),
                  {QStringLiteral("--dir"), media + QStringLiteral("/service"), QStringLiteral("--render"),
                   QStringLiteral("negate"), QStringLiteral("--files"), set, QStringLiteral("--model-password"), password,
                   QStringLiteral("--config-out"), config, QStringLiteral("--config-base"),
                   qEnvironmentVariable("KUTILS_CONFIG_FILE")});
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(ready).size() > 0, 30000);
    const QString shot = work.filePath(QStringLiteral("cloud.png"));
    const QString script = QStringLiteral("models; cloud; seek 2000; shot %1; quit").arg(shot);
    const DemoRun run = runDemo({QStringLiteral("--script"), script, clip}, media, config);
    service.closeWriteChannel();
    QVERIFY(service.waitForFinished(10000));
    QVERIFY2(run.exitCode == 0, qPrintable(run.output));

    const QDir models(work.filePath(QStringLiteral("home/machine-share/kutils/kutils-demo/models")));
    const QStringList fetched = models.entryList({QStringLiteral("*.kz")}, QDir::Files);
    QVERIFY(!fetched.isEmpty());
    QVERIFY2(run.output.contains(QStringLiteral("Models: %1 of %1 files downloaded and verified").arg(fetched.size())),
             qPrintable(run.output));
    // Negated, every black bar of the input is white in the result: the right
    // pane reads the frame number with all eight bits flipped.
    QCOMPARE(describedShot(shot).value(QStringLiteral("position")).toInteger(), qint64(2000));
    const auto [left, right] = readPanes(shot);
    QCOMPARE(left.frame, 2000 / frameMs);
    QCOMPARE(right.frame, (2000 / frameMs) ^ 0xff);
}

QTEST_GUILESS_MAIN(tst_Demo)
#include "tst_Demo.moc"
