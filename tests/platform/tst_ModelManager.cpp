// The model engine's stand-in, the machine facts it chooses devices by, and
// the enciphered archives that model files are.
#include "../files/FilesTestSupport.h"
#include "../support/ZipEntries.h"

#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelBackendFactory.h"
#include "aiengine/ModelManager.h"
#include "aiutils/SystemInfo.h"
#include "aiutils/kzutils.h"

#include <QJsonObject>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <thread>

using aiengine::DeviceSelector;
using aiengine::ModelBackendFactory;
using aiengine::ModelManager;
using aiutils::DeviceInfo;
using aiutils::SystemInfo;
using Buffers = QMap<QString, QByteArray>;

namespace {

constexpr double GiB = 1024.0 * 1024.0 * 1024.0;

const QString password = QStringLiteral("Tr0ub4dor&3");

} // namespace

Q_DECLARE_METATYPE(std::set<std::string>)

class tst_ModelManager : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QTemporaryDir m_archives;
    QByteArray m_goodModel;

    bool writeCatalogue(const QByteArray &text)
    {
        QFile catalogue(m_dir.filePath(ModelManager::catalogueName));
        return catalogue.open(QIODevice::WriteOnly | QIODevice::Truncate) && catalogue.write(text) == text.size();
    }

private slots:
    void initTestCase()
    {
        const QString modelPath = m_archives.filePath(QStringLiteral("model.kz"));
        QVERIFY(kzutils::saveEncryptedFile({{QStringLiteral("weights.bin"), randomBytes(200000, 7)},
                                            {QStringLiteral("graph.json"), QByteArray(5000, '{')}},
                                           modelPath, password));
        m_goodModel = readFileBytes(modelPath);
        QVERIFY(!m_goodModel.isEmpty());
    }

    void firstAskTakesTheInstalledFolders()
    {
        QVERIFY(!ModelManager::IsInitialized());
        const QString models = m_dir.filePath("models"), data = m_dir.filePath("data");
        ModelManager::setFolderSource([&] { return ModelManager::Folders{models, data}; });
        ModelManager &before = ModelManager::GetInstance();
        QCOMPARE(before.getModelDirPath(), models);
        QCOMPARE(before.getLocalDirPath(), data);
        // Remade in place: a reference taken before stays the instance, with its folders.
        ModelManager::MakeInstance("shortName", true, true, "/", "https://models.example");
        QCOMPARE(&ModelManager::GetInstance(), &before);
        QCOMPARE(before.fileUrl("a.kz"), QStringLiteral("https://models.example/a.kz"));
        QCOMPARE(before.getLocalDirPath(), data);
    }

    void readsTheExampleCatalogue()
    {
        ModelManager manager("shortName", true, true, "/", {});
        manager.setModelDirPath(KUTILS_SOURCE_DIR "/demo/models", m_dir.path());
        const auto texts = manager.getModelInfo();
        QCOMPARE(texts.size(), 4u);
        QCOMPARE(nlohmann::json::parse(texts.at("interp-1"))["dependencies"][0].get<std::string>(), "flow-1");
        QCOMPARE(manager.getModelInfo(aiengine::allModels).size(), 4u);
        QCOMPARE(manager.getModelInfo("upscale-3")["version"].get<std::string>(), "3");
        QVERIFY(manager.getModelInfo("nothing-1").is_null());
        // No catalogue: no models until one is installed; a broken one has none either.
        manager.setModelDirPath(m_dir.path(), m_dir.path());
        QVERIFY(manager.getModelInfo().empty());
        QVERIFY(writeCatalogue(R"({"one-1": {"shortName": "one"}})"));
        QCOMPARE(manager.getModelInfo().size(), 1u);
        QVERIFY(writeCatalogue("[1, 2"));
        QVERIFY(manager.getModelInfo().empty());
    }

    void copiesKeepTheirFoldersWhileTheInstanceMoves()
    {
        ModelManager shared("shortName", true, true, "/", {});
        shared.setModelDirPath("/m0", "/d0");
        // Copies made during the moves see one pair of folders, never a mix.
        std::thread mover([&] {
            for (int i = 1; i <= 2000; ++i)
                shared.setModelDirPath(QStringLiteral("/m%1").arg(i), QStringLiteral("/d%1").arg(i));
        });
        bool consistent = true;
        for (int i = 0; i < 2000; ++i) {
            const ModelManager copy = shared;
            consistent &= copy.getModelDirPath().mid(2) == copy.getLocalDirPath().mid(2);
        }
        mover.join();
        QVERIFY(consistent);
    }

    void modelFileExists_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("checkContent");
        QTest::addColumn<bool>("expected");
        const QByteArray zip("PK\x03\x04rest", 8);
        QTest::newRow("zip") << "upscale-2-cpu-x2.kz" << zip << true << true;
        QTest::newRow("error page") << "upscale-2-cpu-x2.kz" << QByteArray("<html>") << true << false;
        QTest::newRow("error page, unchecked") << "upscale-2-cpu-x2.kz" << QByteArray("<html>") << false << true;
        QTest::newRow("empty") << "upscale-2-cpu-x2.kz" << QByteArray() << false << false;
        QTest::newRow("another model's") << "interp-1-cpu-x1.kz" << zip << true << false;
    }

    void modelFileExists()
    {
        QFETCH(QString, fileName);
        QFETCH(QByteArray, content);
        QFETCH(bool, checkContent);
        QFETCH(bool, expected);
        QTemporaryDir data;
        QFile file(data.filePath(fileName));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
        file.close();
        ModelManager manager("shortName", true, checkContent, "/", {});
        manager.setModelDirPath(KUTILS_SOURCE_DIR "/demo/models", data.path());
        QCOMPARE(manager.modelFileExists(manager.getModelInfo("upscale-2"), fileName.toStdString()), expected);
    }

    void preferredDeviceIsCudaThenMemory()
    {
        const aiutils::DeviceInfo intel{"Intel", 0.0, -1, 0}, amd{"AMD", 16.0, -1, 0}, nvidia{"NVIDIA", 8.0, 0, 86},
            bigNvidia{"NVIDIA", 24.0, 1, 89};
        const auto preferred = [](std::vector<aiutils::DeviceInfo> gpus) {
            return DeviceSelector(std::move(gpus), false, 12).preferredDevice();
        };
        QCOMPARE(preferred({}), -1);
        QCOMPARE(preferred({intel, amd}), 1);
        QCOMPARE(preferred({nvidia, bigNvidia, amd}), 1);
        QCOMPARE(preferred({intel, intel}), 0);
    }

    void preferredBackend_data()
    {
        QTest::addColumn<int>("device");
        QTest::addColumn<std::set<std::string>>("offered");
        QTest::addColumn<float>("appleMinimum"); // 0: not an Apple machine
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("capability");
        const std::set<std::string> all{"cpu", "cuda", "vulkan", "coreml"};
        QTest::newRow("other GPU") << 1 << all << 0.0f << "vulkan" << 0;
        QTest::newRow("GPU, only CPU offered") << 1 << std::set<std::string>{"cpu"} << 0.0f << "cpu" << 0;
        QTest::newRow("nothing offered") << 0 << std::set<std::string>{"odd"} << 0.0f << "none" << 86;
        QTest::newRow("below the CPU") << -2 << all << 0.0f << "none" << 0;
        QTest::newRow("Apple, system too old") << 1 << all << 13.0f << "vulkan" << 0;
    }

    void preferredBackend()
    {
        QFETCH(int, device);
        QFETCH(std::set<std::string>, offered);
        QFETCH(float, appleMinimum);
        QFETCH(QString, expected);
        QFETCH(int, capability);
        const DeviceSelector selector({{"NVIDIA", 8.0, 0, 86}, {"AMD", 16.0, -1, 0}}, appleMinimum > 0, 12.0f);
        const int code = selector.preferredBackend(device, offered, appleMinimum > 0 ? appleMinimum : 10.15f);
        QCOMPARE(QString::fromStdString(ModelBackendFactory::MBNameFor(code)), expected);
        QCOMPARE(selector.deviceCapability(device), capability);
    }

    void cpuName_data()
    {
        QTest::addColumn<QByteArray>("cpuinfo");
        QTest::addColumn<QString>("expected");
        QTest::newRow("x86") << QByteArray("processor\t: 0\nmodel name\t: AMD Ryzen 9 7950X  16-Core\nflags\t: sse\n")
                             << "AMD Ryzen 9 7950X 16-Core";
        QTest::newRow("arm board")
            << QByteArray("processor\t: 0\nBogoMIPS\t: 108.00\n\nModel\t: Raspberry Pi 4 Model B\n")
            << "Raspberry Pi 4 Model B";
        QTest::newRow("nothing known") << QByteArray("processor\t: 0\n") << QSysInfo::currentCpuArchitecture();
    }

    void cpuName()
    {
        QFETCH(QByteArray, cpuinfo);
        QFETCH(QString, expected);
        QCOMPARE(SystemInfo::parseCpuName(cpuinfo), expected);
    }

    void memoryIsCappedByANumericCgroupLimit_data()
    {
        QTest::addColumn<QString>("limitFile");
        QTest::addColumn<QByteArray>("limit");
        QTest::addColumn<double>("total");
        QTest::addColumn<double>("available");
        const QString v2 = "sys/fs/cgroup/memory.max", v1 = "sys/fs/cgroup/memory/memory.limit_in_bytes";
        QTest::newRow("v2 max") << v2 << QByteArray("max\n") << 16.0 << 12.0;
        QTest::newRow("v2 above available") << v2 << QByteArray("14495514624\n") << 13.5 << 12.0;
        QTest::newRow("v1 unlimited") << v1 << QByteArray("9223372036854771712\n") << 16.0 << 12.0;
    }

    void memoryIsCappedByANumericCgroupLimit()
    {
        QFETCH(QString, limitFile);
        QFETCH(QByteArray, limit);
        QFETCH(double, total);
        QFETCH(double, available);
        QTemporaryDir root;
        QVERIFY(writeFile(root.filePath("proc/meminfo"),
                          "MemTotal:       16777216 kB\nMemFree:  1024 kB\nMemAvailable:   12582912 kB\n"));
        QVERIFY(writeFile(root.filePath(limitFile), limit));
        const SystemInfo facts(root.path());
        QCOMPARE(facts.cpuMemory().first, total);
        QCOMPARE(facts.cpuMemory().second, available);
    }

    void drmCardsWithVendorAndMemoryConnectorsSkipped()
    {
        QTemporaryDir root;
        const QString drm = root.filePath("sys/class/drm/");
        QVERIFY(writeFile(drm + "card1/device/vendor", "0x1002\n"));
        QVERIFY(writeFile(drm + "card1/device/device", "0x73bf\n"));
        QVERIFY(writeFile(drm + "card1/device/mem_info_vram_total", QByteArray::number(qint64(16 * GiB)) + "\n"));
        QVERIFY(writeFile(drm + "card0/device/vendor", "0x8086\n"));
        QVERIFY(writeFile(drm + "card0/device/device", "0x4680\n"));
        QVERIFY(writeFile(drm + "card0-HDMI-A-1/device/vendor", "0x8086\n"));
        QVERIFY(writeFile(drm + "renderD128/device/vendor", "0x8086\n"));
        QVERIFY(writeFile(drm + "card2/device/uevent", "DRIVER=simpledrm\n")); // no vendor: a framebuffer
        QVERIFY(writeFile(drm + "card10/device/vendor", "0x10de\n"));
        QVERIFY(writeFile(drm + "card10/device/product_name", "Some Card\n"));
        const SystemInfo facts(root.path());
        const std::vector<DeviceInfo> expected{{"Intel GPU 8086:4680", 0.0, -1, 0},
                                               {"AMD GPU 1002:73bf", 16.0, -1, 0},
                                               {"Some Card", 0.0, -1, 0}};
        QCOMPARE(facts.getGPUList(), expected);
        QVERIFY(SystemInfo(root.filePath("nothing")).getGPUList().empty());
    }

    void savedArchiveRoundTrips_data()
    {
        QTest::addColumn<Buffers>("files");
        QTest::newRow("plain words") << Buffers{{QStringLiteral("note.txt"), "plain words that must not show"}};
        QTest::newRow("empty buffer beside data")
            << Buffers{{QStringLiteral("empty"), QByteArray()}, {QStringLiteral("data"), randomBytes(4096, 1)}};
        QTest::newRow("names with folders and accents")
            << Buffers{{QStringLiteral("sub/caf\u00e9.json"), "{}"}, {QStringLiteral("b.bin"), randomBytes(64, 2)}};
    }

    void savedArchiveRoundTrips()
    {
        QFETCH(Buffers, files);
        const QString path = m_archives.filePath(QStringLiteral("roundtrip/out.zip"));
        QVERIFY(kzutils::saveEncryptedFile(files, path, password));
        QCOMPARE(unpack(path, password.toUtf8()), files);
        // Enciphered: no entry opens without the password, and no text shows.
        for (const QByteArray &withoutPassword : unpack(path, {}))
            QVERIFY(withoutPassword.isNull());
        QVERIFY(!readFileBytes(path).contains("plain words"));
        QVERIFY(kzutils::verifyCompressedBuffer(QStringLiteral("out.zip"), readFileBytes(path),
                                                QVariantMap{{QStringLiteral("password"), password}}, true));
    }

    void savingNothingFailsAndKeepsTheOldFile()
    {
        const QString path = m_archives.filePath(QStringLiteral("kept.zip"));
        QVERIFY(kzutils::saveEncryptedFile({{QStringLiteral("a"), "a"}}, path, password));
        const QByteArray before = readFileBytes(path);
        QVERIFY(!kzutils::saveEncryptedFile({}, path, password));
        QCOMPARE(readFileBytes(path), before);
    }

    void verification_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("pass");
        QTest::addColumn<bool>("readThrough");
        QTest::addColumn<bool>("expected");

        QTest::newRow("good, full check") << m_goodModel << password << true << true;
        QTest::newRow("truncated by one byte") << m_goodModel.chopped(1) << password << true << false;
        QTest::newRow("first half only") << m_goodModel.left(m_goodModel.size() / 2) << password << false << false;
        QTest::newRow("not an archive") << QByteArray(4096, 'x') << password << true << false;
        // A byte in the middle of the large noise entry: the directory stays intact,
        // so only decompressing to the end shows the damage.
        QByteArray damaged = m_goodModel;
        damaged[damaged.size() / 2] = char(damaged[damaged.size() / 2] ^ 0x5a);
        QTest::newRow("flipped byte, directory check") << damaged << password << false << true;
        QTest::newRow("flipped byte, read through") << damaged << password << true << false;

        // A plain ZIP is no model file, whatever its content.
        const QString plainPath = m_archives.filePath(QStringLiteral("plain.zip"));
        QVERIFY(kzutils::saveEncryptedFile({{QStringLiteral("weights.bin"), randomBytes(1000, 3)}}, plainPath, QString()));
        QTest::newRow("not enciphered") << readFileBytes(plainPath) << password << true << false;
    }

    void verification()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, pass);
        QFETCH(bool, readThrough);
        QFETCH(bool, expected);
        const QJsonObject options{{QStringLiteral("password"), pass}};
        QCOMPARE(kzutils::verifyCompressedBuffer(QStringLiteral("model.kz"), bytes, options, readThrough), expected);
    }

    void bufferToFileReplacesWholeOrLeavesNothing_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::newRow("new folders on the way, then over the file") << QStringLiteral("blocked/new/sub/model.kz");
        QTest::newRow("target is a folder") << QStringLiteral("blocked/model.kz");
        QTest::newRow("parent is a file") << QStringLiteral("blocked/file.txt/model.kz");
        QTest::newRow("empty path") << QString();
    }

    void bufferToFileReplacesWholeOrLeavesNothing()
    {
        QFETCH(QString, relativePath);
        const QString folder = m_archives.filePath(QStringLiteral("blocked"));
        QVERIFY(QDir().mkpath(folder + QStringLiteral("/model.kz")));
        QFile blocker(folder + QStringLiteral("/file.txt"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const auto entries = [&] { return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot); };
        const QStringList before = entries();

        const QString path = relativePath.isEmpty() ? QString() : m_archives.filePath(relativePath);
        const bool writable = relativePath.contains(QStringLiteral("/new/"));
        for (const QByteArray &bytes : {m_goodModel, randomBytes(1024, 9)}) {
            QCOMPARE(kzutils::bufferToFile(bytes, path).isEmpty(), writable);
            if (writable)
                QCOMPARE(readFileBytes(path), bytes);
        }
        if (writable) {
            // No temporary file is left beside it.
            QCOMPARE(QDir(QFileInfo(path).path()).entryList(QDir::Files | QDir::Hidden), QStringList{"model.kz"});
            return;
        }
        QCOMPARE(entries(), before);
        QVERIFY(QFileInfo(folder + QStringLiteral("/model.kz")).isDir());
    }
};

QTEST_GUILESS_MAIN(tst_ModelManager)
#include "tst_ModelManager.moc"
