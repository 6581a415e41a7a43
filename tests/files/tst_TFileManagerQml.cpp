#include "FilesTestSupport.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>

#include <memory>

// The module as the application loads it: `import kutils 1.0` from the built
// plugin, and a TFileManager that QML drives through an archive.
class tst_TFileManagerQml : public QObject
{
    Q_OBJECT

private slots:
    void qmlUnpacksAnArchiveWithProgress();
};

void tst_TFileManagerQml::qmlUnpacksAnArchiveWithProgress()
{
    IsolatedHome home;
    QTemporaryDir dir;
    const QString source = dir.filePath(QStringLiteral("src"));
    for (int i = 0; i < 20; ++i)
        QVERIFY(writeFile(source + QStringLiteral("/file%1.txt").arg(i), QByteArray(1000 + i, 'a' + i % 26)));
    const QString archive = dir.filePath(QStringLiteral("pack.zip"));
    QVERIFY(runTool(QStringLiteral("zip"), {QStringLiteral("-q"), QStringLiteral("-r"), archive, QStringLiteral(".")},
                    source));

    QQmlEngine engine;
    engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
    QQmlComponent component(&engine);
    component.setData(R"(
        import QtQml
        import kutils 1.0
        TFileManager {
            property var progress: []
            property int finishedId: 0
            property bool finishedOk: false
            function unpack(from, to) { return queueUnzipRequest(from, to) }
            onUnzipProgress: (reqId, inPath, outPath, completed, total) => {
                progress = progress.concat([[reqId, completed, total]])
            }
            onUnzipFinished: (reqId, inPath, outPath, status) => {
                finishedId = reqId
                finishedOk = status
            }
        }
    )", QUrl());
    std::unique_ptr<QObject> manager(component.create());
    QVERIFY2(manager, qPrintable(component.errorString()));

    QVariant reqId;
    const QString out = dir.filePath(QStringLiteral("out"));
    QVERIFY(QMetaObject::invokeMethod(manager.get(), "unpack", Q_RETURN_ARG(QVariant, reqId), Q_ARG(QVariant, archive),
                                      Q_ARG(QVariant, out)));
    QCOMPARE(reqId.toInt(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(manager->property("finishedId").toInt(), 1, 20000);
    QVERIFY(manager->property("finishedOk").toBool());
    const QVariantList progress = manager->property("progress").toList();
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().toList(), (QVariantList{1, 20, 20}));
    QCOMPARE(QDir(out).entryList(QDir::Files).size(), 20);
    QCOMPARE(readFileBytes(out + QStringLiteral("/file3.txt")), QByteArray(1003, 'd'));
}

QTEST_GUILESS_MAIN(tst_TFileManagerQml)
#include "tst_TFileManagerQml.moc"
