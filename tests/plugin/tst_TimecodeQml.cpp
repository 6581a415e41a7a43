// The timecode methods as QML calls them: JavaScript numbers and strings
// through the plugin's KUtils.
#include <QtTest>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQmlExpression>

class TimecodeQmlTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
        QQmlComponent component(&engine);
        component.setData("import kutils 1.0\nKUtils {}", QUrl(QStringLiteral("inline.qml")));
        utils.reset(component.create());
        QVERIFY2(utils, qPrintable(component.errorString()));
    }

    void expressions_data()
    {
        QTest::addColumn<QString>("expression");
        QTest::addColumn<QVariant>("expected");
        QTest::newRow("drop-frame label") << "convertMsecToSmpte(60060, 29.97)" << QVariant(QStringLiteral("00:01:00;02"));
        QTest::newRow("bad rate") << "convertMsecToSmpte(500, 0)" << QVariant(QStringLiteral("00:00:00:15"));
        QTest::newRow("dropped label reads forward") << "convertSmpteTomsec('00:01:00;00', 29.97)" << QVariant(60060);
        QTest::newRow("frame msec") << "convertFrameCountToMsec(30, 29.97)" << QVariant(1001);
        QTest::newRow("single precision") << "convertFrameCountToMsec(16777217, 30)" << QVariant(559240533);
        QTest::newRow("shape only") << "isValidSmpteTimecode('ab:cd:ef:gh')" << QVariant(true);
    }

    void expressions()
    {
        QFETCH(QString, expression);
        QFETCH(QVariant, expected);
        QQmlExpression qmlExpression(engine.rootContext(), utils.get(), expression);
        const QVariant result = qmlExpression.evaluate();
        QVERIFY2(!qmlExpression.hasError(), qPrintable(qmlExpression.error().toString()));
        QCOMPARE(result.toString(), expected.toString());
    }

private:
    QQmlEngine engine;
    std::unique_ptr<QObject> utils;
};

QTEST_GUILESS_MAIN(TimecodeQmlTest)
#include "tst_TimecodeQml.moc"
