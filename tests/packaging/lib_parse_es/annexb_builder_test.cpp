// The Annex B builder of H.264 and HEVC: the timing of units, flushes, and the zero-pair search.
#include <gtest/gtest.h>

#include <algorithm>

#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

using es::NALBuilderH264;
using es::NALBuilderHEVC;

TEST(AnnexBBuilder, UnitsTakeTheTimingOfTheBufferTheyStartIn) {
    const Bytes first = {0x00, 0x00, 0x01, 0x09, 0xF0, 0x00, 0x00, 0x01, 0x67, 0x42, 0x00};  // two starts
    const Bytes middle = {0xAA, 0xBB};                                                      // continues only
    const Bytes last = {0xCC, 0x00, 0x00, 0x00, 0x01, 0x65, 0x88};
    NALBuilderH264 builder;
    NalCollector collector;
    builder.setListener(&collector);
    auto a = makeBuffer(first, 900, 600);
    a->SetSyncPoint(true);
    a->SetDataId({42});
    builder.push(a.get());
    builder.push(makeBuffer(middle, 1800).get());
    builder.push(makeBuffer(last, 2700).get());
    ASSERT_EQ(collector.nals.size(), 2u);  // the third unit is open until flush
    for (const auto& nal : collector.nals) {
        EXPECT_TRUE(nal->timing.hasTime);
        EXPECT_EQ(nal->timing.time90kHz(), 900);
        EXPECT_TRUE(nal->timing.hasMediaTime);
        EXPECT_EQ(nal->timing.mediaTime90kHz(), 600);
        EXPECT_TRUE(nal->timing.syncPoint);
        EXPECT_TRUE(nal->timing.hasDataId);
        EXPECT_EQ(nal->timing.dataId, 42u);
        EXPECT_FALSE(nal->timing.hasDuration);
    }
    // The second unit spans three buffers and keeps the first one's time.
    EXPECT_EQ(collector.bytesOf(1), (Bytes{0x00, 0x00, 0x01, 0x67, 0x42, 0x00, 0xAA, 0xBB, 0xCC}));
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 3u);
    EXPECT_EQ(collector.nals[2]->timing.time90kHz(), 2700);
    EXPECT_FALSE(collector.nals[2]->timing.hasMediaTime);
    EXPECT_EQ(collector.nals[2]->length, 6u);
    EXPECT_EQ(collector.ends, 1);
    // An untimed buffer gives untimed units.
    builder.push(makeBuffer(Bytes{0x00, 0x00, 0x01, 0x09, 0xF0}).get());
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 4u);
    EXPECT_FALSE(collector.nals[3]->timing.hasTime || collector.nals[3]->timing.hasMediaTime);
}

TEST(AnnexBBuilder, UnitsWithinOneBufferMayReferToItAndNeverWriteIt) {
    const Bytes stream = {0x00, 0x00, 0x00, 0x01, 0x09, 0xF0, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84,
                          0x00, 0x00, 0x00, 0x01, 0x41, 0x9A};
    auto buffer = makeBuffer(stream);
    NalCollector collector, copies;
    for (const bool referenced : {true, false}) {
        NALBuilderH264 builder;
        builder.setReferenceInputs(referenced);
        builder.setListener(referenced ? &collector : &copies);
        builder.push(buffer.get());
        builder.flush();
    }
    // By default each unit is a copy and holds no reference to the input; the referring units hold one each.
    ASSERT_EQ(copies.nals.size(), 3u);
    for (const auto& unit : copies.nals) EXPECT_FALSE(unit->borrowed());
    buffer->AddRef();
    EXPECT_EQ(buffer->Release(), 1u + 3u);
    buffer = {};  // the referring units alone keep the input alive now
    ASSERT_EQ(collector.nals.size(), 3u);
    const std::uint8_t* input = collector.nals[0]->bytes();
    // As a sample writes them: each start code, of 4 or 3 bytes, becomes the 4-byte length of what follows.
    const std::uint32_t codes[] = {4, 3, 4};
    const Bytes written[] = {{0, 0, 0, 2, 0x09, 0xF0}, {0, 0, 0, 3, 0x65, 0x88, 0x84}, {0, 0, 0, 2, 0x41, 0x9A}};
    for (std::size_t i = 0; i < 3; ++i) {
        es::NAL& unit = *collector.nals[i];
        EXPECT_TRUE(unit.borrowed());
        ASSERT_TRUE(unit.replaceStartCodeWithLength(codes[i]));
        ASSERT_EQ(unit.length, written[i].size());
        Bytes out(unit.length);
        unit.writeTo(out.data());
        EXPECT_EQ(out, written[i]) << "unit " << i;
    }
    // Encrypting a unit writes a copy of its own; the input, which the first unit still holds, is untouched.
    collector.nals[1]->writableBytes()[4] = 0xEE;
    EXPECT_FALSE(collector.nals[1]->borrowed());
    EXPECT_EQ(collector.bytesOf(1), (Bytes{0, 0, 0, 3, 0xEE, 0x88, 0x84}));
    EXPECT_EQ(Bytes(input, input + 18), stream);
}

