// The telemetry classes against the services' stand-in process: TNetwork,
// TEventTracker and AmplitudeApi (the collector over HTTP, the analytics
// services over HTTPS), and TUpdateChecker: the check's request and the parse of
// its answer, the streamed installer download, and the start of the installer
// through a stand-in desktop.
#include "../support/StandInProcess.h"

#include "plugin/DeveloperMode.h"
#include "telemetry/AmplitudeApi.h"
#include "telemetry/TEventTracker.h"
#include "telemetry/TNetwork.h"
#include "telemetry/TUpdateChecker.h"

#include <QtTest>

using namespace Qt::StringLiterals;

namespace {
const char noVersions[] = R"({"app_update":{"app_update_status":"","app_update_versions":[]}})";
} // namespace

class TelemetryTest : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    std::unique_ptr<StandInProcess> standIn;
    QJsonObject config;
    QStringList names; // the checker's signals in the order they came

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
    // The stand-in's log of the given calls, oldest first.
    QList<QJsonObject> requests(const QStringList &calls)
    {
        QList<QJsonObject> found;
        for (const QJsonValue &entry : standIn->log())
            if (calls.contains(entry["call"].toString()))
                found << entry.toObject();
        return found;
    }

public slots:
    void note() { names << QString::fromLatin1(sender()->metaObject()->method(senderSignalIndex()).name()); }

