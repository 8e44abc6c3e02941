// The H.264 and HEVC sample builders on small synthetic streams (access-unit grouping, dropped units, companion SEI
// and parameter sets, random-access marks), and on real encoder output with several slices a picture, in small
// pieces: the samples must agree with ffprobe's packets. The golden chunks cover the other video fixtures, whole
// and cut in two.
#include <gtest/gtest.h>

#include <algorithm>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/imff_samples/sample_builder_h264.h"
#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"
#include "tests/common/bytes.h"
#include "tests/common/samples.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

using samples::Sample;

// An H.264 (or `type`) chain; every unit goes in a buffer of its own.
struct Chain : SampleChain {
    explicit Chain(std::uint32_t type = 2) : SampleChain(type) {}
    void setup(H264SpsOptions sps = {}) {
        push(h264Sps(sps));
        push(h264Pps(0, sps.id));
    }
    // Flushed: the pictures.
    std::vector<const Sample*> pictures() {
        builder->flush();
        return collector.ofKind(samples::KindVideo);
    }
};

// The NAL unit types in a sample, read after each 4-byte length.
std::vector<unsigned> typesOf(const Sample& s, bool hevc = false) {
    std::vector<unsigned> types;
    for (const auto& nal : s.nals) types.push_back(hevc ? (nal->bytes()[4] >> 1) & 0x3F : nal->bytes()[4] & 0x1F);
    return types;
}

TEST(SampleBuilderH264, SlicesOfOnePictureJoinTheFirstPtsStandsAndARetrogradeDecodingTimeIsDropped) {
    Chain chain;
    chain.setup();
    chain.push(h264Slice(5, 2), 9000, 6000);
    chain.push(h264Slice(5, 2));              // no timestamp: the first slice's
    chain.push(h264Slice(5, 2), 9900, 6000);  // same dts, other pts: still the same picture
    chain.push(h264Slice(1, 0), 5000, 2400);  // earlier dts: dropped, the sample stays open
    chain.push(h264Slice(1, 0), 12600, 9600);
    const auto pics = chain.pictures();
    ASSERT_EQ(pics.size(), 2u);
    EXPECT_EQ(pics[0]->nals.size(), 3u);
    EXPECT_EQ(pics[0]->pts, 9000);
    EXPECT_EQ(pics[0]->dts, 6000);
    EXPECT_EQ(pics[0]->duration, 3600);
    EXPECT_EQ(pics[1]->nals.size(), 1u);
    EXPECT_EQ(pics[1]->dts, 9600);
    EXPECT_EQ(chain.collector.ends, 1);
    EXPECT_EQ(chain.collector.all.back()->kind, samples::KindVideo);  // the open sample went out before the end
}

// Whatever start code a slice comes with (3 bytes, 4, or with a leading zero byte more), the sample holds its bytes
// from the header byte on behind a 4-byte big-endian length of them.
TEST(SampleBuilderH264, EveryStartCodeBecomesAFourByteLength) {
    const Bytes slice = h264Slice(5, 2);  // 00 00 00 01, then the unit
    const Bytes unit(slice.begin() + 4, slice.end());
    for (const Bytes& startCode : {Bytes{0, 0, 1}, Bytes{0, 0, 0, 1}, Bytes{0, 0, 0, 0, 1}}) {
        Chain chain;
        chain.setup();
        Bytes input = startCode;
        input.insert(input.end(), unit.begin(), unit.end());
        chain.push(input, 9000, 6000);
        chain.push(h264Slice(1, 0), 12600, 9600);
        const auto pics = chain.pictures();
        ASSERT_EQ(pics.size(), 2u) << startCode.size();
        ASSERT_EQ(pics[0]->nals.size(), 1u);
        const auto& nal = *pics[0]->nals[0];
        Bytes expected = {0, 0, 0, static_cast<std::uint8_t>(unit.size())};
        expected.insert(expected.end(), unit.begin(), unit.end());
        EXPECT_EQ(Bytes(nal.bytes(), nal.bytes() + nal.length), expected) << startCode.size();
    }
}

TEST(SampleBuilderH264, NewFrameRateAppliesFromTheNextSample) {
    Chain chain;
    chain.setup();
    chain.push(h264Slice(5, 2), 0, 0);
    H264SpsOptions faster;
    faster.timeScale = 60000;
    faster.unitsInTick = 1001;  // 29.97 frames a second
    chain.push(h264Sps(faster));
    chain.push(h264Slice(1, 0), 3600, 3600);
    const auto pics = chain.pictures();
    ASSERT_EQ(pics.size(), 2u);
    EXPECT_EQ(pics[0]->duration, 3600);
    EXPECT_EQ(pics[1]->duration, 3003);
    EXPECT_EQ(chain.collector.ofKind(samples::KindSequenceParameterSet).size(), 1u);  // never sent again
}

