// Media segment boxes and the track fragment builder's edge cases, against layouts worked out from ISO/IEC 14496-12
// and the Smooth Streaming uuid boxes. mfhd, tfhd, tfdt and sdtp are worked out within the whole chunks of
// chunks_builder_test (ChunkBytes, AllVideoInInit) and the large tfdt below.
#include <gtest/gtest.h>

#include "packaging/imff_box/fragment_boxes.h"
#include "packaging/imff_box/fragment_builder.h"
#include "packaging/imff_box/movie_boxes.h"
#include "tests/common/boxes.h"
#include "tests/packaging/imff_box/box_samples.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;
using testkit::Bytes;
using testkit::BoxSample;
using testkit::pointers;
using testkit::hex;
using testkit::writeBox;

TEST(TrackRunBox, EveryFieldPresent) {
    auto trun = std::make_shared<TrackRunBox>(0x000F05);
    trun->setDataOffset(0x1234);
    trun->setFirstSampleFlags(SampleFlags{.dependsOn = 2, .isDependedOn = 1});
    // Every member set: 000000 01 10 11 101 1 0x1234.
    const SampleFlags all{.dependsOn = 1, .isDependedOn = 2, .hasRedundancy = 3, .paddingValue = 5, .isNonSync = true,
                          .degradationPriority = 0x1234};
    trun->addEntry({3600, 1000, all, 7200});
    trun->addEntry({3601, 20, SampleFlags{}, 0});
    // 12 + count, data offset, first sample flags; per sample duration, size, flags, composition offset.
    EXPECT_BYTES(writeBox(trun), hex("00000038 'trun' 00 000F05 00000002 00001234 02400000"
                                     "00000E10 000003E8 01BB1234 00001C20"
                                     "00000E11 00000014 00000000 00000000"));
}

TEST(TrackRunBox, EachFlagAddsItsField) {
    struct Case { std::uint32_t flags; const char* bytes; };
    const Case cases[] = {
        {0x000000, "00000010 'trun' 00000000 00000001"},
        {0x000001, "00000014 'trun' 00000001 00000001 FFFFFFFE"},  // data offset -2
        {0x000004, "00000014 'trun' 00000004 00000001 02800000"},  // first sample flags
        {0x000100, "00000014 'trun' 00000100 00000001 00000400"},  // duration
        {0x000200, "00000014 'trun' 00000200 00000001 00000064"},  // size
        {0x000400, "00000014 'trun' 00000400 00000001 01400000"},  // sample flags
        {0x000800, "00000014 'trun' 00000800 00000001 00000E10"},  // composition offset
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flags);
        auto trun = std::make_shared<TrackRunBox>(c.flags);
        trun->setDataOffset(-2);
        trun->setFirstSampleFlags(SampleFlags{.dependsOn = 2, .isDependedOn = 2});
        trun->addEntry({1024, 100, SampleFlags{.dependsOn = 1, .isDependedOn = 1}, 3600});
        EXPECT_BYTES(writeBox(trun), hex(c.bytes));
    }
}

TEST(FragmentBoxes, SegmentIndex) {
    auto sidx = std::make_shared<SegmentIndexBox>(1, 90000, 0x100000000ull);
    sidx->addReference(1000, 180000, 1);
    sidx->addReference(0x7FFFFFFF, 90000, 2);
    // Version 1: reference id, timescale 90000, earliest presentation time, first offset, reserved, 2 references
    // of type 0 + size, duration, SAP 1 + SAP type + delta 0.
    EXPECT_BYTES(writeBox(sidx), hex("00000040 'sidx' 01 000000 00000001 00015F90 0000000100000000 0000000000000000 0000 0002"
                                     "000003E8 0002BF20 90000000  7FFFFFFF 00015F90 A0000000"));
}

// ---------------------------------------------------------------------------------------------------------
// The builder. The track fragments of whole DASH and Smooth Streaming chunks are worked out in chunks_builder_test
// (ChunkBytes).

TEST(TrackFragmentBuilder, DurationsAddUpToTheSegment) {
    // 1001/30000 frames in milliseconds don't divide evenly: the run still adds up to the segment.
    std::vector<BoxSample> samples;
    for (int i = 0; i < 5; ++i) samples.push_back({i * 1001, i * 1001, 30000, 1001, 1, i == 0});
    TrackFragmentParameters p{.video = true, .segmentDuration = 167, .trackTimescale = 1000};
    auto entries = TrackFragmentBuilder::build(p, pointers(samples)).trun->getEntries();
    ASSERT_EQ(entries.size(), 5u);
    // Each duration is the difference of the rescaled times 0, 33, 66, 100, 133 (33.37 ms a frame, cut): the
    // rounding never adds up past one unit, and the last sample takes what is left, 167 - 133.
    const std::uint32_t expected[5] = {33, 33, 34, 33, 34};
    for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(entries[i].duration, expected[i]) << i;

    // One sample: the whole segment.
    const std::vector<BoxSample> one = {{0, 0, 30000, 1001, 1, true}};
    EXPECT_EQ(TrackFragmentBuilder::build(p, pointers(one)).trun->getEntries()[0].duration, 167u);

    // DTS differences past the segment: the last is 0, not negative.
    p.segmentDuration = 100;
    EXPECT_EQ(TrackFragmentBuilder::build(p, pointers(samples)).trun->getEntries()[4].duration, 0u);
}

