#include "cloud/CloudAPI.h"
#include "cloud/CloudPipeline.h"

#include "CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include <QCryptographicHash>
#include <QSignalSpy>
#include <QTest>

namespace {

constexpr uint kUid = 7;

QVariantMap jobData()
{
    return {{"duration", 4000}, {"frameCount", 100}, {"fps", 25}, {"inputWidth", 64}, {"inputHeight", 48},
            {"outputWidth", 128}, {"outputHeight", 96}, {"outputFps", 29.97}, {"outputExtension", "bin"},
            {"audioBitrate", "192k"}, {"audioCodec", "aac"}, {"audioMode", "copy"}, {"videoEncoder", "h264"},
            {"videoProfile", "high"}, {"videoBitrate", "8M"}, {"dynamicBitrateOn", false}, {"cropToFit", false},
            {"filtersStr", R"([{"model":"prob-4"}])"}};
}

QByteArray bytesOf(int size, char seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + seed) ^ (i >> 9));
    return bytes;
}

QString quotedMd5(const QByteArray &bytes)
{
    return "\"" + QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex() + "\"";
}

QList<QVariantList> argumentsOf(const QSignalSpy &spy)
{
    QList<QVariantList> all;
    for (const QVariantList &arguments : spy)
        all << arguments;
    return all;
}

} // namespace

class tst_CloudAPI : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void wholeJobUploadsInPartsAndDownloadsTheJoinedBytes();

private:
    // Polls until the cloud offers the result; false if it never does.
    bool pollUntilDownload(CloudAPI &api, uint uid);

    std::unique_ptr<IsolatedHome> m_home;
    std::unique_ptr<CloudStandIn> m_service;
    QString m_input;
    QByteArray m_inputBytes;
    QTemporaryDir m_work;
};

void tst_CloudAPI::initTestCase()
{
    m_home = std::make_unique<IsolatedHome>();
    // 1000003 bytes in parts of at most 250000: five URLs, and the client splits
    // them 200001 x 4 + 199999.
    m_service = std::make_unique<CloudStandIn>(QStringList{"--chunk-size", "250000", "--polls", "1"});
    QVERIFY(m_service->isReady());
    m_inputBytes = bytesOf(1000003, 3);
    m_input = m_work.filePath("input.mov");
    QVERIFY(writeFile(m_input, m_inputBytes));
}

void tst_CloudAPI::init()
{
    QVERIFY(m_service->reset());
}

bool tst_CloudAPI::pollUntilDownload(CloudAPI &api, uint uid)
{
    // A poll asked for while one waits is dropped, so asking often is safe.
    QSignalSpy offered(&api, &CloudAPI::downloadAvailable);
    return QTest::qWaitFor([&] {
        api.getStatus(uid);
        return !offered.isEmpty();
    }, 20000);
}

void tst_CloudAPI::wholeJobUploadsInPartsAndDownloadsTheJoinedBytes()
{
    CloudAPI api;
    api.setProperty("appVersion", "9.9.9");
    QSignalSpy status(&api, &CloudAPI::statusAvailable);
    QSignalSpy chunks(&api, &CloudAPI::chunkUploaded);
    QSignalSpy uploaded(&api, &CloudAPI::uploadSuccessful);
    QSignalSpy done(&api, &CloudAPI::downloadDone);
    QSignalSpy errors(&api, &CloudAPI::errorHit);
    const QString output = m_work.filePath("result.bin");
    api.registerExport(kUid, "", "file:" + m_input, m_service->token(), jobData(), output, "");
    api.setAuth(m_service->token(), false);
    api.runAndAccept(m_input, jobData(), kUid);
    QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 1, 30000);

    const QList<int> lengths{200001, 200001, 200001, 200001, 199999};
    QList<QVariantList> expectedChunks;
    QJsonArray expectedResults;
    for (int i = 0, start = 0; i < lengths.size(); start += lengths[i++]) {
        const QString eTag = quotedMd5(m_inputBytes.mid(start, lengths[i]));
        expectedChunks << QVariantList{kUid, i, eTag};
        expectedResults << QJsonObject{{"eTag", eTag}, {"partNum", i + 1}};
    }
    QCOMPARE(argumentsOf(chunks), expectedChunks);
    QList<QVariantList> expectedStatus{{"accept", 0, "Uploading input", kUid},
                                       {"upload", 0, "Uploading input", kUid},
                                       {"accept", 0, "Uploaded chunk 0 / 5", kUid}};
    for (int part = 1; part <= 5; ++part)
        expectedStatus << QVariantList{"accept", part / 5, QStringLiteral("Uploaded chunk %1 / 5").arg(part), kUid};
    expectedStatus << QVariantList{"complete-upload", 0, "Upload complete.", kUid}
                   << QVariantList{"processing", 0, "Processing", kUid};
    QCOMPARE(argumentsOf(status), expectedStatus);

    const QJsonArray log = m_service->log();
    QCOMPARE(m_service->calls(),
             (QStringList{"POST /video/", "PATCH /video/job-1/accept/", "PUT /upload/job-1/1", "PUT /upload/job-1/2",
                          "PUT /upload/job-1/3", "PUT /upload/job-1/4", "PUT /upload/job-1/5",
                          "PATCH /video/job-1/complete-upload/"}));
    const QJsonObject create = log[0].toObject();
    QCOMPARE(create["headers"]["x-desktop-app-version"].toString(), "9.9.9");
    QCOMPARE(create["headers"]["Authorization"].toString(), "Bearer " + m_service->token());
    QCOMPARE(create["body"]["source"]["size"].toInt(), m_inputBytes.size());
    QCOMPARE(create["body"]["source"]["container"].toString(), "mov");
    QCOMPARE(create["body"]["output"]["frameRate"], QJsonValue(30));
    QCOMPARE(create["body"]["overrides"]["isPaidDiffusion"].toBool(), true);
    QVERIFY(create["body"]["output"].toObject().contains("videoBitrate"));
    QVERIFY(!create["body"]["output"].toObject().contains("dynamicCompressionLevel"));
    QCOMPARE(log[7]["body"]["uploadResults"].toArray(), expectedResults);

    QVERIFY(pollUntilDownload(api, kUid));
    status.clear();
    api.download(kUid);
    QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, 30000);
    QCOMPARE(done.first(), (QVariantList{kUid, output}));
    QCOMPARE(readFileBytes(output), m_inputBytes);
    QCOMPARE(status.first(), (QVariantList{"downloading", 0, "Downloading...", kUid}));
    QCOMPARE(status.last(), (QVariantList{"downloaded", 0, "Downloaded. Click to view.", kUid}));
    QCOMPARE(errors.count(), 0);
    QCOMPARE(QDir(m_work.path()).entryList({"result.bin.part-*"}), QStringList());
}

QTEST_GUILESS_MAIN(tst_CloudAPI)
#include "tst_CloudAPI.moc"
