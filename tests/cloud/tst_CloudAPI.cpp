#include "cloud/CloudAPI.h"
#include "cloud/CloudPipeline.h"

#include "CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
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
    void initTestCase()
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

    void init()
    {
        QVERIFY(m_service->reset());
    }

    void wholeJobUploadsInPartsAndDownloadsTheJoinedBytes()
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

    void resumeSendsOnlyTheMissingParts_data()
    {
        QTest::addColumn<int>("restored");
        QTest::addColumn<bool>("quoted");
        QTest::newRow("3 of 5, quoted") << 3 << true;
        QTest::newRow("3 of 5, unquoted") << 3 << false;
        QTest::newRow("all 5") << 5 << true;
    }

    void resumeSendsOnlyTheMissingParts()
    {
        QFETCH(int, restored);
        QFETCH(bool, quoted);
        QString requestId;
        QJsonObject saved;
        {
            // A first run that stores `restored` parts and is then interrupted.
            const auto first = authorisedApi();
            QSignalSpy chunks(first.get(), &CloudAPI::chunkUploaded);
            QSignalSpy cost(first.get(), &CloudAPI::costAvailable);
            QSignalSpy errors(first.get(), &CloudAPI::errorHit);
            QJsonArray faults{QJsonObject{{"call", "complete"}, {"kind", "status"}}};
            for (int part = restored + 1; part <= 5; ++part)
                faults << QJsonObject{{"call", "chunk"}, {"kind", "status"}, {"occurrence", part}};
            QVERIFY(m_service->fault(faults));
            start(*first, kUid);
            QTRY_COMPARE_WITH_TIMEOUT(chunks.count(), restored, 20000);
            for (const QVariantList &chunk : chunks) {
                const QString eTag = chunk[2].toString();
                saved[QString::number(chunk[1].toInt() + 1)] = quoted ? eTag : eTag.mid(1, eTag.size() - 2);
            }
            requestId = cost.first()[2].toString();
            QTRY_VERIFY_WITH_TIMEOUT(m_service->calls({"complete"}).size() == 1, 20000);
        }
        QVERIFY(m_service->reset());
        const auto api = authorisedApi();
        QSignalSpy uploaded(api.get(), &CloudAPI::uploadSuccessful);
        api->loadExport(kUid, "runAndAccept", m_input, m_service->token(), requestId, jobData(), m_work.filePath("out.bin"),
                        QJsonDocument(saved).toJson());
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 1, 20000);
        QStringList expected{"PATCH /video/" + requestId + "/accept/", "PATCH /video/" + requestId + "/accept/"};
        for (int part = restored + 1; part <= 5; ++part)
            expected << "PUT /upload/" + requestId + "/" + QString::number(part);
        expected << "PATCH /video/" + requestId + "/complete-upload/";
        QCOMPARE(m_service->calls(), expected);
        const QJsonArray results = m_service->log().last()["body"]["uploadResults"].toArray();
        QCOMPARE(results.size(), 5);
        QCOMPARE(results[0]["eTag"].toString(), saved["1"].toString().remove('"'));
    }

    void cancelLetsTheHeldChunkFinishAndSendsNoMore()
    {
        auto api = authorisedApi();
        QSignalSpy status(api.get(), &CloudAPI::statusAvailable);
        QSignalSpy chunks(api.get(), &CloudAPI::chunkUploaded);
        QVERIFY(m_service->fault(QJsonObject{{"call", "chunk"}, {"kind", "hold"}, {"occurrence", 2}}));
        start(*api, kUid);
        QTRY_COMPARE_WITH_TIMEOUT(m_service->held(), 1, 20000);
        api->cancel(kUid);
        QCOMPARE(status.last(), (QVariantList{"cancel", 0, "Cancelled.", kUid}));
        QVERIFY(m_service->release());
        QTRY_COMPARE_WITH_TIMEOUT(chunks.count(), 2, 20000);
        api.reset();  // joins the transfer, so the log below is final
        const QString job = m_service->log().last()["job"].toString();
        QCOMPARE(m_service->calls({"chunk", "cancel", "complete"}),
                 (QStringList{"PUT /upload/" + job + "/1", "PUT /upload/" + job + "/2", "DELETE /video/" + job + "/"}));
    }

    void droppedFirstPutStillSendsTheOthers()
    {
        const auto api = authorisedApi();
        QSignalSpy errors(api.get(), &CloudAPI::errorHit);
        QSignalSpy chunks(api.get(), &CloudAPI::chunkUploaded);
        QVERIFY(m_service->fault(QJsonObject{{"call", "chunk"}, {"kind", "drop"}, {"occurrence", 1}}));
        start(*api, kUid);
        QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 2, 20000);
        QCOMPARE(argumentsOf(errors),
                 (QList<QVariantList>{{kUid, "error uploading", "Error uploading files. Check your internet connection and retry."},
                                      {kUid, "Error sending upload results.", "Part 1 is missing or does not match its ETag."}}));
        QCOMPARE(chunks.count(), 4);
        QCOMPARE(chunks.first()[1].toInt(), 1);
    }

    void failedDownloadKeepsTheEarlierFile_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("error");
        const QString failed = "DownloadError: Failed to download from cloud. ";
        QTest::newRow("drop mid-body") << QJsonObject{{"kind", "dropMidBody"}} << failed + "no response";
        QTest::newRow("drop") << QJsonObject{{"kind", "drop"}} << failed + "no response";
        QTest::newRow("404 with a body") << QJsonObject{{"kind", "status"}, {"status", 404}, {"body", "<Error>gone</Error>"}}
                                         << failed + "404";
    }

    void failedDownloadKeepsTheEarlierFile()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, error);
        const auto api = authorisedApi();
        QSignalSpy errors(api.get(), &CloudAPI::errorHit);
        QSignalSpy uploaded(api.get(), &CloudAPI::uploadSuccessful);
        const QString output = m_work.filePath("kept.bin");
        QVERIFY(writeFile(output, "an earlier complete result"));
        start(*api, kUid, output);
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 1, 20000);
        QVERIFY(pollUntilDownload(*api, kUid));
        fault["call"] = "result";
        QVERIFY(m_service->fault(fault));
        api->download(kUid);
        QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, 20000);
        QCOMPARE(errors.first(), (QVariantList{kUid, error, error}));
        QCOMPARE(readFileBytes(output), QByteArray("an earlier complete result"));
        QCOMPARE(QDir(m_work.path()).entryList({"kept.bin.*"}), QStringList());
    }

    void ninthTransferWaitsBehindTheFirst()
    {
        // One part per job: the transfer threads, not the parts, are what is counted.
        const QString small = m_work.filePath("small.mov");
        QVERIFY(writeFile(small, bytesOf(1000, 9)));
        const auto api = authorisedApi();
        QSignalSpy uploaded(api.get(), &CloudAPI::uploadSuccessful);
        QVERIFY(m_service->fault(QJsonObject{{"call", "chunk"}, {"kind", "hold"}}));
        for (uint uid = 1; uid <= 9; ++uid) {
            api->registerExport(uid, "", small, m_service->token(), jobData(), m_work.filePath("out.bin"), "");
            api->runAndAccept(small, jobData(), uid);
        }
        QTRY_COMPARE_WITH_TIMEOUT(m_service->held(), 8, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_service->calls({"accept"}).size(), 9, 20000);
        QCOMPARE(m_service->calls({"chunk"}).size(), 8);
        QVERIFY(m_service->release());
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 8, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_service->held(), 1, 20000);
        QVERIFY(m_service->release());
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 9, 20000);
        QCOMPARE(uploaded.last().first().toUInt(), 9u);
    }

    void loadExportActsOnTheSavedStatus_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<bool>("withRequest");
        QTest::addColumn<QStringList>("calls");
        QTest::newRow("downloaded") << "downloaded" << true << QStringList();
        QTest::newRow("cancel") << "cancel" << true << QStringList();
        QTest::newRow("processing") << "processing" << true << QStringList{"status", "metrics"};
        QTest::newRow("runAndAccept, new") << "runAndAccept" << false << QStringList{"create", "accept"};
    }

    void loadExportActsOnTheSavedStatus()
    {
        QFETCH(QString, status);
        QFETCH(bool, withRequest);
        QFETCH(QStringList, calls);
        QString requestId;
        {
            const auto first = authorisedApi();
            QSignalSpy uploaded(first.get(), &CloudAPI::uploadSuccessful);
            QSignalSpy cost(first.get(), &CloudAPI::costAvailable);
            start(*first, kUid);
            QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 1, 20000);
            QVERIFY(pollUntilDownload(*first, kUid));
            requestId = cost.first()[2].toString();
        }
        QVERIFY(m_service->reset());
        const auto api = authorisedApi();
        QSignalSpy prices(api.get(), &CloudAPI::productPriceAvailable);
        api->loadExport(kUid, status, "file:" + m_input, m_service->token(), withRequest ? requestId : QString(), jobData(),
                        m_work.filePath("loaded.bin"), "");
        api->checkProductPrice(m_service->token(), "after");
        QTRY_COMPARE_WITH_TIMEOUT(prices.count(), 1, 20000);
        const auto firstCalls = [&] {
            QStringList seen;
            for (const QJsonValue &entry : m_service->log())
                if (entry["call"] != "product" && !seen.contains(entry["call"].toString()))
                    seen << entry["call"].toString();
            return seen.mid(0, calls.size());
        };
        QTRY_COMPARE_WITH_TIMEOUT(firstCalls(), calls, 20000);
        if (status == "downloaded") {
            QSignalSpy done(api.get(), &CloudAPI::downloadDone);
            api->download(kUid);
            QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, 20000);
            QCOMPARE(readFileBytes(m_work.filePath("loaded.bin")), m_inputBytes);
        }
    }

    void priceChecksAloneGoAheadOfTheToken()
    {
        CloudAPI api;
        QSignalSpy prices(&api, &CloudAPI::productPriceAvailable);
        QSignalSpy history(&api, &CloudAPI::historyAvailable);
        api.checkProductPrice(m_service->token(), "first");
        QTRY_COMPARE_WITH_TIMEOUT(prices.count(), 1, 20000);
        QCOMPARE(prices.first(), (QVariantList{QVariant::fromValue(std::vector<QString>{"9.99", "12.99"}), "first"}));
        api.getHistory(m_service->token());
        api.checkProductPrice(m_service->token(), "second");
        api.setAuth(m_service->token(), false);
        QTRY_COMPARE_WITH_TIMEOUT(prices.count(), 2, 20000);
        QCOMPARE(history.count(), 1);
        QCOMPARE(m_service->calls(), (QStringList{"GET /v3/plutus/product/first", "GET /video/history",
                                                  "GET /v3/plutus/product/second"}));
    }

    void destroyingMidTransferReturnsPromptly()
    {
        auto api = authorisedApi();
        QVERIFY(m_service->fault(QJsonObject{{"call", "chunk"}, {"kind", "hold"}, {"occurrence", 2}}));
        start(*api, kUid);
        QTRY_COMPARE_WITH_TIMEOUT(m_service->held(), 1, 20000);
        QElapsedTimer clock;
        clock.start();
        api.reset();
        QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
    }

