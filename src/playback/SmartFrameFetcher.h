#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/Video.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class QVideoFrame;

namespace videoio {
class Reader;
}

namespace videoplayer {

// One picture of a fetch.
struct FetchedFrame
{
    // The stretch ends here: without a loop this repeats the stretch's last
    // picture; with a loop it is the first picture of the next pass.
    bool isEOF = false;
    // The reader's position after reading, in file time.
    TSType timestamp = 0;
    std::shared_ptr<QVideoFrame> frame;
};

// Reads one stretch of a reader ahead on a thread of its own into a small
// buffer, so that a consumer pops pictures at its own pace.
//
// A stretch (x, y) is given in file time, except that a preview reader's y is
// compared with its position divided by its "slowMoFactor"; y -1 leaves the
// stretch open, and a stretch of a plain reader ends only at the file's end.
// The first picture is the one at the start timestamp. Every stretch ends with
// one record marked isEOF.
//
// No call hangs: stopping and destruction wake the producer and every waiting
// consumer, and a consumer of a drained fetcher that can produce no more gets
// a null record. The reader is never read under the fetcher's lock.
//
// The fetch thread runs the virtual operations: a class that overrides them
// stops the fetch in its own destructor, before its part of the object goes.
class SmartFrameFetcher
{
public:
    SmartFrameFetcher();
    virtual ~SmartFrameFetcher();

    SmartFrameFetcher(const SmartFrameFetcher &) = delete;
    SmartFrameFetcher &operator=(const SmartFrameFetcher &) = delete;

    // The next picture, waiting for one; null once nothing can come any more.
    virtual std::shared_ptr<FetchedFrame> popFrame();
    virtual int bufferedFrames() const;
    virtual bool isEmpty() const;
    virtual bool isFetching() const;
    // Waits for room; a record that arrives after fetching ended is dropped.
    virtual void pushFrame(std::shared_ptr<FetchedFrame> record);
    virtual void pushEOF();
    virtual void fetchLoop();

    // Ends any earlier fetch (joining its thread) and parks a new thread on
    // `range` of `reader`. An empty or closed reader leaves the fetcher stopped.
    void init(std::shared_ptr<videoio::Reader> reader, TimeRange range, TSType startTimestamp, bool loop);
    void startFetching();
    // Ends the fetch for good and empties the buffer; `seekTo` is only logged.
    void stopFetching(int seekTo);
    // Consumers waiting in popFrame now.
    int waitingConsumers() const;

    // A loop goes back to the stretch's x; without it, to the file's first frame.
    std::atomic<bool> seekToStart{true};
    const int maxBufferedFrames = 20;

protected:
    std::atomic<bool> running{true};
    std::atomic<bool> fetching{false};
    std::atomic<bool> stopped{true};
    // The buffer was at its limit at the last push.
    std::atomic<bool> full{false};
    std::atomic<bool> loop{false};

    std::shared_ptr<videoio::Reader> reader;
    std::vector<TimeRange> ranges;
    TSType startTimestamp = 0;
    ConsoleLogger log;

private:
    // Reads the current stretch while fetching holds.
    void readStretch();
    // Whether a picture at `position` lies past the stretch's y.
    bool pastEnd(TSType position) const;
    // The producer is done with the stretch; consumers may drain and go.
    void finishStretch();
    // Clears running and fetching and wakes everyone who waits.
    void halt();
    void joinThread();

    mutable std::mutex m_mutex;
    std::condition_variable m_frameArrived;
    std::condition_variable m_roomFree;
    std::condition_variable m_startWanted;
    std::condition_variable m_consumersLeft;
    std::deque<std::shared_ptr<FetchedFrame>> m_frames;
    bool m_stretchDone = false;
    int m_waitingConsumers = 0;

    // Serialises init, stop and destruction, which join the thread.
    std::mutex m_control;
    std::thread m_thread;

    // The producer's own state.
    std::size_t m_rangeIndex = 0;
    bool m_seekPending = true;
    double m_factor = 1.0;
    bool m_preview = false;
    std::shared_ptr<FetchedFrame> m_last;
};

} // namespace videoplayer
