#pragma once
// The worker of a filter: one thread that builds a session when started, feeds it from the SampleQueue,
// destroys it when stopped, and rebuilds it from the configuration after any failure.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "packaging/fmp4/fmp4_mux/mux_session.h"
#include "packaging/fmp4/fmp4_mux/sample_queue.h"
#include "support/log/i_logger.h"
#include "support/system/thread.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

class MuxWorker {
public:
    // Builds a session from the configuration; called under the filter lock.
    using SessionFactory = std::function<std::unique_ptr<IMuxSession>()>;
    // Waits for the key server after a build and gives the session its encryption; answers Running, Idle
    // (stopped) or Exiting. Samples pushed meanwhile are dropped.
    using KeyWait = std::function<WorkerState(MuxWorker&, IMuxSession&)>;

    // The filter lock and the logger belong to the caller and outlive the worker. The thread starts at once.
    MuxWorker(std::recursive_mutex& filterLock, tvrn::log::ILogger& logger, SessionFactory factory,
              KeyWait keyWait = {});
    MuxWorker(const MuxWorker&) = delete;
    MuxWorker& operator=(const MuxWorker&) = delete;
    // Signals exit and waits for the thread.
    ~MuxWorker();

    void start() { m_queue.signalStart(); }
    void stop() { m_queue.signalStop(); }

    // From the streaming threads. Counts the sample; queues it while a session runs, and otherwise drops it
    // together with anything queued. Never blocks on the queue.
    void push(std::uint32_t streamId, IMediaData* sample, bool filterStopped = false);
    void pushEndOfStream(std::uint32_t streamId, bool filterStopped = false);

    WorkerState state() const { return m_state.load(); }
    // Waits until the worker is in `wanted`, or `timeout`; true when it is.
    bool waitForState(WorkerState wanted, std::chrono::milliseconds timeout) const;
    SessionStats& stats() { return m_stats; }
    SampleQueue& queue() { return m_queue; }
    std::uint64_t sessionsBuilt() const { return m_sessionsBuilt.load(); }

private:
    void run();
    void setState(WorkerState state);
    WorkerState consume(IMuxSession& session);

    std::recursive_mutex& m_filterLock;
    tvrn::log::ILogger& m_logger;
    SessionFactory m_factory;
    KeyWait m_keyWait;
    SampleQueue m_queue;
    SessionStats m_stats;
    std::atomic<WorkerState> m_state{Idle};
    mutable std::mutex m_stateMutex;
    mutable std::condition_variable m_stateChanged;
    std::atomic<std::uint64_t> m_sessionsBuilt{0};
    std::unique_ptr<system::Thread> m_thread;  // last: starts once everything above exists
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
