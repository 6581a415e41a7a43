#pragma once

#include "timeline/Timeline.h"
#include "timeline/Video.h"

#include <QPointF>
#include <QRect>
#include <QVariantMap>

#include <memory>
#include <string>
#include <vector>

class MPVObject;

namespace videoplayer {

class VideoPlayer;

// What the player knows and how it changes: inputs and previews arriving, changing
// and leaving, preview sets, the filters a pane applies to what it shows. Runs
// on the player's worker.
// It works on the player's state, to which it is a friend.
class InputPreviewHandler
{
public:
    explicit InputPreviewHandler(VideoPlayer &player);

    void handleAddInput(const QVariantMap &request);
    void applyFilters(int viewID, const QVariantMap &info, bool reapply);
    void applyFiltersTo(MPVObject &pane, int viewID, const QVariantMap &info, bool reapply);
    void handleAddPreview(const QVariantMap &request);
    void handleReload(const QVariantMap &request);
    void handleUpdateInfo(UID uid, const QVariantMap &newInfo);
    void handleSetPreviewSet(int viewID, PreviewSetUID psUID);
    void handleClosePreview(UID previewUID);
    void handleResetView(int viewID);

private:
    VideoPlayer &player;
};

} // namespace videoplayer
