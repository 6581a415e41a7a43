#include "playback/VPReqQueue.h"

#include <QStringList>

#include <atomic>

namespace videoplayer {

namespace {

const QString typeKey = QStringLiteral("type");
const QString timestampKey = QStringLiteral("timestamp");
const QString firstLoadKey = QStringLiteral("firstLoad");

bool isFirstLoad(const QVariantMap &request)
{
    // A missing key reads as false: only an explicit first load escapes merging.
    return request.value(firstLoadKey).toBool();
}

QString previewPath(const QVariantMap &request)
{
    return request.value(QStringLiteral("params")).toMap().value(QStringLiteral("filepath")).toString();
}

int previewView(const QVariantMap &request)
{
    return request.value(QStringLiteral("viewID")).toInt();
}

} // namespace

QString requestName(int type)
{
    switch (type) {
    case AddInput: return QStringLiteral("AddInput");
    case Seek: return QStringLiteral("Seek");
    case Prev: return QStringLiteral("Prev");
    case Next: return QStringLiteral("Next");
    case Play: return QStringLiteral("Play");
    case Pause: return QStringLiteral("Pause");
    case Reload: return QStringLiteral("Reload");
    case Move: return QStringLiteral("Move");
    case UpdateInfo: return QStringLiteral("UpdateInfo");
    case ShowBlack: return QStringLiteral("ShowBlack");
    case AddPreview: return QStringLiteral("AddPreview");
    case OpenVideoForPreview: return QStringLiteral("OpenVideoForPreview");
    case ClosePreview: return QStringLiteral("ClosePreview");
    case ResetView: return QStringLiteral("ResetView");
    case UpdateThumbnail: return QStringLiteral("UpdateThumbnail");
    case SetPreviewSet: return QStringLiteral("SetPreviewSet");
    case Close: return QStringLiteral("Close");
    case Refresh: return QStringLiteral("Refresh");
    default: return QStringLiteral("Invalid request");
    }
}

VPReqQueue::VPReqQueue()
    : rules{CoalescingSlot{Seek, false, -1, [](const QVariantMap &) { return true; }},
            CoalescingSlot{Reload, false, -1, [](const QVariantMap &) { return true; }},
            CoalescingSlot{AddInput, false, -1, [](const QVariantMap &r) { return !isFirstLoad(r); }}}
{
    log.prefix = QStringLiteral("VPReqQueue ===---");
}

VPReqQueue::CoalescingSlot *VPReqQueue::slotFor(const QVariantMap &request)
{
    const int type = request.value(typeKey).toInt();
    for (CoalescingSlot &slot : rules) {
        if (slot.type == type)
            return slot.coalesces(request) ? &slot : nullptr;
    }
    return nullptr;
}

void VPReqQueue::pushOpenForPreview(const QVariantMap &request)
{
    const QString path = previewPath(request);
    const int view = previewView(request);
    QSet<QString> &paths = openForPreview[view];
    if (paths.contains(path))
        return; // the same file is already on its way into this view
    log.log(QStringLiteral("===--- Accepted request for %1 to open %2").arg(view).arg(path));
    requests.push_back(request);
    paths.insert(path);
}

void VPReqQueue::push(const QVariantMap &request)
{
    {
        const std::lock_guard lock(mutex);
        if (request.value(typeKey).toInt() == OpenVideoForPreview) {
            pushOpenForPreview(request);
        } else if (CoalescingSlot *slot = slotFor(request)) {
            if (!slot->pending) {
                requests.push_back(request);
                slot->pending = true;
                slot->index = static_cast<int>(requests.size()) - 1;
            } else if (slot->index >= 0 && slot->index < static_cast<int>(requests.size())) {
                // The index is not rebased when earlier requests leave, so it may
                // name a later request than the one it was written for. The
                // write goes there all the same: that is how the queue behaves.
                QVariantMap &target = requests[static_cast<size_t>(slot->index)];
                if (slot->type == Seek)
                    target[timestampKey] = request.value(timestampKey);
                else
                    target = request;
            } else {
                // A stale index past the end owns no request: keep the new one
                // rather than write outside the list, and say so.
                log.log(QStringLiteral("Coalescing slot of %1 pointed past the end (index %2 of %3): appended")
                            .arg(requestName(slot->type))
                            .arg(slot->index)
                            .arg(requests.size()),
                        ConsoleLogger::Warn);
                requests.push_back(request);
                slot->index = static_cast<int>(requests.size()) - 1;
            }
        } else {
            requests.push_back(request);
        }
    }
    wake.notify_one();
}

void VPReqQueue::releaseHead(const QVariantMap &head)
{
    const int type = head.value(typeKey).toInt();
    for (CoalescingSlot &slot : rules) {
        if (slot.type != type)
            continue;
        if (type == AddInput && isFirstLoad(head))
            continue;
        slot.pending = false;
        slot.index = -1;
    }
    if (type == OpenVideoForPreview) {
        const int view = previewView(head);
        auto it = openForPreview.find(view);
        if (it != openForPreview.end() && it->remove(previewPath(head)))
            log.log(QStringLiteral("===--- Accepted request to pop for %1").arg(view));
    }
}

bool VPReqQueue::pop(QVariantMap &out)
{
    std::unique_lock lock(mutex);
    wake.wait(lock, [this] { return !requests.empty() || !running; });
    if (!running)
        return false;
    const QVariantMap &head = requests.front();
    releaseHead(head);
    out = head;
    requests.erase(requests.begin());
    inHand = true;
    return true;
}

void VPReqQueue::finished()
{
    const std::lock_guard lock(mutex);
    inHand = false;
}

bool VPReqQueue::idle() const
{
    const std::lock_guard lock(mutex);
    return requests.empty() && !inHand;
}

bool VPReqQueue::empty() const
{
    const std::lock_guard lock(mutex);
    return requests.empty();
}

int VPReqQueue::size() const
{
    const std::lock_guard lock(mutex);
    return static_cast<int>(requests.size());
}

void VPReqQueue::stop()
{
    {
        const std::lock_guard lock(mutex);
        running = false;
    }
    wake.notify_all();
}

bool VPReqQueue::isRunning() const
{
    const std::lock_guard lock(mutex);
    return running;
}

QString VPReqQueue::pendingNames() const
{
    const std::lock_guard lock(mutex);
    QStringList names;
    names.reserve(static_cast<qsizetype>(requests.size()));
    for (const QVariantMap &request : requests)
        names.append(requestName(request.value(typeKey).toInt()));
    return names.join(QStringLiteral(", "));
}

QVariantMap VPReqQueue::devInfo() const
{
    static std::atomic<qint64> calls{0};
    const qint64 counter = calls.fetch_add(1) + 1;
    return {{QStringLiteral("numRequests"), size() + counter}};
}

} // namespace videoplayer