TEST(AnnexBBuilder, FlushWithoutUnitOnlyEndsAndBuilderIsReusable) {
    NALBuilderHEVC builder;
    NalCollector collector;
    builder.setListener(&collector);
    builder.flush();
    EXPECT_TRUE(collector.nals.empty());
    EXPECT_EQ(collector.ends, 1);
    // Garbage without any start code, then empty buffers: nothing.
    builder.push(makeBuffer(Bytes{0x12, 0x00, 0x34, 0x00}).get());
    builder.push(makeBuffer(Bytes{}).get());
    builder.push(nullptr);
    builder.flush();
    EXPECT_TRUE(collector.nals.empty());
    EXPECT_EQ(collector.ends, 2);
    // After a flush the builder starts afresh: a code split over the flush is not joined.
    builder.push(makeBuffer(Bytes{0x00, 0x00}).get());
    builder.flush();
    builder.push(makeBuffer(Bytes{0x01, 0x40, 0x01}).get());
    builder.flush();
    EXPECT_TRUE(collector.nals.empty());
    builder.push(makeBuffer(Bytes{0x00, 0x00, 0x01, 0x40, 0x01}).get());
    builder.flush();
    ASSERT_EQ(collector.nals.size(), 1u);
    EXPECT_EQ(collector.nals[0]->type, 17);
}

TEST(AnnexBBuilder, ZeroPairSearchAgreesWithAPlainWalk) {
    // Lone zeros everywhere and one pair placed at every position, across the 128-, 64- and 16-byte blocks of
    // the vector searches and their byte-wise tail; the AVX2 one where the processor has it.
    std::vector<const std::uint8_t* (*)(const std::uint8_t*, std::size_t)> searches{es::findZeroPair, es::findZeroPairSse2};
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) searches.push_back(es::findZeroPairAvx2);
#endif
    std::uint32_t seed = 7;
    for (std::size_t size = 0; size < 300; ++size) {
        for (std::size_t pair = 0; pair <= size; ++pair) {
            Bytes data(size);
            for (std::size_t k = 0; k < size; ++k) {
                seed = seed * 1103515245u + 12345u;
                data[k] = (seed >> 16) % 5 == 0 ? 0 : static_cast<std::uint8_t>(1 + (seed >> 8) % 255);
                if (k > 0 && data[k] == 0 && data[k - 1] == 0) data[k] = 0x11;  // keep zeros single
            }
            if (pair + 1 < size) data[pair] = data[pair + 1] = 0;
            const auto pairAt =
                std::adjacent_find(data.begin(), data.end(), [](auto a, auto b) { return a == 0 && b == 0; });
            const auto expected = static_cast<std::size_t>(pairAt - data.begin());
            for (const auto search : searches) {
                const std::uint8_t* hit = search(data.data(), data.size());
                ASSERT_EQ(hit == nullptr ? size : static_cast<std::size_t>(hit - data.data()), expected)
                    << "size " << size << " pair " << pair;
            }
        }
    }
    EXPECT_EQ(es::findZeroPair(nullptr, 0), nullptr);
}

}  // namespace
