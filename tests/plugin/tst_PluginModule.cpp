// Loads the built plugin the way an application does: a QML engine with the
// build's import folder, `import kutils 1.0`, and no kutils type linked in:
// only the configuration, pointed at the cloud stand-in before the plugin
// reads it.
#include "../cloud/CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include <QtTest>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QValidator>

class PluginModuleTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(served.isValid());
        m_served = QByteArray(3 * 1024 * 1024 + 77, Qt::Uninitialized);
        for (qsizetype i = 0; i < m_served.size(); ++i)
            m_served[i] = char(i * 7 + (i >> 13));
        QVERIFY(writeFile(served.filePath("set.bin"), m_served));
        m_host = std::make_unique<CloudStandIn>(QStringList{"--files", served.path()});
        QVERIFY(m_host->isReady());
        engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
    }

    // A ranged download as the front end asks for one: by the enum's name and
    // with the length as a JavaScript number.
    void chunkedDownloadFromQmlIsByteIdentical()
    {
        QTemporaryDir out;
        std::unique_ptr<QObject> manager(create(R"(import kutils 1.0
NetworkRequestManager {
    property var events: []
    onDownloadFinished: (id, path) => events = events.concat(["finished " + id])
    onRequestFinished: (id, params) => events = events.concat(["request " + id])
    function fetch(domain, out, length) {
        return queueRequest(NetworkRequestType.ChunkedDownload,
                            {domain: domain, clientResource: "/set.bin", downloadPath: out, contentLength: length})
    }
})"));
        QVERIFY(manager);
        QVariant id;
        QVERIFY(QMetaObject::invokeMethod(manager.get(), "fetch", Q_RETURN_ARG(QVariant, id),
                                          Q_ARG(QVariant, m_host->ready["files"].toString()),
                                          Q_ARG(QVariant, out.filePath("got.bin")), Q_ARG(QVariant, double(m_served.size()))));
        QCOMPARE(id.toInt(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(manager->property("events").toStringList(), (QStringList{"finished 1", "request 1"}),
                                  30000);
        QCOMPARE(readFileBytes(out.filePath("got.bin")), m_served);
        QCOMPARE(m_host->log().first()["headers"]["Range"].toString(), QString("bytes=0-3145804"));
    }

    void onlyTheEnumCarrierCannotBeMade_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("className"); // empty: not creatable
        for (const char *name : {"KUtils", "TEventTracker", "TProcess", "TVideoView", "TClipboard", "TVideoInfo",
                                 "TFileManager", "TUpdateChecker", "XModelConfiguration", "XModelManagerUtils", "VideoPlayer",
                                 "TDarkWindow", "InstantReaderWatcher", "MPVObject", "CloudAPI", "RlmHandler",
                                 "IsolatedPlayer", "NetworkRequestManager", "AmplitudeApi"})
            QTest::newRow(name) << QString::fromLatin1(name) << QString::fromLatin1(name);
        QTest::newRow("ImageSequenceConverter") << "ImageSequenceConverter" << "ImgSeqConverter";
        QTest::newRow("the enum carrier") << "NetworkRequestType" << QString();
    }

    void onlyTheEnumCarrierCannotBeMade()
    {
        QFETCH(QString, name);
        QFETCH(QString, className);
        const QByteArray qml = "import QtQuick 2.15\nimport kutils 1.0\nItem { property var made: " + name.toUtf8() + " {} }";
        QString errors;
        std::unique_ptr<QObject> root(create(qml, &errors));
        QVERIFY2(root || errors.contains(name), qPrintable(errors));
        auto *made = root ? root->property("made").value<QObject *>() : nullptr;
        QCOMPARE(bool(made), !className.isEmpty());
        if (made)
            QCOMPARE(QString::fromLatin1(made->metaObject()->className()).section(QStringLiteral("::"), -1), className);
    }

    // JavaScript numbers reach the C++ methods as the C++ tests give them, and
    // a QML rect or validator picks the right overload.
    void kutilsTakesJavaScriptValues()
    {
        std::unique_ptr<QObject> root(create(R"(import QtQuick
import kutils 1.0
KUtils {
    property string label: convertMsecToSmpte(60060, 29.97)
    property int ms: convertFrameCountToMsec(16777217, 30)
    property bool spaceIsNumber: typeof getDiskSpace("/") === "number" && getDiskSpace("/") + 1 > getDiskSpace("/")
    property bool emptyRect: isEmpty(Qt.rect(0, 0, 0, 5))
    property bool fullRect: isEmpty(Qt.rect(0, 0, 2, 2))
    property int processes: maxProcesses
    property IntValidator validator: IntValidator { top: 99 }
    property int validity: callValidate(validator, "12", 0)
})"));
        QVERIFY(root);
        QCOMPARE(root->property("label").toString(), QStringLiteral("00:01:00;02"));
        QCOMPARE(root->property("ms").toInt(), 559240533);
        QVERIFY(root->property("spaceIsNumber").toBool());
        QVERIFY(root->property("emptyRect").toBool());
        QVERIFY(!root->property("fullRect").toBool());
        QVERIFY(root->property("processes").toInt() >= 1);
        QCOMPARE(root->property("validity").toInt(), int(QValidator::Acceptable));
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

    QTemporaryDir served;
    QByteArray m_served;
    std::unique_ptr<CloudStandIn> m_host;
    QQmlEngine engine;
};

QTEST_MAIN(PluginModuleTest)
#include "tst_PluginModule.moc"
