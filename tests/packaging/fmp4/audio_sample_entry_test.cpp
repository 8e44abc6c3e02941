// The "mp4a" entry and the manifest information of AAC streams, from the configuration sample of each form of
// configuration: LC, 5.1, HE-AAC and HE-AAC v2 with explicit signalling, and configurations that can't be used.
#include <gtest/gtest.h>

#include "packaging/fmp4/chunks/audio_sample_entry.h"
#include "tests/common/boxes.h"
#include "tests/common/chunks.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

StreamChunk configChunk(const Bytes& config) { return configurationChunk(samples::KindDecoderConfiguration, config); }

TEST(AudioSampleEntry, EachConfigurationGivesItsRateChannelsAndCodecString) {
    struct Case { Bytes config; std::uint32_t rate; std::uint32_t channels; const char* codecs; };
    const Case cases[] = {
        {{0x11, 0x90}, 48000, 2, "mp4a.40.2"},
        {{0x12, 0x30}, 44100, 6, "mp4a.40.2"},
        {ascBytes({5, 6, 2, 3}), 48000, 2, "mp4a.40.5"},
        {ascBytes({29, 6, 1, 3}), 48000, 2, "mp4a.40.29"},
        {{0x11, 0x88}, 48000, 1, "mp4a.40.2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.codecs + std::to_string(c.channels));
        ElementaryStreamAttributes attributes;
        attributes.bitrate = 96000;
        const AudioSampleEntryResult result = makeAudioSampleEntry(AAC_ADTS_AUDIO, configChunk(c.config), attributes);
        ASSERT_TRUE(result.entry);
        EXPECT_EQ(result.entry->sampleRate, c.rate);
        EXPECT_EQ(result.entry->channelCount, c.channels);
        EXPECT_EQ(result.manifest.codecs, c.codecs);
        EXPECT_EQ(result.manifest.fourCC, "mp4a");
        EXPECT_EQ(result.manifest.codecPrivateData, c.config);
        EXPECT_EQ(result.manifest.channels, c.channels);
        EXPECT_EQ(result.manifest.samplingRate, c.rate);

        // The entry's bytes: "mp4a", channels, the rate in the 16.16 field, then "esds" to the end, whose decoder
        // specific info (tag 5 and its length) is the configuration, followed by the SL descriptor.
        const Bytes bytes = writeBox(result.entry);
        ASSERT_GE(bytes.size(), 36u + 8);
        EXPECT_EQ(slice(bytes, 4, 4), hex("'mp4a'"));
        EXPECT_EQ(be16(&bytes[24]), c.channels);
        EXPECT_EQ(be16(&bytes[32]), c.rate & 0xFFFF);
        EXPECT_EQ(slice(bytes, 36, 8), cat({Bytes{0, 0, 0, static_cast<std::uint8_t>(bytes.size() - 36)}, hex("'esds'")}));
        EXPECT_EQ(slice(bytes, bytes.size() - c.config.size() - 5, c.config.size() + 5),
                  cat({{0x05, static_cast<std::uint8_t>(c.config.size())}, c.config, hex("06 01 02")}));
    }
}

TEST(AudioSampleEntry, NoEntryWithoutAUsableConfiguration) {
    ElementaryStreamAttributes attributes;
    EXPECT_FALSE(makeAudioSampleEntry(AAC_ADTS_AUDIO, StreamChunk{}, attributes).entry);
    EXPECT_FALSE(makeAudioSampleEntry(AAC_LATM_AUDIO, configChunk({0x41, 0x90}), attributes).entry);  // object type 8
    EXPECT_FALSE(makeAudioSampleEntry(AAC_RAW_AUDIO, configChunk({0x16, 0x90}), attributes).entry);   // index 13
    EXPECT_FALSE(makeAudioSampleEntry(H264_VIDEO, configChunk({0x11, 0x90}), attributes).entry);
    EXPECT_EQ(channelCountOf(7), 8u);
    EXPECT_EQ(channelCountOf(0), 0u);
}

}  // namespace
