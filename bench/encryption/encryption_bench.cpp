// AES-128 CTR over 1 MiB against memcpy of the same bytes, and the subsample encryption of one 1080p P-frame
// (access unit delimiter, SEI, four slices: 32 KB). Prints the ratio CTR / memcpy at the end.
#include <benchmark/benchmark.h>

#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "packaging/encryption/sample_encryption.h"
#include "tests/common/fixed_key_provider.h"

namespace {

namespace enc = tvrn::encoding::packaging::encryption;

constexpr std::size_t kMiB = 1024 * 1024;

std::unique_ptr<enc::EncryptionManager> keyedManager() {
    auto manager = std::make_unique<enc::EncryptionManager>(std::make_unique<testkit::FixedKeyProvider>());
    std::vector<std::uint8_t> iv;
    manager->updateKey(0, iv);
    return manager;
}

std::vector<std::uint8_t> bytes(std::size_t n) {
    std::vector<std::uint8_t> b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(i * 131 + 7);
    return b;
}

void BM_EncryptCtr1MiB(benchmark::State& state) {
    auto manager = keyedManager();
    std::vector<std::uint8_t> data = bytes(kMiB), counter(16, 0);
    for (auto _ : state) {
        manager->encryptCtr(data.data(), data.data(), static_cast<std::int64_t>(data.size()), counter);
        benchmark::DoNotOptimize(data.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kMiB));
}
BENCHMARK(BM_EncryptCtr1MiB);

void BM_Memcpy1MiB(benchmark::State& state) {
    const std::vector<std::uint8_t> source = bytes(kMiB);
    std::vector<std::uint8_t> destination(kMiB);
    for (auto _ : state) {
        std::memcpy(destination.data(), source.data(), kMiB);
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kMiB));
}
BENCHMARK(BM_Memcpy1MiB);

// One sample in its stored form: each NAL with its 4-byte length field.
void BM_SubsampleVideoSample(benchmark::State& state) {
    auto manager = keyedManager();
    const std::size_t sizes[] = {4 + 2, 4 + 36, 4 + 8003, 4 + 8191, 4 + 7917, 4 + 8100};
    std::vector<std::vector<std::uint8_t>> storage;
    for (std::size_t n : sizes) storage.push_back(bytes(n));
    std::vector<enc::NalBytes> nals(storage.begin(), storage.end());
    std::size_t total = 0;
    for (std::size_t n : sizes) total += n;
    std::vector<std::uint8_t> iv = testkit::FixedKeyProvider::defaultIv();
    enc::SampleEncryptionInfo info;
    for (auto _ : state) {
        enc::encryptSample(nals, true, *manager, iv, info);
        benchmark::DoNotOptimize(info.subsamples.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(total));
}
BENCHMARK(BM_SubsampleVideoSample);

class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // Single runs, or the mean of repetitions.
            if ((run.run_type == Run::RT_Iteration && run.iterations > 0) ||
                (run.run_type == Run::RT_Aggregate && run.aggregate_name == "mean")) {
                times[run.run_name.str()] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto ctr = reporter.times.find("BM_EncryptCtr1MiB");
    const auto copy = reporter.times.find("BM_Memcpy1MiB");
    if (ctr != reporter.times.end() && copy != reporter.times.end() && copy->second > 0) {
        std::cout << "1 MiB: AES-128 CTR " << ctr->second << " ns, memcpy " << copy->second
                  << " ns, ratio CTR/memcpy: " << ctr->second / copy->second << std::endl;
    }
    benchmark::Shutdown();
    return 0;
}
