// A 60-second 1080p H.264 stream through the whole session, from ConsumeSample to IOutputFmp4::Write, against a
// plain memcpy of the same input bytes in the same run. The stream is a 2-second 1080p clip that ffmpeg encodes
// into the build directory on the first run, repeated 30 times with its times moved on.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "packaging/fmp4/chunks/chunks_builder.h"
#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/lib_parse_es/nal.h"
#include "tests/common/fixed_key_provider.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;
namespace es = tvrn::encoding::packaging::lib_parse_es;

struct Packet {
    std::int64_t pts, dts;
    std::size_t size;
};

struct Clip {
    std::vector<std::uint8_t> bytes;
    std::vector<Packet> packets;
};

// Encodes the clip once (2 s, 25 fps, GOPs of 25 with B-frames) and reads its packets' times and sizes.
Clip loadClip() {
    const std::string dir = std::filesystem::current_path().string();
    const std::string es = dir + "/bench_1080p.es";
    const std::string csv = dir + "/bench_1080p.packets.csv";
    if (!std::filesystem::exists(es) || !std::filesystem::exists(csv)) {
        const std::string ts = dir + "/bench_1080p.ts";
        const std::string make =
            "/usr/bin/ffmpeg -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -frames:v 50 -pix_fmt yuv420p "
            "-c:v libx264 -preset veryfast -g 25 -bf 2 -b:v 8M -f mpegts -muxdelay 0 -muxpreload 0 " + ts +
            " && /usr/bin/ffmpeg -v error -y -i " + ts + " -c copy -bsf:v h264_mp4toannexb -f h264 " + es +
            " && /usr/bin/ffprobe -v error -select_streams v -show_packets -show_entries packet=pts,dts,size "
            "-of csv=p=0 " + ts + " > " + csv;
        if (std::system(make.c_str()) != 0) return {};
    }
    Clip clip;
    std::ifstream in(es, std::ios::binary);
    clip.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    std::ifstream list(csv);
    std::string line;
    std::size_t total = 0;
    while (std::getline(list, line)) {
        std::istringstream fields(line);
        std::string pts, dts, size;
        std::getline(fields, pts, ',');
        std::getline(fields, dts, ',');
        std::getline(fields, size, ',');
        if (size.empty()) continue;
        clip.packets.push_back({std::stoll(pts), std::stoll(dts), std::stoull(size)});
        total += clip.packets.back().size;
    }
    if (total != clip.bytes.size()) return {};
    return clip;
}

struct Input {
    std::vector<MediaDataRef> buffers;
    std::size_t bytes = 0;
};

// 60 s: the clip 30 times over, times moved by its length each time.
const Input& input() {
    static const Input built = [] {
        Input in;
        const Clip clip = loadClip();
        if (clip.packets.empty()) return in;
        const std::int64_t length = static_cast<std::int64_t>(clip.packets.size()) * 3600;
        for (int repeat = 0; repeat < 30; ++repeat) {
            std::size_t offset = 0;
            for (const Packet& p : clip.packets) {
                MediaDataRef buffer = SimpleMediaData::create(clip.bytes.data() + offset, p.size);
                const std::int64_t pts = es::from90kHz(p.pts + repeat * length);
                const std::int64_t dts = es::from90kHz(p.dts + repeat * length);
                buffer->SetTime(&pts, nullptr);
                buffer->SetMediaTime(&dts, nullptr);
                in.buffers.push_back(std::move(buffer));
                in.bytes += p.size;
                offset += p.size;
            }
        }
        return in;
    }();
    return built;
}

// Counts what it is given, and tells when the stream has ended.
class CountingOutput : public IOutputFmp4 {
public:
    bool Write(const std::uint8_t* data, std::size_t size, const std::int64_t*, std::int64_t, bool, bool, bool,
               std::uint64_t) override {
        benchmark::DoNotOptimize(data);
        written += size;
        ++chunks;
        return true;
    }
    void EndOfStream() override {
        std::lock_guard lock(mutex);
        ended = true;
        condition.notify_all();
    }
    void waitForEnd() {
        std::unique_lock lock(mutex);
        condition.wait(lock, [this] { return ended; });
    }
    std::size_t written = 0;
    std::size_t chunks = 0;

private:
    std::mutex mutex;
    std::condition_variable condition;
    bool ended = false;
};

class NullLogger : public tvrn::log::ILogger {
public:
    void WriteMsg(tvrn::log::LOGLEVEL, const char*, ...) override {}
};

// Argument 1: encrypted with a fixed key (Common Encryption, subsamples), which should cost little next to the clear
// run of argument 0 (AES-128 CTR runs at about 10 GB/s with AES-NI).
void BM_SessionDash(benchmark::State& state) {
    const Input& in = input();
    if (in.buffers.empty()) {
        state.SkipWithError("no 1080p clip (ffmpeg failed)");
        return;
    }
    NullLogger logger;
    std::size_t chunks = 0, written = 0;
    for (auto _ : state) {
        CountingOutput output;
        {
            Fmp4Mux mux(Dash, Fmp4MuxConfig::fromMode(GopSegments, 1000, 2, 0, 0), nullptr, logger, false, false, false,
                        true, false, Fmp4MuxParts{});
            if (state.range(0) == 1)
                mux.chunksBuilder().SetEncryptionManager(
                    std::make_unique<tvrn::encoding::packaging::encryption::EncryptionManager>(
                        std::make_unique<testkit::FixedKeyProvider>()));
            ElementaryStreamAttributes attributes;
            attributes.type = H264_VIDEO;
            attributes.bitrate = 8000000;
            mux.AddStream(0, attributes);
            mux.SetOutputs({{"", {0}, &output, 1}});
            for (const MediaDataRef& buffer : in.buffers) mux.ConsumeSample(0, buffer.get());
            mux.ConsumeEndOfStream(0);
            output.waitForEnd();
        }
        chunks = output.chunks;
        written = output.written;
        if (output.written < in.bytes) state.SkipWithError("output smaller than input");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(in.bytes));
    state.counters["chunks"] = static_cast<double>(chunks);
    state.counters["input_MB"] = static_cast<double>(in.bytes) / 1e6;
    state.counters["output_MB"] = static_cast<double>(written) / 1e6;
}
BENCHMARK(BM_SessionDash)->Arg(0)->Arg(1)->ArgName("encrypted")->Unit(benchmark::kMillisecond)->UseRealTime();

