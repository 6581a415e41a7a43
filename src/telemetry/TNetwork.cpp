#include "telemetry/TNetwork.h"

#include "plugin/Configuration.h"
#include "telemetry/TelemetryLogging.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QUrlQuery>
#include <QUuid>

namespace {

// Replies with an error have their body logged, up to this much.
constexpr qint64 maxLoggedErrorBody = 4194304;

QNetworkAccessManager *makeSharedManager()
{
    const Configuration &config = Configuration::instance();
    // Qt does not read SSL_CERT_FILE, so an extra authority has to join the
    // default configuration, which both the early connect and every request use.
    if (!config.caBundle.isEmpty()) {
        QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
        if (ssl.addCaCertificates(config.caBundle))
            QSslConfiguration::setDefaultConfiguration(ssl);
        else
            qCWarning(lcTelemetry) << "No certificate could be read from caBundle" << config.caBundle;
    }
    // Lives as long as the process: replies of destroyed TNetworks may still
    // be held by their receivers, and they are the manager's children.
    auto *manager = new QNetworkAccessManager;
    manager->setTransferTimeout(config.transferTimeoutMs);
    return manager;
}

} // namespace

QNetworkAccessManager *TNetwork::sharedManager = nullptr;

TNetwork::TNetwork(QObject *parent)
    : QObject(parent)
{
    if (!sharedManager)
        sharedManager = makeSharedManager();
    connect(sharedManager, &QNetworkAccessManager::finished, this, &TNetwork::requestFinished);
}

QString TNetwork::prepare(QNetworkRequest &request, QUrl url, const QVariantMap &query, const QVariantMap &headers,
                          bool traced)
{
    if (!sharedManager) {
        qCCritical(lcTelemetry) << "Network manager is null";
        return {};
    }
    if (!query.isEmpty()) {
        // Encoded by hand first: QUrlQuery leaves "+" alone, which servers
        // read as a space.
        QUrlQuery items;
        for (auto it = query.cbegin(); it != query.cend(); ++it)
            items.addQueryItem(it.key(), QString::fromLatin1(QUrl::toPercentEncoding(it.value().toString())));
        url.setQuery(items);
    }
    const QString id = QUuid::createUuid().toString();
    request.setUrl(url);
    if (traced)
        request.setAttribute(QNetworkRequest::User, id);
    for (auto it = headers.cbegin(); it != headers.cend(); ++it)
        request.setRawHeader(it.key().toUtf8(), it.value().toString().toUtf8());
    return id;
}

QString TNetwork::store(const QString &id, QNetworkReply *reply)
{
    requests.insert(id, reply);
    connect(reply, &QNetworkReply::downloadProgress, this,
            [this, id](qint64 received, qint64 total) { emit downloadProgress(id, received, total); });
    return id;
}

QString TNetwork::get(QUrl url, QVariantMap query, QVariantMap headers)
{
    QNetworkRequest request;
    const QString id = prepare(request, url, query, headers, true);
    if (id.isEmpty())
        return id;
    if (url.scheme().contains(QLatin1String("https"), Qt::CaseInsensitive))
        sharedManager->connectToHostEncrypted(url.host(), quint16(url.port(443)),
                                              QSslConfiguration::defaultConfiguration());
    request.setPriority(QNetworkRequest::HighPriority);
    return store(id, sharedManager->get(request));
}

QString TNetwork::post(QUrl url, QString body, QVariantMap headers, bool jsonContent)
{
    QNetworkRequest request;
    if (jsonContent)
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    // The length in characters, by design: callers with non-ASCII bodies pass
    // their own byte count.
    if (!headers.contains(QStringLiteral("Content-Length")))
        headers.insert(QStringLiteral("Content-Length"), body.length());
    const QString id = prepare(request, url, {}, headers, true);
    if (id.isEmpty())
        return id;
    return store(id, sharedManager->post(request, body.toUtf8()));
}

QString TNetwork::del(QUrl url, QVariantMap query, QVariantMap headers)
{
    QNetworkRequest request;
    const QString id = prepare(request, url, query, headers, false);
    if (id.isEmpty())
        return id;
    requests.insert(id, sharedManager->deleteResource(request));
    return id;
}

QNetworkReply *TNetwork::request(QString id)
{
    return requests.value(id);
}

void TNetwork::requestFinished(QNetworkReply *reply)
{
    const QString id = reply->request().attribute(QNetworkRequest::User).toString();
    if (!requests.remove(id))
        return;
    if (reply->error() != QNetworkReply::NoError) {
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        // An aborted reply is closed and has nothing left to read.
        const QByteArray body = reply->isOpen() ? reply->read(maxLoggedErrorBody) : QByteArray();
        qCWarning(lcTelemetry).noquote() << "Network error. Status Code:" << status << reply->error()
                                         << "Error:" << reply->errorString() << "Body:" << body;
    }
    emit replyRecieved(id, reply);
}
