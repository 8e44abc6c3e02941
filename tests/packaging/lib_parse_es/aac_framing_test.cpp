// AAC framing over ffmpeg's ADTS and LOAS output and over raw packets made around its frames: the frames
// found must be exactly ffprobe's packets, timed by input time or by the running time, and damage must cost
// only the frames it touches.
#include <gtest/gtest.h>

#include <stdexcept>

#include "packaging/lib_parse_es/mpeg4_audio.h"
#include "packaging/lib_parse_es/nal_aac.h"
#include "packaging/lib_parse_es/nal_builder_aac.h"
#include "tests/common/bytes.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

namespace m4a = es::mpeg4_audio;

struct AdtsCase {
    const char* file;
    std::uint32_t rate;
    std::uint32_t channels;
};

class AdtsFixtureTest : public ::testing::TestWithParam<AdtsCase> {};

// The cuts themselves are the split-invariance test's; here, what each frame says and when it starts.
TEST_P(AdtsFixtureTest, FramesParseAndTheRunningTimeFollowsFfprobe) {
    const AudioFixture fixture = loadAudioFixture(GetParam().file);
    NalCollector c;
    auto builder = es::createNalBuilder(es::StreamType::AAC_ADTS_AUDIO);
    builder->setListener(&c);
    const std::int64_t start = 5000000;
    pushPieces(*builder, fixture.bytes, 7, 300, start);
    builder->flush();
    ASSERT_EQ(c.all(), packetBytes(fixture));
    const std::int64_t step = 10240000000 / GetParam().rate;
    for (std::size_t i = 0; i < c.nals.size(); ++i) {
        auto& nal = static_cast<es::NALAACADTS&>(*c.nals[i]);
        ASSERT_TRUE(nal.parse());
        EXPECT_EQ(nal.sampleRate, GetParam().rate);
        EXPECT_EQ(nal.channelConfiguration, GetParam().channels);
        EXPECT_EQ(nal.headerSize, 7u);
        EXPECT_EQ(nal.frameLength, nal.length);
        EXPECT_EQ(nal.profile, 1u);  // AAC-LC
        // One input time for the whole stream: the running time counts 1024 samples a frame, truncated,
        // and stays within a microsecond of ffprobe's times.
        EXPECT_EQ(nal.timing.time, start + static_cast<std::int64_t>(i) * step);
        EXPECT_NEAR(static_cast<double>(nal.timing.time - start), static_cast<double>(probeTo100ns(fixture.packets[i].pts)),
                    1 + static_cast<double>(i));
    }
}

