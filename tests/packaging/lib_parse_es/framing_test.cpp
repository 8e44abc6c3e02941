// The other framings the factory makes: bit patterns and sync-point accumulation; and the factory itself.
#include <gtest/gtest.h>

#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"
#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"
#include "tests/common/bytes.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

// The session runs these framings on the streams it can't package yet and drops their units; whatever the cuts,
// the units must be the stream's own pieces, from one pattern to the next.
TEST(BitPatternBuilder, UnitsRunFromPatternToPatternWhereverTheBuffersEnd) {
    struct Case { std::uint32_t type; Bytes stream; std::vector<Bytes> units; };
    const Case cases[] = {
        // H.263: 00 00 83 matches (the low two bits are outside the 22-bit pattern), 00 00 40 doesn't; the lead-in
        // before the first picture is a unit of its own.
        {es::StreamType::H263_VIDEO, hex("1234 000083 01 000040 000080 02"), {hex("1234"), hex("000083 01 000040"), hex("000080 02")}},
        {es::StreamType::MPEG4_VIDEO, hex("000001B6 10 000001B6 20"), {hex("000001B6 10"), hex("000001B6 20")}},
        // ProRes: a unit starts at the frame size ahead of 'icpf'.
        {es::StreamType::PRORES, hex("0000000A 'icpf' AABB 00000009 'icpf' CC"), {hex("0000000A 'icpf' AABB"), hex("00000009 'icpf' CC")}},
    };
    for (const Case& c : cases) {
        for (std::size_t cut = 0; cut <= c.stream.size(); ++cut) {
            SCOPED_TRACE(std::to_string(c.type) + " cut at " + std::to_string(cut));
            auto builder = es::createNalBuilder(c.type);
            NalCollector collector;
            builder->setListener(&collector);
            builder->push(makeBuffer(c.stream.data(), cut).get());
            builder->push(makeBuffer(c.stream.data() + cut, c.stream.size() - cut).get());
            builder->flush();
            EXPECT_EQ(collector.all(), c.units);
            EXPECT_EQ(collector.ends, 1);
        }
    }
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
