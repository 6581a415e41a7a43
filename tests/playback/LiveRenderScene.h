#pragma once

// The live-render scene the demo wires (player, two panes, LiveRender.qml) with
// two reference panes below, and the picture comparison that judges them;
// shared by the live-render test and the on-screen benchmark.

#include <QByteArray>
#include <QImage>

#include <cmath>

namespace liverenderscene {

// %1: the demo's QML folder. The lower panes show reference files.
inline const QByteArray kScene = R"(
import QtQuick
import QtQuick.Window
import kutils 1.0
import "%1"
Window {
    width: 640; height: 480; visible: true; color: "black"
    property alias player: player
    property alias live: live
    MPVObject { id: left; x: 0; y: 0; width: 320; height: 240 }
    MPVObject { id: right; x: 320; y: 0; width: 320; height: 240 }
    MPVObject { objectName: "refLeft"; x: 0; y: 240; width: 320; height: 240 }
    MPVObject { objectName: "refRight"; x: 320; y: 240; width: 320; height: 240 }
    VideoPlayer { id: player; m_mpvs: [left, right] }
    LiveRender { id: live; player: player; previewSet: 5; fps: 25 }
    function open(input, duration) {
        player.addInput(1, 0, input, duration, 25.0, 1.0, true, { duration: duration, fps: 25.0 })
        player.setPreviewSet(1, 5)
        live.inputPath = input
        live.inputUid = 1
    }
}
)";

// Peak signal to noise of two pictures of equal size, in dB over RGB.
inline double psnr(const QImage &first, const QImage &second)
{
    const QImage a = first.convertToFormat(QImage::Format_RGB32);
    const QImage b = second.convertToFormat(QImage::Format_RGB32);
    double squared = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto *p = reinterpret_cast<const QRgb *>(a.constScanLine(y));
        const auto *q = reinterpret_cast<const QRgb *>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            for (const int d : {qRed(p[x]) - qRed(q[x]), qGreen(p[x]) - qGreen(q[x]), qBlue(p[x]) - qBlue(q[x])})
                squared += d * d;
        }
    }
    const double mse = squared / (3.0 * a.width() * a.height());
    return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

} // namespace liverenderscene
