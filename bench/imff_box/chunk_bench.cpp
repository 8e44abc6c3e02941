// The box work of one 2-second DASH chunk (50 video samples of 20 KB, 94 audio samples of 400 B) against
// a plain copy of the same payload bytes. Prints both and the ratio box work / payload copy.
#include <benchmark/benchmark.h>

#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "packaging/imff_box/box.h"
#include "packaging/imff_box/fragment_boxes.h"
#include "packaging/imff_box/fragment_builder.h"
#include "packaging/imff_box/movie_boxes.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;

class BenchSample : public ISample {
public:
    BenchSample(std::int64_t pts, std::int64_t dts, std::uint64_t rate, std::int64_t duration, std::size_t size,
                bool sync)
        : m_pts(pts), m_dts(dts), m_rate(rate), m_duration(duration), m_data(size, 0x5A), m_sync(sync) {}
    bool getPts(std::int64_t& v) const override { return v = m_pts, true; }
    bool getDts(std::int64_t& v) const override { return v = m_dts, true; }
    bool getTimescale(std::uint64_t& v) const override { return v = m_rate, true; }
    bool getDuration(std::int64_t& v) const override { return v = m_duration, true; }
    std::uint32_t getSapType() const override { return m_sync ? 1 : 0; }
    bool isSync() const override { return m_sync; }
    std::size_t getSize() const override { return m_data.size(); }
    void getData(std::uint8_t* dest) const override { std::memcpy(dest, m_data.data(), m_data.size()); }
    bool getEncryptionInfo(SampleEncryptionInfo&) const override { return false; }

private:
    std::int64_t m_pts, m_dts;
    std::uint64_t m_rate;
    std::int64_t m_duration;
    std::vector<std::uint8_t> m_data;
    bool m_sync;
};

struct Chunk {
    std::vector<BenchSample> video, audio;
    std::vector<const ISample*> videoPointers, audioPointers;
    std::size_t payload = 0;

    Chunk() {
        // 25 fps at 90 kHz with B-frame reordering; AAC frames of 1024 at 48 kHz.
        for (int i = 0; i < 50; ++i) {
            const std::int64_t pts = (i % 3 == 1 ? i + 2 : i % 3 == 0 ? i : i - 1) * 3600;
            video.emplace_back(pts + 7200, i * 3600, 90000, 3600, 20 * 1024, i == 0);
        }
        for (int i = 0; i < 94; ++i) audio.emplace_back(i * 1024, i * 1024, 48000, 1024, 400, true);
        for (const auto& s : video) videoPointers.push_back(&s), payload += s.getSize();
        for (const auto& s : audio) audioPointers.push_back(&s), payload += s.getSize();
    }
};

const Chunk& chunk() {
    static const Chunk c;
    return c;
}

struct ChunkTree {
    BoxList boxes;  // styp, sidx, moof, mdat
    TrackFragment video, audio;
};

// Builds the chunk's boxes (styp, sidx, moof with two trafs, mdat) and sets the size-dependent fields.
ChunkTree buildChunkTree() {
    const Chunk& c = chunk();
    TrackFragmentParameters video;
    video.trackId = 1;
    video.video = true;
    video.segmentDuration = 180000;
    video.trackTimescale = 90000;
    TrackFragmentParameters audio;
    audio.trackId = 2;
    audio.segmentDuration = 96000;
    audio.trackTimescale = 48000;
    ChunkTree tree;
    tree.video = TrackFragmentBuilder::build(video, c.videoPointers);
    tree.audio = TrackFragmentBuilder::build(audio, c.audioPointers);

    auto moof = std::make_shared<Box>(fourCC("moof"));
    moof->addChild(std::make_shared<MovieFragmentHeaderBox>(1));
    moof->addChild(tree.video.traf);
    moof->addChild(tree.audio.traf);
    auto mdat = std::make_shared<MediaDataBox>(tree.video.payloadSize + tree.audio.payloadSize);
    const auto moofSize = static_cast<std::int32_t>(moof->getSize());
    tree.video.trun->setDataOffset(moofSize + 8);
    tree.audio.trun->setDataOffset(moofSize + 8 + static_cast<std::int32_t>(tree.video.payloadSize));
    auto sidx = std::make_shared<SegmentIndexBox>(1, 90000, 0);
    sidx->addReference(static_cast<std::uint32_t>(moof->getSize() + mdat->getSize()), 180000, 1);

    tree.boxes.push_back(std::make_shared<SegmentTypeBox>(fourCC("msdh"), 0,
                                                          std::vector<FourCC>{fourCC("msdh"), fourCC("msix")}));
    tree.boxes.push_back(sidx);
    tree.boxes.push_back(moof);
    tree.boxes.push_back(mdat);
    return tree;
}

std::vector<std::uint8_t>& buffer() {
    static std::vector<std::uint8_t> b(2 * 1024 * 1024);
    return b;
}

// Box work: build the tree, size it, write the metadata (mdat writes only its header).
void BM_ChunkBoxes(benchmark::State& state) {
    for (auto _ : state) {
        const ChunkTree tree = buildChunkTree();
        ImffBitWriter writer(buffer().data(), buffer().size());
        benchmark::DoNotOptimize(getBoxesSize(tree.boxes));
        for (const auto& box : tree.boxes) binarizeChecked(*box, writer);
        benchmark::DoNotOptimize(buffer().data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_ChunkBoxes);

// The same payload bytes copied into a buffer, as the sample copy behind mdat does.
void BM_PayloadCopy(benchmark::State& state) {
    const Chunk& c = chunk();
    for (auto _ : state) {
        std::uint8_t* out = buffer().data();
        for (const ISample* s : c.videoPointers) s->getData(out), out += s->getSize();
        for (const ISample* s : c.audioPointers) s->getData(out), out += s->getSize();
        benchmark::DoNotOptimize(buffer().data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(c.payload));
}
BENCHMARK(BM_PayloadCopy);

// The whole chunk as a producer makes it: the tree, one exact allocation, the boxes, the payload behind mdat.
void BM_WholeChunk(benchmark::State& state) {
    for (auto _ : state) {
        const ChunkTree tree = buildChunkTree();
        std::vector<std::uint8_t> bytes(getBoxesSize(tree.boxes));
        ImffBitWriter writer(bytes.data(), bytes.size());
        for (const auto& box : tree.boxes) binarizeChecked(*box, writer);
        TrackFragmentBuilder::writePayload(tree.video, writer);
        TrackFragmentBuilder::writePayload(tree.audio, writer);
        if (writer.getBytePosition() != bytes.size()) state.SkipWithError("chunk size mismatch");
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_WholeChunk);

// Keeps the mean time of each run to print the ratio at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
                times[run.benchmark_name()] = run.GetAdjustedRealTime();
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
    const auto boxes = reporter.times.find("BM_ChunkBoxes");
    const auto copy = reporter.times.find("BM_PayloadCopy");
    if (boxes != reporter.times.end() && copy != reporter.times.end() && copy->second > 0) {
        std::cout << "chunk boxes: " << boxes->second << " ns, payload copy (" << chunk().payload
                  << " bytes): " << copy->second << " ns, ratio boxes/copy: " << boxes->second / copy->second
                  << std::endl;
    }
    benchmark::Shutdown();
    return 0;
}
