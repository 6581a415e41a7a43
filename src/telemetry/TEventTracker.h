#pragma once

#include "telemetry/AmplitudeApi.h"

#include <QNetworkReply>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>

class TNetwork;

// Usage events for the event collector, and feature flags.
class TEventTracker : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(bool enabled READ isEnabled WRITE setEnabled NOTIFY enabledChanged)
    Q_PROPERTY(QString uniqueId READ getUniqueId WRITE setUniqueId)
    Q_PROPERTY(QVariantMap features READ getFeaturesMap WRITE writeFeatures NOTIFY featuresChanged)

public:
    explicit TEventTracker(QObject *parent = nullptr);

    Q_INVOKABLE QString track(QString identifier, QVariantMap params);
    Q_INVOKABLE QString track(QString identifier);

    bool isEnabled() const { return enabled; }
    void setEnabled(bool value);
    QString getUniqueId() const { return uniqueId; }
    void setUniqueId(const QString &value) { uniqueId = value; }
    QVariantMap getFeaturesMap() const { return features; }
    void writeFeatures(const QVariantMap &value);

signals:
    void enabledChanged();
    void requestFinished(QString id);
    // Emitted by QML; the flags are fetched before the emission returns.
    void getFeatures(QString machineId);
    void featuresChanged();

public slots:
    void handleReply(QString id, QNetworkReply *reply);
    void setFeatures(QVariantMap features);

private:
    TNetwork *network;
    AmplitudeApi amplitude;
    QVariantMap features;
    QString writeKey;
    bool enabled = false;
    QString uniqueId;
};
