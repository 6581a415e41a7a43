#include "VideoioMedia.h"

#include "videoio/DelayedDeleter.h"
#include "videoio/Reader.h"
#include "videoio/ThumbnailImageProvider.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace videoio;
using namespace videoio::testing;

class tst_VideoioServices : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return m_dir.filePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QCOMPARE(makeH264(path("clip.mp4"), 10), QString());
    }

    void readersAreSharedPerPathUntilRemoved()
    {
        VideoManager &manager = VideoManager::GetInstance();
        const auto a = VideoManager::GetReader(path("clip.mp4"));
        const auto b = VideoManager::GetReader(path("clip.mp4"));
        QCOMPARE(a, b);
        QVERIFY(a->isOpen());
        QVERIFY(VideoManager::GetNewReader(path("clip.mp4")) != a);

        manager.updateVideoInfo(path("clip.mp4"), {{"isTelecined", true}});
        QVERIFY(a->getInfo()["isTelecined"].toBool());

        // Dropping without closing leaves the holders a working reader.
        manager.remove(path("clip.mp4"), false);
        QVERIFY(a->isOpen());
        const auto c = VideoManager::GetReader(path("clip.mp4"));
        QVERIFY(c != a);
        manager.remove(path("clip.mp4"), true);
        QVERIFY(!c->isOpen());

        const auto d = VideoManager::GetReader(path("clip.mp4"));
        manager.removeAll();
        QVERIFY(!d->isOpen());
        QCOMPARE(manager.count(), 0);
    }

    void deletionWaitsForTheLastReader()
    {
        QVERIFY(QFile::copy(path("clip.mp4"), path("held.mp4")));
        auto reader = VideoManager::GetNewReader(path("held.mp4"));
        QVERIFY(reader->isOpen());
        DelayedDeleter::DeleteLater(path("held.mp4"), 0);
        // Still there while held: wait until the deleter has looked at least
        // once, which a second file queued behind it tells.
        QVERIFY(QFile::copy(path("clip.mp4"), path("free.mp4")));
        DelayedDeleter::DeleteLater(path("free.mp4"), 0);
        QTRY_VERIFY(!QFile::exists(path("free.mp4")));
        QVERIFY(QFile::exists(path("held.mp4")));
        reader.reset();
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(path("held.mp4")), 5000);
    }

    void deleteNowRemovesFilesFoldersAndSequences_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("target");
        QTest::newRow("file") << QStringList{"x/one.txt"} << "x/one.txt";
        QTest::newRow("folder") << QStringList{"y/a.txt", "y/z/b.txt"} << "y";
        QTest::newRow("sequence") << QStringList{"s/f_0001.png", "s/f_0002.png"} << "s/f_%04d.png";
    }
    void deleteNowRemovesFilesFoldersAndSequences()
    {
        QFETCH(QStringList, files);
        QFETCH(QString, target);
        for (const QString &file : files) {
            QDir().mkpath(QFileInfo(path(file)).path());
            QFile f(path(file));
            QVERIFY(f.open(QIODevice::WriteOnly));
        }
        QVERIFY(DelayedDeleter::DeleteNow(path(target)));
        for (const QString &file : files)
            QVERIFY(!QFile::exists(path(file)));
    }

    void thumbnailsLiveInMemoryAndOnDisk()
    {
        ThumbnailStore &store = ThumbnailStore::GetInstance();
        auto reader = VideoManager::GetNewReader(path("clip.mp4"));
        const cv::Mat picture = reader->thumbnail(380.0f, 30, 0);
        const auto [ok, file] = store.add("t1", path("thumbs"), picture);
        QVERIFY(ok);
        QCOMPARE(file, path("thumbs/t1.jpg"));
        QCOMPARE(QImage(file).size(), QSize(320, 240));

        ThumbnailImageProvider provider;
        QSize size;
        QCOMPARE(provider.requestImage("t1", &size, QSize()).size(), QSize(320, 240));
        QCOMPARE(size, QSize(320, 240));
        QCOMPARE(provider.requestImage("t1?refresh=2", &size, QSize(160, 160)).size(), QSize(160, 120));

        const auto [memoryOnly, noFile] = store.add("t2", QString(), picture);
        QVERIFY(memoryOnly);
        QVERIFY(noFile.isEmpty());
        QVERIFY(!store.add("t3", path("thumbs"), cv::Mat()).first);

        store.remove("t1");
        QVERIFY(!QFile::exists(file));
        QVERIFY(provider.requestImage("t1", &size, QSize()).isNull());
        store.removeAll();
        QVERIFY(store.image("t2").isNull());
    }
};

QTEST_GUILESS_MAIN(tst_VideoioServices)
#include "tst_VideoioServices.moc"
