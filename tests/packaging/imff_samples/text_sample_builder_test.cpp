// Timed text from buffers to samples: WebVTT cue boxes against bytes worked out by hand from ISO/IEC 14496-30
// (size, type, then the text and a zero byte, or for players the boxstring without it), items cut at sync buffers, and the SRT track's
// gap samples.
#include <gtest/gtest.h>

#include <string>

#include "packaging/imff_samples/sample_builder_text.h"
#include "tests/common/fixtures.h"
#include "tests/common/samples.h"

namespace {
using namespace testkit;

TEST(WebVttCueBoxes, MatchTheStandardsLayout) {
    const struct { const char* item; bool forPlayers; Bytes boxes; } cases[] = {
        // A gap: "vtte", header only.
        {"", false, {0, 0, 0, 8, 'v', 't', 't', 'e'}},
        // No settings: "vttc" holding only "payl" with "Hi" and its zero byte; for players, without it.
        {"\nHi", false, {0, 0, 0, 19, 'v', 't', 't', 'c', 0, 0, 0, 11, 'p', 'a', 'y', 'l', 'H', 'i', 0}},
        {"\nHi", true, {0, 0, 0, 18, 'v', 't', 't', 'c', 0, 0, 0, 10, 'p', 'a', 'y', 'l', 'H', 'i'}},
        // Settings, then the payload last; the text keeps its inner line feed.
        {"line:0\nA\nB", true,
         {0, 0, 0, 33, 'v', 't', 't', 'c', 0, 0, 0, 14, 's', 't', 't', 'g', 'l', 'i', 'n', 'e', ':', '0',
          0, 0, 0, 11, 'p', 'a', 'y', 'l', 'A', '\n', 'B'}},
        // Settings and no text: a "payl" of its zero byte alone.
        {"align:start", false,
         {0, 0, 0, 37, 'v', 't', 't', 'c', 0, 0, 0, 20, 's', 't', 't', 'g', 'a', 'l', 'i', 'g', 'n', ':',
          's', 't', 'a', 'r', 't', 0, 0, 0, 0, 9, 'p', 'a', 'y', 'l', 0}},
    };
    for (const auto& c : cases) EXPECT_EQ(samples::webVttCueBoxes(c.item, !c.forPlayers), c.boxes) << c.item;
}

// Buffers of (text, time in 100 ns, stop or -1, sync); the builders of `type` with their sample builder.
struct Buffer {
    std::string text;
    std::int64_t start;
    std::int64_t stop;
    bool sync;
};

SampleCollector run(std::uint32_t type, const std::vector<Buffer>& buffers) {
    SampleChain chain(type);
    for (const Buffer& b : buffers) {
        auto buffer = makeBuffer(reinterpret_cast<const std::uint8_t*>(b.text.data()), b.text.size());
        buffer->SetTime(&b.start, b.stop >= 0 ? &b.stop : nullptr);
        buffer->SetSyncPoint(b.sync);
        chain.builder->push(buffer.get());
    }
    chain.builder->flush();
    return std::move(chain.collector);
}

TEST(TextSampleBuilders, WebVttItemsAreCutAtSyncBuffersAndAnEmptyItemIsAGap) {
    // One cue in two buffers, a gap item, a cue without a stop time (dropped).
    const SampleCollector c = run(es::StreamType::WEBVTT, {{"\nHel", 10000000, 30000000, true},
                                                          {"lo", 0, -1, false},
                                                          {"", 30000000, 50000000, true},
                                                          {"\nNo end", 50000000, -1, true}});
    ASSERT_EQ(c.all.size(), 2u);
    EXPECT_EQ(c.all[0]->pts, 10000000);
    EXPECT_EQ(c.all[0]->duration, 20000000);
    EXPECT_EQ(c.all[0]->timescale, 10000000u);
    EXPECT_EQ(c.all[0]->kind, samples::KindTimedText);
    EXPECT_EQ(bytesOf(*c.all[0]), samples::webVttCueBoxes("\nHello"));
    EXPECT_EQ(c.all[1]->pts, 30000000);
    EXPECT_EQ(bytesOf(*c.all[1]), samples::webVttCueBoxes(""));
    EXPECT_EQ(c.ends, 1);
}

TEST(TextSampleBuilders, TtmlDocumentsKeepTheirBytesAt90kHz) {
    const SampleCollector c =
        run(es::StreamType::TTML, {{"<tt/>", 10000000, 20000000, true}, {"<tt>", 20000000, -1, true}});
    ASSERT_EQ(c.all.size(), 2u);
    EXPECT_EQ(c.all[0]->pts, 90000);
    EXPECT_TRUE(c.all[0]->hasDuration);
    EXPECT_EQ(c.all[0]->duration, 90000);
    EXPECT_FALSE(c.all[1]->hasDuration);
    EXPECT_EQ(c.all[1]->getSize(), 4u);
}

TEST(TextSampleBuilders, SrtCuesGetGapSamplesBetweenThemAndAClosingOne) {
    const SampleCollector c = run(es::StreamType::SRT, {{"A", 10, 20, true}, {"Bc", 20, 50, true}});
    // The generic accumulating builder carries start times only, so each cue ends where it starts: cue A, the gap
    // from A's end to B, cue B, and the closing gap of one tick at B's end.
    ASSERT_EQ(c.all.size(), 4u);
    const std::vector<std::pair<std::int64_t, std::int64_t>> times = {{10, 0}, {10, 10}, {20, 0}, {20, 1}};
    const std::vector<Bytes> payloads = {{0, 1, 'A'}, {0, 0}, {0, 2, 'B', 'c'}, {0, 0}};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(std::make_pair(c.all[i]->pts, c.all[i]->duration), times[i]) << i;
        EXPECT_EQ(bytesOf(*c.all[i]), payloads[i]) << i;
        EXPECT_EQ(c.all[i]->inputType, std::uint32_t{es::StreamType::TX3G});
    }
}

}  // namespace
