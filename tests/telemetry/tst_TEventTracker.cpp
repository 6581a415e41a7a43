// TNetwork, TEventTracker and AmplitudeApi against loopback servers: the
// collector over HTTP, the analytics services over HTTPS with a throwaway CA.
#include "TelemetryTestSupport.h"

#include "plugin/DeveloperMode.h"
#include "telemetry/AmplitudeApi.h"
#include "telemetry/TEventTracker.h"
#include "telemetry/TNetwork.h"

#include <QtTest>

using namespace Qt::StringLiterals;

class EventTrackerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void trackPostsOneEvent_data();
    void trackPostsOneEvent();
    void trackSendsNothingWithoutKeyOrConsent();
    void emptyCollectorAddressFailsAtOnce();
    void twoNetworksEachSeeOnlyTheirReplies();
    void errorBodyIsCutInTheLog();
    void getFeaturesSetsTheFlagsBeforeItReturns();
    void repairUserIdentity_data();
    void repairUserIdentity();
    void tricklingServerEndsWithinTheBound();
    void nestedCallsBothComplete();
    void destroyedWhileWaitingReturnsFailure();

private:
    QTemporaryDir dir;
    testca::Files ca;
    std::unique_ptr<LoopbackServer> collector, amplitude;
    QJsonObject config;
    std::string identifyAnswer;
};

void EventTrackerTest::initTestCase()
{
    ca = testca::makeThrowawayCa(dir.path().toStdString());
    collector = std::make_unique<LoopbackServer>();
    amplitude = std::make_unique<LoopbackServer>(&ca);
    collector->on("POST", "/v1/t", answer("{}"));
    collector->on("GET", "/error", answer(std::string(5 << 20, 'x'), 500, "text/plain"));
    amplitude->on("GET", "/v1/vardata", [](const httplib::Request &request, httplib::Response &response) {
        const bool fail = request.get_param_value("device_id") == "fail";
        answer(fail ? "not json" : R"({"flag":{"key":"on"}})")(request, response);
    });
    amplitude->on("GET", "/v1/userprofile", [this](const httplib::Request &request, httplib::Response &response) {
        const std::string device = request.get_param_value("device_id");
        if (device == "trickle") {
            response.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink &sink) {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                return sink.write(" ", 1);
            });
            return;
        }
        if (device == "held")
            amplitude->hold();
        answer(R"({"userData":{"amp_props":{"gp:id":"\"abc\""}}})")(request, response);
    });
    amplitude->on("POST", "/identify", [this](const httplib::Request &request, httplib::Response &response) {
        if (request.get_param_value("api_key") == "nested")
            amplitude->release();
        answer(identifyAnswer, 200, "text/plain")(request, response);
    });
    config = QJsonObject{
        {"eventCollectorUrl", collector->base() + "/v1/t"},
        {"segmentWriteKeyProduction", "cHJvZDo="},
        {"segmentWriteKeyDevelopment", "ZGV2Og=="},
        {"amplitudeVardataUrl", amplitude->base()},
        {"amplitudeProfileUrl", amplitude->base()},
        {"amplitudeIdentifyUrl", amplitude->base()},
        {"amplitudeProjectKey", "project+key"},
        {"amplitudeSecret", "secret"},
        {"caBundle", qs(ca.caCert)},
        {"transferTimeoutMs", 2500},
    };
    useConfiguration(dir.path(), config);
}

void EventTrackerTest::cleanup()
{
    collector->clear();
    amplitude->clear();
    useConfiguration(dir.path(), config);
}

void EventTrackerTest::trackPostsOneEvent_data()
{
    QTest::addColumn<QString>("identifier");
    QTest::addColumn<QVariantMap>("params");
    QTest::newRow("ascii") << u"export"_s << QVariantMap{{u"codec"_s, u"prores"_s}, {u"frames"_s, 240}};
    QTest::newRow("non-ascii, body longer in bytes") << u"Grüße"_s << QVariantMap{{u"title"_s, u"Ärger"_s}};
    QTest::newRow("no params") << u"start"_s << QVariantMap();
}

