// Media segment boxes and the track fragment builder, against layouts worked out from ISO/IEC 14496-12,
// ISO/IEC 23009-1 (emsg) and the Smooth Streaming uuid boxes.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "packaging/imff_box/fragment_boxes.h"
#include "packaging/imff_box/fragment_builder.h"
#include "packaging/imff_box/movie_boxes.h"
#include "tests/common/boxes.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;
using testkit::Bytes;
using testkit::hex;

// A sample for the builder: every value may be left unknown.
class TestSample : public ISample {
public:
    std::optional<std::int64_t> pts, dts, duration;
    std::optional<std::uint64_t> timescale;
    bool sync = false;
    std::vector<std::uint8_t> data;

    static TestSample make(std::int64_t pts, std::int64_t dts, std::uint64_t timescale, std::int64_t duration,
                           std::size_t size, bool sync, std::uint8_t fill = 0) {
        TestSample s;
        s.pts = pts;
        s.dts = dts;
        s.timescale = timescale;
        s.duration = duration;
        s.data.assign(size, fill);
        s.sync = sync;
        return s;
    }

    bool getPts(std::int64_t& v) const override { return get(pts, v); }
    bool getDts(std::int64_t& v) const override { return get(dts, v); }
    bool getTimescale(std::uint64_t& v) const override { return get(timescale, v); }
    bool getDuration(std::int64_t& v) const override { return get(duration, v); }
    std::uint32_t getSapType() const override { return sync ? 1 : 0; }
    bool isSync() const override { return sync; }
    std::size_t getSize() const override { return data.size(); }
    void getData(std::uint8_t* dest) const override {
        if (!data.empty()) std::memcpy(dest, data.data(), data.size());
    }
    bool getEncryptionInfo(SampleEncryptionInfo&) const override {
        return false;
    }

private:
    template <typename T>
    static bool get(const std::optional<T>& source, T& out) {
        if (!source) return false;
        out = *source;
        return true;
    }
};

template <typename Container>
std::vector<const ISample*> pointers(const Container& samples) {
    std::vector<const ISample*> out;
    for (const auto& s : samples) out.push_back(&s);
    return out;
}

TEST(TrackRunBox, EveryFieldPresent) {
    auto trun = std::make_shared<TrackRunBox>(0x000F05);
    trun->setDataOffset(0x1234);
    SampleFlags first;
    first.dependsOn = 2;
    first.isDependedOn = 1;
    trun->setFirstSampleFlags(first);
    SampleFlags all;  // every member set: 000000 01 10 11 101 1 0x1234
    all.dependsOn = 1;
    all.isDependedOn = 2;
    all.hasRedundancy = 3;
    all.paddingValue = 5;
    all.isNonSync = true;
    all.degradationPriority = 0x1234;
    trun->addEntry({3600, 1000, all, 7200});
    trun->addEntry({3601, 20, SampleFlags{}, 0});
    EXPECT_BYTES(testkit::writeBox(trun),
                 hex("00000038 'trun' 00 000F05"  // 12 + 4 + 4 + 4 + 2 x 16 = 56
                     "00000002"                   // sample count
                     "00001234"                   // data offset
                     "02400000"                   // first sample flags: depends on 2, depended on 1
                     "00000E10 000003E8 01BB1234 00001C20"   // duration, size, flags, composition offset
                     "00000E11 00000014 00000000 00000000"));
}

TEST(TrackRunBox, EachFlagAddsItsField) {
    struct Case {
        std::uint32_t flags;
        const char* bytes;
    };
    const Case cases[] = {
        {0x000000, "00000010 'trun' 00000000 00000001"},
        {0x000001, "00000014 'trun' 00000001 00000001 FFFFFFFE"},           // data offset -2
        {0x000004, "00000014 'trun' 00000004 00000001 02800000"},           // first sample flags
        {0x000100, "00000014 'trun' 00000100 00000001 00000400"},           // duration
        {0x000200, "00000014 'trun' 00000200 00000001 00000064"},           // size
        {0x000400, "00000014 'trun' 00000400 00000001 01400000"},           // sample flags
        {0x000800, "00000014 'trun' 00000800 00000001 00000E10"},           // composition offset
    };
    SampleFlags other;
    other.dependsOn = 2;
    other.isDependedOn = 2;
    SampleFlags nonSyncVideo;
    nonSyncVideo.dependsOn = 1;
    nonSyncVideo.isDependedOn = 1;
    for (const Case& c : cases) {
        auto trun = std::make_shared<TrackRunBox>(c.flags);
        trun->setDataOffset(-2);
        trun->setFirstSampleFlags(other);
        trun->addEntry({1024, 100, nonSyncVideo, 3600});
        SCOPED_TRACE(c.flags);
        EXPECT_BYTES(testkit::writeBox(trun), hex(c.bytes));
    }
}

