#include "videoio/FrameConverter.h"

#include <QTest>

#include <vector>

using namespace videoio;

namespace {

ff::FramePtr makeFrame(AVPixelFormat format, int width, int height)
{
    ff::FramePtr frame = ff::makeFrame();
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return {};
    // Mid grey in every plane: a valid picture in any of the formats used.
    for (int p = 0; p < AV_NUM_DATA_POINTERS && frame->data[p]; ++p) {
        const int rows = (p == 0 || format == AV_PIX_FMT_YUV444P || format == AV_PIX_FMT_GBRP) ? height
                                                                                              : (height + 1) / 2;
        std::fill_n(frame->data[p], static_cast<size_t>(frame->linesize[p]) * rows, uint8_t(0x80));
    }
    return frame;
}

} // namespace

class tst_FrameConverter : public QObject
{
    Q_OBJECT

private slots:
    // A conversion into a tightly packed buffer must not touch one byte past
    // its last row, whatever the width: the guard is what lets frames be
    // converted straight into a QVideoFrame.
    void conversionsStayInsideTheirBuffer_data()
    {
        QTest::addColumn<int>("source");
        QTest::addColumn<int>("target");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        const QList<QPair<const char *, AVPixelFormat>> sources{
            {"yuv420p", AV_PIX_FMT_YUV420P}, {"yuvj420p", AV_PIX_FMT_YUVJ420P}, {"yuv422p", AV_PIX_FMT_YUV422P},
            {"yuv444p", AV_PIX_FMT_YUV444P}, {"nv12", AV_PIX_FMT_NV12}, {"rgb24", AV_PIX_FMT_RGB24}};
        const QList<QPair<const char *, AVPixelFormat>> targets{{"rgb0", AV_PIX_FMT_RGB0},
                                                                {"bgr24", AV_PIX_FMT_BGR24}};
        for (const auto &[sname, s] : sources) {
            for (const auto &[tname, t] : targets) {
                for (const int width : {642, 17, 2, 1922}) {
                    QTest::addRow("%s to %s, %d wide", sname, tname, width) << int(s) << int(t) << width << 36;
                }
            }
        }
    }
    void conversionsStayInsideTheirBuffer()
    {
        QFETCH(int, source);
        QFETCH(int, target);
        QFETCH(int, width);
        QFETCH(int, height);
        const ff::FramePtr frame = makeFrame(AVPixelFormat(source), width, height);
        QVERIFY(frame);
        const int bytesPerPixel = target == AV_PIX_FMT_RGB0 ? 4 : 3;
        const int stride = width * bytesPerPixel;
        constexpr size_t kGuard = 256;
        std::vector<uint8_t> buffer(static_cast<size_t>(stride) * height + kGuard, 0xA5);
        FrameConverter converter;
        QVERIFY(converter.convert(frame.get(), buffer.data(), stride, width, height, AVPixelFormat(target)));
        for (size_t i = buffer.size() - kGuard; i < buffer.size(); ++i)
            QVERIFY2(buffer[i] == 0xA5, qPrintable(QStringLiteral("written %1 bytes past the end")
                                                       .arg(i - (buffer.size() - kGuard) + 1)));
    }

    void theYuvMatrixFollowsTheTagOrTheSize_data()
    {
        QTest::addColumn<int>("colorspace");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("matrix");
        QTest::newRow("untagged HD is BT.709") << int(AVCOL_SPC_UNSPECIFIED) << 720 << SWS_CS_ITU709;
        QTest::newRow("untagged SD is BT.601") << int(AVCOL_SPC_UNSPECIFIED) << 576 << SWS_CS_ITU601;
        QTest::newRow("tagged SD BT.709 stays") << int(AVCOL_SPC_BT709) << 480 << SWS_CS_ITU709;
        QTest::newRow("tagged HD BT.601 stays") << int(AVCOL_SPC_SMPTE170M) << 1080 << SWS_CS_ITU601;
        QTest::newRow("BT.2020") << int(AVCOL_SPC_BT2020_NCL) << 2160 << SWS_CS_BT2020;
    }
    void theYuvMatrixFollowsTheTagOrTheSize()
    {
        QFETCH(int, colorspace);
        QFETCH(int, height);
        QFETCH(int, matrix);
        ff::FramePtr frame = ff::makeFrame();
        frame->height = height;
        frame->colorspace = AVColorSpace(colorspace);
        QCOMPARE(FrameConverter::sourceMatrix(frame.get()), matrix);
    }

    // Pure red in limited-range BT.709 YUV must come out as red on the HD path.
    void hdRedComesOutRed()
    {
        ff::FramePtr frame = makeFrame(AV_PIX_FMT_YUV420P, 1280, 720);
        QVERIFY(frame);
        const auto fill = [&](int plane, uint8_t value, int rows) {
            std::fill_n(frame->data[plane], static_cast<size_t>(frame->linesize[plane]) * rows, value);
        };
        fill(0, 63, 720);
        fill(1, 102, 360);
        fill(2, 240, 360);
        FrameConverter converter;
        const cv::Mat bgr = converter.toBgr(frame.get(), 64, 36);
        QVERIFY(!bgr.empty());
        const cv::Vec3b pixel = bgr.at<cv::Vec3b>(10, 10);
        QVERIFY2(pixel[2] >= 250 && pixel[1] <= 6 && pixel[0] <= 6,
                 qPrintable(QStringLiteral("%1 %2 %3").arg(pixel[2]).arg(pixel[1]).arg(pixel[0])));
    }
};

QTEST_GUILESS_MAIN(tst_FrameConverter)
#include "tst_FrameConverter.moc"
