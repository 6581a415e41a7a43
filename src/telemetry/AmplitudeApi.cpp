#include "telemetry/AmplitudeApi.h"

#include "plugin/Configuration.h"
#include "plugin/DeveloperMode.h"
#include "telemetry/TNetwork.h"
#include "telemetry/TelemetryLogging.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QPointer>
#include <QTimer>
#include <QUrlQuery>

AmplitudeApi::AmplitudeApi(QObject *parent)
    : QObject(parent)
    , apiKey(Configuration::instance().amplitudeProjectKey)
    , secretKey(Configuration::instance().amplitudeSecret)
    , network(new TNetwork(this))
{
    if (kutils::isDeveloperMode())
        secretKey = apiKey;
}

QUrl AmplitudeApi::serviceUrl(const QString &base, const char *key, const char *path)
{
    if (base.isEmpty()) {
        qCWarning(lcTelemetry) << "[Amplitude] Configuration key" << key << "is empty; no request sent.";
        return {};
    }
    return QUrl(base + QLatin1String(path));
}

AmplitudeApi::Answer AmplitudeApi::waitForReply(const QString &id)
{
    qCInfo(lcTelemetry) << "[Amplitude] request id:" << id;
    QNetworkReply *reply = network->request(id);
    if (!reply) {
        qCCritical(lcTelemetry) << "[Amplitude] Unexpected null request for id" << id;
        return {};
    }
    qCInfo(lcTelemetry) << "[Amplitude] Waiting for response...";
    const QPointer<AmplitudeApi> self(this);
    {
        QEventLoop loop;
        connect(reply, SIGNAL(finished()), &loop, SLOT(quit()));
        // The transfer timeout counts only silence, so a server that trickles
        // bytes would hold the call for ever without this bound.
        QTimer bound;
        bound.setSingleShot(true);
        connect(&bound, &QTimer::timeout, reply, &QNetworkReply::abort);
        connect(this, &QObject::destroyed, &loop, &QEventLoop::quit);
        bound.start(2 * Configuration::instance().transferTimeoutMs);
        if (!reply->isFinished())
            loop.exec();
    }
    // The reply belongs to the shared manager and outlives this object.
    reply->deleteLater();
    Answer answer;
    answer.alive = !self.isNull();
    if (!answer.alive) {
        reply->abort();
        return answer;
    }
    qCInfo(lcTelemetry) << "[Amplitude] Request completed.";
    if (reply->error() != QNetworkReply::NoError) {
        qCWarning(lcTelemetry) << "[Amplitude] Request error:" << reply->error();
        return answer;
    }
    answer.body = reply->readAll();
    return answer;
}

AmplitudeApi::Answer AmplitudeApi::waitForJson(const QString &id, QJsonDocument &document)
{
    Answer answer = waitForReply(id);
    if (!answer.body) {
        qCCritical(lcTelemetry) << "[Amplitude] Request error";
        return answer;
    }
    QJsonParseError error;
    document = QJsonDocument::fromJson(*answer.body, &error);
    if (error.error != QJsonParseError::NoError) {
        qCCritical(lcTelemetry) << "[Amplitude] JSON parse error:" << error.error;
        answer.body.reset();
    }
    return answer;
}

void AmplitudeApi::fetchFeatures(QString machineId)
{
    if (apiKey.isEmpty()) {
        qCInfo(lcTelemetry) << "[Amplitude] API key not defined, cannot fetch features.";
        return;
    }
    const QUrl url = serviceUrl(Configuration::instance().amplitudeVardataUrl, "amplitudeVardataUrl", "/v1/vardata");
    QJsonDocument document;
    if (!url.isEmpty()) {
        const QString id = network->get(url, {{QStringLiteral("device_id"), machineId}},
                                        {{QStringLiteral("Authorization"), QStringLiteral("Api-Key %1").arg(apiKey)}});
        qCInfo(lcTelemetry) << "[Amplitude] Sending lab request";
        const Answer answer = waitForJson(id, document);
        if (!answer.alive)
            return;
        if (!answer.body)
            qCCritical(lcTelemetry) << "[Amplitude] Request error, cancelling.";
    }
    // A failed fetch sends an empty map, which clears the old flags.
    emit setFeatures(document.object().toVariantMap());
}

