#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelBackendFactory.h"
#include "aiengine/ModelManager.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

using aiengine::DeviceSelector;
using aiengine::ModelBackendFactory;
using aiengine::ModelManager;

Q_DECLARE_METATYPE(std::set<std::string>)

class tst_ModelManager : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    bool writeCatalogue(const QByteArray &text)
    {
        QFile catalogue(m_dir.filePath(ModelManager::catalogueName));
        return catalogue.open(QIODevice::WriteOnly | QIODevice::Truncate) && catalogue.write(text) == text.size();
    }

private slots:
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

    void computeFilenameAddsBlocksAndCapabilityWhenSet()
    {
        const ModelManager manager("shortName", true, true, "/", {});
        const auto name = [&](int width, int height, int capability, bool extension) {
            return QString::fromStdString(
                manager.computeFilename("upscale", "2", "cpu", 4, width, height, capability, extension));
        };
        QCOMPARE(name(256, 0, 0, false), "upscale-2-cpu-x4");
        QCOMPARE(name(512, 256, 86, true), "upscale-2-cpu-x4-512x256-c86.kz");
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
        QTest::newRow("CPU") << -1 << all << 0.0f << "cpu" << 0;
        QTest::newRow("CUDA GPU") << 0 << all << 0.0f << "cuda" << 86;
        QTest::newRow("other GPU") << 1 << all << 0.0f << "vulkan" << 0;
        QTest::newRow("GPU, only CPU offered") << 1 << std::set<std::string>{"cpu"} << 0.0f << "cpu" << 0;
        QTest::newRow("nothing offered") << 0 << std::set<std::string>{"odd"} << 0.0f << "none" << 86;
        QTest::newRow("past the end") << 2 << all << 0.0f << "none" << 0;
        QTest::newRow("below the CPU") << -2 << all << 0.0f << "none" << 0;
        QTest::newRow("Apple, system too old") << 1 << all << 13.0f << "vulkan" << 0;
        QTest::newRow("Apple") << 1 << all << 10.15f << "coreml" << 0;
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
};

QTEST_GUILESS_MAIN(tst_ModelManager)
#include "tst_ModelManager.moc"
