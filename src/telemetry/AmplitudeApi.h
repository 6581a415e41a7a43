#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>

#include <optional>

class QJsonDocument;
class TNetwork;

// Feature flags and user identity with the analytics services. Each call is
// synchronous towards QML: it spins a local event loop until its reply is in,
// so QML can test the result in place.
class AmplitudeApi : public QObject
{
    Q_OBJECT
    QML_ELEMENT

public:
    explicit AmplitudeApi(QObject *parent = nullptr);

    Q_INVOKABLE bool repairUserIdentity(QString machineId, QString email, QString uniqueId);
    Q_INVOKABLE QVariantMap getUserProfile(QString machineId);
    Q_INVOKABLE bool identify(QString userId, QString deviceId);

signals:
    void setFeatures(QVariantMap features);

public slots:
    void fetchFeatures(QString machineId);

private:
    // What a wait left behind. `alive` false: this object was destroyed while
    // the loop ran, and the caller must return without touching it.
    struct Answer
    {
        bool alive = true;
        std::optional<QByteArray> body;
    };

    // The service address with `path` appended, or an empty URL (logged)
    // when the configuration leaves the service out.
    static QUrl serviceUrl(const QString &base, const char *key, const char *path);

    Answer waitForReply(const QString &id);
    Answer waitForJson(const QString &id, QJsonDocument &document);

    QString apiKey;
    QString secretKey;
    TNetwork *network;
};
