#include "FilesTestSupport.h"
#include "../platform/VideoioMedia.h"

#include "files/TFileManager.h"
#include "videoio/Reader.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QtTest>

#include <opencv2/core.hpp>

#include <thread>

namespace {

struct ConcatResult
{
    double uid;
    QString out;
    bool ok;
    int code;
    int status;
    int duration;
};

} // namespace

class tst_TFileManagerVideos : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_video = m_dir.filePath(QStringLiteral("two-seconds.mp4"));
        // MPEG-4 part 2 without B-frames, so a cut by frame count is exact.
        QCOMPARE(videoio::testing::makeMedia(videoio::testing::patternInput(QStringLiteral("160x120"), 50, 25)
                                                 + QStringList{QStringLiteral("-c:v"), QStringLiteral("mpeg4"),
                                                               QStringLiteral("-g"), QStringLiteral("25")},
                                             m_video),
                 QString());
    }

    void concatReportsFromItsThreadWithThePassThroughValues_data()
    {
        QTest::addColumn<QString>("former");
        QTest::addColumn<int>("frame");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<int>("duration");
        QTest::newRow("half of the first, all of the second") << "<video>" << 25 << true << 3000;
        QTest::newRow("missing first input") << "<missing>" << 25 << false << 0;
    }

    void concatReportsFromItsThreadWithThePassThroughValues()
    {
        QFETCH(QString, former);
        QFETCH(int, frame);
        QFETCH(bool, ok);
        QFETCH(int, duration);
        former = former == QLatin1String("<video>") ? m_video : m_dir.filePath(QStringLiteral("missing.mp4"));
        const QString out = m_dir.filePath(QStringLiteral("joined-%1.mp4").arg(QTest::currentDataTag()).replace(' ', '-'));

        TFileManager manager;
        QList<ConcatResult> results;
        connect(&manager, &TFileManager::concatFinished, this,
                [&](double uid, const QString &path, bool success, int code, int status, int length) {
                    results.append({uid, path, success, code, status, length});
                });
        // QML may also listen to the overload without the duration.
        QVERIFY(manager.metaObject()->indexOfSignal("concatFinished(double,QString,bool,int,int)") >= 0);

        manager.concat(out, former, m_video, size_t(frame), 12.5, 3, 4);
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 1, 60000);
        const ConcatResult &result = results.first();
        QCOMPARE(result.uid, 12.5);
        QCOMPARE(result.out, out);
        QCOMPARE(result.ok, ok);
        QCOMPARE(result.code, 3);
        QCOMPARE(result.status, 4);
        QVERIFY2(qAbs(result.duration - duration) <= 80, qPrintable(QString::number(result.duration)));
    }

    void closeAndDeleteFromAnotherThreadDeletesTheFile_data()
    {
        QTest::addColumn<int>("uid");
        QTest::addColumn<bool>("thumbnailRemoved");
        QTest::newRow("with a video id") << 5 << true;
        QTest::newRow("without one") << -1 << false;
    }

    void closeAndDeleteFromAnotherThreadDeletesTheFile()
    {
        QFETCH(int, uid);
        QFETCH(bool, thumbnailRemoved);
        const QString victim = m_dir.filePath(QStringLiteral("victim-%1.mp4").arg(uid));
        QVERIFY(QFile::copy(m_video, victim));
        auto &thumbnails = videoio::ThumbnailStore::GetInstance();
        QVERIFY(thumbnails.add(QStringLiteral("5"), QString(), cv::Mat(16, 16, CV_8UC3, cv::Scalar(1, 2, 3))).first);
        QVERIFY(videoio::VideoManager::GetReader(victim)->isOpen());

        LogCapture log;
        TFileManager manager;
        std::thread([&manager, victim, uid] {
            if (uid == -1)
                emit manager.closeAndDelete(victim);
            else
                emit manager.closeAndDelete(victim, uid);
        }).join();
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(victim), 15000);
        QVERIFY(log.contains(QStringLiteral("Close and delete path")));
        QCOMPARE(thumbnails.image(QStringLiteral("5")).isNull(), thumbnailRemoved);
        thumbnails.removeAll();
    }

    void deletionNowAndDelayed()
    {
        TFileManager manager;
        const QString now = m_dir.filePath(QStringLiteral("now.bin"));
        const QString later = m_dir.filePath(QStringLiteral("later.bin"));
        QVERIFY(writeFile(now, "x") && writeFile(later, "y"));
        QVERIFY(manager.deletePath(now));
        QVERIFY(!QFile::exists(now));
        QElapsedTimer clock;
        clock.start();
        manager.deletePathDelayed(later);
        QVERIFY(QFile::exists(later));
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(later), 20000);
        // The file lasts at least the delay it was given.
        QVERIFY(clock.elapsed() >= 4500);
    }

private:
    QTemporaryDir m_dir;
    QString m_video;
};

QTEST_GUILESS_MAIN(tst_TFileManagerVideos)
#include "tst_TFileManagerVideos.moc"
