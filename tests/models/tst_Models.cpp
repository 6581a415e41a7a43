// The model downloads: NetworkRequestManager's queued and ranged requests,
// and XModelConfiguration's catalogue, file lists and verified batches, both
// against the stand-in's model host.
#include "models/NetworkRequestManager.h"
#include "models/NetworkRequestTypes.h"
#include "models/XModelConfiguration.h"

#include "../cloud/CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelManager.h"
#include "aiutils/kzutils.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

// One byte past a whole range, and not a multiple of a page: two ranges, the
// second with an unaligned tail.
constexpr qint64 kTwoRangeSize = NetworkRequestManager::chunkSize + 4097;
constexpr qint64 kSmallSize = 300000;

void writePattern(const QString &path, qint64 size, char seed)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (qint64 done = 0; done < size; done += block.size()) {
        for (int i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>(((done + i) * 131 + seed) ^ ((done + i) >> 11));
        QVERIFY(file.write(block.constData(), std::min<qint64>(block.size(), size - done)) > 0);
    }
}

QByteArray md5Of(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Md5);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result() : QByteArray();
}

// The manager's signals; `requestFinished` is always a request's last.
struct RequestSignals : QueuedSignals
{
    explicit RequestSignals(NetworkRequestManager &manager)
    {
        watch(&manager, &NetworkRequestManager::requestFinished, "requestFinished");
        watch(&manager, &NetworkRequestManager::downloadFinished, "downloadFinished");
        watch(&manager, &NetworkRequestManager::downloadFailed, "downloadFailed");
    }
    bool waitFinished(int count, int timeoutMs) { return wait("requestFinished", count, timeoutMs); }
    QVariantMap result(int index) const { return of("requestFinished").value(index).value(1).toMap(); }
};

const QString kPassword = QStringLiteral("model-pass-9");
// The demo's catalogue: a CPU machine needs these (interp-1's two nets share a name).
const QStringList kCpuFiles{"flow-1-cpu-x1.kz", "interp-1-cpu-x1.kz", "upscale-2-cpu-x2.kz", "upscale-2-cpu-x4.kz",
                            "upscale-3-cpu-x2.kz"};

QByteArray catalogue()
{
    return readFileBytes(QStringLiteral(KUTILS_SOURCE_DIR "/demo/models/models.json"));
}

nlohmann::json record(const char *id)
{
    return nlohmann::json::parse(catalogue().toStdString()).at(id);
}

} // namespace