TEST(FragmentBoxes, HeadersAndDependencies) {
    auto tfhd = std::make_shared<TrackFragmentHeaderBox>(5, 0x00003B);
    tfhd->baseDataOffset = 0x100000000ull;
    tfhd->sampleDescriptionIndex = 2;
    tfhd->defaultSampleDuration = 1024;
    tfhd->defaultSampleSize = 100;
    tfhd->defaultSampleFlags = 0x01010000;
    EXPECT_BYTES(testkit::writeBox(tfhd), hex("00000028 'tfhd' 0000003B 00000005 0000000100000000 00000002"
                                            "00000400 00000064 01010000"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<TrackFragmentDecodeTimeBox>(0x123456789ull)),
                 hex("00000014 'tfdt' 01000000 0000000123456789"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<TrackFragmentDecodeTimeBox>(0x12345678, 0)),
                 hex("00000010 'tfdt' 00000000 12345678"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<MovieFragmentHeaderBox>(7)), hex("00000010 'mfhd' 00000000 00000007"));

    auto sdtp = std::make_shared<SampleDependencyTypeBox>();
    sdtp->addSample(sampleDependencyFlags(true, true));    // 00 10 01 00
    sdtp->addSample(sampleDependencyFlags(false, true));   // 00 01 01 00
    sdtp->addSample(sampleDependencyFlags(false, false));  // 00 10 10 00
    EXPECT_BYTES(testkit::writeBox(sdtp), hex("0000000F 'sdtp' 00000000 24 14 28"));
}

TEST(FragmentBoxes, SegmentIndex) {
    auto sidx = std::make_shared<SegmentIndexBox>(1, 90000, 0x100000000ull);
    sidx->addReference(1000, 180000, 1);
    sidx->addReference(0x7FFFFFFF, 90000, 2);
    EXPECT_BYTES(testkit::writeBox(sidx),
                 hex("00000040 'sidx' 01 000000"  // 20 + 16 + 4 + 2 x 12 = 64, version 1
                     "00000001"                   // reference id
                     "00015F90"                   // timescale 90000
                     "0000000100000000"           // earliest presentation time
                     "0000000000000000"           // first offset
                     "0000 0002"                  // reserved, reference count
                     "000003E8 0002BF20 90000000" // type 0 + size 1000, 180000, SAP 1 type 1, delta 0
                     "7FFFFFFF 00015F90 A0000000"));
    auto v0 = std::make_shared<SegmentIndexBox>(2, 1000, 5, 0);
    v0->addReference(16, 2000, 1);
    EXPECT_BYTES(testkit::writeBox(v0), hex("0000002C 'sidx' 00000000 00000002 000003E8 00000005 00000000 0000 0001"
                                          "00000010 000007D0 90000000"));
}

TEST(FragmentBoxes, EventMessageAndRandomAccess) {
    auto emsg = std::make_shared<EventMessageBox>("urn:a", "1", 90000, 0, 900, 7, Bytes{0xDE, 0xAD});
    EXPECT_BYTES(testkit::writeBox(emsg),
                 hex("00000026 'emsg' 00000000"  // 12 + 2 + 16 + 5 + 1 + 2 = 38
                     "'urn:a' 00 '1' 00"         // scheme id uri, value
                     "00015F90 00000000"         // timescale, presentation time delta
                     "00000384 00000007"         // event duration 900, id
                     "DEAD"));                   // message data to the end

    auto tfra = std::make_shared<TrackFragmentRandomAccessBox>(1, 1);
    tfra->addEntry(0x10, 0x200);
    tfra->addEntry(0x5, 0x100);  // insertion order is kept
    EXPECT_BYTES(testkit::writeBox(tfra),
                 hex("0000003E 'tfra' 01000000 00000001 00000000 00000002"  // 24 + 2 x 19 = 62
                     "0000000000000010 0000000000000200 01 01 01"
                     "0000000000000005 0000000000000100 01 01 01"));
    auto tfra0 = std::make_shared<TrackFragmentRandomAccessBox>(2, 0);
    tfra0->addEntry(3, 4);
    EXPECT_BYTES(testkit::writeBox(tfra0), hex("00000023 'tfra' 00000000 00000002 00000000 00000001 00000003 00000004 010101"));
}