private slots:
    void initTestCase()
    {
        standIn = std::make_unique<StandInProcess>(QStringLiteral(KUTILS_TELEMETRY_STANDIN),
                                                   QStringList{u"--dir"_s, dir.path(), u"--installer-mib"_s, u"3"_s});
        QVERIFY(standIn->isReady());
        QFile written(standIn->ready["config"].toString());
        QVERIFY(written.open(QIODevice::ReadOnly));
        config = QJsonDocument::fromJson(written.readAll()).object();
        // The collector over plain HTTP, the rest over HTTPS.
        config["eventCollectorUrl"] = standIn->ready["http"].toString() + u"/v1/track"_s;
        config["transferTimeoutMs"] = 2500;
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
        useConfiguration(dir.path(), config);
    }

    void cleanup()
    {
        QVERIFY(standIn->reset());
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
        const QJsonObject request = requests({u"check"_s}).at(0);
        QCOMPARE(request["headers"]["Host"].toString().section(':', 0, 0),
                 staging != flipMode ? u"localhost"_s : u"127.0.0.1"_s);
        const QString key = config["appStateApiKey"].toString();
        QCOMPARE(request["headers"]["x-api-key"].toString(), staging ? u"staging-"_s + key : key);
        QVariantMap expected{
            {"app_cname", "VIDEO"}, {"app_version", QCoreApplication::applicationVersion()},
            {"app_build_type", "RELEASE"}, {"os_version", QSysInfo::productVersion()},
            {"arch", QSysInfo::currentCpuArchitecture()}, {"cpu_supports_avx", "true"},
            {"license_expiration_datetime", QVariant(expiry).toString()}, {"os_type", "linux"},
            {"supports_patch", "true"},
        };
        if (email != u"noemail"_s) {
            expected.insert(u"user_email"_s, email);
            const QByteArray mac = QMessageAuthenticationCode::hash(email.toUtf8(), config["emailMacSalt"].toString().toUtf8(),
                                                                    QCryptographicHash::Sha256);
            expected.insert(u"email_mac"_s, QString::fromLatin1(mac.toHex()));
        }
        QCOMPARE(request["params"].toObject().toVariantMap(), expected);
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
        const QJsonObject answer{{"call", "check"}, {"kind", "status"}, {"status", status}, {"body", QString::fromUtf8(body)}};
        QVERIFY(standIn->fault(answer));
        if (!status)
            useConfiguration(dir.path(), QJsonObject{{"caBundle", config["caBundle"]}});
        if (!failure.isEmpty())
            QTest::ignoreMessage(QtCriticalMsg, qPrintable(failure));
        TUpdateChecker checker;
        record(checker);
        QSignalSpy available(&checker, &TUpdateChecker::updateAvailable);
        checker.checkForUpdates(true);
        QVERIFY(names.isEmpty()); // queued, also without a request
        QTRY_VERIFY(settled());
        QCOMPARE(names, signalNames);
        QCOMPARE(requests({u"check"_s}).size(), status ? 1 : 0);
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
        // The first check, held, offers an update; the second offers none.
        QVERIFY(standIn->fault(QJsonArray{QJsonObject{{"call", "check"}, {"kind", "hold"}, {"occurrence", 1}},
                                          QJsonObject{{"call", "check"}, {"kind", "status"}, {"status", 200},
                                                      {"body", noVersions}, {"occurrence", 2}}}));
        TUpdateChecker checker;
        record(checker);
        QSignalSpy replies(checker.findChild<TNetwork *>(), &TNetwork::replyRecieved);
        checker.checkForUpdates(true);
        QTRY_COMPARE(standIn->held(), 1);
        checker.checkForUpdates(false);
        QTRY_COMPARE(replies.count(), 1);
        QVERIFY(standIn->release());
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
        QTest::addColumn<QString>("fault");
        const QString files = standIn->ready["https"].toString() + u"/installers/"_s;
        QTest::newRow("complete, opens on the desktop") << files + u"setup%20v2.msi"_s << u"setup v2.msi"_s << true << 1
                                                        << u"opened"_s << QString();
        QTest::newRow("AppImage runs by itself") << files + u"setup.AppImage"_s << u"setup.AppImage"_s << true << 1
                                                 << u"tmp/setup.AppImage.started"_s << QString();
        QTest::newRow("cut short") << files + u"cut.msi"_s << u"cut.msi"_s << false << 1 << QString() << u"dropMidBody"_s;
        QTest::newRow("no file name") << files << QString() << false << 0 << QString() << QString();
        QTest::newRow("not http") << u"ftp://127.0.0.1/setup.msi"_s << QString() << false << 0 << QString() << QString();
    }

    void startUpdate()
    {
        QFETCH(QString, url);
        QFETCH(QString, fileName);
        QFETCH(bool, installed);
        QFETCH(int, signalCount);
        QFETCH(QString, marker);
        QFETCH(QString, fault);
        if (!fault.isEmpty())
            QVERIFY(standIn->fault(QJsonObject{{"call", "installer"}, {"kind", fault}}));
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
        QCOMPARE(requests({u"installer"_s}).size(), signalCount);
        QCOMPARE(names, QStringList(signalCount, u"updateDownloadFinished"_s));
        if (!signalCount)
            return;
        QVERIFY(!QFile::exists(installer + u".part"_s));
        QCOMPARE(checker.getInstallerPath(), installer);
        QCOMPARE(QFile::exists(installer), installed);
        if (marker.isEmpty())
            return;
        if (marker == u"opened"_s) { // the service's 3 MiB installer
            QCOMPARE(QFileInfo(installer).size(), qint64(3 << 20));
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
        checker.startUpdate({{u"inapp_installer_url"_s, standIn->ready["https"].toString() + u"/installers/blocked.msi"_s}});
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
            QVERIFY(requests({u"event"_s}).isEmpty());
            return;
        }
        QVERIFY(finished.wait());
        QCOMPARE(finished.first().first().toString(), id);
        if (withoutKey == u"eventCollectorUrl"_s)
            return;
        const QJsonObject request = requests({u"event"_s}).at(0);
        // The production credential, in developer mode too.
        QCOMPARE(request["headers"]["Authorization"].toString(), u"Basic "_s + config["segmentWriteKeyProduction"].toString());
        QCOMPARE(request["headers"]["Content-Type"].toString(), u"application/json"_s);
        const QJsonObject event = QJsonDocument::fromJson(request["body"].toString().toUtf8()).object();
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
        const QString firstId = first.get(QUrl(config["amplitudeVardataUrl"].toString() + u"/v1/vardata"_s), {}, {});
        const QString secondId = second.post(QUrl(config["eventCollectorUrl"].toString()), u"{}"_s, {}, true);
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
        QCOMPARE(tracker.property("features").toMap().value(u"new-export-panel"_s).toMap().value(u"key"_s), u"on"_s);
        const QJsonObject request = requests({u"flags"_s}).at(0);
        QCOMPARE(request["params"]["device_id"].toString(), u"machine+1"_s);
        QCOMPARE(request["headers"]["Authorization"].toString(), u"Api-Key "_s + config["amplitudeProjectKey"].toString());
        QVERIFY(standIn->fault(QJsonObject{{"call", "flags"}, {"kind", "malformed"}}));
        emit tracker.getFeatures(u"machine+1"_s); // a failed fetch clears the flags
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
        const QJsonObject answer{{"call", "identify"}, {"kind", "status"}, {"status", 200}, {"body", identifyAnswer}};
        QVERIFY(standIn->fault(answer));
        QCOMPARE(AmplitudeApi().repairUserIdentity(machineId, email, uniqueId), expected);
        const auto sent = this->requests({u"profile"_s, u"identify"_s});
        QCOMPARE(sent.size(), requests);
        if (!requests)
            return;
        const QString projectKey = config["amplitudeProjectKey"].toString();
        QCOMPARE(sent[0]["params"]["get_amp_props"].toString(), u"true"_s);
        // In developer mode the project key stands in for the secret.
        QCOMPARE(sent[0]["headers"]["Authorization"].toString(),
                 u"Api-Key "_s + (kutils::isDeveloperMode() ? projectKey : config["amplitudeSecret"].toString()));
        QCOMPARE(sent[1]["headers"]["Content-Type"].toString(), u"application/x-www-form-urlencoded"_s);
        QCOMPARE(sent[1]["params"]["api_key"].toString(), projectKey);
        const QByteArray identification = sent[1]["params"]["identification"].toString().toUtf8();
        QCOMPARE(QJsonDocument::fromJson(identification).object(),
                 (QJsonObject{{"user_id", "user-42"}, {"device_id", uniqueId}}));
    }

    void tricklingServerEndsWithinTheBound()
    {
        QVERIFY(standIn->fault(QJsonObject{{"call", "profile"}, {"kind", "trickle"}}));
        QCOMPARE(AmplitudeApi().getUserProfile(u"device"_s), QVariantMap());
    }

    void nestedCallsBothComplete()
    {
        QVERIFY(standIn->fault(QJsonObject{{"call", "profile"}, {"kind", "hold"}}));
        AmplitudeApi api;
        bool inner = false;
        // The outer answer is held until the inner call has been answered.
        QTimer::singleShot(0, &api, [&] {
            QTRY_COMPARE(standIn->held(), 1);
            inner = api.identify(u"user"_s, u"device"_s);
            QVERIFY(standIn->release());
        });
        QVERIFY(!api.getUserProfile(u"device"_s).isEmpty());
        QVERIFY(inner);
    }

    void destroyedWhileWaitingReturnsFailure()
    {
        QVERIFY(standIn->fault(QJsonObject{{"call", "profile"}, {"kind", "hold"}}));
        auto *api = new AmplitudeApi;
        QTimer::singleShot(0, [api] { delete api; });
        QCOMPARE(api->getUserProfile(u"device"_s), QVariantMap());
    }
};

QTEST_MAIN(TelemetryTest)
#include "tst_Telemetry.moc"