class tst_Models : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        writePattern(m_files.filePath("two-ranges.bin"), kTwoRangeSize, 3);
        writePattern(m_files.filePath("small.bin"), kSmallSize, 5);
        for (const QString &name : kCpuFiles)
            QVERIFY(kzutils::saveEncryptedFile({{"net.bin", QByteArray(5000, name.at(0).toLatin1())}},
                                               m_files.filePath(name), kPassword));
        QVERIFY(kzutils::saveEncryptedFile({{"net.bin", "other"}}, m_files.filePath("wrong-1-cpu-x1.kz"), "not-it"));
        m_host = std::make_unique<CloudStandIn>(QStringList{"--files", m_files.path()},
                                                QJsonObject{{"modelPassword", kPassword}});
        QVERIFY(m_host->isReady());
        QVERIFY(m_host->ready["files"].toString().startsWith("https://127.0.0.1:"));
        // Downloads, listing and removal share this folder; the catalogue stays apart.
        QSettings().setValue("kveaDataFolder", m_data.path());
        m_config = std::make_unique<XModelConfiguration>();
        QCOMPARE(dataDir(), m_data.path());
    }

    void init()
    {
        QVERIFY(m_host->reset());
        setModelHost(m_host->ready["files"].toString());
        writeCatalogue(catalogue());
        QDir data(dataDir());
        for (const QString &name : data.entryList(QDir::Files))
            data.remove(name);
    }

    void filesFollowDeviceBackendAndSystemVersion_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<bool>("apple");
        QTest::addColumn<float>("systemVersion");
        QTest::addColumn<int>("device");
        QTest::addColumn<QStringList>("files"); // "none": no entry at all

        QTest::newRow("cuda: four block numbers, two files")
            << "upscale-2" << false << 12.f << 0
            << QStringList{"upscale-2-cuda-x2-256x256-c86.kz", "upscale-2-cuda-x2-512x512-c86.kz"};
        QTest::newRow("device past the last") << "upscale-2" << false << 12.f << 2 << QStringList{"none"};
        QTest::newRow("spec between keys takes the lower") << "upscale-2" << true << 13.f << -1
                                                           << QStringList{"upscale-2-coreml-x2.kz"};
        QTest::newRow("spec equal to a key") << "upscale-2" << true << 13.5f << -1 << QStringList{"upscale-2-coreml-x2.kz"};
        QTest::newRow("spec all above: no files") << "upscale-2" << true << 11.f << -1 << QStringList{};
    }

    void filesFollowDeviceBackendAndSystemVersion()
    {
        QFETCH(QString, model);
        QFETCH(bool, apple);
        QFETCH(float, systemVersion);
        QFETCH(int, device);
        QFETCH(QStringList, files);
        const aiengine::DeviceSelector selector({{"big", 24, 0, 86}, {"small", 8, -1, 0}}, apple, systemVersion);
        const auto got = XModelConfiguration::supportedFilesOf(record(qPrintable(model)), aiengine::ModelManager::GetInstance(),
                                                               selector, device, systemVersion);
        QCOMPARE(got.value_or(QStringList{"none"}), files);
    }

    void listingReadsTheCatalogueAndLeavesBrokenRecordsOut()
    {
        QJsonObject models = QJsonDocument::fromJson(catalogue()).object();
        // A type of the wrong kind, and a scale that is no number.
        const QJsonObject scales{{"two", QJsonObject{{"nets", QJsonArray{0}}}}};
        models["broken-1"] = QJsonObject{{"shortName", "broken"}, {"version", 1}, {"modelType", "one"},
                                         {"backends", QJsonObject{{"cpu", QJsonObject{{"scales", scales}}}}}};
        writeCatalogue(QJsonDocument(models).toJson());
        StdoutCapture output;

        const QVariantMap listed = m_config->getStandaloneModelIdToBasicInfoMap();
        QCOMPARE(listed.keys(), (QStringList{"interp-1", "upscale-2", "upscale-3"}));
        QCOMPARE(listed["upscale-2"].toMap()["name"].toString(), QString("Upscale"));
        QCOMPARE(listed["interp-1"].toMap()["type"].toString(), QString("Frame Interpolation"));
        QCOMPARE(listed["interp-1"].toMap()["dependencies"].toStringList(), QStringList{"flow-1"});
        QCOMPARE(XModelConfiguration::categoryOf(3), QString("Others"));

        // Hidden from the list, still needed on disk.
        const QVariantMap supported = m_config->getSupportedModelIdToFilesNameListMap(-1);
        QCOMPARE(supported["flow-1"].toStringList(), QStringList{"flow-1-cpu-x1.kz"});
        QVERIFY(!supported.contains("broken-1"));
        QCOMPARE(m_config->getSupportedModelIdToFilesNameListMap(-2),
                 m_config->getSupportedModelIdToFilesNameListMap(aiengine::DeviceSelector::GetInstance().preferredDevice()));
        QVERIFY(output.text().contains("broken-1"));
    }

    void removalKeepsSupportedFilesAndRefusesAPartialCatalogue_data()
    {
        QTest::addColumn<QByteArray>("catalogueText");
        QTest::addColumn<QStringList>("remaining");
        const QStringList all{"interp-1-cpu-x1.kz", "notes.txt", "stale-1-cpu-x1.kz", "upscale-2-cpu-x2.kz"};
        QTest::newRow("catalogue") << catalogue() << QStringList{"interp-1-cpu-x1.kz", "notes.txt", "upscale-2-cpu-x2.kz"};
        QTest::newRow("empty catalogue") << QByteArray("{}") << all;
        QByteArray broken = catalogue();
        broken.replace("\"version\": \"3\"", "\"version\": 3");
        QTest::newRow("a broken record") << broken << all;
    }

    void removalKeepsSupportedFilesAndRefusesAPartialCatalogue()
    {
        QFETCH(QByteArray, catalogueText);
        QFETCH(QStringList, remaining);
        writeCatalogue(catalogueText);
        for (const QString &name : {"interp-1-cpu-x1.kz", "notes.txt", "stale-1-cpu-x1.kz", "upscale-2-cpu-x2.kz"}) {
            QFile file(dataDir() + "/" + name);
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        QCOMPARE(m_config->getExistingFilesNameList(), (QStringList{"interp-1-cpu-x1.kz", "stale-1-cpu-x1.kz", "upscale-2-cpu-x2.kz"}));
        m_config->removeUnsupportedModelFiles();
        QCOMPARE(QDir(dataDir()).entryList(QDir::Files, QDir::Name), remaining);

        // Names that leave the folder are refused before anything is removed.
        QFile outside(QFileInfo(dataDir()).path() + "/outside.kz");
        QVERIFY(outside.open(QIODevice::WriteOnly));
        outside.close();
        for (const QString &hostile : {"../outside.kz", "a/b.kz", "..\\outside.kz"})
            QVERIFY(!m_config->removeModelFiles({"interp-1-cpu-x1.kz", hostile}));
        QVERIFY(outside.exists());
        QVERIFY(m_config->removeModelFiles({"interp-1-cpu-x1.kz", "never-there.kz"}));
    }

    void batchDownloadsVerifiesAndCounts()
    {
        // One file is already there and is not fetched again.
        QVERIFY(QFile::copy(m_files.filePath("flow-1-cpu-x1.kz"), dataDir() + "/flow-1-cpu-x1.kz"));
        QSignalSpy exited(m_config.get(), &XModelConfiguration::downloadExited);
        QSignalSpy completed(m_config.get(), &XModelConfiguration::completedDownloadTaskCountChanged);
        m_config->downloadModelFiles(m_config->getSupportedModelIdToFilesNameListMap(-1));
        QCOMPARE(m_config->totalDownloadTaskCount(), kCpuFiles.size());
        QVERIFY(exited.wait(30000));
        QCOMPARE(exited.at(0), (QVariantList{true, QString()}));
        QCOMPARE(m_config->completedDownloadTaskCount(), kCpuFiles.size());
        QCOMPARE(completed.size(), kCpuFiles.size());
        QCOMPARE(m_config->getExistingFilesNameList(), kCpuFiles);
        for (const QString &name : kCpuFiles)
            QCOMPARE(readFileBytes(dataDir() + "/" + name), readFileBytes(m_files.filePath(name)));
        QStringList calls = fileCalls();
        calls.sort();
        QCOMPARE(calls, (QStringList{"/interp-1-cpu-x1.kz", "/upscale-2-cpu-x2.kz", "/upscale-2-cpu-x4.kz", "/upscale-3-cpu-x2.kz"}));
        QCOMPARE(m_host->log().first()["headers"]["Accept-Encoding"].toString(), QString("Identity"));
        // The workers are joined before the exit is told: anything more would be queued by now.
        QCoreApplication::processEvents();
        QCOMPARE(exited.size(), 1);
    }

    void failedTaskEndsTheBatchWithItsReason_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("host"); // "" the stand-in, "-" none configured
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("requests");
        QTest::newRow("404 three times") << "upscale-9-cpu-x2.kz" << "" << "404" << 3;
        QTest::newRow("wrong password") << "wrong-1-cpu-x1.kz" << "" << "Failed to verify file" << 3;
        QTest::newRow("climbs out of the folder") << "../upscale-2-cpu-x2.kz" << "" << "Invalid file name" << 0;
        QTest::newRow("no model host") << "upscale-2-cpu-x2.kz" << "-" << "Model host not configured" << 0;
        QTest::newRow("connection refused") << "upscale-2-cpu-x2.kz" << "https://127.0.0.1:9" << "Connection" << 0;
    }

    void failedTaskEndsTheBatchWithItsReason()
    {
        QFETCH(QString, file);
        QFETCH(QString, host);
        QFETCH(QString, message);
        QFETCH(int, requests);
        if (!host.isEmpty())
            setModelHost(host == "-" ? QString() : host);
        QSignalSpy exited(m_config.get(), &XModelConfiguration::downloadExited);
        m_config->downloadModelFiles({{"upscale-2", QStringList{file}}});
        QVERIFY(exited.wait(30000));
        QCOMPARE(exited.at(0), (QVariantList{false, message}));
        QCOMPARE(m_config->completedDownloadTaskCount(), 0);
        // Bad bytes never reach the disk.
        QCOMPARE(QDir(dataDir()).entryList(QDir::Files), QStringList());
        QCOMPARE(fileCalls().size(), requests);
    }

    void stopDuringATransferEndsItSilently()
    {
        QVERIFY(m_host->fault(QJsonObject{{"call", "file"}, {"kind", "hold"}}));
        QSignalSpy exited(m_config.get(), &XModelConfiguration::downloadExited);
        m_config->downloadModelFiles({{"upscale-2", QStringList{"upscale-2-cpu-x2.kz", "upscale-2-cpu-x4.kz"}},
                                      {"upscale-3", QStringList{"upscale-3-cpu-x2.kz", "interp-1-cpu-x1.kz"}}});
        QTRY_COMPARE_WITH_TIMEOUT(m_host->held(), 3, 20000); // three workers, the fourth task waits
        QElapsedTimer timer;
        timer.start();
        m_config->stopDownloading();
        // Without breaking the clients the join would wait out the read timeout.
        QVERIFY2(timer.elapsed() < 4000, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(m_host->release());
        QCoreApplication::processEvents();
        QCOMPARE(exited.size(), 0);
        QCOMPARE(QDir(dataDir()).entryList(QDir::Files), QStringList());
        QCOMPARE(fileCalls().size(), 3);
    }

    void checkThenChunkedDownloadIsByteIdenticalAndAsksEachRangeOnce()
    {
        NetworkRequestManager manager;
        RequestSignals events(manager);
        QCOMPARE(manager.queueRequest(NetworkRequest::CheckDownload, params("two-ranges.bin", {})), 1);
        QVERIFY(events.waitFinished(1, 20000));
        const QVariantMap checked = events.result(0);
        // The length comes back as text, and goes in again as it came.
        QCOMPARE(checked["contentLength"].toString(), QString::number(kTwoRangeSize));
        QVERIFY(checked["eTag"].toString().startsWith('"'));

        QCOMPARE(manager.queueRequest(NetworkRequest::ChunkedDownload,
                                      params("two-ranges.bin", checked["contentLength"])),
                 2);
        QVERIFY(events.waitFinished(2, 120000));
        QCOMPARE(events.names, (QStringList{"requestFinished", "downloadFinished", "requestFinished"}));
        QCOMPARE(events.firstOf("requestFinished"), (QVariantList{1, 2}));
        QCOMPARE(events.result(1)["eTag"].toString(), QString("\"given\""));
        QCOMPARE(md5Of(m_out.filePath("two-ranges.bin")), md5Of(m_files.filePath("two-ranges.bin")));

        QStringList ranges = rangesAsked();
        ranges.sort();
        QCOMPARE(ranges, (QStringList{"", "bytes=0-268435455", "bytes=268435456-268439552"}));
        // A file of exactly one range is asked in one.
        const quint64 chunk = NetworkRequestManager::chunkSize;
        QCOMPARE(NetworkRequestManager::chunkRanges(chunk), (std::vector<std::pair<quint64, quint64>>{{0, chunk - 1}}));
        // httplib's own Host: the authority alone, never the URL.
        const QString authority = m_host->ready["files"].toString().mid(QStringLiteral("https://").size());
        for (const QJsonValue &entry : m_host->log())
            QCOMPARE(entry["headers"]["Host"].toString(), authority);
    }

    void rangeFaultsAreRetriedOrFailTheDownload_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QJsonArray>("faults");
        QTest::addColumn<bool>("succeeds");
        QTest::addColumn<int>("requests");

        const auto fault = [](const char *kind, int occurrence) {
            return QJsonObject{{"call", "file"}, {"kind", kind}, {"occurrence", occurrence}};
        };
        QJsonArray threeLimits, fourLimits;
        for (int i = 1; i <= 3; ++i)
            threeLimits << fault("429", i);
        fourLimits = threeLimits;
        fourLimits << fault("429", 4);
        // 1 + 4 + 16 s of back-off, and none after the last.
        QTest::newRow("three 429 then 206") << "small.bin" << threeLimits << true << 4;
        QTest::newRow("four 429") << "small.bin" << fourLimits << false << 4;
        QTest::newRow("dropped mid-range, then whole") << "small.bin" << QJsonArray{fault("dropMidBody", 1)} << true << 2;
        // Range ignored: a 200 with exactly the range is the range...
        QTest::newRow("200 equal to the range") << "small.bin" << QJsonArray{fault("ignoreRange", 0)} << true << 1;
        // ...a 200 with the whole of a longer file is refused at the range's end.
        QTest::newRow("200 longer than the range") << "two-ranges.bin" << QJsonArray{fault("ignoreRange", 0)} << false << 8;
    }

    void rangeFaultsAreRetriedOrFailTheDownload()
    {
        QFETCH(QString, file);
        QFETCH(QJsonArray, faults);
        QFETCH(bool, succeeds);
        QFETCH(int, requests);
        QVERIFY(m_host->fault(faults));

        NetworkRequestManager manager;
        RequestSignals events(manager);
        const qint64 size = QFileInfo(m_files.filePath(file)).size();
        manager.queueRequest(NetworkRequest::ChunkedDownload, params(file, size));
        QVERIFY(events.waitFinished(1, 120000));
        QCOMPARE(events.names.first(), succeeds ? "downloadFinished" : "downloadFailed");
        if (succeeds)
            QCOMPARE(md5Of(m_out.filePath(file)), md5Of(m_files.filePath(file)));
        else
            QVERIFY(events.result(0).isEmpty());
        // A refused 200 fails its range's four attempts; the other range may be
        // claimed or not by then, so only the floor is fixed for the longer file.
        if (file == "two-ranges.bin")
            QVERIFY(rangesAsked().size() >= requests / 2);
        else
            QCOMPARE(rangesAsked().size(), requests);
    }

    // A plain download keeps only a 200 body; a request that cannot be made
    // fails without asking the host.
    void oneRequestEndsAsItShould_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("resource");
        QTest::addColumn<QString>("downloadPath"); // empty: beside the others
        QTest::addColumn<QVariant>("length");
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<QString>("eTag"); // "*": the host's own
        QTest::addColumn<QString>("logged");
        QTest::addColumn<int>("requests");
        const QStringList finished{"downloadFinished", "requestFinished"}, failed{"downloadFailed", "requestFinished"};
        // downloadFailed is not the plain path's signal: an empty eTag is the failure.
        const QStringList plainFailed{"requestFinished"};
        const QVariant small(kSmallSize);
        const QString out = m_out.path() + "/unusable.bin";
        QTest::newRow("200") << 0 << "small.bin" << QString() << small << finished << "*" << QString() << 1;
        QTest::newRow("404") << 0 << "missing.bin" << QString() << small << plainFailed << "" << "404" << 1;
        // Every write fails with ENOSPC there: a full disk.
        QTest::newRow("disk full") << 0 << "small.bin" << "/dev/full" << small << plainFailed << "" << "Disk access error" << 1;
        QTest::newRow("length not a number") << 2 << "small.bin" << out << QVariant("12ab") << failed << "" << "" << 0;
        QTest::newRow("file cannot be made") << 2 << "small.bin" << m_out.path() + "/no/such/folder/x.bin" << QVariant(100)
                                             << failed << "" << "" << 0;
        // A finished download hands back the eTag it was given.
        QTest::newRow("zero length: empty file") << 2 << "small.bin" << out << QVariant("0") << finished << "\"given\"" << ""
                                                 << 0;
        QTest::newRow("unknown type") << 7 << "small.bin" << out << small << plainFailed << "" << "" << 0;
    }

    void oneRequestEndsAsItShould()
    {
        QFETCH(int, type);
        QFETCH(QString, resource);
        QFETCH(QString, downloadPath);
        QFETCH(QVariant, length);
        QFETCH(QStringList, names);
        QFETCH(QString, eTag);
        QFETCH(QString, logged);
        QFETCH(int, requests);
        NetworkRequestManager manager;
        RequestSignals events(manager);
        QVariantMap request = params(resource, length);
        if (!downloadPath.isEmpty())
            request["downloadPath"] = downloadPath;
        if (request["downloadPath"].toString().startsWith(m_out.path())) // never a device such as /dev/full
            QFile::remove(request["downloadPath"].toString());
        QString log;
        {
            // Captured only while the request runs, so that failures still show.
            const StdoutCapture output;
            manager.queueRequest(type, request);
            QVERIFY(events.waitFinished(1, 20000));
            log = output.text();
        }
        QCOMPARE(events.names, names);
        const QString given = events.result(0)["eTag"].toString();
        QVERIFY2(eTag == "*" ? !given.isEmpty() : given == eTag, qPrintable(given));
        if (eTag == "*") {
            QCOMPARE(md5Of(m_out.filePath(resource)), md5Of(m_files.filePath(resource)));
        } else {
            // The error page never becomes the file, and the log says why.
            QCOMPARE(QFileInfo(request["downloadPath"].toString()).size(), 0);
            QVERIFY2(log.contains(logged), qPrintable(log));
            QVERIFY(logged.isEmpty() || !log.contains("no response"));
        }
        QCOMPARE(m_host->log().size(), requests);
    }

    void destructionMidTransferDoesNotWaitOutTheTimeout()
    {
        // Every range is held by the host: without the stop the clients would
        // wait out httplib's read timeout (5 s) on each of four attempts.
        QVERIFY(m_host->fault(QJsonObject{{"call", "file"}, {"kind", "hold"}}));
        auto manager = std::make_unique<NetworkRequestManager>();
        manager->queueRequest(NetworkRequest::ChunkedDownload, params("two-ranges.bin", kTwoRangeSize));
        manager->queueRequest(NetworkRequest::Download, params("small.bin", kSmallSize));
        QTRY_COMPARE_WITH_TIMEOUT(m_host->held(), 2, 20000);
        QElapsedTimer timer;
        timer.start();
        manager.reset();
        QVERIFY2(timer.elapsed() < 4000, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(m_host->release());
        // The queued plain download never started.
        QCOMPARE(rangesAsked().size(), 2);
    }

private:
    QVariantMap params(const QString &name, const QVariant &length) const
    {
        return {{"domain", m_host->ready["files"].toString()}, {"clientResource", "/" + name},
                {"downloadPath", m_out.path() + "/" + name}, {"contentLength", length}, {"eTag", "\"given\""}};
    }
    QStringList rangesAsked()
    {
        QStringList ranges;
        for (const QJsonValue &entry : m_host->log())
            if (entry["call"] == "file")
                ranges << entry["headers"]["Range"].toString();
        return ranges;
    }

    QString dataDir() const { return aiengine::ModelManager::GetInstance().getLocalDirPath(); }
    void writeCatalogue(const QByteArray &text)
    {
        QFile file(aiengine::ModelManager::GetInstance().getModelDirPath() + "/models.json");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text);
        file.close();
        // The manager notices a change by time and size; a new time is enough.
        file.open(QIODevice::ReadWrite);
        file.setFileTime(QDateTime::currentDateTime().addSecs(++m_stamp), QFileDevice::FileModificationTime);
    }
    void setModelHost(const QString &host) { m_host->configure({{"modelPassword", kPassword}, {"modelHost", host}}); }
    QStringList fileCalls()
    {
        QStringList calls;
        for (const QJsonValue &entry : m_host->log())
            calls << entry["path"].toString();
        return calls;
    }

    IsolatedHome m_home;
    QTemporaryDir m_files{QStringLiteral(KUTILS_TEST_WORK_DIR "/models-files-XXXXXX")};
    QTemporaryDir m_out{QStringLiteral(KUTILS_TEST_WORK_DIR "/models-out-XXXXXX")};
    QTemporaryDir m_data;
    std::unique_ptr<CloudStandIn> m_host;
    std::unique_ptr<XModelConfiguration> m_config;
    int m_stamp = 0;
};

QTEST_GUILESS_MAIN(tst_Models)
#include "tst_Models.moc"
