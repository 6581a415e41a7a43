#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/Video.h"

#include <QPoint>

#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

namespace videoplayer {

// The run of stretches of a timeline. `ranges` and `videos` are parallel and
// sorted by the y of `ranges`; `index` is the stretch of the last position asked for.
struct RData
{
    std::vector<TimeRange> ranges;
    std::vector<std::shared_ptr<Video>> videos;
    int index = 0;
};

// Which file shows at each millisecond of one input: the input, cut into
// stretches where previews are laid over it. No lock: it changes only on the
// player's worker.
class Timeline
{
public:
    Timeline();

    void setInput(std::shared_ptr<Video> video);
    void addVideo(std::shared_ptr<Video> video);
    void deletePreview(UID uid);
    void clear();

    std::vector<std::shared_ptr<Video>> getVideos() const;
    std::shared_ptr<Video> getPreviewAt(TSType ts) const;
    std::vector<QPoint> getPreviewRanges() const;
    // Sorts, points `index` at the stretch of `ts` and hands out the run itself.
    RData &getRData(TSType ts);

    RData rData;
    std::shared_ptr<Video> input;
    bool isDefaultTimeline = true;
    std::set<TSType> startTimes;
    std::map<TSType, std::shared_ptr<Video>> videosByStart;
    std::unordered_map<std::shared_ptr<Video>, TimeRange> rangeByVideo;
    std::unordered_map<UID, std::shared_ptr<Video>> videosByUID;
    ConsoleLogger log;

private:
    void _appendToRData(std::shared_ptr<Video> video);
    void _appendToRData(const std::shared_ptr<Video> &video, int &reappendsLeft);
    void _removeFromRData(std::shared_ptr<Video> video);
    void _sortRData();

    void insertPiece(TimeRange range, const std::shared_ptr<Video> &owner, std::size_t at);
    void forceLastStretchToInputEnd();
    bool isInput(const std::shared_ptr<Video> &video) const;
    bool showsPreview(const Video &video) const;
    void logStretches(const QString &rangesLabel, const QString &videosLabel, bool withFrames) const;
};

} // namespace videoplayer