private:
    std::unique_ptr<CloudAPI> authorisedApi()
    {
        auto api = std::make_unique<CloudAPI>();
        api->setAuth(m_service->token(), false);
        return api;
    }

    // Registers uid for the shared input and starts it: create, accept, upload.
    void start(CloudAPI &api, uint uid, const QString &output = {}, const QString &chunkResults = {})
    {
        api.registerExport(uid, "", m_input, m_service->token(), jobData(), output.isEmpty() ? m_work.filePath("out.bin") : output,
                           chunkResults);
        api.runAndAccept(m_input, jobData(), uid);
    }

    // Polls until the cloud offers the result; false if it never does.
    bool pollUntilDownload(CloudAPI &api, uint uid)
    {
        // A poll asked for while one waits is dropped, so asking often is safe.
        QSignalSpy offered(&api, &CloudAPI::downloadAvailable);
        return QTest::qWaitFor([&] {
            api.getStatus(uid);
            return !offered.isEmpty();
        }, 20000);
    }


    std::unique_ptr<IsolatedHome> m_home;
    std::unique_ptr<CloudStandIn> m_service;
    QString m_input;
    QByteArray m_inputBytes;
    QTemporaryDir m_work;
};

QTEST_GUILESS_MAIN(tst_CloudAPI)
#include "tst_CloudAPI.moc"
