#include "models/XModelConfiguration.h"

#include "../cloud/CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelManager.h"
#include "aiutils/kzutils.h"

#include <QElapsedTimer>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

const QString kPassword = QStringLiteral("model-pass-9");
// The demo's catalogue: a CPU machine needs these (interp-1's two nets share a name).
const QStringList kCpuFiles{"flow-1-cpu-x1.kz", "interp-1-cpu-x1.kz", "upscale-2-cpu-x2.kz", "upscale-2-cpu-x4.kz",
                            "upscale-3-cpu-x2.kz"};

QByteArray catalogue()
{
    QFile file(QStringLiteral(KUTILS_SOURCE_DIR "/demo/models/models.json"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

nlohmann::json record(const char *id)
{
    return nlohmann::json::parse(catalogue().toStdString()).at(id);
}

} // namespace

class tst_XModelConfiguration : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void filesFollowDeviceBackendAndSystemVersion_data();
    void filesFollowDeviceBackendAndSystemVersion();
    void listingReadsTheCatalogueAndLeavesBrokenRecordsOut();
    void removalKeepsSupportedFilesAndRefusesAPartialCatalogue_data();
    void removalKeepsSupportedFilesAndRefusesAPartialCatalogue();
    void batchDownloadsVerifiesAndCounts();
    void failedTaskEndsTheBatchWithItsReason_data();
    void failedTaskEndsTheBatchWithItsReason();
    void stopDuringATransferEndsItSilently();

private:
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
    void setModelHost(const QString &host)
    {
        QFile file(m_host->folder() + "/config.json");
        QVERIFY(file.open(QIODevice::ReadOnly));
        QJsonObject config = QJsonDocument::fromJson(file.readAll()).object();
        file.close();
        config["modelHost"] = host;
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(QJsonDocument(config).toJson());
        file.close();
        Configuration::reload();
    }
    QStringList fileCalls()
    {
        QStringList calls;
        for (const QJsonValue &entry : m_host->log())
            calls << entry["path"].toString();
        return calls;
    }

    IsolatedHome m_home;
    QTemporaryDir m_files;
    QTemporaryDir m_data;
    std::unique_ptr<CloudStandIn> m_host;
    std::unique_ptr<XModelConfiguration> m_config;
    int m_stamp = 0;
};

void tst_XModelConfiguration::initTestCase()
{
    for (const QString &name : kCpuFiles)
        QVERIFY(kzutils::saveEncryptedFile({{"net.bin", QByteArray(5000, name.at(0).toLatin1())}},
                                           m_files.filePath(name), kPassword));
    QVERIFY(kzutils::saveEncryptedFile({{"net.bin", "other"}}, m_files.filePath("wrong-1-cpu-x1.kz"), "not-it"));
    m_host = std::make_unique<CloudStandIn>(QStringList{"--files", m_files.path()},
                                            QJsonObject{{"modelPassword", kPassword}});
    QVERIFY(m_host->isReady());
    // Downloads, listing and removal share this folder; the catalogue stays apart.
    QSettings().setValue("kveaDataFolder", m_data.path());
    m_config = std::make_unique<XModelConfiguration>();
    QCOMPARE(dataDir(), m_data.path());
}

void tst_XModelConfiguration::init()
{
    QVERIFY(m_host->reset());
    setModelHost(m_host->ready["files"].toString());
    writeCatalogue(catalogue());
    QDir data(dataDir());
    for (const QString &name : data.entryList(QDir::Files))
        data.remove(name);
}

void tst_XModelConfiguration::filesFollowDeviceBackendAndSystemVersion_data()
{
    QTest::addColumn<QString>("model");
    QTest::addColumn<bool>("apple");
    QTest::addColumn<float>("systemVersion");
    QTest::addColumn<int>("device");
    QTest::addColumn<QStringList>("files"); // "none": no entry at all

    QTest::newRow("cpu") << "upscale-2" << false << 12.f << -1 << QStringList{"upscale-2-cpu-x2.kz", "upscale-2-cpu-x4.kz"};
    QTest::newRow("cuda: four block numbers, two files")
        << "upscale-2" << false << 12.f << 0
        << QStringList{"upscale-2-cuda-x2-256x256-c86.kz", "upscale-2-cuda-x2-512x512-c86.kz"};
    QTest::newRow("device past the last") << "upscale-2" << false << 12.f << 2 << QStringList{"none"};
    QTest::newRow("spec between keys takes the lower") << "upscale-2" << true << 13.f << -1
                                                       << QStringList{"upscale-2-coreml-x2.kz"};
    QTest::newRow("spec equal to a key") << "upscale-2" << true << 13.5f << -1 << QStringList{"upscale-2-coreml-x2.kz"};
    QTest::newRow("spec all above: no files") << "upscale-2" << true << 11.f << -1 << QStringList{};
}

void tst_XModelConfiguration::filesFollowDeviceBackendAndSystemVersion()
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

void tst_XModelConfiguration::listingReadsTheCatalogueAndLeavesBrokenRecordsOut()
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

void tst_XModelConfiguration::removalKeepsSupportedFilesAndRefusesAPartialCatalogue_data()
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

void tst_XModelConfiguration::removalKeepsSupportedFilesAndRefusesAPartialCatalogue()
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

void tst_XModelConfiguration::batchDownloadsVerifiesAndCounts()
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
        QCOMPARE(readAll(dataDir() + "/" + name), readAll(m_files.filePath(name)));
    QStringList calls = fileCalls();
    calls.sort();
    QCOMPARE(calls, (QStringList{"/interp-1-cpu-x1.kz", "/upscale-2-cpu-x2.kz", "/upscale-2-cpu-x4.kz", "/upscale-3-cpu-x2.kz"}));
    QCOMPARE(m_host->log().first()["headers"]["Accept-Encoding"].toString(), QString("Identity"));
    // The workers are joined before the exit is told: anything more would be queued by now.
    QCoreApplication::processEvents();
    QCOMPARE(exited.size(), 1);
}

void tst_XModelConfiguration::failedTaskEndsTheBatchWithItsReason_data()
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

void tst_XModelConfiguration::failedTaskEndsTheBatchWithItsReason()
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

void tst_XModelConfiguration::stopDuringATransferEndsItSilently()
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

QTEST_GUILESS_MAIN(tst_XModelConfiguration)
#include "tst_XModelConfiguration.moc"
