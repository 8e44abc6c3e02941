// The cost per pushed sample through the segment synchroniser: N video renditions at 25 fps with 2 s GOPs and
// two audio streams (AAC frames at 48 kHz), cut in 2 s segments, for runs of 1 and 10 minutes of media.
// The time per sample must stay the same whatever the length of the run.
#include <benchmark/benchmark.h>

#include "sync_fakes.h"

namespace {
using namespace sync_test;

class CountingListener : public ISynchronizatorListener {
public:
    void OnChunks(const SegmentChunks& chunks, bool) override { segments += chunks.chunks.empty() ? 0u : 1u; }
    void OnFirstSegments(const SegmentChunks&, std::uint64_t, std::uint64_t, std::uint64_t) override {}
    void OnEndOfStream() override {
        std::lock_guard lock(m_mutex);
        m_ended = true;
        m_cv.notify_all();
    }
    void OnRestart() override {}
    void waitForEnd() {
        std::unique_lock lock(m_mutex);
        m_cv.wait(lock, [this] { return m_ended; });
    }
    std::uint64_t segments = 0;

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_ended = false;
};

void BM_PushSamples(benchmark::State& state) {
    const auto renditions = static_cast<std::uint32_t>(state.range(0));
    const std::int64_t seconds = state.range(1);
    constexpr std::int64_t kSecond = 10000000;
    constexpr std::int64_t kFrame = kSecond / 25;
    const std::int64_t videoFrames = seconds * 25;
    const std::int64_t audioFrames = seconds * 48000 / 1024;

    // Samples are made before timing: only the synchroniser's work counts.
    std::vector<std::shared_ptr<ISyncSample>> input;
    for (std::uint32_t v = 0; v < renditions; ++v) {
        input.push_back(config(v, 1, 2));
        input.push_back(config(v, 0, 2));
    }
    input.push_back(config(100, 0, 1));
    input.push_back(config(101, 0, 1));
    std::int64_t a = 0;
    for (std::int64_t f = 0; f < videoFrames; ++f) {
        for (std::uint32_t v = 0; v < renditions; ++v) input.push_back(media(v, f * kFrame, kFrame, f % 50 == 0));
        for (; a < audioFrames && a * 1024 * kSecond / 48000 <= f * kFrame; ++a) {
            const std::int64_t t = a * 1024 * kSecond / 48000;
            input.push_back(media(100, t, 213333, true));
            input.push_back(media(101, t, 213333, true));
        }
    }

    testkit::RecordingLogger logger;
    std::uint64_t segments = 0;
    for (auto _ : state) {
        CountingListener listener;
        SampleSegmentSynchronisator sync(listener, 2000, 1, nullptr, logger, false);
        for (std::uint32_t v = 0; v < renditions; ++v) sync.addStream(v, KindVideo, "video");
        sync.addStream(100, KindAudio, "audio");
        sync.addStream(101, KindAudio, "audio");
        for (const auto& sample : input) sync.pushSample(sample);
        for (std::uint32_t v = 0; v < renditions; ++v) sync.eof(v);
        sync.eof(100);
        sync.eof(101);
        listener.waitForEnd();
        segments = listener.segments;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(input.size()));
    state.counters["ns_per_sample"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(input.size()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["segments"] = static_cast<double>(segments);
}
BENCHMARK(BM_PushSamples)
    ->ArgsProduct({{1, 4, 8}, {60, 600}})
    ->ArgNames({"renditions", "seconds"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
