#include "models/NetworkRequestManager.h"
#include "models/NetworkRequestTypes.h"

#include "../cloud/CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QTest>

#include <memory>

namespace {

// One byte past a whole range, and not a multiple of a page: two ranges, the
// second with an unaligned tail.
constexpr qint64 kTwoRangeSize = NetworkRequestManager::chunkSize + 4097;
constexpr qint64 kSmallSize = 300000;

void writePattern(const QString &path, qint64 size, char seed)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (qint64 done = 0; done < size; done += block.size()) {
        for (int i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>(((done + i) * 131 + seed) ^ ((done + i) >> 11));
        QVERIFY(file.write(block.constData(), std::min<qint64>(block.size(), size - done)) > 0);
    }
}

QByteArray md5Of(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Md5);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result() : QByteArray();
}

// The manager's signals as the GUI thread receives them: queued, in order.
// (A QSignalSpy would record them on the worker, racing the test's reads.)
class Recorder : public QObject
{
public:
    explicit Recorder(NetworkRequestManager &manager)
    {
        connect(&manager, &NetworkRequestManager::requestFinished, this, [this](int id, const QVariantMap &result) {
            order << "requestFinished";
            finished << QVariantList{id, result};
        });
        connect(&manager, &NetworkRequestManager::downloadFinished, this, [this] { order << "downloadFinished"; });
        connect(&manager, &NetworkRequestManager::downloadFailed, this, [this] { order << "downloadFailed"; });
    }
    bool waitFinished(int count, int timeoutMs)
    {
        return QTest::qWaitFor([&] { return finished.size() >= count; }, timeoutMs) && finished.size() == count;
    }
    QVariantMap result(int index) const { return finished.value(index).value(1).toMap(); }

    QStringList order;
    QList<QVariantList> finished;
};

} // namespace

class tst_NetworkRequestManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void rangesCoverTheFileIn256MiBSteps();
    void checkThenChunkedDownloadIsByteIdenticalAndAsksEachRangeOnce();
    void rangeFaultsAreRetriedOrFailTheDownload_data();
    void rangeFaultsAreRetriedOrFailTheDownload();
    void plainDownloadKeepsOnlyA200Body_data();
    void plainDownloadKeepsOnlyA200Body();
    void unusableRequestsFailWithoutAskingTheHost_data();
    void unusableRequestsFailWithoutAskingTheHost();
    void destructionMidTransferDoesNotWaitOutTheTimeout();

private:
    QVariantMap params(const QString &name, const QVariant &length) const
    {
        return {{"domain", m_host->ready["files"].toString()}, {"clientResource", "/" + name},
                {"downloadPath", m_out.path() + "/" + name}, {"contentLength", length}, {"eTag", "\"given\""}};
    }
    QStringList rangesAsked()
    {
        QStringList ranges;
        for (const QJsonValue &entry : m_host->log())
            if (entry["call"] == "file")
                ranges << entry["headers"]["Range"].toString();
        return ranges;
    }

    IsolatedHome m_home;
    QTemporaryDir m_files{QStringLiteral(KUTILS_TEST_WORK_DIR "/nrm-files-XXXXXX")};
    QTemporaryDir m_out{QStringLiteral(KUTILS_TEST_WORK_DIR "/nrm-out-XXXXXX")};
    std::unique_ptr<CloudStandIn> m_host;
};

void tst_NetworkRequestManager::initTestCase()
{
    writePattern(m_files.filePath("two-ranges.bin"), kTwoRangeSize, 3);
    writePattern(m_files.filePath("small.bin"), kSmallSize, 5);
    m_host = std::make_unique<CloudStandIn>(QStringList{"--files", m_files.path()});
    QVERIFY(m_host->isReady());
    QVERIFY(m_host->ready["files"].toString().startsWith("https://127.0.0.1:"));
}

void tst_NetworkRequestManager::init()
{
    QVERIFY(m_host->reset());
}

void tst_NetworkRequestManager::rangesCoverTheFileIn256MiBSteps()
{
    using Ranges = std::vector<std::pair<quint64, quint64>>;
    const quint64 chunk = NetworkRequestManager::chunkSize;
    QCOMPARE(NetworkRequestManager::chunkRanges(0), Ranges{});
    QCOMPARE(NetworkRequestManager::chunkRanges(chunk), (Ranges{{0, chunk - 1}}));
    QCOMPARE(NetworkRequestManager::chunkRanges(chunk + 1), (Ranges{{0, chunk - 1}, {chunk, chunk}}));
}

