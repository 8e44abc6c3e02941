// Whole sessions of real streams, with the system's own parts, against the chunks kept under tests/data/golden:
// every init and media chunk byte for byte. A mismatch prints both chunks as box trees. When a change of the
// output is meant, FMP4_REGENERATE_GOLDEN=1 rewrites the files (tests/data/golden/README.md), each output only
// after ffmpeg has decoded it whole, without error, to the number of frames fed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <tuple>

#include "tests/common/chunks.h"
#include "tests/common/loggers.h"
#include "tests/common/process.h"

namespace {
using namespace testkit;

// The inputs start 10 s into their clock, so that the time origin is not 0.
constexpr std::int64_t kOffset90k = 900000;
// One segment of 24 frames (960 ms at 25 fps) and the start of the next, which the end of stream flushes.
constexpr std::size_t kVideoFrames = 30;
constexpr std::int64_t kFrame90k = 3600;
// The UTC clock of the chunk builder, fixed.
constexpr std::int64_t kUtcMs = 1700000000000;

struct GoldenCase {
    const char* name;
    const char* video;  // a video fixture, or null
    std::uint32_t videoType;
    bool audio;  // with the stereo AAC fixture
    OutputFormat format;
    Fmp4MuxMode mode;
};

void PrintTo(const GoldenCase& c, std::ostream* os) { *os << c.name; }

// A stream's buffers, each with its decoding time at 90 kHz for the interleaving.
struct Feed { std::uint32_t type = 0; std::vector<es::MediaDataRef> buffers; std::vector<std::int64_t> times90k; };

// The video fixture's first frames; with `split`, every packet cut in two where a seeded draw says, only the
// first piece carrying the packet's times.
Feed videoFeed(const char* name, std::uint32_t type, bool split) {
    const Fixture fixture = loadFixture(name);
    Feed feed{type, {}, {}};
    std::size_t offset = 0;
    std::uint32_t seed = 5;
    for (std::size_t i = 0; i < kVideoFrames; ++i) {
        const Packet& p = fixture.packets[i];
        seed = seed * 1103515245u + 12345u;
        const std::size_t first = split ? std::min(p.size, 16 + (seed >> 16) % p.size) : p.size;
        feed.buffers.push_back(makeBuffer(fixture.bytes.data() + offset, first, p.pts + kOffset90k, p.dts + kOffset90k));
        feed.times90k.push_back(p.dts + kOffset90k);
        if (first < p.size) {
            feed.buffers.push_back(makeBuffer(fixture.bytes.data() + offset + first, p.size - first));
            feed.times90k.push_back(p.dts + kOffset90k);
        }
        offset += p.size;
    }
    return feed;
}

// The AAC frames that the video's time span covers, starting with its first picture (audio before the first
// random access point would be cut away), one buffer a frame; with `split`, each frame in two buffers.
Feed audioFeed(bool split) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.adts");
    const std::int64_t start90k = loadFixture("h264_plain").packets.front().pts + kOffset90k;
    const std::vector<Bytes> frames = packetBytes(fixture);
    Feed feed{AAC_ADTS_AUDIO, {}, {}};
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const std::int64_t t = fixture.packets[i].pts * 90000 / kProbeTimeBase;
        if (t >= static_cast<std::int64_t>(kVideoFrames) * kFrame90k) break;
        const std::size_t first = split ? frames[i].size() / 3 : frames[i].size();
        feed.buffers.push_back(makeBuffer(frames[i].data(), first, t + start90k));
        feed.times90k.push_back(t + start90k);
        if (first < frames[i].size()) {
            feed.buffers.push_back(makeBuffer(frames[i].data() + first, frames[i].size() - first));
            feed.times90k.push_back(t + start90k);
        }
    }
    return feed;
}