TEST(TrackFragmentBuilder, ExactRescaleOfLargeTimes) {
    // 10^15 ticks at 90 kHz to 100 ns: the 64-bit product would overflow.
    EXPECT_EQ(rescaleTime(1000000000000000, 90000, 10000000), 111111111111111111);
    const std::vector<BoxSample> late = {{1000000000000000, 1000000000000000, 90000, 3600, 1, true}};
    const auto traf = TrackFragmentBuilder::build({.segmentDuration = 400000, .trackTimescale = 10000000, .timestampOffset = 1},
                                                  pointers(late))
                          .traf;
    EXPECT_BYTES(writeBox(traf->getChildren()[1]), hex("00000014 'tfdt' 01000000 018ABEF7846071C8"));
}

TEST(TrackFragmentBuilder, UnknownTimesSkipAndNegativeOffsetsClamp) {
    std::vector<BoxSample> samples = {{0, 0, 90000, 3600, 5, true}, {3600, 3600, 90000, 3600, 6, false},
                                       {3600, 7200, 90000, 3600, 7, false}};  // PTS before DTS
    samples[1].pts.reset();
    const TrackFragment fragment =
        TrackFragmentBuilder::build({.video = true, .segmentDuration = 10800, .trackTimescale = 90000}, pointers(samples));
    const auto& entries = fragment.trun->getEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].duration, 7200u);  // up to the next sample that takes part
    EXPECT_EQ(entries[1].duration, 3600u);
    EXPECT_EQ(entries[1].compositionOffset, 0u);
    EXPECT_EQ(entries[1].size, 7u);
    ASSERT_EQ(fragment.samples.size(), 2u);
    EXPECT_EQ(fragment.samples[1], &samples[2]);
    EXPECT_EQ(fragment.payloadSize, 12u);
    EXPECT_EQ(testkit::slice(writeBox(fragment.trun), 12, 4), hex("00000002"));  // the count matches the entries
}

TEST(TrackFragmentBuilder, ExtremeTimesNeitherOverflowNorGoNegative) {
    // Under the undefined-behaviour sanitizer a signed overflow here would abort the test.
    const std::vector<BoxSample> samples = {{INT64_MAX, INT64_MIN, 90000, 1, 1, true}, {INT64_MIN, INT64_MAX, 90000, 1, 1, false},
                                             {0, 0, 90000, 1, 1, false}};
    const auto entries = TrackFragmentBuilder::build(
                             {.video = true, .segmentDuration = 10, .trackTimescale = 90000, .timestampOffset = INT64_MAX},
                             pointers(samples))
                             .trun->getEntries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].duration, 0xFFFFFFFFu);  // a gap beyond 32 bits is held at the largest value
    EXPECT_EQ(entries[0].compositionOffset, 0xFFFFFFFFu);
    EXPECT_EQ(entries[1].duration, 0u);  // decode time going back
    EXPECT_EQ(entries[1].compositionOffset, 0u);
    EXPECT_EQ(entries[2].duration, 0u);  // the segment is long past
}

// For players: flags as ISO/IEC 14496-12 reads them. Sync: depends on 2, depended on 1 = 0x02400000; non-sync:
// depends on 1, depended on 1, sample_is_non_sync_sample = 0x01410000.
TEST(TrackFragmentBuilder, PlayerCompatibleFlagsAndLastDuration) {
    // Three samples of 3600 ticks, a key frame first: tfhd has the non-sync default, trun the first sample's flags.
    const char* const keyFrameFirst =
        "0000006C 'traf' 00000014 'tfhd' 00 020020 00000001 01410000  00000014 'tfdt' 01000000 0000000000000000"
        "0000003C 'trun' 00 000B05 00000003 00000000 02400000"
        "  00000E10 00000001 00000000  00000E10 00000001 00000000  00000E10 00000001 00000000";
    struct Case {
        const char* name;
        std::vector<bool> sync;
        std::uint64_t segmentDuration;
        // traf: 8 + tfhd 20 (16 without defaults) + tfdt 20 + trun 12 + count 4 + offset 4 [+ first flags 4]
        // + 12 (16 with flags) per sample
        const char* traf;
    } cases[] = {
        {"one key frame first: tfhd default non-sync, first sample flags sync", {true, false, false}, 10800,
         keyFrameFirst},
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
         keyFrameFirst},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<BoxSample> samples;
        for (std::size_t i = 0; i < c.sync.size(); ++i) {
            const auto t = static_cast<std::int64_t>(i) * 3600;
            samples.emplace_back(t, t, 90000, 3600, 1, c.sync[i]);
        }
        const TrackFragmentParameters p{
            .video = true, .segmentDuration = c.segmentDuration, .trackTimescale = 90000, .playerCompatible = true};
        EXPECT_BYTES(testkit::writeBox(TrackFragmentBuilder::build(p, pointers(samples)).traf), hex(c.traf));
    }
}

}  // namespace
