#include "aiengine/ModelManager.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

using aiengine::ModelManager;

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

QTEST_GUILESS_MAIN(tst_ModelManager)
#include "tst_ModelManager.moc"