// One session, one output per stream, the streams fed interleaved in decoding-time order as a transport stream
// demultiplexer delivers them. The chunks of each output by its name ("video", "audio", or "video<k>").
std::map<std::string, std::vector<WrittenChunk>> runSession(OutputFormat format, Fmp4MuxMode mode,
                                                            const std::vector<std::pair<std::string, Feed>>& feeds) {
    RecordingLogger logger;
    Fmp4MuxParts parts;
    parts.makeChunksBuilder = [](ChunksBuilderParams params) {
        params.utcClockMs = [] { return kUtcMs; };
        return makeChunksBuilder(params);
    };
    auto mux = std::make_unique<Fmp4Mux>(format, Fmp4MuxConfig::fromMode(mode, 960, 1, 960, 0), nullptr, logger,
                                         false, false, false, false, false, parts);
    std::vector<KeepingOutput> outputs(feeds.size());
    std::vector<ChunkOutputSeed> seeds;
    for (std::uint32_t i = 0; i < feeds.size(); ++i) {
        ElementaryStreamAttributes attributes;
        attributes.type = feeds[i].second.type;
        attributes.bitrate = isAudio(attributes.type) ? 64000 : 300000 * static_cast<std::int32_t>(i + 1);
        attributes.bandwidth = static_cast<std::uint32_t>(attributes.bitrate);
        attributes.language = "eng";
        mux->AddStream(i, attributes);
        seeds.push_back({"", {static_cast<std::int32_t>(i)}, &outputs[i], 1});
    }
    mux->SetOutputs(seeds);
    // (time, stream, buffer index), sorted: each stream's buffers stay in order, ties go to the earlier stream.
    std::vector<std::tuple<std::int64_t, std::uint32_t, std::size_t>> order;
    for (std::uint32_t i = 0; i < feeds.size(); ++i)
        for (std::size_t k = 0; k < feeds[i].second.buffers.size(); ++k) order.emplace_back(feeds[i].second.times90k[k], i, k);
    std::sort(order.begin(), order.end());
    for (const auto& [time, stream, k] : order) mux->ConsumeSample(stream, feeds[stream].second.buffers[k].get());
    for (std::uint32_t i = 0; i < feeds.size(); ++i) mux->ConsumeEndOfStream(i);
    std::map<std::string, std::vector<WrittenChunk>> chunks;
    for (std::size_t i = 0; i < feeds.size(); ++i) {
        EXPECT_TRUE(outputs[i].waitForEnd());
        chunks[feeds[i].first] = outputs[i].chunks();
    }
    mux.reset();
    return chunks;
}

std::map<std::string, std::vector<WrittenChunk>> runCase(const GoldenCase& c, bool split = false) {
    std::vector<std::pair<std::string, Feed>> feeds;
    if (c.video) feeds.emplace_back("video", videoFeed(c.video, c.videoType, split));
    if (c.audio) feeds.emplace_back("audio", audioFeed(split));
    return runSession(c.format, c.mode, feeds);
}

std::string goldenDir(const GoldenCase& c) { return std::string(FMP4_TEST_DATA_DIR) + "/golden/" + c.name; }
std::string chunkFile(const std::string& output, std::size_t k) {
    return output + "-" + std::to_string(k) + (k == 0 ? "-init" : "") + ".chunk";
}

// The number of frames ffmpeg decodes from an output's playable file; -1 on any decoding error.
int decodedFrames(const std::vector<WrittenChunk>& chunks, const std::string& output) {
    TempDir dir;
    writeFile(dir.file("out.mp4"), playableFile(chunks));
    int status = -1;
    const std::string frames = run("ffmpeg -v error -nostdin -xerror -err_detect explode -i " + dir.file("out.mp4") +
                                       " -map 0:" + (output == "audio" ? "a" : "v") + ":0 -f framemd5 - 2>&1",
                                   &status);
    int count = 0;
    for (const std::string& line : lines(frames)) {
        if (line[0] == '#') continue;
        if (line.find(',') == std::string::npos) return -1;  // an error message
        ++count;
    }
    return status == 0 ? count : -1;
}

void regenerate(const GoldenCase& c, const std::map<std::string, std::vector<WrittenChunk>>& outputs) {
    for (const auto& [output, chunks] : outputs) {
        const int fed = output == "audio" ? static_cast<int>(audioFeed(false).buffers.size()) : static_cast<int>(kVideoFrames);
        ASSERT_EQ(decodedFrames(chunks, output), fed) << c.name << " " << output << " does not decode as fed";
    }
    std::filesystem::remove_all(goldenDir(c));
    std::filesystem::create_directories(goldenDir(c));
    for (const auto& [output, chunks] : outputs)
        for (std::size_t k = 0; k < chunks.size(); ++k) writeFile(goldenDir(c) + "/" + chunkFile(output, k), chunks[k].bytes);
}