void tst_NetworkRequestManager::checkThenChunkedDownloadIsByteIdenticalAndAsksEachRangeOnce()
{
    NetworkRequestManager manager;
    Recorder events(manager);
    QCOMPARE(manager.queueRequest(NetworkRequest::CheckDownload, params("two-ranges.bin", {})), 1);
    QVERIFY(events.waitFinished(1, 20000));
    const QVariantMap checked = events.result(0);
    // The length comes back as text, and goes in again as it came.
    QCOMPARE(checked["contentLength"].toString(), QString::number(kTwoRangeSize));
    QVERIFY(checked["eTag"].toString().startsWith('"'));

    QCOMPARE(manager.queueRequest(NetworkRequest::ChunkedDownload,
                                  params("two-ranges.bin", checked["contentLength"])),
             2);
    QVERIFY(events.waitFinished(2, 120000));
    QCOMPARE(events.order, (QStringList{"requestFinished", "downloadFinished", "requestFinished"}));
    QCOMPARE(events.finished.at(1).at(0).toInt(), 2);
    QCOMPARE(events.result(1)["eTag"].toString(), QString("\"given\""));
    QCOMPARE(md5Of(m_out.filePath("two-ranges.bin")), md5Of(m_files.filePath("two-ranges.bin")));

    QStringList ranges = rangesAsked();
    ranges.sort();
    QCOMPARE(ranges, (QStringList{"", "bytes=0-268435455", "bytes=268435456-268439552"}));
    // httplib's own Host: the authority alone, never the URL.
    const QString authority = m_host->ready["files"].toString().mid(QStringLiteral("https://").size());
    for (const QJsonValue &entry : m_host->log())
        QCOMPARE(entry["headers"]["Host"].toString(), authority);
}

void tst_NetworkRequestManager::rangeFaultsAreRetriedOrFailTheDownload_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QJsonArray>("faults");
    QTest::addColumn<bool>("succeeds");
    QTest::addColumn<int>("requests");

    const auto fault = [](const char *kind, int occurrence) {
        return QJsonObject{{"call", "file"}, {"kind", kind}, {"occurrence", occurrence}};
    };
    QJsonArray threeLimits, fourLimits;
    for (int i = 1; i <= 3; ++i)
        threeLimits << fault("429", i);
    fourLimits = threeLimits;
    fourLimits << fault("429", 4);
    // 1 + 4 + 16 s of back-off, and none after the last.
    QTest::newRow("three 429 then 206") << "small.bin" << threeLimits << true << 4;
    QTest::newRow("four 429") << "small.bin" << fourLimits << false << 4;
    QTest::newRow("dropped mid-range, then whole") << "small.bin" << QJsonArray{fault("dropMidBody", 1)} << true << 2;
    // Range ignored: a 200 with exactly the range is the range...
    QTest::newRow("200 equal to the range") << "small.bin" << QJsonArray{fault("ignoreRange", 0)} << true << 1;
    // ...a 200 with the whole of a longer file is refused at the range's end.
    QTest::newRow("200 longer than the range") << "two-ranges.bin" << QJsonArray{fault("ignoreRange", 0)} << false << 8;
}

void tst_NetworkRequestManager::rangeFaultsAreRetriedOrFailTheDownload()
{
    QFETCH(QString, file);
    QFETCH(QJsonArray, faults);
    QFETCH(bool, succeeds);
    QFETCH(int, requests);
    QVERIFY(m_host->fault(faults));

    NetworkRequestManager manager;
    Recorder events(manager);
    const qint64 size = QFileInfo(m_files.filePath(file)).size();
    manager.queueRequest(NetworkRequest::ChunkedDownload, params(file, size));
    QVERIFY(events.waitFinished(1, 120000));
    QCOMPARE(events.order.first(), succeeds ? "downloadFinished" : "downloadFailed");
    if (succeeds)
        QCOMPARE(md5Of(m_out.filePath(file)), md5Of(m_files.filePath(file)));
    else
        QVERIFY(events.result(0).isEmpty());
    // A refused 200 fails its range's four attempts; the other range may be
    // claimed or not by then, so only the floor is fixed for the longer file.
    if (file == "two-ranges.bin")
        QVERIFY(rangesAsked().size() >= requests / 2);
    else
        QCOMPARE(rangesAsked().size(), requests);
}

void tst_NetworkRequestManager::plainDownloadKeepsOnlyA200Body_data()
{
    QTest::addColumn<QString>("resource");
    QTest::addColumn<QString>("downloadPath"); // empty: beside the others
    QTest::addColumn<QString>("logged");
    QTest::newRow("200") << "small.bin" << QString() << QString();
    QTest::newRow("404") << "missing.bin" << QString() << "404";
    // Every write fails with ENOSPC there: a full disk.
    QTest::newRow("disk full") << "small.bin" << "/dev/full" << "Disk access error";
}

