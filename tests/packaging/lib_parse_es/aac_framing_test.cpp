// AAC framing over ffmpeg's ADTS and LOAS output and over raw packets made around its frames: buffer times,
// and damage that must cost only the frames it touches. Whole streams cut anywhere are the split-invariance
// test's; the frames' payloads, configurations and times are checked through the sample builder.
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

constexpr std::int64_t kFrame48k = 10240000000 / 48000;  // 1024 samples at 48 kHz in 100 ns, truncated

TEST(AdtsFraming, EachBufferTimeReplacesTheRunningTime) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.adts");
    const std::vector<Bytes> frames = packetBytes(fixture);
    NalCollector c;
    es::NALBuilderAACADTSAudio builder;
    builder.setListener(&c);
    // Buffers of three frames, each with a time off the running time's grid.
    pushInThrees(builder, frames, [&](std::size_t i) { return probeTo100ns(fixture.packets[i].pts) + 1000; });
    builder.flush();
    ASSERT_EQ(c.all(), frames);
    for (std::size_t i = 0; i < c.nals.size(); ++i) {
        const std::int64_t base = probeTo100ns(fixture.packets[i - i % 3].pts) + 1000;
        EXPECT_EQ(c.nals[i]->timing.time, base + static_cast<std::int64_t>(i % 3) * kFrame48k) << i;
    }
}

TEST(AdtsFraming, DamageCostsOnlyTheFramesItTouches) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.adts");
    const std::vector<Bytes> frames = packetBytes(fixture);
    // Garbage with false syncs ahead of the stream; a false sync in garbage between frames 10 and 11; frame 20
    // cut in half; a header with sampling index 13 (no valid rate) in place of frame 30.
    Bytes stream = hex("00 FFF1 5080 021F FC12 FFFF F900");
    for (std::size_t i = 0; i < frames.size(); ++i) {
        Bytes frame = frames[i];
        if (i == 11) stream = cat({stream, hex("FFF1 4C80 101F FC33 44")});
        if (i == 20) frame.resize(frame.size() / 2);
        if (i == 30) frame[2] = static_cast<std::uint8_t>((frame[2] & ~0x3C) | (13 << 2));
        stream = cat({stream, frame});
    }
    const std::vector<Bytes> got = framedInPieces(es::StreamType::AAC_ADTS_AUDIO, stream, 9, 200).all();
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
    NalCollector c;
    es::NALBuilderAACADTSAudio builder;
    builder.setListener(&c);
    pushPieces(builder, cat(frames), 1, 7);
    EXPECT_EQ(c.nals.size(), 3u);  // the last one waits for a sync that never comes
    builder.flush();
    EXPECT_EQ(c.all(), frames);
    EXPECT_EQ(c.ends, 1);
}

TEST(LatmFraming, FalseSyncPatternsInGarbageCostNothing) {
    const AudioFixture fixture = loadAudioFixture("aac_lc_stereo_48k.latm");
    const std::vector<Bytes> frames = packetBytes(fixture);
    // 0x2B7 followed by implausible mux configurations: version 1, several programs, several sub-frames,
    // sampling index 15. The stream is joined on one of them.
    const Bytes garbage[] = {hex("56E0 4040 0000 00"), hex("56E0 4020 0800 00"), hex("56E0 4021 0000 00"),
                             hex("56E0 4020 0017 80")};
    Bytes stream = garbage[3];
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (i % 5 != 0) stream = cat({stream, garbage[i % 5 - 1]});
        stream = cat({stream, frames[i]});
    }
    EXPECT_EQ(framedInPieces(es::StreamType::AAC_LATM_AUDIO, stream, 2, 50).all(), frames);
}

TEST(LatmFraming, AFrameWithAConfigurationThatIsNotCarriedIsDroppedAndTheStreamGoesOn) {
    const std::vector<Bytes> payloads = adtsPayloads(loadAudioFixture("aac_lc_stereo_48k.adts"));
    const AscOptions good{};
    AscOptions celp{};
    celp.objectType = 8;  // passes the header test, refused by the configuration parse
    const Bytes stream = cat({latmFrame(payloads[0], &celp), latmFrame(payloads[1], nullptr),
                              latmFrame(payloads[2], &good), latmFrame(payloads[3], nullptr),
                              latmFrame(payloads[4], nullptr)});
    // Frame 1 reuses a configuration never seen; 2, 3 and 4 come.
    EXPECT_EQ(framedInPieces(es::StreamType::AAC_LATM_AUDIO, stream, 1, 1000).nals.size(), 3u);
}

TEST(RawPacketFraming, PacketsAcrossBuffersWithGarbageAndBadLengths) {
    const std::vector<Bytes> payloads = adtsPayloads(loadAudioFixture("aac_lc_stereo_48k.adts"));
    const AscOptions lc{};
    const Bytes config = ascBytes(lc);
    Bytes stream = hex("FFFAFA 00 FF");  // a marker that breaks off
    std::vector<Bytes> packets;
    for (std::size_t i = 0; i < 30; ++i) {
        Bytes packet = rawPacket(payloads[i], config, ascBits(lc));
        if (i == 7) packet[19 + config.size()] ^= 0x01;  // payload length disagrees with the packet size
        if (i == 12) stream = cat({stream, hex("FFFAFAFA 7FFFFFFF")});  // absurd size
        stream = cat({stream, packet});
        packets.push_back(packet);
    }
    const NalCollector c = framedInPieces(es::StreamType::AAC_RAW_AUDIO, stream, 4, 90, 1000);
    ASSERT_EQ(c.all(), packets);
    std::int64_t expectedTime = 1000;
    for (std::size_t i = 0; i < c.nals.size(); ++i) {
        es::AACRawHeader h;
        const bool ok = es::parseAACRawPacket(*c.nals[i], h);
        EXPECT_EQ(ok, i != 7) << i;
        EXPECT_EQ(c.nals[i]->timing.time, expectedTime) << i;
        if (ok) expectedTime += kFrame48k;  // a packet that can't be read doesn't move the time
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
        w.bits(0x320000, 24);  // 48 kHz, stereo, GASpecificConfig
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

}  // namespace
