#include "../files/FilesTestSupport.h"

#include "aiutils/kzutils.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <zip.h>

#include <memory>

using Buffers = QMap<QString, QByteArray>;

namespace {

const QString password = QStringLiteral("Tr0ub4dor&3");

struct ZipDiscard
{
    void operator()(zip_t *archive) const { zip_discard(archive); }
};

// The entries of an archive on disk as libzip reads them with `pass`; an entry
// that fails to open or read comes back as a null array.
QMap<QString, QByteArray> unpack(const QString &path, const QByteArray &pass)
{
    QMap<QString, QByteArray> entries;
    std::unique_ptr<zip_t, ZipDiscard> archive(zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY, nullptr));
    if (!archive)
        return entries;
    zip_set_default_password(archive.get(), pass.isEmpty() ? nullptr : pass.constData());
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive.get(), 0); ++i) {
        const QString name = QString::fromUtf8(zip_get_name(archive.get(), zip_uint64_t(i), 0));
        zip_file_t *file = zip_fopen_index(archive.get(), zip_uint64_t(i), 0);
        QByteArray data;
        if (file) {
            char block[8192];
            zip_int64_t got = 0;
            while ((got = zip_fread(file, block, sizeof block)) > 0)
                data.append(block, got);
            zip_fclose(file);
            if (got < 0)
                data = QByteArray();
        }
        entries.insert(name, data);
    }
    return entries;
}

} // namespace

class tst_Kzutils : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const QString modelPath = m_dir.filePath(QStringLiteral("model.kz"));
        QVERIFY(kzutils::saveEncryptedFile({{QStringLiteral("weights.bin"), randomBytes(200000, 7)},
                                            {QStringLiteral("graph.json"), QByteArray(5000, '{')}},
                                           modelPath, password));
        m_goodModel = readFileBytes(modelPath);
        QVERIFY(!m_goodModel.isEmpty());
    }

    void savedArchiveRoundTrips_data()
    {
        QTest::addColumn<Buffers>("files");
        QTest::newRow("plain words") << Buffers{{QStringLiteral("note.txt"), "plain words that must not show"}};
        QTest::newRow("empty buffer beside data")
            << Buffers{{QStringLiteral("empty"), QByteArray()}, {QStringLiteral("data"), randomBytes(4096, 1)}};
        QTest::newRow("large and compressible")
            << Buffers{{QStringLiteral("zeros.raw"), QByteArray(3 << 20, '\0')}};
        QTest::newRow("names with folders and accents")
            << Buffers{{QStringLiteral("sub/caf\u00e9.json"), "{}"}, {QStringLiteral("b.bin"), randomBytes(64, 2)}};
    }

    void savedArchiveRoundTrips()
    {
        QFETCH(Buffers, files);
        const QString path = m_dir.filePath(QStringLiteral("roundtrip/out.zip"));
        QVERIFY(kzutils::saveEncryptedFile(files, path, password));
        QCOMPARE(unpack(path, password.toUtf8()), files);
        // Enciphered: no entry opens without the password, and no text shows.
        for (const QByteArray &withoutPassword : unpack(path, {}))
            QVERIFY(withoutPassword.isNull());
        QVERIFY(!readFileBytes(path).contains("plain words"));
        QVERIFY(kzutils::verifyCompressedBuffer(QStringLiteral("out.zip"), readFileBytes(path),
                                                QVariantMap{{QStringLiteral("password"), password}}, true));
    }

    void savingNothingFailsAndKeepsTheOldFile()
    {
        const QString path = m_dir.filePath(QStringLiteral("kept.zip"));
        QVERIFY(kzutils::saveEncryptedFile({{QStringLiteral("a"), "a"}}, path, password));
        const QByteArray before = readFileBytes(path);
        QVERIFY(!kzutils::saveEncryptedFile({}, path, password));
        QCOMPARE(readFileBytes(path), before);
    }

    void verification_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("pass");
        QTest::addColumn<bool>("readThrough");
        QTest::addColumn<bool>("expected");

        QTest::newRow("good, full check") << m_goodModel << password << true << true;
        QTest::newRow("wrong password") << m_goodModel << QStringLiteral("hunter2") << true << false;
        QTest::newRow("truncated by one byte") << m_goodModel.chopped(1) << password << true << false;
        QTest::newRow("first half only") << m_goodModel.left(m_goodModel.size() / 2) << password << false << false;
        QTest::newRow("not an archive") << QByteArray(4096, 'x') << password << true << false;

        // A plain ZIP is no model file, whatever its content.
        const QString plainPath = m_dir.filePath(QStringLiteral("plain.zip"));
        QVERIFY(kzutils::saveEncryptedFile({{QStringLiteral("weights.bin"), randomBytes(1000, 3)}}, plainPath, QString()));
        QTest::newRow("not enciphered") << readFileBytes(plainPath) << password << true << false;
    }

    void verification()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, pass);
        QFETCH(bool, readThrough);
        QFETCH(bool, expected);
        const QJsonObject options{{QStringLiteral("password"), pass}};
        QCOMPARE(kzutils::verifyCompressedBuffer(QStringLiteral("model.kz"), bytes, options, readThrough), expected);
    }

    void flippedByteIsSeenOnlyByReadingThrough()
    {
        // A byte in the middle of the large noise entry: the directory stays intact,
        // so only decompressing to the end shows the damage.
        QByteArray damaged = m_goodModel;
        const qsizetype middle = damaged.size() / 2;
        damaged[middle] = char(damaged[middle] ^ 0x5a);
        const QVariantMap options{{QStringLiteral("password"), password}};
        QVERIFY(kzutils::verifyCompressedBuffer(QStringLiteral("model.kz"), damaged, options, false));
        QVERIFY(!kzutils::verifyCompressedBuffer(QStringLiteral("model.kz"), damaged, options, true));
    }

    void bufferToFileWritesAndReplaces()
    {
        const QString path = m_dir.filePath(QStringLiteral("models/new/sub/model.kz"));
        QCOMPARE(kzutils::bufferToFile(m_goodModel, path), QString());
        QCOMPARE(readFileBytes(path), m_goodModel);
        const QByteArray second = randomBytes(1024, 9);
        QCOMPARE(kzutils::bufferToFile(second, path), QString());
        QCOMPARE(readFileBytes(path), second);
        QCOMPARE(QDir(m_dir.filePath(QStringLiteral("models/new/sub"))).entryList(QDir::Files | QDir::Hidden),
                 QStringList{QStringLiteral("model.kz")});
    }

    void bufferToFileFailureLeavesNothing_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::newRow("target is a folder") << QStringLiteral("blocked/model.kz");
        QTest::newRow("parent is a file") << QStringLiteral("blocked/file.txt/model.kz");
        QTest::newRow("empty path") << QString();
    }

    void bufferToFileFailureLeavesNothing()
    {
        QFETCH(QString, relativePath);
        const QString folder = m_dir.filePath(QStringLiteral("blocked"));
        QVERIFY(QDir().mkpath(folder + QStringLiteral("/model.kz")));
        QFile blocker(folder + QStringLiteral("/file.txt"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const QStringList before = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);

        const QString path = relativePath.isEmpty() ? QString() : m_dir.filePath(relativePath);
        QVERIFY(!kzutils::bufferToFile(m_goodModel, path).isEmpty());
        QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), before);
        QVERIFY(QFileInfo(folder + QStringLiteral("/model.kz")).isDir());
    }

private:
    QTemporaryDir m_dir;
    QByteArray m_goodModel;
};

QTEST_GUILESS_MAIN(tst_Kzutils)
#include "tst_Kzutils.moc"
