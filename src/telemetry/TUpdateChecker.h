#pragma once

#include <QDateTime>
#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>

#include <memory>

class QFile;
class QJsonDocument;
class TNetwork;

// The last answer of the application-state service, as parsed.
struct UpdateCheckResponse
{
    QString status;
    bool valid = false;
    QList<QVariantMap> versions;
    QVariantMap lastOwnedCompatible;
};

// Checks the application-state service for updates, downloads the installer
// the user picks and starts it.
class TUpdateChecker : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QList<QVariantMap> updateVersions READ getUpdateVersions NOTIFY updateVersionsChanged)
    Q_PROPERTY(QVariantMap latestOwnedUpdate READ getLatestOwnedUpdate NOTIFY latestOwnedUpdateChanged)
    Q_PROPERTY(bool isUpdateAvailable READ getIsUpdateAvailable NOTIFY isUpdateAvailableChanged)
    Q_PROPERTY(QString userEmail MEMBER userEmail)
    Q_PROPERTY(QString logDir MEMBER logDir)
    Q_PROPERTY(QDateTime licenseExpirationDate MEMBER licenseExpirationDate)

public:
    explicit TUpdateChecker(QObject *parent = nullptr);
    ~TUpdateChecker() override;

    Q_INVOKABLE void checkForUpdates(bool manual);
    Q_INVOKABLE void startUpdate(QVariantMap update);
    Q_INVOKABLE void runInstaller();
    Q_INVOKABLE QString getInstallerPath();

    QList<QVariantMap> getUpdateVersions() const { return updateVersions; }
    QVariantMap getLatestOwnedUpdate() const { return latestOwnedUpdate; }
    bool getIsUpdateAvailable() const { return isUpdateAvailable; }

signals:
    void checkFailed();
    void isUpdateAvailableChanged();
    void latestOwnedUpdateChanged();
    void updateAvailable(bool manual);
    void noUpdateAvailable(bool manual);
    void updateVersionsChanged(QList<QVariantMap> updateVersions);
    void closeApp();
    void updateDownloadProgressChanged(int mbRead, int mbTotal);
    void updateDownloadFinished();

public slots:
    void requestFinished(QString id, QNetworkReply *reply);
    void downloadProgress(QString id, qlonglong bytesReceived, qlonglong bytesTotal);

private:
    void handleCheck(QNetworkReply *reply);
    // Parses an answer into `response`; a failure is logged, leaves `valid`
    // false and ends the parse.
    void parseResponse(const QJsonDocument &document);
    // Appends what has arrived of a 2xx installer body to the ".part" file.
    void streamInstaller(QNetworkReply *reply);
    void finishDownload(QNetworkReply *reply);
    // Drops an unfinished download, its reply and its ".part" file.
    void abandonDownload();

    TNetwork *network;
    QString apiKey;
    UpdateCheckResponse response;
    QString checkRequestId;
    QString downloadRequestId;
    QString installerFileName;
    QList<QVariantMap> updateVersions;
    QVariantMap latestOwnedUpdate;
    QString userEmail;
    QDateTime licenseExpirationDate;
    QString logDir;
    bool isUpdateAvailable = false;
    bool manualCheck = false;
    // The installer as it arrives; null when none is being written.
    std::unique_ptr<QFile> partFile;
    bool partFileFailed = false;
};
