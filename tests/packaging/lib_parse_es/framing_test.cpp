// The other framings the factory makes: bit patterns and sync-point accumulation; and the factory itself.
#include <gtest/gtest.h>

#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"
#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

TEST(BitPatternBuilder, H263PatternComparesOnlyItsTwentyTwoBits) {
    es::NalBuilderStartCodeBased<es::NALH263> builder;
    NalCollector collector;
    builder.setListener(&collector);
    // 00 00 83 matches (the low two bits are outside the pattern); 00 00 40 doesn't. The lead-in bytes
    // before the first picture form a unit of their own.
    const Bytes stream = {0x12, 0x34, 0x00, 0x00, 0x83, 0x01, 0x00, 0x00, 0x40, 0x00, 0x00, 0x80, 0x02};
    for (std::size_t i = 0; i < stream.size(); ++i) builder.push(makeBuffer(&stream[i], 1, 100 * static_cast<std::int64_t>(i)).get());
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 3u);
    EXPECT_EQ(collector.bytesOf(0), (Bytes{0x12, 0x34}));
    EXPECT_EQ(collector.bytesOf(1), (Bytes{0x00, 0x00, 0x83, 0x01, 0x00, 0x00, 0x40}));
    EXPECT_EQ(collector.bytesOf(2), (Bytes{0x00, 0x00, 0x80, 0x02}));
    // The last buffer that gave bytes to a unit sets its timing.
    EXPECT_EQ(collector.nals[1]->timing.time90kHz(), 800);
    EXPECT_EQ(collector.nals[2]->timing.time90kHz(), 1200);
    EXPECT_EQ(collector.nals[1]->type, 7);
    EXPECT_EQ(collector.ends, 1);
}

TEST(BitPatternBuilder, ProResUnitsStartAtTheSizeFieldAndCarryDurations) {
    es::NalBuilderStartCodeBased<es::NALProRes> builder;
    NalCollector collector;
    builder.setListener(&collector);
    const Bytes frame1 = {0x00, 0x00, 0x00, 0x0A, 'i', 'c', 'p', 'f', 0xAA, 0xBB};
    const Bytes frame2 = {0x00, 0x00, 0x00, 0x09, 'i', 'c', 'p', 'f', 0xCC};
    auto a = makeBuffer(frame1);
    const std::int64_t start = 1000, stop = 1400;
    a->SetTime(&start, &stop);
    builder.push(a.get());
    builder.push(makeBuffer(frame2, 90).get());  // a start without a stop: no duration
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 2u);
    EXPECT_EQ(collector.bytesOf(0), frame1);
    EXPECT_EQ(collector.bytesOf(1), frame2);
    EXPECT_TRUE(collector.nals[0]->timing.hasDuration);
    EXPECT_EQ(collector.nals[0]->timing.duration, 400);
    EXPECT_FALSE(collector.nals[1]->timing.hasDuration);
    EXPECT_EQ(collector.nals[1]->type, 21);
}

TEST(BitPatternBuilder, PatternSplitAcrossBuffersAndFlushOfNothing) {
    es::NalBuilderStartCodeBased<es::NALMPEG4Visual> builder;
    NalCollector collector;
    builder.setListener(&collector);
    builder.flush();
    EXPECT_EQ(collector.ends, 1);
    EXPECT_TRUE(collector.nals.empty());
    builder.push(makeBuffer(Bytes{0x00, 0x00, 0x01, 0xB6, 0x10, 0x00}).get());
    builder.push(makeBuffer(Bytes{0x00}).get());
    builder.push(makeBuffer(Bytes{0x01, 0xB6, 0x20}).get());
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 2u);
    EXPECT_EQ(collector.bytesOf(0), (Bytes{0x00, 0x00, 0x01, 0xB6, 0x10}));
    EXPECT_EQ(collector.bytesOf(1), (Bytes{0x00, 0x00, 0x01, 0xB6, 0x20}));
}

TEST(SyncPointBuilder, BuffersBetweenSyncPointsMakeOneUnit) {
    es::NalBuilderSyncPointBased<es::NalInputTypeGeneric<22>> builder;
    NalCollector collector;
    builder.setListener(&collector);
    auto a = makeBuffer(Bytes{1, 2}, 900);
    a->SetSyncPoint(true);
    auto b = makeBuffer(Bytes{3}, 1800);
    auto empty = makeBuffer(Bytes{});
    empty->SetSyncPoint(true);  // an empty sync point still closes the unit before it
    auto c = makeBuffer(Bytes{4, 5}, 2700);
    builder.push(a.get());
    builder.push(b.get());
    builder.push(empty.get());
    EXPECT_EQ(collector.nals.size(), 1u);
    builder.push(c.get());
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 2u);
    EXPECT_EQ(collector.bytesOf(0), (Bytes{1, 2, 3}));
    EXPECT_EQ(collector.nals[0]->timing.time90kHz(), 900);
    EXPECT_EQ(collector.bytesOf(1), (Bytes{4, 5}));
    EXPECT_EQ(collector.nals[1]->type, 22);
    EXPECT_EQ(collector.ends, 1);
}

TEST(NalBuilderFactory, MakesTheBuildersWhoseFramingExists) {
    for (std::uint32_t type : {2u, 17u}) EXPECT_NE(dynamic_cast<es::NALBuilderH264_HEVC*>(es::createNalBuilder(type).get()), nullptr);
    EXPECT_FALSE(dynamic_cast<es::NALBuilderH264_HEVC*>(es::createNalBuilder(2).get())->isHevc());
    EXPECT_TRUE(dynamic_cast<es::NALBuilderH264_HEVC*>(es::createNalBuilder(17).get())->isHevc());
    for (std::uint32_t type : {7u, 9u, 21u, 22u, 23u, 24u}) EXPECT_NE(es::createNalBuilder(type), nullptr) << type;
    for (std::uint32_t type : {8u, 13u, 15u, 16u, 25u, 26u, 28u, 1000u, 0xFFFFFFFFu})
        EXPECT_EQ(es::createNalBuilder(type), nullptr) << type;
}

}  // namespace
