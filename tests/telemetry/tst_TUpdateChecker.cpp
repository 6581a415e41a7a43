// TUpdateChecker against a loopback HTTPS service: the check's request and the
// parse of its answer, the streamed installer download, and the start of the
// installer through a stand-in desktop.
#include "TelemetryTestSupport.h"

#include "os/Installer.h"
#include "plugin/DeveloperMode.h"
#include "telemetry/TNetwork.h"
#include "telemetry/TUpdateChecker.h"

#include <QtTest>

using namespace Qt::StringLiterals;

class UpdateCheckerTest : public QObject
{
    Q_OBJECT

public slots:
    void note() { names << QString::fromLatin1(sender()->metaObject()->method(senderSignalIndex()).name()); }

private slots:
    void initTestCase();
    void cleanup();
    void checkSendsTheDesignedRequest_data();
    void checkSendsTheDesignedRequest();
    void answersAreParsedInOrder_data();
    void answersAreParsedInOrder();
    void failuresGiveOnlyCheckFailed_data();
    void failuresGiveOnlyCheckFailed();
    void olderCheckAnswerIsIgnored();
    void startUpdate_data();
    void startUpdate();
    void unwritableInstallerGivesNoSignal();
    void runInstaller_data();
    void runInstaller();
    void msiexecArguments_data();
    void msiexecArguments();

private:
    // Names of the checker's signals, in the order they come, into `names`.
    void record(TUpdateChecker &checker);
    bool settled(const QStringList &names) const;
    QString path(const QString &name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    testca::Files ca;
    std::unique_ptr<LoopbackServer> service;
    QJsonObject config;
    std::string checkBody;
    int checkStatus = 200;
    bool holdFirstCheck = false;
    std::atomic<int> checks = 0;
    QStringList names;
};

const std::string installerBody(3 << 20, 'i');

void UpdateCheckerTest::initTestCase()
{
    ca = testca::makeThrowawayCa(dir.path().toStdString());
    service = std::make_unique<LoopbackServer>(&ca);
    service->on("GET", "/v2/app_state/unauthed", [this](const httplib::Request &request, httplib::Response &response) {
        if (++checks == 1 && holdFirstCheck) {
            service->hold();
            return answer(R"({"app_update":{"app_update_status":"","app_update_versions":[{}]}})")(request, response);
        }
        service->release();
        answer(checkBody, checkStatus)(request, response);
    });
    service->on("GET", R"(/files/(.+))", [this](const httplib::Request &request, httplib::Response &response) {
        const std::string name = request.matches[1];
        if (name == "missing.msi")
            return answer("gone", 404, "text/plain")(request, response);
        if (name == "cut.msi") // promises more than it sends
            return response.set_content_provider(installerBody.size() * 2, "application/octet-stream",
                                                 [](size_t offset, size_t, httplib::DataSink &sink) {
                                                     return offset == 0
                                                            && sink.write(installerBody.data(), installerBody.size());
                                                 });
        const std::string script = "#!/bin/sh\necho started > '" + path("started").toStdString() + "'\n";
        answer(name.ends_with(".AppImage") ? script : installerBody, 200, "application/octet-stream")(request, response);
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
                         {"caBundle", qs(ca.caCert)},             {"transferTimeoutMs", 2500}};
    useConfiguration(dir.path(), config);
}

void UpdateCheckerTest::cleanup()
{
    service->clear();
    checks = 0;
    holdFirstCheck = false;
    checkStatus = 200;
    names.clear();
    useConfiguration(dir.path(), config);
}

void UpdateCheckerTest::record(TUpdateChecker &checker)
{
    const QMetaObject &meta = TUpdateChecker::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        if (const QMetaMethod signal = meta.method(i); signal.methodType() == QMetaMethod::Signal
                                                        && signal.name() != "updateDownloadProgressChanged")
            connect(&checker, signal, this, metaObject()->method(metaObject()->indexOfMethod("note()")));
}

bool UpdateCheckerTest::settled(const QStringList &names) const
{
    static const QStringList last{u"checkFailed"_s, u"updateAvailable"_s, u"noUpdateAvailable"_s};
    return !names.isEmpty() && last.contains(names.last());
}

void UpdateCheckerTest::checkSendsTheDesignedRequest_data()
{
    QTest::addColumn<QString>("email");
    QTest::addColumn<bool>("flipMode"); // after construction: the address follows, the key does not
    QTest::newRow("plus sign") << u"a+b@example.com"_s << false;
    QTest::newRow("non-ascii") << u"jürgen@exämple.com"_s << false;
    QTest::newRow("empty, still with its MAC") << QString() << false;
    QTest::newRow("noemail, mode flipped") << u"noemail"_s << true;
}

void UpdateCheckerTest::checkSendsTheDesignedRequest()
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
    QTRY_VERIFY(settled(names));

    const httplib::Request request = service->requests().at(0);
    QCOMPARE(qs(request.get_header_value("Host")).section(':', 0, 0),
             staging != flipMode ? u"localhost"_s : u"127.0.0.1"_s);
    QCOMPARE(qs(request.get_header_value("x-api-key")), staging ? u"staging-state-key"_s : u"state-key"_s);
    const QVariantMap expected{
        {"app_cname", "VIDEO"}, {"app_version", QCoreApplication::applicationVersion()},
        {"app_build_type", "RELEASE"}, {"os_version", QSysInfo::productVersion()},
        {"arch", QSysInfo::currentCpuArchitecture()}, {"cpu_supports_avx", "true"},
        {"license_expiration_datetime", QVariant(expiry).toString()}, {"os_type", "linux"},
        {"supports_patch", "true"},
    };
    QVariantMap sent;
    for (const auto &[key, value] : request.params)
        sent.insert(qs(key), qs(value));
    if (email != u"noemail"_s) {
        QCOMPARE(sent.take(u"user_email"_s).toString(), email);
        QCOMPARE(sent.take(u"email_mac"_s).toString(),
                 QMessageAuthenticationCode::hash(email.toUtf8(), "salt", QCryptographicHash::Sha256).toHex());
    }
    QCOMPARE(sent, expected);
}

void UpdateCheckerTest::answersAreParsedInOrder_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("failure");
    QTest::addColumn<QStringList>("versions");
    QTest::addColumn<QStringList>("signalNames");
    const QStringList none{u"updateVersionsChanged"_s, u"noUpdateAvailable"_s};
    const auto row = [&](const char *name, const char *body, const char *failure) {
        QTest::newRow(name) << QByteArray(body) << QString::fromUtf8(failure) << QStringList() << none;
    };
    row("empty", "", "JSON document is empty");
    row("no app_update", R"({"x":1})", "JSON document is missing `app_update`");
    row("app_update not object", R"({"app_update":[]})", "`app_update` is not object");
    row("no status", R"({"app_update":{}})", "JSON document is missing `app_update.app_update_status`");
    row("status not string", R"({"app_update":{"app_update_status":1}})", "`app_update.app_update_status` is not string");
    row("no versions", R"({"app_update":{"app_update_status":""}})",
        "JSON document is missing `app_update.app_update_versions`");
    row("versions not array", R"({"app_update":{"app_update_status":"","app_update_versions":{}}})",
        "`app_update.app_update_versions` is not string");
    row("no versions offered", R"({"app_update":{"app_update_status":"","app_update_versions":[]}})", "");
    QTest::newRow("service order, incompatible left out")
        << QByteArray(R"({"app_update":{"app_update_status":"ok","last_owned_compatible":{"app_version":"1.5"},
            "app_update_versions":[{"app_version":"2.0","is_owned":false},7,
            {"app_version":"1.9","is_compatible":false,"incompatibility_message":"too old"},
            {"app_version":"1.8","is_compatible":true}]}})")
        << QString() << QStringList{u"2.0"_s, u"1.8"_s}
        << QStringList{u"isUpdateAvailableChanged"_s, u"latestOwnedUpdateChanged"_s, u"updateVersionsChanged"_s,
                       u"updateAvailable"_s};
}

