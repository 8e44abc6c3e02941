#include "apps/fmp4mux/cli/signals.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <csignal>

namespace fmp4mux {

namespace {
sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);   // the terminal went away
    sigaddset(&set, SIGPIPE);  // standard output or error went away: writes to it fail instead
    return set;
}
}  // namespace

StopSignals::StopSignals(std::function<void()> onSignal) : m_onSignal(std::move(onSignal)) {
    // A file size limit makes a write fail (EFBIG), which the publisher reports, rather than kill the process.
    std::signal(SIGXFSZ, SIG_IGN);
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_thread = std::thread([this, set] {
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0) continue;
            if (std::atomic_ref<bool>(m_closing).load()) return;
            m_onSignal();
        }
    });
}

StopSignals::~StopSignals() {
    std::atomic_ref<bool>(m_closing).store(true);
    pthread_kill(m_thread.native_handle(), SIGTERM);
    m_thread.join();
}

}  // namespace fmp4mux
