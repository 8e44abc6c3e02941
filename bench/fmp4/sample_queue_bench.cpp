// The cost of handing a buffer from a streaming thread to the worker through the SampleQueue.
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include "packaging/fmp4/fmp4_mux/sample_queue.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;

MediaDataRef makeBuffer() {
    const std::uint8_t bytes[188] = {};
    return SimpleMediaData::create(bytes, sizeof bytes);
}

// One push and one pop on the same thread: the queue's own cost with no contention.
void BM_PushThenPop(benchmark::State& state) {
    SampleQueue queue;
    MediaDataRef buffer = makeBuffer();
    SampleQueue::Entry entry;
    for (auto _ : state) {
        queue.push(1, buffer);
        queue.waitForEntry(entry);
        benchmark::DoNotOptimize(entry.streamId);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PushThenPop);

// Pushes from 1 or 4 streaming threads while a worker thread pops everything: the cost a streaming thread
// pays per push, and the rate the pair sustains.
class Handover {
public:
    Handover() : m_consumer([this] { consume(); }) {}
    ~Handover() {
        m_queue.signalExit();
        m_consumer.join();
    }
    SampleQueue& queue() { return m_queue; }
    std::uint64_t popped() const { return m_popped.load(); }

private:
    void consume() {
        SampleQueue::Entry entry;
        while (m_queue.waitForEntry(entry) == SampleQueue::Wake::Entry) {
            entry.sample.reset();
            m_popped.fetch_add(1, std::memory_order_relaxed);
        }
    }
    SampleQueue m_queue;
    std::atomic<std::uint64_t> m_popped{0};
    std::thread m_consumer;
};

Handover* g_handover = nullptr;

void BM_PushWithWorker(benchmark::State& state) {
    if (state.thread_index() == 0) g_handover = new Handover();
    MediaDataRef buffer = makeBuffer();
    // The benchmark's threads meet at the start of the loop, after thread 0 made the queue.
    for (auto _ : state) g_handover->queue().push(static_cast<std::uint32_t>(state.thread_index()), buffer);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        // Let the worker drain what is left before the next run; its rate shows in the counter.
        while (g_handover->queue().size() > 0) std::this_thread::yield();
        state.counters["popped"] = static_cast<double>(g_handover->popped());
        // All threads have left the loop together, so no push is still under way.
        delete g_handover;
        g_handover = nullptr;
    }
}
BENCHMARK(BM_PushWithWorker)->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
