// The "mp4a" entry and the manifest information of AAC streams, from the configuration sample of each form of
// configuration: LC, 5.1, HE-AAC and HE-AAC v2 with explicit signalling, and configurations that can't be used.
#include <gtest/gtest.h>

#include "packaging/fmp4/chunks/audio_sample_entry.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/imff_box/box.h"
#include "tests/common/synthetic.h"

namespace {

using namespace tvrn::encoding::packaging::imff::fmp4;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;
using Bytes = std::vector<std::uint8_t>;

StreamChunk configChunk(const Bytes& config) {
    auto sample = std::make_shared<samples::Sample>();
    sample->kind = samples::KindDecoderConfiguration;
    sample->hasTimescale = true;
    sample->timescale = 90000;
    auto nal = std::make_unique<tvrn::encoding::packaging::lib_parse_es::NAL>(-1, static_cast<std::int32_t>(config.size()));
    nal->append(config.data(), config.size());
    sample->addNal(std::move(nal));
    StreamChunk chunk;
    chunk.samples.push_back(std::make_shared<Fmp4Sample>(sample));
    return chunk;
}

Bytes serialise(const tvrn::encoding::packaging::imff::imff_box::Box& box) {
    Bytes bytes(box.getSize());
    tvrn::encoding::packaging::imff::imff_box::ImffBitWriter writer(bytes.data(), bytes.size());
    tvrn::encoding::packaging::imff::imff_box::binarizeChecked(box, writer);
    return bytes;
}

TEST(AudioSampleEntry, EachConfigurationGivesItsRateChannelsAndCodecString) {
    struct Case {
        Bytes config;
        std::uint32_t rate;
        std::uint32_t channels;
        const char* codecs;
    };
    const Case cases[] = {
        {{0x11, 0x90}, 48000, 2, "mp4a.40.2"},
        {{0x12, 0x30}, 44100, 6, "mp4a.40.2"},
        {testkit::ascBytes({5, 6, 2, 3}), 48000, 2, "mp4a.40.5"},
        {testkit::ascBytes({29, 6, 1, 3}), 48000, 2, "mp4a.40.29"},
        {{0x11, 0x88}, 48000, 1, "mp4a.40.2"},
    };
    for (const Case& c : cases) {
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

        // The entry's bytes: "mp4a", the rate in the 16.16 field, then "esds" whose decoder specific info is the
        // configuration, tag 5 and its length right before it, and the SL descriptor after it.
        const Bytes bytes = serialise(*result.entry);
        ASSERT_GE(bytes.size(), 36u + 8);
        EXPECT_EQ(std::string(bytes.begin() + 4, bytes.begin() + 8), "mp4a");
        EXPECT_EQ((bytes[24] << 8) | bytes[25], static_cast<int>(c.channels));
        EXPECT_EQ(static_cast<std::uint32_t>((bytes[32] << 8) | bytes[33]), c.rate & 0xFFFF);
        EXPECT_EQ(std::string(bytes.begin() + 40, bytes.begin() + 44), "esds");
        const Bytes tail(bytes.end() - static_cast<std::ptrdiff_t>(c.config.size() + 5), bytes.end());
        Bytes expected = {0x05, static_cast<std::uint8_t>(c.config.size())};
        expected.insert(expected.end(), c.config.begin(), c.config.end());
        expected.insert(expected.end(), {0x06, 0x01, 0x02});
        EXPECT_EQ(tail, expected);
        EXPECT_EQ(static_cast<std::size_t>((bytes[36] << 24) | (bytes[37] << 16) | (bytes[38] << 8) | bytes[39]),
                  bytes.size() - 36);
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
