#include "packaging/fmp4/fmp4_mux/sample_queue.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

void SampleQueue::push(std::uint32_t streamId, MediaDataRef sample) {
    bool wake = false;
    {
        std::lock_guard lock(m_lock);
        m_entries.push_back(Entry{streamId, std::move(sample)});
        wake = m_batching.shouldWake(m_entries.size());
    }
    if (wake) m_wake.notify_one();
}

void SampleQueue::clear() {
    std::deque<Entry> released;
    {
        std::lock_guard lock(m_lock);
        released.swap(m_entries);
    }
    // The buffers go back to their owners outside the lock.
}

std::size_t SampleQueue::size() const {
    std::lock_guard lock(m_lock);
    return m_entries.size();
}

void SampleQueue::signalStart() {
    {
        std::lock_guard lock(m_lock);
        m_start = true;
    }
    m_wake.notify_all();
}

void SampleQueue::signalStop() {
    {
        std::lock_guard lock(m_lock);
        m_stop = true;
    }
    m_wake.notify_all();
}

void SampleQueue::signalExit() {
    {
        std::lock_guard lock(m_lock);
        m_exit = true;
    }
    m_wake.notify_all();
}

SampleQueue::Wake SampleQueue::waitStartOrExit() {
    std::unique_lock lock(m_lock);
    m_wake.wait(lock, [this] { return m_exit || m_start; });
    if (m_exit) {
        m_exit = false;
        return Wake::Exit;
    }
    m_start = false;
    m_stop = false;
    return Wake::Start;
}

SampleQueue::Wake SampleQueue::waitForEntry(Entry& entry) {
    std::unique_lock lock(m_lock);
    m_batching.wait(
        m_wake, lock, [this] { return m_stop || m_exit || !m_entries.empty(); }, [this] { return m_stop || m_exit; },
        [this] { return m_entries.size(); });
    if (m_stop) {
        m_stop = false;
        return Wake::Stop;
    }
    if (m_exit) {
        m_exit = false;
        return Wake::Exit;
    }
    entry = std::move(m_entries.front());
    m_entries.pop_front();
    m_batching.took();
    return Wake::Entry;
}

SampleQueue::Wake SampleQueue::waitStopOrExit(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_lock);
    if (!m_wake.wait_for(lock, timeout, [this] { return m_stop || m_exit; })) return Wake::Timeout;
    if (m_stop) {
        m_stop = false;
        return Wake::Stop;
    }
    m_exit = false;
    return Wake::Exit;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