TEST_P(AdtsFixtureTest, EachBufferTimeReplacesTheRunningTimeAndCrcHeadersAreNineBytes) {
    const AudioFixture fixture = loadAudioFixture(GetParam().file);
    const Bytes crcStream = withCrc(fixture);
    NalCollector c;
    es::NALBuilderAACADTSAudio builder;
    builder.setListener(&c);
    // Buffers of three frames each, split once more at a random point, so that headers and CRC fields are cut.
    std::size_t offset = 0;
    std::uint32_t seed = 3;
    for (std::size_t i = 0; i < fixture.packets.size(); i += 3) {
        std::size_t size = 0;
        for (std::size_t k = i; k < std::min(i + 3, fixture.packets.size()); ++k) size += fixture.packets[k].size + 2;
        seed = seed * 1103515245u + 12345u;
        const std::size_t cut = 1 + (seed >> 16) % (size - 1);
        builder.push(makeBuffer(crcStream.data() + offset, cut).get());
        offset += cut;
        builder.push(makeBuffer(crcStream.data() + offset, size - cut).get());
        offset += size - cut;
    }
    builder.flush();
    ASSERT_EQ(c.nals.size(), fixture.packets.size());
    for (std::size_t i = 0; i < c.nals.size(); ++i) {
        auto& nal = static_cast<es::NALAACADTS&>(*c.nals[i]);
        ASSERT_TRUE(nal.parse());
        EXPECT_EQ(nal.headerSize, 9u);
        EXPECT_EQ(nal.length, fixture.packets[i].size + 2);
    }

    // Now with times: every third frame's buffer has its own time.
    NalCollector timed;
    es::NALBuilderAACADTSAudio builder2;
    builder2.setListener(&timed);
    offset = 0;
    for (std::size_t i = 0; i < fixture.packets.size(); i += 3) {
        std::size_t size = 0;
        for (std::size_t k = i; k < std::min(i + 3, fixture.packets.size()); ++k) size += fixture.packets[k].size;
        auto buffer = makeBuffer(fixture.bytes.data() + offset, size);
        const std::int64_t t = probeTo100ns(fixture.packets[i].pts) + 1000;  // not on the running time's grid
        buffer->SetTime(&t, nullptr);
        builder2.push(buffer.get());
        offset += size;
    }
    builder2.flush();
    ASSERT_EQ(timed.nals.size(), fixture.packets.size());
    const std::int64_t step = 10240000000 / GetParam().rate;
    for (std::size_t i = 0; i < timed.nals.size(); ++i) {
        const std::int64_t base = probeTo100ns(fixture.packets[i - i % 3].pts) + 1000;
        EXPECT_EQ(timed.nals[i]->timing.time, base + static_cast<std::int64_t>(i % 3) * step) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Ffmpeg, AdtsFixtureTest,
                         ::testing::Values(AdtsCase{"aac_lc_stereo_48k.adts", 48000, 2},
                                           AdtsCase{"aac_lc_51_44k.adts", 44100, 6}));

TEST(AdtsFraming, DamageCostsOnlyTheFramesItTouches) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.adts");
    const std::vector<Bytes> frames = packetBytes(fixture);
    // Garbage with false syncs ahead of the stream; a false sync in garbage between frames 10 and 11; frame 20
    // cut in half; a header with sampling index 13 (no valid rate) in place of frame 30.
    Bytes stream = {0x00, 0xFF, 0xF1, 0x50, 0x80, 0x02, 0x1F, 0xFC, 0x12, 0xFF, 0xFF, 0xF9, 0x00};
    std::vector<Bytes> expected;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        Bytes frame = frames[i];
        if (i == 11) stream.insert(stream.end(), {0xFF, 0xF1, 0x4C, 0x80, 0x10, 0x1F, 0xFC, 0x33, 0x44});
        if (i == 20) frame.resize(frame.size() / 2);
        if (i == 30) frame[2] = static_cast<std::uint8_t>((frame[2] & ~0x3C) | (13 << 2));
        stream.insert(stream.end(), frame.begin(), frame.end());
        expected.push_back(frames[i]);
    }
    NalCollector c;
    es::NALBuilderAACADTSAudio builder;
    builder.setListener(&c);
    pushPieces(builder, stream, 9, 200);
    builder.flush();
    const std::vector<Bytes> got = c.all();
    // Every frame delivered is one of the stream's own, whole, in order; frames 10, 11, 20 and 30 are lost at
    // most, with the frame each damage runs into.
    std::size_t next = 0;
    for (const Bytes& frame : got) {
        while (next < frames.size() && frames[next] != frame) ++next;
        ASSERT_LT(next, frames.size()) << "a frame that the stream doesn't have";
        EXPECT_NE(next, 20u);
        EXPECT_NE(next, 30u);
        ++next;
    }
    EXPECT_GE(got.size(), frames.size() - 8);
}

TEST(AdtsFraming, FalseSyncInsideAFrameDoesNotSplitItAndTheLastFrameGoesOutAtFlush) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.adts");
    std::vector<Bytes> frames = packetBytes(fixture);
    frames.resize(4);
    frames[1][20] = 0xFF;  // FF F1 inside the payload
    frames[1][21] = 0xF1;
    Bytes stream;
    for (const Bytes& f : frames) stream.insert(stream.end(), f.begin(), f.end());
    NalCollector c;
    es::NALBuilderAACADTSAudio builder;
    builder.setListener(&c);
    pushPieces(builder, stream, 1, 7);
    EXPECT_EQ(c.nals.size(), 3u);  // the last one waits for a sync that never comes
    builder.flush();
    EXPECT_EQ(c.all(), frames);
    EXPECT_EQ(c.ends, 1);
}

