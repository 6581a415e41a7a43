#include "FilesTestSupport.h"

#include "files/TFileManager.h"

#include <QtTest>

#include <zip.h>

#include <memory>

namespace {

struct Progress
{
    int reqId;
    int completed;
    int total;
    bool operator==(const Progress &) const = default;
};

struct Finish
{
    int reqId;
    QString inPath;
    QString outPath;
    bool status;
};

// Collects the unzip signals on the test's thread, where they arrive queued
// from the worker.
class UnzipRecorder : public QObject
{
public:
    explicit UnzipRecorder(TFileManager &manager)
    {
        connect(&manager, &TFileManager::unzipProgress, this,
                [this](int reqId, const QString &, const QString &, int completed, int total) {
                    progress.append({reqId, completed, total});
                });
        connect(&manager, &TFileManager::unzipFinished, this,
                [this](int reqId, const QString &in, const QString &out, bool status) {
                    finished.append({reqId, in, out, status});
                });
    }
    QList<int> finishedIds() const
    {
        QList<int> ids;
        for (const Finish &finish : finished)
            ids << finish.reqId;
        return ids;
    }
    QList<Progress> progressOf(int reqId) const
    {
        QList<Progress> found;
        for (const Progress &entry : progress)
            if (entry.reqId == reqId)
                found << entry;
        return found;
    }

    QList<Progress> progress;
    QList<Finish> finished;
};

struct ZipDiscard
{
    void operator()(zip_t *archive) const { zip_discard(archive); }
};

// Writes an archive with entries named exactly as given, which the zip tool
// would refuse or clean up.
bool writeRawArchive(const QString &path, const QList<QPair<QByteArray, QByteArray>> &entries)
{
    std::unique_ptr<zip_t, ZipDiscard> archive(
        zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr));
    if (!archive)
        return false;
    for (const auto &[name, data] : entries) {
        zip_source_t *source = zip_source_buffer(archive.get(), data.constData(), zip_uint64_t(data.size()), 0);
        if (!source || zip_file_add(archive.get(), name.constData(), source, ZIP_FL_ENC_RAW) < 0) {
            zip_source_free(source);
            return false;
        }
    }
    if (zip_close(archive.get()) < 0)
        return false;
    archive.release();
    return true;
}

} // namespace

