#pragma once

#include "playback/ViewNode.h"
#include "timeline/ConsoleLogger.h"

#include <QHash>
#include <QVariantMap>

#include <array>
#include <mutex>
#include <utility>
#include <vector>

namespace videoplayer {

// The panes as a group: names for them, and the operations that must touch
// several panes in one critical section, so QML never sees them half updated.
// The nodes belong to the player; the manager only points at them.
class ViewNodeManager
{
public:
    using Callback = ViewNode::Callback;

    // The callbacks go to the nodes -1, 0 and 1: after a timestamp, after an info.
    ViewNodeManager(const QHash<int, ViewNode *> &views, std::mutex *timestampMutex, std::mutex *infoMutex,
                    Callback inputTimestampChanged, Callback inputInfoChanged, Callback leftTimestampChanged,
                    Callback leftInfoChanged, Callback rightTimestampChanged, Callback rightInfoChanged);
    void init(const QHash<int, ViewNode *> &views, std::mutex *timestampMutex, std::mutex *infoMutex,
              Callback inputTimestampChanged, Callback inputInfoChanged, Callback leftTimestampChanged,
              Callback leftInfoChanged, Callback rightTimestampChanged, Callback rightInfoChanged);

    void resetOne(int viewID, bool flag);
    void resetAll();
    // Puts one pane on the input's time, when its video covers that time.
    void syncOne(int viewID, bool flag);
    void syncAll();
    void updateInfoFromVideos();
    void setInfos(const std::vector<std::pair<QVariantMap, int>> &infos);
    void setTimestamps(const std::vector<std::pair<qint64, int>> &timestamps);
    void setAllTimestamps(qint64 timestamp);

    QHash<int, ViewNode *> views;
    ViewNode *left = nullptr;
    ViewNode *right = nullptr;
    ViewNode *input = nullptr;
    int numberOfViews = 0;
    std::mutex *timestampMutex = nullptr;
    std::mutex *infoMutex = nullptr;
    ConsoleLogger log;

private:
    void assign(const QHash<int, ViewNode *> &views, std::mutex *timestampMutex, std::mutex *infoMutex,
                const std::array<Callback, 6> &callbacks);
    static void call(const Callback &callback);
};

} // namespace videoplayer
