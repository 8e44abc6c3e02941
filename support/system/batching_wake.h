#pragma once
// When a producer wakes a consumer that sleeps on a queue. Waking a thread for every item costs a context switch
// per item, the largest cost of a pipeline whose consumer keeps up with its producer. A consumer that has just
// worked through a backlog is likely to find more soon: it sleeps at most `linger` and is woken early only once
// `batch` items wait. A consumer that found one item at a time (a live source at its own pace) sleeps until the
// next item and is woken at once, so that steady real-time traffic gains no delay.
//
// Every member is used under the queue's own mutex.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace tvrn::concurrency {

class BatchingWake {
public:
    explicit BatchingWake(std::size_t batch = 32, std::chrono::microseconds linger = std::chrono::microseconds(1000))
        : m_batch(batch), m_linger(linger) {}

    // After an item was queued, with the queue's size then: whether to notify the consumer.
    bool shouldWake(std::size_t queued) const { return m_sleeping && (!m_lingering || queued >= m_batch); }

    // The consumer took an item.
    void took() { ++m_taken; }

    // Waits until `ready()` (the queue holds an item, or a stop came). `urgent()` is the part of `ready()` that must
    // end a lingering wait at once (a stop). `queued()` gives the queue's size.
    template <typename Ready, typename Urgent, typename Queued>
    void wait(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, Ready ready, Urgent urgent,
              Queued queued) {
        if (ready()) return;
        m_sleeping = true;
        if (m_taken >= 2) {
            m_lingering = true;
            cv.wait_for(lock, m_linger, [&] { return urgent() || queued() >= m_batch; });
            m_lingering = false;
        }
        if (!ready()) cv.wait(lock, ready);
        m_sleeping = false;
        m_taken = 0;
    }

private:
    const std::size_t m_batch;
    const std::chrono::microseconds m_linger;
    bool m_sleeping = false;
    bool m_lingering = false;
    std::size_t m_taken = 0;  // items taken since the consumer last slept
};

}  // namespace tvrn::concurrency
