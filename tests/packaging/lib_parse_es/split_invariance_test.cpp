// Every framing finds the same units however its input is cut into buffers: a start code, a sync word or a
// header split after any of its bytes is found, and the unit before it ends exactly where the next begins.
#include <gtest/gtest.h>

#include <algorithm>

#include "packaging/lib_parse_es/nal_builder.h"
#include "tests/common/bytes.h"
#include "tests/common/fixtures.h"

namespace {
using namespace testkit;

// How a stream is cut: at every pair of positions, at every single position, one byte a buffer, or in random
// pieces of 1 to `maxPiece` bytes.
enum class Cuts { EveryPair, EverySingle, ByteByByte, Random };

struct SplitCase {
    const char* name;
    std::uint32_t streamType;
    Bytes stream;
    std::vector<Bytes> expected;
    Cuts cuts;
    std::size_t maxPiece = 0;
};

void PrintTo(const SplitCase& c, std::ostream* os) { *os << c.name; }

// Bytes before the first code, 3- and 4-byte codes, a run of five zeros before a code, a unit that ends in
// zeros, an emulation-prevented 00 00 03, and 00 00 02 that is no start code.
const Bytes kMixed = {0xAB, 0x00, 0x00, 0x02, 0x11,                                // garbage, never delivered
                      0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0x00, 0x00, 0x03, 0x01,  // 4-byte code
                      0x00, 0x00, 0x01, 0x68, 0xCE, 0x00,                          // 3-byte code, ends with a zero
                      0x00, 0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x00, 0x00, 0x02, 0x80,
                      0x00, 0x00, 0x01, 0x41, 0x9A, 0x00, 0x00};

TEST(ReferenceWalk, CutsTheMixedStreamAsIntended) {
    // The walk that the cases below compare against must itself cut as intended.
    const std::vector<Bytes> expected = {
        {0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0x00, 0x00, 0x03, 0x01},
        {0x00, 0x00, 0x01, 0x68, 0xCE, 0x00, 0x00},  // zeros beyond the four of the next code stay here
        {0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x00, 0x00, 0x02, 0x80},
        {0x00, 0x00, 0x01, 0x41, 0x9A, 0x00, 0x00}};
    EXPECT_EQ(referenceUnits(kMixed), expected);
}

// The units of a stream pushed whole.
std::vector<Bytes> wholeUnits(std::uint32_t type, const Bytes& stream) {
    auto builder = es::createNalBuilder(type);
    NalCollector collector;
    builder->setListener(&collector);
    builder->push(makeBuffer(stream.data(), stream.size()).get());
    builder->flush();
    return collector.all();
}

// A stream cut at the sizes of its frames.
std::vector<Bytes> cutAt(const Bytes& stream, std::initializer_list<std::size_t> sizes) {
    std::vector<Bytes> out;
    std::size_t at = 0;
    for (std::size_t size : sizes) {
        out.push_back(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(at), stream.begin() + static_cast<std::ptrdiff_t>(at + size)));
        at += size;
    }
    return out;
}

Bytes head(const Bytes& bytes, std::size_t size) { return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)); }

std::vector<SplitCase> splitCases() {
    const Bytes h264 = head(loadFixture("h264_hrd_slices").bytes, 20000);
    const Bytes hevc = head(loadFixture("hevc_bframes").bytes, 4500);  // the first picture and a little more
    const AudioFixture stereo = loadAudioFixture("aac_lc_stereo_48k.adts");
    const AudioFixture surround = loadAudioFixture("aac_lc_51_44k.adts");
    const AudioFixture latm = loadAudioFixture("aac_lc_stereo_48k.latm");
    const AudioFixture ac3 = loadAudioFixture("ac3_51_48k.ac3");
    const AudioFixture eac3 = loadAudioFixture("eac3_stereo_44k.eac3");
    const AudioFixture mp2 = loadAudioFixture("mp2_stereo_48k.mp2");
    using es::StreamType;
    std::vector<SplitCase> cases = {
        {"AnnexBMixed", StreamType::H264_VIDEO, kMixed, referenceUnits(kMixed), Cuts::EveryPair},
        {"H264Fixture", StreamType::H264_VIDEO, h264, referenceUnits(h264), Cuts::ByteByByte},
        {"HevcFixture", StreamType::HEVC_VIDEO, hevc, referenceUnits(hevc), Cuts::EverySingle},
        // The bit-pattern framings, whose units the session drops (it packages none of these codecs yet). H.263:
        // 00 00 83 matches (the low two bits are outside the 22-bit pattern), 00 00 40 doesn't; the lead-in before
        // the first picture is a unit of its own. ProRes: a unit starts at the frame size ahead of 'icpf'.
        {"H263", StreamType::H263_VIDEO, hex("1234 000083 01 000040 000080 02"),
         {hex("1234"), hex("000083 01 000040"), hex("000080 02")}, Cuts::EveryPair},
        {"Mpeg4Visual", StreamType::MPEG4_VIDEO, hex("000001B6 10 000001B6 20"), {hex("000001B6 10"), hex("000001B6 20")},
         Cuts::EveryPair},
        {"ProRes", StreamType::PRORES, hex("0000000A 'icpf' AABB 00000009 'icpf' CC"),
         {hex("0000000A 'icpf' AABB"), hex("00000009 'icpf' CC")}, Cuts::EveryPair},
    };
    // ffmpeg's streams of the same kinds: ProRes by ffprobe's frame sizes; MPEG-2 video and MPEG-4 Visual (a unit
    // at every start code) as pushed whole, which the start-code count checks below.
    const Bytes mpeg2 = readData("mpeg2_720x576.m2v");
    const Bytes mpeg4 = readData("mpeg4_qcif.m4v");
    const Bytes prores = readData("prores_64x64.prores");
    cases.push_back({"Mpeg2Video", StreamType::MPEG2_VIDEO, mpeg2, wholeUnits(StreamType::MPEG2_VIDEO, mpeg2), Cuts::Random, 700});
    cases.push_back({"Mpeg4VisualFfmpeg", StreamType::MPEG4_VIDEO, mpeg4, wholeUnits(StreamType::MPEG4_VIDEO, mpeg4), Cuts::Random, 7});
    cases.push_back({"ProResFfmpeg", StreamType::PRORES, prores, cutAt(prores, {1535, 1561, 1596}), Cuts::Random, 9});
    const Bytes h263 = readData("h263_qcif.h263");
    cases.push_back({"H263Ffmpeg", StreamType::H263_VIDEO, h263, wholeUnits(StreamType::H263_VIDEO, h263), Cuts::Random, 3});
    for (std::size_t maxPiece : {1u, 5u, 300u, 5000u}) {
        cases.push_back({"AdtsStereo", StreamType::AAC_ADTS_AUDIO, stereo.bytes, packetBytes(stereo), Cuts::Random, maxPiece});
        cases.push_back({"Adts51", StreamType::AAC_ADTS_AUDIO, surround.bytes, packetBytes(surround), Cuts::Random, maxPiece});
        cases.push_back({"Loas", StreamType::AAC_LATM_AUDIO, latm.bytes, packetBytes(latm), Cuts::Random, maxPiece});
        cases.push_back({"Ac3", StreamType::AC3_AUDIO, ac3.bytes, packetBytes(ac3), Cuts::Random, maxPiece});
        cases.push_back({"Eac3", StreamType::AC3_AUDIO, eac3.bytes, packetBytes(eac3), Cuts::Random, maxPiece});
        cases.push_back({"Mp2", StreamType::MPEG1_AUDIO, mp2.bytes, packetBytes(mp2), Cuts::Random, maxPiece});
    }
    return cases;
}

