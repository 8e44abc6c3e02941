// The bit-pattern framings the factory makes for the video streams the session does not package yet.
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

}  // namespace
