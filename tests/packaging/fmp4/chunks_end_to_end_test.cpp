// Real H.264 and HEVC streams through the whole session into kept chunks; the movie part of the init chunk and
// the media chunks, joined into one file, must decode in ffprobe and ffmpeg to every frame of the source, in
// order, at the source's presentation times less the session's time origin.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "packaging/fmp4/chunks/init_chunk.h"
#include "tests/packaging/fmp4/chunk_test_support.h"

namespace chunk_test {
namespace {

struct Input {
    const char* fixture;
    std::uint32_t type;
};

// The inputs start 10 s into their clock, so that the time origin is not zero.
constexpr std::int64_t kOffset90k = 900000;

// Runs one session with one output per input, each input fed packet by packet with its times, interleaved.
void runSession(OutputFormat format, Fmp4MuxMode mode, const std::vector<Input>& inputs,
                std::vector<KeepingOutput>& outputs) {
    SilentLogger logger;
    // GOPs of 24 frames at 25 fps: 960 ms segments of one GOP.
    const Fmp4MuxConfig config = Fmp4MuxConfig::fromMode(mode, 960, 1, 960, 0);
    auto mux = std::make_unique<Fmp4Mux>(format, config, nullptr, logger, false, false, false, false, false,
                                         Fmp4MuxParts{});
    std::vector<ChunkOutputSeed> seeds;
    std::vector<std::vector<es_test::es::MediaDataRef>> buffers;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        ElementaryStreamAttributes attributes;
        attributes.type = inputs[i].type;
        attributes.bitrate = 300000 * static_cast<std::int32_t>(i + 1);
        attributes.bandwidth = static_cast<std::uint32_t>(attributes.bitrate);
        mux->AddStream(static_cast<std::uint32_t>(i), attributes);
        seeds.push_back({"", {static_cast<std::int32_t>(i)}, &outputs[i], 1});
        buffers.push_back(fixtureBuffers(es_test::loadFixture(inputs[i].fixture), kOffset90k));
    }
    mux->SetOutputs(seeds);
    for (std::size_t k = 0; k < buffers[0].size(); ++k)
        for (std::size_t i = 0; i < inputs.size(); ++i)
            if (k < buffers[i].size()) mux->ConsumeSample(static_cast<std::uint32_t>(i), buffers[i][k].get());
    for (std::size_t i = 0; i < inputs.size(); ++i) mux->ConsumeEndOfStream(static_cast<std::uint32_t>(i));
    for (auto& output : outputs) ASSERT_TRUE(output.waitForEnd());
    mux.reset();
}

// The movie part of the init chunk followed by every media chunk.
Bytes playableFile(const std::vector<WrittenChunk>& chunks) {
    Bytes file;
    for (const WrittenChunk& chunk : chunks) {
        if (chunk.init) {
            const Bytes movie = initChunkMoviePart(chunk.bytes.data(), chunk.bytes.size());
            file.insert(file.end(), movie.begin(), movie.end());
        } else {
            file.insert(file.end(), chunk.bytes.begin(), chunk.bytes.end());
        }
    }
    return file;
}

// The hashes of the decoded pictures, in output order, from ffmpeg's framemd5.
std::vector<std::string> frameHashes(const std::string& input, const std::string& options = "") {
    std::vector<std::string> hashes;
    for (const std::string& line : lines(run("/usr/bin/ffmpeg -v error -nostdin " + options + " -i " + input +
                                             " -map 0:v:0 -f framemd5 - 2>/dev/null"))) {
        if (line.empty() || line[0] == '#') continue;
        hashes.push_back(line.substr(line.rfind(',') + 1));
    }
    return hashes;
}

struct SessionCase {
    Input input;
    Fmp4MuxMode mode;
    OutputFormat format;
};

std::string caseName(const ::testing::TestParamInfo<SessionCase>& info) {
    const SessionCase& c = info.param;
    std::string name = c.input.fixture;
    name += c.mode == GopSegments ? "_GopSegments" : c.mode == GopSegmentsAlt ? "_GopSegmentsAlt" : "_SeparateAudio";
    name += c.format == Dash ? "_Dash" : "_Smooth";
    return name;
}

class DecodesLikeTheSource : public ::testing::TestWithParam<SessionCase> {};

TEST_P(DecodesLikeTheSource, EveryFrameInOrderAtItsTime) {
    const SessionCase c = GetParam();
    std::vector<KeepingOutput> outputs(1);
    runSession(c.format, c.mode, {c.input}, outputs);
    const std::vector<WrittenChunk> chunks = outputs[0].chunks();
    ASSERT_GE(chunks.size(), 2u);
    EXPECT_TRUE(chunks[0].init);
    EXPECT_EQ(std::count_if(chunks.begin(), chunks.end(), [](const auto& w) { return w.init; }), 1);

    TempDir dir;
    const std::string file = dir.file("out.mp4");
    writeFile(file, playableFile(chunks));

    // No decoding error, reported or fatal.
    int status = -1;
    const std::string errors =
        run("/usr/bin/ffmpeg -v error -nostdin -xerror -err_detect explode -i " + file + " -f null - 2>&1", &status);
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(errors, "");

    // The same pictures as a decode of the source elementary stream, in the same order.
    const es_test::Fixture fixture = es_test::loadFixture(c.input.fixture);
    const std::string source = std::string(FMP4_TEST_DATA_DIR) + "/" + c.input.fixture + ".es";
    const std::vector<std::string> expected =
        frameHashes(source, c.input.type == HEVC_VIDEO ? "-f hevc" : "-f h264");
    ASSERT_EQ(expected.size(), fixture.packets.size());
    EXPECT_EQ(frameHashes(file), expected);

    // Presentation times of the frames in 100 ns units (the track timescale), in presentation order: the
    // source's, less the time origin (the first decoding time). In DASH the origin is taken off in tfdt; Smooth
    // Streaming fragments carry no tfdt and ffmpeg, which ignores their tfxd box, counts from 0 as well.
    std::vector<std::int64_t> want;
    const std::int64_t origin = (fixture.packets.front().dts + kOffset90k) * 10000000 / 90000;
    for (const es_test::Packet& p : fixture.packets) want.push_back((p.pts + kOffset90k) * 10000000 / 90000 - origin);
    std::sort(want.begin(), want.end());
    std::vector<std::int64_t> got;
    for (const std::string& line :
         lines(run("/usr/bin/ffprobe -v error -select_streams v:0 -show_entries frame=pts -of csv=p=0 " + file)))
        got.push_back(std::stoll(line));
    EXPECT_EQ(got, want);

    // Smooth Streaming: each fragment's tfxd box holds the absolute decoding time of its first picture (a key
    // frame, every 24 frames) and the fragment's duration, 24 frames of 400000.
    if (c.format == Smooth) {
        std::vector<std::uint64_t> keyDts;
        for (const es_test::Packet& p : fixture.packets)
            if (p.key) keyDts.push_back(static_cast<std::uint64_t>((p.dts + kOffset90k) * 10000000 / 90000));
        std::vector<std::uint64_t> tfxd;
        for (const WrittenChunk& chunk : chunks) {
            if (chunk.init) continue;
            BoxInfo traf;
            ASSERT_TRUE(findBox(chunk.bytes, "moof/traf", traf));
            for (const BoxInfo& box : boxesIn(chunk.bytes, traf.offset + 8, traf.offset + traf.size)) {
                if (box.type != "uuid" || chunk.bytes[box.offset + 8] != 0x6d || chunk.bytes[box.offset + 9] != 0x1d)
                    continue;
                ASSERT_EQ(box.size, 8u + 16 + 4 + 16);
                tfxd.push_back(be64(&chunk.bytes[box.offset + 28]));
                if (tfxd.size() < keyDts.size()) {
                    EXPECT_EQ(be64(&chunk.bytes[box.offset + 36]), 24u * 400000);
                }
            }
        }
        EXPECT_EQ(tfxd, keyDts);
    }
}

const Input kH264Plain{"h264_plain", H264_VIDEO};
const Input kH264Slices{"h264_hrd_slices", H264_VIDEO};
const Input kHevc{"hevc_bframes", HEVC_VIDEO};

std::vector<SessionCase> allCases() {
    std::vector<SessionCase> cases;
    for (const Input& input : {kH264Plain, kH264Slices, kHevc})
        for (Fmp4MuxMode mode : {GopSegments, GopSegmentsAlt, SeparateAudioSegments})
            for (OutputFormat format : {Dash, Smooth}) cases.push_back({input, mode, format});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Sessions, DecodesLikeTheSource, ::testing::ValuesIn(allCases()), caseName);

// Three renditions of the same picture timing, GOPs aligned: per segment, the decode time of tfdt and the
// earliest presentation time of sidx agree across the outputs, and are the source's less the origin.
TEST(Renditions, AlignedSegmentsHaveEqualTimes) {
    std::vector<KeepingOutput> outputs(3);
    runSession(Dash, GopSegments, {kH264Plain, kH264Slices, kHevc}, outputs);

    // Key frames every 24 frames of 3600 ticks, presented 7200 ticks after they are decoded: in 100 ns units
    // segment k starts decoding at k x 9600000 after the origin and presenting 800000 later.
    std::vector<std::vector<std::pair<std::uint64_t, std::uint64_t>>> times(3);
    for (std::size_t o = 0; o < 3; ++o) {
        for (const WrittenChunk& chunk : outputs[o].chunks()) {
            if (chunk.init) continue;
            BoxInfo tfdt, sidx;
            ASSERT_TRUE(findBox(chunk.bytes, "moof/traf/tfdt", tfdt));
            ASSERT_TRUE(findBox(chunk.bytes, "sidx", sidx));
            ASSERT_EQ(chunk.bytes[tfdt.offset + 8], 1);  // version 1: 64-bit time
            ASSERT_EQ(chunk.bytes[sidx.offset + 8], 1);
            times[o].emplace_back(be64(&chunk.bytes[tfdt.offset + 12]), be64(&chunk.bytes[sidx.offset + 20]));
        }
    }
    ASSERT_EQ(times[0].size(), 3u);
    EXPECT_EQ(times[1], times[0]);
    EXPECT_EQ(times[2], times[0]);
    for (std::size_t k = 0; k < times[0].size(); ++k) {
        EXPECT_EQ(times[0][k].first, k * 9600000);
        EXPECT_EQ(times[0][k].second, k * 9600000 + 800000);
    }
}

}  // namespace
}  // namespace chunk_test