TEST(FragmentBoxes, SmoothUuidBoxes) {
    EXPECT_BYTES(testkit::writeBox(std::make_shared<SmoothTfrfBox>(0x0102030405060708ull, 20000000)),
                 hex("0000002D 'uuid' D4807EF2CA3946958E5426CB9E46A79F"  // 24 + 21 = 45
                     "01 000000"                   // version 1, flags 0, written by hand
                     "01"                          // fragment count
                     "0102030405060708"            // next fragment's absolute time
                     "0000000001312D00"));         // its duration
    EXPECT_BYTES(testkit::writeBox(std::make_shared<TrackFragmentExtendedHeaderBox>(0x11, 20000000)),
                 hex("0000002C 'uuid' 6D1D9B0542D544E680E2141DAFF757B2 01000000"
                     "0000000000000011 0000000001312D00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<TrackFragmentExtendedHeaderBox>(0x11, 2, 0)),
                 hex("00000024 'uuid' 6D1D9B0542D544E680E2141DAFF757B2 00000000 00000011 00000002"));
}

// ---------------------------------------------------------------------------------------------------------
// The builder

TEST(TrackFragmentBuilder, AudioTrafInDash) {
    std::vector<TestSample> samples = {TestSample::make(0, 0, 48000, 1024, 10, true),
                                       TestSample::make(1024, 1024, 48000, 1024, 11, true),
                                       TestSample::make(2048, 2048, 48000, 1024, 12, true)};
    TrackFragmentParameters p;
    p.trackId = 2;
    p.segmentDuration = 3000;
    p.trackTimescale = 48000;
    p.timestampOffset = 100;
    const TrackFragment fragment = TrackFragmentBuilder::build(p, pointers(samples));
    EXPECT_BYTES(testkit::writeBox(fragment.traf),
                 hex("00000058 'traf'"
                     "  00000010 'tfhd' 00 020000 00000002"  // default-base-is-moof, track 2
                     "  00000014 'tfdt' 01 000000 0000000000000064"  // offset 100 + first DTS 0
                     "  0000002C 'trun' 00 000301 00000003"  // data offset, duration, size
                     "  00000000"                            // data offset, set later
                     "  00000400 0000000A"
                     "  00000400 0000000B"
                     "  000003B8 0000000C"));               // 3000 - 2048: the last absorbs the rest
    EXPECT_EQ(fragment.payloadSize, 33u);
}

TEST(TrackFragmentBuilder, VideoRunWithReorderingAndRescaling) {
    // Decode order I P B B at 25 fps in 100 ns units, into a 90 kHz track.
    const std::int64_t f = 400000;
    std::vector<TestSample> samples = {TestSample::make(2 * f, 0, 10000000, f, 100, true),
                                       TestSample::make(5 * f, f, 10000000, f, 50, false),
                                       TestSample::make(3 * f, 2 * f, 10000000, f, 20, false),
                                       TestSample::make(4 * f, 3 * f, 10000000, f, 21, false)};
    TrackFragmentParameters p;
    p.trackId = 1;
    p.video = true;
    p.segmentDuration = 14400;
    p.trackTimescale = 90000;
    const TrackFragment fragment = TrackFragmentBuilder::build(p, pointers(samples));
    EXPECT_BYTES(testkit::writeBox(fragment.trun),
                 hex("00000048 'trun' 00 000B05 00000004"  // 12 + 4 + 4 + 4 + 4 x 12 = 72
                     "00000000"                            // data offset
                     "02400000"                            // first sample flags: a sync sample
                     "00000E10 00000064 00001C20"          // 3600, 100 bytes, offset 7200
                     "00000E10 00000032 00003840"
                     "00000E10 00000014 00000E10"
                     "00000E10 00000015 00000E10"));
}

TEST(TrackFragmentBuilder, DurationsAddUpToTheSegment) {
    // 1001/30000 frames in milliseconds don't divide evenly: the run still adds up to the segment.
    std::vector<TestSample> samples;
    for (int i = 0; i < 5; ++i) samples.push_back(TestSample::make(i * 1001, i * 1001, 30000, 1001, 1, i == 0));
    TrackFragmentParameters p;
    p.video = true;
    p.segmentDuration = 167;
    p.trackTimescale = 1000;
    auto entries = TrackFragmentBuilder::build(p, pointers(samples)).trun->getEntries();
    ASSERT_EQ(entries.size(), 5u);
    // Each duration is the difference of the rescaled times 0, 33, 66, 100, 133 (33.37 ms a frame, cut): the
    // rounding never adds up past one unit, and the last sample takes what is left, 167 - 133.
    const std::uint32_t expected[5] = {33, 33, 34, 33, 34};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(entries[static_cast<std::size_t>(i)].duration, expected[i]) << i;

    // One sample: the whole segment.
    std::vector<TestSample> one = {TestSample::make(0, 0, 30000, 1001, 1, true)};
    EXPECT_EQ(TrackFragmentBuilder::build(p, pointers(one)).trun->getEntries()[0].duration, 167u);

    // DTS differences past the segment: the last is 0, not negative.
    p.segmentDuration = 100;
    entries = TrackFragmentBuilder::build(p, pointers(samples)).trun->getEntries();
    EXPECT_EQ(entries[4].duration, 0u);
}

TEST(TrackFragmentBuilder, ExactRescaleOfLargeTimes) {
    // 10^15 ticks at 90 kHz to 100 ns: the 64-bit product would overflow.
    EXPECT_EQ(rescaleTime(1000000000000000, 90000, 10000000), 111111111111111111);
    std::vector<TestSample> late = {TestSample::make(1000000000000000, 1000000000000000, 90000, 3600, 1, true)};
    TrackFragmentParameters p;
    p.segmentDuration = 400000;
    p.trackTimescale = 10000000;
    p.timestampOffset = 1;
    const auto traf = TrackFragmentBuilder::build(p, pointers(late)).traf;
    EXPECT_BYTES(testkit::writeBox(traf->getChildren()[1]), hex("00000014 'tfdt' 01000000 018ABEF7846071C8"));
}

TEST(TrackFragmentBuilder, UnknownTimesSkipAndNegativeOffsetsClamp) {
    std::vector<TestSample> samples = {TestSample::make(0, 0, 90000, 3600, 5, true),
                                       TestSample::make(3600, 3600, 90000, 3600, 6, false),
                                       TestSample::make(3600, 7200, 90000, 3600, 7, false)};  // PTS before DTS
    samples[1].pts.reset();
    TrackFragmentParameters p;
    p.video = true;
    p.segmentDuration = 10800;
    p.trackTimescale = 90000;
    const TrackFragment fragment = TrackFragmentBuilder::build(p, pointers(samples));
    const auto& entries = fragment.trun->getEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].duration, 7200u);  // up to the next sample that takes part
    EXPECT_EQ(entries[1].duration, 3600u);
    EXPECT_EQ(entries[1].compositionOffset, 0u);
    EXPECT_EQ(entries[1].size, 7u);
    ASSERT_EQ(fragment.samples.size(), 2u);
    EXPECT_EQ(fragment.samples[1], &samples[2]);
    EXPECT_EQ(fragment.payloadSize, 12u);
    const Bytes trun = testkit::writeBox(fragment.trun);
    EXPECT_BYTES(Bytes(trun.begin() + 12, trun.begin() + 16), hex("00000002"));  // the count matches the entries
}

