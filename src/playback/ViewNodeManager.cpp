#include "playback/ViewNodeManager.h"

#include "playback/SyncMath.h"

namespace videoplayer {

ViewNodeManager::ViewNodeManager(const QHash<int, ViewNode *> &nodes, std::mutex *tsMutex, std::mutex *infMutex,
                                 Callback inputTimestampChanged, Callback inputInfoChanged,
                                 Callback leftTimestampChanged, Callback leftInfoChanged,
                                 Callback rightTimestampChanged, Callback rightInfoChanged)
{
    log.prefix = QStringLiteral("ViewNodeManager ===---<->");
    assign(nodes, tsMutex, infMutex,
           {std::move(inputTimestampChanged), std::move(inputInfoChanged), std::move(leftTimestampChanged),
            std::move(leftInfoChanged), std::move(rightTimestampChanged), std::move(rightInfoChanged)});
    log.log(QStringLiteral("Starting ViewNodeManager!"));
}

void ViewNodeManager::init(const QHash<int, ViewNode *> &nodes, std::mutex *tsMutex, std::mutex *infMutex,
                           Callback inputTimestampChanged, Callback inputInfoChanged, Callback leftTimestampChanged,
                           Callback leftInfoChanged, Callback rightTimestampChanged, Callback rightInfoChanged)
{
    assign(nodes, tsMutex, infMutex,
           {std::move(inputTimestampChanged), std::move(inputInfoChanged), std::move(leftTimestampChanged),
            std::move(leftInfoChanged), std::move(rightTimestampChanged), std::move(rightInfoChanged)});
    log.log(QStringLiteral("Starting ViewNodeManager via init!"));
}

void ViewNodeManager::assign(const QHash<int, ViewNode *> &nodes, std::mutex *tsMutex, std::mutex *infMutex,
                             const std::array<Callback, 6> &callbacks)
{
    views = nodes;
    timestampMutex = tsMutex;
    infoMutex = infMutex;
    input = views.value(-1);
    left = views.value(0);
    right = views.value(1);
    numberOfViews = static_cast<int>(views.size()) - 1;
    ViewNode *const inOrder[] = {input, left, right};
    for (int i = 0; i < 3; ++i) {
        if (!inOrder[i])
            continue;
        inOrder[i]->timestampChanged = callbacks[static_cast<size_t>(2 * i)];
        inOrder[i]->infoChanged = callbacks[static_cast<size_t>(2 * i + 1)];
    }
}

void ViewNodeManager::call(const Callback &callback)
{
    if (callback)
        callback();
}

void ViewNodeManager::resetOne(int viewID, bool)
{
    if (viewID == -1)
        return;
    if (!views.value(viewID) || !input)
        return;
    // Only the trace remains here: returning the pane to the input is the
    // caller's work.
    log.log(QStringLiteral("resetOne(") + (viewID == 0 ? QStringLiteral("LEFT)") : QStringLiteral("RIGHT)")));
}

void ViewNodeManager::resetAll()
{
    for (int view = 0; view < numberOfViews; ++view)
        resetOne(view, true);
}

void ViewNodeManager::syncOne(int viewID, bool)
{
    ViewNode *node = views.value(viewID);
    if (node && input) {
        const qint64 t = input->getTimestamp();
        const qint64 position = syncmath::syncOnePosition(t, node->frameRange.first, node->slowMotion);
        if (node->frameRange.first <= t && t <= node->frameRange.second)
            node->seekTo(position);
    }
    resetOne(viewID, true);
}

void ViewNodeManager::syncAll()
{
    syncOne(0, false);
    syncOne(1, false);
}

void ViewNodeManager::updateInfoFromVideos()
{
    const std::lock_guard lock(*infoMutex);
    for (ViewNode *node : std::as_const(views)) {
        if (!node)
            continue;
        // The node's own update would take the info mutex again; the fields are
        // written here under the lock that is already held.
        if (node->currentVideo) {
            node->info = node->currentVideo->info;
            node->takeVideoFields(node->currentVideo);
        } else {
            node->log.log(QStringLiteral("->->-> Failed updateInfoFromVideo in ViewNode in \t"),
                          ConsoleLogger::Critical);
        }
        call(node->infoChanged);
    }
}

void ViewNodeManager::setInfos(const std::vector<std::pair<QVariantMap, int>> &infos)
{
    const std::lock_guard lock(*infoMutex);
    for (const auto &[newInfo, viewID] : infos) {
        ViewNode *node = views.value(viewID);
        if (!node)
            continue;
        const QVariantMap old = node->info;
        node->info = newInfo;
        // Unlike a single node's setInfo, the callback runs inside the lock.
        if (old != newInfo)
            call(node->infoChanged);
    }
}

void ViewNodeManager::setTimestamps(const std::vector<std::pair<qint64, int>> &timestamps)
{
    std::vector<ViewNode *> changed;
    {
        const std::lock_guard lock(*timestampMutex);
        for (const auto &[timestamp, viewID] : timestamps) {
            if (ViewNode *node = views.value(viewID)) {
                node->timestamp = static_cast<int>(timestamp);
                changed.push_back(node);
            }
        }
    }
    for (ViewNode *node : changed)
        call(node->timestampChanged);
}

void ViewNodeManager::setAllTimestamps(qint64 timestamp)
{
    setTimestamps({{timestamp, -1}, {timestamp, 0}, {timestamp, 1}});
}

} // namespace videoplayer
