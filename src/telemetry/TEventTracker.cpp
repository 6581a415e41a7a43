#include "telemetry/TEventTracker.h"

#include "plugin/Configuration.h"
#include "plugin/DeveloperMode.h"
#include "telemetry/TNetwork.h"
#include "telemetry/TelemetryLogging.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>

TEventTracker::TEventTracker(QObject *parent)
    : QObject(parent)
    , network(new TNetwork(this))
{
    const Configuration &config = Configuration::instance();
    writeKey = kutils::isDeveloperMode() ? config.segmentWriteKeyDevelopment : config.segmentWriteKeyProduction;
    connect(network, &TNetwork::replyRecieved, this, &TEventTracker::handleReply);
    // Direct, so that the flags are in place when QML's emission returns.
    connect(this, &TEventTracker::getFeatures, &amplitude, &AmplitudeApi::fetchFeatures, Qt::DirectConnection);
    connect(&amplitude, &AmplitudeApi::setFeatures, this, &TEventTracker::setFeatures);
}

QString TEventTracker::track(QString identifier)
{
    return track(identifier, {});
}

QString TEventTracker::track(QString identifier, QVariantMap params)
{
    if (writeKey.isEmpty()) {
        qCInfo(lcTelemetry).noquote() << "Segment API key missing. Not sending event: " << identifier;
        return {};
    }
    if (!enabled) {
        qCInfo(lcTelemetry).noquote() << "Tracking disabled. Not sending Segment event: " << identifier;
        return {};
    }
    const QJsonObject event{
        {QStringLiteral("anonymousId"), uniqueId},
        {QStringLiteral("event"), identifier},
        {QStringLiteral("properties"), QJsonObject::fromVariantMap(params)},
        {QStringLiteral("timestamp"),
         QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzzZ"))},
    };
    const QByteArray body = QJsonDocument(event).toJson(QJsonDocument::Compact);
    // Always the production credential: the development key only decides
    // whether events are sent at all.
    const QVariantMap headers{
        {QStringLiteral("Content-Type"), QStringLiteral("application/json")},
        {QStringLiteral("Authorization"),
         QStringLiteral("Basic %1").arg(Configuration::instance().segmentWriteKeyProduction)},
        // In bytes: the default length counts characters and cuts non-ASCII bodies short.
        {QStringLiteral("Content-Length"), body.size()},
    };
    qCInfo(lcTelemetry).noquote() << "Sending tracking event: " << identifier;
    return network->post(QUrl(Configuration::instance().eventCollectorUrl), QString::fromUtf8(body), headers, false);
}

void TEventTracker::setEnabled(bool value)
{
    if (enabled == value)
        return;
    enabled = value;
    emit enabledChanged();
}

void TEventTracker::writeFeatures(const QVariantMap &value)
{
    if (features == value)
        return;
    features = value;
    emit featuresChanged();
}

void TEventTracker::handleReply(QString id, QNetworkReply *reply)
{
    reply->deleteLater();
    emit requestFinished(id);
}

void TEventTracker::setFeatures(QVariantMap value)
{
    features = value;
    emit featuresChanged();
}