TEST(LatmFraming, FfmpegLoasFramesWithSharedConfigurationAndAStreamJoinedMidway) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.latm");
    const std::vector<Bytes> frames = packetBytes(fixture);
    {
        NalCollector c;
        auto builder = es::createNalBuilder(es::StreamType::AAC_LATM_AUDIO);
        builder->setListener(&c);
        pushPieces(*builder, fixture.bytes, 5, 64, 0);
        builder->flush();
        ASSERT_EQ(c.all(), frames);
        std::size_t withConfig = 0;
        for (std::size_t i = 0; i < c.nals.size(); ++i) {
            auto& nal = static_cast<es::NALAACLATMLOAS&>(*c.nals[i]);
            ASSERT_TRUE(nal.parse());
            if (nal.configPresent) {
                ++withConfig;
                EXPECT_EQ(nal.sampleRate, 48000u);
                EXPECT_EQ(nal.channelConfiguration, 2u);
                EXPECT_EQ(nal.muxConfig.audioSpecificConfig.audioObjectType, 2u);
            }
            EXPECT_EQ(nal.timing.time, static_cast<std::int64_t>(i) * (10240000000 / 48000));
            EXPECT_NEAR(static_cast<double>(nal.timing.time), static_cast<double>(probeTo100ns(fixture.packets[i].pts)),
                        1 + static_cast<double>(i));
        }
        EXPECT_GE(withConfig, 2u);
        EXPECT_LT(withConfig, frames.size() / 2);
    }

    // Joined in the middle of the first frame: frames that reuse a configuration not yet seen are skipped, up
    // to the next frame that carries one; from there on every frame comes.
    std::size_t firstWithConfig = 0;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        if ((frames[i][3] & 0x80) == 0) {
            firstWithConfig = i;
            break;
        }
    }
    ASSERT_GT(firstWithConfig, 1u);
    NalCollector c;
    es::NALBuilderAACLATMLOASAudio builder;
    builder.setListener(&c);
    const Bytes joined(fixture.bytes.begin() + 10, fixture.bytes.end());
    pushPieces(builder, joined, 8, 100);
    builder.flush();
    const std::vector<Bytes> expected(frames.begin() + static_cast<std::ptrdiff_t>(firstWithConfig), frames.end());
    EXPECT_EQ(c.all(), expected);
}

TEST(LatmFraming, FalseSyncPatternsInGarbageCostNothing) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.latm");
    const std::vector<Bytes> frames = packetBytes(fixture);
    Bytes stream;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        // 0x2B7 followed by implausible mux configurations: version 1, several programs, several sub-frames,
        // sampling index 15.
        if (i % 5 == 1) stream.insert(stream.end(), {0x56, 0xE0, 0x40, 0x40, 0x00, 0x00, 0x00});
        if (i % 5 == 2) stream.insert(stream.end(), {0x56, 0xE0, 0x40, 0x20, 0x08, 0x00, 0x00});
        if (i % 5 == 3) stream.insert(stream.end(), {0x56, 0xE0, 0x40, 0x21, 0x00, 0x00, 0x00});
        if (i % 5 == 4) stream.insert(stream.end(), {0x56, 0xE0, 0x40, 0x20, 0x00, 0x17, 0x80});
        stream.insert(stream.end(), frames[i].begin(), frames[i].end());
    }
    NalCollector c;
    es::NALBuilderAACLATMLOASAudio builder;
    builder.setListener(&c);
    pushPieces(builder, stream, 2, 50);
    builder.flush();
    EXPECT_EQ(c.all(), frames);
}

TEST(LatmFraming, HeAacConfigurationsWithExplicitSbrAndPsSignalling) {
    const std::vector<Bytes> payloads = adtsPayloads(loadAudioFixture("aac_lc_stereo_48k.adts"));
    for (unsigned objectType : {5u, 29u}) {
        // A 24 kHz core (index 6) with SBR to 48 kHz (index 3); PS on a mono core for 29.
        const AscOptions asc{objectType, 6, objectType == 29 ? 1u : 2u, 3};
        Bytes stream;
        for (std::size_t i = 0; i < 40; ++i) {
            const Bytes f = latmFrame(payloads[i], i % 10 == 0 ? &asc : nullptr);
            stream.insert(stream.end(), f.begin(), f.end());
        }
        NalCollector c;
        es::NALBuilderAACLATMLOASAudio builder;
        builder.setListener(&c);
        pushPieces(builder, stream, objectType, 33, 0);
        builder.flush();
        ASSERT_EQ(c.nals.size(), 40u);
        auto& first = static_cast<es::NALAACLATMLOAS&>(*c.nals[0]);
        ASSERT_TRUE(first.parse());
        ASSERT_TRUE(first.configPresent);
        const m4a::AudioSpecificConfig& parsed = first.muxConfig.audioSpecificConfig;
        EXPECT_EQ(parsed.signalledObjectType, objectType);
        EXPECT_EQ(parsed.audioObjectType, 2u);
        EXPECT_EQ(parsed.sbrPresentFlag, 1);
        EXPECT_EQ(parsed.psPresentFlag, objectType == 29 ? 1 : -1);
        EXPECT_EQ(parsed.samplingFrequency, 24000u);
        EXPECT_EQ(parsed.extensionSamplingFrequency, 48000u);
        EXPECT_EQ(first.configEndBit - first.configStartBit, ascBits(asc) + 0u);
        // A core frame is 1024 samples at the core's rate.
        EXPECT_EQ(c.nals[39]->timing.time, 39 * (10240000000 / 24000));
    }
}

