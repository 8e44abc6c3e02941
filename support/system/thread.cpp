#include "support/system/thread.h"

#include <system_error>

namespace tvrn::system {

Thread::Thread(std::function<void()> function, std::size_t stackSize) : m_function(std::move(function)) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) throw std::system_error(error, std::generic_category(), "could not create thread");
    if (stackSize > 0) {
        if (stackSize < static_cast<std::size_t>(PTHREAD_STACK_MIN)) stackSize = static_cast<std::size_t>(PTHREAD_STACK_MIN);
        pthread_attr_setstacksize(&attributes, stackSize);
    }
    error = pthread_create(&m_handle, &attributes, &Thread::entry, this);
    pthread_attr_destroy(&attributes);
    if (error != 0) throw std::system_error(error, std::generic_category(), "could not create thread");
}

Thread::~Thread() { pthread_join(m_handle, nullptr); }

bool Thread::isCurrent() const { return pthread_equal(pthread_self(), m_handle) != 0; }

void* Thread::entry(void* self) {
    static_cast<Thread*>(self)->m_function();
    return nullptr;
}

}  // namespace tvrn::system