void UpdateCheckerTest::answersAreParsedInOrder()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, failure);
    QFETCH(QStringList, versions);
    QFETCH(QStringList, signalNames);
    checkBody = body.toStdString();
    if (!failure.isEmpty())
        QTest::ignoreMessage(QtCriticalMsg, qPrintable(failure));
    TUpdateChecker checker;
    record(checker);
    QSignalSpy available(&checker, &TUpdateChecker::updateAvailable);
    checker.checkForUpdates(true);
    QTRY_VERIFY(settled(names));
    QCOMPARE(names, signalNames);
    QStringList offered;
    for (const QVariantMap &version : checker.getUpdateVersions())
        offered << version.value(u"app_version"_s).toString();
    QCOMPARE(offered, versions);
    QCOMPARE(checker.property("isUpdateAvailable").toBool(), !versions.isEmpty());
    if (!versions.isEmpty()) {
        QCOMPARE(checker.getLatestOwnedUpdate().value(u"app_version"_s), u"1.5"_s);
        QCOMPARE(available.first().first().toBool(), true);
    }
}

void UpdateCheckerTest::failuresGiveOnlyCheckFailed_data()
{
    QTest::addColumn<bool>("addressed");
    QTest::newRow("server error") << true;
    QTest::newRow("no address configured") << false;
}

