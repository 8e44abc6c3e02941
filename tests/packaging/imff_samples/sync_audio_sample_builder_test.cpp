// AC-3, E-AC-3, MPEG-1 audio and AC-4 through framing and sample building: one configuration sample first, then every
// frame whole, timed by counting frames from the one input time.
#include <gtest/gtest.h>

#include "packaging/imff_samples/sample_builder_audio.h"
#include "packaging/lib_parse_es/nal_builder.h"
#include "tests/common/bytes.h"
#include "tests/common/fixtures.h"
#include "tests/common/samples.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;

TEST(SyncAudioSamples, ConfigurationThenEveryFrameCountedFromTheInputTime) {
    struct Case {
        const char* file;
        std::uint32_t type;
        std::uint64_t timescale;
        std::int64_t duration;
        Bytes config;  // empty: the first frame
        bool iframes = false;  // AC-4: all frames but every fourth are I-frames (b_iframe_global)
    };
    const Case cases[] = {
        {"ac3_51_48k.ac3", es::StreamType::AC3_AUDIO, 48000, 1536, {}},
        {"eac3_stereo_44k.eac3", es::StreamType::AC3_AUDIO, 44100, 1536, {}},
        // 31, 107 - 32, 15, 48000 in 24 bits, 2 channels, 5 bits of padding.
        {"mp2_stereo_48k.mp2", es::StreamType::MPEG1_AUDIO, 48000, 1152, hex("F97E 0177 0040")},
        // Hand-made AC-4 (tests/data/make_audio_fixtures.sh): frame_rate_index 3 gives 8008 ticks of 240 kHz.
        {"ac4_handmade.ac4", es::StreamType::AC4_AUDIO, 240000, 8008, {}, true},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.file);
        const std::vector<Bytes> frames = packetBytes(loadAudioFixture(k.file));
        SampleChain chain(k.type);
        const SampleCollector& c = chain.collector;
        // All frames in one buffer whose time is 1 s: one second of ticks.
        chain.push(cat(frames), 90000);
        chain.builder->flush();

        ASSERT_FALSE(c.all.empty());
        EXPECT_EQ(c.all[0]->kind, samples::KindDecoderConfiguration);
        EXPECT_EQ(c.all[0]->inputType, k.type);
        EXPECT_EQ(bytesOf(*c.all[0]), k.config.empty() ? frames[0] : k.config);
        EXPECT_EQ(c.ofKind(samples::KindDecoderConfiguration).size(), 1u);
        const auto audio = c.ofKind(samples::KindAudio);
        ASSERT_EQ(audio.size(), frames.size());
        for (std::size_t i = 0; i < audio.size(); ++i) {
            EXPECT_EQ(bytesOf(*audio[i]), frames[i]) << i;
            EXPECT_EQ(audio[i]->timescale, k.timescale);
            EXPECT_EQ(audio[i]->duration, k.duration);
            EXPECT_EQ(audio[i]->sync, k.iframes && i % 4 != 3) << i;
            EXPECT_EQ(audio[i]->pts, static_cast<std::int64_t>(k.timescale) + static_cast<std::int64_t>(i) * k.duration);
        }
        EXPECT_EQ(c.ends, 1);
    }
}

}  // namespace
