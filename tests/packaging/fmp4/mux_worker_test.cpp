#include "packaging/fmp4/fmp4_mux/mux_worker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <thread>

#include "fakes.h"
#include "support/exceptions/corvane_exception.h"

namespace {
using namespace fmp4_test;

// Waits for a condition that another thread makes true; fails the test only after a long bound.
template <typename Predicate>
bool eventually(Predicate predicate) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// What one session saw. Samples of stream 99 make it fail; while `hold` is set the first sample blocks it.
struct SessionRecord {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::uint32_t> samples;
    std::vector<std::uint32_t> ends;
    bool holding = false;
    bool released = false;
};

class RecordingSession : public IMuxSession {
public:
    RecordingSession(SessionRecord& record, bool hold) : m_record(record), m_hold(hold) {}
    void ConsumeSample(std::uint32_t streamId, IMediaData*) override {
        if (streamId == 99) throw CorvaneException("boom");
        std::unique_lock lock(m_record.mutex);
        m_record.samples.push_back(streamId);
        if (m_hold && m_record.samples.size() == 1) {
            m_record.holding = true;
            m_record.cv.notify_all();
            m_record.cv.wait(lock, [this] { return m_record.released; });
        }
    }
    void ConsumeEndOfStream(std::uint32_t streamId) override {
        std::lock_guard lock(m_record.mutex);
        m_record.ends.push_back(streamId);
    }

private:
    SessionRecord& m_record;
    bool m_hold;
};

struct WorkerFixture {
    std::recursive_mutex filterLock;
    RecordingLogger logger;
    std::vector<std::unique_ptr<SessionRecord>> sessions;
    std::mutex sessionsMutex;
    bool holdFirst = false;
    std::unique_ptr<MuxWorker> worker;

    WorkerFixture() {
        worker = std::make_unique<MuxWorker>(filterLock, logger, [this]() -> std::unique_ptr<IMuxSession> {
            std::lock_guard lock(sessionsMutex);
            sessions.push_back(std::make_unique<SessionRecord>());
            return std::make_unique<RecordingSession>(*sessions.back(), holdFirst && sessions.size() == 1);
        });
    }
    SessionRecord& session(std::size_t i) {
        std::lock_guard lock(sessionsMutex);
        return *sessions.at(i);
    }
    std::size_t sampleCount(std::size_t i) {
        auto& s = session(i);
        std::lock_guard lock(s.mutex);
        return s.samples.size();
    }
    void push(std::uint32_t id) { worker->push(id, timedBuffer(0).get()); }
    void waitHolding() {
        auto& s = session(0);
        std::unique_lock lock(s.mutex);
        s.cv.wait(lock, [&] { return s.holding; });
    }
    void release() {
        auto& s = session(0);
        std::lock_guard lock(s.mutex);
        s.released = true;
        s.cv.notify_all();
    }
};

TEST(MuxWorker, SamplesArriveOnlyWhileASessionRuns) {
    WorkerFixture f;
    EXPECT_EQ(f.worker->state(), Idle);
    f.push(0);  // no session: counted, dropped
    EXPECT_EQ(f.worker->stats().samplesReceived.load(), 1u);
    EXPECT_EQ(f.worker->queue().size(), 0u);

    f.worker->start();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Running; }));
    f.push(1);
    f.push(2);
    f.worker->pushEndOfStream(1);
    ASSERT_TRUE(eventually([&] { return f.sampleCount(0) == 2 && !f.session(0).ends.empty(); }));
    EXPECT_EQ(f.session(0).samples, (std::vector<std::uint32_t>{1, 2}));
    EXPECT_EQ(f.session(0).ends, std::vector<std::uint32_t>{1});

    f.worker->stop();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Idle; }));
    f.push(3);
    EXPECT_EQ(f.worker->queue().size(), 0u);
    // Pausing again builds a new session.
    f.worker->start();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Running && f.worker->sessionsBuilt() == 2; }));
    f.push(4);
    ASSERT_TRUE(eventually([&] { return f.sampleCount(1) == 1; }));
    EXPECT_EQ(f.worker->stats().samplesReceived.load(), 5u);
}

TEST(MuxWorker, AFailureInTheConsumeLoopRebuildsTheSession) {
    WorkerFixture f;
    f.worker->start();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Running; }));
    f.push(1);
    f.push(99);
    ASSERT_TRUE(eventually([&] { return f.worker->sessionsBuilt() == 2 && f.worker->state() == Running; }));
    EXPECT_TRUE(f.logger.contains("0 consuming samples failed: boom"));
    f.push(2);
    ASSERT_TRUE(eventually([&] { return f.sampleCount(1) == 1; }));
    EXPECT_EQ(f.session(0).samples, std::vector<std::uint32_t>{1});
    EXPECT_EQ(f.session(1).samples, std::vector<std::uint32_t>{2});
}

TEST(MuxWorker, StopDiscardsWhatIsQueuedAndAPushNeverBlocks) {
    WorkerFixture f;
    f.holdFirst = true;
    f.worker->start();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Running; }));
    f.push(1);
    f.waitHolding();  // the session is busy with its first sample
    // A million entries queue up behind it; each push returns without waiting for the session.
    constexpr std::size_t kEntries = 1000000;
    MediaDataRef buffer = timedBuffer(0);
    for (std::size_t i = 0; i < kEntries; ++i) f.worker->push(2, buffer.get());
    f.worker->pushEndOfStream(2);
    EXPECT_EQ(f.worker->queue().size(), kEntries + 1);
    f.worker->stop();
    f.release();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Idle; }));
    EXPECT_EQ(f.worker->queue().size(), 0u);
    EXPECT_EQ(f.sampleCount(0), 1u);  // nothing queued at stop time was processed
    EXPECT_TRUE(f.session(0).ends.empty());
    EXPECT_EQ(f.worker->stats().samplesReceived.load(), kEntries + 1);
}

TEST(MuxWorker, AStopWhileIdleDoesNotEndTheNextSession) {
    WorkerFixture f;
    f.worker->stop();
    f.worker->start();
    ASSERT_TRUE(eventually([&] { return f.worker->state() == Running; }));
    f.push(5);
    ASSERT_TRUE(eventually([&] { return f.sampleCount(0) == 1; }));
    EXPECT_EQ(f.worker->state(), Running);
}
}  // namespace
