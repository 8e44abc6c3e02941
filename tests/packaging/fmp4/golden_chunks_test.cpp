// Whole sessions of real streams, with the system's own parts, against the chunks kept under tests/data/golden:
// every init and media chunk byte for byte. A mismatch prints both chunks as box trees. When a change of the
// output is meant, FMP4_REGENERATE_GOLDEN=1 rewrites the files (tests/data/golden/README.md), each output only
// after ffmpeg has decoded each of its chunks, without error, to the number of frames fed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <tuple>

#include "tests/common/chunks.h"
#include "tests/common/fixed_key_provider.h"
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
struct Feed {
    std::uint32_t type = 0;
    std::vector<es::MediaDataRef> buffers;
    std::vector<std::int64_t> times90k;
    // A packet in one buffer with its times, or cut in two after `first` bytes with them on the first piece.
    void add(const std::uint8_t* bytes, std::size_t size, std::size_t first, std::int64_t pts90k,
             std::optional<std::int64_t> dts90k = std::nullopt) {
        buffers.push_back(makeBuffer(bytes, first, pts90k, dts90k));
        if (first < size) buffers.push_back(makeBuffer(bytes + first, size - first));
        times90k.resize(buffers.size(), dts90k.value_or(pts90k));
    }
};

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
        feed.add(fixture.bytes.data() + offset, p.size, first, p.pts + kOffset90k, p.dts + kOffset90k);
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
        feed.add(frames[i].data(), frames[i].size(), first, t + start90k);
    }
    return feed;
}

