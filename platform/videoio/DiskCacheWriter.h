#pragma once

#include "videoio/FFHandles.h"
#include "videoio/InstantReader.h"

#include <QObject>
#include <QPoint>
#include <QString>
#include <QTimer>
#include <QVariantMap>

#include <memory>
#include <vector>

namespace videoio {

// Writes the preview buffers of one view to video files, so that a live
// render becomes a preview the player can load. Lives on a worker thread of
// its own; buffers arrive through queued onAddtoCacheQueue calls.
//
// Constructor arguments:
// - viewID: the view whose buffers it takes; buffers of other views are refused;
// - options: "encoder" (an FFmpeg encoder name; by default utvideo when it
//   takes the pictures' format as it is, else ffv1: lossless and intra-only,
//   so any frame of the file can be shown at once) and "extension" (the
//   container, default "mkv");
// - folder: where the files go, the system's temporary folder
//   (kutils-live-cache) when empty;
// - cachedRanges: when not null, the writer appends the range of every file it
//   writes; the vector is the caller's, touched on the writer's thread only.
//
// A file is named <folder>/<source base name>_v<view>_<first>-<last>_<n>.<ext>,
// the range in ms; its pictures keep the timing the chunk gives them, so a
// slowed chain makes a longer file. A range already written with the same
// chain is not written again until onClearcachedRangeReqAndHistory forgets
// what was written: the file on disk is announced again instead. Files of
// the same pictures share one encoder while it gives a key packet for each,
// kept kEncoderIdleMs after the last file.
class DiskCacheWriter : public QObject
{
    Q_OBJECT
public:
    // How long the encoder of the last file is kept for the next one.
    static constexpr int kEncoderIdleMs = 3000;

    DiskCacheWriter(int viewID, const QVariantMap &options, const QString &folder,
                    std::vector<QPoint> *cachedRanges, QObject *parent = nullptr);

    QString folder() const { return m_folder; }

public slots:
    // Takes what InstantReader::previewBufferReady carries.
    void onAddtoCacheQueue(QString path, videoio::FrameBuffer frames, QPoint range, int viewID, double fps,
                           videoio::PreviewChunk chunk);
    // Forgets the ranges written for `viewID` (-1 for any view).
    void onClearcachedRangeReqAndHistory(int viewID);

signals:
    void cacheReadyToLoad(QString file, QPoint range, int viewID);
    // The same, with what the chunk carried.
    void chunkCached(QString file, QPoint range, int viewID, videoio::PreviewChunk chunk);
    // `ret` is the FFmpeg error code of the failure.
    void cacheError(QString path, QString message, int ret);

private:
    // The encoder of the last file, kept for the next one of the same pictures.
    struct OpenEncoder
    {
        ff::CodecPtr context;
        int source = -1;  // the pixel format it was opened for
        AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
        AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
        ff::FramePtr converted;
        ff::SwsPtr sws;

        bool fits(const AVFrame &frame) const;
        // `frame` in the encoder's size and format; null and `error` on failure.
        const AVFrame *convert(const AVFrame &frame, int *error);
    };

    // Encodes `frames` into `file`; an FFmpeg error code and `error` on failure.
    int write(const QString &file, const std::vector<std::shared_ptr<AVFrame>> &frames, double fps,
              const PreviewChunk &chunk, QString *error);
    int openEncoder(const AVFrame &first, AVRational rate, bool globalHeader, QString *error);

    const int m_viewID;
    const QString m_encoder;
    const QString m_extension;
    const QString m_folder;
    std::vector<QPoint> *const m_cachedRanges;
    struct Written
    {
        QPoint range;
        std::string chain;
        QString file;
    };
    std::vector<Written> m_written;
    int m_fileCount = 0;
    std::unique_ptr<OpenEncoder> m_open;
    QTimer *const m_idle;
};

} // namespace videoio
