#pragma once

#include <QString>
#include <QVariantMap>

#include <opencv2/core/mat.hpp>

#include <memory>

class QVideoFrame;

namespace videoio {

// A video file, or a numbered image sequence given as a frame pattern, read
// frame by frame. Positions are milliseconds from the first frame. Every
// operation is safe to call from any thread; calls are serialised.
//
// After opening, the reader stands on the first frame. Moving operations return
// whether a frame was reached; when they fail the current frame stays.
class Reader
{
public:
    Reader(const QString &path, bool previewReader);
    virtual ~Reader();

    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    // The video-info map: size, resolution, originalSize, width, height,
    // rotation, originalRotation, sar, fps, duration, timestep,
    // isImageSequence, the four colour codes, and slowMoFactor for previews.
    virtual QVariantMap getInfo() const = 0;
    // Merges `info` key by key into the map. Returns whether anything changed.
    virtual bool updateInfo(const QVariantMap &info) = 0;
    // A step past the last frame failed, or last() was called.
    virtual bool isEOF() const = 0;
    virtual bool isOpen() const = 0;
    // Position of the current frame.
    virtual qlonglong position() const = 0;
    virtual bool first() = 0;
    virtual bool last() = 0;
    // Goes to the frame shown at `ms`: the last one that starts at or before
    // it, the first frame for earlier positions. Frame-exact. `interrupt` lets
    // a newer seek of another thread cut a long one short.
    virtual bool seek(qlonglong ms, bool interrupt) = 0;
    virtual bool next() = 0;
    virtual bool previous() = 0;
    // The current picture, shared without a copy; null before the first frame.
    virtual std::shared_ptr<QVideoFrame> frame() = 0;
    virtual void setLooping(bool looping) = 0;
    // A picture of the frame at `ms` as 8-bit BGR, shown upright (rotation and
    // sample aspect applied) and scaled so that its longer edge is `longEdge`
    // pixels and neither edge is below `minEdge` pixels; the aspect ratio gives
    // way only for pictures thinner than that. Never larger than the file's
    // picture. The reader's current frame stays where it was. Empty on failure.
    virtual cv::Mat thumbnail(float longEdge, int minEdge, qlonglong ms) = 0;
    virtual void close() = 0;
    // A rendered preview, whose info map carries slowMoFactor.
    virtual bool isPreviewReader() const = 0;

    // The path as given, frame pattern included.
    QString getPath() const;
    // The file name part of the path, for log lines.
    QString getFile() const;

    // Whether `path` is a frame pattern of an image sequence: its file name
    // holds a printf number field such as "%d" or "%06d".
    static bool IsImageSequence(const QString &path);

private:
    const QString m_path;

protected:
    const bool m_previewReader;
};

} // namespace videoio
