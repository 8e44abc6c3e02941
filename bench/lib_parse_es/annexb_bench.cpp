// Annex B scanning and NAL extraction on a real H.264 stream, against memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

const std::vector<std::uint8_t>& stream() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::ifstream in(std::string(FMP4_TEST_DATA_DIR) + "/h264_bench_640x360.es", std::ios::binary);
        return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }();
    return bytes;
}

// The stream in input buffers of `size` bytes, made once and pushed again on every iteration.
std::vector<es::MediaDataRef> buffers(std::size_t size) {
    const auto& s = stream();
    std::vector<es::MediaDataRef> out;
    for (std::size_t offset = 0; offset < s.size(); offset += size) {
        out.push_back(SimpleMediaData::create(s.data() + offset, std::min(size, s.size() - offset)));
        const std::int64_t time = static_cast<std::int64_t>(offset);
        out.back()->SetTime(&time, nullptr);
    }
    return out;
}

struct CountingListener : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override {
        bytes += nal->length;
        ++units;
    }
    void onEnd() override {}
    std::uint64_t bytes = 0;
    std::uint64_t units = 0;
};

void BM_Memcpy(benchmark::State& state) {
    const auto& s = stream();
    std::vector<std::uint8_t> target(s.size());
    for (auto _ : state) {
        std::memcpy(target.data(), s.data(), s.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(s.size()));
}
BENCHMARK(BM_Memcpy);

// Finding every 00 00 pair only: the part of the scan that touches all bytes.
void BM_ZeroPairSearch(benchmark::State& state) {
    const auto& s = stream();
    for (auto _ : state) {
        std::size_t pairs = 0;
        const std::uint8_t* p = s.data();
        const std::uint8_t* end = p + s.size();
        while (const std::uint8_t* hit = es::findZeroPair(p, static_cast<std::size_t>(end - p))) {
            ++pairs;
            p = hit + 2;
        }
        benchmark::DoNotOptimize(pairs);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(s.size()));
}
BENCHMARK(BM_ZeroPairSearch);

// The whole builder: scan, one copy of every unit into its own NAL, timing, delivery.
void BM_AnnexBExtraction(benchmark::State& state) {
    const auto input = buffers(static_cast<std::size_t>(state.range(0)));
    CountingListener listener;
    for (auto _ : state) {
        es::NALBuilderH264 builder;
        builder.setListener(&listener);
        for (const auto& buffer : input) builder.push(buffer.get());
        builder.flush();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream().size()));
    state.counters["units"] = benchmark::Counter(static_cast<double>(listener.units) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_AnnexBExtraction)->Arg(1316)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();
