// TNetwork, TEventTracker and AmplitudeApi against loopback servers: the
// collector over HTTP, the analytics services over HTTPS with a throwaway CA.
#include "TelemetryTestSupport.h"

#include "plugin/DeveloperMode.h"
#include "telemetry/AmplitudeApi.h"
#include "telemetry/TEventTracker.h"
#include "telemetry/TNetwork.h"

#include <QtTest>

using namespace Qt::StringLiterals;

// The profile's user id is itself JSON text.
static const char profile[] = "{\"userData\":{\"amp_props\":{\"gp:id\":\"\\\"abc\\\"\"}}}";

class EventTrackerTest : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    testca::Files ca;
    std::unique_ptr<LoopbackServer> collector, amplitude;
    QJsonObject config;
    std::string identifyAnswer;

private slots:
    void initTestCase()
    {
        ca = testca::makeThrowawayCa(dir.path().toStdString());
        collector = std::make_unique<LoopbackServer>();
        amplitude = std::make_unique<LoopbackServer>(&ca);
        collector->on("POST", "/v1/t", answer("{}"));
        amplitude->on("GET", "/v1/vardata", [](const httplib::Request &request, httplib::Response &response) {
            const bool fail = request.get_param_value("device_id") == "fail";
            answer(fail ? "not json" : R"({"flag":{"key":"on"}})")(request, response);
        });
        amplitude->on("GET", "/v1/userprofile", [this](const httplib::Request &request, httplib::Response &response) {
            const std::string device = request.get_param_value("device_id");
            if (device == "trickle")
                return response.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink &sink) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(200));
                    return sink.write(" ", 1);
                });
            if (device == "held")
                amplitude->hold();
            answer(profile)(request, response);
        });
        amplitude->on("POST", "/identify", [this](const httplib::Request &request, httplib::Response &response) {
            if (request.get_param_value("api_key") == "nested")
                amplitude->release();
            answer(identifyAnswer, 200, "text/plain")(request, response);
        });
        config = QJsonObject{
            {"eventCollectorUrl", collector->base() + "/v1/t"}, {"segmentWriteKeyProduction", "cHJvZDo="},
            {"segmentWriteKeyDevelopment", "ZGV2Og=="},         {"amplitudeVardataUrl", amplitude->base()},
            {"amplitudeProfileUrl", amplitude->base()},         {"amplitudeIdentifyUrl", amplitude->base()},
            {"amplitudeProjectKey", "project+key"},             {"amplitudeSecret", "secret"},
            {"caBundle", qs(ca.caCert)},                        {"transferTimeoutMs", 2500},
        };
        useConfiguration(dir.path(), config);
    }

    void cleanup()
    {
        collector->clear();
        amplitude->clear();
        useConfiguration(dir.path(), config);
    }

    void trackPostsOneEvent_data()
    {
        QTest::addColumn<QString>("identifier");
        QTest::addColumn<QVariantMap>("params");
        QTest::newRow("non-ascii, longer in bytes") << u"Grüße"_s << QVariantMap{{u"title"_s, u"Ärger"_s}};
        QTest::newRow("no params") << u"start"_s << QVariantMap();
    }

    void trackPostsOneEvent()
    {
        QFETCH(QString, identifier);
        QFETCH(QVariantMap, params);
        TEventTracker tracker;
        tracker.setProperty("enabled", true);
        tracker.setProperty("uniqueId", u"anon-1"_s);
        QSignalSpy finished(&tracker, &TEventTracker::requestFinished);
        const QString id = params.isEmpty() ? tracker.track(identifier) : tracker.track(identifier, params);
        QVERIFY(finished.wait());
        QCOMPARE(finished.first().first().toString(), id);
        const httplib::Request request = collector->requests().at(0);
        // The production credential, in developer mode too.
        QCOMPARE(qs(request.get_header_value("Authorization")), u"Basic cHJvZDo="_s);
        QCOMPARE(qs(request.get_header_value("Content-Type")), u"application/json"_s);
        const QJsonObject event = QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
        QCOMPARE(event.value("anonymousId").toString(), u"anon-1"_s);
        QCOMPARE(event.value("event").toString(), identifier);
        QCOMPARE(event.value("properties").toObject().toVariantMap(), params);
        QVERIFY(QRegularExpression(u"^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$"_s)
                    .match(event.value("timestamp").toString())
                    .hasMatch());
    }

    void trackSendsNothingWithoutKeyOrConsent()
    {
        QCOMPARE(TEventTracker().track(u"export"_s), QString());
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

    void emptyCollectorAddressFailsAtOnce()
    {
        QJsonObject unaddressed = config;
        unaddressed.remove("eventCollectorUrl");
        useConfiguration(dir.path(), unaddressed);
        TEventTracker tracker;
        tracker.setEnabled(true);
        QSignalSpy finished(&tracker, &TEventTracker::requestFinished);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^Network error. Status Code: 0 "_s));
        QVERIFY(!tracker.track(u"export"_s).isEmpty());
        QVERIFY(finished.wait());
    }

    void twoNetworksEachSeeOnlyTheirReplies()
    {
        TNetwork first, second;
        QSignalSpy firstSpy(&first, &TNetwork::replyRecieved), secondSpy(&second, &TNetwork::replyRecieved);
        const QString firstId = first.get(QUrl(amplitude->base() + "/v1/vardata"), {}, {});
        const QString secondId = second.post(QUrl(collector->base() + "/v1/t"), u"{}"_s, {}, true);
        QTRY_VERIFY(firstSpy.count() == 1 && secondSpy.count() == 1);
        QCOMPARE(firstSpy.first().first().toString(), firstId);
        QCOMPARE(secondSpy.first().first().toString(), secondId);
        for (const auto *spy : {&firstSpy, &secondSpy})
            spy->first().last().value<QNetworkReply *>()->deleteLater();
        QVERIFY(!first.request(firstId));
    }

    void getFeaturesSetsTheFlagsBeforeItReturns()
    {
        TEventTracker tracker;
        QSignalSpy changed(&tracker, &TEventTracker::featuresChanged);
        QMetaObject::invokeMethod(&tracker, "getFeatures", Q_ARG(QString, u"machine+1"_s));
        QCOMPARE(tracker.property("features").toMap().value(u"flag"_s).toMap().value(u"key"_s), u"on"_s);
        const httplib::Request request = amplitude->requests().at(0);
        QCOMPARE(qs(request.get_param_value("device_id")), u"machine+1"_s);
        QCOMPARE(qs(request.get_header_value("Authorization")), u"Api-Key project+key"_s);
        emit tracker.getFeatures(u"fail"_s); // a failed fetch clears the flags
        QVERIFY(tracker.property("features").toMap().isEmpty());
        QCOMPARE(changed.count(), 2);
    }

    void repairUserIdentity_data()
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
        QTest::newRow("no e-mail") << u"m1"_s << QString() << u"dev"_s << u"success"_s << false << 0;
        QTest::newRow("no machine") << QString() << u"a@x.io"_s << u"dev"_s << u"success"_s << false << 0;
    }

    void repairUserIdentity()
    {
        QFETCH(QString, machineId);
        QFETCH(QString, email);
        QFETCH(QString, uniqueId);
        QFETCH(QString, identifyAnswer);
        QFETCH(bool, expected);
        QFETCH(int, requests);
        this->identifyAnswer = identifyAnswer.toStdString();
        QCOMPARE(AmplitudeApi().repairUserIdentity(machineId, email, uniqueId), expected);
        const auto sent = amplitude->requests();
        QCOMPARE(int(sent.size()), requests);
        if (!requests)
            return;
        QCOMPARE(qs(sent[0].get_param_value("get_amp_props")), u"true"_s);
        // In developer mode the project key stands in for the secret.
        QCOMPARE(qs(sent[0].get_header_value("Authorization")),
                 kutils::isDeveloperMode() ? u"Api-Key project+key"_s : u"Api-Key secret"_s);
        QCOMPARE(qs(sent[1].get_header_value("Content-Type")), u"application/x-www-form-urlencoded"_s);
        QCOMPARE(qs(sent[1].get_param_value("api_key")), u"project+key"_s);
        const QByteArray identification = QByteArray::fromStdString(sent[1].get_param_value("identification"));
        QCOMPARE(QJsonDocument::fromJson(identification).object(),
                 (QJsonObject{{"user_id", "abc"}, {"device_id", uniqueId}}));
    }

    void tricklingServerEndsWithinTheBound() { QCOMPARE(AmplitudeApi().getUserProfile(u"trickle"_s), QVariantMap()); }

    void nestedCallsBothComplete()
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

    void destroyedWhileWaitingReturnsFailure()
    {
        auto *api = new AmplitudeApi;
        QTimer::singleShot(0, [api] { delete api; });
        QCOMPARE(api->getUserProfile(u"held"_s), QVariantMap());
    }
};

QTEST_GUILESS_MAIN(EventTrackerTest)
#include "tst_TEventTracker.moc"
