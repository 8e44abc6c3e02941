#include "support/system/timer.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "support/exceptions/corvane_exception.h"
#include "support/system/thread.h"

namespace tvrn::timer {
namespace {

class TimerImpl;
using TimerException = cpp_utils::exception_utils::ExceptionTemplate<TimerImpl>;

class TimerImpl final : public TimerHandle {
public:
    TimerImpl(std::uint32_t periodMs, std::function<void()> function, bool callAtOnce)
        : m_period(periodMs), m_function(std::move(function)) {
        if (periodMs == 0 || !m_function) throw TimerException("Could not create timer");
        try {
            m_thread = std::make_unique<system::Thread>([this, callAtOnce] { run(callAtOnce); });
        } catch (const std::exception&) {
            throw TimerException("Could not create timer");
        }
    }
    ~TimerImpl() override {
        {
            std::lock_guard lock(m_mutex);
            m_cancelled = true;
        }
        m_cv.notify_all();
        m_thread.reset();
    }

private:
    void run(bool callAtOnce) {
        auto next = std::chrono::steady_clock::now();
        if (!callAtOnce) next += m_period;
        std::unique_lock lock(m_mutex);
        for (;;) {
            if (m_cv.wait_until(lock, next, [this] { return m_cancelled; })) return;
            lock.unlock();
            m_function();
            lock.lock();
            next += m_period;
            // A callback that ran longer than a period does not cause a burst of catch-up calls.
            const auto now = std::chrono::steady_clock::now();
            if (next < now) next = now;
        }
    }

    std::chrono::milliseconds m_period;
    std::function<void()> m_function;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_cancelled = false;
    std::unique_ptr<system::Thread> m_thread;
};

}  // namespace

std::unique_ptr<TimerHandle> MakeTimer(std::uint32_t periodMs, std::function<void()> function) {
    return std::make_unique<TimerImpl>(periodMs, std::move(function), false);
}

std::unique_ptr<TimerHandle> MakePoller(std::uint32_t periodMs, std::function<void()> function) {
    return std::make_unique<TimerImpl>(periodMs, std::move(function), true);
}

}  // namespace tvrn::timer
