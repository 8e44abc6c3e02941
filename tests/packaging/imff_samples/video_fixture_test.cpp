// Real encoder output through the whole analysis chain: the samples must agree with ffprobe's packets.
#include <gtest/gtest.h>

#include <algorithm>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"
#include "tests/common/samples.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

enum class Times { PtsAndDts, PtsOnly };

// Feeds the fixture packet by packet. With `pieces`, every packet is further cut into pieces of 1 to 300
// bytes, and only the first piece carries the packet's times, as a demultiplexer that splits PES payloads does.
// A unit takes its time from the buffer it starts in, so the first piece is long enough (16 bytes) to hold the
// start of the packet's first picture unit; the rest of the cuts fall anywhere, start codes included.
void feed(const Fixture& fixture, std::uint32_t streamType, Times times, bool pieces, bool inBand,
          SampleCollector& collector) {
    auto builder = es::createNalBuilder(streamType);
    auto sampleBuilder = samples::createSampleBuilder(streamType, inBand, &collector);
    ASSERT_TRUE(builder && sampleBuilder);
    sampleBuilder->streamId = 7;
    builder->setListener(sampleBuilder.get());
    std::size_t offset = 0;
    std::uint32_t seed = 12345;
    for (const Packet& packet : fixture.packets) {
        const std::optional<std::int64_t> dts =
            times == Times::PtsAndDts ? std::optional<std::int64_t>(packet.dts) : std::nullopt;
        std::size_t done = 0;
        while (done < packet.size) {
            seed = seed * 1103515245u + 12345u;
            std::size_t piece = pieces ? 1 + (seed >> 16) % 300 : packet.size;
            if (done == 0) piece = std::max<std::size_t>(piece, 16);
            piece = std::min(piece, packet.size - done);
            const bool first = done == 0;
            builder->push(makeBuffer(fixture.bytes.data() + offset + done, piece,
                                     first ? std::optional<std::int64_t>(packet.pts) : std::nullopt,
                                     first ? dts : std::nullopt)
                              .get());
            done += piece;
        }
        offset += packet.size;
    }
    builder->flush();
}

// The picture units of each packet, without start codes, as the samples must hold them after their length.
// Units are cut over the whole stream, since a zero that ends one packet may begin the next packet's start
// code, and each goes to the packet that holds its 01.
std::vector<std::vector<Bytes>> pictureUnitsByPacket(const Fixture& fixture, bool hevc) {
    std::vector<std::vector<Bytes>> out(fixture.packets.size());
    std::size_t offset = 0;
    std::size_t packet = 0;
    std::size_t packetEnd = fixture.packets.empty() ? 0 : fixture.packets[0].size;
    for (const Bytes& unit : referenceUnits(fixture.bytes)) {
        const std::size_t header = es::skipStartCode(unit.data(), unit.size());
        while (packet + 1 < fixture.packets.size() && offset + header - 1 >= packetEnd)
            packetEnd += fixture.packets[++packet].size;
        offset += unit.size();
        const unsigned type = hevc ? (unit[header] >> 1) & 0x3F : unit[header] & 0x1F;
        const bool picture = hevc ? type < 32 : (type == 1 || type == 5);
        if (picture) out[packet].emplace_back(unit.begin() + static_cast<std::ptrdiff_t>(header), unit.end());
    }
    return out;
}