void UpdateCheckerTest::failuresGiveOnlyCheckFailed()
{
    QFETCH(bool, addressed);
    checkStatus = 500;
    checkBody = R"({"app_update":{"app_update_status":"","app_update_versions":[{}]}})";
    if (!addressed)
        useConfiguration(dir.path(), QJsonObject{{"caBundle", qs(ca.caCert)}});
    TUpdateChecker checker;
    record(checker);
    checker.checkForUpdates(false);
    QVERIFY(names.isEmpty()); // queued, also without a request
    QTRY_VERIFY(settled(names));
    QCOMPARE(names, QStringList{u"checkFailed"_s});
    QCOMPARE(int(service->requests().size()), addressed ? 1 : 0);
}

void UpdateCheckerTest::olderCheckAnswerIsIgnored()
{
    holdFirstCheck = true; // the first check is answered after the second
    checkBody = R"({"app_update":{"app_update_status":"","app_update_versions":[]}})";
    TUpdateChecker checker;
    record(checker);
    QSignalSpy replies(checker.findChild<TNetwork *>(), &TNetwork::replyRecieved);
    checker.checkForUpdates(true);
    QTRY_COMPARE(checks.load(), 1);
    checker.checkForUpdates(false);
    QTRY_COMPARE(replies.count(), 2);
    QCOMPARE(names, (QStringList{u"updateVersionsChanged"_s, u"noUpdateAvailable"_s}));
}

void UpdateCheckerTest::startUpdate_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<bool>("installed");
    QTest::addColumn<int>("signalCount");
    const QString files = service->base() + u"/files/"_s;
    QTest::newRow("complete") << files + u"setup%20v2.msi"_s << u"setup v2.msi"_s << true << 1;
    QTest::newRow("not found") << files + u"missing.msi"_s << u"missing.msi"_s << false << 1;
    QTest::newRow("cut short") << files + u"cut.msi"_s << u"cut.msi"_s << false << 1;
    QTest::newRow("no file name") << files << QString() << false << 0;
    QTest::newRow("not http") << u"ftp://127.0.0.1/setup.msi"_s << QString() << false << 0;
}

