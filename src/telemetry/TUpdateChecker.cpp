#include "telemetry/TUpdateChecker.h"

#include "os/Installer.h"
#include "plugin/Configuration.h"
#include "plugin/DeveloperMode.h"
#include "telemetry/TNetwork.h"
#include "telemetry/TelemetryLogging.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QNetworkReply>
#include <QOperatingSystemVersion>
#include <QStandardPaths>
#include <QSysInfo>

#include <utility>

namespace {

constexpr qint64 installerReadBuffer = 4 << 20;

QString buildType()
{
    const QString name = QCoreApplication::applicationName().toUpper();
    if (name.contains(QLatin1String("ALPHA")))
        return QStringLiteral("ALPHA");
    if (name.contains(QLatin1String("BETA")))
        return QStringLiteral("BETA");
    return QStringLiteral("RELEASE");
}

// The service picks installers by these two, so a Linux machine must not
// pass for Windows; QOperatingSystemVersion knows no Linux versions.
QString osType()
{
#if defined(Q_OS_WIN)
    return QStringLiteral("windows");
#elif defined(Q_OS_LINUX)
    return QStringLiteral("linux");
#else
    return QSysInfo::productType();
#endif
}

QString osVersion()
{
#ifdef Q_OS_WIN
    const QOperatingSystemVersion version = QOperatingSystemVersion::current();
    return QStringLiteral("%1.%2").arg(version.majorVersion()).arg(version.minorVersion());
#else
    return QSysInfo::productVersion();
#endif
}

bool isSuccess(const QNetworkReply *reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    return status >= 200 && status < 300;
}

// Ends a parse: logs why and marks the answer unusable.
void invalid(UpdateCheckResponse &response, const char *reason)
{
    qCCritical(lcTelemetry) << reason;
    response.valid = false;
}

} // namespace

TUpdateChecker::TUpdateChecker(QObject *parent)
    : QObject(parent)
    , network(new TNetwork(this))
    , apiKey(Configuration::instance().appStateApiKey)
{
    if (kutils::developerModeInEnvironment())
        apiKey.prepend(QLatin1String("staging-"));
    connect(network, &TNetwork::replyRecieved, this, &TUpdateChecker::requestFinished);
    connect(network, &TNetwork::downloadProgress, this, &TUpdateChecker::downloadProgress);
}

TUpdateChecker::~TUpdateChecker()
{
    abandonDownload();
}

void TUpdateChecker::checkForUpdates(bool manual)
{
    manualCheck = manual;
    qCInfo(lcTelemetry) << "Checking for updates with license date" << licenseExpirationDate;
    QVariantMap params{
        {QStringLiteral("app_cname"), QStringLiteral("VIDEO")},
        {QStringLiteral("app_version"), QCoreApplication::applicationVersion()},
        {QStringLiteral("app_build_type"), buildType()},
        {QStringLiteral("os_version"), osVersion()},
        {QStringLiteral("arch"), QSysInfo::currentCpuArchitecture()},
        {QStringLiteral("cpu_supports_avx"), QStringLiteral("true")},
        {QStringLiteral("license_expiration_datetime"), licenseExpirationDate},
        {QStringLiteral("os_type"), osType()},
        {QStringLiteral("supports_patch"), QStringLiteral("true")},
    };
    const Configuration &config = Configuration::instance();
    if (userEmail != QLatin1String("noemail")) {
        params.insert(QStringLiteral("user_email"), userEmail);
        params.insert(QStringLiteral("email_mac"),
                      QString::fromLatin1(QMessageAuthenticationCode::hash(userEmail.toUtf8(), config.emailMacSalt.toUtf8(),
                                                                           QCryptographicHash::Sha256)
                                              .toHex()));
    }
    const bool staging = kutils::developerModeInEnvironment();
    const QString base = staging ? config.appStateStaging : config.appStateProduction;
    if (base.isEmpty()) {
        qCWarning(lcTelemetry) << "Configuration key" << (staging ? "appStateStaging" : "appStateProduction")
                               << "is empty; no update check sent.";
        checkRequestId.clear();
        QMetaObject::invokeMethod(this, &TUpdateChecker::checkFailed, Qt::QueuedConnection);
        return;
    }
    const QUrl url(base + QLatin1String("/v2/app_state/unauthed"));
    qCInfo(lcTelemetry).noquote() << "Checking for updates at: " << url.toString();
    qCInfo(lcTelemetry) << "Params: " << params;
    checkRequestId = network->get(url, params, {{QStringLiteral("x-api-key"), apiKey}});
}

