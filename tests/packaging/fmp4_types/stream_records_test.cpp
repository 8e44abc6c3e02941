#include <gtest/gtest.h>

#include "packaging/fmp4_types/media_data.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/stream_type.h"
#include "packaging/fmp4_types/sync_sample.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;
using namespace tvrn::com;

TEST(StreamType, TextsAndClasses) {
    EXPECT_STREQ(streamTypeText(2), "H264 Video");
    EXPECT_STREQ(streamTypeText(17), "HEVC Video");
    EXPECT_STREQ(streamTypeText(27), "AC4 Audio");
    EXPECT_STREQ(streamTypeText(8), "Unknown");
    EXPECT_STREQ(streamTypeText(28), "Unknown");
    EXPECT_STREQ(streamTypeText(STREAM_TYPE_UNSET), "Unknown");
    // The video class is 0, 2, 7, 9, 15, 17, 21, 22, 23; audio 1, 3, 4, 5, 10, 27.
    const std::vector<std::uint32_t> video{0, 2, 7, 9, 15, 17, 21, 22, 23};
    const std::vector<std::uint32_t> audio{1, 3, 4, 5, 10, 27};
    for (std::uint32_t t = 0; t < 70; ++t) {
        const bool v = std::find(video.begin(), video.end(), t) != video.end();
        const bool a = std::find(audio.begin(), audio.end(), t) != audio.end();
        EXPECT_EQ(isVideo(t), v) << t;
        EXPECT_EQ(isAudio(t), a) << t;
    }
    EXPECT_FALSE(isVideo(STREAM_TYPE_UNSET));
    EXPECT_FALSE(isAudio(STREAM_TYPE_UNSET));
    // AC-4 cuts as video; other audio as audio; the rest is sparse.
    EXPECT_EQ(syncStreamKind(AC4_AUDIO), SyncVideo);
    EXPECT_EQ(syncStreamKind(AAC_ADTS_AUDIO), SyncAudio);
    EXPECT_EQ(syncStreamKind(HEVC_VIDEO), SyncVideo);
    EXPECT_EQ(syncStreamKind(SCTE_35), SyncOther);
}

TEST(StreamRecords, DefaultsLabelsAndContentTypes) {
    ElementaryStreamAttributes attributes;
    EXPECT_EQ(attributes.type, STREAM_TYPE_UNSET);
    EXPECT_EQ(attributes.language, "und");
    EXPECT_EQ(attributes.group, -1);
    attributes.type = H264_VIDEO;
    attributes.bandwidth = 1999;
    EXPECT_EQ(streamLabel(attributes), "video_1kbps");
    attributes.type = AAC_LATM_AUDIO;
    attributes.bandwidth = 128000;
    EXPECT_EQ(streamLabel(attributes), "audio_128kbps");
    attributes.type = WEBVTT;
    EXPECT_EQ(streamLabel(attributes), "text_128kbps");

    std::map<std::uint32_t, ElementaryStreamAttributes> registered;
    registered[3] = attributes;
    registered[3].bandwidth = 96000;
    EXPECT_EQ(outputLabel(2, {3, 8}, registered), "output#2text_96kbps");

    EXPECT_EQ(chunkContentType(1), ChunkAudio);
    EXPECT_EQ(chunkContentType(6), ChunkAudio);
    EXPECT_EQ(chunkContentType(7), 5u);
    EXPECT_EQ(chunkContentType(8), 3u);
    EXPECT_EQ(chunkContentType(9), 4u);
    EXPECT_EQ(chunkContentType(2), ChunkVideo);

    SegmentChunks segments;
    segments.chunks[0] = std::make_shared<StreamChunk>();
    EXPECT_TRUE(segments.empty());
}

TEST(SimpleMediaData, TimesMetadataAndReferenceCount) {
    const std::uint8_t bytes[] = {0, 0, 1, 0x65};
    MediaDataRef data = SimpleMediaData::create(bytes, sizeof bytes);
    EXPECT_EQ(data->GetActualDataLength(), 4);
    EXPECT_EQ(data->GetSize(), 4);
    std::uint8_t* pointer = nullptr;
    EXPECT_EQ(data->GetPointer(&pointer), S_OK);
    EXPECT_EQ(pointer[3], 0x65);
    EXPECT_EQ(data->SetActualDataLength(5), VFW_E_BUFFER_OVERFLOW);
    EXPECT_EQ(data->SetActualDataLength(2), S_OK);
    EXPECT_EQ(data->GetActualDataLength(), 2);

    REFERENCE_TIME start = 0, stop = 0;
    EXPECT_EQ(data->GetTime(&start, &stop), VFW_E_SAMPLE_TIME_NOT_SET);
    EXPECT_EQ(data->GetMediaTime(&start, &stop), VFW_E_MEDIA_TIME_NOT_SET);
    const REFERENCE_TIME t0 = 400000;
    data->SetTime(&t0, nullptr);
    EXPECT_EQ(data->GetTime(&start, &stop), VFW_S_NO_STOP_TIME);
    EXPECT_EQ(start, t0);
    const REFERENCE_TIME t1 = 800000;
    data->SetTime(&t0, &t1);
    EXPECT_EQ(data->GetTime(&start, &stop), S_OK);
    EXPECT_EQ(stop, t1);
    data->SetMediaTime(&t1, &t1);
    EXPECT_EQ(data->GetMediaTime(&start, &stop), S_OK);
    EXPECT_EQ(start, t1);

    DataId id;
    EXPECT_FALSE(data->GetDataId(id));
    data->SetDataId(DataId{77});
    EXPECT_TRUE(data->GetDataId(id));
    EXPECT_EQ(id.value, 77u);
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
