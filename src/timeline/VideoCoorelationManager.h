#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/Timeline.h"

#include <QObject>

#include <memory>
#include <unordered_map>
#include <vector>

class QVideoSink;

namespace videoplayer {

// The wider registry: several inputs, each with its preview sets and their
// timelines. Timelines are held by value here.
class VideoCoorelationManager : public QObject
{
    Q_OBJECT

public:
    explicit VideoCoorelationManager(QObject *parent = nullptr);

    // What each view shows: a copy of its timeline and the sink made for it.
    struct ViewState
    {
        Timeline timeline;
        std::shared_ptr<QVideoSink> sink;
    };

    void addInput(std::shared_ptr<Video> video);
    void addPreview(PreviewSetUID psUID, UID inputUID, std::shared_ptr<Video> video);
    void addPreview(PreviewSetUID psUID, std::shared_ptr<Video> video);
    void deleteInput(UID inputUID);
    void deletePreview(UID uid);
    void deletePreview(UID inputUID, UID previewUID, PreviewSetUID psUID);
    // Never fails: a missing timeline is the process-wide empty one.
    Timeline &getTimeline(UID inputUID, PreviewSetUID psUID);
    Timeline &getTimeline(PreviewSetUID psUID);
    void switchInput(UID uid);

    // The timeline handed out when nothing is found.
    static Timeline &emptyTimeline();

    std::shared_ptr<Video> currentInput;
    std::unordered_map<UID, std::shared_ptr<Video>> inputs;
    std::unordered_map<UID, std::unordered_map<PreviewSetUID, Timeline>> timelines;
    std::unordered_map<UID, std::unordered_map<PreviewSetUID, std::vector<std::shared_ptr<Video>>>> previewSets;
    std::unordered_map<int, ViewState> viewStates;
    std::unordered_map<UID, std::shared_ptr<Video>> previews;
    ConsoleLogger log;
};

} // namespace videoplayer
