#pragma once

#include "timeline/ConsoleLogger.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>
#include <QVariantMap>

#include <array>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace videoplayer {

// The request numbers of the player's queue. They live only for one run.
enum RequestType : int {
    AddInput = 0,
    Seek = 1,
    Prev = 2,
    Next = 3,
    Play = 4,
    Pause = 5,
    Reload = 6,
    Move = 7,
    UpdateInfo = 8,
    ShowBlack = 9,
    AddPreview = 10,
    OpenVideoForPreview = 11,
    CloseInput = 12,
    ClosePreview = 13,
    ClosePreviewByUID = 14,
    ResetView = 15,
    UpdateThumbnail = 16,
    SetPreviewSet = 17,
    Close = 18,
    Refresh = 19,
    Unassigned = 20,
    RemovePreviewSet = 21,
    ClearTimeline = 22,
};

// The trace name of a request number; "Invalid request" for the unnamed ones.
QString requestName(int type);

// The player's requests, performed in order by one worker. Scrubbing and input
// switching arrive far faster than mpv can follow, so three kinds of request
// coalesce into a single pending entry instead of queueing up.
class VPReqQueue
{
public:
    VPReqQueue();

    void push(const QVariantMap &request);
    // Blocks until a request is there or the queue is stopped. After stop()
    // it answers false and leaves what is pending unread. The request popped
    // counts as in hand until finished() is called.
    bool pop(QVariantMap &out);
    void finished();
    bool empty() const;
    // Nothing pending and nothing in hand; one answer under one lock, so there
    // is no moment between a pop and the start of its work that looks idle.
    bool idle() const;
    int size() const;
    // Clears `running` and wakes the waiting worker.
    void stop();
    bool isRunning() const;

    // The pending requests' names joined by ", ", for the trace.
    QString pendingNames() const;

    // {"numRequests": pending requests + a process-wide call counter}. A debug
    // aid: the counter grows on every call and both terms are kept on purpose.
    QVariantMap devInfo() const;

private:
    struct CoalescingSlot
    {
        int type;
        bool pending = false;
        int index = -1;
        std::function<bool(const QVariantMap &)> coalesces;
    };

    CoalescingSlot *slotFor(const QVariantMap &request);
    void pushOpenForPreview(const QVariantMap &request);
    void releaseHead(const QVariantMap &head);

    bool running = true;
    bool inHand = false;
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::vector<QVariantMap> requests;
    // Seek, Reload, non-first AddInput, in this order.
    std::array<CoalescingSlot, 3> rules;
    QMap<int, QSet<QString>> openForPreview;
    ConsoleLogger log;
};

} // namespace videoplayer