// The chunk builder's share alone: the same stream's samples, built once and cut into 2-second segments (two
// GOPs), serialised and written.
struct Segments {
    SegmentChunks first;
    std::vector<SegmentChunks> media;
};

class CollectingListener : public tvrn::encoding::packaging::imff::imff_samples::ISampleListener {
public:
    void onStreamAdded(std::uint32_t, std::uint32_t) override {}
    void onSample(std::unique_ptr<tvrn::encoding::packaging::imff::imff_box::ISample>& sample) override {
        auto* concrete = dynamic_cast<Sample*>(sample.get());
        if (concrete == nullptr) return;
        sample.release();
        samples.push_back(std::make_shared<Fmp4Sample>(std::shared_ptr<Sample>(concrete)));
    }
    void onEnd(std::uint32_t) override {}
    std::vector<std::shared_ptr<Fmp4Sample>> samples;
};

const Segments& segments() {
    static const Segments built = [] {
        Segments out;
        CollectingListener listener;
        auto nals = es::createNalBuilder(H264_VIDEO);
        auto builder = tvrn::encoding::packaging::imff::imff_samples::createSampleBuilder(H264_VIDEO, false, &listener);
        nals->setListener(builder.get());
        for (const MediaDataRef& buffer : input().buffers) nals->push(buffer.get());
        nals->flush();
        auto firstChunk = std::make_shared<StreamChunk>();
        std::shared_ptr<StreamChunk> current;
        int gops = 0;
        for (const auto& sample : listener.samples) {
            if (sample->isConfiguration()) {
                firstChunk->samples.push_back(sample);
                continue;
            }
            if (sample->isSync() && (!current || ++gops % 2 == 0)) {
                current = std::make_shared<StreamChunk>();
                current->duration = 20000000;
                SegmentChunks segment;
                segment.chunks[0] = current;
                segment.count = 1;
                out.media.push_back(segment);
            }
            if (current) current->samples.push_back(sample);
        }
        out.first.chunks[0] = firstChunk;
        out.first.count = 1;
        return out;
    }();
    return built;
}

void BM_ChunksBuilderOnly(benchmark::State& state) {
    const Input& in = input();
    if (in.buffers.empty()) {
        state.SkipWithError("no 1080p clip (ffmpeg failed)");
        return;
    }
    const Segments& s = segments();
    NullLogger logger;
    const Fmp4MuxConfig config = Fmp4MuxConfig::fromMode(GopSegments, 1000, 2, 0, 0);
    for (auto _ : state) {
        CountingOutput output;
        ChunksBuilder builder(ChunksBuilderParams{Dash, &config, true, &logger});
        ElementaryStreamAttributes attributes;
        attributes.type = H264_VIDEO;
        builder.AddStream(0, 1, attributes);
        builder.SetOutputs({{"", {0}, &output, 1}}, false, false, false);
        builder.OnFirstSegments(s.first, 1000, 2000, 2000);
        for (const SegmentChunks& segment : s.media) builder.OnChunks(segment, true);
        if (output.written < in.bytes) state.SkipWithError("output smaller than input");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(in.bytes));
}
BENCHMARK(BM_ChunksBuilderOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same input bytes copied once into one buffer.
void BM_MemcpySameBytes(benchmark::State& state) {
    const Input& in = input();
    if (in.buffers.empty()) {
        state.SkipWithError("no 1080p clip (ffmpeg failed)");
        return;
    }
    std::vector<std::uint8_t> out(in.bytes);
    for (auto _ : state) {
        std::uint8_t* at = out.data();
        for (const MediaDataRef& buffer : in.buffers) {
            std::uint8_t* data = nullptr;
            buffer.get()->GetPointer(&data);
            const auto size = static_cast<std::size_t>(buffer.get()->GetActualDataLength());
            std::memcpy(at, data, size);
            at += size;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(in.bytes));
}
BENCHMARK(BM_MemcpySameBytes)->Unit(benchmark::kMillisecond)->UseRealTime();

class RateReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration && run.iterations > 0 && run.GetAdjustedRealTime() > 0) {
                const auto bytes = run.counters.find("bytes_per_second");
                if (bytes != run.counters.end()) rates[run.benchmark_name()] = bytes->second.value;
            }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto session = reporter.rates.find("BM_SessionDash/real_time");
    const auto copy = reporter.rates.find("BM_MemcpySameBytes/real_time");
    const auto builder = reporter.rates.find("BM_ChunksBuilderOnly/real_time");
    if (session != reporter.rates.end() && copy != reporter.rates.end()) {
        std::cout << "60 s of 1080p H.264 (" << static_cast<double>(input().bytes) / 1e6 << " MB in): session " << session->second / 1e6
                  << " MB/s, memcpy " << copy->second / 1e6 << " MB/s, session/memcpy "
                  << session->second / copy->second;
        if (builder != reporter.rates.end()) std::cout << ", chunk builder alone " << builder->second / 1e6 << " MB/s";
        std::cout << std::endl;
    }
    benchmark::Shutdown();
    return 0;
}
