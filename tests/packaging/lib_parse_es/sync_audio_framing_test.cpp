// AC-3, E-AC-3 and MPEG-1 audio framing: the header arithmetic on headers worked out from ETSI TS 102 366 and
// ISO/IEC 11172-3, Layer III refused unless asked for, and the buffer times. Cutting at any buffer boundary is
// the split-invariance test's.
#include <gtest/gtest.h>

#include "packaging/lib_parse_es/nal_audio_frames.h"
#include "packaging/lib_parse_es/nal_builder_audio_frames.h"
#include "tests/common/bytes.h"
#include "tests/common/fixtures.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

TEST(SyncFrameHeaders, RatesSizesAndChannelClasses) {
    struct Case { const char* header; bool valid; std::uint32_t rate, bitRate, size; std::uint8_t channelClass; };
    const Case cases[] = {
        // AC-3 48 kHz, frmsizcod 28 (384 kbps), bsid 8, acmod 7 (3/2): 1536 bytes.
        {"0B77 0000 1C 40 E0", true, 48000, 384000, 1536, 0x44},
        // 44.1 kHz: frmsizcod 8 (64 kbps) gives 2 x 139 bytes, the odd 9 two more; acmod 2 and 1.
        {"0B77 0000 48 40 40", true, 44100, 64000, 278, 0x42},
        {"0B77 0000 49 40 20", true, 44100, 64000, 280, 0x40},
        // 32 kHz at 32 kbps, acmod 0 (1+1); bsid 10 halves twice.
        {"0B77 0000 80 40 00", true, 32000, 32000, 192, 0x41},
        {"0B77 0000 00 50 00", true, 12000, 8000, 128, 0x41},
        // bsid 12, fscod 3 and frmsizcod 38 are no frames.
        {"0B77 0000 00 60 00", false, 0, 0, 0, 0},
        {"0B77 0000 C0 40 00", false, 0, 0, 0, 0},
        {"0B77 0000 26 40 00", false, 0, 0, 0, 0},
        // E-AC-3: frmsiz 207 (416 bytes), fscod 1, six blocks, acmod 2: 44100 x 1, 95 kbit/s in whole bytes.
        {"0B77 00CF 74 80 00", true, 44100, 95552, 416, 0xC2},
        // One block a frame at 48 kHz: the rate is scaled to 288000 so that the frame lasts 1536 ticks.
        {"0B77 003F 04 80 00", true, 288000, 192000, 128, 0xC2},
        // Reduced rate: fscod 3, fscod2 1 gives 22050.
        {"0B77 003F D4 80 00", true, 22050, 14704, 128, 0xC2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.header);
        const Bytes h = hex(c.header);
        es::Ac3FrameParameters p;
        ASSERT_EQ(es::parseAc3FrameParameters(h.data(), p), c.valid);
        if (!c.valid) continue;
        EXPECT_EQ(p.sampleRate, c.rate);
        EXPECT_EQ(p.bitRate, c.bitRate);
        EXPECT_EQ(p.frameSize, c.size);
        EXPECT_EQ(p.channelClass, c.channelClass);
    }
    struct Mpeg1Case { const char* header; bool layer3; std::uint32_t size; };
    const Mpeg1Case mpeg1[] = {
        {"FFFD 66", false, 289},  // Layer II, 96 kbps, 48 kHz, padded
        {"FFFD 64", false, 288},
        {"FFFF 94", false, 288},  // Layer I, 288 kbps, 48 kHz: 72 slots of 4 bytes
        {"FFFB 90", false, 0},    // Layer III refused...
        {"FFFB 90", true, 417},   // ...unless asked for: 128 kbps at 44.1 kHz
        {"FFFD 06", false, 0},    // free format
        {"FFFD 6C", false, 0},    // reserved rate
        {"FFFD F4", false, 0},    // bit rate index 15
    };
    for (const Mpeg1Case& c : mpeg1) EXPECT_EQ(es::mpeg1FrameSize(hex(c.header).data(), c.layer3), c.size) << c.header;
}

// ffmpeg's streams in buffers of three frames, each buffer with a time: the frame that opens a buffer takes it.
TEST(SyncFrameFraming, EveryFrameWithTheTimeOfTheBufferItOpens) {
    es::NALBuilderAC3Audio ac3;
    es::NALBuilderMPEG1Audio mp2, mp3Refused;
    es::NALBuilderMPEG1Audio mp3(true);
    const struct { const char* file; es::NALBuilder* builder; bool framed; } cases[] = {
        {"ac3_51_48k.ac3", &ac3, true},
        {"mp2_stereo_48k.mp2", &mp2, true},
        {"mp3_stereo_44k.mp3", &mp3, true},
        {"mp3_stereo_44k.mp3", &mp3Refused, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::vector<Bytes> frames = packetBytes(loadAudioFixture(c.file));
        NalCollector nals;
        c.builder->setListener(&nals);
        pushInThrees(*c.builder, frames, [](std::size_t i) { return static_cast<std::int64_t>(i) * 1000; });
        c.builder->flush();
        EXPECT_EQ(nals.ends, 1);
        ASSERT_EQ(nals.all(), c.framed ? frames : std::vector<Bytes>{});
        for (std::size_t i = 0; i < nals.nals.size(); ++i)
            EXPECT_EQ(nals.nals[i]->timing.time, i % 3 == 0 ? static_cast<std::int64_t>(i) * 1000 : 0) << i;
    }
}

TEST(SyncFrameFraming, FalseSyncsCostNothingAndACutFrameGoesOutAtTheEnd) {
    const std::vector<Bytes> frames = packetBytes(loadAudioFixture("ac3_51_48k.ac3"));
    // A false sync with a valid-looking header just ahead of the stream, whose 1536 bytes cover the first real
    // frame; and the last frame cut short.
    const Bytes cut(frames[2].begin(), frames[2].begin() + 100);
    const Bytes stream = cat({hex("0B77 0000 1C 40 E0 00"), frames[0], frames[1], cut});
    EXPECT_EQ(framedInPieces(es::StreamType::AC3_AUDIO, stream, 5, 64).all(),
              (std::vector<Bytes>{frames[0], frames[1], cut}));
}

}  // namespace
