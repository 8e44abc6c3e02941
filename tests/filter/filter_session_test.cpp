// The filter driven as a host drives it: configure, connect, pause, push from streaming threads, stop, pause
// again, destroy; and what leaves the outputs compared with what the session's chunk builder writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <optional>
#include <thread>

#include "filter_helpers.h"
#include "tests/common/chunks.h"
#include "tests/common/loggers.h"
#include "tests/common/process.h"

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
        const auto [type, bitrate] = streams[s];
        mux.AddStream(s, testkit::attributesOf(type, bitrate, static_cast<std::uint32_t>(bitrate), "main"));
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

// A filter in DASH, GOP segments of 1 s, with a pin per (bitrate, input type row) and a sink on each output.
struct Graph {
    explicit Graph(std::vector<std::pair<std::uint32_t, std::size_t>> pins, fmp4::Fmp4MuxParts parts = {},
                   std::optional<std::uint32_t> rating = {})
        : filter(CMuxFmp4Filter::Create(std::move(parts))), sinks(pins.size()) {
        filter->SetLogger(&logger);
        EXPECT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
        if (rating) {
            EXPECT_EQ(filter->SetDefaultParentalRating(*rating), S_OK);
        }
        for (std::size_t i = 0; i < pins.size(); ++i) {
            EXPECT_EQ(filter->ConfigureInputPin(pins[i].first, "und", 0, "main", "", 0, 0, nullptr), S_OK);
            EXPECT_EQ(filter->inputPins().at(i)->ReceiveConnection(inputType(pins[i].second)), S_OK);
        }
        for (std::size_t o = 0; o < pins.size(); ++o) EXPECT_EQ(filter->outputPins().at(o)->Connect(&sinks[o]), S_OK);
    }
    // Pauses and runs, then feeds each pin's units on a streaming thread of its own, as a graph delivers them;
    // pin `first`, when given, whole before the others.
    void run(const std::vector<const std::vector<Unit>*>& units, std::size_t first = SIZE_MAX) {
        ASSERT_EQ(filter->Pause(), S_OK);
        ASSERT_EQ(filter->Run(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Running));
        if (first < units.size()) push(*filter->inputPins().at(first), *units[first]);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < units.size(); ++i)
            if (i != first) threads.emplace_back([this, i, &units] { push(*filter->inputPins().at(i), *units[i]); });
        for (auto& t : threads) t.join();
    }
    // The chunks of output `o` once it has ended `ends` times.
    std::vector<testkit::WrittenChunk> chunks(std::size_t o, int ends = 1) {
        EXPECT_TRUE(sinks[o].waitForEnds(ends)) << o;
        return joinChunks(sinks[o].snapshot());
    }

    FilterHolder filter;
    testkit::RecordingLogger logger;
    std::vector<RecordingSink> sinks;
};

TEST(FilterSession, ASessionPerPauseWithChunksEqualToTheChunkBuilders) {
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    const testkit::AudioFixture audio = testkit::loadAudioFixture("aac_lc_stereo_48k.adts");
    const Inputs inputs = loadInputs(video, audio);
    const auto expected = referenceChunks(inputs);
    ASSERT_GT(expected[0].size(), 2u);
    ASSERT_GT(expected[1].size(), 2u);

    Graph graph({{1000000, 1}, {128000, 8}});
    for (int session = 1; session <= 2; ++session) {
        graph.run({&inputs[0], &inputs[1]});
        for (std::size_t o = 0; o < 2; ++o) {
            const auto got = graph.chunks(o, session);
            const auto& want = expected[o];
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
        ASSERT_TRUE(stopped(graph.filter.get()));
    }
    std::uint32_t delivered = 0;
    graph.filter->GetStatus(&delivered, nullptr, 0);
    EXPECT_EQ(delivered, 2 * (expected[0].size() + expected[1].size()));
}

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
        Graph g({{1000000, 1}, {128000, c.row}}, c.layer3 ? withMpeg1Layer3({}) : fmp4::Fmp4MuxParts{});
        g.run({&inputs[0], &inputs[1]});
        for (std::size_t o = 0; o < 2; ++o) {
            const auto chunks = g.chunks(o);
            ASSERT_GE(chunks.size(), 2u);
            EXPECT_TRUE(chunks.front().init);
        }
        ASSERT_EQ(g.filter->Stop(), S_OK);
    }
}

