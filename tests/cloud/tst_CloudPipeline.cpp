#include "cloud/CloudAPI.h"
#include "cloud/CloudPipeline.h"
#include "plugin/HttpClientFactory.h"

#include "CloudStandIn.h"
#include "../files/FilesTestSupport.h"

#include <QSignalSpy>
#include <QTest>

#include <functional>

namespace {

QVariantMap jobData(const QString &filters = R"([{"model":"prob-4"}])")
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

} // namespace

class tst_CloudPipeline : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void readChunkSplitsInSigned64Bit_data();
    void readChunkSplitsInSigned64Bit();
    void chunkResultsAreRestored_data();
    void chunkResultsAreRestored();
    void sixFailedPollsRaiseAClientErrorAndEachLaterOneAgain();
    void waitingForSourceVideoAcceptsInsteadOfReporting();
    void historyNamesTheFiltersOfActiveJobs();
    void developerModeSwitchesOnlySomeCalls_data();
    void developerModeSwitchesOnlySomeCalls();
    void everyCallReportsEveryFault_data();
    void everyCallReportsEveryFault();

private:
    std::unique_ptr<CloudPipeline> pipeline(const QString &requestId, const QVariantMap &data = jobData());

    std::unique_ptr<IsolatedHome> m_home;
    std::unique_ptr<CloudStandIn> m_service;
    QTemporaryDir m_work;
    QString m_input;
    QString m_completed;  // a job whose result is ready
};

void tst_CloudPipeline::initTestCase()
{
    m_home = std::make_unique<IsolatedHome>();
    m_service = std::make_unique<CloudStandIn>(QStringList{"--polls", "0"});
    // The uploads below run on this thread.
    HttpClientFactory::shieldThreadFromPipeSignal();
    QVERIFY(m_service->isReady());
    m_input = m_work.filePath("input.mov");
    QVERIFY(writeFile(m_input, QByteArray(5000, 'k')));
    const auto job = pipeline({});
    QVERIFY(job->create() && job->accept());
    job->upload();
    std::string status;
    job->getStatus(status);
    QCOMPARE(status, std::string("download"));
    m_completed = QString::fromStdString(job->getRequestId());
}

void tst_CloudPipeline::init()
{
    QVERIFY(m_service->reset());
}

std::unique_ptr<CloudPipeline> tst_CloudPipeline::pipeline(const QString &requestId, const QVariantMap &data)
{
    return std::make_unique<CloudPipeline>(7, requestId, m_input, m_service->token(), data, m_work.filePath("out.bin"), "",
                                           "1.0", false, nullptr);
}

void tst_CloudPipeline::readChunkSplitsInSigned64Bit_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("start");
    QTest::addColumn<int>("length");  // 0: empty, the failure logged
    QTest::newRow("10 in 4, last") << 10 << 4 << 3 << 9 << 1;
    QTest::newRow("10 in 7, fifth") << 10 << 7 << 4 << 8 << 2;
    QTest::newRow("10 in 7, sixth starts at the end") << 10 << 7 << 5 << 0 << 0;
    QTest::newRow("10 in 7, last is -2") << 10 << 7 << 6 << 0 << 0;
    QTest::newRow("no chunks") << 10 << 0 << 0 << 0 << 0;
    QTest::newRow("index past the end") << 10 << 4 << 4 << 0 << 0;
    QTest::newRow("empty file") << 0 << 4 << 0 << 0 << 0;
}

void tst_CloudPipeline::readChunkSplitsInSigned64Bit()
{
    QFETCH(int, size);
    QFETCH(int, count);
    QFETCH(int, index);
    QFETCH(int, start);
    QFETCH(int, length);
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char('a' + i);
    const QString path = m_work.filePath("split.bin");
    QVERIFY(writeFile(path, bytes));
    std::string chunk = "stale";
    CloudPipeline::readChunk(path, index, count, chunk);
    QCOMPARE(QByteArray::fromStdString(chunk), bytes.mid(start, length));
}

