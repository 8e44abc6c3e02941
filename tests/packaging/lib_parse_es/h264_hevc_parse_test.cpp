// H.264 and HEVC syntax: unit headers, emulation prevention, parameter sets, SEI timing and slice times.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packaging/lib_parse_es/bit_reader.h"
#include "packaging/lib_parse_es/h264_manager.h"
#include "packaging/lib_parse_es/hevc_sps.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

std::unique_ptr<es::NALH264_HEVC> unit(const Bytes& bytes, bool hevc = false) {
    std::unique_ptr<es::NALH264_HEVC> nal;
    if (hevc) nal = std::make_unique<es::NALHEVC>(static_cast<std::int32_t>(bytes.size()));
    else nal = std::make_unique<es::NALH264>(static_cast<std::int32_t>(bytes.size()));
    nal->append(bytes.data(), bytes.size());
    return nal;
}

TEST(NalH264Hevc, UnitTypeAndHeaderOffset) {
    struct Case { Bytes unit; bool hevc, ok; std::uint8_t type; std::uint32_t offset; };
    const Case cases[] = {{{0, 0, 0, 1, 0x65, 0x88}, false, true, 5, 4},
                          {{0, 0, 1, 0x40, 0x01}, true, true, 32, 3},  // HEVC VPS
                          {{0x67, 0x42}, false, true, 7, 0},           // no start code: tolerated
                          {{0, 0, 0}, false, false, 0, 0},
                          {{0, 0, 1}, false, false, 0, 0},
                          {{}, false, false, 0, 0}};
    for (const Case& c : cases) {
        std::uint8_t type = 0;
        std::uint32_t offset = 0;
        ASSERT_EQ(unit(c.unit, c.hevc)->getNalUnitType(type, offset), c.ok) << c.unit.size();
        if (!c.ok) continue;
        EXPECT_EQ(type, c.type);
        EXPECT_EQ(offset, c.offset);
    }
}

TEST(NalH264Hevc, RbspDropsOnlyEmulationPreventionBytes) {
    std::uint32_t size = 0;
    auto nal = unit({0, 0, 1, 0x67, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x03, 0x04, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03});
    const std::uint8_t* rbsp = nal->getRbsp(size);
    // 03 before 01 goes, 03 before 04 stays, 03 before 00 goes, a final 03 stays.
    EXPECT_EQ(Bytes(rbsp, rbsp + size),
              (Bytes{0, 0, 1, 0x67, 0x00, 0x00, 0x01, 0x00, 0x00, 0x03, 0x04, 0x00, 0x00, 0x00, 0x00, 0x03}));
}

TEST(BitReader, ReadsPastTheEndTurnBadAndYieldZero) {
    const Bytes data = {0xA5, 0xFF};
    es::BitReader reader(data.data(), data.size());
    EXPECT_EQ(reader.readBits(4), 0xAu);
    EXPECT_EQ(reader.readBits(12), 0x5FFu);
    EXPECT_TRUE(reader.good());
    EXPECT_EQ(reader.readBits(1), 0u);
    EXPECT_FALSE(reader.good());
    EXPECT_EQ(reader.readUe(), 0u);

    BitWriter w;
    w.ue(0);
    w.ue(4);
    w.se(-3);
    w.ue(0xFFFFFFFEu);  // the largest value that fits
    es::BitReader golomb(w.bytes().data(), w.bytes().size());
    EXPECT_EQ(golomb.readUe(), 0u);
    EXPECT_EQ(golomb.readUe(), 4u);
    EXPECT_EQ(golomb.readSe(), -3);
    EXPECT_EQ(golomb.readUe(), 0xFFFFFFFEu);
    EXPECT_TRUE(golomb.good());

    const Bytes zeros(8, 0);  // 64 leading zeros: no valid code
    es::BitReader bad(zeros.data(), zeros.size());
    EXPECT_EQ(bad.readUe(), 0u);
    EXPECT_FALSE(bad.good());
}

