#include "../files/FilesTestSupport.h"

#include "aiengine/ModelManager.h"
#include "files/TFileManager.h"
#include "plugin/KUtils.h"
#include "plugin/TDarkWindow.h"
#include "plugin/XModelManagerUtils.h"

#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QScreen>
#include <QStorageInfo>
#include <QTest>
#include <QWindow>

#include <pwd.h>
#include <unistd.h>

namespace {

// Set in the environment of a restarted copy of this test: the copy records
// its arguments there and ends, instead of running the tests again.
constexpr char restartMarker[] = "KUTILS_TEST_RESTART_MARKER";

class FixedSpaceUtils : public KUtils
{
public:
    quint64 bytes = 0;

protected:
    quint64 availableBytes(const QString &) override { return bytes; }
};

} // namespace

class tst_KUtils : public QObject
{
    Q_OBJECT

    IsolatedHome m_home;
    QTemporaryDir m_models;

private slots:
    void initTestCase()
    {
        // The example catalogue, in a model folder of our own.
        QVERIFY(QFile::copy(KUTILS_SOURCE_DIR "/demo/models/models.json", m_models.filePath("models.json")));
        aiengine::ModelManager::MakeInstance("shortName", true, true, "/", {});
        aiengine::ModelManager::GetInstance().setModelDirPath(m_models.path(), m_models.path());
        qmlRegisterType<KUtils>("kutils.test", 1, 0, "KUtils");
    }

    void qmlSeesNumbersAndTheRectOverload()
    {
        QQmlEngine engine;
        QQmlComponent component(&engine);
        component.setData(R"(
            import QtQuick
            import kutils.test 1.0
            KUtils {
                property bool spaceIsNumber: typeof getDiskSpace("/") === "number"
                                             && getDiskSpace("/") + 1 > getDiskSpace("/")
                property bool emptyRect: isEmpty(Qt.rect(0, 0, 0, 5))
                property bool fullRect: isEmpty(Qt.rect(0, 0, 2, 2))
                property int processes: maxProcesses
                property string info: systemInfo()
                property var upscale: modelsInfo.upscale
                property IntValidator validator: IntValidator { top: 99 }
                property int validity: callValidate(validator, "12", 0)
            })", QUrl());
        std::unique_ptr<QObject> utils(component.create());
        QVERIFY2(utils, qPrintable(component.errorString()));
        QVERIFY(utils->property("spaceIsNumber").toBool());
        QVERIFY(utils->property("emptyRect").toBool());
        QVERIFY(!utils->property("fullRect").toBool());
        QCOMPARE(utils->property("validity").toInt(), int(QValidator::Acceptable));
        QVERIFY(utils->property("processes").toInt() >= 1);
        QVERIFY(utils->property("info").toString().startsWith("OS: Linux v"));
        QCOMPARE(utils->property("upscale").toMap().value("versions").toList(), (QVariantList{"2", "3"}));
    }

    void diskSpaceThresholdStartsAtTenAndTakesLargeValues()
    {
        FixedSpaceUtils utils;
        utils.bytes = quint64(10) << 30;
        QCOMPARE(utils.checkDiskSpace("/"), 1); // the threshold starts at 10 GiB
        utils.setDiskSpaceThreshold(3);
        QCOMPARE(utils.checkDiskSpace("/"), 0);
    }

    void diskSpaceOfAMissingPathIsItsParents()
    {
        const qint64 parent = QStorageInfo(m_models.path()).bytesAvailable();
        const quint64 missing = KUtils().getDiskSpace(m_models.filePath("not/yet/made"));
        // Other engineers write to this disk meanwhile: the same volume is near enough.
        QVERIFY(missing > 0);
        QVERIFY(qAbs(qint64(missing) - parent) < qint64(1) << 30);
    }

    void friendlyNameFallsBackToTheAccount()
    {
        const QByteArray user = qgetenv("USER"), userName = qgetenv("USERNAME");
        qunsetenv("USER");
        qunsetenv("USERNAME");
        const QString name = KUtils().getFriendlyName();
        qputenv("USER", user);
        qputenv("USERNAME", userName);
        QVERIFY(name.startsWith(QString::fromLocal8Bit(getpwuid(geteuid())->pw_name) + "'s "));
    }