TEST(SampleBuilderH264, DelimitersAndFillerNeverReachASampleAndSeiGoesWithTheNextPictureOnly) {
    Chain chain;
    chain.setup();
    const Bytes aud = {0, 0, 0, 1, 0x09, 0xF0};
    const Bytes filler = {0, 0, 0, 1, 0x0C, 0xFF, 0xFF, 0x80};
    H264SeiOptions first;
    first.pictureTiming = false;
    Bytes firstSei = h264Sei(first);
    H264SeiOptions second;
    second.cpbRemovalDelay = 5;
    const Bytes secondSei = h264Sei(second);
    chain.push(aud, 0, 0);
    chain.push(firstSei);
    chain.push(secondSei);  // replaces the first
    chain.push(h264Slice(5, 2));
    chain.push(filler);
    chain.push(aud, 3600, 3600);
    chain.push(h264Slice(1, 0));
    const auto pics = chain.pictures();
    ASSERT_EQ(pics.size(), 2u);
    EXPECT_EQ(typesOf(*pics[0]), (std::vector<unsigned>{6, 5}));
    EXPECT_EQ(typesOf(*pics[1]), (std::vector<unsigned>{1}));
    // The SEI is carried whole after its length, without its start code.
    const Bytes bytes = bytesOf(*pics[0]);
    EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.begin() + 4 + static_cast<std::ptrdiff_t>(secondSei.size()) - 4),
              Bytes(secondSei.begin() + 4, secondSei.end()));
    EXPECT_EQ(bytes.size(), pics[0]->getSize());
}

TEST(SampleBuilderH264, RandomAccessFollowsTheFirstSliceIntraNotIdr) {
    Chain chain;
    chain.setup();
    chain.push(h264Slice(5, 7), 0, 0);     // IDR, I slice
    chain.push(h264Slice(1, 2), 3600, 3600);  // I slice, not IDR
    chain.push(h264Slice(1, 0));              // a P slice of the same picture changes nothing
    chain.push(h264Slice(1, 1), 7200, 7200);  // B
    const auto pics = chain.pictures();
    ASSERT_EQ(pics.size(), 3u);
    EXPECT_TRUE(pics[0]->isSync());
    EXPECT_EQ(pics[0]->getSapType(), 1u);
    EXPECT_FALSE(pics[1]->isSync());
    EXPECT_TRUE(pics[1]->isRandomAccess());
    EXPECT_FALSE(pics[2]->isRandomAccess());
}

TEST(SampleBuilderH264, StreamsWithoutUsableTimingGiveNoPictures) {
    H264SpsOptions noTiming;
    noTiming.timing = false;
    H264SpsOptions rateOfOne;  // time_scale twice num_units_in_tick: a rate of 1/1, refused on purpose
    rateOfOne.timeScale = 2;
    struct Case { H264SpsOptions sps; std::optional<std::int64_t> pts, dts; };
    // The last two: no input times at all, or a presentation time only and no buffering period to work out
    // the decoding time from.
    for (const Case& c : {Case{noTiming, 0, 0}, Case{rateOfOne, 0, 0}, Case{H264SpsOptions{}, std::nullopt, std::nullopt},
                          Case{H264SpsOptions{}, 0, std::nullopt}}) {
        Chain chain;
        chain.setup(c.sps);
        chain.push(h264Sei({}));
        chain.push(h264Slice(5, 2), c.pts, c.dts);
        EXPECT_TRUE(chain.pictures().empty());
        EXPECT_EQ(chain.collector.ends, 1);
    }
}

TEST(SampleBuilderH264, AUnitWithNothingAfterItsStartCodeGivesNoSample) {
    SampleCollector collector;
    auto builder = samples::createSampleBuilder(2, false, &collector);
    std::unique_ptr<es::NAL> empty = std::make_unique<es::NALH264>(3);
    const std::uint8_t startCode[3] = {0, 0, 1};
    empty->append(startCode, 3);
    builder->onNal(empty);
    builder->onEnd();
    EXPECT_TRUE(collector.all.empty());
    EXPECT_EQ(collector.ends, 1);
}

// HEVC units: a two-byte header with the type in bits 6 to 1.
Bytes hevcUnit(unsigned type, std::uint8_t fill = 0xA5) {
    return {0, 0, 0, 1, static_cast<std::uint8_t>(type << 1), 0x01, fill, fill, 0x80};
}

TEST(SampleBuilderHevc, PicturesSplitOnPresentationTimeWithSapTypes) {
    const Bytes sps = firstUnitOf(loadFixture("hevc_bframes").bytes, 33, true);
    ASSERT_FALSE(sps.empty());
    Chain chain(17);
    chain.push(hevcUnit(32));
    chain.push(sps);
    chain.push(hevcUnit(34));
    chain.push(hevcUnit(35), 1000, 900);
    chain.push(hevcUnit(39));
    chain.push(hevcUnit(19));
    chain.push(hevcUnit(19));  // second slice, same pts
    chain.push(hevcUnit(40));  // suffix SEI stays in the picture
    const unsigned types[] = {16, 17, 18, 20, 21, 1};
    const std::uint32_t saps[] = {2, 2, 1, 1, 2, 0};
    std::int64_t pts = 1000;
    for (unsigned type : types) {
        pts += 3600;
        chain.push(hevcUnit(type), pts, pts - 100);
    }
    const auto pics = chain.pictures();
    EXPECT_EQ(chain.collector.ofKind(samples::KindVideoParameterSet).size(), 1u);
    ASSERT_EQ(pics.size(), 7u);
    EXPECT_EQ(typesOf(*pics[0], true), (std::vector<unsigned>{39, 19, 19, 40}));
    EXPECT_EQ(pics[0]->pts, 1000);
    EXPECT_EQ(pics[0]->dts, 900);
    EXPECT_EQ(pics[0]->duration, 3600);  // 1/25 s from the SPS's VUI, truncated
    EXPECT_TRUE(pics[0]->isSync());
    EXPECT_EQ(pics[0]->getSapType(), 2u);
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(pics[i + 1]->getSapType(), saps[i]) << types[i];
        EXPECT_EQ(pics[i + 1]->isSync(), types[i] == 20) << types[i];
    }
}