TEST(RawPacketFraming, PacketsAcrossBuffersWithGarbageAndBadLengths) {
    const std::vector<Bytes> payloads = adtsPayloads(loadAudioFixture("aac_lc_stereo_48k.adts"));
    const AscOptions lc{};
    const Bytes config = ascBytes(lc);
    Bytes stream = {0xFF, 0xFA, 0xFA, 0x00, 0xFF};  // a marker that breaks off
    std::vector<Bytes> packets;
    for (std::size_t i = 0; i < 30; ++i) {
        Bytes packet = rawPacket(payloads[i], config, ascBits(lc));
        if (i == 7) packet[19 + config.size()] ^= 0x01;  // payload length disagrees with the packet size
        if (i == 12) stream.insert(stream.end(), {0xFF, 0xFA, 0xFA, 0xFA, 0x7F, 0xFF, 0xFF, 0xFF});  // absurd size
        stream.insert(stream.end(), packet.begin(), packet.end());
        packets.push_back(packet);
    }
    NalCollector c;
    auto builder = es::createNalBuilder(es::StreamType::AAC_RAW_AUDIO);
    builder->setListener(&c);
    pushPieces(*builder, stream, 4, 90, 1000);
    builder->flush();
    ASSERT_EQ(c.all(), packets);
    std::int64_t expectedTime = 1000;
    for (std::size_t i = 0; i < c.nals.size(); ++i) {
        es::AACRawHeader h;
        const bool ok = es::parseAACRawPacket(*c.nals[i], h);
        EXPECT_EQ(ok, i != 7) << i;
        EXPECT_EQ(c.nals[i]->timing.time, expectedTime) << i;
        if (ok) {
            EXPECT_EQ(h.sampleRate, 48000u);
            EXPECT_EQ(h.frameSamples, 1024u);
            EXPECT_EQ(h.channelConfiguration, 2u);
            EXPECT_EQ(h.headerSize, 20u + config.size());
            EXPECT_EQ(h.payloadLength, payloads[i].size());
            expectedTime += 10240000000 / 48000;  // a packet that can't be read doesn't move the time
        }
    }
}

TEST(RawPacketFraming, HeAacPacketsTakeTheSbrRateAndTwiceTheSamples) {
    const std::vector<Bytes> payloads = adtsPayloads(loadAudioFixture("aac_lc_stereo_48k.adts"));
    for (unsigned objectType : {5u, 29u}) {
        const AscOptions asc{objectType, 6, 1, 3};
        const Bytes packet = rawPacket(payloads[0], ascBytes(asc), ascBits(asc));
        es::NALAACRaw nal(static_cast<std::int32_t>(packet.size()));
        nal.append(packet.data(), packet.size());
        es::AACRawHeader h;
        ASSERT_TRUE(es::parseAACRawPacket(nal, h));
        EXPECT_EQ(h.sampleRate, 48000u);
        EXPECT_EQ(h.frameSamples, 2048u);
        EXPECT_EQ(h.channelConfiguration, objectType == 29 ? 2u : 1u);
        EXPECT_EQ(h.config.samplingFrequency, 24000u);
    }
}

// Bits of a configuration given as a string of '0' and '1', padded with zeros.
Bytes bitsOf(const std::string& text) {
    BitWriter w;
    for (char ch : text)
        if (ch == '0' || ch == '1') w.bit(ch == '1');
    return w.bytes();
}

