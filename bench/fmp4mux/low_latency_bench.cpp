// Low latency from end to end: the time from the last sample of a chunk entering the filter to the chunk's last
// byte reaching a player on 127.0.0.1 through fmp4mux's HTTP origin. The engine, the presentation and the origin
// are fmp4mux's own (low-latency mode, 400 ms chunks, 2 s segments, the sample's video); the player is a libcurl
// client that, like a low-latency player, asks for each segment before it exists and reads it as it grows.
// Each iteration is one chunk: its other samples go in untimed, with a pause, as a live source would send them;
// then the clock runs from the delivery of its last sample until the client holds every byte of it.
#include <benchmark/benchmark.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

#include "apps/fmp4mux/cli/console.h"
#include "apps/fmp4mux/engine/packager.h"
#include "apps/fmp4mux/libav/libav_input.h"
#include "apps/fmp4mux/manifests/manifests.h"
#include "apps/fmp4mux/model/presentation.h"
#include "apps/fmp4mux/outputs/http_origin.h"

namespace {
using namespace fmp4mux;
using Clock = std::chrono::steady_clock;

// A packet kept after the input's callback.
struct Kept {
    std::vector<std::uint8_t> bytes;
    Packet packet;
};

std::vector<Kept> videoPackets(StreamInfo& info) {
    std::vector<std::string> skipped;
    LibavInput input(std::string(FMP4_SAMPLES_DIR) + "/sample.ts", 0, skipped);
    std::size_t video = 0;
    for (std::size_t i = 0; i < input.streams().size(); ++i)
        if (input.streams()[i].kind == "video") video = i; else input.drop(i);
    info = input.streams()[video];
    std::vector<Kept> kept;
    std::atomic<bool> stop{false};
    input.run([&](Packet& p) {
        Kept k{std::vector<std::uint8_t>(p.data, p.data + p.size), p};
        k.packet.owned.clear();
        kept.push_back(std::move(k));
    }, stop);
    for (Kept& k : kept) k.packet.data = k.bytes.data();
    return kept;
}

// Sizes of what is published for each growing segment, as the origin will send it.
class Watch : public Publisher {
public:
    explicit Watch(Publisher& next) : m_next(next) {}
    void publish(Publication&& p) override {
        if (p.growth != Publication::Growth::Whole) {
            std::size_t size = p.bytes.size();
            if (!p.ranges.empty()) {
                size = 0;
                for (const auto& r : p.ranges) size += r.second;
            }
            std::lock_guard lock(mutex);
            published[p.path] += size;
            ++chunks;
            changed.notify_all();
        }
        m_next.publish(std::move(p));
    }
    void drain() override { m_next.drain(); }
    std::optional<std::string> failure() const override { return m_next.failure(); }

    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, std::size_t> published;
    std::map<std::string, std::size_t> received;  // by the client
    std::uint64_t chunks = 0;
    std::string last;

private:
    Publisher& m_next;
};

// Asks for segment 1, 2, ... in turn, each before it exists, reading it as it grows.
void player(Watch& watch, std::uint16_t port, const std::atomic<bool>& stop) {
    CURL* curl = curl_easy_init();
    struct Sink {
        Watch* watch;
        std::string path;
    } sink{&watch, {}};
    const auto write = +[](char*, std::size_t size, std::size_t count, void* self) -> std::size_t {
        auto& s = *static_cast<Sink*>(self);
        std::lock_guard lock(s.watch->mutex);
        s.watch->received[s.path] += size * count;
        s.watch->changed.notify_all();
        return size * count;
    };
    for (int number = 1; !stop && number < 1000; ++number) {
        sink.path = "video0/chunk_" + std::to_string(number) + ".mp4";
        const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/" + sink.path;
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
        curl_easy_perform(curl);
    }
    curl_easy_cleanup(curl);
}

void BM_ChunkFromFilterToPlayer(benchmark::State& state) {
    StreamInfo info;
    std::vector<Kept> packets = videoPackets(info);
    const auto firstKey = static_cast<std::size_t>(
        std::find_if(packets.begin(), packets.end(), [](const Kept& k) { return k.packet.key; }) - packets.begin());
    constexpr std::size_t kSamplesPerChunk = 10;  // 400 ms at 25 fps

    const std::string root = std::filesystem::temp_directory_path() / ("fmp4mux-ll-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root);
    {
        HttpOrigin origin({root, "127.0.0.1", 0, std::chrono::milliseconds(3000)});
        Watch watch(origin);
        DashManifestWriter mpd;
        PresentationSettings settings;
        settings.live = true;
        settings.lowLatency = true;
        settings.chunksPerSegment = 5;
        settings.initTemplate = "${representationId}/init.mp4";
        settings.mediaTemplate = "${representationId}/chunk_${number}.mp4";
        Presentation presentation(settings, watch, mpd);
        presentation.addOutput(0, "video", 0, 0, false, "video0", "und");
        StderrLogger logger(0);
        EngineSettings engine;
        engine.mode = 3;
        engine.gopDurationMs = 2000;
        engine.chunkDurationMs = 400;
        engine.offline = false;
        Packager packager(engine, logger);
        const int handle = packager.connect({"0:0", info, 500000, "und", "video0", {}}, 400,
                                            [&](bool init, ChunkSink::Bytes&& room, std::size_t length,
                                                ChunkSink::References&& references) {
                                                presentation.onChunk(0, init, std::move(room), length,
                                                                     std::move(references));
                                            }, {});
        std::atomic<bool> stop{false};
        packager.start(stop);
        std::thread client([&] { player(watch, origin.port(), stop); });

        std::vector<double> latencies;
        std::size_t lookahead = 0;
        std::size_t next = firstKey;
        std::uint64_t chunk = 0;
        for (auto _ : state) {
            const std::size_t last = firstKey + (chunk + 1) * kSamplesPerChunk - 1;
            if (last >= packets.size()) {
                state.SkipWithError("the sample has no more chunks");
                break;
            }
            for (; next < last; ++next) packager.deliver(handle, packets[next].packet);
            std::this_thread::sleep_for(std::chrono::milliseconds(60));  // the engine has taken them
            // The engine knows that an access unit has ended when the next ones begin (the first chunk finds how
            // many it takes): they go in at once after the chunk's last sample, as fast as the input gives them.
            const auto start = Clock::now();
            packager.deliver(handle, packets[next++].packet);
            for (std::size_t i = 0; i < lookahead && next < packets.size(); ++i) packager.deliver(handle, packets[next++].packet);
            std::unique_lock lock(watch.mutex);
            const auto done = [&] {
                if (watch.chunks <= chunk) return false;
                for (const auto& [path, size] : watch.published)
                    if (watch.received[path] < size) return false;
                return true;
            };
            bool arrived = watch.changed.wait_for(lock, std::chrono::milliseconds(chunk == 0 ? 300 : 5000), done);
            while (!arrived && chunk == 0 && lookahead < 8 && next < packets.size()) {
                lock.unlock();
                packager.deliver(handle, packets[next++].packet);
                ++lookahead;
                lock.lock();
                arrived = watch.changed.wait_for(lock, std::chrono::milliseconds(300), done);
            }
            if (chunk == 0) {  // finding the look-ahead is not timed
                ++chunk;
                state.SetIterationTime(0);
                continue;
            }
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            lock.unlock();
            if (!arrived) {
                std::fprintf(stderr, "failure: %s\n", presentation.failure().value_or("none").c_str());
                std::fprintf(stderr, "chunk %llu: %llu published\n", static_cast<unsigned long long>(chunk),
                             static_cast<unsigned long long>(watch.chunks));
                for (const auto& [path, size] : watch.published)
                    std::fprintf(stderr, "  %s: %zu published, %zu received\n", path.c_str(), size, watch.received[path]);
                state.SkipWithError("a chunk did not reach the player");
                break;
            }
            state.SetIterationTime(seconds);
            latencies.push_back(seconds * 1000);
            ++chunk;
        }
        stop = true;
        for (std::size_t i = next; i < packets.size(); ++i) packager.deliver(handle, packets[i].packet);
        packager.endOfStream(handle);
        packager.waitForEnd(std::chrono::seconds(10));
        presentation.finish();
        client.join();
        packager.stop();
        if (!latencies.empty()) {
            std::sort(latencies.begin(), latencies.end());
            state.counters["median_ms"] = latencies[latencies.size() / 2];
            state.counters["max_ms"] = latencies.back();
            state.counters["lookahead_samples"] = static_cast<double>(lookahead);
        }
    }
    std::filesystem::remove_all(root);
}
BENCHMARK(BM_ChunkFromFilterToPlayer)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
