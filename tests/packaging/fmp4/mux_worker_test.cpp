#include "packaging/fmp4/fmp4_mux/mux_worker.h"

#include <gtest/gtest.h>

#include "support/exceptions/corvane_exception.h"
#include "tests/common/session_fakes.h"
#include "tests/common/waiting.h"

namespace {
using namespace testkit;

// What the sessions of a worker saw, in build order. Samples of stream 99 make a session fail; with `hold`, the
// first session blocks in its first sample until released.
struct Sessions { std::vector<std::vector<std::uint32_t>> samples, ends; bool holding = false, released = false; };

class RecordingSession : public IMuxSession {
public:
    RecordingSession(Guarded<Sessions>& record, std::size_t index, bool hold)
        : m_record(record), m_index(index), m_hold(hold) {}
    void ConsumeSample(std::uint32_t streamId, IMediaData*) override {
        if (streamId == 99) throw CorvaneException("boom");
        m_record.update([&](Sessions& s) {
            s.samples[m_index].push_back(streamId);
            s.holding = m_hold && s.samples[m_index].size() == 1;
        });
        if (m_hold) m_record.waitFor([](const Sessions& s) { return s.released; });
    }
    void ConsumeEndOfStream(std::uint32_t streamId) override {
        m_record.update([&](Sessions& s) { s.ends[m_index].push_back(streamId); });
    }
    void SetEncryptionManager(std::unique_ptr<tvrn::encoding::packaging::encryption::EncryptionManager>) override {}

private:
    Guarded<Sessions>& m_record;
    std::size_t m_index;
    bool m_hold;
};

constexpr std::uint32_t kMarker = 1000;

struct WorkerFixture {
    explicit WorkerFixture(bool holdFirst = false) {
        worker = std::make_unique<MuxWorker>(filterLock, logger, [this, holdFirst]() -> std::unique_ptr<IMuxSession> {
            std::size_t index = 0;
            record.update([&](Sessions& s) {
                index = s.samples.size();
                s.samples.emplace_back();
                s.ends.emplace_back();
            });
            return std::make_unique<RecordingSession>(record, index, holdFirst && index == 0);
        });
    }
    void push(std::uint32_t id) { worker->push(id, timedBuffer(0).get()); }
    void startSession(std::size_t index) {
        worker->start();
        awaitSession(index);
    }
    // Waits until session `index` consumes: a marker put straight into the queue once the session is built
    // reaches it only when the worker runs it, whatever the worker's state when the marker was queued.
    void awaitSession(std::size_t index) {
        ASSERT_TRUE(record.waitFor([&](const Sessions& s) { return s.samples.size() > index; }));
        worker->queue().push(kMarker, timedBuffer(0));
        ASSERT_TRUE(record.waitFor([&](const Sessions& s) { return !s.samples[index].empty(); }));
        ASSERT_EQ(worker->state(), Running);
    }
    std::vector<std::uint32_t> samplesOf(std::size_t index) const { return record.get().samples.at(index); }

    std::recursive_mutex filterLock;
    RecordingLogger logger;
    Guarded<Sessions> record;
    std::unique_ptr<MuxWorker> worker;
};

TEST(MuxWorker, SamplesArriveOnlyWhileASessionRuns) {
    WorkerFixture f;
    EXPECT_EQ(f.worker->state(), Idle);
    f.push(0);  // no session: counted, dropped
    EXPECT_EQ(f.worker->stats().samplesReceived.load(), 1u);

    f.startSession(0);
    f.push(1);
    f.push(2);
    f.worker->pushEndOfStream(1);
    ASSERT_TRUE(f.record.waitFor([](const Sessions& s) { return !s.ends[0].empty(); }));
    EXPECT_EQ(f.samplesOf(0), (std::vector<std::uint32_t>{kMarker, 1, 2}));
    EXPECT_EQ(f.record.get().ends[0], std::vector<std::uint32_t>{1});

    // A stop ends the session; the next start builds a new one.
    f.worker->stop();
    f.startSession(1);
    f.push(4);
    ASSERT_TRUE(f.record.waitFor([](const Sessions& s) { return s.samples[1].size() == 2; }));
    EXPECT_EQ(f.samplesOf(1), (std::vector<std::uint32_t>{kMarker, 4}));
    EXPECT_EQ(f.worker->stats().samplesReceived.load(), 4u);
}

TEST(MuxWorker, AFailureInTheConsumeLoopRebuildsTheSession) {
    WorkerFixture f;
    f.startSession(0);
    f.push(1);
    f.push(99);
    // The rebuilt session runs without a new start.
    f.awaitSession(1);
    f.push(2);
    ASSERT_TRUE(f.record.waitFor([](const Sessions& s) { return s.samples[1].size() == 2; }));
    EXPECT_TRUE(f.logger.contains("0 consuming samples failed: boom"));
    EXPECT_EQ(f.samplesOf(0), (std::vector<std::uint32_t>{kMarker, 1}));
    EXPECT_EQ(f.samplesOf(1), (std::vector<std::uint32_t>{kMarker, 2}));
}

TEST(MuxWorker, StopDiscardsWhatIsQueuedAndAPushNeverBlocks) {
    WorkerFixture f(true);
    f.startSession(0);  // the session now holds on its first sample
    ASSERT_TRUE(f.record.waitFor([](const Sessions& s) { return s.holding; }));
    // A million entries queue up behind it; each push returns without waiting for the session.
    constexpr std::size_t kEntries = 1000000;
    MediaDataRef buffer = timedBuffer(0);
    for (std::size_t i = 0; i < kEntries; ++i) f.worker->push(2, buffer.get());
    f.worker->pushEndOfStream(2);
    EXPECT_EQ(f.worker->queue().size(), kEntries + 1);
    f.worker->stop();
    f.record.update([](Sessions& s) { s.released = true; });
    // The next session sees only its own marker: nothing queued at the stop was processed.
    f.startSession(1);
    EXPECT_EQ(f.samplesOf(0), std::vector<std::uint32_t>{kMarker});
    EXPECT_TRUE(f.record.get().ends[0].empty());
    EXPECT_EQ(f.samplesOf(1), std::vector<std::uint32_t>{kMarker});
    EXPECT_EQ(f.worker->stats().samplesReceived.load(), kEntries);  // the marker went straight to the queue
}

TEST(MuxWorker, AStopWhileIdleDoesNotEndTheNextSession) {
    WorkerFixture f;
    f.worker->stop();
    f.startSession(0);
    f.push(5);
    ASSERT_TRUE(f.record.waitFor([](const Sessions& s) { return s.samples[0].size() == 2; }));
    EXPECT_EQ(f.worker->state(), Running);
}
}  // namespace
