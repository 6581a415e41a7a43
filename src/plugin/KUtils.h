#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

// General utilities for QML: timecode and frame arithmetic (stateless; the
// frame rate comes with every call).
class KUtils : public QObject
{
    Q_OBJECT

public:
    explicit KUtils(QObject *parent = nullptr);

    Q_INVOKABLE QString convertMsecToSmpte(int millisecond, double frameRate);
    Q_INVOKABLE int convertSmpteTomsec(QString timecode, double frameRate);
    Q_INVOKABLE int convertMsecToFrameCount(int millisecond, double frameRate);
    Q_INVOKABLE int convertFrameCountToMsec(int frameCount, double frameRate);
    Q_INVOKABLE int convertMsToFrameMs(int millisecond, double frameRate);
    Q_INVOKABLE bool isValidSmpteTimecode(QString timecode);

    // The system proxy for the download host, when it is a plain HTTP one, and
    // its store "proxy.json" in the default model folder.
    Q_INVOKABLE QVariantMap detectProxyInfo();
    Q_INVOKABLE void syncProxyInfo(bool enable);
};
