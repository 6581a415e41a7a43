// Loads the built plugin the way an application does: a QML engine with the
// build's import folder, `import kutils 1.0`, and nothing linked in.
#include <QtTest>
#include <QQmlComponent>
#include <QQmlEngine>

class PluginModuleTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
    }

    void everyCreatableTypeCanBeMade_data()
    {
        QTest::addColumn<QString>("name");
        for (const char *name : {"ImageSequenceConverter", "KUtils", "TEventTracker", "TProcess", "TVideoView", "TClipboard",
                                 "TVideoInfo", "TFileManager", "TUpdateChecker", "XModelConfiguration", "XModelManagerUtils",
                                 "VideoPlayer", "TDarkWindow", "InstantReaderWatcher", "MPVObject", "CloudAPI", "RlmHandler",
                                 "IsolatedPlayer", "NetworkRequestManager", "AmplitudeApi"})
            QTest::newRow(name) << QString::fromLatin1(name);
    }

    void everyCreatableTypeCanBeMade()
    {
        QFETCH(QString, name);
        const QByteArray qml = "import QtQuick 2.15\nimport kutils 1.0\nItem { property var made: " + name.toUtf8() + " {} }";
        std::unique_ptr<QObject> root(create(qml));
        QVERIFY(root);
        auto *made = root->property("made").value<QObject *>();
        QVERIFY(made);
        QCOMPARE(QString::fromLatin1(made->metaObject()->className()).section(QStringLiteral("::"), -1),
                 name == QLatin1String("ImageSequenceConverter") ? QStringLiteral("ImgSeqConverter") : name);
    }

    void enumCarrierCannotBeMadeButNamesItsValues()
    {
        QString errors;
        std::unique_ptr<QObject> made(create("import QtQml\nimport kutils 1.0\nQtObject { property var x: NetworkRequestType {} }",
                                             &errors));
        QVERIFY(!made);
        QVERIFY2(errors.contains(QLatin1String("NetworkRequestType")), qPrintable(errors));

        std::unique_ptr<QObject> root(create("import QtQml\nimport kutils 1.0\nQtObject {\n"
                                             " property int chunked: NetworkRequestType.ChunkedDownload }"));
        QVERIFY(root);
        QCOMPARE(root->property("chunked").toInt(), 2);
    }

    // JavaScript numbers reach the timecode methods as the C++ tests give them.
    void timecodeMethodsTakeJavaScriptNumbers()
    {
        std::unique_ptr<QObject> root(create("import QtQml\nimport kutils 1.0\nQtObject {\n"
                                             " property var k: KUtils {}\n"
                                             " property string label: k.convertMsecToSmpte(60060, 29.97)\n"
                                             " property int ms: k.convertFrameCountToMsec(16777217, 30) }"));
        QVERIFY(root);
        QCOMPARE(root->property("label").toString(), QStringLiteral("00:01:00;02"));
        QCOMPARE(root->property("ms").toInt(), 559240533);
    }

    void qmldirResourceIsByteExact()
    {
        std::unique_ptr<QObject> root(create("import QtQml\nimport kutils 1.0\nQtObject {}"));
        QVERIFY(root);
        QFile qmldir(QStringLiteral(":/kutils/qmldir"));
        QVERIFY(qmldir.open(QIODevice::ReadOnly));
        QCOMPARE(qmldir.readAll(), QByteArray("module kutils\r\ntypeinfo kutils.qmltypes\r\nprefer :/kutils/\r\n\r\n"));
    }

    void pluginExportsItsThreeEntryPoints()
    {
        QProcess nm;
        nm.start(QStringLiteral("nm"), {QStringLiteral("-D"), QStringLiteral("-C"), QStringLiteral("--defined-only"),
                                        QStringLiteral(KUTILS_QML_IMPORT_DIR "/kutils/libkutils.so")});
        QVERIFY(nm.waitForFinished(30000));
        const QByteArray symbols = nm.readAllStandardOutput();
        QVERIFY(symbols.contains(" T qml_register_types_kutils()"));
        QVERIFY(symbols.contains(" T qt_plugin_instance"));
        QVERIFY(symbols.contains(" T qt_plugin_query_metadata_v2"));
    }

private:
    QObject *create(const QByteArray &qml, QString *errors = nullptr)
    {
        QQmlComponent component(&engine);
        component.setData(qml, QUrl(QStringLiteral("inline.qml")));
        QObject *object = component.create();
        if (errors)
            *errors = component.errorString();
        else if (!object)
            qWarning().noquote() << component.errorString();
        return object;
    }

    QQmlEngine engine;
};

QTEST_MAIN(PluginModuleTest)
#include "tst_PluginModule.moc"
