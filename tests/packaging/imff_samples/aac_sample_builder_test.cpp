// AAC through framing and sample building: ffmpeg's ADTS and LOAS output and raw packets made around the
// same frames must give the same payloads, one configuration sample first, and ffprobe's times.
#include <gtest/gtest.h>

#include "packaging/imff_samples/sample_builder_audio.h"
#include "packaging/lib_parse_es/nal_aac.h"
#include "packaging/lib_parse_es/nal_builder_aac.h"
#include "tests/common/samples.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

// Pushes the frames one buffer each, every buffer with its ffprobe time (or only the first with `firstOnly`),
// each buffer split at a random point.
SampleCollector feedFrames(std::uint32_t streamType, const std::vector<Bytes>& frames,
                           const std::vector<AudioPacket>& packets, bool firstOnly = false) {
    SampleChain chain(streamType);
    std::uint32_t seed = 99;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        seed = seed * 1103515245u + 12345u;
        const std::size_t cut = 1 + (seed >> 16) % (frames[i].size() - 1);
        auto head = makeBuffer(frames[i].data(), cut);
        if (!firstOnly || i == 0) {
            const std::int64_t t = probeTo100ns(packets[i].pts);
            head->SetTime(&t, nullptr);
        }
        chain.builder->push(head.get());
        chain.builder->push(makeBuffer(frames[i].data() + cut, frames[i].size() - cut).get());
    }
    chain.builder->flush();
    return std::move(chain.collector);
}

// The configuration sample comes first, once; then one audio sample per frame, with the given payloads,
// times within one sample of ffprobe's, and the given duration and timescale.
void expectSamples(const SampleCollector& c, const Bytes& config, const std::vector<Bytes>& payloads,
                   const std::vector<AudioPacket>& packets, std::uint64_t timescale, std::int64_t duration,
                   std::uint32_t inputType) {
    ASSERT_FALSE(c.all.empty());
    EXPECT_EQ(c.all[0]->kind, samples::KindDecoderConfiguration);
    EXPECT_EQ(bytesOf(*c.all[0]), config);
    EXPECT_EQ(c.all[0]->timescale, 90000u);
    EXPECT_FALSE(c.all[0]->hasPts);
    EXPECT_EQ(c.all[0]->inputType, inputType);
    EXPECT_EQ(c.ofKind(samples::KindDecoderConfiguration).size(), 1u);
    const auto audio = c.ofKind(samples::KindAudio);
    ASSERT_EQ(audio.size(), payloads.size());
    for (std::size_t i = 0; i < audio.size(); ++i) {
        const samples::Sample& s = *audio[i];
        EXPECT_EQ(bytesOf(s), payloads[i]) << i;
        EXPECT_EQ(s.timescale, timescale);
        EXPECT_EQ(s.streamId, 3u);
        EXPECT_EQ(s.duration, duration);
        EXPECT_TRUE(s.hasPts && s.hasDts && s.hasDuration);
        EXPECT_EQ(s.pts, s.dts);
        const std::int64_t expected = packets[i].pts * static_cast<std::int64_t>(timescale) / kProbeTimeBase;
        EXPECT_NEAR(static_cast<double>(s.pts), static_cast<double>(expected), 1.0) << i;
    }
    EXPECT_EQ(c.ends, 1);
}

// With a CRC field the headers are 9 bytes, stripped whole; one input time at the start. (Plain ADTS is in the
// golden chunks.)
TEST(AacSamples, AdtsWithCrcStereoAnd51) {
    struct Case {
        const char* file;
        std::uint64_t rate;
        Bytes config;  // object type 2, the sampling index, the channel configuration
    };
    for (const Case& k : {Case{"aac_lc_stereo_48k.adts", 48000, {0x11, 0x90}}, Case{"aac_lc_51_44k.adts", 44100, {0x12, 0x30}}}) {
        SCOPED_TRACE(k.file);
        const AudioFixture fixture = loadAudioFixture(k.file);
        const SampleCollector c = feedFrames(4, framesWithCrc(fixture), fixture.packets, true);
        expectSamples(c, k.config, adtsPayloads(fixture), fixture.packets, k.rate, 1024, 4);
    }
}

TEST(AacSamples, LoasPayloadsAreTheAdtsPayloadsOfTheSameEncoding) {
    // The LOAS file was copied from the ADTS one without re-encoding: the raw frames must be identical.
    const AudioFixture adts = loadAudioFixture("aac_lc_stereo_48k.adts");
    const AudioFixture latm = loadAudioFixture("aac_lc_stereo_48k.latm");
    const SampleCollector c = feedFrames(5, packetBytes(latm), latm.packets, true);
    expectSamples(c, {0x11, 0x90}, adtsPayloads(adts), latm.packets, 48000, 1024, 5);
}