QVariantMap AmplitudeApi::getUserProfile(QString machineId)
{
    qCInfo(lcTelemetry) << "[Amplitude] getUserProfile() called with" << machineId;
    const QUrl url = serviceUrl(Configuration::instance().amplitudeProfileUrl, "amplitudeProfileUrl", "/v1/userprofile");
    if (url.isEmpty())
        return {};
    const QString id = network->get(url,
                                    {{QStringLiteral("device_id"), machineId}, {QStringLiteral("get_amp_props"), true}},
                                    {{QStringLiteral("Authorization"), QStringLiteral("Api-Key %1").arg(secretKey)}});
    qCInfo(lcTelemetry) << "[Amplitude] Sending /userprofile request";
    QJsonDocument document;
    if (!waitForJson(id, document).body) {
        qCCritical(lcTelemetry) << "[Amplitude] Request error, cancelling.";
        return {};
    }
    return document.object().toVariantMap();
}

bool AmplitudeApi::identify(QString userId, QString deviceId)
{
    qCInfo(lcTelemetry) << "[Amplitude] identify() called with" << userId << deviceId;
    const QUrl url = serviceUrl(Configuration::instance().amplitudeIdentifyUrl, "amplitudeIdentifyUrl", "/identify");
    if (url.isEmpty())
        return false;
    const QJsonObject identification{{QStringLiteral("user_id"), userId}, {QStringLiteral("device_id"), deviceId}};
    // Values encoded by hand and the whole form fully encoded: QUrlQuery leaves
    // "+", which form decoders read as a space.
    QUrlQuery form;
    const auto addField = [&form](const QString &key, const QString &value) {
        form.addQueryItem(key, QString::fromLatin1(QUrl::toPercentEncoding(value)));
    };
    addField(QStringLiteral("api_key"), apiKey);
    addField(QStringLiteral("identification"),
             QString::fromUtf8(QJsonDocument(identification).toJson(QJsonDocument::Compact)));
    const QString id = network->post(
        url, form.query(QUrl::FullyEncoded),
        {{QStringLiteral("Content-Type"), QStringLiteral("application/x-www-form-urlencoded")}}, false);
    const Answer answer = waitForReply(id);
    if (!answer.body) {
        qCCritical(lcTelemetry) << "[Amplitude] Request error, cancelling.";
        return false;
    }
    const QString text = QString::fromUtf8(*answer.body);
    qCInfo(lcTelemetry) << "[Amplitude] /identify response:" << text;
    return text == QLatin1String("success");
}

bool AmplitudeApi::repairUserIdentity(QString machineId, QString email, QString uniqueId)
{
    if (apiKey.isEmpty() || secretKey.isEmpty()) {
        qCInfo(lcTelemetry) << "[Amplitude] API key or secret not defined, cannot repair user identity.";
        return false;
    }
    qCInfo(lcTelemetry) << "[Amplitude] repairUserIdentity() called with" << machineId << email << uniqueId;
    if (machineId.isEmpty()) {
        qCCritical(lcTelemetry) << "[Amplitude] Invalid machineId (empty)";
        return false;
    }
    if (email.isEmpty())
        return false;
    if (uniqueId.isEmpty() || uniqueId == machineId)
        return true;
    const QPointer<AmplitudeApi> self(this);
    const QVariantMap profile = getUserProfile(machineId);
    if (!self)
        return false;
    qCInfo(lcTelemetry) << "User info:" << profile;
    QString userId = profile.value(QStringLiteral("userData"))
                         .toMap()
                         .value(QStringLiteral("amp_props"))
                         .toMap()
                         .value(QStringLiteral("gp:id"))
                         .toString();
    userId.remove(u'"');
    return identify(userId, uniqueId);
}
