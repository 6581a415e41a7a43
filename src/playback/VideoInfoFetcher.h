#pragma once

#include "timeline/ConsoleLogger.h"

#include <QObject>
#include <QRunnable>
#include <QString>
#include <QVariantMap>

namespace videoio {

// One info request of TVideoInfo: opens the file on a pool thread, stores its
// first thumbnail and reports the info map by signal.
class VideoInfoFetcher : public QObject, public QRunnable
{
    Q_OBJECT

public:
    VideoInfoFetcher(QString path, QString uid, QString thumbnailPath, QVariantMap info);

    void run() override;

    const QString path;
    const QString uid;
    const QString thumbnailPath;
    const QVariantMap info;

signals:
    void videoInfoAvailable(QString path, QVariantMap videoInfo);
    void readerError(QString path, QString message);

private:
    ConsoleLogger log;
};

} // namespace videoio
