// Real encoder output with several slices a picture through the whole analysis chain, in small pieces: the samples
// must agree with ffprobe's packets. The golden chunks cover the other video fixtures, whole and cut in two.
#include <gtest/gtest.h>

#include <algorithm>

#include "packaging/imff_samples/sample_builder.h"
#include "tests/common/bytes.h"
#include "tests/common/samples.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

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
        SampleCollector collector;
        auto builder = es::createNalBuilder(2);
        auto sampleBuilder = samples::createSampleBuilder(2, false, &collector);
        sampleBuilder->streamId = 7;
        builder->setListener(sampleBuilder.get());
        std::size_t offset = 0;
        std::uint32_t seed = 12345;
        for (const Packet& p : fixture.packets) {
            for (std::size_t done = 0; done < p.size;) {
                seed = seed * 1103515245u + 12345u;
                std::size_t piece = 1 + (seed >> 16) % 300;
                if (done == 0) piece = std::max<std::size_t>(piece, 16);
                piece = std::min(piece, p.size - done);
                const bool first = done == 0;
                builder->push(makeBuffer(fixture.bytes.data() + offset + done, piece,
                                         first ? std::optional(p.pts) : std::nullopt,
                                         first && withDts ? std::optional(p.dts) : std::nullopt)
                                  .get());
                done += piece;
            }
            offset += p.size;
        }
        builder->flush();

        EXPECT_EQ(collector.ends, 1);
        EXPECT_EQ(collector.endedStream, 7u);
        // One configuration sample of each parameter set, before any picture.
        EXPECT_EQ(collector.ofKind(samples::KindSequenceParameterSet).size(), 1u);
        EXPECT_EQ(collector.ofKind(samples::KindPictureParameterSet).size(), 1u);
        EXPECT_NE(collector.all.front()->kind, samples::KindVideo);
        const auto pictures = collector.ofKind(samples::KindVideo);
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
            EXPECT_EQ(s.streamId, 7u);
            EXPECT_EQ(slicesOf(s), expectedSlices[i]);
        }
    }
}

}  // namespace
