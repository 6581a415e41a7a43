#include "timeline/SyncView.h"

#include "playback/SyncMath.h"
#include "playback/ViewNode.h"
#include "videoio/Reader.h"
#include "videoio/VideoManager.h"

#include <QElapsedTimer>

#include <algorithm>

namespace videoplayer {

SyncView::SyncView(ViewNode *first, ViewNode *second)
    : m_first(first)
    , m_second(second)
{
    log.prefix = QStringLiteral("SyncView ===---");
}

PlayableNode *SyncView::nodeA()
{
    return m_a ? &*m_a : nullptr;
}

PlayableNode *SyncView::nodeB()
{
    return m_b ? &*m_b : nullptr;
}

const std::vector<std::shared_ptr<videoio::Reader>> &SyncView::readers() const
{
    return m_readers;
}

void SyncView::initPlayNodes()
{
    const QString rule(20, QLatin1Char('='));
    m_a.emplace(m_first, timestamp);
    m_b.emplace(m_second, timestamp);
    m_readers.clear();
    log.toggleTag(QStringLiteral("[timelines]"));
    log.log(QStringLiteral("Beg ") + rule);

    QElapsedTimer total;
    total.start();
    QElapsedTimer timer;
    timer.start();
    initPlayNodesDynamic(*m_b);
    log.log(QStringLiteral("[timelines] initPlayNodesDynamic for B done in \t%1").arg(timer.elapsed()));
    timer.restart();
    initPlayNodesDynamic(*m_a);
    log.log(QStringLiteral("[timelines] initPlayNodesDynamic for A done in \t%1").arg(timer.elapsed()));
    log.log(QStringLiteral("[timelines] initPlayNodes for A done in \t%1").arg(total.elapsed()));

    m_b->sync();
    m_a->sync();

    // A check only: both positions are read at this moment and nothing moves.
    for (const auto &reader : m_readers) {
        log.log([&] {
            return QStringLiteral("Checking Resetting: %1 FROM %2 to %3")
                .arg(reader->getFile())
                .arg(reader->position())
                .arg(reader->position());
        });
    }
    log.log(QStringLiteral("End ") + rule);
    log.toggleTag(QStringLiteral("[timelines]"));
}

void SyncView::initPlayNodesDynamic(PlayableNode &node)
{
    const std::shared_ptr<Timeline> timeline = node.view ? node.view->timeline : nullptr;
    if (!timeline) {
        log.log(QStringLiteral("A view without a timeline has nothing to play"), ConsoleLogger::Warn);
        return;
    }
    const RData &order = timeline->getRData(timestamp);
    node.videos = order.videos;
    node.ranges = order.ranges;
    if (node.videos.empty() || node.ranges.size() != node.videos.size()) {
        log.log(QStringLiteral("The timeline has no stretches to play"), ConsoleLogger::Warn);
        node.videos.clear();
        node.ranges.clear();
        return;
    }
    node.index = order.index < static_cast<int>(node.videos.size()) ? order.index : 0;
    node.currentVideo = node.videos[static_cast<std::size_t>(node.index)];
    node.playNodes.clear();
    for (const auto &video : node.videos)
        node.playNodes.push_back(readerFor(video, video == timeline->input));

    if (node.playNodes[static_cast<std::size_t>(node.index)]->isPreviewReader())
        return;
    for (auto i = static_cast<std::size_t>(node.index); i < node.playNodes.size(); ++i) {
        const auto &reader = node.playNodes[i];
        if (!reader->isPreviewReader())
            continue;
        const Video &preview = *node.videos[i];
        reader->seek(syncmath::inputToFile(node.ranges[i].first, preview.startOffset, preview.slowmotion), false);
        break;
    }
}

std::shared_ptr<videoio::Reader> SyncView::readerFor(const std::shared_ptr<Video> &video, bool isInput)
{
    const QString path = QString::fromStdString(video->filepath);
    std::shared_ptr<videoio::Reader> reader = isInput ? videoio::VideoManager::GetReader(path)
                                                      : videoio::VideoManager::GetPreviewReader(path, video->slowmotion);
    if (std::find(m_readers.begin(), m_readers.end(), reader) == m_readers.end())
        m_readers.push_back(reader);
    return reader;
}

} // namespace videoplayer
