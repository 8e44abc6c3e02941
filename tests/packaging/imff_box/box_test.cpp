// The box model, the bit writer and the two-pass write. (The number boxes are written out in the chunk builder's
// tests; nothing reads them back but the chunk reader.)
#include "packaging/imff_box/box.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "packaging/imff_box/fragment_boxes.h"
#include "packaging/imff_box/movie_boxes.h"
#include "tests/common/boxes.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;
using testkit::Bytes;
using testkit::failureOf;
using testkit::hex;


TEST(ImffBitWriter, WritesMostSignificantBitFirstAcrossByteBoundaries) {
    Bytes buffer(17, 0);
    ImffBitWriter writer(buffer.data(), buffer.size());
    writer.writeBits(3, 0b101);     // 101
    writer.writeBits(7, 0x7F);      // 1111111
    writer.writeBits(0, 0xFFFF);    // nothing
    writer.writeBit(false);         // 0
    writer.writeBits(5, 0b10011);   // 10011
    writer.writeBits(16, 0xBEEF);   // at bit 16: aligned
    writer.alignWithStopBit();      // already aligned: a 1 and seven 0
    writer.writeBits(4, 0xFFFFFFF3);  // low bits only: 0011
    EXPECT_EQ(writer.getPosition(), 44u);
    writer.writeBits(48, 0);                     // six zero bytes, as reserved fields are written
    writer.writeBits64(44, 0xABCDEF0123456ull);  // the 44 low bits: CDEF0123456
    // 10111111 11010011 | BE EF | 10000000 | 0011 0000...
    EXPECT_EQ(buffer, hex("BF D3 BE EF 80 3 000000000000 CDEF0123456"));
}

TEST(ImffBitWriter, DirtyBufferGivesTheSameBytesAsAZeroedOne) {
    auto writeAll = [](std::uint8_t fill) {
        Bytes buffer(14, fill);
        ImffBitWriter writer(buffer.data(), buffer.size());
        writer.writeBits(1, 0);
        writer.writeBits(6, 0x15);
        writer.writeBits(13, 0);
        writer.writeBits(32, 0x01020304);
        writer.writeBits(12, 0);
        writer.alignWithStopBit();
        writer.writeBits(2, 0);
        writer.writeBits(6, 0);
        writer.writeBits(24, 0);
        writer.writeBits(3, 0);
        return buffer;
    };
    EXPECT_EQ(writeAll(0x00), writeAll(0xFF));
    EXPECT_EQ(writeAll(0x00), writeAll(0x5A));
}

TEST(ImffBitWriter, AWriteThatDoesNotFitFailsAfterTheBitsThatDo) {
    Bytes buffer(3, 0);
    ImffBitWriter writer(buffer.data(), 2);
    // The first 16 bits fit and stay; the 17th bit fails.
    EXPECT_EQ(failureOf([&] { writer.writeBits(24, 0xABCDEF); }), "ImffBitWriter: out of bounds");
    EXPECT_EQ(buffer, hex("ABCD 00"));
    const std::uint8_t payload[2] = {0xEE, 0xEE};
    EXPECT_EQ(failureOf([&] { writer.copyBuffer(payload, 1); }), "ImffBitWriter: out of bounds");
    ImffBitWriter unaligned(buffer.data(), buffer.size());
    unaligned.writeBit(true);
    EXPECT_EQ(failureOf([&] { unaligned.copyBuffer(payload, 1); }), "ImffBitWriter: unaligned call to copy_buffer");
}

// A child that only claims a size, to reach the 4 GiB boundary without writing it.
class ClaimedSizeBox : public Box {
public:
    explicit ClaimedSizeBox(std::uint64_t size) : Box(fourCC("skip")), m_size(size) {}
    std::uint64_t getSize() const override { return m_size; }

private:
    std::uint64_t m_size;
};

TEST(Box, SixtyFourBitSizeOnlyAbove0xFFFFFFFF) {
    Box atLimit(fourCC("moof"));
    atLimit.addChild(std::make_shared<ClaimedSizeBox>(0xFFFFFFFFull - 8));
    EXPECT_EQ(atLimit.getSize(), 0xFFFFFFFFull);
    Box past(fourCC("moof"));
    past.addChild(std::make_shared<ClaimedSizeBox>(0xFFFFFFFFull - 7));
    EXPECT_EQ(past.getSize(), 0x100000000ull + 8);

    // mdat counts its own payload in the decision.
    Bytes header(16, 0);
    ImffBitWriter writer(header.data(), header.size());
    MediaDataBox(0xFFFFFFF7).binarize(writer);
    EXPECT_EQ(writer.getPosition(), 64u);
    EXPECT_EQ(Bytes(header.begin(), header.begin() + 8), hex("FFFFFFFF 'mdat'"));

    const MediaDataBox large(0xFFFFFFF8);
    EXPECT_EQ(large.getSize(), 0x100000000ull + 8);
    ImffBitWriter writer2(header.data(), header.size());
    large.binarize(writer2);
    EXPECT_EQ(header, hex("00000001 'mdat' 0000000100000008"));
}

}  // namespace
