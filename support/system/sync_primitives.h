#pragma once
// Portable stand-ins for the platform's lock, auto-reset event and counting semaphore.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tvrn::system {

// A lock (critical section).
class CW32CritSec {
public:
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }
    std::mutex& native() { return m_mutex; }

private:
    std::mutex m_mutex;
};

// An auto-reset event: Set wakes one waiter, or the next one to wait, and resets on that wake.
class CW32Event {
public:
    void Set() {
        {
            std::lock_guard lock(m_mutex);
            m_signalled = true;
        }
        m_cv.notify_one();
    }
    void Reset() {
        std::lock_guard lock(m_mutex);
        m_signalled = false;
    }
    void Wait() {
        std::unique_lock lock(m_mutex);
        m_cv.wait(lock, [this] { return m_signalled; });
        m_signalled = false;
    }
    // False on time-out.
    bool WaitFor(std::chrono::milliseconds timeout) {
        std::unique_lock lock(m_mutex);
        if (!m_cv.wait_for(lock, timeout, [this] { return m_signalled; })) return false;
        m_signalled = false;
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_signalled = false;
};

}  // namespace tvrn::system
