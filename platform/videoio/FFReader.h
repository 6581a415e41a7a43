#pragma once

#include "videoio/FFHandles.h"
#include "videoio/FrameConverter.h"
#include "videoio/Reader.h"

#include <atomic>
#include <mutex>

namespace videoio {

// The FFmpeg implementation of Reader: one demuxer and one decoder of the
// file's first video stream.
//
// Seeking is frame-exact on every container: it seeks back to a key packet,
// decodes forward, and only accepts pictures from that key packet on, since
// leading pictures of an open GOP refer to the GOP before and come out broken.
// When the first accepted picture already lies past the target (a demuxer
// that lands late, as MPEG-TS does, or an open GOP) it seeks back further,
// doubling the margin, until it reaches the start of the file.
class FFReader final : public Reader
{
public:
    FFReader(const QString &path, bool previewReader = false);
    ~FFReader() override;

    QVariantMap getInfo() const override;
    bool updateInfo(const QVariantMap &info) override;
    bool isEOF() const override;
    bool isOpen() const override;
    qlonglong position() const override;
    bool first() override;
    bool last() override;
    bool seek(qlonglong ms, bool interrupt) override;
    bool next() override;
    bool previous() override;
    std::shared_ptr<QVideoFrame> frame() override;
    void setLooping(bool looping) override;
    cv::Mat thumbnail(float longEdge, int minEdge, qlonglong ms) override;
    void close() override;
    bool isPreviewReader() const override;

    // The decoder's own current picture, sharing its buffers (no copy, no
    // conversion), with its position in ms as pts; null before the first frame.
    ff::FramePtr decodedFrame() const;
    // The length of one picture in ms.
    double frameDurationMs() const;

private:
    bool open();
    void closeLocked();
    QVariantMap describe() const;

    // The next picture in display order, from the look-ahead first.
    ff::FramePtr decodeNext();
    // Reads packets until the decoder gives a picture. False at the end.
    bool receive(AVFrame *out);
    // Makes the picture shown at stream time `target` current.
    bool seekToPts(int64_t target, int serial);
    // Positions the demuxer at or before `target`, or at byte 0 with `rewind`.
    bool seekDemuxer(int64_t target, bool rewind);
    void setCurrent(ff::FramePtr frame);

    int64_t ptsOf(const AVFrame *frame) const;
    int64_t toPts(qlonglong ms) const;
    qlonglong toMs(int64_t pts) const;

    mutable std::mutex m_mutex;
    ff::InputPtr m_input;
    ff::CodecPtr m_decoder;
    ff::PacketPtr m_packet;
    int m_stream = -1;
    AVRational m_timeBase{1, 1};
    int64_t m_startPts = 0;
    int64_t m_lastPts = 0;        // estimate of the last picture's time
    int64_t m_frameDuration = 1;  // in stream time
    bool m_canByteSeek = true;

    bool m_demuxEnded = false;
    bool m_waitForKey = false;
    int64_t m_minPts = AV_NOPTS_VALUE;  // first acceptable picture after a seek
    ff::FramePtr m_lookahead;

    ff::FramePtr m_current;
    int64_t m_currentPts = AV_NOPTS_VALUE;
    std::shared_ptr<QVideoFrame> m_currentVideo;
    bool m_eof = false;
    bool m_looping = true;
    bool m_registered = false;

    FrameConverter m_converter;
    QVariantMap m_info;
    std::atomic<int> m_seekSerial{0};
};

} // namespace videoio
