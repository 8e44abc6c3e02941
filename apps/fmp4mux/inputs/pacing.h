#pragma once
// Paces a file input as a live source would deliver it: each packet leaves when its time has come, measured from
// the first packet's time and the moment it left.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <thread>

namespace fmp4mux {

class RealtimePacer {
public:
    // Waits until the packet at `time` (100 ns units, on the running timeline) is due, or until `stop`.
    void wait(std::int64_t time, const std::atomic<bool>& stop) {
        using Clock = std::chrono::steady_clock;
        if (!m_first) {
            m_first = time;
            m_start = Clock::now();
        }
        const auto due = m_start + std::chrono::microseconds((time - *m_first) / 10);
        while (!stop.load() && Clock::now() < due)
            std::this_thread::sleep_until(std::min(due, Clock::now() + std::chrono::milliseconds(50)));
    }

private:
    std::optional<std::int64_t> m_first;
    std::chrono::steady_clock::time_point m_start;
};

}  // namespace fmp4mux
