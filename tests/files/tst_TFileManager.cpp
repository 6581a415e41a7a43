#include "FilesTestSupport.h"
#include "../platform/VideoioMedia.h"

#include "files/TFileManager.h"
#include "files/TProcess.h"
#include "os/CompanionApp.h"
#include "StandInProcess.h"
#include "ZipEntries.h"
#include "videoio/Reader.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QtTest>

#include <opencv2/core.hpp>
#include <zip.h>

#include <memory>
#include <thread>

namespace {

// "progress" (id, in, out, completed, total) and "finished" (id, in, out, status).
struct UnzipSignals : QueuedSignals
{
    explicit UnzipSignals(TFileManager &manager)
    {
        watch(&manager, &TFileManager::unzipProgress, "progress").watch(&manager, &TFileManager::unzipFinished, "finished");
    }
};

// Writes an archive with entries named exactly as given, which the zip tool
// would refuse or clean up.
bool writeRawArchive(const QString &path, const QList<QPair<QByteArray, QByteArray>> &entries)
{
    std::unique_ptr<zip_t, ZipDiscard> archive(
        zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr));
    if (!archive)
        return false;
    for (const auto &[name, data] : entries) {
        zip_source_t *source = zip_source_buffer(archive.get(), data.constData(), zip_uint64_t(data.size()), 0);
        if (!source || zip_file_add(archive.get(), name.constData(), source, ZIP_FL_ENC_RAW) < 0) {
            zip_source_free(source);
            return false;
        }
    }
    if (zip_close(archive.get()) < 0)
        return false;
    archive.release();
    return true;
}

// Runs `printenv name` (or any program) through a TProcess and returns what it printed.
QString runAndRead(TProcess &process, const QString &program, const QVariantList &arguments)
{
    process.start(program, arguments, false, false);
    process.waitForFinished(20000);
    return process.readAllStandardOutput();
}

} // namespace