TEST(AacSamples, LoasHeAacCarriesTheConfigurationBitsAndTheCoreRate) {
    const AudioFixture adts = loadAudioFixture("aac_lc_stereo_48k.adts");
    const std::vector<Bytes> payloads = adtsPayloads(adts);
    for (unsigned objectType : {5u, 29u}) {
        const AscOptions asc{objectType, 6, objectType == 29 ? 1u : 2u, 3};
        // A leading frame that reuses a configuration not yet seen gives nothing and moves no time: the first
        // usable frame starts at the input time. Core frames are 1024 samples at 24 kHz.
        std::vector<Bytes> frames = {latmFrame(payloads[0], nullptr)};
        std::vector<AudioPacket> packets(1), expectedTimes;
        for (std::size_t i = 1; i < 30; ++i) {
            frames.push_back(latmFrame(payloads[i], i % 8 == 1 ? &asc : nullptr));
            expectedTimes.push_back({static_cast<std::int64_t>(i - 1) * 1024 * kProbeTimeBase / 24000, 0, 0});
            packets.push_back(expectedTimes.back());
        }
        const SampleCollector c = feedFrames(5, frames, packets, true);
        const std::vector<Bytes> expectedPayloads(payloads.begin() + 1, payloads.begin() + 30);
        expectSamples(c, ascBytes(asc), expectedPayloads, expectedTimes, 24000, 1024, 5);
    }
}

TEST(AacSamples, RawPacketsLcAndHeAac) {
    const AudioFixture adts = loadAudioFixture("aac_lc_stereo_48k.adts");
    const std::vector<Bytes> payloads = adtsPayloads(adts);
    struct Case { AscOptions asc; std::uint64_t rate; std::int64_t duration; };
    for (const Case& k : {Case{AscOptions{}, 48000, 1024}, Case{AscOptions{5, 6, 2, 3}, 48000, 2048},
                          Case{AscOptions{29, 6, 1, 3}, 48000, 2048}}) {
        const Bytes config = ascBytes(k.asc);
        std::vector<Bytes> frames;
        std::vector<Bytes> expectedPayloads;
        for (std::size_t i = 0; i < payloads.size(); ++i) {
            frames.push_back(rawPacket(payloads[i], config, ascBits(k.asc)));
            if (i == 10) frames.back()[9] ^= 0x40;  // a bit rate nobody reads: still a good packet
            if (i == 20) frames.back()[frames.back().size() - payloads[i].size() - 1] ^= 1;  // lengths disagree
            if (i != 20) expectedPayloads.push_back(payloads[i]);
        }
        std::vector<AudioPacket> packets = adts.packets;
        packets.erase(packets.begin() + 20);
        const SampleCollector c = feedFrames(10, frames, adts.packets);
        // With SBR a frame is 2048 samples of the 48 kHz output; the input times are those of the LC stream.
        expectSamples(c, config, expectedPayloads, packets, k.rate, k.duration, 10);
    }
}

TEST(AacSamples, ARateChangeTakesEffectAtItsFrame) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.adts");
    std::vector<Bytes> frames = packetBytes(fixture);
    frames.resize(6);
    // From the fourth frame on, the header says 24 kHz (index 6).
    for (std::size_t i = 3; i < frames.size(); ++i)
        frames[i][2] = static_cast<std::uint8_t>((frames[i][2] & ~0x3C) | (6 << 2));
    SampleChain chain(4);
    const SampleCollector& c = chain.collector;
    std::int64_t t = 900000;  // 90 ms
    for (const Bytes& f : frames) {
        auto buffer = makeBuffer(f);
        buffer->SetTime(&t, nullptr);
        chain.builder->push(buffer.get());
        t += 213333;
    }
    chain.builder->flush();
    const auto audio = c.ofKind(samples::KindAudio);
    ASSERT_EQ(audio.size(), 6u);
    // The input times, 132.67 ms and 154 ms, rounded to 90 kHz ticks (11940 and 13860), at the rate of each frame.
    EXPECT_EQ(audio[2]->timescale, 48000u);
    EXPECT_EQ(audio[2]->pts, 6368);
    EXPECT_EQ(audio[3]->timescale, 24000u);
    EXPECT_EQ(audio[3]->pts, 3696);
    EXPECT_EQ(bytesOf(*c.ofKind(samples::KindDecoderConfiguration).at(0)), (Bytes{0x11, 0x90}));
    EXPECT_EQ(c.ofKind(samples::KindDecoderConfiguration).size(), 1u);
}

}  // namespace
