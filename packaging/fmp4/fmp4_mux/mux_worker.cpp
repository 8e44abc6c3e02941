#include "packaging/fmp4/fmp4_mux/mux_worker.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using tvrn::log::LOG_ERROR;

MuxWorker::MuxWorker(std::recursive_mutex& filterLock, tvrn::log::ILogger& logger, SessionFactory factory,
                     KeyWait keyWait)
    : m_filterLock(filterLock), m_logger(logger), m_factory(std::move(factory)), m_keyWait(std::move(keyWait)) {
    m_thread = std::make_unique<system::Thread>([this] { run(); });
}

MuxWorker::~MuxWorker() {
    m_queue.signalExit();
    m_thread.reset();
}

void MuxWorker::push(std::uint32_t streamId, IMediaData* sample, bool filterStopped) {
    m_stats.samplesReceived.fetch_add(1, std::memory_order_relaxed);
    if (filterStopped) return;
    if (m_state.load() == Running)
        m_queue.push(streamId, MediaDataRef(sample));
    else
        m_queue.clear();
}

void MuxWorker::pushEndOfStream(std::uint32_t streamId, bool filterStopped) {
    if (filterStopped) return;
    if (m_state.load() == Running)
        m_queue.push(streamId, MediaDataRef());
    else
        m_queue.clear();
}

void MuxWorker::setState(WorkerState state) {
    std::lock_guard lock(m_filterLock);
    {
        std::lock_guard stateLock(m_stateMutex);
        m_state.store(state);
    }
    m_stateChanged.notify_all();
}

bool MuxWorker::waitForState(WorkerState wanted, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(m_stateMutex);
    return m_stateChanged.wait_for(lock, timeout, [&] { return m_state.load() == wanted; });
}

WorkerState MuxWorker::consume(IMuxSession& session) {
    SampleQueue::Entry entry;
    for (;;) {
        switch (m_queue.waitForEntry(entry)) {
            case SampleQueue::Wake::Stop: return Idle;
            case SampleQueue::Wake::Exit: return Exiting;
            default: break;
        }
        if (entry.sample)
            session.ConsumeSample(entry.streamId, entry.sample.get());
        else
            session.ConsumeEndOfStream(entry.streamId);
        entry.sample.reset();
    }
}

void MuxWorker::run() {
    std::unique_ptr<IMuxSession> session;
    WorkerState next = Idle;
    for (;;) {
        switch (next) {
            case Idle:
                setState(Idle);
                next = m_queue.waitStartOrExit() == SampleQueue::Wake::Exit ? Exiting : Starting;
                break;

            case Starting:
                setState(Starting);
                // The old session ends outside the filter lock: its synchroniser threads may take that lock
                // briefly to count chunks while they finish.
                session.reset();
                try {
                    std::lock_guard lock(m_filterLock);
                    session = m_factory();
                    m_sessionsBuilt.fetch_add(1);
                } catch (const std::exception& e) {
                    // A configuration that cannot make a session waits for the next start.
                    m_logger.WriteMsg(LOG_ERROR, "building the session failed: %s", e.what());
                    session.reset();
                    next = Idle;
                    break;
                }
                next = m_keyWait ? m_keyWait(*this, *session) : Running;
                if (next != Running) {
                    // Stopped or ended while waiting for the key server: the session never ran.
                    session.reset();
                    m_queue.clear();
                }
                break;

            case Running:
                setState(Running);
                try {
                    next = consume(*session);
                } catch (const std::exception& e) {
                    m_logger.WriteMsg(LOG_ERROR, "consuming samples failed: %s", e.what());
                    next = Starting;
                }
                session.reset();
                m_queue.clear();
                break;

            case Exiting:
                setState(Exiting);
                session.reset();
                m_queue.clear();
                return;
        }
    }
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