void expectGolden(const GoldenCase& c, const std::map<std::string, std::vector<WrittenChunk>>& outputs) {
    for (const auto& [output, chunks] : outputs) {
        std::size_t kept = 0;
        while (std::filesystem::exists(goldenDir(c) + "/" + chunkFile(output, kept))) ++kept;
        EXPECT_EQ(chunks.size(), kept) << c.name << ": chunks of " << output;
        for (std::size_t k = 0; k < std::min(kept, chunks.size()); ++k) {
            const Bytes expected = readFile(goldenDir(c) + "/" + chunkFile(output, k));
            const Bytes& actual = chunks[k].bytes;
            EXPECT_EQ(chunks[k].init, k == 0);
            if (actual == expected) continue;
            const bool init = k == 0;
            EXPECT_EQ(describeChunk(actual, init), describeChunk(expected, init))
                << c.name << ": " << chunkFile(output, k) << " differs";
            const auto at = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
            ADD_FAILURE() << c.name << ": " << chunkFile(output, k) << " differs from byte "
                          << (at.first - actual.begin()) << " (" << actual.size() << " bytes, kept "
                          << expected.size() << ")";
        }
    }
}

const GoldenCase kCases[] = {
    {"h264_aac_dash_gop", "h264_plain", H264_VIDEO, true, Dash, GopSegments},
    {"h264_aac_smooth_gop", "h264_plain", H264_VIDEO, true, Smooth, GopSegments},
    {"h264_aac_dash_separate_audio", "h264_plain", H264_VIDEO, true, Dash, SeparateAudioSegments},
    {"h264_aac_smooth_separate_audio", "h264_plain", H264_VIDEO, true, Smooth, SeparateAudioSegments},
    {"aac_dash_separate_audio", nullptr, 0, true, Dash, SeparateAudioSegments},
    {"hevc_dash_gop", "hevc_bframes", HEVC_VIDEO, false, Dash, GopSegments},
    {"hevc_smooth_gop", "hevc_bframes", HEVC_VIDEO, false, Smooth, GopSegments},
};

class GoldenChunks : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenChunks, EveryChunkAsKept) {
    const GoldenCase& c = GetParam();
    const auto outputs = runCase(c);
    const char* flag = std::getenv("FMP4_REGENERATE_GOLDEN");
    if (flag != nullptr && std::string(flag) == "1") return regenerate(c, outputs);
    expectGolden(c, outputs);
}

INSTANTIATE_TEST_SUITE_P(Sessions, GoldenChunks, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<GoldenCase>& p) { return std::string(p.param.name); });

// However the demultiplexer cuts the buffers, the session writes the same chunks.
TEST(GoldenChunksSplit, BuffersCutAnywhereGiveTheSameChunks) {
    for (const GoldenCase& c : {kCases[0], kCases[6]}) expectGolden(c, runCase(c, true));
}

// Three renditions of the same picture timing, GOPs aligned: per segment, the decoding time of tfdt and the
// earliest presentation time of sidx agree across the outputs, and are the source's less the time origin.
TEST(Renditions, AlignedSegmentsHaveEqualTimes) {
    const auto outputs = runSession(Dash, GopSegments,
                                    {{"video0", videoFeed("h264_plain", H264_VIDEO, false)},
                                     {"video1", videoFeed("h264_hrd_slices", H264_VIDEO, false)},
                                     {"video2", videoFeed("hevc_bframes", HEVC_VIDEO, false)}});
    // Key frames every 24 frames of 3600 ticks, shown 7200 ticks after they are decoded: in 100 ns units
    // segment k starts decoding at k x 9600000 after the origin and presenting 800000 later.
    for (const auto& [name, chunks] : outputs) {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> times;
        for (const WrittenChunk& chunk : chunks) {
            if (chunk.init) continue;
            const auto tfdt = findBox(chunk.bytes, "moof/traf/tfdt");
            const auto timing = readChunkTiming(chunk.bytes, true);
            ASSERT_TRUE(tfdt && timing) << name;
            ASSERT_EQ(chunk.bytes[tfdt->contentStart], 1) << name;  // version 1: 64-bit time
            times.emplace_back(u64In(chunk.bytes, *tfdt, 4), timing->time);
        }
        EXPECT_EQ(times, (std::vector<std::pair<std::uint64_t, std::uint64_t>>{{0, 800000}, {9600000, 10400000}}))
            << name;
    }
}

}  // namespace
