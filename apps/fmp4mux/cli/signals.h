#pragma once
// Interruptions (SIGINT, SIGTERM, SIGHUP, SIGPIPE) end a run cleanly: a thread of its own waits for them, so that what it does
// about one (wake the waiting threads, finish the chunks under way) needs none of the care of a signal handler.
// Made before any other thread starts: the signals are blocked in this thread and so in every thread made after.
#include <functional>
#include <thread>

namespace fmp4mux {

class StopSignals {
public:
    explicit StopSignals(std::function<void()> onSignal);
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    std::function<void()> m_onSignal;
    bool m_closing = false;
    std::thread m_thread;
};

}  // namespace fmp4mux