void UpdateCheckerTest::startUpdate()
{
    QFETCH(QString, url);
    QFETCH(QString, fileName);
    QFETCH(bool, installed);
    QFETCH(int, signalCount);
    // An older installer of that name must go either way.
    const QString installer = path(u"tmp/"_s + (fileName.isEmpty() ? u"none"_s : fileName));
    QFile old(installer);
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write("old");
    old.close();
    TUpdateChecker checker;
    record(checker);
    QSignalSpy progress(&checker, &TUpdateChecker::updateDownloadProgressChanged);
    checker.startUpdate({{u"inapp_installer_url"_s, url}});
    if (signalCount)
        QTRY_COMPARE(names.size(), signalCount);
    QCOMPARE(int(service->requests().size()), signalCount);
    QCOMPARE(names, QStringList(signalCount, u"updateDownloadFinished"_s));
    QVERIFY(!QFile::exists(installer + u".part"_s));
    if (!signalCount) {
        QVERIFY(QFile::remove(installer));
        return;
    }
    QCOMPARE(checker.getInstallerPath(), installer);
    QCOMPARE(QFile::exists(installer), installed);
    if (installed) {
        QCOMPARE(QFileInfo(installer).size(), qint64(installerBody.size()));
        QCOMPARE(progress.last(), (QList<QVariant>{3, 3}));
    }
}

void UpdateCheckerTest::unwritableInstallerGivesNoSignal()
{
    // A folder where the partial file should go.
    QVERIFY(QDir(path(u"tmp"_s)).mkpath(u"blocked.msi.part"_s));
    TUpdateChecker checker;
    record(checker);
    QSignalSpy replies(checker.findChild<TNetwork *>(), &TNetwork::replyRecieved);
    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"^Cannot open file to write:  .*blocked.msi.part$"_s));
    checker.startUpdate({{u"inapp_installer_url"_s, service->base() + u"/files/blocked.msi"_s}});
    QTRY_COMPARE(replies.count(), 1);
    QVERIFY(names.isEmpty());
}

void UpdateCheckerTest::runInstaller_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QString>("marker");
    QTest::newRow("AppImage runs by itself") << u"setup.AppImage"_s << u"started"_s;
    QTest::newRow("anything else opens on the desktop") << u"setup.deb"_s << u"opened"_s;
}

void UpdateCheckerTest::runInstaller()
{
    QFETCH(QString, fileName);
    QFETCH(QString, marker);
    QFile::remove(path(marker));
    TUpdateChecker checker;
    record(checker);
    checker.startUpdate({{u"inapp_installer_url"_s, service->base() + u"/files/"_s + fileName}});
    QTRY_COMPARE(names, QStringList{u"updateDownloadFinished"_s});
    checker.runInstaller();
    QCOMPARE(names.last(), u"closeApp"_s);
    QTRY_VERIFY(QFile::exists(path(marker)));
    if (marker == u"opened"_s) {
        QFile opened(path(marker));
        QVERIFY(opened.open(QIODevice::ReadOnly));
        QCOMPARE(QUrl(QString::fromUtf8(opened.readAll())).toLocalFile(), checker.getInstallerPath());
    }
}

void UpdateCheckerTest::msiexecArguments_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QStringList>("arguments");
    const QString log = u"C:\\logs\\install.txt"_s;
    QTest::newRow("patch") << u"update.msp"_s
                           << QStringList{u"/p"_s, u"update.msp"_s, u"/l*v"_s, log, u"/qr"_s, u"REINSTALL=ALL"_s,
                                          u"REINSTALLMODE=omus"_s};
    QTest::newRow("patch test is case-sensitive") << u"update.MSP"_s
                                                  << QStringList{u"/i"_s, u"update.MSP"_s, u"/l*v"_s, log};
    QTest::newRow("package") << u"setup.msi"_s << QStringList{u"/i"_s, u"setup.msi"_s, u"/l*v"_s, log};
}

void UpdateCheckerTest::msiexecArguments()
{
    QFETCH(QString, fileName);
    QFETCH(QStringList, arguments);
    QCOMPARE(os::Installer::msiexecArguments(fileName, u"C:\\logs\\install.txt"_s), arguments);
}

QTEST_MAIN(UpdateCheckerTest)
#include "tst_TUpdateChecker.moc"