// A unit without its emulation prevention bytes, as the manager takes it.
Bytes rbsp(const Bytes& unit) { return es::unescapeRbsp(unit.data(), unit.size()); }
int addSps(es::NALH264Manager& m, const Bytes& unit) { const Bytes r = rbsp(unit); return m.addSps(r.data(), r.size()); }
bool addSei(es::NALH264Manager& m, const Bytes& unit) { const Bytes r = rbsp(unit); return m.addSei(r.data(), r.size()); }
bool addSlice(es::NALH264Manager& m, const Bytes& unit) {
    const Bytes r = rbsp(unit);
    int pps = 0, sps = 0;
    return m.addSlice(r.data(), r.size(), pps, sps);
}
void addPps(es::NALH264Manager& m, std::uint32_t ppsId, std::uint32_t spsId) {
    const Bytes r = rbsp(h264Pps(ppsId, spsId));
    m.addPps(r.data(), r.size());
}

TEST(H264Manager, SpsReplacesItsSlotAndSetsTheFrameRate) {
    es::NALH264Manager m;
    EXPECT_EQ(m.getFrameRate().numerator, -1);
    H264SpsOptions o;
    o.id = 3;
    EXPECT_EQ(addSps(m, h264Sps(o)), 3);
    EXPECT_EQ(m.getFrameRate().numerator, 50);
    EXPECT_EQ(m.getFrameRate().denominator, 2);
    o.timeScale = 60000;
    o.unitsInTick = 1001;
    const Bytes second = h264Sps(o);
    EXPECT_EQ(addSps(m, second), 3);
    EXPECT_EQ(m.spsRaw[3], rbsp(second));  // what the sample entry carries
    EXPECT_EQ(m.getFrameRate().denominator, 2002);
    o.id = 32;  // out of range: discarded, the active set stays
    o.timeScale = 30;
    EXPECT_EQ(addSps(m, h264Sps(o)), -1);
    EXPECT_EQ(m.getFrameRate().numerator, 60000);
    o.id = 4;
    o.timing = false;
    EXPECT_EQ(addSps(m, h264Sps(o)), 4);
    EXPECT_EQ(m.getFrameRate().numerator, -1);  // no VUI timing
}

// Whether or not its profile carries the chroma format, bit depths and scaling lists, the fields after them are
// read where they are.
TEST(H264Manager, ChromaFieldsAreReadForTheProfilesThatCarryThem) {
    for (unsigned profile : {66u, 77u, 88u, 100u, 110u, 122u, 244u, 44u, 83u, 86u, 118u, 128u, 138u, 139u, 134u, 135u}) {
        H264SpsOptions o;
        o.profile = static_cast<std::uint8_t>(profile);
        const Bytes r = rbsp(h264Sps(o));
        const auto sps = es::parseH264Sps(r.data(), r.size());
        EXPECT_EQ(sps->pic_width_in_mbs_minus1, 10u) << profile;
        EXPECT_EQ(sps->vui.time_scale, 50u) << profile;
    }
}

// A manager with one SPS of the given removal-delay length and PPS 0, fed one SEI and one I slice per picture.
struct Timed {
    explicit Timed(unsigned cpbLengthMinus1 = 23) : bits(cpbLengthMinus1 + 1) {
        H264SpsOptions o;
        o.cpbRemovalDelayLengthMinus1 = cpbLengthMinus1;
        addSps(m, h264Sps(o));
        addPps(m, 0, 0);
        m.baseTime = 10000;
    }
    bool picture(std::uint32_t cpb, std::uint32_t dpb, bool bufferingPeriod) {
        H264SeiOptions s;
        s.bufferingPeriod = bufferingPeriod;
        s.cpbRemovalDelay = cpb;
        s.dpbOutputDelay = dpb;
        s.cpbBits = bits;
        const bool seiOk = addSei(m, h264Sei(s));
        const bool sliceOk = addSlice(m, h264Slice(5, 2));
        return seiOk && sliceOk;
    }
    es::NALH264Manager m;
    unsigned bits;
};

