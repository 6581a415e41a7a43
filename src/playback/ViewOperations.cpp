#include "playback/ViewOperations.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"
#include "playback/VideoPlayer.h"

#include <algorithm>
#include <cmath>
#include <mutex>

namespace videoplayer {

ViewOperations::ViewOperations(VideoPlayer &owner)
    : player(owner)
{
}

QRect ViewOperations::getTransposedROI(int x, int y, int w, int h)
{
    const auto video = player.input();
    if (!video)
        return QRect(x, y, w, h);
    QVariantMap info;
    {
        const std::lock_guard lock(player.infoMutex);
        info = video->info;
    }
    return ::getTransposedROI(x, y, w, h, info);
}

void ViewOperations::setVideoCrop(int x, int y, int w, int h)
{
    if (!player.isOpen)
        return;
    const QRect crop = getTransposedROI(x, y, w, h);
    {
        const std::lock_guard lock(player.stateMutex);
        if (crop == player.videoCrop)
            return;
        player.videoCrop = crop;
    }
    for (int view : {0, 1})
        setVideoCropToView(view, crop.x(), crop.y(), crop.width(), crop.height());
}

void ViewOperations::clearVideoCrop()
{
    {
        const std::lock_guard lock(player.stateMutex);
        player.videoCrop = QRect();
    }
    for (int view : {0, 1})
        clearVideoCropToView(view);
}

void ViewOperations::setVideoCropToView(int viewID, int x, int y, int w, int h)
{
    player.usePane(viewID, [=](MPVObject &pane) { pane.setCrop(x, y, w, h); });
}

void ViewOperations::clearVideoCropToView(int viewID)
{
    player.usePane(viewID, [](MPVObject &pane) { pane.clearCrop(); });
}

void ViewOperations::moveMPVPan(QPointF pos)
{
    player.forEachPane([pos](MPVObject &pane) { pane.movePan(pos); });
}

void ViewOperations::setZoom(double zoom)
{
    player.forEachPane([zoom](MPVObject &pane) { pane.setZoom(zoom); });
}

void ViewOperations::setMute(bool mute)
{
    for (int view : {0, 1})
        setMute(view, mute);
}

void ViewOperations::setMute(int mpvNo, bool mute)
{
    player.usePane(mpvNo, [mute](MPVObject &pane) { pane.setMute(mute); });
}

void ViewOperations::setVolume(int volume)
{
    player.forEachPane([volume](MPVObject &pane) { pane.setVolume(volume); });
}

void ViewOperations::showBlackFrame()
{
    player.forEachPane([](MPVObject &pane) { pane.load(QStringLiteral("."), 0); });
}

} // namespace videoplayer
