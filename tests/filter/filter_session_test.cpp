// The filter driven as a host drives it: configure, connect, pause, push from streaming threads, stop, pause
// again, destroy; and what leaves the outputs compared with what the session's chunk builder writes.
#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "filter_helpers.h"
#include "tests/common/chunks.h"
#include "tests/common/loggers.h"

namespace {
using namespace filter_test;
namespace fmp4 = tvrn::encoding::packaging::imff::fmp4;
using testkit::Bytes;

// Chunks as a downstream sees them: consecutive samples of one kind and time form one chunk.
std::vector<testkit::WrittenChunk> joinChunks(const std::vector<RecordingSink::Received>& samples) {
    std::vector<testkit::WrittenChunk> chunks;
    for (const auto& s : samples) {
        if (chunks.empty() || s.sync != chunks.back().init || s.hasTime != chunks.back().hasTime ||
            s.start != chunks.back().time || s.sync) {
            // An init chunk is one buffer here: each is far below 8192 bytes.
            chunks.push_back({{}, s.sync, s.hasTime, s.start, s.discontinuity});
        }
        chunks.back().bytes.insert(chunks.back().bytes.end(), s.bytes.begin(), s.bytes.end());
    }
    return chunks;
}

// One buffer as a filter sample, with its presentation time and, for video, its decoding time.
void receive(MuxFmp4InputPin& pin, const std::uint8_t* bytes, std::size_t size, REFERENCE_TIME pts,
             std::optional<REFERENCE_TIME> dts = std::nullopt) {
    auto sample = COOBMediaSample::create(size);
    std::uint8_t* data = nullptr;
    sample->GetPointer(&data);
    std::memcpy(data, bytes, size);
    sample->SetTime(&pts, nullptr);
    if (dts) sample->SetMediaTime(&*dts, &*dts);
    ASSERT_EQ(pin.Receive(sample.get()), S_OK);
}

// The AAC fixture's frames with their times in 100 ns.
struct AudioInput {
    std::vector<testkit::Bytes> frames;
    std::vector<REFERENCE_TIME> times;
};
AudioInput loadAudio() {
    const auto fixture = testkit::loadAudioFixture("aac_lc_stereo_48k.adts");
    AudioInput input;
    input.frames = testkit::packetBytes(fixture);
    for (const auto& p : fixture.packets) input.times.push_back(p.pts * 10000000 / testkit::kProbeTimeBase);
    return input;
}

// Each input in order from a streaming thread, then its end of stream.
void pushFixture(MuxFmp4InputPin& pin, const testkit::Fixture& fixture) {
    std::size_t offset = 0;
    for (const testkit::Packet& p : fixture.packets) {
        receive(pin, fixture.bytes.data() + offset, p.size, testkit::es::from90kHz(p.pts), testkit::es::from90kHz(p.dts));
        offset += p.size;
    }
    pin.EndOfStream();
}
void pushAudio(MuxFmp4InputPin& pin, const AudioInput& audio) {
    for (std::size_t k = 0; k < audio.frames.size(); ++k)
        receive(pin, audio.frames[k].data(), audio.frames[k].size(), audio.times[k]);
    pin.EndOfStream();
}

fmp4::ElementaryStreamAttributes attributesOf(std::uint32_t type, std::int32_t bitrate) {
    fmp4::ElementaryStreamAttributes attributes;
    attributes.type = type;
    attributes.bitrate = bitrate;
    attributes.bandwidth = static_cast<std::uint32_t>(bitrate);
    attributes.name = "main";
    return attributes;
}

// The same input through a session of its own, as the reference of what the filter must deliver: the chunks of
// the video output, then those of the audio output.
std::vector<std::vector<testkit::WrittenChunk>> referenceChunks(const testkit::Fixture& video,
                                                                   const AudioInput& audio) {
    testkit::RecordingLogger logger;
    testkit::KeepingOutput videoOutput, audioOutput;
    fmp4::Fmp4Mux mux(fmp4::Dash, fmp4::Fmp4MuxConfig::fromMode(fmp4::GopSegments, 1000, 1, 0, 0), nullptr, logger,
                      false, false, false, false, true, fmp4::Fmp4MuxParts{});
    mux.AddStream(0, attributesOf(fmp4::H264_VIDEO, 1000000));
    mux.AddStream(1, attributesOf(fmp4::AAC_ADTS_AUDIO, 128000));
    mux.SetOutputs({fmp4::ChunkOutputSeed{"", {0}, &videoOutput, 1}, fmp4::ChunkOutputSeed{"", {1}, &audioOutput, 1}});
    for (const auto& buffer : testkit::fixtureBuffers(video, 0)) mux.ConsumeSample(0, buffer.get());
    for (std::size_t k = 0; k < audio.frames.size(); ++k) {
        auto buffer = fmp4::SimpleMediaData::create(audio.frames[k].data(), audio.frames[k].size());
        buffer->SetTime(&audio.times[k], nullptr);
        mux.ConsumeSample(1, buffer.get());
    }
    mux.ConsumeEndOfStream(0);
    mux.ConsumeEndOfStream(1);
    EXPECT_TRUE(videoOutput.waitForEnd());
    EXPECT_TRUE(audioOutput.waitForEnd());
    return {videoOutput.chunks(), audioOutput.chunks()};
}

TEST(FilterSession, ASessionPerPauseWithChunksEqualToTheChunkBuilders) {
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    const AudioInput audio = loadAudio();
    const auto expected = referenceChunks(video, audio);
    ASSERT_GT(expected[0].size(), 2u);
    ASSERT_GT(expected[1].size(), 2u);

    FilterHolder filter(CMuxFmp4Filter::Create());
    testkit::RecordingLogger logger;
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
    ASSERT_EQ(filter->ConfigureInputPin(1000000, "und", 0, "main", "", 0, 0, nullptr), S_OK);
    auto* videoPin = filter->inputPins().at(0);
    ASSERT_EQ(videoPin->ReceiveConnection(inputType(1)), S_OK);
    ASSERT_EQ(filter->ConfigureInputPin(128000, "und", 0, "main", "", 0, 0, nullptr), S_OK);
    auto* audioPin = filter->inputPins().at(1);
    ASSERT_EQ(audioPin->ReceiveConnection(inputType(8)), S_OK);
    RecordingSink videoSink, audioSink;
    ASSERT_EQ(filter->outputPins().at(0)->Connect(&videoSink), S_OK);
    ASSERT_EQ(filter->outputPins().at(1)->Connect(&audioSink), S_OK);

    for (int session = 1; session <= 2; ++session) {
        ASSERT_EQ(filter->Pause(), S_OK);
        ASSERT_EQ(filter->Run(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.filter, fmp4::Running));
        // Each input on a streaming thread of its own, as a graph delivers them.
        std::thread videoThread([&] { pushFixture(*videoPin, video); });
        std::thread audioThread([&] { pushAudio(*audioPin, audio); });
        videoThread.join();
        audioThread.join();
        ASSERT_TRUE(videoSink.waitForEnds(session) && audioSink.waitForEnds(session));
        ASSERT_EQ(filter->Stop(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.filter, fmp4::Idle));

        RecordingSink* sinks[] = {&videoSink, &audioSink};
        for (int o = 0; o < 2; ++o) {
            const auto got = joinChunks(sinks[o]->snapshot());
            const auto& want = expected[static_cast<std::size_t>(o)];
            // Each session sends its own init chunk first (sync point, no time), then the media chunks.
            ASSERT_EQ(got.size(), want.size() * static_cast<std::size_t>(session)) << "output " << o;
            const std::size_t base = want.size() * static_cast<std::size_t>(session - 1);
            for (std::size_t k = 0; k < want.size(); ++k) {
                EXPECT_EQ(got[base + k].init, want[k].init) << k;
                EXPECT_EQ(got[base + k].hasTime, want[k].hasTime) << k;
                EXPECT_EQ(got[base + k].time, want[k].time) << k;
                EXPECT_EQ(got[base + k].bytes, want[k].bytes)
                    << "chunk " << k << " of output " << o << " in session " << session;
            }
            EXPECT_TRUE(got[base].init);
            EXPECT_FALSE(got[base].hasTime);
        }
    }
    std::uint32_t delivered = 0;
    filter->GetStatus(&delivered, nullptr, 0);
    EXPECT_EQ(delivered, 2 * (expected[0].size() + expected[1].size()));
}
}  // namespace