void tst_CloudPipeline::chunkResultsAreRestored_data()
{
    QTest::addColumn<QString>("record");
    QTest::addColumn<QStringList>("parts");
    QTest::addColumn<QString>("logged");
    QTest::newRow("quoted value") << R"({"3": "\"abc\""})" << QStringList{"3=abc"} << QString();
    QTest::newRow("in the object's order") << R"({"1": "a", "2": "\"b\""})" << QStringList{"1=a", "2=b"} << QString();
    QTest::newRow("key not a number") << R"({"1": "a", "x": "b"})" << QStringList() << "invalid stoi argument";
    QTest::newRow("key out of range") << R"({"99999999999": "a"})" << QStringList() << "stoi argument out of range";
    QTest::newRow("not JSON") << "{" << QStringList() << "JSON parsing error: ";
}

void tst_CloudPipeline::chunkResultsAreRestored()
{
    QFETCH(QString, record);
    QFETCH(QStringList, parts);
    QFETCH(QString, logged);
    StdoutCapture capture;
    const CloudPipeline job(1, "r", m_input, "t", {}, "o", record, "1", false, nullptr);
    QStringList found;
    for (const CloudPipeline::Part &part : job.getParts())
        found << QString::number(part.partNum) + "=" + QString::fromStdString(part.eTag);
    QCOMPARE(found, parts);
    QVERIFY(capture.text().contains(logged));
}

void tst_CloudPipeline::sixFailedPollsRaiseAClientErrorAndEachLaterOneAgain()
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

void tst_CloudPipeline::waitingForSourceVideoAcceptsInsteadOfReporting()
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

void tst_CloudPipeline::historyNamesTheFiltersOfActiveJobs()
{
    const auto shown = pipeline({}, jobData(R"([{"model":"a"},{"model":"thm-2"},{"fps":60},{"model":"b"},{"model":"c"}])"));
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

void tst_CloudPipeline::developerModeSwitchesOnlySomeCalls_data()
{
    QTest::addColumn<QByteArray>("mode");
    QTest::addColumn<QStringList>("servers");  // estimate, trials, balance, product, as "server key"
    const QString production = m_service->ready["apiKeyProduction"].toString();
    const QString staging = m_service->ready["apiKeyStaging"].toString();
    QTest::newRow("1") << QByteArray("1")
                       << QStringList{"videoStaging ", "videoStaging ", "accountStaging " + staging, "account " + production};
    for (const char *off : {"true", "01"})
        QTest::newRow(off) << QByteArray(off)
                           << QStringList{"video ", "video ", "account " + production, "account " + production};
}

void tst_CloudPipeline::developerModeSwitchesOnlySomeCalls()
{
    QFETCH(QByteArray, mode);
    QFETCH(QStringList, servers);
    qputenv("KVID_DEVELOPER_MODE", mode);
    CloudAPI api;
    api.setAuth(m_service->token(), false);
    QSignalSpy account(&api, &CloudAPI::accountDataAvailable);
    QSignalSpy price(&api, &CloudAPI::productPriceAvailable);
    QCOMPARE(api.getEstimates(m_service->token(), m_input, jobData()), (std::vector<int>{1, 60}));
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

void tst_CloudPipeline::everyCallReportsEveryFault_data()
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

void tst_CloudPipeline::everyCallReportsEveryFault()
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
    SignalLog pipelineSignals(job.get());
    SignalLog apiSignals(&api);
    auto capture = std::make_unique<StdoutCapture>();
    QString returned;
    std::string word;
    const QHash<QString, std::function<void()>> act{
        {"create", [&] { job->create(); }},
        {"estimate", [&] { api.getEstimates(m_service->token(), m_input, jobData()); }},
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
}

QTEST_GUILESS_MAIN(tst_CloudPipeline)
#include "tst_CloudPipeline.moc"
