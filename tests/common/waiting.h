#pragma once
// Waiting for what other threads do: state changed under a lock and waited on with a condition variable.
// A wait gives up after a minute so that a hang fails its test instead of the whole run.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace testkit {

inline constexpr std::chrono::seconds kWaitLimit{60};

template <typename T>
class Guarded {
public:
    // Changes the value and wakes every waiter, under the lock: a waiter that sees the change may destroy this
    // object at once, so nothing here may touch it after the lock is released.
    template <typename F>
    void update(F&& change) {
        std::lock_guard lock(m_mutex);
        change(m_value);
        m_changed.notify_all();
    }
    // Waits until `predicate(value)` holds; false if it never does.
    template <typename P>
    bool waitFor(P&& predicate) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, kWaitLimit, [&] { return predicate(m_value); });
    }
    T get() const {
        std::lock_guard lock(m_mutex);
        return m_value;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    T m_value{};
};

}  // namespace testkit