void TUpdateChecker::requestFinished(QString id, QNetworkReply *reply)
{
    if (id == checkRequestId)
        handleCheck(reply);
    else if (id == downloadRequestId)
        finishDownload(reply);
    // Every reply of our network is ours to free, an outdated one included.
    reply->deleteLater();
}

void TUpdateChecker::handleCheck(QNetworkReply *reply)
{
    if (reply->error() != QNetworkReply::NoError) {
        emit checkFailed();
        return;
    }
    parseResponse(QJsonDocument::fromJson(reply->readAll()));
    qCInfo(lcTelemetry) << "Update check response:" << response.valid << !response.versions.isEmpty();
    const bool available = !response.versions.isEmpty();
    if (available != isUpdateAvailable) {
        isUpdateAvailable = available;
        emit isUpdateAvailableChanged();
    }
    if (response.lastOwnedCompatible != latestOwnedUpdate) {
        latestOwnedUpdate = response.lastOwnedCompatible;
        emit latestOwnedUpdateChanged();
    }
    updateVersions = std::exchange(response.versions, {});
    emit updateVersionsChanged(updateVersions);
    if (!updateVersions.isEmpty())
        emit updateAvailable(manualCheck);
    else
        emit noUpdateAvailable(manualCheck);
}

void TUpdateChecker::parseResponse(const QJsonDocument &document)
{
    if (document.isNull() || document.isEmpty())
        return invalid(response, "JSON document is empty");
    const QJsonObject top = document.object();
    if (!top.contains(QLatin1String("app_update")))
        return invalid(response, "JSON document is missing `app_update`");
    if (!top.value(QLatin1String("app_update")).isObject())
        return invalid(response, "`app_update` is not object");
    const QJsonObject update = top.value(QLatin1String("app_update")).toObject();
    if (!update.contains(QLatin1String("app_update_status")))
        return invalid(response, "JSON document is missing `app_update.app_update_status`");
    if (!update.value(QLatin1String("app_update_status")).isString())
        return invalid(response, "`app_update.app_update_status` is not string");
    if (!update.contains(QLatin1String("app_update_versions")))
        return invalid(response, "JSON document is missing `app_update.app_update_versions`");
    if (!update.value(QLatin1String("app_update_versions")).isArray())
        return invalid(response, "`app_update.app_update_versions` is not string");
    // Read from the top object, where it never is; nothing uses it.
    response.status = top.value(QLatin1String("app_update_status")).toString();

    const QJsonArray versions = update.value(QLatin1String("app_update_versions")).toArray();
    response.versions.clear();
    qCInfo(lcTelemetry) << "Found" << versions.size() << "new app versions";
    // The service's order is the order shown: nothing is sorted.
    for (qsizetype i = 0; i < versions.size(); ++i) {
        if (!versions[i].isObject()) {
            qCWarning(lcTelemetry) << "Skipping update" << i << "that is not an object";
            continue;
        }
        const QJsonObject version = versions[i].toObject();
        if (version.value(QLatin1String("is_compatible")).toBool(true)) {
            qCInfo(lcTelemetry) << "Adding update" << i
                                << version.value(QLatin1String("app_version")).toString(QStringLiteral("Unknown Version"))
                                << ", owned:" << version.value(QLatin1String("is_owned"));
            response.versions.append(version.toVariantMap());
        } else if (version.contains(QLatin1String("incompatibility_message"))) {
            qCInfo(lcTelemetry) << version.value(QLatin1String("incompatibility_message")).toString();
        }
    }
    response.lastOwnedCompatible = update.value(QLatin1String("last_owned_compatible")).toObject().toVariantMap();
    response.valid = true;
}