TEST(TrackFragmentBuilder, ExtremeTimesNeitherOverflowNorGoNegative) {
    // Under the undefined-behaviour sanitizer a signed overflow here would abort the test.
    std::vector<TestSample> samples = {TestSample::make(INT64_MAX, INT64_MIN, 90000, 1, 1, true),
                                       TestSample::make(INT64_MIN, INT64_MAX, 90000, 1, 1, false),
                                       TestSample::make(0, 0, 90000, 1, 1, false)};
    TrackFragmentParameters p;
    p.video = true;
    p.segmentDuration = 10;
    p.trackTimescale = 90000;
    p.timestampOffset = INT64_MAX;
    const auto entries = TrackFragmentBuilder::build(p, pointers(samples)).trun->getEntries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].duration, 0xFFFFFFFFu);  // a gap beyond 32 bits is held at the largest value
    EXPECT_EQ(entries[0].compositionOffset, 0xFFFFFFFFu);
    EXPECT_EQ(entries[1].duration, 0u);  // decode time going back
    EXPECT_EQ(entries[1].compositionOffset, 0u);
    EXPECT_EQ(entries[2].duration, 0u);  // the segment is long past
}

TEST(TrackFragmentBuilder, SmoothTrafOrderAndFlags) {
    std::vector<TestSample> samples = {TestSample::make(0, 20000000, 10000000, 400000, 3, true),
                                       TestSample::make(0, 20400000, 10000000, 400000, 4, false)};
    TrackFragmentParameters p;
    p.trackId = 1;
    p.video = false;
    p.segmentDuration = 800000;
    p.trackTimescale = 10000000;
    p.dash = false;
    p.writeSampleDescriptionIndex = true;
    p.sampleDescriptionIndex = 2;
    const TrackFragment fragment = TrackFragmentBuilder::build(p, pointers(samples));
    EXPECT_BYTES(testkit::writeBox(fragment.traf),
                 hex("000000A7 'traf'"                              // 8 + 20 + 44 + 45 + 36 + 14 = 167
                     "  00000014 'tfhd' 00 000002 00000001 00000002"  // no base-is-moof, description index 2
                     "  0000002C 'uuid' 6D1D9B0542D544E680E2141DAFF757B2 01000000"
                     "    0000000001312D00 00000000000C3500"         // time 20000000, duration 800000
                     "  0000002D 'uuid' D4807EF2CA3946958E5426CB9E46A79F 01000000 01"
                     "    00000000013D6200 00000000000C3500"         // next: 20800000, 800000
                     "  00000024 'trun' 00 000301 00000002 00000000"
                     "    00061A80 00000003 00061A80 00000004"
                     "  0000000E 'sdtp' 00000000 24 28"));          // sync, then a non-video other sample

    TrackFragmentParameters dash;
    dash.writeSampleDescriptionIndex = false;
    EXPECT_EQ(TrackFragmentBuilder::build(dash, pointers(samples)).tfhd->getFlags(), 0x020000u);
}