// The units of `stream` pushed in buffers that end at `cuts`.
std::vector<Bytes> unitsFor(const SplitCase& c, const std::vector<std::size_t>& cuts) {
    auto builder = es::createNalBuilder(c.streamType);
    NalCollector collector;
    builder->setListener(&collector);
    std::size_t from = 0;
    for (std::size_t cut : cuts) {
        if (cut > from) builder->push(makeBuffer(c.stream.data() + from, cut - from).get());
        from = std::max(from, cut);
    }
    if (from < c.stream.size()) builder->push(makeBuffer(c.stream.data() + from, c.stream.size() - from).get());
    builder->flush();
    EXPECT_EQ(collector.ends, 1);
    return collector.all();
}

class SplitInvariance : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitInvariance, TheSameUnitsWhereverTheBuffersEnd) {
    const SplitCase& c = GetParam();
    ASSERT_FALSE(c.expected.empty());
    const std::size_t n = c.stream.size();
    switch (c.cuts) {
        case Cuts::EveryPair:
            for (std::size_t a = 0; a <= n; ++a)
                for (std::size_t b = a; b <= n; ++b) ASSERT_EQ(unitsFor(c, {a, b}), c.expected) << a << " " << b;
            break;
        case Cuts::EverySingle:
            for (std::size_t a = 0; a <= n; ++a) ASSERT_EQ(unitsFor(c, {a}), c.expected) << a;
            break;
        case Cuts::ByteByByte: {
            std::vector<std::size_t> every(n);
            for (std::size_t i = 0; i < n; ++i) every[i] = i + 1;
            EXPECT_EQ(unitsFor(c, every), c.expected);
            break;
        }
        case Cuts::Random: {
            const std::uint32_t seed = 77 + static_cast<std::uint32_t>(c.maxPiece);
            EXPECT_EQ(framedInPieces(c.streamType, c.stream, seed, c.maxPiece).all(), c.expected);
            break;
        }
    }
}

// The whole-stream references of ffmpeg's MPEG-2, MPEG-4 Visual and H.263 streams: a unit at every start code
// (MPEG-2, MPEG-4) or picture start code (H.263, three pictures), and together the whole stream.
TEST(ReferenceWalk, FfmpegVideoStreamsHaveAUnitPerStartCode) {
    const struct { const char* file; std::uint32_t type; bool pictureCodes; } streams[] = {
        {"mpeg2_720x576.m2v", es::StreamType::MPEG2_VIDEO, false},
        {"mpeg4_qcif.m4v", es::StreamType::MPEG4_VIDEO, false},
        {"h263_qcif.h263", es::StreamType::H263_VIDEO, true},
    };
    for (const auto& s : streams) {
        const Bytes stream = readData(s.file);
        std::size_t codes = 0;
        for (std::size_t i = 0; i + 2 < stream.size(); ++i)
            if (stream[i] == 0 && stream[i + 1] == 0 && (s.pictureCodes ? (stream[i + 2] & 0xFC) == 0x80 : stream[i + 2] == 1)) ++codes;
        const std::vector<Bytes> units = wholeUnits(s.type, stream);
        EXPECT_EQ(units.size(), s.pictureCodes ? 3u : codes) << s.file;
        EXPECT_EQ(cat(units), stream) << s.file;
    }
}

INSTANTIATE_TEST_SUITE_P(Framings, SplitInvariance, ::testing::ValuesIn(splitCases()),
                         [](const ::testing::TestParamInfo<SplitCase>& p) {
                             return std::string(p.param.name) + "_" + std::to_string(p.index);
                         });

}  // namespace
