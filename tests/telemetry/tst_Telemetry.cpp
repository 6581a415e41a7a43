// The telemetry classes against loopback servers with a throwaway CA: TNetwork,
// TEventTracker and AmplitudeApi (the collector over HTTP, the analytics
// services over HTTPS), and TUpdateChecker: the check's request and the parse of
// its answer, the streamed installer download, and the start of the installer
// through a stand-in desktop.
#include "TelemetryTestSupport.h"

#include "plugin/DeveloperMode.h"
#include "telemetry/AmplitudeApi.h"
#include "telemetry/TEventTracker.h"
#include "telemetry/TNetwork.h"
#include "telemetry/TUpdateChecker.h"

#include <QtTest>

using namespace Qt::StringLiterals;

namespace {
using Request = httplib::Request;
using Response = httplib::Response;
const std::string installerBody(3 << 20, 'i');
const char noVersions[] = R"({"app_update":{"app_update_status":"","app_update_versions":[]}})";
const char oneVersion[] = R"({"app_update":{"app_update_status":"","app_update_versions":[{}]}})";
// The profile's user id is itself JSON text.
const char profile[] = "{\"userData\":{\"amp_props\":{\"gp:id\":\"\\\"abc\\\"\"}}}";
} // namespace

class TelemetryTest : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    testca::Files ca;
    std::unique_ptr<LoopbackServer> service, collector, amplitude;
    QJsonObject config;
    std::string checkBody;
    int checkStatus = 200;
    bool holdFirstCheck = false;
    std::atomic<int> checks = 0;
    QStringList names; // the checker's signals in the order they came
    std::string identifyAnswer;

    QString path(const QString &name) const { return dir.filePath(name); }
    void record(TUpdateChecker &checker)
    {
        const QMetaObject &meta = TUpdateChecker::staticMetaObject;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
            if (const QMetaMethod signal = meta.method(i); signal.methodType() == QMetaMethod::Signal
                                                            && signal.name() != "updateDownloadProgressChanged")
                connect(&checker, signal, this, metaObject()->method(metaObject()->indexOfMethod("note()")));
    }
    bool settled() const
    {
        static const QStringList last{u"checkFailed"_s, u"updateAvailable"_s, u"noUpdateAvailable"_s};
        return !names.isEmpty() && last.contains(names.last());
    }

public slots:
    void note() { names << QString::fromLatin1(sender()->metaObject()->method(senderSignalIndex()).name()); }

