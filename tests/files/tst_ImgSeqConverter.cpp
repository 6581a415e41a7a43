#include "FilesTestSupport.h"
#include "files/FrameRange.h"
#include "files/ImgSeqConverter.h"
#include "files/OiioStats.h"

#include <QSet>
#include <QSignalSpy>
#include <QTest>

#include <cmath>

using namespace Qt::StringLiterals;

// The converter with the real oiiotool beside the test, on sequences made here,
// and its two helpers alone: the frame search against a counting existence
// seam, and what it reads from oiiotool's printed statistics.
class tst_ImgSeqConverter : public QObject
{
    Q_OBJECT

    QString tool() const { return QCoreApplication::applicationDirPath() + u"/oiiotool"_s; }
    bool oiio(const QString &arguments) { return runTool(tool(), QProcess::splitCommand(arguments)); }
    QString oiioOutput(const QString &arguments)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(tool(), QProcess::splitCommand(arguments));
        process.waitForFinished(60000);
        return QString::fromUtf8(process.readAll());
    }
    // Frames 1..n of "<folder>/frame_%06d.exr", one colour each.
    void makeExrFrames(const QString &folder, const QStringList &colours, const QString &channels)
    {
        QDir().mkpath(folder);
        const int count = int(channels.split(u',').size());
        for (int index = 0; index < colours.size(); ++index) {
            const QString name = folder + u"/frame_%1.exr"_s.arg(index + 1, 6, 10, QLatin1Char('0'));
            QVERIFY(oiio(u"--pattern constant:color=%1 16x8 %2 --chnames %3 -d half -o \"%4\""_s
                             .arg(colours.at(index))
                             .arg(count)
                             .arg(channels, name)));
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(QFileInfo(tool()).isExecutable(), "the build puts oiiotool beside the test");
    }

    void buildsTheCommandFromTheFirstFrame_data()
    {
        QTest::addColumn<QStringList>("frames");
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("inputArgs");
        QTest::addColumn<QString>("command"); // "<tool>" and "<dir>" stand for the real paths
        QTest::addColumn<QString>("outputPath");
        QTest::newRow("spaces, the input's base name, blanks kept")
            << QStringList{"in dir/frame_000001.png", "in dir/frame_000002.png"} << "out dir/other_000001.exr"
            << QString()
            << R"("<tool>" -v --frames 1-2  "<dir>/in dir/frame_%06d.png" -o "<dir>/out dir/frame_%06d.exr" )"
            << "<dir>/out dir/frame_000001.exr";
        QTest::newRow("first frame 7, four digits")
            << QStringList{"shot_0007.png", "shot_0008.png"} << "o/x_0001.exr" << "--threads 1"
            << R"("<tool>" -v --frames 7-8 --threads 1 "<dir>/shot_%04d.png" -o "<dir>/o/shot_%04d.exr" )"
            << "<dir>/o/shot_000007.exr";
        QTest::newRow("first frame 1234567")
            << QStringList{"big_1234567.png"} << "o/big_1.exr" << QString()
            << R"("<tool>" -v --frames 1234567-1234567  "<dir>/big_%d.png" -o "<dir>/o/big_%d.exr" )"
            << "<dir>/o/big_000001234567.exr";
        QTest::newRow("refused: a double quote") << QStringList{"q\"uote/frame_000001.png"} << "o/f_000001.exr"
                                                 << QString() << QString() << QString();
        QTest::newRow("refused: a stray percent") << QStringList{"p%zz/frame_000001.png"} << "o/f_000001.exr"
                                                  << QString() << QString() << QString();
    }

    void buildsTheCommandFromTheFirstFrame()
    {
        QFETCH(QStringList, frames);
        QFETCH(QString, output);
        QFETCH(QString, inputArgs);
        QFETCH(QString, command);
        QFETCH(QString, outputPath);
        QTemporaryDir dir;
        for (const QString &frame : frames)
            QVERIFY(writeFile(dir.filePath(frame), "not an image"));
        const auto expand = [&](QString text) {
            return text.replace(u"<tool>"_s, tool()).replace(u"<dir>"_s, dir.path());
        };
        ImgSeqConverter converter;
        QSignalSpy forced(&converter, &ImgSeqConverter::processForcedClose);
        LogCapture log;
        converter.convert(false, dir.filePath(frames.first()), dir.filePath(output), inputArgs, u"-o"_s);
        const QString key = TFileManager().makeFormatString(dir.filePath(frames.first()));
        if (command.isEmpty()) {
            QCOMPARE(forced.count(), 1);
            QVERIFY(!log.contains(u"Generating conversion"_s));
            return;
        }
        QVERIFY(log.contains(u"Generating conversion: "_s + expand(command)));
        QCOMPARE(converter.getOutputPath(key), expand(outputPath));
        QCOMPARE(converter.getSpawned(key), frames.size());
        // The files are no images: the tool fails, which is no finished conversion.
        QTRY_COMPARE_WITH_TIMEOUT(forced.count(), 1, 30000);
        QCOMPARE(converter.getCompleted(key), 0);
    }

    void convertsWithProgressWhileTheToolRuns()
    {
        QTemporaryDir work;
        const QString input = work.filePath(u"progress in/frame_000001.exr"_s);
        QDir().mkpath(QFileInfo(input).path());
        QVERIFY(oiio(u"--pattern noise:type=uniform:min=0:max=1 640x360 3 -d half -o \"%1\""_s.arg(input)));
        constexpr int frames = 10;
        for (int frame = 2; frame <= frames; ++frame)
            QVERIFY(QFile::copy(input, input.chopped(6) + u"%1.exr"_s.arg(frame, 2, 10, QLatin1Char('0'))));
        QDir().mkpath(work.filePath(u"progress out"_s));
        ImgSeqConverter converter;
        QSignalSpy forced(&converter, &ImgSeqConverter::processForcedClose);
        const QString key = TFileManager().makeFormatString(input);
        QList<int> seen;
        connect(&converter, &ImgSeqConverter::subprocessCompleted, this, [&] { seen << converter.getCompleted(key); });
        converter.convert(true, input, work.filePath(u"progress out/x_000001.png"_s), QString(), u"-o"_s);
        QCOMPARE(converter.getSpawned(key), frames);
        QTRY_VERIFY_WITH_TIMEOUT((!seen.isEmpty() && seen.last() == frames) || !forced.isEmpty(), 60000);
        QCOMPARE(forced.count(), 0);
        // A count strictly between the start and the end can only come from a
        // tick while the tool was still writing.
        QVERIFY2(std::any_of(seen.begin(), seen.end(), [](int count) { return count > 1 && count < frames; }),
                 qPrintable(QString::number(seen.size()) + " ticks"));
        QVERIFY(QFileInfo::exists(work.filePath(u"progress out/frame_000010.png"_s)));
    }

    void closingInsideItsOwnSignalIsSafe_data()
    {
        QTest::addColumn<QString>("postInputArgs");
        QTest::addColumn<bool>("onProgress");
        // Without "-o" oiiotool reads the output as a second input and fails.
        QTest::newRow("from the failure signal") << QString() << false;
        QTest::newRow("from the progress signal") << u"-o"_s << true;
    }

    void closingInsideItsOwnSignalIsSafe()
    {
        QFETCH(QString, postInputArgs);
        QFETCH(bool, onProgress);
        QTemporaryDir dir;
        makeExrFrames(dir.filePath(u"in"_s), {"0.2,0.2,0.2", "0.2,0.2,0.2"}, u"R,G,B"_s);
        const QString input = dir.filePath(u"in/frame_000001.exr"_s);
        const QString key = TFileManager().makeFormatString(input);
        ImgSeqConverter converter;
        QSignalSpy forced(&converter, &ImgSeqConverter::processForcedClose);
        connect(&converter, onProgress ? &ImgSeqConverter::subprocessCompleted : &ImgSeqConverter::processForcedClose,
                this, [&] { converter.closeKey(key); });
        QDir().mkpath(dir.filePath(u"out"_s));
        converter.convert(false, input, dir.filePath(u"out/frame_000001.exr"_s), QString(), postInputArgs);
        QTRY_COMPARE_WITH_TIMEOUT(forced.count(), 1, 30000);
        // The record has gone: asking again makes a fresh, empty one.
        QTRY_COMPARE(converter.getSpawned(key), 0);
        QCoreApplication::processEvents();
        QCOMPARE(forced.count(), 1);
    }

    void normalisesAndStretchesBack_data()
    {
        QTest::addColumn<QString>("channels");
        QTest::addColumn<QStringList>("colours");
        QTest::addColumn<QString>("kept");
        QTest::newRow("RGBA") << "R,G,B,A" << QStringList{"0.5,1,0.25,0.3", "4,0.5,2,0.7", "1,1,1,1"} << "R,G,B,A";
        QTest::newRow("RGB only") << "R,G,B" << QStringList{"0.5,1,0.25", "4,0.5,2", "1,1,1"} << "R,G,B";
        // A depth far above the colours is neither scanned nor written.
        QTest::newRow("RGBA and Z") << "R,G,B,A,Z" << QStringList{"0.5,1,0.25,0.3,90", "4,0.5,2,0.7,90", "1,1,1,1,90"}
                                    << "R,G,B,A";
    }

    void normalisesAndStretchesBack()
    {
        QFETCH(QString, channels);
        QFETCH(QStringList, colours);
        QFETCH(QString, kept);
        QTemporaryDir dir;
        makeExrFrames(dir.filePath(u"src"_s), colours, channels);
        const QString input = dir.filePath(u"src/frame_000001.exr"_s);
        const QString output = dir.filePath(u"norm/frame_000001.exr"_s);
        QDir().mkpath(QFileInfo(output).path());
        const QString key = TFileManager().makeFormatString(input);
        ImgSeqConverter converter;
        QSignalSpy forced(&converter, &ImgSeqConverter::processForcedClose);
        LogCapture log;
        converter.normalizeExr(input, output);
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(u"[Normalize] process finished"_s) || forced.count() > 0, 60000);
        QCOMPARE(forced.count(), 0);
        QCOMPARE(converter.getScannedMax(key), 4.0);
        QCOMPARE(converter.getCompleted(key), 3);
        const QString second = dir.filePath(u"norm/frame_000002.exr"_s);
        QCOMPARE(oiiostats::sequenceMax(oiioOutput(u"\"%1\" --printstats"_s.arg(second))), 1.0);
        QCOMPARE(oiiostats::channelList(oiioOutput(u"--info -v \"%1\""_s.arg(second))).join(','), kept);
        if (kept.endsWith(u",A")) // alpha is carried over bit for bit
            QVERIFY(oiio(u"\"%1\" --ch A \"%2\" --ch A --fail 0 --diff"_s.arg(input, output)));
        converter.stretchExr(output, 0.0, converter.getScannedMax(key));
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(u"[StretchExr] Temp directory cleaned:"_s), 60000);
        QVERIFY(!QFileInfo::exists(dir.filePath(u"norm/tmp_stretch"_s)));
        for (const QString frame : {"000001", "000002", "000003"}) {
            const QString back = QString(output).replace(u"000001"_s, frame);
            const QString original = QString(input).replace(u"000001"_s, frame);
            // Half floats near 4 are 1/256 apart.
            QVERIFY2(oiio(u"\"%1\" --ch %3 \"%2\" --ch %3 --fail 0.01 --diff"_s.arg(back, original, kept)),
                     qPrintable(frame));
        }
    }

    void aBrokenFrameStopsTheWork_data()
    {
        QTest::addColumn<bool>("stretch");
        QTest::newRow("a stretch keeps the sources") << true;
        // The broken frame hides the maximum of the frame after it.
        QTest::newRow("no normalisation from a partial maximum") << false;
    }

    void aBrokenFrameStopsTheWork()
    {
        QFETCH(bool, stretch);
        QTemporaryDir dir;
        makeExrFrames(dir.path(), {"0.5,0.5,0.5,1", "0.5,0.5,0.5,1", "3,0.5,0.5,1"}, u"R,G,B,A"_s);
        const QString first = dir.filePath(u"frame_000001.exr"_s);
        const QString broken = dir.filePath(u"frame_000002.exr"_s);
        QVERIFY(writeFile(broken, "broken frame"));
        const QByteArray before = readFileBytes(first);
        ImgSeqConverter converter;
        QSignalSpy ended(&converter,
                         stretch ? &ImgSeqConverter::subprocessCompleted : &ImgSeqConverter::processForcedClose);
        LogCapture log;
        if (stretch)
            converter.stretchExr(first, 0.0, 2.0);
        else
            converter.normalizeExr(first, dir.filePath(u"norm/frame_000001.exr"_s));
        QVERIFY(ended.wait(60000));
        QCOMPARE(readFileBytes(first), before);
        QCOMPARE(readFileBytes(broken), QByteArray("broken frame"));
        QCOMPARE(QFileInfo::exists(dir.filePath(u"tmp_stretch"_s)), stretch);
        if (!stretch)
            QVERIFY(log.contains(u"[SequenceMax] process error on "_s + broken)
                    && !log.contains(u"[Normalize] Starting"_s));
    }

    void tellsWideRangeFromColourOnly_data()
    {
        QTest::addColumn<QStringList>("colours");
        QTest::addColumn<bool>("wide");
        QTest::newRow("a depth above one is not colour") << QStringList{"0.9,0.5,0.1,40", "0.2,0.9,0.1,40"} << false;
        QTest::newRow("one sample above one") << QStringList{"0.9,0.5,0.1,0", "0.2,1.5,0.1,0"} << true;
    }

    void tellsWideRangeFromColourOnly()
    {
        QFETCH(QStringList, colours);
        QFETCH(bool, wide);
        QTemporaryDir dir;
        makeExrFrames(dir.path(), colours, u"R,G,B,Z"_s);
        ImgSeqConverter converter;
        QSignalSpy answered(&converter, &ImgSeqConverter::exrRangeCheckCompleted);
        converter.exrIsWideRange(dir.filePath(u"frame_000001.exr"_s));
        QVERIFY(answered.wait(60000));
        QCOMPARE(answered.count(), 1);
        QCOMPARE(answered.first().first().toBool(), wide);
    }

    void findsTheSequenceAroundTheGivenFrame_data()
    {
        QTest::addColumn<QString>("onDisk");    // the pattern of the files that exist
        QTest::addColumn<qint64>("lowest");
        QTest::addColumn<qint64>("highest");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("first");
        QTest::addColumn<int>("last");
        QTest::addColumn<int>("maxTests");
        const QString padded = QStringLiteral("/a/b/frame_%05d.exr");
        QTest::newRow("3 to 20 from 12") << padded << 3LL << 20LL << "/a/b/frame_00012.exr" << 3 << 20 << 22;
        QTest::newRow("unpadded 99") << "/s/shot_%d.png" << 99LL << 100LL << "/s/shot_99.png" << 99 << 100 << 6;
        QTest::newRow("unpadded 100") << "/s/shot_%d.png" << 99LL << 100LL << "/s/shot_100.png" << 99 << 100 << 6;
        QTest::newRow("missing start") << padded << 30LL << 40LL << "/a/b/frame_00012.exr" << 12 << 11 << 2;
        QTest::newRow("digits in a folder") << "/take%d/shot.exr" << 5LL << 9LL << "/take7/shot.exr" << 5 << 9 << 8;
        // The pattern's own "06" is taken for the frame number.
        QTest::newRow("path holding %06d") << padded << 1LL << 5LL << "/a/b/frame_%06d.exr" << 6 << 5 << 2;
        QTest::newRow("frames up to the largest int")
            << padded << 2147483600LL << 2147483647LL << "/a/b/frame_2147483600.exr" << 2147483600 << 2147483647 << 16;
        QTest::newRow("run longer than an int") << padded << 1LL << 3LL << "/a/b/frame_12345678901234.exr" << 0 << -1
                                                << 0;
        QTest::newRow("no digits") << padded << 1LL << 3LL << "/a/b/frame.exr" << 0 << -1 << 0;
        const int logBound = int(2 * std::log2(100000.0) + 4);
        QTest::newRow("100000 frames from the first")
            << "/f/%06d.exr" << 1LL << 100000LL << "/f/000001.exr" << 1 << 100000 << logBound;
    }

    void findsTheSequenceAroundTheGivenFrame()
    {
        QFETCH(QString, onDisk);
        QFETCH(qint64, lowest);
        QFETCH(qint64, highest);
        QFETCH(QString, path);
        QFETCH(int, first);
        QFETCH(int, last);
        QFETCH(int, maxTests);
        QSet<QString> files;
        const FramePattern pattern = FramePattern::fromFormat(onDisk, lowest);
        QVERIFY(pattern.valid);
        for (qint64 frame = lowest; frame <= highest; ++frame)
            files.insert(pattern.frameName(frame));
        int tests = 0;
        const FrameRange range = findFrameRange(path, [&](const QString &name) {
            ++tests;
            return files.contains(name);
        });
        QCOMPARE(range.first, first);
        QCOMPARE(range.last, last);
        QVERIFY2(tests <= maxTests, qPrintable(QString::number(tests) + " file tests"));
    }

    void readsFloatMaximaOnly_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<double>("sequenceMax");
        QTest::addColumn<double>("firstWide");
        QTest::addColumn<qint64>("nans");
        QTest::newRow("exactly one is not wide, Min ignored")
            << "Stats Max: 1.000000 1.0 0.5 (float)\nStats Min: 2 2 2 (float)\n" << 1.0 << -1.0 << 0LL;
        QTest::newRow("integer files are ignored") << "Stats Max: 255 128 3 (of 255)\n" << 1.0 << -1.0 << 0LL;
        QTest::newRow("two images, nan counted")
            << "Stats Max: 0.1 0.2 (float)\nStats NanCount: 3 0 \nStats Max: 7.5 0.2 (float)\nStats NanCount: 0 2 \n"
            << 7.5 << 7.5 << 5LL;
        QTest::newRow("unreadable part skipped") << "Stats Max: x 2.5 (float)\n" << 2.5 << 2.5 << 0LL;
    }

    void readsFloatMaximaOnly()
    {
        QFETCH(QString, output);
        QFETCH(double, sequenceMax);
        QFETCH(double, firstWide);
        QFETCH(qint64, nans);
        QCOMPARE(oiiostats::sequenceMax(output), sequenceMax);
        QCOMPARE(oiiostats::firstWideValue(output), firstWide);
        QCOMPARE(oiiostats::nonFiniteCount(output, QStringLiteral("Stats NanCount:")), nans);
    }

    void givesEachStatsBlockToTheFileReadBeforeIt()
    {
        const QString output = QStringLiteral("Reading a/f_01.exr\n   8 x 8, 5 channel, half openexr\n"
                                              "    channel list: R, G, B, A, Z\n    channel list: R, G, B\n"
                                              "    Stats Max: 0.5 2 0.1 (float)\n"
                                              "Reading a/f_02.exr\n    Stats Max: 4 0.5 0.1 (float)\n");
        const QList<oiiostats::FileBlock> blocks = oiiostats::splitByReadingLines(output);
        QCOMPARE(blocks.size(), 2);
        QCOMPARE(blocks.at(1).file, QStringLiteral("a/f_02.exr"));
        QCOMPARE(oiiostats::sequenceMax(blocks.at(0).text), 2.0);
        QCOMPARE(oiiostats::sequenceMax(blocks.at(1).text), 4.0);
        // The image as read, before any channel selection.
        QCOMPARE(oiiostats::channelList(blocks.at(0).text), QStringList({"R", "G", "B", "A", "Z"}));
    }
};

QTEST_GUILESS_MAIN(tst_ImgSeqConverter)
#include "tst_ImgSeqConverter.moc"
