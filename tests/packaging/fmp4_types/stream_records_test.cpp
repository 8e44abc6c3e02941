// The labels of streams and outputs that the session's log lines carry.
#include <gtest/gtest.h>

#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/stream_type.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;

TEST(StreamRecords, LabelsNameTheKindAndTheBandwidthInWholeKilobits) {
    ElementaryStreamAttributes attributes;
    attributes.type = H264_VIDEO;
    attributes.bandwidth = 1999;  // cut, not rounded
    EXPECT_EQ(streamLabel(attributes), "video_1kbps");
    attributes.type = AAC_LATM_AUDIO;
    attributes.bandwidth = 128000;
    EXPECT_EQ(streamLabel(attributes), "audio_128kbps");
    attributes.type = WEBVTT;
    EXPECT_EQ(streamLabel(attributes), "text_128kbps");
    // An output is labelled by its streams that are registered, in order.
    std::map<std::uint32_t, ElementaryStreamAttributes> registered;
    registered[3] = attributes;
    registered[3].bandwidth = 96000;
    EXPECT_EQ(outputLabel(2, {8, 3}, registered), "output#2text_96kbps");
}

}  // namespace