// One session, one output per stream, the streams fed interleaved in decoding-time order as a transport stream
// demultiplexer delivers them. The chunks of each output by its name ("video", "audio", or "video<k>").
// With `provider`, the session encrypts with the keys it gives.
std::map<std::string, std::vector<WrittenChunk>> runSession(OutputFormat format, Fmp4MuxMode mode,
                                                            const std::vector<std::pair<std::string, Feed>>& feeds,
                                                            std::unique_ptr<enc::IEncryptionProvider> provider = {}) {
    RecordingLogger logger;
    Fmp4MuxParts parts;
    parts.makeChunksBuilder = [](ChunksBuilderParams params) {
        params.utcClockMs = [] { return kUtcMs; };
        return makeChunksBuilder(params);
    };
    auto mux = std::make_unique<Fmp4Mux>(format, Fmp4MuxConfig::fromMode(mode, 960, 1, 960, 0), nullptr, logger,
                                         false, false, false, false, false, parts);
    if (provider) mux->chunksBuilder().SetEncryptionManager(std::make_unique<enc::EncryptionManager>(std::move(provider)));
    std::vector<KeepingOutput> outputs(feeds.size());
    std::vector<ChunkOutputSeed> seeds;
    for (std::uint32_t i = 0; i < feeds.size(); ++i) {
        const std::uint32_t type = feeds[i].second.type;
        const std::int32_t bitrate = isAudio(type) ? 64000 : 300000 * static_cast<std::int32_t>(i + 1);
        ElementaryStreamAttributes attributes = attributesOf(type, bitrate, static_cast<std::uint32_t>(bitrate));
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

std::map<std::string, std::vector<WrittenChunk>> runCase(const GoldenCase& c, bool split = false,
                                                         std::unique_ptr<enc::IEncryptionProvider> provider = {}) {
    std::vector<std::pair<std::string, Feed>> feeds;
    if (c.video) feeds.emplace_back("video", videoFeed(c.video, c.videoType, split));
    if (c.audio) feeds.emplace_back("audio", audioFeed(split));
    return runSession(c.format, c.mode, feeds, std::move(provider));
}

std::string goldenDir(const GoldenCase& c) { return std::string(FMP4_TEST_DATA_DIR) + "/golden/" + c.name; }
std::string chunkFile(const std::string& output, std::size_t k) {
    return output + "-" + std::to_string(k) + (k == 0 ? "-init" : "") + ".chunk";
}

// A Smooth Streaming media chunk with its PIFF sample encryption box ("uuid" a2394f52-...) as the plain "senc" box
// of the same content, which ffmpeg 5.1 reads (it skips the PIFF form): the box, its traf and its moof are 16 bytes
// shorter, and so is trun's data offset from the start of moof.
Bytes withPlainSenc(Bytes chunk) {
    const auto moof = findBox(chunk, "moof"), traf = findBox(chunk, "moof/traf");
    if (!moof || !traf) return chunk;
    const auto add = [&](std::size_t at, std::int64_t delta) {
        const auto v = static_cast<std::uint32_t>(static_cast<std::int64_t>(be32(&chunk[at])) + delta);
        for (int i = 0; i < 4; ++i) chunk[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
    };
    const Bytes piff = {0xa2, 0x39, 0x4f, 0x52, 0x5a, 0x9b, 0x4f, 0x14, 0xa2, 0x44, 0x6c, 0x42, 0x7c, 0x64, 0x8d, 0xf4};
    for (const BoxView& box : boxesIn(chunk, traf->contentStart, traf->end)) {
        if (box.type != "uuid" || !std::equal(piff.begin(), piff.end(), chunk.begin() + static_cast<std::ptrdiff_t>(box.contentStart)))
            continue;
        const auto trun = findBox(chunk, "moof/traf/trun");
        add(trun->contentStart + 8, -16);  // the data offset, present in every trun written
        add(box.offset, -16);
        add(traf->offset, -16);
        add(moof->offset, -16);
        std::copy_n("senc", 4, chunk.begin() + static_cast<std::ptrdiff_t>(box.offset + 4));
        chunk.erase(chunk.begin() + static_cast<std::ptrdiff_t>(box.contentStart),
                    chunk.begin() + static_cast<std::ptrdiff_t>(box.contentStart + 16));
        break;
    }
    return chunk;
}

// What ffmpeg decodes of an output, frame by frame (framemd5 lines), decrypting with `keyHex` when given; empty on
// any error, a damaged frame included (-err_detect explode). Each media chunk is read behind the init chunk on its
// own: ffmpeg 5.1 reads every fragment of a file ahead and then takes the sample encryption data of the last one for
// the samples of the first. ffmpeg refuses the Smooth Streaming scheme name "piff" (version 1.1, which encrypts as
// "cenc" does), so the scheme of a Smooth Streaming init chunk is renamed "cenc" for it, and its senc boxes take
// the plain form.
std::vector<std::string> decodedFrameHashes(const std::vector<WrittenChunk>& chunks, bool audio,
                                            const std::string& keyHex = "") {
    TempDir dir;
    std::vector<std::string> hashes;
    WrittenChunk init = chunks[0];
    const std::string piff("schm\0\0\0\0piff", 12);
    const auto scheme = std::search(init.bytes.begin(), init.bytes.end(), piff.begin(), piff.end());
    if (scheme != init.bytes.end()) std::copy_n("cenc", 4, scheme + 8);
    for (std::size_t k = 1; k < chunks.size(); ++k) {
        writeFile(dir.file("out.mp4"), playableFile({init, {withPlainSenc(chunks[k].bytes)}}));
        int status = -1;
        const std::string key = keyHex.empty() ? "" : " -decryption_key " + keyHex;
        const std::string text = run("ffmpeg -v error -nostdin -xerror -err_detect explode" + key + " -i " +
                                         dir.file("out.mp4") + " -map 0:" + (audio ? "a" : "v") + ":0 -f framemd5 - 2>&1",
                                     &status);
        for (const std::string& line : lines(text)) {
            if (line.empty() || line[0] == '#') continue;
            if (line.find(',') == std::string::npos || status != 0) return {};  // an error message
            hashes.push_back(line.substr(line.rfind(',')));  // the picture's or frame's hash alone
        }
    }
    return hashes;
}

void regenerate(const GoldenCase& c, const std::map<std::string, std::vector<WrittenChunk>>& outputs) {
    for (const auto& [output, chunks] : outputs) {
        const std::size_t fed = output == "audio" ? audioFeed(false).buffers.size() : kVideoFrames;
        ASSERT_EQ(decodedFrameHashes(chunks, output == "audio").size(), fed) << c.name << " " << output << " decodes otherwise";
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

// The payload of a chunk's mdat.
ByteView mdatPayload(const Bytes& chunk) {
    for (const BoxView& box : boxesIn(chunk))
        if (box.type == "mdat") return ByteView(chunk).subspan(box.contentStart, box.end - box.contentStart);
    return {};
}

// Sessions encrypted with a fixed key (8-byte IVs): each output, decrypted by ffmpeg with the key, decodes to the
// very frames of the same session in the clear, and its sample data differs from the clear one exactly where
// Common Encryption protects it: in each video NAL (4-byte length field included) all but the first
// ((n - 5) mod 16) + 5 bytes, every byte of an audio frame. Protected bytes equal by chance are about 1 in 256.
class EncryptedSessions : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(EncryptedSessions, DecryptToTheFramesOfTheClearSessionAndProtectExactlyTheProtectedBytes) {
    const GoldenCase& c = GetParam();
    const auto clear = runCase(c);
    const auto encrypted = runCase(c, false, std::make_unique<FixedKeyProvider>());
    const std::string key = "2b7e151628aed2a6abf7158809cf4f3c";  // FixedKeyProvider::kKey
    for (const auto& [output, chunks] : encrypted) {
        const bool audio = output == "audio";
        const std::vector<WrittenChunk>& plain = clear.at(output);
        const std::vector<std::string> frames = decodedFrameHashes(plain, audio);
        ASSERT_FALSE(frames.empty()) << output;
        EXPECT_EQ(decodedFrameHashes(chunks, audio, key), frames) << c.name << " " << output;
        EXPECT_NE(decodedFrameHashes(chunks, audio, "000102030405060708090a0b0c0d0e0f"), frames) << "a wrong key";
        ASSERT_EQ(chunks.size(), plain.size());
        std::size_t protectedBytes = 0, equalByChance = 0;
        for (std::size_t k = 1; k < chunks.size(); ++k) {
            const ByteView was = mdatPayload(plain[k].bytes), all = mdatPayload(chunks[k].bytes);
            ASSERT_GE(all.size(), was.size());
            const ByteView is = all.subspan(all.size() - was.size());  // behind the DASH form's sample data
            for (std::size_t at = 0; at < was.size();) {
                const std::size_t n = audio ? was.size() : 4 + be32(was.data() + at);
                const std::size_t inClear = audio ? 0 : (n - 5) % 16 + 5;
                ASSERT_LE(at + n, was.size());
                EXPECT_TRUE(std::equal(&was[at], &was[at] + inClear, &is[at])) << at;
                for (std::size_t i = at + inClear; i < at + n; ++i) equalByChance += was[i] == is[i];
                protectedBytes += n - inClear;
                at += n;
            }
        }
        EXPECT_GT(protectedBytes, 1000u) << output;
        EXPECT_LT(equalByChance * 64, protectedBytes) << output;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sessions, EncryptedSessions,
    ::testing::Values(GoldenCase{"H264AacDash", "h264_plain", H264_VIDEO, true, Dash, GopSegments},
                      GoldenCase{"H264AacSmooth", "h264_plain", H264_VIDEO, true, Smooth, GopSegments},
                      GoldenCase{"HevcAacDash", "hevc_bframes", HEVC_VIDEO, true, Dash, GopSegments},
                      GoldenCase{"HevcAacSmooth", "hevc_bframes", HEVC_VIDEO, true, Smooth, GopSegments}),
    [](const ::testing::TestParamInfo<GoldenCase>& p) { return std::string(p.param.name); });

// The key of each chunk as the provider gives it, read from the bytes: the key id of the seig group (in the file's
// UUID order), or "clear" for a chunk without encryption boxes; a chunk encrypted under a key decrypts with it.
TEST(EncryptedSessions, EachChunkTakesTheKeyOfItsMiddleOrGoesClearWhileThereIsNone) {
    using Step = FixedKeyProvider::Step;
    using R = enc::KeyUpdateResult;
    const enc::KeyId idB = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    const enc::ContentKey keyB = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const Bytes a = hex("2d79656b 6469 302d 3030303030303031"), b = hex("33221100 5544 7766 8899aabbccddeeff"), clear{};
    struct Case { const char* name; bool keyIdAtStart; std::vector<Step> steps; std::vector<Bytes> keyOfChunk; };
    const Case cases[] = {
        {"a new key id", true, {{R::Updated}, {R::Updated, idB, keyB}}, {a, b}},
        {"no key at start", false, {{R::Unchanged}, {R::Updated, FixedKeyProvider::kKeyId}}, {clear, a}},
        {"a failed request keeps the last key", true, {{R::Updated}, {R::Failed}}, {a, a}},
        {"failed before any key", false, {{R::Failed}, {R::Failed}}, {clear, clear}},
    };
    const std::vector<std::string> frames = decodedFrameHashes(
        runSession(Dash, GopSegments, {{"video", videoFeed("h264_plain", H264_VIDEO, false)}}).at("video"), false);
    for (const Case& c : cases) {
        auto provider = std::make_unique<FixedKeyProvider>();
        if (!c.keyIdAtStart) provider->keyId.reset();
        for (const Step& step : c.steps) provider->then(step);
        const auto chunks =
            runSession(Dash, GopSegments, {{"video", videoFeed("h264_plain", H264_VIDEO, false)}}, std::move(provider))
                .at("video");
        ASSERT_EQ(chunks.size(), c.keyOfChunk.size() + 1) << c.name;
        std::vector<Bytes> keyOfChunk;
        std::vector<std::string> decoded;
        for (std::size_t k = 1; k < chunks.size(); ++k) {
            const auto sgpd = findBox(chunks[k].bytes, "moof/traf/sgpd");
            const bool encrypted = sgpd && findBox(chunks[k].bytes, "moof/traf/saiz");
            keyOfChunk.push_back(encrypted ? Bytes(&chunks[k].bytes[sgpd->end - 16], &chunks[k].bytes[sgpd->end]) : clear);
            const std::string key = !encrypted ? ""
                                    : keyOfChunk.back() == a ? "2b7e151628aed2a6abf7158809cf4f3c"
                                                             : "000102030405060708090a0b0c0d0e0f";
            for (const std::string& frame : decodedFrameHashes({chunks[0], chunks[k]}, false, key))
                decoded.push_back(frame);
        }
        EXPECT_EQ(keyOfChunk, c.keyOfChunk) << c.name;
        // A session whose init chunk knew no key id protects no sample entry: players take its later encrypted
        // chunks for clear ones, as the stream starts unprotected.
        if (c.keyIdAtStart) {
            EXPECT_EQ(decoded, frames) << c.name;
        }
    }
}

}  // namespace
