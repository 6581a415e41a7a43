// A ranged download as the front end asks for one: from QML, by the enum's
// name and with the length as a JavaScript number, through the built plugin.
#include "../cloud/CloudStandIn.h"

#include <QCryptographicHash>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QtTest>

class tst_NetworkRequestManagerQml : public QObject
{
    Q_OBJECT

private slots:
    void chunkedDownloadFromQmlIsByteIdentical()
    {
        QTemporaryDir served, out;
        QByteArray bytes(3 * 1024 * 1024 + 77, Qt::Uninitialized);
        for (qsizetype i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 7 + (i >> 13));
        QFile file(served.filePath("set.bin"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
        file.close();
        CloudStandIn host({"--files", served.path()});
        QVERIFY(host.isReady());

        QQmlEngine engine;
        engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
        QQmlComponent component(&engine);
        component.setData(R"(import kutils 1.0
NetworkRequestManager {
    property var events: []
    onDownloadFinished: (id, path) => events = events.concat(["finished " + id])
    onRequestFinished: (id, params) => events = events.concat(["request " + id])
    function fetch(domain, out, length) {
        return queueRequest(NetworkRequestType.ChunkedDownload,
                            {domain: domain, clientResource: "/set.bin", downloadPath: out, contentLength: length})
    }
})", QUrl(QStringLiteral("inline.qml")));
        std::unique_ptr<QObject> manager(component.create());
        QVERIFY2(manager, qPrintable(component.errorString()));
        QVariant id;
        QVERIFY(QMetaObject::invokeMethod(manager.get(), "fetch", Q_RETURN_ARG(QVariant, id),
                                          Q_ARG(QVariant, host.ready["files"].toString()),
                                          Q_ARG(QVariant, out.filePath("got.bin")), Q_ARG(QVariant, double(bytes.size()))));
        QCOMPARE(id.toInt(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(manager->property("events").toStringList(), (QStringList{"finished 1", "request 1"}),
                                  30000);
        QFile got(out.filePath("got.bin"));
        QVERIFY(got.open(QIODevice::ReadOnly));
        QCOMPARE(got.readAll(), bytes);
        QCOMPARE(host.log().first()["headers"]["Range"].toString(), QString("bytes=0-3145804"));
    }
};

QTEST_GUILESS_MAIN(tst_NetworkRequestManagerQml)
#include "tst_NetworkRequestManagerQml.moc"
