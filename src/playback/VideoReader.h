#pragma once

#include "timeline/ConsoleLogger.h"

#include <QMutex>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <QVideoFrame>

#include <atomic>
#include <memory>

namespace videoio {

class Reader;

// The file side of a TVideoView: lives on the view's own thread and does all
// opening, decoding and thumbnailing there. Only seek() is called directly
// from the UI thread; it merely records the newest wanted position.
class VideoReader : public QObject
{
    Q_OBJECT

public:
    explicit VideoReader(QObject *parent = nullptr);
    ~VideoReader() override;

signals:
    void seekReq();
    void videoInfo(QVariantMap info);
    void readerError(QString message);
    void frameAvailable(std::shared_ptr<QVideoFrame> pFrame, qlonglong timestamp, bool isEOF);

public slots:
    void open(QString filepath, qlonglong timestamp);
    void updateVideoInfo(QVariantMap info);
    void first();
    void prev();
    void seek(qlonglong ms);
    void doSeek();
    void next();
    void last();
    void close();
    void reload(QString path, qlonglong timestamp);
    void updateThumbnail(QString uid, QString oldThumbnail, QString thumbnailPath, qlonglong timestamp);
    void setLooping(bool looping);

private:
    void load(qlonglong timestamp);
    void deliverFrame();
    bool isReaderOpen() const;

    QMutex mutex;
    QString path;
    std::shared_ptr<Reader> reader;
    std::atomic<qlonglong> pendingSeek{-1};
    bool looping = true;
    ConsoleLogger log;
};

} // namespace videoio
