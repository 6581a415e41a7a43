#include "playback/SmartFrameFetcher.h"

#include "videoio/Reader.h"

namespace videoplayer {

SmartFrameFetcher::SmartFrameFetcher()
{
    log.prefix = QStringLiteral("SmartFF ===--- ");
}

SmartFrameFetcher::~SmartFrameFetcher()
{
    const std::lock_guard control(m_control);
    halt();
    joinThread();
    // A consumer woken above may still be on its way out of popFrame.
    std::unique_lock lock(m_mutex);
    m_frames.clear();
    m_consumersLeft.wait(lock, [this] { return m_waitingConsumers == 0; });
}

void SmartFrameFetcher::halt()
{
    {
        // Under the waiters' mutex, so that no waiter misses the change
        // between its test and its sleep.
        const std::lock_guard lock(m_mutex);
        running = false;
        fetching = false;
    }
    m_startWanted.notify_all();
    m_roomFree.notify_all();
    m_frameArrived.notify_all();
}

void SmartFrameFetcher::joinThread()
{
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
}

void SmartFrameFetcher::init(std::shared_ptr<videoio::Reader> source, TimeRange range, TSType start, bool looping)
{
    if (m_thread.get_id() == std::this_thread::get_id()) {
        log.log(QStringLiteral("SmartFrameFetcher can't be reinitialised from its own thread"), ConsoleLogger::Critical);
        return;
    }
    const std::lock_guard control(m_control);
    if (m_thread.joinable()) {
        if (running)
            log.log(QStringLiteral("SmartFrameFetcher reinitializing"));
        halt();
        log.log(QStringLiteral("Joining ff thread!"));
        joinThread();
    }
    const bool usable = source && source->isOpen();
    {
        const std::lock_guard lock(m_mutex);
        m_frames.clear();
        m_stretchDone = false;
        full = false;
        if (!usable) {
            log.log(QStringLiteral("SmartFrameFetcher has no open reader to fetch from"), ConsoleLogger::Warn);
            running = false;
            fetching = false;
            stopped = true;
            return;
        }
        running = true;
        fetching = false;
        stopped = false;
    }
    reader = std::move(source);
    ranges = {range};
    startTimestamp = start;
    loop = looping;
    m_rangeIndex = 0;
    m_seekPending = true;
    m_last.reset();
    m_preview = reader->isPreviewReader();
    m_factor = 1.0;
    if (m_preview) {
        const double factor = reader->getInfo().value(QStringLiteral("slowMoFactor"), 1.0).toDouble();
        m_factor = factor > 0.0 ? factor : 1.0;
    }
    log.log(QStringLiteral("Spinning up SFF thread."));
    m_thread = std::thread([this] { fetchLoop(); });
    log.log(QStringLiteral("SFF Init success."));
}

void SmartFrameFetcher::startFetching()
{
    {
        const std::lock_guard lock(m_mutex);
        if (!running) {
            log.log(QStringLiteral("SFF::startFetching without a reader"), ConsoleLogger::Warn);
            return;
        }
        fetching = true;
        m_stretchDone = false;
    }
    m_startWanted.notify_all();
}

void SmartFrameFetcher::stopFetching(int seekTo)
{
    const std::lock_guard control(m_control);
    log.log(QStringLiteral("SFF::stopFetching(%1)").arg(seekTo));
    halt();
    if (reader && reader->isPreviewReader()) {
        log.log(QStringLiteral("[timelines] stopFetching, \tseekTo(%1) %2")
                    .arg(seekToStart.load() ? QStringLiteral("true") : QStringLiteral("false"), reader->getFile()));
    }
    {
        const std::lock_guard lock(m_mutex);
        m_frames.clear();
    }
    // Once joined, the reader is the caller's again.
    joinThread();
    stopped = true;
    log.log(QStringLiteral("Stopped fetching frfr"));
}

std::shared_ptr<FetchedFrame> SmartFrameFetcher::popFrame()
{
    std::unique_lock lock(m_mutex);
    ++m_waitingConsumers;
    m_frameArrived.wait(lock, [this] { return !m_frames.empty() || !running || m_stretchDone; });
    std::shared_ptr<FetchedFrame> record;
    if (!m_frames.empty()) {
        record = std::move(m_frames.front());
        m_frames.pop_front();
        m_roomFree.notify_one();
    } else if (!running) {
        log.log(QStringLiteral("===--- Cannot popFrame when fetcher is not fetching"), ConsoleLogger::Critical);
    }
    if (--m_waitingConsumers == 0)
        m_consumersLeft.notify_all();
    return record;
}

int SmartFrameFetcher::bufferedFrames() const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_frames.size());
}