// H.264, AAC and SCTE-35 ad markers, with a default parental rating. Before SCTE-35 had a sample builder, its
// registered stream never delivered and held every media chunk back: the video output got its init chunk only.
// Now every output writes its chunks to the end: the video and audio outputs as many as without the markers, the
// markers' output one per segment. Its init chunk has no track. Each video segment opens with the rating's emsg box, and ffmpeg decodes every picture of the file.
TEST(FilterSession, AdMarkersBesideH264AndAacLetEveryOutputWriteToTheEnd) {
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    const testkit::AudioFixture audio = testkit::loadAudioFixture("aac_lc_stereo_48k.adts");
    const Inputs inputs = loadInputs(video, audio);
    const auto expected = referenceChunks(inputs);
    // A time_signal() splice_info_section (ANSI/SCTE 35): table 0xFC, section_length 22, pts_adjustment 0,
    // cw_index 0xFF, tier 0xFFF, command length 5, type 6 with pts_time 900000, no descriptors, CRC; behind the
    // 8-byte 90 kHz clock. One every 400 ms over the video's time.
    const Bytes message = testkit::hex("0000000000000000 FC3016 00 0000000000 FF FFF005 06 FE000DBBA0 0000 00000000");
    std::vector<Unit> markers;
    for (REFERENCE_TIME t = inputs[0].front().pts; t < inputs[0].back().pts; t += 4000000)
        markers.push_back({message.data(), message.size(), t, std::nullopt});

    // The markers end first, so that the last segment flushes all three streams at once (a stream still open
    // after the others would get a segment of its own, empty for them).
    Graph g({{1000000, 1}, {128000, 8}, {1000, 11}}, {}, 12);
    g.run({&inputs[0], &inputs[1], &markers}, 2);
    std::vector<testkit::WrittenChunk> chunks[3];
    for (std::size_t o = 0; o < 3; ++o) {
        chunks[o] = g.chunks(o);
        ASSERT_FALSE(chunks[o].empty());
        EXPECT_TRUE(chunks[o].front().init);
    }
    ASSERT_EQ(g.filter->Stop(), S_OK);
    EXPECT_EQ(chunks[0].size(), expected[0].size());
    EXPECT_EQ(chunks[1].size(), expected[1].size());
    EXPECT_EQ(chunks[2].size(), chunks[0].size());

    // The markers' init chunk: a movie without track; each media chunk has a fragment of their track, 3.
    const auto movie = fmp4::moviePart(chunks[2].front().bytes);
    EXPECT_EQ(std::search(movie.begin(), movie.end(), "trak", "trak" + 4), movie.end());
    for (std::size_t k = 1; k < chunks[2].size(); ++k) {
        const auto tfhd = fmp4::findBox(chunks[2][k].bytes, "moof/traf/tfhd");
        EXPECT_TRUE(tfhd && testkit::u32In(chunks[2][k].bytes, *tfhd, 4) == 3u) << k;
    }
    const std::string init(chunks[0].front().bytes.begin(), chunks[0].front().bytes.end());
    EXPECT_NE(init.find("<Rating schemeIdUri=\"urn:dvb::iptv:cpm:2014\" value=\"1\"/>"), std::string::npos);
    for (std::size_t k = 1; k < chunks[0].size(); ++k) {
        const std::string order = testkit::typesIn(chunks[0][k].bytes);
        EXPECT_NE(order.find("styp emsg sidx moof mdat"), std::string::npos) << k << ": " << order;
    }
    testkit::TempDir dir;
    testkit::writeFile(dir.file("video.mp4"), testkit::playableFile(chunks[0]));
    int status = -1;
    const auto lines = testkit::lines(testkit::run("ffmpeg -v error -nostdin -xerror -i " + dir.file("video.mp4") +
                                                   " -map 0:v:0 -f framemd5 - 2>&1", &status));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l[0] != '#'; }),
              static_cast<std::ptrdiff_t>(video.packets.size()));
}
}  // namespace
