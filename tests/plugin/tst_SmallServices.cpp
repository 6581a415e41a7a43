#include "plugin/TDarkWindow.h"
#include "plugin/XModelManagerUtils.h"

#include <QtTest>
#include <QGuiApplication>
#include <QScreen>
#include <QWindow>

class SmallServicesTest : public QObject
{
    Q_OBJECT

private slots:
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

QTEST_MAIN(SmallServicesTest)
#include "tst_SmallServices.moc"