private slots:
    void initTestCase()
    {
        ca = testca::makeThrowawayCa(dir.path().toStdString());
        service = std::make_unique<LoopbackServer>(&ca);
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
        service->on("GET", "/v2/app_state/unauthed", [this](const Request &request, Response &response) {
            if (++checks == 1 && holdFirstCheck) {
                service->hold();
                return answer(oneVersion)(request, response);
            }
            service->release();
            answer(checkBody, checkStatus)(request, response);
        });
        service->on("GET", R"(/files/(.+))", [this](const Request &request, Response &response) {
            const std::string name = request.matches[1];
            if (name == "cut.msi") // promises more than it sends
                return response.set_content_provider(installerBody.size() * 2, "application/octet-stream",
                                                     [](size_t offset, size_t, httplib::DataSink &sink) {
                                                         return offset == 0
                                                             && sink.write(installerBody.data(), installerBody.size());
                                                     });
            const std::string script = "#!/bin/sh\necho started > '" + path("started").toStdString() + "'\n";
            const std::string &body = name.ends_with(".AppImage") ? script : installerBody;
            answer(body, 200, "application/octet-stream")(request, response);
        });
        QDir(dir.path()).mkpath(u"tmp"_s);
        QDir(dir.path()).mkpath(u"bin"_s);
        qputenv("TMPDIR", path(u"tmp"_s).toUtf8());
        // The desktop's opener, first in PATH, notes what it was asked to open.
        QFile opener(path(u"bin/xdg-open"_s));
        QVERIFY(opener.open(QIODevice::WriteOnly));
        opener.write(("#!/bin/sh\nprintf '%s' \"$1\" > '" + path(u"opened"_s) + "'\n").toUtf8());
        opener.close();
        opener.setPermissions(opener.permissions() | QFile::ExeOwner);
        qputenv("PATH", (path(u"bin"_s) + ':').toUtf8() + qgetenv("PATH"));
        config = QJsonObject{{"appStateProduction", service->base()}, {"appStateStaging", service->base("localhost")},
                             {"appStateApiKey", "state-key"},         {"emailMacSalt", "salt"},
                             {"caBundle", qs(ca.caCert)},             {"transferTimeoutMs", 2500},
                             {"eventCollectorUrl", collector->base() + "/v1/t"},
                             {"segmentWriteKeyProduction", "cHJvZDo="},
                             {"segmentWriteKeyDevelopment", "ZGV2Og=="},
                             {"amplitudeVardataUrl", amplitude->base()},
                             {"amplitudeProfileUrl", amplitude->base()},
                             {"amplitudeIdentifyUrl", amplitude->base()},
                             {"amplitudeProjectKey", "project+key"},
                             {"amplitudeSecret", "secret"}};
        useConfiguration(dir.path(), config);
    }

    void cleanup()
    {
        service->clear();
        collector->clear();
        amplitude->clear();
        checks = 0;
        holdFirstCheck = false;
        checkStatus = 200;
        names.clear();
        useConfiguration(dir.path(), config);
    }

    void checkSendsTheDesignedRequest_data()
    {
        QTest::addColumn<QString>("email");
        QTest::addColumn<bool>("flipMode"); // after construction: the address follows, the key does not
        QTest::newRow("plus sign, non-ascii") << u"jü+b@exämple.com"_s << false;
        QTest::newRow("empty, still with its MAC") << QString() << false;
        QTest::newRow("noemail, mode flipped") << u"noemail"_s << true;
    }

    void checkSendsTheDesignedRequest()
    {
        QFETCH(QString, email);
        QFETCH(bool, flipMode);
        checkBody = "{}";
        TUpdateChecker checker;
        record(checker);
        const QDateTime expiry(QDate(2027, 3, 1), QTime(12, 0), Qt::UTC);
        checker.setProperty("userEmail", email);
        checker.setProperty("licenseExpirationDate", expiry);
        const bool staging = kutils::developerModeInEnvironment();
        if (flipMode)
            qputenv("KVID_DEVELOPER_MODE", staging ? "0" : "1");
        checker.checkForUpdates(true);
        qputenv("KVID_DEVELOPER_MODE", staging ? "1" : "0");
        QTRY_VERIFY(settled());
        const Request request = service->requests().at(0);
        QCOMPARE(qs(request.get_header_value("Host")).section(':', 0, 0),
                 staging != flipMode ? u"localhost"_s : u"127.0.0.1"_s);
        QCOMPARE(qs(request.get_header_value("x-api-key")), staging ? u"staging-state-key"_s : u"state-key"_s);
        QVariantMap expected{
            {"app_cname", "VIDEO"}, {"app_version", QCoreApplication::applicationVersion()},
            {"app_build_type", "RELEASE"}, {"os_version", QSysInfo::productVersion()},
            {"arch", QSysInfo::currentCpuArchitecture()}, {"cpu_supports_avx", "true"},
            {"license_expiration_datetime", QVariant(expiry).toString()}, {"os_type", "linux"},
            {"supports_patch", "true"},
        };
        if (email != u"noemail"_s) {
            expected.insert(u"user_email"_s, email);
            const QByteArray mac = QMessageAuthenticationCode::hash(email.toUtf8(), "salt", QCryptographicHash::Sha256);
            expected.insert(u"email_mac"_s, QString::fromLatin1(mac.toHex()));
        }
        QVariantMap sent;
        for (const auto &[key, value] : request.params)
            sent.insert(qs(key), qs(value));
        QCOMPARE(sent, expected);
    }

    void answersAreParsedInOrder_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status"); // 0: no address configured
        QTest::addColumn<QString>("failure");
        QTest::addColumn<QStringList>("versions");
        QTest::addColumn<QStringList>("signalNames");
        const QStringList none{u"updateVersionsChanged"_s, u"noUpdateAvailable"_s};
        const auto row = [&](const char *name, const char *body, const char *failure) {
            QTest::newRow(name) << QByteArray(body) << 200 << QString::fromUtf8(failure) << QStringList() << none;
        };
        row("empty", "", "JSON document is empty");
        row("no app_update", R"({"x":1})", "JSON document is missing `app_update`");
        row("status not string", R"({"app_update":{"app_update_status":1}})",
            "`app_update.app_update_status` is not string");
        row("versions not array", R"({"app_update":{"app_update_status":"","app_update_versions":{}}})",
            "`app_update.app_update_versions` is not string");
        row("no versions offered", noVersions, "");
        const QByteArray offer(R"({"app_update":{"app_update_status":"ok","last_owned_compatible":{"app_version":"1.5"},
                "app_update_versions":[{"app_version":"2.0","is_owned":false},7,
                {"app_version":"1.9","is_compatible":false,"incompatibility_message":"too old"},
                {"app_version":"1.8","is_compatible":true}]}})");
        QTest::newRow("service order, incompatible left out")
            << offer << 200 << QString() << QStringList{u"2.0"_s, u"1.8"_s}
            << QStringList{u"isUpdateAvailableChanged"_s, u"latestOwnedUpdateChanged"_s, u"updateVersionsChanged"_s,
                           u"updateAvailable"_s};
        QTest::newRow("server error") << offer << 500 << QString() << QStringList() << QStringList{u"checkFailed"_s};
        QTest::newRow("no address") << offer << 0 << QString() << QStringList() << QStringList{u"checkFailed"_s};
    }

    void answersAreParsedInOrder()
    {
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, failure);
        QFETCH(QStringList, versions);
        QFETCH(QStringList, signalNames);
        checkBody = body.toStdString();
        checkStatus = status;
        if (!status)
            useConfiguration(dir.path(), QJsonObject{{"caBundle", qs(ca.caCert)}});
        if (!failure.isEmpty())
            QTest::ignoreMessage(QtCriticalMsg, qPrintable(failure));
        TUpdateChecker checker;
        record(checker);
        QSignalSpy available(&checker, &TUpdateChecker::updateAvailable);
        checker.checkForUpdates(true);
        QVERIFY(names.isEmpty()); // queued, also without a request
        QTRY_VERIFY(settled());
        QCOMPARE(names, signalNames);
        QCOMPARE(int(service->requests().size()), status ? 1 : 0);
        QStringList offered;
        for (const QVariantMap &version : checker.getUpdateVersions())
            offered << version.value(u"app_version"_s).toString();
        QCOMPARE(offered, versions);
        if (!versions.isEmpty()) {
            QCOMPARE(checker.getLatestOwnedUpdate().value(u"app_version"_s), u"1.5"_s);
            QCOMPARE(available.first().first().toBool(), true);
        }
    }

    void olderCheckAnswerIsIgnored()
    {
        holdFirstCheck = true; // the first check is answered after the second
        checkBody = noVersions;
        TUpdateChecker checker;
        record(checker);
        QSignalSpy replies(checker.findChild<TNetwork *>(), &TNetwork::replyRecieved);
        checker.checkForUpdates(true);
        QTRY_COMPARE(checks.load(), 1);
        checker.checkForUpdates(false);
        QTRY_COMPARE(replies.count(), 2);
        QCOMPARE(names, (QStringList{u"updateVersionsChanged"_s, u"noUpdateAvailable"_s}));
    }

    void startUpdate_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<int>("signalCount");
        QTest::addColumn<QString>("marker"); // what running the installer leaves
        const QString files = service->base() + u"/files/"_s;
        QTest::newRow("complete, opens on the desktop") << files + u"setup%20v2.msi"_s << u"setup v2.msi"_s << true << 1
                                                        << u"opened"_s;
        QTest::newRow("AppImage runs by itself") << files + u"setup.AppImage"_s << u"setup.AppImage"_s << true << 1
                                                 << u"started"_s;
        QTest::newRow("cut short") << files + u"cut.msi"_s << u"cut.msi"_s << false << 1 << QString();
        QTest::newRow("no file name") << files << QString() << false << 0 << QString();
        QTest::newRow("not http") << u"ftp://127.0.0.1/setup.msi"_s << QString() << false << 0 << QString();
    }

    void startUpdate()
    {
        QFETCH(QString, url);
        QFETCH(QString, fileName);
        QFETCH(bool, installed);
        QFETCH(int, signalCount);
        QFETCH(QString, marker);
        // An older installer of that name must go either way.
        const QString installer = path(u"tmp/"_s + fileName);
        QFile old(installer);
        if (!fileName.isEmpty() && old.open(QIODevice::WriteOnly))
            old.write("old"), old.close();
        TUpdateChecker checker;
        record(checker);
        QSignalSpy progress(&checker, &TUpdateChecker::updateDownloadProgressChanged);
        checker.startUpdate({{u"inapp_installer_url"_s, url}});
        if (signalCount)
            QTRY_COMPARE(names.size(), signalCount);
        QCOMPARE(int(service->requests().size()), signalCount);
        QCOMPARE(names, QStringList(signalCount, u"updateDownloadFinished"_s));
        if (!signalCount)
            return;
        QVERIFY(!QFile::exists(installer + u".part"_s));
        QCOMPARE(checker.getInstallerPath(), installer);
        QCOMPARE(QFile::exists(installer), installed);
        if (marker.isEmpty())
            return;
        if (marker == u"opened"_s) { // the service's 3 MiB installer
            QCOMPARE(QFileInfo(installer).size(), qint64(installerBody.size()));
            QCOMPARE(progress.last(), (QList<QVariant>{3, 3}));
        }
        QFile::remove(path(marker));
        checker.runInstaller();
        QCOMPARE(names.last(), u"closeApp"_s);
        QTRY_VERIFY(QFile::exists(path(marker)));
        QFile opened(path(u"opened"_s));
        if (marker == u"opened"_s && opened.open(QIODevice::ReadOnly))
            QCOMPARE(QUrl(QString::fromUtf8(opened.readAll())).toLocalFile(), checker.getInstallerPath());
    }

    void unwritableInstallerGivesNoSignal()
    {
        QVERIFY(QDir(path(u"tmp"_s)).mkpath(u"blocked.msi.part"_s)); // a folder where the partial file goes
        TUpdateChecker checker;
        record(checker);
        QSignalSpy replies(checker.findChild<TNetwork *>(), &TNetwork::replyRecieved);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"^Cannot open file to write:  .*blocked.msi.part$"_s));
        checker.startUpdate({{u"inapp_installer_url"_s, service->base() + u"/files/blocked.msi"_s}});
        QTRY_COMPARE(replies.count(), 1);
        QVERIFY(names.isEmpty());
    }

    void trackPostsOneEvent_data()
    {
        QTest::addColumn<QString>("identifier");
        QTest::addColumn<QVariantMap>("params");
        QTest::addColumn<QString>("withoutKey"); // the configuration key taken away, if any
        QTest::addColumn<bool>("enabled");
        QTest::newRow("non-ascii, longer in bytes") << u"Grüße"_s << QVariantMap{{u"title"_s, u"Ärger"_s}} << QString()
                                                    << true;
        QTest::newRow("no params") << u"start"_s << QVariantMap() << QString() << true;
        QTest::newRow("no consent") << u"export"_s << QVariantMap() << QString() << false;
        const QString writeKey = kutils::isDeveloperMode() ? u"segmentWriteKeyDevelopment"_s : u"segmentWriteKeyProduction"_s;
        QTest::newRow("no key") << u"export"_s << QVariantMap() << writeKey << true;
        QTest::newRow("no collector address: fails at once") << u"export"_s << QVariantMap() << u"eventCollectorUrl"_s << true;
    }

    void trackPostsOneEvent()
    {
        QFETCH(QString, identifier);
        QFETCH(QVariantMap, params);
        QFETCH(QString, withoutKey);
        QFETCH(bool, enabled);
        QJsonObject changed = config;
        changed.remove(withoutKey);
        useConfiguration(dir.path(), changed);
        TEventTracker tracker;
        tracker.setProperty("enabled", enabled);
        tracker.setProperty("uniqueId", u"anon-1"_s);
        QSignalSpy finished(&tracker, &TEventTracker::requestFinished);
        const bool sent = enabled && !withoutKey.startsWith(u"segment"_s);
        if (withoutKey.startsWith(u"segment"_s))
            QTest::ignoreMessage(QtInfoMsg, "Segment API key missing. Not sending event:  export");
        if (withoutKey == u"eventCollectorUrl"_s)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^Network error. Status Code: 0 "_s));
        const QString id = params.isEmpty() ? tracker.track(identifier) : tracker.track(identifier, params);
        if (!sent) {
            QVERIFY(id.isEmpty());
            QCoreApplication::processEvents();
            QVERIFY(collector->requests().empty());
            return;
        }
        QVERIFY(finished.wait());
        QCOMPARE(finished.first().first().toString(), id);
        if (withoutKey == u"eventCollectorUrl"_s)
            return;
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

QTEST_MAIN(TelemetryTest)
#include "tst_Telemetry.moc"
