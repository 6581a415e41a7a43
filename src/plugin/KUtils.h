#pragma once

#include <QObject>
#include <QString>

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
};