class tst_TFileManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedHome>();
        QVERIFY(m_dir.isValid());
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("zip")).isEmpty(), "the zip tool is needed");
        useConfiguration(m_dir.path(), {{"archivePassword", "pack-secret"}});
        m_video = m_dir.filePath(QStringLiteral("two-seconds.mp4"));
        // MPEG-4 part 2 without B-frames, so a cut by frame count is exact.
        QCOMPARE(videoio::testing::makeMedia(videoio::testing::patternInput(QStringLiteral("160x120"), 50, 25)
                                                 + QStringList{QStringLiteral("-c:v"), QStringLiteral("mpeg4"),
                                                               QStringLiteral("-g"), QStringLiteral("25")},
                                             m_video),
                 QString());
    }

    void makeFormatString_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("sequence"); // whether the pattern reads as an image sequence
        QTest::newRow("padded") << "/a/shot_0012.exr" << "/a/shot_%04d.exr" << true;
        QTest::newRow("unpadded") << "/a/shot_1200.exr" << "/a/shot_%d.exr" << true;
        // A folder named like a pattern holds ordinary files.
        QTest::newRow("digits in a folder only") << "/a2/shot.exr" << "/a%d/shot.exr" << false;
        QTest::newRow("last group wins") << "/v2/take3_000001.png" << "/v2/take3_%06d.png" << true;
        QTest::newRow("digits in the extension") << "/a/f_0010.mp4" << "/a/f_0010.mp%d" << true;
    }

    void makeFormatString()
    {
        QFETCH(QString, path);
        QFETCH(QString, expected);
        QFETCH(bool, sequence);
        TFileManager manager;
        QCOMPARE(manager.makeFormatString(path), expected);
        QCOMPARE(manager.isImageSequence(expected), sequence);
        QVERIFY(!manager.isImageSequence(path)); // one numbered frame is no sequence
    }

    void getPaddedFrameNumber_data()
    {
        QTest::addColumn<int>("padding");
        QTest::addColumn<int>("frame");
        QTest::addColumn<QString>("expected");
        QTest::newRow("wider than padding") << 2 << 1234 << "1234";
        QTest::newRow("power of ten") << 4 << 100 << "0100";
        QTest::newRow("no padding") << 0 << 7 << "7";
        QTest::newRow("negative counts one digit and is cut") << 5 << -1 << "0000-";
        QTest::newRow("largest int") << 12 << 2147483647 << "002147483647";
    }

    void getPaddedFrameNumber()
    {
        QFETCH(int, padding);
        QFETCH(int, frame);
        QFETCH(QString, expected);
        TFileManager manager;
        QCOMPARE(manager.getPaddedFrameNumber(padding, frame), expected);
    }

    void pathsOfFilesAndFolders()
    {
        TFileManager manager;
        const QString file = m_dir.filePath(QStringLiteral("plain.txt"));
        QVERIFY(writeFile(file, "x"));
        QVERIFY(!manager.isDir(QString()));
        QCOMPARE(manager.getFileFolder(QStringLiteral("file:/a/b/c.txt")), QStringLiteral("file:/a/b"));
        QDir().mkpath(m_dir.filePath(QStringLiteral("tree/leaf")));
        QCOMPARE(manager.getFileFolder(m_dir.filePath(QStringLiteral("tree/leaf"))), m_dir.filePath(QStringLiteral("tree")));
        QVERIFY(manager.isDir(file)); // an existing plain file counts
        QVERIFY(!manager.mkdir(file + QStringLiteral("/below")));
    }

    void unsetDataFolderIsReplacedByTheDefaultForGood_data()
    {
        QTest::addColumn<QString>("stored"); // "<none>" leaves the key unset
        QTest::addColumn<bool>("kept");
        QTest::newRow("unset") << "<none>" << false;
        QTest::newRow("existing folder") << "<existing>" << true;
        QTest::newRow("drive that has gone") << "<gone>" << false;
    }

    void unsetDataFolderIsReplacedByTheDefaultForGood()
    {
        QFETCH(QString, stored);
        QFETCH(bool, kept);
        const QString existing = m_dir.filePath(QStringLiteral("chosen-data"));
        QDir().mkpath(existing);
        QVERIFY(writeFile(m_dir.filePath(QStringLiteral("not-a-drive")), "x"));
        const QString gone = m_dir.filePath(QStringLiteral("not-a-drive/data"));
        {
            QSettings settings;
            settings.remove(QStringLiteral("kveaDataFolder"));
            if (stored == QLatin1String("<existing>"))
                settings.setValue(QStringLiteral("kveaDataFolder"), existing);
            else if (stored == QLatin1String("<gone>"))
                settings.setValue(QStringLiteral("kveaDataFolder"), gone);
        }
        TFileManager manager;
        const QString result = manager.getModelFolderPath();
        QCOMPARE(result, kept ? existing : manager.defaultModelFolderPath());
        QCOMPARE(QSettings().value(QStringLiteral("kveaDataFolder")).toString(), result);
        // Stored in the isolated settings file, not the user's.
        QVERIFY(QSettings().fileName().startsWith(m_home->home));
    }

    void unwritableMachineFolderFallsBackToTheUsersOnce()
    {
        const QByteArray saved = qgetenv("XDG_DATA_DIRS");
        const QString blocker = m_dir.filePath(QStringLiteral("machine-blocker"));
        QVERIFY(writeFile(blocker, "a file where the machine folder would be"));
        qputenv("XDG_DATA_DIRS", QFile::encodeName(blocker + QStringLiteral("/share")));

        LogCapture log;
        TFileManager manager;
        const QString first = manager.defaultModelFolderPath();
        const QString second = manager.defaultFolderPath(QStringLiteral("other"));
        qputenv("XDG_DATA_DIRS", saved);

        QVERIFY2(first.startsWith(m_home->userData() + QLatin1Char('/')), qPrintable(first));
        QVERIFY(second.startsWith(m_home->userData() + QLatin1Char('/')));
        QVERIFY(QFileInfo(first).isDir());
        QCOMPARE(log.count(QStringLiteral("is not writable; using the user's data folder")), 1);
    }

    void textAndJsonFilesRoundTrip()
    {
        LogCapture log;
        TFileManager manager;
        const QString path = m_dir.filePath(QStringLiteral("text/note.txt"));
        QVERIFY(!manager.saveToFile(path, QStringLiteral("no folder yet")));
        QVERIFY(log.contains(QStringLiteral("Failed to  write ")));
        QVERIFY(manager.mkdir(m_dir.filePath(QStringLiteral("text"))));
        QVERIFY(manager.saveToFile(path, QStringLiteral("a longer first text\nwith two lines\n")));
        // A shorter text truncates the longer one.
        QVERIFY(manager.saveToFile(path, QStringLiteral("short\u00e9")));
        QCOMPARE(manager.readFile(path), QStringLiteral("short\u00e9"));
        QCOMPARE(manager.readFile(m_dir.filePath(QStringLiteral("absent.txt"))), QString());
        QVERIFY(log.contains(QStringLiteral("Failed to open file to read at")));

        const QString json = m_dir.filePath(QStringLiteral("object.json"));
        const QVariantMap object{{QStringLiteral("count"), 3},
                                 {QStringLiteral("nested"), QVariantMap{{QStringLiteral("on"), true}}}};
        QVERIFY(manager.saveJsonObject(object, json));
        QVERIFY(manager.readFile(json).contains(QStringLiteral("\n    \"count\"")));
        QCOMPARE(QJsonObject::fromVariantMap(manager.readJsonObject(json)), QJsonObject::fromVariantMap(object));
        QVERIFY(writeFile(json, "{ broken"));
        QCOMPARE(manager.readJsonObject(json), QVariantMap());
    }

    void listingsFilterFilesOnly()
    {
        const QString folder = m_dir.filePath(QStringLiteral("listing"));
        for (const char *name : {"a.kvid", "b.kvid", "c.txt"})
            QVERIFY(writeFile(folder + QLatin1Char('/') + QLatin1String(name), "x"));
        QDir().mkpath(folder + QStringLiteral("/folder.kvid"));
        TFileManager manager;
        QStringList kvid = manager.listFolder(folder);
        kvid.sort();
        QCOMPARE(kvid, (QStringList{QStringLiteral("a.kvid"), QStringLiteral("b.kvid")}));
        QCOMPARE(manager.listFolder(folder, QStringLiteral("*.txt")), QStringList{QStringLiteral("c.txt")});
        QVERIFY(QStringList({QStringLiteral("a.kvid"), QStringLiteral("b.kvid"), QStringLiteral("c.txt")})
                    .contains(manager.getAnyFileInDir(folder)));
        QDir().mkpath(folder + QStringLiteral("/only-folders/sub"));
        QCOMPARE(manager.getAnyFileInDir(folder + QStringLiteral("/only-folders")), QString());
        QCOMPARE(manager.getAnyFileInDir(folder + QStringLiteral("/missing")), QString());
    }

    void catalogueTakesOnlyEnabledEntriesWithTheKey()
    {
        const QString folder = m_dir.filePath(QStringLiteral("plugins"));
        QVERIFY(writeFile(folder + QStringLiteral("/good.json"), R"({"enabled": true, "id": "denoise", "v": 1})"));
        QVERIFY(writeFile(folder + QStringLiteral("/off.json"), R"({"enabled": false, "id": "off"})"));
        QVERIFY(writeFile(folder + QStringLiteral("/nokey.json"), R"({"enabled": true, "name": "x"})"));
        QVERIFY(writeFile(folder + QStringLiteral("/textflag.json"), R"({"enabled": "true", "id": "textflag"})"));
        QVERIFY(writeFile(folder + QStringLiteral("/broken.json"), "{ not json"));
        QVERIFY(writeFile(folder + QStringLiteral("/array.json"), "[1, 2]"));
        QVERIFY(writeFile(folder + QStringLiteral("/readme.txt"), R"({"enabled": true, "id": "txt"})"));
        QDir().mkpath(folder + QStringLiteral("/folder.json"));

        LogCapture log;
        TFileManager manager;
        const QVariantMap catalogue = manager.loadJsonFolder(folder, QStringLiteral("id"));
        QCOMPARE(catalogue.keys(), QStringList{QStringLiteral("denoise")});
        const QVariantMap entry = catalogue.value(QStringLiteral("denoise")).toMap();
        QCOMPARE(entry.value(QStringLiteral("path")).toString(), folder + QStringLiteral("/good.json"));
        QCOMPARE(entry.value(QStringLiteral("v")).toInt(), 1);
        QCOMPARE(log.count(QStringLiteral("JSON loader: Ignoring file: ")), 3);
        QCOMPARE(log.count(QStringLiteral("JSON loader: Unable to parse json file: ")), 2);
    }

    void cachedReadersReadOnce_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("reading");
        QTest::addColumn<QString>("error");
        QTest::newRow("benchmarks") << "readAllBenchmarkCommands" << "benchmarks.json"
                                    << "Reading benchmark commands from file" << "Error loading benchmark commands file";
        QTest::newRow("recommendations") << "readModelRecommendationRules" << "model-recommendation-rules.json"
                                         << "Reading model recommendation rules from "
                                         << "Error loading model recommendation rules ";
    }

    void cachedReadersReadOnce()
    {
        QFETCH(QString, method);
        QFETCH(QString, fileName);
        QFETCH(QString, reading);
        QFETCH(QString, error);
        LogCapture log;
        TFileManager manager;
        const QString path = manager.defaultModelFolderPath() + QLatin1Char('/') + fileName;
        const auto call = [&](TFileManager &target) {
            QString text;
            QMetaObject::invokeMethod(&target, method.toLatin1().constData(), Q_RETURN_ARG(QString, text));
            return text;
        };

        // An empty file keeps the member empty, so it is read again next time.
        QVERIFY(writeFile(path, ""));
        QCOMPARE(call(manager), QString());
        QVERIFY(log.contains(error));
        QVERIFY(writeFile(path, R"({"first": 1})"));
        QCOMPARE(call(manager), QStringLiteral(R"({"first": 1})"));
        QVERIFY(log.contains(reading));

        // Read once in the life of the instance, whatever the disk does.
        QVERIFY(writeFile(path, R"({"second": 2})"));
        QCOMPARE(call(manager), QStringLiteral(R"({"first": 1})"));
        QVERIFY(QFile::remove(path));
        QCOMPARE(call(manager), QStringLiteral(R"({"first": 1})"));
        TFileManager fresh;
        QCOMPARE(call(fresh), QString());
    }

    void freeSpaceOfAMissingVolumeIsZero()
    {
        TFileManager manager;
        QCOMPARE(manager.availableFreeSpace(QStringLiteral("/no/such/volume/at/all")), 0);
        const QStringList spaces = manager.allFreeSpaces();
        QCOMPARE(spaces.size() % 3, 0);
    }

    void pluginInstallationWithoutRegistryFails()
    {
        LogCapture log;
        TFileManager manager;
        QVERIFY(!manager.installAEPlugin());
        QVERIFY(!manager.installOFXPlugin());
        QCOMPARE(log.count(QStringLiteral("Could not find app registry")), 2);
    }

    void companionApplicationBesideTheApplication()
    {
        const QString appDir = m_dir.filePath(QStringLiteral("install/app"));
        QDir().mkpath(appDir);
        QCOMPARE(os::CompanionApp::executablePath(appDir), QString());
        QVERIFY(!os::CompanionApp::start(appDir));

        const QString marker = m_dir.filePath(QStringLiteral("companion-ran"));
        const QString program = m_dir.filePath(QStringLiteral("install/Korvel Video/Korvel Video"));
        QVERIFY(writeFile(program, QStringLiteral("#!/bin/sh\ntouch '%1'\n").arg(marker).toUtf8()));
        QCOMPARE(os::CompanionApp::executablePath(appDir), QString()); // not executable yet
        QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(os::CompanionApp::executablePath(appDir), program);
        QVERIFY(os::CompanionApp::start(appDir));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(marker), 10000);

        TFileManager manager; // the test binary has no companion beside it
        QVERIFY(!manager.studioApplicationExists());
    }

    void zipFilesAndShowPacksTheMatchingFiles()
    {
        const QString logs = m_dir.filePath(QStringLiteral("support/logs"));
        QVERIFY(writeFile(logs + QStringLiteral("/run.log"), "log text"));
        QVERIFY(writeFile(logs + QStringLiteral("/crash.dmp"), "dump"));
        QVERIFY(writeFile(logs + QStringLiteral("/skip.tmp"), "no"));
        QVERIFY(writeFile(logs + QStringLiteral("/deeper/inner.log"), "not recursive"));
        const QString single = m_dir.filePath(QStringLiteral("support/settings.json"));
        QVERIFY(writeFile(single, "{}"));
        const QString zipPath = m_dir.filePath(QStringLiteral("support/out/report.zip"));

        LogCapture log;
        TFileManager manager;
        manager.zipFilesAndShow({{logs, QStringList{QStringLiteral("*.log"), QStringLiteral("*.dmp")}},
                                 {single, QStringList()},
                                 {m_dir.filePath(QStringLiteral("support/missing.txt")), QStringList()}},
                                zipPath, false);
        QVERIFY(log.contains(QStringLiteral("Unable to read file")));
        QVERIFY(log.contains(QStringLiteral("Logging files:")));

        QSet<int> methods;
        const QMap<QString, QByteArray> entries = unpack(zipPath, "pack-secret", &methods);
        QCOMPARE(entries.keys(), (QStringList{QStringLiteral("crash.dmp"), QStringLiteral("run.log"),
                                              QStringLiteral("settings.json")}));
        QCOMPARE(entries.value(QStringLiteral("run.log")), QByteArray("log text"));
        QCOMPARE(methods, QSet<int>{ZIP_EM_AES_256});

        manager.zipFilesAndShow({{m_dir.filePath(QStringLiteral("support/missing.txt")), QStringList()}},
                                m_dir.filePath(QStringLiteral("support/nothing.zip")), false);
        QVERIFY(log.contains(QStringLiteral("Unable to zip files")));
        QVERIFY(!QFile::exists(m_dir.filePath(QStringLiteral("support/nothing.zip"))));
    }

    void concatReportsFromItsThreadWithThePassThroughValues_data()
    {
        QTest::addColumn<QString>("former");
        QTest::addColumn<int>("frame");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<int>("duration");
        QTest::newRow("half of the first, all of the second") << "<video>" << 25 << true << 3000;
        QTest::newRow("missing first input") << "<missing>" << 25 << false << 0;
    }

    void concatReportsFromItsThreadWithThePassThroughValues()
    {
        QFETCH(QString, former);
        QFETCH(int, frame);
        QFETCH(bool, ok);
        QFETCH(int, duration);
        former = former == QLatin1String("<video>") ? m_video : m_dir.filePath(QStringLiteral("missing.mp4"));
        const QString out = m_dir.filePath(QStringLiteral("joined-%1.mp4").arg(QTest::currentDataTag()).replace(' ', '-'));

        TFileManager manager;
        QueuedSignals concat;
        concat.watch(&manager, &TFileManager::concatFinished, "concat");
        manager.concat(out, former, m_video, size_t(frame), 12.5, 3, 4);
        QVERIFY(concat.wait("concat", 1, 60000));
        const QVariantList result = concat.of("concat").first();
        QCOMPARE(result.mid(0, 5), (QVariantList{12.5, out, ok, 3, 4}));
        QVERIFY2(qAbs(result[5].toInt() - duration) <= 80, qPrintable(result[5].toString()));
    }

    void closeAndDeleteFromAnotherThreadDeletesTheFile_data()
    {
        QTest::addColumn<int>("uid");
        QTest::addColumn<bool>("thumbnailRemoved");
        QTest::newRow("with a video id") << 5 << true;
        QTest::newRow("without one") << -1 << false;
    }

    void closeAndDeleteFromAnotherThreadDeletesTheFile()
    {
        QFETCH(int, uid);
        QFETCH(bool, thumbnailRemoved);
        const QString victim = m_dir.filePath(QStringLiteral("victim-%1.mp4").arg(uid));
        QVERIFY(QFile::copy(m_video, victim));
        auto &thumbnails = videoio::ThumbnailStore::GetInstance();
        QVERIFY(thumbnails.add(QStringLiteral("5"), QString(), cv::Mat(16, 16, CV_8UC3, cv::Scalar(1, 2, 3))).first);
        QVERIFY(videoio::VideoManager::GetReader(victim)->isOpen());

        LogCapture log;
        TFileManager manager;
        std::thread([&manager, victim, uid] {
            if (uid == -1)
                emit manager.closeAndDelete(victim);
            else
                emit manager.closeAndDelete(victim, uid);
        }).join();
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(victim), 15000);
        QVERIFY(log.contains(QStringLiteral("Close and delete path")));
        QCOMPARE(thumbnails.image(QStringLiteral("5")).isNull(), thumbnailRemoved);
        thumbnails.removeAll();
    }

    void twoQueuedArchivesFinishInOrderWithTheirContent()
    {
        const QMap<QString, QByteArray> first{{QStringLiteral("a.txt"), "alpha\n"},
                                              {QStringLiteral("nested/deeper/b.bin"), randomBytes(300000)}};
        const QMap<QString, QByteArray> second{{QStringLiteral("c.txt"), QByteArray(100000, 'c')}};
        const QString firstZip = makeZip(QStringLiteral("first.zip"), first);
        const QString secondZip = makeZip(QStringLiteral("second.zip"), second);
        QVERIFY(!firstZip.isEmpty() && !secondZip.isEmpty());
        const QString out = m_dir.filePath(QStringLiteral("ordered"));

        // An older file of an entry's name is replaced.
        QVERIFY(writeFile(out + QStringLiteral("/2/c.txt"), "older and longer than nothing"));

        TFileManager manager;
        UnzipSignals unzip(manager);
        QCOMPARE(manager.queueUnzipRequest(firstZip, out + QStringLiteral("/1")), 1);
        QCOMPARE(manager.queueUnzipRequest(secondZip, out + QStringLiteral("/2")), 2);

        QTRY_COMPARE_WITH_TIMEOUT(unzip.of("finished").size(), 2, 20000);
        QCOMPARE(unzip.of("finished"), (QList<QVariantList>{{1, firstZip, out + "/1", true}, {2, secondZip, out + "/2", true}}));
        // The zip tool also stores the folder entries: two for the first archive.
        QVERIFY(unzip.of("progress").contains(QVariantList{1, firstZip, out + "/1", 4, 4}));
        QCOMPARE(unzip.of("progress").last(), (QVariantList{2, secondZip, out + "/2", 1, 1}));
        for (auto it = first.cbegin(); it != first.cend(); ++it)
            QCOMPARE(readFileBytes(out + QStringLiteral("/1/") + it.key()), it.value());
        QCOMPARE(readFileBytes(out + QStringLiteral("/2/c.txt")), second.value(QStringLiteral("c.txt")));

        // Ids belong to the instance.
        TFileManager other;
        QCOMPARE(other.queueUnzipRequest(secondZip, out + QStringLiteral("/3")), 1);
    }

    void damagedEntryIsDroppedAndTheArchiveStillFinishes()
    {
        const QByteArray marker = QByteArray("DAMAGE-ME-").repeated(2000);
        const QString archive = makeZip(QStringLiteral("damaged.zip"),
                                        {{QStringLiteral("good.txt"), "fine\n"}, {QStringLiteral("bad.bin"), marker}},
                                        true);
        QVERIFY(!archive.isEmpty());
        QByteArray bytes = readFileBytes(archive);
        const qsizetype at = bytes.indexOf(marker.left(40));
        QVERIFY2(at > 0, "the stored entry must be found in the archive");
        bytes[at + 5000] = 'X';
        QVERIFY(writeFile(archive, bytes));

        LogCapture log;
        TFileManager manager;
        UnzipSignals unzip(manager);
        const QString out = m_dir.filePath(QStringLiteral("damaged-out"));
        manager.queueUnzipRequest(archive, out);
        QTRY_COMPARE_WITH_TIMEOUT(unzip.of("finished").size(), 1, 20000);
        QCOMPARE(unzip.of("finished")[0].last(), QVariant(true));
        QCOMPARE(readFileBytes(out + QStringLiteral("/good.txt")), QByteArray("fine\n"));
        // The bad CRC shows only on the last read; nothing of the entry may stay.
        QVERIFY(!QFile::exists(out + QStringLiteral("/bad.bin")));
        QCOMPARE(QDir(out).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("good.txt")});
        QVERIFY(log.contains(QStringLiteral("decompressZip Failed to read entry:")));
    }

    void unopenableArchiveOrOutputIsLoggedAndNeverSignalled()
    {
        // The end-of-directory record alone is a complete ZIP archive with no entries.
        const QString empty = m_dir.filePath(QStringLiteral("empty.zip"));
        QVERIFY(writeFile(empty, QByteArray("PK\x05\x06", 4) + QByteArray(18, '\0')));
        const QString notZip = m_dir.filePath(QStringLiteral("notes.zip"));
        QVERIFY(writeFile(notZip, QByteArray("just some words, no archive\n").repeated(20)));
        const QString goodZip = makeZip(QStringLiteral("after.zip"), {{QStringLiteral("x.txt"), "x"}});
        QVERIFY(!goodZip.isEmpty());
        const QString blocker = m_dir.filePath(QStringLiteral("blocker"));
        QVERIFY(writeFile(blocker, "a file where a folder should be"));

        LogCapture log;
        TFileManager manager;
        UnzipSignals unzip(manager);
        QCOMPARE(manager.queueUnzipRequest(notZip, m_dir.filePath(QStringLiteral("never"))), 1);
        QCOMPARE(manager.queueUnzipRequest(m_dir.filePath(QStringLiteral("missing.zip")),
                                           m_dir.filePath(QStringLiteral("never"))), 2);
        QCOMPARE(manager.queueUnzipRequest(goodZip, blocker + QStringLiteral("/out")), 3);
        // An archive without entries queued behind them tells when the worker has passed them.
        QCOMPARE(manager.queueUnzipRequest(empty, m_dir.filePath(QStringLiteral("empty-out"))), 4);
        QTRY_COMPARE_WITH_TIMEOUT(unzip.firstOf("finished"), QVariantList{4}, 20000);
        QCOMPARE(unzip.of("finished")[0].last(), QVariant(true));
        QCOMPARE(unzip.of("progress"), (QList<QVariantList>{{4, empty, m_dir.filePath(QStringLiteral("empty-out")), 0, 0}}));
        QVERIFY(QFileInfo(m_dir.filePath(QStringLiteral("empty-out"))).isDir());
        QCOMPARE(log.count(QStringLiteral(" decompressZip Failed to open zip file:")), 2);
        QVERIFY(log.contains(QStringLiteral("decompressZip Failed to recreate output directory:")));
        QVERIFY(!QFileInfo::exists(m_dir.filePath(QStringLiteral("never"))));
    }

    void hostileEntriesNeverLandOutside_data()
    {
        QTest::addColumn<QString>("entryName");
        QTest::addColumn<QString>("landsInside"); // relative to the output folder; empty when refused

        QTest::newRow("through a folder") << QStringLiteral("a/../../x.txt") << QString();
        QTest::newRow("absolute") << QStringLiteral("<sandbox>/x.txt") << QString();
        QTest::newRow("sibling with common prefix") << QStringLiteral("../out-evil/x.txt") << QString();
        QTest::newRow("dots that stay inside") << QStringLiteral("a/../b/./x.txt") << QStringLiteral("b/x.txt");
        QTest::newRow("folder entry above") << QStringLiteral("../up/") << QString();
    }

    void hostileEntriesNeverLandOutside()
    {
        QFETCH(QString, entryName);
        QFETCH(QString, landsInside);
        QTemporaryDir sandbox;
        const QString out = sandbox.filePath(QStringLiteral("out"));
        entryName.replace(QStringLiteral("<sandbox>"), sandbox.path());
        const QString archive = sandbox.filePath(QStringLiteral("hostile.zip"));
        QVERIFY(writeRawArchive(archive, {{"first.txt", "1"}, {entryName.toUtf8(), "payload"}, {"last.txt", "2"}}));

        LogCapture log;
        TFileManager manager;
        UnzipSignals unzip(manager);
        manager.queueUnzipRequest(archive, out);
        QTRY_COMPARE_WITH_TIMEOUT(unzip.of("finished").size(), 1, 20000);
        QCOMPARE(unzip.of("finished")[0].last(), QVariant(true));
        QCOMPARE(readFileBytes(out + QStringLiteral("/first.txt")), QByteArray("1"));
        QCOMPARE(readFileBytes(out + QStringLiteral("/last.txt")), QByteArray("2"));

        // Everything in the sandbox but the archive lies under the output folder.
        QDirIterator all(sandbox.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                         QDirIterator::Subdirectories);
        while (all.hasNext()) {
            const QString path = all.next();
            QVERIFY2(path == archive || path == out || path.startsWith(out + QLatin1Char('/')), qPrintable(path));
        }
        if (landsInside.isEmpty())
            QVERIFY(log.contains(QStringLiteral("decompressZip Refused entry outside the output directory:")));
        else
            QCOMPARE(readFileBytes(out + QLatin1Char('/') + landsInside), QByteArray("payload"));
    }

    void destroyingWithQueuedRequestsReturns()
    {
        const QString archive = makeZip(QStringLiteral("many.zip"), {{QStringLiteral("big.bin"), randomBytes(4 << 20)}});
        QVERIFY(!archive.isEmpty());
        auto manager = std::make_unique<TFileManager>();
        for (int i = 0; i < 5; ++i)
            manager->queueUnzipRequest(archive, m_dir.filePath(QStringLiteral("many/%1").arg(i)));
        // The destructor lets a decompression under way end and drops the rest.
        manager.reset();
        int unpacked = 0;
        for (int i = 0; i < 5; ++i)
            unpacked += QFile::exists(m_dir.filePath(QStringLiteral("many/%1/big.bin").arg(i))) ? 1 : 0;
        QVERIFY(unpacked <= 1);
    }

    void childrenSeeTheModelFoldersAndTheLaterValue()
    {
        TProcess process;
        TFileManager manager;
        process.addEnvironmentVariable(QStringLiteral("KUTILS_PROBE"), QStringLiteral("first"));
        process.addEnvironmentVariable(QStringLiteral("KUTILS_PROBE"), QStringLiteral("second"));
        LogCapture log;
        // Arguments of any type reach the child as text.
        const QString output = runAndRead(process, QStringLiteral("sh"),
                                          {QStringLiteral("-c"),
                                           QStringLiteral("printf '%s|' \"$KVID_MODEL_DIR\" \"$KVID_MODEL_DATA_DIR\" "
                                                          "\"$KORVEL_AIE_MESSAGES\" \"$KVID_ALWAYS_LOG\" \"$KUTILS_PROBE\" \"$@\""),
                                           QStringLiteral("sh"), 42, 2.5, true, QStringLiteral("word with spaces")});
        QVERIFY(manager.defaultModelFolderPath().startsWith(m_home->machineData));
        QCOMPARE(output, QStringList({manager.defaultModelFolderPath(), manager.getModelFolderPath(),
                                      QStringLiteral("1|1|second|42|2.5|true|word with spaces|")})
                             .join(QLatin1Char('|')));
        // Started without logging: the arguments may hold secrets.
        QVERIFY(!log.lines().join(QLatin1Char('\n')).contains(QStringLiteral("word with spaces")));
    }

    void addToPathPutsTheLastPathFirst_data()
    {
        QTest::addColumn<bool>("pathSet");
        QTest::addColumn<QStringList>("added");
        QTest::addColumn<QString>("expected");

        QTest::newRow("two on a set PATH") << true << QStringList{QStringLiteral("/opt/a"), QStringLiteral("/opt/b")}
                                           << QStringLiteral("/opt/b;/opt/a;/usr/bin:/bin");
        QTest::newRow("no PATH at all") << false << QStringList{QStringLiteral("/opt/a")} << QStringLiteral("/opt/a;");
    }

    void addToPathPutsTheLastPathFirst()
    {
        QFETCH(bool, pathSet);
        QFETCH(QStringList, added);
        QFETCH(QString, expected);

        // The environment is taken at construction, so PATH is arranged before it.
        const QByteArray savedPath = qgetenv("PATH");
        if (pathSet)
            qputenv("PATH", "/usr/bin:/bin");
        else
            qunsetenv("PATH");
        TProcess process;
        qputenv("PATH", savedPath);

        for (const QString &path : added)
            process.addToPath(path);
        const QString printenv = QStandardPaths::findExecutable(QStringLiteral("printenv"));
        QCOMPARE(runAndRead(process, printenv, {QStringLiteral("PATH")}).trimmed(), expected);
    }

    void destroyingKillsTheChild()
    {
        LogCapture log;
        auto process = std::make_unique<TProcess>();
        process->start(QStringLiteral("sleep"), {600});
        QVERIFY(process->QProcess::waitForStarted(10000));
        QVERIFY(log.contains(QStringLiteral("600")));
        const qint64 pid = process->processId();
        QVERIFY(pid > 0);
        process.reset();
        QVERIFY(log.contains(QStringLiteral("~TProcess(): destroyed")));
        // The child was killed and reaped: its pid is gone.
        QVERIFY(!QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)));
    }

private:
    QString makeZip(const QString &name, const QMap<QString, QByteArray> &files, bool stored = false)
    {
        const QString source = m_dir.filePath(name + QStringLiteral(".src"));
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            if (!writeFile(source + QLatin1Char('/') + it.key(), it.value()))
                return {};
        const QString archive = m_dir.filePath(name);
        QStringList arguments{QStringLiteral("-q"), QStringLiteral("-r")};
        if (stored)
            arguments << QStringLiteral("-0");
        arguments << archive << QStringLiteral(".");
        return runTool(QStringLiteral("zip"), arguments, source) ? archive : QString();
    }

    std::unique_ptr<IsolatedHome> m_home;
    QTemporaryDir m_dir;
    QString m_video;
};

QTEST_GUILESS_MAIN(tst_TFileManager)
#include "tst_TFileManager.moc"