void EventTrackerTest::trackPostsOneEvent()
{
    QFETCH(QString, identifier);
    QFETCH(QVariantMap, params);
    TEventTracker tracker;
    QSignalSpy enabledChanged(&tracker, &TEventTracker::enabledChanged);
    tracker.setProperty("enabled", true);
    tracker.setProperty("enabled", true);
    QCOMPARE(enabledChanged.count(), 1);
    tracker.setProperty("uniqueId", u"anon-1"_s);
    QSignalSpy finished(&tracker, &TEventTracker::requestFinished);
    const QString id = params.isEmpty() ? tracker.track(identifier) : tracker.track(identifier, params);
    QVERIFY(!id.isEmpty());
    QVERIFY(finished.wait());
    QCOMPARE(finished.first().first().toString(), id);

    const auto requests = collector->requests();
    QCOMPARE(requests.size(), size_t(1));
    const httplib::Request &request = requests.front();
    // The production credential, in developer mode too.
    QCOMPARE(qs(request.get_header_value("Authorization")), QStringLiteral("Basic cHJvZDo="));
    QCOMPARE(qs(request.get_header_value("Content-Type")), QStringLiteral("application/json"));
    const QJsonObject event = QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
    QCOMPARE(event.value("anonymousId").toString(), u"anon-1"_s);
    QCOMPARE(event.value("event").toString(), identifier);
    QCOMPARE(event.value("properties").toObject().toVariantMap(), params);
    const QString timestamp = event.value("timestamp").toString();
    QVERIFY2(QRegularExpression(u"^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$"_s).match(timestamp).hasMatch(),
             qPrintable(timestamp));
    const QDateTime sent = QDateTime::fromString(timestamp, Qt::ISODateWithMs);
    QVERIFY(qAbs(sent.secsTo(QDateTime::currentDateTimeUtc())) < 600);
}

void EventTrackerTest::trackSendsNothingWithoutKeyOrConsent()
{
    TEventTracker disabled;
    QCOMPARE(disabled.track(u"export"_s), QString());
    QJsonObject keyless = config;
    keyless.remove(kutils::isDeveloperMode() ? "segmentWriteKeyDevelopment" : "segmentWriteKeyProduction");
    useConfiguration(dir.path(), keyless);
    TEventTracker noKey;
    noKey.setEnabled(true);
    QTest::ignoreMessage(QtInfoMsg, "Segment API key missing. Not sending event:  export");
    QCOMPARE(noKey.track(u"export"_s), QString());
    QCoreApplication::processEvents();
    QVERIFY(collector->requests().empty());
}

void EventTrackerTest::emptyCollectorAddressFailsAtOnce()
{
    QJsonObject noCollector = config;
    noCollector.remove("eventCollectorUrl");
    useConfiguration(dir.path(), noCollector);
    TEventTracker tracker;
    tracker.setEnabled(true);
    QSignalSpy finished(&tracker, &TEventTracker::requestFinished);
    LogCapture log;
    QVERIFY(!tracker.track(u"export"_s).isEmpty());
    QVERIFY(finished.wait());
    QVERIFY(log.lines.join('\n').contains(u"Network error. Status Code:"_s));
}

void EventTrackerTest::twoNetworksEachSeeOnlyTheirReplies()
{
    TNetwork first, second;
    QSignalSpy firstSpy(&first, &TNetwork::replyRecieved), secondSpy(&second, &TNetwork::replyRecieved);
    const QString firstId = first.get(QUrl(amplitude->base() + "/v1/vardata"), {}, {});
    const QString secondId = second.post(QUrl(collector->base() + "/v1/t"), u"{}"_s, {}, true);
    QTRY_VERIFY(firstSpy.count() == 1 && secondSpy.count() == 1);
    QCOMPARE(firstSpy.first().first().toString(), firstId);
    QCOMPARE(secondSpy.first().first().toString(), secondId);
    QCOMPARE(qs(collector->requests().front().get_header_value("Content-Type")), u"application/json"_s);
    for (const auto *spy : {&firstSpy, &secondSpy})
        spy->first().last().value<QNetworkReply *>()->deleteLater();
    QVERIFY(!first.request(firstId));
}

void EventTrackerTest::errorBodyIsCutInTheLog()
{
    TNetwork network;
    QSignalSpy replies(&network, &TNetwork::replyRecieved);
    LogCapture log;
    network.get(QUrl(collector->base() + "/error"), {}, {});
    QVERIFY(replies.wait());
    auto *reply = replies.first().last().value<QNetworkReply *>();
    QVERIFY(reply->readAll().isEmpty()); // the log consumed it
    reply->deleteLater();
    QCOMPARE(log.lines.size(), 1);
    QVERIFY(log.lines.first().startsWith(u"Network error. Status Code: 500"_s));
    QVERIFY(log.lines.first().size() > 4194304 && log.lines.first().size() < 4194304 + 500);
}

