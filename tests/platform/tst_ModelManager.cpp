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
Q_DECLARE_METATYPE(std::vector<aiutils::DeviceInfo>)

class tst_ModelManager : public QObject
{
    Q_OBJECT

private slots:
    void firstAskTakesTheInstalledFolders();
    void readsTheExampleCatalogue();
    void copiesKeepTheirFoldersWhileTheInstanceMoves();
    void computeFilename_data();
    void computeFilename();
    void modelFileExists_data();
    void modelFileExists();
    void preferredDevice_data();
    void preferredDevice();
    void preferredBackend_data();
    void preferredBackend();

private:
    QTemporaryDir m_dir;
};

void tst_ModelManager::firstAskTakesTheInstalledFolders()
{
    QVERIFY(!ModelManager::IsInitialized());
    const QString models = m_dir.filePath("models"), data = m_dir.filePath("data");
    ModelManager::setFolderSource([&] { return ModelManager::Folders{models, data}; });
    QCOMPARE(ModelManager::GetInstance().getModelDirPath(), models);
    QCOMPARE(ModelManager::GetInstance().getLocalDirPath(), data);
    QVERIFY(ModelManager::IsInitialized());

    // Remade in place: a reference taken before stays the instance.
    ModelManager &before = ModelManager::GetInstance();
    ModelManager::MakeInstance("shortName", true, true, "/", "https://models.example");
    QCOMPARE(&ModelManager::GetInstance(), &before);
    QCOMPARE(before.fileUrl("a.kz"), QStringLiteral("https://models.example/a.kz"));
}

void tst_ModelManager::readsTheExampleCatalogue()
{
    ModelManager manager("shortName", true, true, "/", {});
    manager.setModelDirPath(KUTILS_SOURCE_DIR "/demo/models", m_dir.path());
    const auto texts = manager.getModelInfo();
    QCOMPARE(texts.size(), 4u);
    QCOMPARE(nlohmann::json::parse(texts.at("interp-1"))["dependencies"][0].get<std::string>(), "flow-1");
    QCOMPARE(manager.getModelInfo(aiengine::allModels).size(), 4u);
    QCOMPARE(manager.getModelInfo("upscale-3")["version"].get<std::string>(), "3");
    QVERIFY(manager.getModelInfo("nothing-1").is_null());

    // A folder without a catalogue, or with a broken one, has no models.
    QFile broken(m_dir.filePath(ModelManager::catalogueName));
    QVERIFY(broken.open(QIODevice::WriteOnly));
    broken.write("[1, 2");
    broken.close();
    manager.setModelDirPath(m_dir.path(), m_dir.path());
    QVERIFY(manager.getModelInfo().empty());
}

void tst_ModelManager::copiesKeepTheirFoldersWhileTheInstanceMoves()
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

void tst_ModelManager::computeFilename_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("capability");
    QTest::addColumn<bool>("extension");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << 0 << 0 << 0 << true << "upscale-2-cpu-x4.kz";
    QTest::newRow("blocks") << 256 << 128 << 0 << true << "upscale-2-cpu-x4-256x128.kz";
    QTest::newRow("one side is no block") << 256 << 0 << 0 << true << "upscale-2-cpu-x4.kz";
    QTest::newRow("capability") << 512 << 512 << 86 << true << "upscale-2-cpu-x4-512x512-c86.kz";
    QTest::newRow("bare") << 0 << 0 << 0 << false << "upscale-2-cpu-x4";
}

void tst_ModelManager::computeFilename()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(int, capability);
    QFETCH(bool, extension);
    QFETCH(QString, expected);
    const ModelManager manager("shortName", true, true, "/", {});
    QCOMPARE(QString::fromStdString(manager.computeFilename("upscale", "2", "cpu", 4, width, height, capability,
                                                            extension)),
             expected);
}

void tst_ModelManager::modelFileExists_data()
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
    QTest::newRow("missing") << "" << QByteArray() << true << false;
}

