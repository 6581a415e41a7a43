#include "cloud/CloudAPI.h"
#include "cloud/CloudPipeline.h"
#include "plugin/HttpClientFactory.h"

#include "CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

#include <functional>

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

// A second-long job, for the pipeline's single calls.
QVariantMap smallJobData(const QString &filters = R"([{"model":"prob-4"}])")
{
    return {{"duration", 1000}, {"frameCount", 25}, {"fps", 25}, {"inputWidth", 64}, {"inputHeight", 48},
            {"outputWidth", 64}, {"outputHeight", 48}, {"outputFps", 25}, {"outputExtension", "bin"},
            {"videoBitrate", "8M"}, {"filtersStr", filters}};
}

// Every signal of a pipeline or of the client, as "name(arguments)" lines.
class SignalLog : public QObject
{
public:
    template<typename Source>
    explicit SignalLog(Source *source)
    {
        const QMetaObject *meta = source->metaObject();
        for (int i = meta->methodOffset(); i < meta->methodCount(); ++i)
            if (meta->method(i).methodType() == QMetaMethod::Signal)
                m_spies.push_back(std::make_unique<QSignalSpy>(source, meta->method(i)));
    }
    QString text() const
    {
        QString all;
        for (const auto &spy : m_spies)
            for (const QVariantList &arguments : *spy) {
                QStringList words;
                for (const QVariant &argument : arguments)
                    words << argument.toString();
                all += spy->signal().left(spy->signal().indexOf('(')) + "(" + words.join(",") + ")\n";
            }
        return all;
    }

private:
    std::vector<std::unique_ptr<QSignalSpy>> m_spies;
};

