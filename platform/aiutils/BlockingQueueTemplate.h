#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace aiutils {

// A queue that worker threads wait on. `stop` wakes every waiter with nothing,
// even while items remain, so a stopped batch ends at once; `reset` opens the
// queue again before the next batch starts its workers.
template<typename Queue, typename Item>
class BlockingQueueTemplate
{
public:
    virtual ~BlockingQueueTemplate() = default;

    // Waits for an item and copies the front one without removing it; false once stopped.
    virtual bool front(Item &item)
    {
        std::unique_lock lock(m_mutex);
        m_ready.wait(lock, [this] { return m_stopped || !m_queue.empty(); });
        if (m_stopped)
            return false;
        item = m_queue.front();
        return true;
    }

    // Waits for an item and takes it; false once stopped.
    virtual bool pop(Item &item)
    {
        std::unique_lock lock(m_mutex);
        m_ready.wait(lock, [this] { return m_stopped || !m_queue.empty(); });
        if (m_stopped)
            return false;
        item = std::move(m_queue.front());
        m_queue.pop();
        return true;
    }

    virtual void push(const Item &item)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_queue.push(item);
        }
        m_ready.notify_one();
    }

    virtual void stop()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stopped = true;
        }
        m_ready.notify_all();
    }

    // Called between batches, while no worker waits.
    virtual void reset() { m_stopped = false; }

    void clear()
    {
        Queue empty;
        const std::lock_guard lock(m_mutex);
        std::swap(m_queue, empty);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ready;
    Queue m_queue;
    std::atomic<bool> m_stopped{false};
};

} // namespace aiutils
