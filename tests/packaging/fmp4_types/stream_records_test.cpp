// The records shared by the session's parts: labels of streams and outputs, and the input buffer.
#include <gtest/gtest.h>

#include "packaging/fmp4_types/media_data.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/stream_type.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;
using namespace tvrn::com;

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

TEST(SimpleMediaData, TimesMetadataAndReferenceCount) {
    const std::uint8_t bytes[] = {0, 0, 1, 0x65};
    MediaDataRef data = SimpleMediaData::create(bytes, sizeof bytes);
    std::uint8_t* pointer = nullptr;
    EXPECT_EQ(data->GetPointer(&pointer), S_OK);
    EXPECT_EQ(pointer[3], 0x65);
    EXPECT_EQ(data->SetActualDataLength(5), VFW_E_BUFFER_OVERFLOW);
    EXPECT_EQ(data->SetActualDataLength(2), S_OK);
    EXPECT_EQ(data->GetActualDataLength(), 2);
    EXPECT_EQ(data->GetSize(), 4);

    REFERENCE_TIME start = 0, stop = 0;
    EXPECT_EQ(data->GetTime(&start, &stop), VFW_E_SAMPLE_TIME_NOT_SET);
    EXPECT_EQ(data->GetMediaTime(&start, &stop), VFW_E_MEDIA_TIME_NOT_SET);
    const REFERENCE_TIME t0 = 400000, t1 = 800000;
    data->SetTime(&t0, nullptr);
    EXPECT_EQ(data->GetTime(&start, &stop), VFW_S_NO_STOP_TIME);
    EXPECT_EQ(start, t0);
    data->SetTime(&t0, &t1);
    EXPECT_EQ(data->GetTime(&start, &stop), S_OK);
    EXPECT_EQ(stop, t1);
    DataId id;
    EXPECT_FALSE(data->GetDataId(id));
    // The parental rating block is copied whole, to its last byte.
    ParentalRatingEventBlock rating;
    rating.bytes[5143] = 9;
    data->SetParentalRating(rating);
    ParentalRatingEventBlock back;
    EXPECT_TRUE(data->GetParentalRating(back));
    EXPECT_EQ(back.bytes[5143], 9);

    // A second reference keeps the buffer alive after the first goes.
    MediaDataRef second(data.get());
    EXPECT_EQ(data->AddRef(), 3u);
    EXPECT_EQ(data->Release(), 2u);
    data.reset();
    EXPECT_EQ(second->GetActualDataLength(), 2);
}

}  // namespace