void tst_ModelManager::modelFileExists()
{
    QFETCH(QString, fileName);
    QFETCH(QByteArray, content);
    QFETCH(bool, checkContent);
    QFETCH(bool, expected);
    QTemporaryDir data;
    const QString name = fileName.isEmpty() ? QStringLiteral("upscale-2-cpu-x2.kz") : fileName;
    if (!fileName.isEmpty()) {
        QFile file(data.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }
    ModelManager manager("shortName", true, checkContent, "/", {});
    manager.setModelDirPath(KUTILS_SOURCE_DIR "/demo/models", data.path());
    QCOMPARE(manager.modelFileExists(manager.getModelInfo("upscale-2"), name.toStdString()), expected);
}

void tst_ModelManager::preferredDevice_data()
{
    QTest::addColumn<std::vector<aiutils::DeviceInfo>>("gpus");
    QTest::addColumn<int>("expected");
    const aiutils::DeviceInfo intel{"Intel", 0.0, -1, 0}, amd{"AMD", 16.0, -1, 0}, nvidia{"NVIDIA", 8.0, 0, 86},
        bigNvidia{"NVIDIA", 24.0, 1, 89};
    QTest::newRow("none: the CPU") << std::vector<aiutils::DeviceInfo>{} << -1;
    QTest::newRow("most memory") << std::vector{intel, amd} << 1;
    QTest::newRow("CUDA before memory") << std::vector{amd, nvidia} << 1;
    QTest::newRow("biggest CUDA") << std::vector{nvidia, bigNvidia, amd} << 1;
    QTest::newRow("first of equals") << std::vector{intel, intel} << 0;
}

void tst_ModelManager::preferredDevice()
{
    QFETCH(std::vector<aiutils::DeviceInfo>, gpus);
    QFETCH(int, expected);
    QCOMPARE(DeviceSelector(gpus, false, 12).preferredDevice(), expected);
}

void tst_ModelManager::preferredBackend_data()
{
    QTest::addColumn<bool>("apple");
    QTest::addColumn<int>("device");
    QTest::addColumn<std::set<std::string>>("offered");
    QTest::addColumn<float>("minVersion");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("capability");
    const std::set<std::string> all{"cpu", "cuda", "vulkan", "coreml"};
    QTest::newRow("CPU") << false << -1 << all << 10.15f << "cpu" << 0;
    QTest::newRow("CUDA GPU") << false << 0 << all << 10.15f << "cuda" << 86;
    QTest::newRow("other GPU") << false << 1 << all << 10.15f << "vulkan" << 0;
    QTest::newRow("GPU, only CPU offered") << false << 1 << std::set<std::string>{"cpu"} << 10.15f << "cpu" << 0;
    QTest::newRow("nothing offered") << false << 0 << std::set<std::string>{"odd"} << 10.15f << "none" << 86;
    QTest::newRow("past the end") << false << 2 << all << 10.15f << "none" << 0;
    QTest::newRow("below the CPU") << false << -2 << all << 10.15f << "none" << 0;
    QTest::newRow("Apple") << true << 1 << all << 10.15f << "coreml" << 0;
    QTest::newRow("Apple, system too old") << true << 1 << all << 13.0f << "vulkan" << 0;
}

void tst_ModelManager::preferredBackend()
{
    QFETCH(bool, apple);
    QFETCH(int, device);
    QFETCH(std::set<std::string>, offered);
    QFETCH(float, minVersion);
    QFETCH(QString, expected);
    QFETCH(int, capability);
    const DeviceSelector selector({{"NVIDIA", 8.0, 0, 86}, {"AMD", 16.0, -1, 0}}, apple, 12.0f);
    const int code = selector.preferredBackend(device, offered, minVersion);
    QCOMPARE(QString::fromStdString(ModelBackendFactory::MBNameFor(code)), expected);
    QCOMPARE(ModelBackendFactory::MBCodeFor(ModelBackendFactory::MBNameFor(code)), code);
    QCOMPARE(selector.deviceCapability(device), capability);
}

QTEST_GUILESS_MAIN(tst_ModelManager)
#include "tst_ModelManager.moc"
