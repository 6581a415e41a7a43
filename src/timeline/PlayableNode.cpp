#include "timeline/PlayableNode.h"

#include "playback/SyncMath.h"
#include "playback/ViewNode.h"

namespace videoplayer {

PlayableNode::PlayableNode(ViewNode *node, TSType timestamp)
    : view(node)
    , timelineTimestamp(timestamp)
{
    log.prefix = QStringLiteral("PlayableNode ===!!!***");
}

void PlayableNode::sync()
{
    if (!view || !currentVideo) {
        log.log(QStringLiteral("Nothing to sync: the timeline has no video at %1").arg(timelineTimestamp),
                ConsoleLogger::Warn);
        return;
    }
    view->currentVideo = currentVideo;
    view->updateInfoFromVideo(currentVideo);
    const TSType before = videoTimestamp;
    const TSType position = syncmath::syncViewPosition(timelineTimestamp, currentVideo->startOffset, view->slowMotion);
    view->seekTo(position);
    videoTimestamp = position;
    log.log(QStringLiteral("SyncView moved timestamp %1->%2").arg(before).arg(position));
    timelineTimestamp = currentVideo->startOffset + videoTimestamp;
}

} // namespace videoplayer
