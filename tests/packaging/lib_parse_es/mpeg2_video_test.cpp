// The MPEG-2 sequence header of ffmpeg's 720x576 4:3 stream at 25 fps, through the framing, and the two lookups.
#include <gtest/gtest.h>

#include "packaging/lib_parse_es/mpeg2_video.h"
#include "tests/common/bytes.h"
#include "tests/common/fixtures.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;
namespace mpeg2 = es::mpeg2;

TEST(Mpeg2Video, SequenceHeaderOfFfmpegsStreamAndItsLookups) {
    const NalCollector c = framedInPieces(es::StreamType::MPEG2_VIDEO, readData("mpeg2_720x576.m2v"), 3, 11);
    ASSERT_FALSE(c.nals.empty());
    auto* first = dynamic_cast<es::NALMPEG2*>(c.nals.front().get());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->startCode(), mpeg2::kSequenceHeaderCode);
    mpeg2::SequenceHeader h;
    ASSERT_TRUE(mpeg2::parseSequenceHeader(first->bytes(), first->length, h));
    EXPECT_EQ(std::tie(h.horizontal_size_value, h.vertical_size_value, h.aspect_ratio_information, h.frame_rate_code,
                       h.marker_bit),
              std::make_tuple(720u, 576u, 2u, 3u, 1u));
    const auto rate = mpeg2::frameRate(h.frame_rate_code);
    EXPECT_EQ(std::make_pair(rate.num, rate.den), std::make_pair(std::int64_t{25}, std::int64_t{1}));
    const auto sar = mpeg2::sampleAspectRatio(h.aspect_ratio_information, h.horizontal_size_value, h.vertical_size_value);
    EXPECT_EQ(std::make_pair(sar.num, sar.den), std::make_pair(std::int64_t{2304}, std::int64_t{2160}));  // not reduced

    try {
        mpeg2::frameRate(0);
        ADD_FAILURE() << "frame_rate_code 0 is no rate";
    } catch (const mpeg2::Exception& e) {
        EXPECT_STREQ(e.what(), "Mpeg2 video sequence_header parsing issue: unknown frame_rate_code: 0");
    }
    // A unit that is no sequence header, and one cut after its sizes: the rest reads as zeros.
    EXPECT_FALSE(mpeg2::parseSequenceHeader(hex("000001B5 1234").data(), 6, h));
    ASSERT_TRUE(mpeg2::parseSequenceHeader(hex("000001B3 2D0240").data(), 7, h));
    EXPECT_EQ(std::tie(h.horizontal_size_value, h.vertical_size_value, h.frame_rate_code), std::make_tuple(720u, 576u, 0u));
}

}  // namespace