QString quotedMd5(const QByteArray &bytes)
{
    return "\"" + QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex() + "\"";
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
        // The pipeline's calls below run on this thread.
        HttpClientFactory::shieldThreadFromPipeSignal();
        QVERIFY(m_service->isReady());
        m_inputBytes = randomBytes(1000003, 3);
        m_input = m_work.filePath("input.mov");
        QVERIFY(writeFile(m_input, m_inputBytes));
        m_smallInput = m_work.filePath("small-input.mov");
        QVERIFY(writeFile(m_smallInput, QByteArray(5000, 'k')));
        const auto job = pipeline({});
        QVERIFY(job->create() && job->accept());
        job->upload();
        std::string status;
        QVERIFY(QTest::qWaitFor([&] {
            job->getStatus(status);
            return status == "download";
        }, 20000));
        m_completed = QString::fromStdString(job->getRequestId());
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
        QCOMPARE(QList<QVariantList>(chunks), expectedChunks);
        QList<QVariantList> expectedStatus{{"accept", 0, "Uploading input", kUid},
                                           {"upload", 0, "Uploading input", kUid},
                                           {"accept", 0, "Uploaded chunk 0 / 5", kUid}};
        for (int part = 1; part <= 5; ++part)
            expectedStatus << QVariantList{"accept", part / 5, QStringLiteral("Uploaded chunk %1 / 5").arg(part), kUid};
        expectedStatus << QVariantList{"complete-upload", 0, "Upload complete.", kUid}
                       << QVariantList{"processing", 0, "Processing", kUid};
        QCOMPARE(QList<QVariantList>(status), expectedStatus);

        const QJsonArray log = m_service->log();
        const QString job = log[1]["job"].toString();
        QStringList expectedCalls{"POST /video/", "PATCH /video/" + job + "/accept/"};
        for (int part = 1; part <= 5; ++part)
            expectedCalls << "PUT /upload/" + job + "/" + QString::number(part);
        QCOMPARE(m_service->calls(), expectedCalls << "PATCH /video/" + job + "/complete-upload/");
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
        QTest::newRow("3 of 5") << 3;
        QTest::newRow("all 5") << 5;
    }

    void resumeSendsOnlyTheMissingParts()
    {
        QFETCH(int, restored);
        QString requestId;
        QJsonObject saved;
        {
            // A first run that stores `restored` parts and is then interrupted.
            const auto first = authorisedApi();
            QSignalSpy chunks(first.get(), &CloudAPI::chunkUploaded);
            QSignalSpy cost(first.get(), &CloudAPI::costAvailable);
            QJsonArray faults{QJsonObject{{"call", "complete"}, {"kind", "status"}}};
            for (int part = restored + 1; part <= 5; ++part)
                faults << QJsonObject{{"call", "chunk"}, {"kind", "status"}, {"occurrence", part}};
            QVERIFY(m_service->fault(faults));
            start(*first, kUid);
            QTRY_COMPARE_WITH_TIMEOUT(chunks.count(), restored, 20000);
            for (const QVariantList &chunk : chunks)
                saved[QString::number(chunk[1].toInt() + 1)] = chunk[2].toString();
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
        QCOMPARE(QList<QVariantList>(errors),
                 (QList<QVariantList>{{kUid, "error uploading", "Error uploading files. Check your internet connection and retry."},
                                      {kUid, "Error sending upload results.", "Part 1 is missing or does not match its ETag."}}));
        QCOMPARE(chunks.count(), 4);
        QCOMPARE(chunks.first()[1].toInt(), 1);
    }

    void ninthTransferWaitsBehindTheFirstAndDestroyingMidTransferReturnsPromptly()
    {
        // One part per job: the transfer threads, not the parts, are what is counted.
        const QString small = m_work.filePath("small.mov");
        QVERIFY(writeFile(small, randomBytes(1000, 9)));
        auto api = authorisedApi();
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
        // The ninth's part is still held: the client must not wait for it.
        QElapsedTimer clock;
        clock.start();
        api.reset();
        QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
    }

    void loadExportActsOnTheSavedStatus_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<bool>("withRequest");
        QTest::addColumn<QStringList>("calls");
        QTest::newRow("downloaded") << "downloaded" << true << QStringList();
        QTest::newRow("processing") << "processing" << true << QStringList{"status", "metrics"};
        QTest::newRow("runAndAccept, new") << "runAndAccept" << false << QStringList{"create", "accept"};
    }

    void loadExportActsOnTheSavedStatus()
    {
        QFETCH(QString, status);
        QFETCH(bool, withRequest);
        QFETCH(QStringList, calls);
        const auto api = authorisedApi();
        QSignalSpy prices(api.get(), &CloudAPI::productPriceAvailable);
        api->loadExport(kUid, status, "file:" + m_smallInput, m_service->token(), withRequest ? m_completed : QString(),
                        smallJobData(), m_work.filePath("loaded.bin"), "");
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
            QCOMPARE(readFileBytes(m_work.filePath("loaded.bin")), readFileBytes(m_smallInput));
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

    void readChunkSplitsInSigned64Bit_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("length");  // 0: empty, the failure logged
        QTest::newRow("10 in 7, fifth") << 10 << 7 << 4 << 8 << 2;
        QTest::newRow("10 in 7, sixth starts at the end") << 10 << 7 << 5 << 0 << 0;
        QTest::newRow("10 in 7, last is -2") << 10 << 7 << 6 << 0 << 0;
        QTest::newRow("no chunks") << 10 << 0 << 0 << 0 << 0;
        QTest::newRow("index past the end") << 10 << 4 << 4 << 0 << 0;
        QTest::newRow("empty file") << 0 << 4 << 0 << 0 << 0;
    }

    void readChunkSplitsInSigned64Bit()
    {
        QFETCH(int, size);
        QFETCH(int, count);
        QFETCH(int, index);
        QFETCH(int, start);
        QFETCH(int, length);
        const QByteArray bytes = randomBytes(size);
        const QString path = m_work.filePath("split.bin");
        QVERIFY(writeFile(path, bytes));
        std::string chunk = "stale";
        CloudPipeline::readChunk(path, index, count, chunk);
        QCOMPARE(QByteArray::fromStdString(chunk), bytes.mid(start, length));
    }

    void chunkResultsAreRestored_data()
    {
        QTest::addColumn<QString>("record");
        QTest::addColumn<QStringList>("parts");
        QTest::addColumn<QString>("logged");
        const auto record = [](const QJsonObject &parts) { return QString(QJsonDocument(parts).toJson()); };
        QTest::newRow("quoted value") << record({{"3", "\"abc\""}}) << QStringList{"3=abc"} << QString();
        QTest::newRow("in the object's order") << record({{"1", "a"}, {"2", "\"b\""}}) << QStringList{"1=a", "2=b"}
                                               << QString();
        QTest::newRow("key not a number") << R"({"1": "a", "x": "b"})" << QStringList() << "invalid stoi argument";
        QTest::newRow("key out of range") << R"({"99999999999": "a"})" << QStringList() << "stoi argument out of range";
        QTest::newRow("not JSON") << "{" << QStringList() << "JSON parsing error: ";
    }

    void chunkResultsAreRestored()
    {
        QFETCH(QString, record);
        QFETCH(QStringList, parts);
        QFETCH(QString, logged);
        StdoutCapture capture;
        const CloudPipeline job(1, "r", m_smallInput, "t", {}, "o", record, "1", false, nullptr);
        QStringList found;
        for (const CloudPipeline::Part &part : job.getParts())
            found << QString::number(part.partNum) + "=" + QString::fromStdString(part.eTag);
        QCOMPARE(found, parts);
        QVERIFY(capture.text().contains(logged));
    }

    void sixFailedPollsRaiseAClientErrorAndEachLaterOneAgain()
    {
        const auto job = pipeline(m_completed);
        QSignalSpy clientErrors(job.get(), &CloudPipeline::clientErrorHit);
        QVERIFY(m_service->fault(QJsonObject{{"call", "status"}, {"kind", "status"}, {"status", 503}}));
        std::string status;
        const QList<int> expected{0, 0, 0, 0, 0, 1, 2};
        for (int poll = 0; poll < expected.size(); ++poll) {
            job->getStatus(status);
            QCOMPARE(clientErrors.count(), expected[poll]);
        }
        QCOMPARE(status, std::string("Error"));
        QCOMPARE(clientErrors.first(),
                 (QVariantList{7u, "Connection error", "Error: failed to get status. Check your internet connection"}));
        QVERIFY(m_service->reset());
        job->getStatus(status);
        QCOMPARE(status, std::string("download"));
        QCOMPARE(job->getOutputSizeBytes(), 1u << 20);
        QVERIFY(m_service->fault(QJsonObject{{"call", "status"}, {"kind", "status"}, {"status", 503}}));
        job->getStatus(status);
        QCOMPARE(clientErrors.count(), 2);
    }

    void waitingForSourceVideoAcceptsInsteadOfReporting()
    {
        const auto job = pipeline({});
        QVERIFY(job->create());
        QSignalSpy status(job.get(), &CloudPipeline::statusAvailable);
        std::string word;
        job->getStatus(word);
        QCOMPARE(word, std::string("requested"));
        QCOMPARE(status.count(), 1);
        QCOMPARE(status.first(), (QVariantList{"upload", 0, "Uploading input", 7u}));
        const QString id = QString::fromStdString(job->getRequestId());
        QCOMPARE(m_service->calls(), (QStringList{"POST /video/", "GET /video/" + id + "/status/", "PATCH /video/" + id + "/accept/"}));
    }

    void historyNamesTheFiltersOfActiveJobs()
    {
        const auto shown = pipeline({}, smallJobData(R"([{"model":"a"},{"model":"thm-2"},{"fps":60},{"model":"b"},{"model":"c"}])"));
        const auto hidden = pipeline({});
        QVERIFY(shown->create() && hidden->create());
        const QString shownId = QString::fromStdString(shown->getRequestId());
        const QString hiddenId = QString::fromStdString(hidden->getRequestId());
        QVERIFY(m_service->setJob(shownId, {{"status", "postprocessing"}}));
        QVERIFY(m_service->setJob(hiddenId, {{"status", "failed"}}));
        CloudAPI api;
        api.setAuth(m_service->token(), false);
        QSignalSpy history(&api, &CloudAPI::historyAvailable);
        api.getHistory(m_service->token());
        QTRY_COMPARE_WITH_TIMEOUT(history.count(), 1, 20000);
        const QVariantMap jobs = history.first().first().toMap();
        QVERIFY(!jobs.contains(hiddenId));
        QCOMPARE(jobs.value(shownId).toMap(),
                 (QVariantMap{{"filters", QStringList{"EnhancementFilter", "MotionDeblurFilter", "FrameInterpolationFilter",
                                                      "SecondEnhancementFilter", "SecondEnhancementFilter"}},
                              {"container", "bin"}, {"outputWidth", 64}, {"outputHeight", 48}, {"outputFps", qint64(25)}}));
    }

    void developerModeSwitchesOnlySomeCalls_data()
    {
        QTest::addColumn<QByteArray>("mode");
        QTest::addColumn<QStringList>("servers");  // estimate, trials, balance, product, as "server key"
        const QString production = m_service->ready["apiKeyProduction"].toString();
        const QString staging = m_service->ready["apiKeyStaging"].toString();
        QTest::newRow("1") << QByteArray("1")
                           << QStringList{"videoStaging ", "videoStaging ", "accountStaging " + staging, "account " + production};
        QTest::newRow("true") << QByteArray("true")
                              << QStringList{"video ", "video ", "account " + production, "account " + production};
    }

    void developerModeSwitchesOnlySomeCalls()
    {
        QFETCH(QByteArray, mode);
        QFETCH(QStringList, servers);
        qputenv("KVID_DEVELOPER_MODE", mode);
        CloudAPI api;
        api.setAuth(m_service->token(), false);
        QSignalSpy account(&api, &CloudAPI::accountDataAvailable);
        QSignalSpy price(&api, &CloudAPI::productPriceAvailable);
        QCOMPARE(api.getEstimates(m_service->token(), m_smallInput, smallJobData()), (std::vector<int>{1, 60}));
        api.checkTokens(m_service->token());
        api.checkProductPrice(m_service->token(), "p");
        QTRY_COMPARE_WITH_TIMEOUT(price.count(), 1, 20000);
        qunsetenv("KVID_DEVELOPER_MODE");
        QCOMPARE(account.first(), (QVariantList{1000, 0, 1000, 0xffffffffu}));
        QStringList seen;
        for (const QJsonValue &entry : m_service->log())
            seen << entry["server"].toString() + " " + entry["headers"]["x-api-key"].toString();
        QCOMPARE(seen, servers);
    }

    void everyCallReportsEveryFault_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QStringList>("reports");  // any one of them
        const QJsonObject kinds[] = {{{"kind", "status"}, {"status", 500}, {"body", R"({"message":"boom"})"}},
                                     {{"kind", "429"}, {"body", "{}"}},
                                     {{"kind", "drop"}},
                                     {{"kind", "dropMidBody"}},
                                     {{"kind", "malformed"}},
                                     {{"kind", "truncated"}}};
        const QString exception = "Exception occurred";
        const QList<std::tuple<QString, int, QStringList>> calls{
            {"create", 6, {"Couldn't create request", "No response", exception}},
            {"estimate", 6, {"The cloud can not process this file.", "No response from Cloud"}},
            {"accept", 6, {"boom", "Could not accept request", "Could not upload input."}},
            {"chunk", 3, {"Chunk upload failed", "error uploading"}},
            {"complete", 4, {"Error sending upload results.", "Response body is empty.", "Message not found"}},
            {"status", 6, {"/getStatus: Failed to connect", "/getStatus Exception"}},
            {"metrics", 4, {"errorHit(7,Error "}},
            {"cancel", 4, {"/video: Failed to connect", "/video No response"}},
            {"result", 4, {"DownloadError: Failed to download from cloud."}},
            {"reserve", 6, {"/v3/plutus/reserve failed", "/v3/plutus/reserve Exception"}},
            {"trials", 6, {"/video/status/trials 500", "/video/status/trials 429", "/video/status/trials -1", "JSON parse error"}},
            {"cloudStatus", 6, {"/getSupportedModels error", "models=|"}},
            {"history", 6, {"historyAvailable()\n"}},
            {"balance", 6, {"accountDataAvailable(0,0,0,4294967295)", exception}},
            {"product", 6, {"/v3/plutus/product failed", exception}},
            {"features", 6, {"/v3/auth/features failed", "/v3/auth/features Exception"}}};
        // A good answer whose body goes unread needs no row for malformed or truncated.
        for (const auto &[call, kindCount, reports] : calls)
            for (int kind = 0; kind < kindCount; ++kind)
                QTest::addRow("%s %s", qPrintable(call), qPrintable(kinds[kind]["kind"].toString())) << call << kinds[kind] << reports;
        QTest::newRow("chunk without ETag") << "chunk" << QJsonObject{{"kind", "noEtag"}} << QStringList{"ETag not found"};
        const QJsonObject slow{{"kind", "delay"}, {"delayMs", 6000}};
        QTest::newRow("status slow") << "status" << slow << QStringList{"/getStatus: Failed to connect to cloud API: -1"};
        QTest::newRow("trials slow") << "trials" << slow << QStringList{"/video/status/trials -1"};
        QTest::newRow("supported models slow") << "cloudStatus" << slow << QStringList{"models=|"};
    }

    void everyCallReportsEveryFault()
    {
        QFETCH(QString, call);
        QFETCH(QJsonObject, fault);
        QFETCH(QStringList, reports);
        const bool needsJob = QStringList{"accept", "chunk", "complete", "cancel"}.contains(call);
        const bool onCompleted = QStringList{"status", "metrics", "result"}.contains(call);
        const auto job = pipeline(onCompleted ? m_completed : QString());
        CloudAPI api;
        api.setAuth(m_service->token(), false);
        if (needsJob)
            QVERIFY(job->create());
        if (call == "chunk" || call == "complete")
            QVERIFY(job->accept());
        // The service cannot tell an estimate from a create.
        const QString served = call == "estimate" ? "create" : call;
        fault["call"] = served;
        QVERIFY(m_service->fault(fault));
        // A failed download keeps the earlier result, and no partial file.
        const QString output = m_work.filePath("out.bin");
        QVERIFY(writeFile(output, "an earlier complete result"));
        SignalLog pipelineSignals(job.get());
        SignalLog apiSignals(&api);
        auto capture = std::make_unique<StdoutCapture>();
        QString returned;
        std::string word;
        const QHash<QString, std::function<void()>> act{
            {"create", [&] { job->create(); }},
            {"estimate", [&] { api.getEstimates(m_service->token(), m_smallInput, smallJobData()); }},
            {"accept", [&] { job->accept(); }},
            {"chunk", [&] { job->upload(); }},
            {"complete", [&] { job->upload(); }},
            {"status", [&] { job->getStatus(word); }},
            {"metrics", [&] { job->getMetrics(word); }},
            {"cancel", [&] { job->cancel(); }},
            {"result", [&] { job->download(); }},
            {"reserve", [&] { job->reserveTokens(1); }},
            {"trials", [&] { api.checkFreeTrials(m_service->token()); }},
            {"cloudStatus", [&] { returned = "models=" + api.getSupportedModels().join("|") + "|"; }},
            {"history", [&] { api.getHistory(m_service->token()); }},
            {"balance", [&] { api.checkTokens(m_service->token()); }},
            {"product", [&] { api.checkProductPrice(m_service->token(), "p"); }},
            {"features", [&] {
                 CloudAPI fresh;
                 fresh.setAuth(m_service->token(), true);
             }}};
        act[call]();
        QString text;
        const bool reported = QTest::qWaitFor([&] {
            text = returned + "\n" + pipelineSignals.text() + apiSignals.text() + capture->text();
            return std::any_of(reports.begin(), reports.end(), [&](const QString &report) { return text.contains(report); });
        }, 20000);
        capture.reset();  // QtTest's own lines go to standard output too
        QVERIFY2(reported, qPrintable(text.right(2000)));
        QVERIFY(!m_service->calls({served}).isEmpty());
        QCOMPARE(readFileBytes(output), QByteArray("an earlier complete result"));
        QCOMPARE(QDir(m_work.path()).entryList({"out.bin.*"}), QStringList());
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


    std::unique_ptr<CloudPipeline> pipeline(const QString &requestId, const QVariantMap &data = smallJobData())
    {
        return std::make_unique<CloudPipeline>(7, requestId, m_smallInput, m_service->token(), data,
                                               m_work.filePath("out.bin"), "", "1.0", false, nullptr);
    }

    std::unique_ptr<IsolatedHome> m_home;
    std::unique_ptr<CloudStandIn> m_service;
    QString m_smallInput;
    QString m_completed;  // a pipeline job whose result is ready
    QString m_input;
    QByteArray m_inputBytes;
    QTemporaryDir m_work;
};

QTEST_GUILESS_MAIN(tst_CloudAPI)
#include "tst_CloudAPI.moc"
