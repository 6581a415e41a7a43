#pragma once

#include <QImage>
#include <QObject>
#include <QRect>
#include <QSize>
#include <QString>
#include <QValidator> // complete, so QML can pass a validator to callValidate
#include <QVariantList>
#include <QVariantMap>

// General utilities for QML: timecode and frame arithmetic (stateless; the
// frame rate comes with every call), and what the front end needs to know of
// the machine, with a few actions on the application and the system.
class KUtils : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int maxProcesses READ maxProcesses CONSTANT)
    Q_PROPERTY(QVariantMap modelsInfo READ modelsInfo CONSTANT)

public:
    explicit KUtils(QObject *parent = nullptr);

    int maxProcesses() const;
    QVariantMap modelsInfo() const;

    Q_INVOKABLE QString convertMsecToSmpte(int millisecond, double frameRate);
    Q_INVOKABLE int convertSmpteTomsec(QString timecode, double frameRate);
    Q_INVOKABLE int convertMsecToFrameCount(int millisecond, double frameRate);
    Q_INVOKABLE int convertFrameCountToMsec(int frameCount, double frameRate);
    Q_INVOKABLE int convertMsToFrameMs(int millisecond, double frameRate);
    Q_INVOKABLE bool isValidSmpteTimecode(QString timecode);

    Q_INVOKABLE QSize imageSize(QImage qimage);
    Q_INVOKABLE bool isEmpty(QImage qimage);
    Q_INVOKABLE bool isEmpty(QRect rect);
    Q_INVOKABLE int callValidate(const QValidator *validator, QString text, int pos);

    Q_INVOKABLE void setEnv(QString name, QString value);
    Q_INVOKABLE QString getEnv(QString name);
    Q_INVOKABLE void setDiskSpaceThreshold(int gbValue);
    Q_INVOKABLE void setDiskSpaceThreshold();
    Q_INVOKABLE void processEvents();

    Q_INVOKABLE QString fetchMachineId();
    Q_INVOKABLE QVariantList fetchDeviceList();
    Q_INVOKABLE QString getFriendlyName();
    Q_INVOKABLE float osVersion();
    Q_INVOKABLE QString osVersionString();

    Q_INVOKABLE void enableSleep();
    Q_INVOKABLE void disableSleep();
    Q_INVOKABLE void openTerminal();
    Q_INVOKABLE void restartApp();
    Q_INVOKABLE bool accessLibraryMacOS();
    Q_INVOKABLE void clearSettings();
    Q_INVOKABLE QString systemInfo();

    Q_INVOKABLE bool isWindows();
    Q_INVOKABLE bool isMac();
    Q_INVOKABLE bool isApple();
    Q_INVOKABLE QString getCpuName();
    Q_INVOKABLE double getCpuSize();
    Q_INVOKABLE QVariantList getGpuNames();
    Q_INVOKABLE QVariantList getGpuSizes();
    Q_INVOKABLE QVariantList getGpuCudaIds();

    Q_INVOKABLE int checkDiskSpace(QString path);
    Q_INVOKABLE quint64 getDiskSpace(QString path);
    Q_INVOKABLE QString jwtDecode(QString jwt);

    // The system proxy for the download host, when it is a plain HTTP one, and
    // its store "proxy.json" in the default model folder.
    Q_INVOKABLE QVariantMap detectProxyInfo();
    Q_INVOKABLE void syncProxyInfo(bool enable);

protected:
    // Bytes free where `path` lies; a seam for the threshold tests.
    virtual quint64 availableBytes(const QString &path);

private:
    int m_maxProcesses = 1;
    qint64 diskSpaceThresholdGb = 10;
    QVariantMap m_modelsInfo;
};