void tst_NetworkRequestManager::plainDownloadKeepsOnlyA200Body()
{
    QFETCH(QString, resource);
    QFETCH(QString, downloadPath);
    QFETCH(QString, logged);
    const bool succeeds = logged.isEmpty();
    NetworkRequestManager manager;
    Recorder events(manager);
    QVariantMap request = params(resource, kSmallSize);
    if (!downloadPath.isEmpty())
        request["downloadPath"] = downloadPath;
    QString log;
    {
        // Captured only while the request runs, so that failures still show.
        const StdoutCapture output;
        manager.queueRequest(NetworkRequest::Download, request);
        events.waitFinished(1, 20000);
        log = output.text();
    }
    QCOMPARE(events.finished.size(), 1);
    // downloadFailed is not this path's signal: an empty eTag is the failure.
    QCOMPARE(events.order, (succeeds ? QStringList{"downloadFinished", "requestFinished"} : QStringList{"requestFinished"}));
    QCOMPARE(events.result(0)["eTag"].toString().isEmpty(), !succeeds);
    if (succeeds) {
        QCOMPARE(md5Of(m_out.filePath(resource)), md5Of(m_files.filePath(resource)));
    } else {
        // The error page never becomes the file, and the log says why.
        QCOMPARE(QFileInfo(request["downloadPath"].toString()).size(), 0);
        QVERIFY2(log.contains(logged), qPrintable(log));
        QVERIFY(!log.contains("no response"));
    }
}

void tst_NetworkRequestManager::unusableRequestsFailWithoutAskingTheHost_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("downloadPath");
    QTest::addColumn<QVariant>("length");
    QTest::addColumn<QString>("outcome");
    const QString out = m_out.path() + "/unusable.bin";
    QTest::newRow("no length") << 2 << out << QVariant() << "failed";
    QTest::newRow("length not a number") << 2 << out << QVariant("12ab") << "failed";
    QTest::newRow("file cannot be made") << 2 << m_out.path() + "/no/such/folder/x.bin" << QVariant(100) << "failed";
    QTest::newRow("zero length: empty file") << 2 << out << QVariant("0") << "finished";
    QTest::newRow("unknown type") << 7 << out << QVariant(100) << "none";
}

void tst_NetworkRequestManager::unusableRequestsFailWithoutAskingTheHost()
{
    QFETCH(int, type);
    QFETCH(QString, downloadPath);
    QFETCH(QVariant, length);
    QFETCH(QString, outcome);
    QFile::remove(downloadPath);
    NetworkRequestManager manager;
    Recorder events(manager);
    QVariantMap request = params("small.bin", length);
    request["downloadPath"] = downloadPath;
    manager.queueRequest(type, request);
    QVERIFY(events.waitFinished(1, 20000));
    // A finished download hands back the eTag it was given; nothing else does.
    QCOMPARE(events.result(0), (outcome == "finished" ? QVariantMap{{"eTag", "\"given\""}} : QVariantMap()));
    const QStringList expected{outcome == "finished" ? "downloadFinished" : "downloadFailed", "requestFinished"};
    QCOMPARE(events.order, outcome == "none" ? QStringList{"requestFinished"} : expected);
    if (outcome == "finished")
        QCOMPARE(QFileInfo(downloadPath).size(), 0);
    QCOMPARE(m_host->log().size(), 0);
}

void tst_NetworkRequestManager::destructionMidTransferDoesNotWaitOutTheTimeout()
{
    // Every range is held by the host: without the stop the clients would
    // wait out httplib's read timeout (5 s) on each of four attempts.
    QVERIFY(m_host->fault(QJsonObject{{"call", "file"}, {"kind", "hold"}}));
    auto manager = std::make_unique<NetworkRequestManager>();
    manager->queueRequest(NetworkRequest::ChunkedDownload, params("two-ranges.bin", kTwoRangeSize));
    manager->queueRequest(NetworkRequest::Download, params("small.bin", kSmallSize));
    QTRY_COMPARE_WITH_TIMEOUT(m_host->held(), 2, 20000);
    QElapsedTimer timer;
    timer.start();
    manager.reset();
    QVERIFY2(timer.elapsed() < 4000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_host->release());
    // The queued plain download never started.
    QCOMPARE(rangesAsked().size(), 2);
}

QTEST_GUILESS_MAIN(tst_NetworkRequestManager)
#include "tst_NetworkRequestManager.moc"