void TUpdateChecker::startUpdate(QVariantMap update)
{
    const QUrl url = update.value(QStringLiteral("inapp_installer_url")).toUrl();
    qCInfo(lcTelemetry) << "Downloading Installer" << url;
    const QString scheme = url.scheme();
    if ((scheme != QLatin1String("http") && scheme != QLatin1String("https")) || url.fileName().isEmpty()) {
        qCCritical(lcTelemetry) << "__!__ Installer address is not an http(s) address of a file:" << url;
        return;
    }
    abandonDownload();
    installerFileName = url.fileName(QUrl::FullyDecoded);
    const QString path = getInstallerPath();
    qCInfo(lcTelemetry) << "Saving installer to" << path;
    QDir().mkpath(QFileInfo(path).absolutePath());
    // Written as it arrives, under another name until it is complete, so
    // neither memory nor a partial installer at `path` grows with its size.
    partFile = std::make_unique<QFile>(path + QLatin1String(".part"));
    const bool opened = partFile->open(QIODevice::WriteOnly | QIODevice::Truncate);
    downloadRequestId = network->get(
        url, {},
        {{QStringLiteral("User-Agent"),
          QStringLiteral("Mozilla/5.0 (Macintosh; Intel Mac OS X 10.15; rv:109.0) Gecko/20100101 Firefox/109.0")}});
    QNetworkReply *reply = network->request(downloadRequestId);
    if (!reply) {
        partFile->remove();
        partFile.reset();
        return;
    }
    if (!opened) {
        qCCritical(lcTelemetry).noquote() << "Cannot open file to write: " << partFile->fileName();
        partFile.reset();
        reply->abort();
        return;
    }
    // Without a bound the network thread outruns the disk and the reply
    // buffers hundreds of MiB.
    reply->setReadBufferSize(installerReadBuffer);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] { streamInstaller(reply); });
}

void TUpdateChecker::streamInstaller(QNetworkReply *reply)
{
    // An error body stays in the reply for the network's log.
    if (!partFile || partFileFailed || !isSuccess(reply))
        return;
    const QByteArray data = reply->readAll();
    if (partFile->write(data) != data.size()) {
        qCCritical(lcTelemetry) << "__!__ Cannot write the installer:" << partFile->errorString();
        partFileFailed = true;
        reply->abort();
    }
}

void TUpdateChecker::finishDownload(QNetworkReply *reply)
{
    if (!partFile)
        return; // The file could not be opened; that was logged and nothing is signalled.
    streamInstaller(reply);
    const bool complete = partFile->flush() && !partFileFailed && reply->error() == QNetworkReply::NoError
                          && isSuccess(reply);
    partFile->close();
    const QString partPath = partFile->fileName();
    partFile.reset();
    const QString path = getInstallerPath();
    // QFile::rename does not overwrite an older installer.
    if (complete && (!QFile::exists(path) || QFile::remove(path)) && QFile::rename(partPath, path)) {
        emit updateDownloadFinished();
        return;
    }
    // Nothing may be left that runInstaller could start half-written or stale.
    QFile::remove(partPath);
    QFile::remove(path);
    qCCritical(lcTelemetry) << "__!__ Installer download failed, status"
                            << reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() << reply->error();
    emit updateDownloadFinished();
}

void TUpdateChecker::abandonDownload()
{
    const QString id = std::exchange(downloadRequestId, {});
    if (QNetworkReply *reply = id.isEmpty() ? nullptr : network->request(id)) {
        disconnect(reply, nullptr, this, nullptr);
        reply->abort();
    }
    if (partFile)
        partFile->remove();
    partFile.reset();
    partFileFailed = false;
}

void TUpdateChecker::downloadProgress(QString id, qlonglong bytesReceived, qlonglong bytesTotal)
{
    if (id == downloadRequestId)
        emit updateDownloadProgressChanged(int(bytesReceived / 1048576), int(bytesTotal / 1048576));
}

QString TUpdateChecker::getInstallerPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::TempLocation) + QLatin1Char('/') + installerFileName;
}

void TUpdateChecker::runInstaller()
{
    const QString path = getInstallerPath();
    qCInfo(lcTelemetry) << "Running installer" << path;
    const QString logFile = QDir(logDir).filePath(QStringLiteral("Korvel Video Pro Installer Log.txt"));
    if (!os::Installer::start(path, QDir::toNativeSeparators(logFile)))
        qCWarning(lcTelemetry) << "__!__ The installer could not be started:" << path;
    emit closeApp();
}