// --- a real stream ------------------------------------------------------------------------------------

bool isSlice(unsigned type) { return type == 1 || type == 5; }

// The slices of each packet, without start codes. Units are cut over the whole stream, since a zero that ends
// one packet may begin the next packet's start code, and each goes to the packet that holds its 01.
std::vector<std::vector<Bytes>> slicesByPacket(const Fixture& fixture) {
    std::vector<std::vector<Bytes>> out(fixture.packets.size());
    std::size_t offset = 0, packet = 0, packetEnd = fixture.packets.at(0).size;
    for (const Bytes& unit : referenceUnits(fixture.bytes)) {
        const std::size_t header = es::skipStartCode(unit.data(), unit.size());
        while (packet + 1 < fixture.packets.size() && offset + header - 1 >= packetEnd)
            packetEnd += fixture.packets[++packet].size;
        offset += unit.size();
        if (isSlice(unitType(unit, false))) out[packet].emplace_back(unit.begin() + static_cast<std::ptrdiff_t>(header), unit.end());
    }
    return out;
}

// The slices that a sample holds, each without its 4-byte length.
std::vector<Bytes> slicesOf(const samples::Sample& sample) {
    std::vector<Bytes> units;
    for (const auto& nal : sample.nals) {
        const std::uint8_t* b = nal->bytes();
        if (nal->length < 5 || be32(b) + 4 != nal->length) {
            ADD_FAILURE() << "a unit without its length";
            continue;
        }
        if (isSlice(b[4] & 0x1Fu)) units.emplace_back(b + 4, b + nal->length);
    }
    return units;
}

// Every packet cut into pieces of 1 to 300 bytes, only the first carrying the packet's times, as a demultiplexer
// that splits PES payloads does. A unit takes its time from the buffer it starts in, so the first piece is long
// enough (16 bytes) to hold the start of the packet's first picture unit; the other cuts fall anywhere. Without
// decoding times, those come from the buffering-period and picture-timing SEI alone.
TEST(VideoFixture, SlicedPicturesInPiecesMatchFfprobePackets) {
    const Fixture fixture = loadFixture("h264_hrd_slices");
    const auto expectedSlices = slicesByPacket(fixture);
    for (bool withDts : {true, false}) {
        SCOPED_TRACE(withDts ? "pts and dts" : "pts only");
        Chain chain;
        const SampleCollector& collector = chain.collector;
        std::size_t offset = 0;
        std::uint32_t seed = 12345;
        for (const Packet& p : fixture.packets) {
            pushPieces(*chain.builder, fixture.bytes.data() + offset, p.size, seed, 300, es::from90kHz(p.pts),
                       withDts ? std::optional(es::from90kHz(p.dts)) : std::nullopt, 16);
            offset += p.size;
        }
        const auto pictures = chain.pictures();
        EXPECT_EQ(collector.ends, 1);
        EXPECT_EQ(collector.endedStream, 3u);
        // One configuration sample of each parameter set, before any picture.
        EXPECT_EQ(collector.ofKind(samples::KindSequenceParameterSet).size(), 1u);
        EXPECT_EQ(collector.ofKind(samples::KindPictureParameterSet).size(), 1u);
        EXPECT_NE(collector.all.front()->kind, samples::KindVideo);
        ASSERT_EQ(pictures.size(), fixture.packets.size());
        for (std::size_t i = 0; i < pictures.size(); ++i) {
            SCOPED_TRACE(i);
            const samples::Sample& s = *pictures[i];
            const Packet& p = fixture.packets[i];
            std::int64_t pts = 0, dts = 0, duration = 0;
            std::uint64_t timescale = 0;
            ASSERT_TRUE(s.getTimescale(timescale) && s.getPts(pts) && s.getDts(dts) && s.getDuration(duration));
            EXPECT_EQ(timescale, 90000u);
            EXPECT_EQ(pts, p.pts);
            EXPECT_EQ(dts, p.dts);
            EXPECT_EQ(duration, p.duration);
            EXPECT_EQ(s.isSync(), p.key);
            EXPECT_EQ(s.isRandomAccess(), p.key);  // no open-GOP intra pictures in this stream
            EXPECT_EQ(s.streamId, 3u);
            EXPECT_EQ(slicesOf(s), expectedSlices[i]);
        }
    }
}

}  // namespace