// Picture times over a short run. One tick is 1/50 s, 1800 at 90 kHz; times count from the first picture's
// output (baseTime 10000), and a picture is decoded its output delay before it is presented.
TEST(H264Timing, PtsAndDtsFollowTheRemovalAndOutputDelays) {
    struct Picture {
        std::uint32_t cpb, dpb;
        bool bufferingPeriod;
        bool ok;
        std::int64_t pts, dts;  // checked when ok
    };
    const struct { const char* name; unsigned cpbLengthMinus1; std::vector<Picture> pictures; } runs[] = {
        {"output delay", 23,
         {{0, 2, true, true, 10000, 10000 - 3600},
          {2, 6, false, true, 10000 + 6 * 1800, 10000},
          {4, 2, false, true, 10000 + 4 * 1800, 10000 + 2 * 1800}}},
        // A smaller removal delay right after a buffering period counts from that period (10), no discontinuity.
        {"smaller delay after a buffering period", 23,
         {{0, 2, true, true, 10000, 10000 - 3600},
          {10, 2, true, true, 10000 + 10 * 1800, 10000 + 8 * 1800},
          {2, 2, false, true, 10000 + 12 * 1800, 10000 + 10 * 1800}}},
        // A 4-bit counter wraps at 16 when the last value was near the top; back to zero far from the top is
        // taken as a restart at the last value.
        {"counter wraps at its width", 3,
         {{0, 2, true, true, 10000, 10000 - 3600},
          {14, 2, false, true, 10000 + 14 * 1800, 10000 + 12 * 1800},
          {1, 2, false, true, 10000 + 17 * 1800, 10000 + 15 * 1800},
          {0, 2, false, true, 10000 + 17 * 1800, 10000 + 15 * 1800}}},
        // A drop far from the top without a buffering period clears the bookkeeping: the picture has no time
        // and the next one counts from zero.
        {"drop without a buffering period restarts", 23,
         {{0, 2, true, true, 10000, 10000 - 3600},
          {40, 2, false, true, 10000 + 40 * 1800, 10000 + 38 * 1800},
          {50, 2, false, true, 10000 + 50 * 1800, 10000 + 48 * 1800},
          {7, 2, false, false, 0, 0},
          {9, 2, false, true, 10000 + 9 * 1800, 10000 + 7 * 1800}}},
    };
    for (const auto& run : runs) {
        Timed t(run.cpbLengthMinus1);
        for (std::size_t i = 0; i < run.pictures.size(); ++i) {
            SCOPED_TRACE(std::string(run.name) + ", picture " + std::to_string(i));
            const Picture& p = run.pictures[i];
            ASSERT_EQ(t.picture(p.cpb, p.dpb, p.bufferingPeriod), p.ok);
            if (!p.ok) continue;
            EXPECT_EQ(t.m.computedPts, p.pts);
            EXPECT_EQ(t.m.computedDts, p.dts);
            EXPECT_TRUE(t.m.iSlice);
        }
    }
}

TEST(H264Manager, NoTimesWithoutPictureTimingOrParameterSets) {
    es::NALH264Manager empty;
    EXPECT_FALSE(addSlice(empty, h264Slice(5, 2)));  // no PPS
    Timed t;
    EXPECT_FALSE(addSlice(t.m, h264Slice(1, 6)));  // no SEI yet: the delays are unknown; a B slice
    EXPECT_FALSE(t.m.iSlice);
    H264SeiOptions s;
    s.bufferingPeriod = true;
    s.pictureTiming = false;
    EXPECT_FALSE(addSei(t.m, h264Sei(s)));
    EXPECT_FALSE(addSlice(t.m, h264Slice(5, 2)));
    EXPECT_FALSE(addSlice(t.m, h264Slice(5, 2, 9)));  // unknown PPS
}

TEST(HevcSps, FixtureSpsGivesItsVuiTiming) {
    const Bytes unit = firstUnitOf(loadFixture("hevc_bframes").bytes, 33, true);
    ASSERT_FALSE(unit.empty());
    const std::size_t header = es::skipStartCode(unit.data(), unit.size()) + 2;
    const Bytes rbsp = es::unescapeRbsp(unit.data() + header, unit.size() - header);
    const es::HevcSps sps = es::parseHevcSps(rbsp.data(), rbsp.size());
    EXPECT_TRUE(sps.complete);
    EXPECT_EQ(sps.pic_width_in_luma_samples, 176u);
    EXPECT_EQ(sps.vui_num_units_in_tick, 1u);
    EXPECT_EQ(sps.vui_time_scale, 25u);
    // Every truncation reads without fault and never invents a timing.
    for (std::size_t cut = 0; cut < rbsp.size(); ++cut) {
        const std::uint32_t timeScale = es::parseHevcSps(rbsp.data(), cut).vui_time_scale;
        EXPECT_TRUE(timeScale == 0 || timeScale == 25u) << cut;
    }
}

}  // namespace
