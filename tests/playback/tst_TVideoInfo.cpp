// Drives TVideoInfo as the front end does: through the built plugin and a QML
// engine, with no kutils archive linked in.

#include "../platform/VideoioMedia.h"

#include <QFile>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

extern "C" {
#include <libavcodec/codec_id.h>
}

using namespace videoio::testing;

class tst_TVideoInfo : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QQmlEngine m_engine;
    std::unique_ptr<QObject> m_info;

    QString path(const QString &name) const { return m_dir.filePath(name); }

    void request(const QString &file, const QString &uid, const QVariantMap &remembered = {})
    {
        QVERIFY(QMetaObject::invokeMethod(m_info.get(), "getVideoInfo", Q_ARG(QString, file), Q_ARG(QString, uid),
                                          Q_ARG(QString, path("thumbs")), Q_ARG(QVariantMap, remembered)));
    }

private slots:
    void initTestCase()
    {
        QCOMPARE(makeH264(path("clip.mp4"), 20), QString());
        m_engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
        QQmlComponent component(&m_engine);
        component.setData("import kutils 1.0\nTVideoInfo {}", QUrl());
        m_info.reset(component.create());
        QVERIFY2(m_info, qPrintable(component.errorString()));
    }

    // What was remembered of the file joins the measured info, but a remembered
    // resolution must not replace the measured one.
    void aRealVideoGivesItsInfoAndAThumbnailFile()
    {
        QSignalSpy infos(m_info.get(), SIGNAL(videoInfoAvailable(QString,QVariantMap)));
        // A copy of its own, so that the reader the other cases share doesn't carry its info over.
        const QString file = path(QStringLiteral("remembered.mp4"));
        QFile::copy(path("clip.mp4"), file);
        request(file, "u7", QVariantMap{{"resolution", QSize(1, 1)}, {"isTelecined", true}});
        QVERIFY(infos.wait(10000));
        QCOMPARE(infos.first().at(0).toString(), file);
        const QVariantMap info = infos.first().at(1).toMap();
        QCOMPARE(info["uid"].toString(), "u7");
        QCOMPARE(info["resolution"].toSize(), QSize(320, 240));
        QCOMPARE(info["duration"].toLongLong(), 667);
        QVERIFY(info["isTelecined"].toBool());
        QCOMPARE(info["thumbnailDiskLocation"].toString(), path("thumbs/u73.jpg"));
        QVERIFY(QFile::exists(path("thumbs/u73.jpg")));
    }

    // Two requests for one file give two answers; a missing file the error alone.
    void eachRequestGetsItsOwnAnswer()
    {
        QSignalSpy infos(m_info.get(), SIGNAL(videoInfoAvailable(QString,QVariantMap)));
        QSignalSpy errors(m_info.get(), SIGNAL(readerError(QString,QString)));
        request(path("clip.mp4"), "a");
        request(path("missing.mp4"), "m1");
        request(path("clip.mp4"), "b");
        QTRY_COMPARE_WITH_TIMEOUT(infos.count() + errors.count(), 3, 10000);
        QCOMPARE(infos.count(), 2);
        const QSet<QString> uids{infos.at(0).at(1).toMap()["uid"].toString(),
                                 infos.at(1).at(1).toMap()["uid"].toString()};
        QCOMPARE(uids, QSet<QString>({"a", "b"}));
        QCOMPARE(errors.first(), (QVariantList{path("missing.mp4"), "Unable to open file at " + path("missing.mp4")}));
    }

    // The container knowledge is FFmpeg's; ours is the answer for an extension nobody knows.
    void anUnknownContainerTakesNoCodec()
    {
        bool usable = true;
        QVERIFY(QMetaObject::invokeMethod(m_info.get(), "isCodecUsableInContainer", Q_RETURN_ARG(bool, usable),
                                          Q_ARG(int, int(AV_CODEC_ID_H264)), Q_ARG(QString, QStringLiteral("nosuchext"))));
        QVERIFY(!usable);
    }

    void cleanupTestCase() { m_info.reset(); }
};

QTEST_MAIN(tst_TVideoInfo)
#include "tst_TVideoInfo.moc"