// For players: flags as ISO/IEC 14496-12 reads them. Sync: depends on 2, depended on 1 = 0x02400000; non-sync:
// depends on 1, depended on 1, sample_is_non_sync_sample = 0x01410000.
TEST(TrackFragmentBuilder, PlayerCompatibleFlagsAndLastDuration) {
    struct Case {
        const char* name;
        std::vector<bool> sync;
        std::uint64_t segmentDuration;
        // traf: 8 + tfhd 20 (16 without defaults) + tfdt 20 + trun 12 + count 4 + offset 4 [+ first flags 4]
        // + 12 (16 with flags) per sample
        const char* traf;
    } cases[] = {
        {"one key frame first: tfhd default non-sync, first sample flags sync", {true, false, false}, 10800,
         "0000006C 'traf' 00000014 'tfhd' 00 020020 00000001 01410000  00000014 'tfdt' 01000000 0000000000000000"
         "0000003C 'trun' 00 000B05 00000003 00000000 02400000"
         "  00000E10 00000001 00000000  00000E10 00000001 00000000  00000E10 00000001 00000000"},
        {"a chunk inside a GOP: its first sample is non-sync too", {false, false}, 7200,
         "00000060 'traf' 00000014 'tfhd' 00 020020 00000001 01410000  00000014 'tfdt' 01000000 0000000000000000"
         "00000030 'trun' 00 000B05 00000002 00000000 01410000"
         "  00000E10 00000001 00000000  00000E10 00000001 00000000"},
        {"a second key frame: per-sample flags, no default", {true, false, true}, 10800,
         "00000070 'traf' 00000010 'tfhd' 00 020000 00000001  00000014 'tfdt' 01000000 0000000000000000"
         "00000044 'trun' 00 000F01 00000003 00000000"
         "  00000E10 00000001 02400000 00000000  00000E10 00000001 01410000 00000000"
         "  00000E10 00000001 02400000 00000000"},
        {"the segment leaves the last sample nothing: it keeps its own 3600", {true, false, false}, 7200,
         "0000006C 'traf' 00000014 'tfhd' 00 020020 00000001 01410000  00000014 'tfdt' 01000000 0000000000000000"
         "0000003C 'trun' 00 000B05 00000003 00000000 02400000"
         "  00000E10 00000001 00000000  00000E10 00000001 00000000  00000E10 00000001 00000000"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<TestSample> samples;
        for (std::size_t i = 0; i < c.sync.size(); ++i)
            samples.push_back(TestSample::make(static_cast<std::int64_t>(i) * 3600, static_cast<std::int64_t>(i) * 3600,
                                               90000, 3600, 1, c.sync[i]));
        TrackFragmentParameters p;
        p.video = true;
        p.segmentDuration = c.segmentDuration;
        p.trackTimescale = 90000;
        p.playerCompatible = true;
        EXPECT_BYTES(testkit::writeBox(TrackFragmentBuilder::build(p, pointers(samples)).traf), hex(c.traf));
    }
    // Off, the last sample still absorbs the segment: 7200 - 2 x 3600 leaves 0.
    std::vector<TestSample> three;
    for (int i = 0; i < 3; ++i) three.push_back(TestSample::make(i * 3600, i * 3600, 90000, 3600, 1, i == 0));
    TrackFragmentParameters off;
    off.video = true;
    off.segmentDuration = 7200;
    off.trackTimescale = 90000;
    EXPECT_EQ(TrackFragmentBuilder::build(off, pointers(three)).trun->getEntries()[2].duration, 0u);
}

}  // namespace
