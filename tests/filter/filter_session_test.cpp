// The filter driven as a host drives it: configure, connect, pause, push from streaming threads, stop, pause
// again, destroy; and what leaves the outputs compared with what the session's chunk builder writes.
#include <gtest/gtest.h>

#include <array>
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

// The same inputs through a session of its own, as the reference of what the filter must deliver: the chunks of
// the video output, then those of the audio output.
std::vector<std::vector<testkit::WrittenChunk>> referenceChunks(const Inputs& inputs) {
    testkit::RecordingLogger logger;
    testkit::KeepingOutput outputs[2];
    fmp4::Fmp4Mux mux(fmp4::Dash, fmp4::Fmp4MuxConfig::fromMode(fmp4::GopSegments, 1000, 1, 0, 0), nullptr, logger,
                      false, false, false, false, true, fmp4::Fmp4MuxParts{});
    const std::pair<std::uint32_t, std::int32_t> streams[] = {{fmp4::H264_VIDEO, 1000000}, {fmp4::AAC_ADTS_AUDIO, 128000}};
    for (std::uint32_t s = 0; s < 2; ++s) {
        fmp4::ElementaryStreamAttributes attributes;
        std::tie(attributes.type, attributes.bitrate) = streams[s];
        attributes.bandwidth = static_cast<std::uint32_t>(attributes.bitrate);
        attributes.name = "main";
        mux.AddStream(s, attributes);
    }
    mux.SetOutputs({fmp4::ChunkOutputSeed{"", {0}, &outputs[0], 1}, fmp4::ChunkOutputSeed{"", {1}, &outputs[1], 1}});
    for (std::uint32_t s = 0; s < 2; ++s) {
        for (const Unit& u : inputs[s]) {
            auto buffer = fmp4::SimpleMediaData::create(u.bytes, u.size);
            buffer->SetTime(&u.pts, nullptr);
            if (u.dts) buffer->SetMediaTime(&*u.dts, nullptr);
            mux.ConsumeSample(s, buffer.get());
        }
    }
    mux.ConsumeEndOfStream(0);
    mux.ConsumeEndOfStream(1);
    EXPECT_TRUE(outputs[0].waitForEnd() && outputs[1].waitForEnd());
    return {outputs[0].chunks(), outputs[1].chunks()};
}

TEST(FilterSession, ASessionPerPauseWithChunksEqualToTheChunkBuilders) {
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    const testkit::AudioFixture audio = testkit::loadAudioFixture("aac_lc_stereo_48k.adts");
    const Inputs inputs = loadInputs(video, audio);
    const auto expected = referenceChunks(inputs);
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
        ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Running));
        // Each input on a streaming thread of its own, as a graph delivers them.
        std::thread videoThread([&] { push(*videoPin, inputs[0]); });
        std::thread audioThread([&] { push(*audioPin, inputs[1]); });
        videoThread.join();
        audioThread.join();
        ASSERT_TRUE(videoSink.waitForEnds(session) && audioSink.waitForEnds(session));
        ASSERT_EQ(filter->Stop(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Idle));

        RecordingSink* sinks[] = {&videoSink, &audioSink};
        for (int o = 0; o < 2; ++o) {
            const auto got = joinChunks(sinks[o]->snapshot());
            const auto& want = expected[static_cast<std::size_t>(o)];
            // Each session sends its own init chunk first (sync point, no time), then the media chunks.
            ASSERT_EQ(got.size(), want.size() * static_cast<std::size_t>(session)) << "output " << o;
            const std::size_t base = want.size() * static_cast<std::size_t>(session - 1);
            for (std::size_t k = 0; k < want.size(); ++k) {
                const testkit::WrittenChunk& g = got[base + k];
                EXPECT_EQ(std::tie(g.init, g.hasTime, g.time), std::tie(want[k].init, want[k].hasTime, want[k].time)) << k;
                EXPECT_EQ(g.bytes, want[k].bytes) << "chunk " << k << " of output " << o << " in session " << session;
            }
            EXPECT_TRUE(got[base].init);
        }
    }
    std::uint32_t delivered = 0;
    filter->GetStatus(&delivered, nullptr, 0);
    EXPECT_EQ(delivered, 2 * (expected[0].size() + expected[1].size()));
}
}  // namespace

namespace {
// H.264 with each sync-frame audio format (AC-4 made by hand): both outputs get an init chunk and media chunks, and end. Before these
// formats had builders, such a session made no chunk at all and never ended.
TEST(FilterSession, H264WithEachSyncFrameAudioWritesBothOutputsToTheEnd) {
    const struct { const char* file; std::size_t row; bool layer3; } cases[] = {
        {"ac3_51_48k.ac3", 4, false},
        {"eac3_stereo_44k.eac3", 5, false},
        {"mp2_stereo_48k.mp2", 9, false},
        {"mp3_stereo_44k.mp3", 10, true},
        {"ac4_handmade.ac4", 6, false},
    };
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const testkit::AudioFixture audio = testkit::loadAudioFixture(c.file);
        Inputs inputs = loadInputs(video, audio);
        // AC-4 cuts as video does, on random access points common with the video's: its first I-frame is timed
        // at the video's first key frame (80 ms), as an encoder that aligns the two would.
        if (c.row == 6)
            for (Unit& u : inputs[1]) u.pts += 800000;
        FilterHolder filter(CMuxFmp4Filter::Create(c.layer3 ? withMpeg1Layer3({}) : fmp4::Fmp4MuxParts{}));
        testkit::RecordingLogger logger;
        filter->SetLogger(&logger);
        ASSERT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
        ASSERT_EQ(filter->ConfigureInputPin(1000000, "und", 0, "main", "", 0, 0, nullptr), S_OK);
        ASSERT_EQ(filter->inputPins().at(0)->ReceiveConnection(inputType(1)), S_OK);
        ASSERT_EQ(filter->ConfigureInputPin(128000, "und", 0, "main", "", 0, 0, nullptr), S_OK);
        ASSERT_EQ(filter->inputPins().at(1)->ReceiveConnection(inputType(c.row)), S_OK);
        RecordingSink sinks[2];
        for (std::size_t o = 0; o < 2; ++o) ASSERT_EQ(filter->outputPins().at(o)->Connect(&sinks[o]), S_OK);
        ASSERT_EQ(filter->Pause(), S_OK);
        ASSERT_EQ(filter->Run(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Running));
        std::thread videoThread([&] { push(*filter->inputPins().at(0), inputs[0]); });
        std::thread audioThread([&] { push(*filter->inputPins().at(1), inputs[1]); });
        videoThread.join();
        audioThread.join();
        for (auto& sink : sinks) {
            ASSERT_TRUE(sink.waitForEnds(1));
            const auto chunks = joinChunks(sink.snapshot());
            ASSERT_GE(chunks.size(), 2u);
            EXPECT_TRUE(chunks.front().init);
        }
        ASSERT_EQ(filter->Stop(), S_OK);
    }
}
}  // namespace