    void openTerminalStartsTERMINALInTheToolFolderWithModelFolders()
    {
        const QString record = m_home.path() + "/terminal.txt";
        const QString script = m_home.path() + "/fake terminal $(x)";
        QVERIFY(writeFile(script, "#!/bin/sh\n{ pwd; echo \"$KVID_MODEL_DIR\"; echo \"$KVID_MODEL_DATA_DIR\"; } > \""
                                      + record.toUtf8() + ".part\"\nmv \"" + record.toUtf8() + ".part\" \""
                                      + record.toUtf8() + "\"\n"));
        QFile::setPermissions(script, QFile::ReadOwner | QFile::ExeOwner);
        qputenv("TERMINAL", QFile::encodeName(script));
        KUtils().openTerminal();
        qunsetenv("TERMINAL");
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(record), 10000);
        TFileManager files;
        const QStringList lines = QString::fromUtf8(readFileBytes(record)).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines, (QStringList{QFileInfo(files.ffmpeg()).absolutePath(), files.defaultModelFolderPath(),
                                     files.getModelFolderPath()}));
        QCOMPARE(qEnvironmentVariable("KVID_MODEL_DIR"), files.defaultModelFolderPath());
    }

    void restartAppStartsThisExecutableWithItsArguments()
    {
        const QString marker = m_home.path() + "/restarted.txt";
        qputenv(restartMarker, QFile::encodeName(marker));
        KUtils().restartApp();
        qunsetenv(restartMarker);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(marker), 10000);
        const QStringList expected =
            QStringList{QCoreApplication::applicationFilePath()} + QCoreApplication::arguments().mid(1);
        QCOMPARE(QString::fromUtf8(readFileBytes(marker)), expected.join('\n'));
    }

    void includesWalksSortedLists_data()
    {
        QTest::addColumn<QStringList>("first");
        QTest::addColumn<QStringList>("second");
        QTest::addColumn<bool>("expected");
        QTest::newRow("unsorted b,a does not find a") << QStringList{"b", "a"} << QStringList{"a"} << false;
        QTest::newRow("empty second is always included") << QStringList{} << QStringList{} << true;
        QTest::newRow("gaps in first") << QStringList{"a", "c", "e", "g"} << QStringList{"c", "g"} << true;
        QTest::newRow("missing middle element") << QStringList{"a", "c", "e"} << QStringList{"a", "d"} << false;
        QTest::newRow("duplicates in second need duplicates in first") << QStringList{"a", "b"} << QStringList{"a", "a"} << false;
    }

    void includesWalksSortedLists()
    {
        QFETCH(QStringList, first);
        QFETCH(QStringList, second);
        QFETCH(bool, expected);
        XModelManagerUtils utils;
        QCOMPARE(utils.includes(first, second), expected);
    }

    void showMaximizeFillsTheAvailableArea()
    {
        QWindow window;
        window.setGeometry(10, 10, 100, 80);
        TDarkWindow dark;
        dark.showMaximize(&window);
        QCOMPARE(window.geometry(), window.screen()->availableGeometry());
        QCOMPARE(window.windowState(), Qt::WindowNoState);
        dark.showMaximize(nullptr); // no window: nothing to do, no crash
    }

    void darkWindowWithoutWindowEndsTheProcess()
    {
        if (qEnvironmentVariableIsSet("KUTILS_DARK_CHILD")) {
            TDarkWindow().setDarkWindow(nullptr);
            return;
        }
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("KUTILS_DARK_CHILD"), QStringLiteral("1"));
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::MergedChannels);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("darkWindowWithoutWindowEndsTheProcess")});
        QVERIFY(child.waitForFinished(30000));
        QVERIFY(child.exitStatus() == QProcess::CrashExit || child.exitCode() != 0);
        QVERIFY(child.readAll().contains("ERROR WIDGET NOT FOUND FOR DARK MODE"));
    }
};

int main(int argc, char *argv[])
{
    if (const QByteArray marker = qgetenv(restartMarker); !marker.isEmpty()) {
        QStringList arguments;
        for (int i = 0; i < argc; ++i)
            arguments << QString::fromLocal8Bit(argv[i]);
        // The full path, as the parent sees it: applicationFilePath, not argv[0].
        QCoreApplication app(argc, argv);
        arguments[0] = QCoreApplication::applicationFilePath();
        return writeFile(QFile::decodeName(marker) + ".part", arguments.join('\n').toUtf8())
                && QFile::rename(QFile::decodeName(marker) + ".part", QFile::decodeName(marker))
            ? 0
            : 1;
    }
    QGuiApplication app(argc, argv);
    tst_KUtils test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_KUtils.moc"
