#pragma once

#include "timeline/ConsoleLogger.h"

#include <QMutex>
#include <QObject>
#include <QThreadPool>
#include <QVariantMap>

// Reads a video's information map and thumbnail away from the UI thread, one
// pool task per request.
class TVideoInfo : public QObject
{
    Q_OBJECT

public:
    explicit TVideoInfo(QObject *parent = nullptr);
    ~TVideoInfo() override;

signals:
    void videoInfoAvailable(QString path, QVariantMap videoInfo);
    void readerError(QString path, QString message);

public slots:
    void getVideoInfo(QString path, QString uid, QString thumbnailPath, QVariantMap onLoadVideoinfo);
    bool isCodecUsableInContainer(int codecId, QString ext);
    QString getCodecName(int codecId);

private:
    QMutex m_mutex;
    QThreadPool m_pool;
    ConsoleLogger m_log;
};
