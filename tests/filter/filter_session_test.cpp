// The filter driven as a host drives it: configure, connect, pause, push from streaming threads, stop, pause
// again, destroy; and what leaves the outputs compared with what the session's chunk builder writes.
#include <gtest/gtest.h>

#include <thread>

#include "filter_helpers.h"
#include "tests/packaging/fmp4/chunk_test_support.h"

namespace {
using namespace filter_test;
namespace fmp4 = tvrn::encoding::packaging::imff::fmp4;
using chunk_test::Bytes;

template <typename P>
bool eventually(P predicate) {
    for (int i = 0; i < 30000 && !predicate(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return predicate();
}

// Chunks as a downstream sees them: consecutive samples of one kind and time form one chunk.
std::vector<chunk_test::WrittenChunk> joinChunks(const std::vector<RecordingSink::Received>& samples) {
    std::vector<chunk_test::WrittenChunk> chunks;
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

// One input: the fixture's packets as filter samples, pushed in order from a streaming thread.
void pushFixture(MuxFmp4InputPin& pin, const es_test::Fixture& fixture) {
    std::size_t offset = 0;
    for (const es_test::Packet& p : fixture.packets) {
        auto sample = COOBMediaSample::create(p.size);
        std::uint8_t* data = nullptr;
        sample->GetPointer(&data);
        std::memcpy(data, fixture.bytes.data() + offset, p.size);
        offset += p.size;
        const REFERENCE_TIME pts = es_test::es::from90kHz(p.pts);
        const REFERENCE_TIME dts = es_test::es::from90kHz(p.dts);
        sample->SetTime(&pts, nullptr);
        sample->SetMediaTime(&dts, &dts);
        ASSERT_EQ(pin.Receive(sample.get()), S_OK);
    }
    pin.EndOfStream();
}

// The same input through a session of its own, as the reference of what the filter must deliver.
std::vector<chunk_test::WrittenChunk> referenceChunks(const es_test::Fixture& fixture) {
    chunk_test::SilentLogger logger;
    chunk_test::KeepingOutput output;
    fmp4::Fmp4Mux mux(fmp4::Dash, fmp4::Fmp4MuxConfig::fromMode(fmp4::GopSegments, 1000, 1, 0, 0), nullptr, logger,
                      false, false, false, false, true, fmp4::Fmp4MuxParts{});
    fmp4::ElementaryStreamAttributes attributes;
    attributes.type = fmp4::H264_VIDEO;
    attributes.bitrate = 1000000;
    attributes.bandwidth = 1000000;
    attributes.name = "main";
    mux.AddStream(0, attributes);
    mux.SetOutputs({fmp4::ChunkOutputSeed{"", {0}, &output, 1}});
    for (const auto& buffer : chunk_test::fixtureBuffers(fixture, 0)) mux.ConsumeSample(0, buffer.get());
    mux.ConsumeEndOfStream(0);
    EXPECT_TRUE(output.waitForEnd());
    return output.chunks();
}

TEST(FilterSession, ASessionPerPauseWithChunksEqualToTheChunkBuilders) {
    const es_test::Fixture video = es_test::loadFixture("h264_plain");
    const auto expected = referenceChunks(video);
    ASSERT_GT(expected.size(), 2u);

    FilterHolder filter(CMuxFmp4Filter::Create());
    chunk_test::SilentLogger logger;
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
    ASSERT_EQ(filter->ConfigureInputPin(1000000, "und", 0, "main", "", 0, 0, nullptr), S_OK);
    auto* pin = filter->inputPins().at(0);
    ASSERT_EQ(pin->ReceiveConnection(inputType(1)), S_OK);
    RecordingSink sink;
    ASSERT_EQ(filter->outputPins().at(0)->Connect(&sink), S_OK);

    for (int session = 1; session <= 2; ++session) {
        ASSERT_EQ(filter->Pause(), S_OK);
        ASSERT_EQ(filter->Run(), S_OK);
        ASSERT_TRUE(eventually([&] { return filter->workerState() == fmp4::Running; }));
        std::thread streaming([&] { pushFixture(*pin, video); });
        streaming.join();
        ASSERT_TRUE(eventually([&] { return sink.endCount() == session; }));
        ASSERT_EQ(filter->Stop(), S_OK);
        ASSERT_TRUE(eventually([&] { return filter->workerState() == fmp4::Idle; }));

        const auto got = joinChunks(sink.snapshot());
        // Each session sends its own init chunk first: sync point, no time; then the media chunks.
        ASSERT_EQ(got.size(), expected.size() * static_cast<std::size_t>(session));
        const std::size_t base = expected.size() * static_cast<std::size_t>(session - 1);
        for (std::size_t k = 0; k < expected.size(); ++k) {
            EXPECT_EQ(got[base + k].init, expected[k].init) << k;
            EXPECT_EQ(got[base + k].hasTime, expected[k].hasTime) << k;
            EXPECT_EQ(got[base + k].time, expected[k].time) << k;
            EXPECT_EQ(got[base + k].bytes, expected[k].bytes) << "chunk " << k << " of session " << session;
        }
        EXPECT_TRUE(got[base].init);
        EXPECT_FALSE(got[base].hasTime);
    }
    std::uint32_t delivered = 0;
    filter->GetStatus(&delivered, nullptr, 0);
    EXPECT_EQ(delivered, 2 * expected.size());
}
}  // namespace