class tst_TFileManagerArchives : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("zip")).isEmpty(), "the zip tool is needed");
    }

    void twoQueuedArchivesFinishInOrderWithTheirContent()
    {
        const QMap<QString, QByteArray> first{{QStringLiteral("a.txt"), "alpha\n"},
                                              {QStringLiteral("nested/deeper/b.bin"), randomBytes(300000)}};
        const QMap<QString, QByteArray> second{{QStringLiteral("c.txt"), QByteArray(100000, 'c')}};
        const QString firstZip = makeZip(QStringLiteral("first.zip"), first);
        const QString secondZip = makeZip(QStringLiteral("second.zip"), second);
        QVERIFY(!firstZip.isEmpty() && !secondZip.isEmpty());
        const QString out = m_dir.filePath(QStringLiteral("ordered"));

        // An older file of an entry's name is replaced.
        QVERIFY(writeFile(out + QStringLiteral("/2/c.txt"), "older and longer than nothing"));

        TFileManager manager;
        UnzipRecorder recorder(manager);
        QCOMPARE(manager.queueUnzipRequest(firstZip, out + QStringLiteral("/1")), 1);
        QCOMPARE(manager.queueUnzipRequest(secondZip, out + QStringLiteral("/2")), 2);

        QTRY_COMPARE_WITH_TIMEOUT(recorder.finished.size(), 2, 20000);
        QCOMPARE(recorder.finishedIds(), (QList<int>{1, 2}));
        QCOMPARE(recorder.finished[0].inPath, firstZip);
        QCOMPARE(recorder.finished[0].outPath, out + QStringLiteral("/1"));
        QVERIFY(recorder.finished[0].status && recorder.finished[1].status);
        // The zip tool also stores the folder entries: two for the first archive.
        QCOMPARE(recorder.progressOf(1).last(), (Progress{1, 4, 4}));
        QCOMPARE(recorder.progressOf(2).last(), (Progress{2, 1, 1}));
        for (auto it = first.cbegin(); it != first.cend(); ++it)
            QCOMPARE(readFileBytes(out + QStringLiteral("/1/") + it.key()), it.value());
        QCOMPARE(readFileBytes(out + QStringLiteral("/2/c.txt")), second.value(QStringLiteral("c.txt")));

        // Ids belong to the instance.
        TFileManager other;
        QCOMPARE(other.queueUnzipRequest(secondZip, out + QStringLiteral("/3")), 1);
    }

    void damagedEntryIsDroppedAndTheArchiveStillFinishes()
    {
        const QByteArray marker = QByteArray("DAMAGE-ME-").repeated(2000);
        const QString archive = makeZip(QStringLiteral("damaged.zip"),
                                        {{QStringLiteral("good.txt"), "fine\n"}, {QStringLiteral("bad.bin"), marker}},
                                        true);
        QVERIFY(!archive.isEmpty());
        QByteArray bytes = readFileBytes(archive);
        const qsizetype at = bytes.indexOf(marker.left(40));
        QVERIFY2(at > 0, "the stored entry must be found in the archive");
        bytes[at + 5000] = 'X';
        QVERIFY(writeFile(archive, bytes));

        LogCapture log;
        TFileManager manager;
        UnzipRecorder recorder(manager);
        const QString out = m_dir.filePath(QStringLiteral("damaged-out"));
        manager.queueUnzipRequest(archive, out);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.finished.size(), 1, 20000);
        QVERIFY(recorder.finished[0].status);
        QCOMPARE(readFileBytes(out + QStringLiteral("/good.txt")), QByteArray("fine\n"));
        // The bad CRC shows only on the last read; nothing of the entry may stay.
        QVERIFY(!QFile::exists(out + QStringLiteral("/bad.bin")));
        QCOMPARE(QDir(out).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("good.txt")});
        QVERIFY(log.contains(QStringLiteral("decompressZip Failed to read entry:")));
    }

    void unopenableArchiveOrOutputIsLoggedAndNeverSignalled()
    {
        const QString notZip = m_dir.filePath(QStringLiteral("notes.zip"));
        QVERIFY(writeFile(notZip, QByteArray("just some words, no archive\n").repeated(20)));
        const QString goodZip = makeZip(QStringLiteral("after.zip"), {{QStringLiteral("x.txt"), "x"}});
        QVERIFY(!goodZip.isEmpty());
        const QString blocker = m_dir.filePath(QStringLiteral("blocker"));
        QVERIFY(writeFile(blocker, "a file where a folder should be"));

        LogCapture log;
        TFileManager manager;
        UnzipRecorder recorder(manager);
        QCOMPARE(manager.queueUnzipRequest(notZip, m_dir.filePath(QStringLiteral("never"))), 1);
        QCOMPARE(manager.queueUnzipRequest(m_dir.filePath(QStringLiteral("missing.zip")),
                                           m_dir.filePath(QStringLiteral("never"))), 2);
        QCOMPARE(manager.queueUnzipRequest(goodZip, blocker + QStringLiteral("/out")), 3);
        // A good archive queued behind them tells when the worker has passed them.
        QCOMPARE(manager.queueUnzipRequest(goodZip, m_dir.filePath(QStringLiteral("after"))), 4);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.finishedIds(), QList<int>{4}, 20000);
        QVERIFY(recorder.progressOf(1).isEmpty() && recorder.progressOf(2).isEmpty() && recorder.progressOf(3).isEmpty());
        QCOMPARE(log.count(QStringLiteral(" decompressZip Failed to open zip file:")), 2);
        QVERIFY(log.contains(QStringLiteral("decompressZip Failed to recreate output directory:")));
        QVERIFY(!QFileInfo::exists(m_dir.filePath(QStringLiteral("never"))));
    }

    void archiveWithoutEntriesReportsZeroOfZero()
    {
        // The end-of-directory record alone is a complete ZIP archive with no entries.
        const QString archive = m_dir.filePath(QStringLiteral("empty.zip"));
        QVERIFY(writeFile(archive, QByteArray("PK\x05\x06", 4) + QByteArray(18, '\0')));
        TFileManager manager;
        UnzipRecorder recorder(manager);
        manager.queueUnzipRequest(archive, m_dir.filePath(QStringLiteral("empty-out")));
        QTRY_COMPARE_WITH_TIMEOUT(recorder.finished.size(), 1, 20000);
        QVERIFY(recorder.finished[0].status);
        QCOMPARE(recorder.progress, (QList<Progress>{{1, 0, 0}}));
        QVERIFY(QFileInfo(m_dir.filePath(QStringLiteral("empty-out"))).isDir());
    }

    void hostileEntriesNeverLandOutside_data()
    {
        QTest::addColumn<QString>("entryName");
        QTest::addColumn<QString>("landsInside"); // relative to the output folder; empty when refused

        QTest::newRow("parent") << QStringLiteral("../x.txt") << QString();
        QTest::newRow("through a folder") << QStringLiteral("a/../../x.txt") << QString();
        QTest::newRow("absolute") << QStringLiteral("<sandbox>/x.txt") << QString();
        QTest::newRow("sibling with common prefix") << QStringLiteral("../out-evil/x.txt") << QString();
        QTest::newRow("dots that stay inside") << QStringLiteral("a/../b/./x.txt") << QStringLiteral("b/x.txt");
        QTest::newRow("folder entry above") << QStringLiteral("../up/") << QString();
    }

    void hostileEntriesNeverLandOutside()
    {
        QFETCH(QString, entryName);
        QFETCH(QString, landsInside);
        QTemporaryDir sandbox;
        const QString out = sandbox.filePath(QStringLiteral("out"));
        entryName.replace(QStringLiteral("<sandbox>"), sandbox.path());
        const QString archive = sandbox.filePath(QStringLiteral("hostile.zip"));
        QVERIFY(writeRawArchive(archive, {{"first.txt", "1"}, {entryName.toUtf8(), "payload"}, {"last.txt", "2"}}));

        LogCapture log;
        TFileManager manager;
        UnzipRecorder recorder(manager);
        manager.queueUnzipRequest(archive, out);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.finished.size(), 1, 20000);
        QVERIFY(recorder.finished[0].status);
        QCOMPARE(readFileBytes(out + QStringLiteral("/first.txt")), QByteArray("1"));
        QCOMPARE(readFileBytes(out + QStringLiteral("/last.txt")), QByteArray("2"));

        // Everything in the sandbox but the archive lies under the output folder.
        QDirIterator all(sandbox.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                         QDirIterator::Subdirectories);
        while (all.hasNext()) {
            const QString path = all.next();
            QVERIFY2(path == archive || path == out || path.startsWith(out + QLatin1Char('/')), qPrintable(path));
        }
        if (landsInside.isEmpty())
            QVERIFY(log.contains(QStringLiteral("decompressZip Refused entry outside the output directory:")));
        else
            QCOMPARE(readFileBytes(out + QLatin1Char('/') + landsInside), QByteArray("payload"));
    }

    void destroyingWithQueuedRequestsReturns()
    {
        const QString archive = makeZip(QStringLiteral("many.zip"), {{QStringLiteral("big.bin"), randomBytes(4 << 20)}});
        QVERIFY(!archive.isEmpty());
        auto manager = std::make_unique<TFileManager>();
        for (int i = 0; i < 5; ++i)
            manager->queueUnzipRequest(archive, m_dir.filePath(QStringLiteral("many/%1").arg(i)));
        // The destructor lets a decompression under way end and drops the rest.
        manager.reset();
        int unpacked = 0;
        for (int i = 0; i < 5; ++i)
            unpacked += QFile::exists(m_dir.filePath(QStringLiteral("many/%1/big.bin").arg(i))) ? 1 : 0;
        QVERIFY(unpacked <= 1);
    }

private:
    QString makeZip(const QString &name, const QMap<QString, QByteArray> &files, bool stored = false)
    {
        const QString source = m_dir.filePath(name + QStringLiteral(".src"));
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            if (!writeFile(source + QLatin1Char('/') + it.key(), it.value()))
                return {};
        const QString archive = m_dir.filePath(name);
        QStringList arguments{QStringLiteral("-q"), QStringLiteral("-r")};
        if (stored)
            arguments << QStringLiteral("-0");
        arguments << archive << QStringLiteral(".");
        return runTool(QStringLiteral("zip"), arguments, source) ? archive : QString();
    }

    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(tst_TFileManagerArchives)
#include "tst_TFileManagerArchives.moc"
