#pragma once
// A thread that runs one function, started at construction and joined at destruction.
#include <cstddef>
#include <functional>
#include <pthread.h>

namespace tvrn::system {

class Thread {
public:
    // A stack size of 0 takes the platform's default. Failure to start raises std::system_error.
    explicit Thread(std::function<void()> function, std::size_t stackSize = 0);
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    // Waits for the end of the thread, with no time limit. Must not run on the thread itself.
    ~Thread();

    pthread_t handle() const { return m_handle; }
    bool isCurrent() const;

private:
    static void* entry(void* self);

    std::function<void()> m_function;
    pthread_t m_handle{};
};

}  // namespace tvrn::system