// The picture units that a sample holds, each without its 4-byte length.
std::vector<Bytes> sampleUnits(const samples::Sample& sample, bool hevc) {
    std::vector<Bytes> units;
    for (const auto& nal : sample.nals) {
        EXPECT_GE(nal->length, 5u);
        if (nal->length < 5) continue;
        const std::uint8_t* b = nal->bytes();
        const std::uint32_t size = (std::uint32_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
        EXPECT_EQ(size + 4, nal->length);
        const unsigned type = hevc ? (b[4] >> 1) & 0x3F : b[4] & 0x1F;
        const bool picture = hevc ? type < 32 : (type == 1 || type == 5);
        if (picture) units.emplace_back(b + 4, b + nal->length);
    }
    return units;
}

struct Case {
    const char* fixture;
    std::uint32_t streamType;
    Times times;
    bool pieces;
};

class VideoFixture : public ::testing::TestWithParam<Case> {};

// Count, order, pts, dts, duration and sync of the access units match ffprobe, and each sample holds exactly
// the slices of its packet.
TEST_P(VideoFixture, SamplesMatchFfprobePackets) {
    const Case c = GetParam();
    const Fixture fixture = loadFixture(c.fixture);
    ASSERT_FALSE(fixture.packets.empty());
    std::size_t total = 0;
    for (const Packet& p : fixture.packets) total += p.size;
    ASSERT_EQ(total, fixture.bytes.size());
    const bool hevc = c.streamType == 17;

    SampleCollector collector;
    feed(fixture, c.streamType, c.times, c.pieces, false, collector);
    EXPECT_EQ(collector.ends, 1);
    EXPECT_EQ(collector.endedStream, 7u);
    const auto pictures = collector.ofKind(samples::KindVideo);
    const auto expectedUnits = pictureUnitsByPacket(fixture, hevc);
    ASSERT_EQ(pictures.size(), fixture.packets.size());
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        SCOPED_TRACE(i);
        const samples::Sample& s = *pictures[i];
        const Packet& p = fixture.packets[i];
        std::int64_t value = 0;
        std::uint64_t timescale = 0;
        ASSERT_TRUE(s.getTimescale(timescale));
        EXPECT_EQ(timescale, 90000u);
        ASSERT_TRUE(s.getPts(value));
        EXPECT_EQ(value, p.pts);
        ASSERT_TRUE(s.getDts(value));
        EXPECT_EQ(value, p.dts);
        ASSERT_TRUE(s.getDuration(value));
        EXPECT_EQ(value, p.duration);
        EXPECT_EQ(s.isSync(), p.key);
        EXPECT_EQ(s.isRandomAccess(), p.key);  // no open-GOP intra pictures in these streams
        EXPECT_EQ(s.streamId, 7u);
        EXPECT_EQ(sampleUnits(s, hevc), expectedUnits[i]);
    }
    // One configuration sample of each parameter set, before any picture.
    EXPECT_EQ(collector.ofKind(samples::KindSequenceParameterSet).size(), 1u);
    EXPECT_EQ(collector.ofKind(samples::KindPictureParameterSet).size(), 1u);
    EXPECT_EQ(collector.ofKind(samples::KindVideoParameterSet).size(), hevc ? 1u : 0u);
    EXPECT_NE(collector.all.front()->kind, samples::KindVideo);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, VideoFixture,
    ::testing::Values(Case{"h264_hrd_slices", 2, Times::PtsAndDts, false},
                      Case{"h264_hrd_slices", 2, Times::PtsAndDts, true},
                      // Decoding times computed from buffering-period and picture-timing SEI alone.
                      Case{"h264_hrd_slices", 2, Times::PtsOnly, false},
                      Case{"h264_hrd_slices", 2, Times::PtsOnly, true},
                      Case{"h264_plain", 2, Times::PtsAndDts, false},
                      Case{"h264_plain", 2, Times::PtsAndDts, true},
                      Case{"hevc_bframes", 17, Times::PtsAndDts, false},
                      Case{"hevc_bframes", 17, Times::PtsAndDts, true}));

// In-band mode: every parameter set of the stream appears once in the samples, at the front of the picture
// that follows it (after the SEI); out of band none does.
TEST(VideoFixtureHevc, InBandParameterSetsAppearOnceEach) {
    const Fixture fixture = loadFixture("hevc_bframes");
    std::size_t inStream = 0;
    for (const Bytes& unit : referenceUnits(fixture.bytes)) {
        const std::size_t header = es::skipStartCode(unit.data(), unit.size());
        const unsigned type = (unit[header] >> 1) & 0x3F;
        if (type >= 32 && type <= 34) ++inStream;
    }
    for (bool inBand : {false, true}) {
        SampleCollector collector;
        feed(fixture, 17, Times::PtsAndDts, false, inBand, collector);
        std::size_t inSamples = 0;
        for (const samples::Sample* s : collector.ofKind(samples::KindVideo)) {
            for (const auto& nal : s->nals) {
                const unsigned type = (nal->bytes()[4] >> 1) & 0x3F;
                if (type >= 32 && type <= 34) ++inSamples;
            }
        }
        EXPECT_EQ(inSamples, inBand ? inStream : 0u);
    }
}

}  // namespace