int SmartFrameFetcher::waitingConsumers() const
{
    const std::lock_guard lock(m_mutex);
    return m_waitingConsumers;
}

bool SmartFrameFetcher::isEmpty() const
{
    return bufferedFrames() == 0;
}

bool SmartFrameFetcher::isFetching() const
{
    return fetching;
}

void SmartFrameFetcher::pushFrame(std::shared_ptr<FetchedFrame> record)
{
    std::unique_lock lock(m_mutex);
    const auto limit = static_cast<std::size_t>(maxBufferedFrames);
    full = m_frames.size() >= limit;
    m_roomFree.wait(lock, [&] { return !(running && fetching) || m_frames.size() < limit; });
    if (!(running && fetching))
        return;
    m_frames.push_back(std::move(record));
    m_frameArrived.notify_one();
}

void SmartFrameFetcher::pushEOF()
{
    auto record = std::make_shared<FetchedFrame>();
    record->isEOF = true;
    // The last picture sent, not the reader's: the reader may already stand
    // on the picture past the stretch's end.
    if (m_last) {
        record->timestamp = m_last->timestamp;
        record->frame = m_last->frame;
    } else {
        record->timestamp = reader->position();
        record->frame = reader->frame();
    }
    log.log(QStringLiteral("Pushing EOF frame"));
    pushFrame(std::move(record));
}

void SmartFrameFetcher::fetchLoop()
{
    while (running) {
        {
            std::unique_lock lock(m_mutex);
            m_startWanted.wait(lock, [this] { return !running || fetching; });
            if (!running || !reader) {
                log.log(QStringLiteral("timelines returning out of this loop"));
                return;
            }
        }
        readStretch();
    }
}

bool SmartFrameFetcher::pastEnd(TSType position) const
{
    const TSType y = ranges[m_rangeIndex].second;
    return m_preview && y != -1 && static_cast<double>(y) < static_cast<double>(position) / m_factor;
}

void SmartFrameFetcher::readStretch()
{
    const TSType x = ranges[m_rangeIndex].first;
    while (fetching) {
        auto record = std::make_shared<FetchedFrame>();
        bool ended = false;
        if (m_seekPending) {
            m_seekPending = false;
            ended = !reader->seek(startTimestamp, false);
        } else {
            ended = !reader->next();
        }
        if (!ended && pastEnd(reader->position()))
            ended = true;
        if (ended && loop) {
            // A reader that can't go back ends the stretch as if not looping.
            const bool toStart = seekToStart;
            ended = !(toStart ? reader->seek(x, false) : reader->first());
            if (!ended && toStart && reader->position() < x)
                reader->next();
            record->isEOF = true;
        }
        if (ended) {
            pushEOF();
            finishStretch();
            return;
        }
        record->timestamp = reader->position();
        record->frame = reader->frame();
        m_last = record;
        pushFrame(std::move(record));
    }
}

void SmartFrameFetcher::finishStretch()
{
    {
        const std::lock_guard lock(m_mutex);
        fetching = false;
        m_stretchDone = true;
    }
    // A new start reads the stretch again from its start timestamp.
    m_seekPending = true;
    m_last.reset();
    m_frameArrived.notify_all();
}

} // namespace videoplayer
