#pragma once
// Periodic timers. Destroying the handle cancels the timer; destroying it from its own callback is not supported.
#include <cstdint>
#include <functional>
#include <memory>

namespace tvrn::timer {

class TimerHandle {
public:
    virtual ~TimerHandle() = default;
};

// Calls `function` after one period, then every period. Failure: "Could not create timer".
std::unique_ptr<TimerHandle> MakeTimer(std::uint32_t periodMs, std::function<void()> function);

// Like MakeTimer, but the first call comes at once: for polling a state that may already be there.
std::unique_ptr<TimerHandle> MakePoller(std::uint32_t periodMs, std::function<void()> function);

}  // namespace tvrn::timer