void EventTrackerTest::getFeaturesSetsTheFlagsBeforeItReturns()
{
    TEventTracker tracker;
    QSignalSpy changed(&tracker, &TEventTracker::featuresChanged);
    QMetaObject::invokeMethod(&tracker, "getFeatures", Q_ARG(QString, u"machine+1"_s));
    QCOMPARE(tracker.property("features").toMap().value(u"flag"_s).toMap().value(u"key"_s), u"on"_s);
    const httplib::Request request = amplitude->requests().front();
    QCOMPARE(qs(request.get_param_value("device_id")), QStringLiteral("machine+1"));
    QCOMPARE(qs(request.get_header_value("Authorization")), QStringLiteral("Api-Key project+key"));
    // A failed fetch clears the flags.
    emit tracker.getFeatures(u"fail"_s);
    QVERIFY(tracker.property("features").toMap().isEmpty());
    QCOMPARE(changed.count(), 2);
}

void EventTrackerTest::repairUserIdentity_data()
{
    QTest::addColumn<QString>("machineId");
    QTest::addColumn<QString>("email");
    QTest::addColumn<QString>("uniqueId");
    QTest::addColumn<QString>("identifyAnswer");
    QTest::addColumn<bool>("expected");
    QTest::addColumn<int>("requests");
    QTest::newRow("repaired") << u"m1"_s << u"a+b@x.io"_s << u"dev+1 é"_s << u"success"_s << true << 2;
    QTest::newRow("only exact success") << u"m1"_s << u"a@x.io"_s << u"dev"_s << u"success\n"_s << false << 2;
    QTest::newRow("nothing to repair") << u"m1"_s << u"a@x.io"_s << u"m1"_s << u"success"_s << true << 0;
    QTest::newRow("no unique id") << u"m1"_s << u"a@x.io"_s << QString() << u"success"_s << true << 0;
    QTest::newRow("no e-mail") << u"m1"_s << QString() << u"dev"_s << u"success"_s << false << 0;
    QTest::newRow("no machine") << QString() << u"a@x.io"_s << u"dev"_s << u"success"_s << false << 0;
}

void EventTrackerTest::repairUserIdentity()
{
    QFETCH(QString, machineId);
    QFETCH(QString, email);
    QFETCH(QString, uniqueId);
    QFETCH(QString, identifyAnswer);
    QFETCH(bool, expected);
    QFETCH(int, requests);
    this->identifyAnswer = identifyAnswer.toStdString();
    AmplitudeApi api;
    QCOMPARE(api.repairUserIdentity(machineId, email, uniqueId), expected);
    const auto sent = amplitude->requests();
    QCOMPARE(int(sent.size()), requests);
    if (!requests)
        return;
    QCOMPARE(qs(sent[0].path), u"/v1/userprofile"_s);
    QCOMPARE(qs(sent[0].get_param_value("get_amp_props")), QStringLiteral("true"));
    // In developer mode the project key stands in for the secret.
    QCOMPARE(qs(sent[0].get_header_value("Authorization")),
             kutils::isDeveloperMode() ? u"Api-Key project+key"_s : u"Api-Key secret"_s);
    QCOMPARE(qs(sent[1].get_header_value("Content-Type")), QStringLiteral("application/x-www-form-urlencoded"));
    QCOMPARE(qs(sent[1].get_param_value("api_key")), QStringLiteral("project+key"));
    const QJsonObject identification =
        QJsonDocument::fromJson(QByteArray::fromStdString(sent[1].get_param_value("identification"))).object();
    QCOMPARE(identification, (QJsonObject{{"user_id", "abc"}, {"device_id", uniqueId}}));
}

void EventTrackerTest::tricklingServerEndsWithinTheBound()
{
    AmplitudeApi api;
    QCOMPARE(api.getUserProfile(u"trickle"_s), QVariantMap());
}

void EventTrackerTest::nestedCallsBothComplete()
{
    QJsonObject nested = config;
    nested["amplitudeProjectKey"] = "nested";
    useConfiguration(dir.path(), nested);
    identifyAnswer = "success";
    AmplitudeApi api;
    bool inner = false;
    // The outer answer is held until the inner call has reached the server.
    QTimer::singleShot(0, &api, [&] { inner = api.identify(u"user"_s, u"device"_s); });
    QVERIFY(!api.getUserProfile(u"held"_s).isEmpty());
    QVERIFY(inner);
}

void EventTrackerTest::destroyedWhileWaitingReturnsFailure()
{
    auto *api = new AmplitudeApi;
    QTimer::singleShot(0, [api] { delete api; });
    QCOMPARE(api->getUserProfile(u"held"_s), QVariantMap());
}

QTEST_GUILESS_MAIN(EventTrackerTest)
#include "tst_TEventTracker.moc"