TEST(Mpeg4AudioConfig, ObjectTypesAndMuxVersionsThatAreNotCarriedThrow) {
    for (unsigned type : {8u, 9u, 12u, 13u, 16u, 17u, 19u, 23u, 24u, 27u}) {
        BitWriter w;
        w.bits(type, 5);
        w.bits(3, 4);
        w.bits(2, 4);
        w.bits(0, 16);
        es::BitReader reader(w.bytes().data(), w.bytes().size());
        m4a::AudioSpecificConfig config;
        EXPECT_EQ(failureOf<std::runtime_error>([&] { (void)m4a::parseAudioSpecificConfig(reader, config); }),
                  "mpeg4_audio(__LINE__): not implemented")
            << type;
    }
    // audioMuxVersion 1 in a StreamMuxConfig.
    const Bytes version1 = bitsOf("1 1 000000 0000 000");
    es::BitReader muxReader(version1.data(), version1.size());
    m4a::StreamMuxConfig mux;
    EXPECT_THROW(m4a::parseStreamMuxConfig(muxReader, mux), std::runtime_error);
}

TEST(Mpeg4AudioConfig, FieldsAndWhereTheConfigurationEnds) {
    struct Case {
        const char* name;
        const char* bits;
        std::size_t skip;  // bits ahead of the configuration
        bool ok;
        unsigned objectType, channels;
        std::uint32_t rate, extensionRate;  // 0: not checked
        std::size_t end;                    // the reader's bit position after it
    };
    const Case cases[] = {
        // The escape: 31 then 6 bits + 32 (object type 42 has no specific configuration here).
        {"escape", "11111 001010 0011 0010", 0, true, 42, 2, 48000, 0, 19},
        // An explicit frequency after index 15, and an SBR extension index with its own escape.
        {"explicit rates", "00101 1111 000000000101110111000000 0010 1111 000000010111011100000000 00010 000", 0,
         true, 2, 2, 24000, 96000, 5 + 4 + 24 + 4 + 4 + 24 + 5 + 3},
        // Channel configuration 0: a program config element with a comment aligned to the configuration's start,
        // which here begins 3 bits into the buffer.
        {"program config element",
         "101 00010 0011 0000 000 "                  // 3 bits ahead, LC, 48 kHz, channels in the PCE, GA bits
         "0000 01 0011 0001 0000 0000 00 000 0000 "  // tag, profile, index, one front element, nothing else
         "0 0 0 "                                    // no mixdowns
         "1 0000 "                                   // front: a channel pair
         "0 "                                        // to a whole byte from the configuration's start
         "00000010 01000001 01000010 "               // comment of 2 bytes
         "1",                                        // the next bit after the configuration
         3, true, 2, 0, 48000, 0, 83},
        // A sampling index of 13 gives no rate: the configuration is refused.
        {"sampling index 13", "00010 1101 0010 000", 0, false, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes b = bitsOf(c.bits);
        es::BitReader reader(b.data(), b.size());
        reader.skipBits(c.skip);
        m4a::AudioSpecificConfig config;
        ASSERT_EQ(m4a::parseAudioSpecificConfig(reader, config), c.ok);
        if (!c.ok) continue;
        EXPECT_EQ(config.audioObjectType, c.objectType);
        EXPECT_EQ(config.channelConfiguration, c.channels);
        EXPECT_EQ(config.samplingFrequency, c.rate);
        if (c.extensionRate != 0) {
            EXPECT_EQ(config.extensionSamplingFrequency, c.extensionRate);
        }
        EXPECT_EQ(reader.bitPosition(), c.end);
    }
}

TEST(LatmFraming, AFrameWithAConfigurationThatIsNotCarriedIsDroppedAndTheStreamGoesOn) {
    const std::vector<Bytes> payloads = adtsPayloads(loadAudioFixture("aac_lc_stereo_48k.adts"));
    const AscOptions good{};
    AscOptions celp{};
    celp.objectType = 8;  // passes the header test, refused by the configuration parse
    Bytes stream;
    const Bytes bad = latmFrame(payloads[0], &celp);
    stream.insert(stream.end(), bad.begin(), bad.end());
    for (std::size_t i = 1; i < 5; ++i) {
        const Bytes f = latmFrame(payloads[i], i == 2 ? &good : nullptr);
        stream.insert(stream.end(), f.begin(), f.end());
    }
    NalCollector c;
    es::NALBuilderAACLATMLOASAudio builder;
    builder.setListener(&c);
    EXPECT_NO_THROW(pushPieces(builder, stream, 1, 1000));
    builder.flush();
    EXPECT_EQ(c.nals.size(), 3u);  // frame 1 reuses a configuration never seen; 2, 3 and 4 come
}

}  // namespace
