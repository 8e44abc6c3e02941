#pragma once
// The hand-over from the streaming threads to the worker: an unbounded queue of (stream id, buffer) entries,
// and the start, stop and exit events that the worker waits on together with it.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

#include "packaging/fmp4_types/media_data.h"
#include "support/system/batching_wake.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// 0 Idle, 1 Starting, 2 Running, 3 Exiting.
enum WorkerState : std::uint32_t { Idle = 0, Starting = 1, Running = 2, Exiting = 3 };

struct SessionStats {
    std::atomic<std::uint64_t> chunksDelivered{0};
    std::atomic<std::uint64_t> samplesReceived{0};
};

class SampleQueue {
public:
    // A buffer, or a null buffer for an end of stream.
    struct Entry {
        std::uint32_t streamId = 0;
        MediaDataRef sample;
    };

    // What woke a wait.
    enum class Wake { Start, Stop, Exit, Entry, Timeout };

    SampleQueue() = default;
    SampleQueue(const SampleQueue&) = delete;
    SampleQueue& operator=(const SampleQueue&) = delete;
    ~SampleQueue() { clear(); }

    // Appends under the lock and counts once; never blocks on the queue's size.
    void push(std::uint32_t streamId, MediaDataRef sample);
    // Releases every queued entry.
    void clear();
    std::size_t size() const;

    void signalStart();
    void signalStop();
    void signalExit();

    // Waits for exit or start, exit first. Taking the start also forgets an older stop, so that a stop
    // given while idle does not end the session that this start begins.
    Wake waitStartOrExit();
    // Waits for stop, exit or an entry, in that order of priority, with no time limit.
    Wake waitForEntry(Entry& entry);
    // Waits up to `timeout` for stop or exit.
    Wake waitStopOrExit(std::chrono::milliseconds timeout);

private:
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    concurrency::BatchingWake m_batching;  // when a push wakes the worker
    std::deque<Entry> m_entries;
    bool m_start = false;
    bool m_stop = false;
    bool m_exit = false;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
