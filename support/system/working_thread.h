#pragma once
// A worker with a queue: post() appends and never blocks; the handler runs on the worker, one item at a time,
// in the order in which post took the lock.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "support/system/batching_wake.h"
#include "support/system/thread.h"

namespace tvrn::concurrency {

template <typename T>
class WorkingThread {
public:
    explicit WorkingThread(std::function<void(const T&)> handler, std::size_t stackSize = 0)
        : m_handler(std::move(handler)) {
        m_thread = std::make_unique<system::Thread>([this] { run(); }, stackSize);
    }
    WorkingThread(const WorkingThread&) = delete;
    WorkingThread& operator=(const WorkingThread&) = delete;

    // Stops the worker and joins it; items still queued are destroyed without being handled.
    ~WorkingThread() {
        {
            std::lock_guard lock(m_lock);
            m_stop = true;
        }
        m_semaphore.notify_all();
        m_thread.reset();
    }

    void post(T item) {
        bool wake = false;
        {
            std::lock_guard lock(m_lock);
            m_queue.push_back(std::move(item));
            wake = m_wake.shouldWake(m_queue.size());
        }
        if (wake) m_semaphore.notify_one();
    }

    std::size_t pending() const {
        std::lock_guard lock(m_lock);
        return m_queue.size();
    }

private:
    void run() {
        for (;;) {
            T item;
            {
                std::unique_lock lock(m_lock);
                m_wake.wait(
                    m_semaphore, lock, [this] { return m_stop || !m_queue.empty(); }, [this] { return m_stop; },
                    [this] { return m_queue.size(); });
                // The stop event comes before anything queued.
                if (m_stop) return;
                item = std::move(m_queue.front());
                m_queue.pop_front();
                m_wake.took();
            }
            m_handler(item);
        }
    }

    std::deque<T> m_queue;
    std::condition_variable m_semaphore;
    BatchingWake m_wake;
    mutable std::mutex m_lock;
    std::function<void(const T&)> m_handler;
    bool m_stop = false;
    std::unique_ptr<system::Thread> m_thread;
};

}  // namespace tvrn::concurrency
