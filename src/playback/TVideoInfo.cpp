#include "playback/TVideoInfo.h"

#include "playback/VideoInfoFetcher.h"
#include "videoio/FFReaderUtils.h"

#include <QJsonDocument>

TVideoInfo::TVideoInfo(QObject *parent)
    : QObject(parent)
{
    m_log.prefix = QStringLiteral("TVideoInfo ");
}

TVideoInfo::~TVideoInfo()
{
    // The fetchers signal this object: they must be done before it goes.
    m_pool.waitForDone();
}

void TVideoInfo::getVideoInfo(QString path, QString uid, QString thumbnailPath, QVariantMap onLoadVideoinfo)
{
    const QMutexLocker lock(&m_mutex);
    m_log.log(QStringLiteral("Passing onLoadVideoInfo to fetcher: ")
              + QString::fromUtf8(QJsonDocument::fromVariant(onLoadVideoinfo).toJson(QJsonDocument::Compact)));
    auto *fetcher = new videoio::VideoInfoFetcher(path, uid, thumbnailPath, onLoadVideoinfo);
    fetcher->setAutoDelete(true);
    connect(fetcher, &videoio::VideoInfoFetcher::videoInfoAvailable, this, &TVideoInfo::videoInfoAvailable);
    connect(fetcher, &videoio::VideoInfoFetcher::readerError, this, &TVideoInfo::readerError);
    m_pool.start(fetcher, 0);
}

bool TVideoInfo::isCodecUsableInContainer(int codecId, QString ext)
{
    return videoio::FFReaderUtils::isCodecUsableInContainer(codecId, ext);
}

QString TVideoInfo::getCodecName(int codecId)
{
    return videoio::FFReaderUtils::getCodecName(codecId);
}
