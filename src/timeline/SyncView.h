#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/PlayableNode.h"

#include <memory>
#include <optional>
#include <vector>

namespace videoplayer {

class ViewNode;

// Holds the two views of synchronised playback on one position of the input:
// one PlayableNode per view, each with a reader per stretch of its timeline.
// Nodes are made anew by every initPlayNodes; the readers are shared through
// videoio::VideoManager and outlive them. Runs on one thread.
class SyncView
{
public:
    SyncView(ViewNode *first, ViewNode *second);

    // Builds node A on the first view and B on the second at `timestamp`,
    // readies the readers and syncs both views.
    void initPlayNodes();

    // The position on the input's axis that initPlayNodes starts from.
    TSType timestamp = 0;

    // Null before the first initPlayNodes.
    PlayableNode *nodeA();
    PlayableNode *nodeB();
    // Every reader of both nodes, each once.
    const std::vector<std::shared_ptr<videoio::Reader>> &readers() const;

private:
    // Takes the node's stretches at `timestamp` and, when the stretch in play
    // is not a preview, puts the next preview's reader on its first frame so
    // that it is ready when the input reaches it.
    void initPlayNodesDynamic(PlayableNode &node);
    std::shared_ptr<videoio::Reader> readerFor(const std::shared_ptr<Video> &video, bool isInput);

    ViewNode *m_first;
    ViewNode *m_second;
    std::optional<PlayableNode> m_a;
    std::optional<PlayableNode> m_b;
    std::vector<std::shared_ptr<videoio::Reader>> m_readers;
    ConsoleLogger log;
};

} // namespace videoplayer
