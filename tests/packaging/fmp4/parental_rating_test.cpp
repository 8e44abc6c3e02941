// Parental rating events: an event block laid out by hand (EN 300 468 start time and duration, two rating pairs,
// one a region code), its log text and BroadcastEvent document, the emsg bytes and their place in a DASH chunk,
// and the map's rules over successive segments.
#include <gtest/gtest.h>

#include <cstring>

#include "packaging/fmp4/chunks/chunk_serializer.h"
#include "packaging/fmp4/chunks/chunks_builder.h"
#include "packaging/fmp4/chunks/parental_rating.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "tests/common/chunks.h"
#include "tests/common/loggers.h"

namespace {
using namespace testkit;

struct BlockEvent {
    std::int64_t id;
    std::uint64_t start, duration;
    std::vector<std::pair<std::uint32_t, std::uint8_t>> pairs;  // country, rating byte
};

template <typename T>
void put(ParentalRatingEventBlock& block, std::size_t at, T value) {
    std::memcpy(block.bytes + at, &value, sizeof value);
}

// The block as the demultiplexer writes it (host byte order): UTC seconds at 0, 90 kHz time at 8, count at 16,
// 160-byte events from 24: id, start, duration, pair count at 24, pair j's country at 28 + 8j, rating at 32 + 8j.
ParentalRatingEventBlock blockOf(std::int64_t utcSeconds, std::int64_t time90k, std::int64_t count,
                                 const std::vector<BlockEvent>& events) {
    ParentalRatingEventBlock block;
    put(block, 0, utcSeconds);
    put(block, 8, time90k);
    put(block, 16, count);
    for (std::size_t i = 0; i < events.size(); ++i) {
        const std::size_t at = 24 + 160 * i;
        put(block, at, events[i].id);
        put(block, at + 8, events[i].start);
        put(block, at + 16, events[i].duration);
        put(block, at + 24, static_cast<std::uint32_t>(events[i].pairs.size()));
        for (std::size_t j = 0; j < events[i].pairs.size(); ++j) {
            put(block, at + 28 + 8 * j, events[i].pairs[j].first);
            put(block, at + 32 + 8 * j, events[i].pairs[j].second);
        }
    }
    return block;
}

// 2024-03-15 12:30:00 UTC: 19797 days after 1970-01-01 (54 years with 13 leap days, then 31 + 29 + 14 days), so
// MJD 40587 + 19797 = 60384 = 0xEBE0, then BCD 12 30 00. In seconds since 1970: 19797 x 86400 + 45000.
constexpr std::uint64_t kStart = 0xEBE0123000;
constexpr std::int64_t kStartSeconds = 1710505800;
constexpr std::uint32_t kGbr = 4670034;  // 'G' 'B' 'R' = 0x47 0x42 0x52
// Event 42 of one minute, "GBR" rating byte 9 (age 12) and region 905 ("europe") with a private rating byte 16.
const BlockEvent kEvent{42, kStart, 0x000100, {{kGbr, 9}, {905, 16}}};
const std::string kEventText =
    "EventId=0042, date='2024-03-15 12h30m00s', duration='00h01m00s', ratings=(GBR - 12), (europe - private value = 16)";
const std::string kDocument =
    "<BroadcastEvent><InstanceDescription>"
    "<ParentalGuidance><mpeg7:ParentalRating href=\"urn:dvb:iptv:rating:2014:12\"/><mpeg7:Region>GBR</mpeg7:Region>"
    "</ParentalGuidance>"
    "<ParentalGuidance><mpeg7:ParentalRating href=\"urn:dvb:iptv:rating:2014:16\"/><mpeg7:Region>europe</mpeg7:Region>"
    "</ParentalGuidance>"
    "</InstanceDescription></BroadcastEvent>";

TEST(ParentalRating, BlockTimeRoundsTheNinthsUp) {
    // t / 90000 whole seconds, then 111 units a tick plus the ninths of the remainder: 1 tick is 111.1 units.
    const std::pair<std::int64_t, std::int64_t> cases[] = {{90000, 10000000}, {1, 111}, {9, 1000}, {45000, 5000000}, {900001, 100000111}};
    for (const auto& [ticks, units] : cases) EXPECT_EQ(blockTimeTo100ns(ticks), units) << ticks;
}

// The block is dated 10 s before the event, at 10 s of stream time: the event starts at 20 s (200000000) and ends at
// 80 s. At 30 s it is active, 10 s behind and 50 s ahead.
TEST(ParentalRating, EventTextAndDocumentWorkedOutByHand) {
    const ParentalRatingEventBlock block = blockOf(kStartSeconds - 10, 900000, 1, {kEvent});
    ParentalRatings ratings;
    ratings.update({&block}, 0);
    ASSERT_EQ(ratings.entries().size(), 1u);
    EXPECT_EQ(ratings.entries().at(42).start, 200000000);
    EXPECT_EQ(ratingEventText(ratings.entries().at(42).event), kEventText);
    RecordingLogger logger;
    const auto messages = ratings.messagesAt(300000000, 7, logger);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].document, kDocument);
    EXPECT_EQ(std::tie(messages[0].id, messages[0].durationMs), std::make_tuple(42u, 50000u));
    EXPECT_EQ(logger.lines(),
              std::vector<std::string>{"2 segment 7: Parental Rating restriction(s): [@t = -10000ms to 50000ms, " + kEventText + "]"});
}

// Each event is an emsg between styp and sidx, in the events' order.
TEST(ParentalRating, EmsgBytesBetweenStypAndSidx) {
    auto sample = std::shared_ptr<samples::Sample>(timedSample(0, samples::KindVideo, H264_VIDEO, 0, 0, 3600, {1}));
    sample->sync = true;
    StreamChunk chunk;
    chunk.samples = {std::make_shared<Fmp4Sample>(sample)};
    chunk.duration = 400000;
    ChunkSerialisationParameters p;
    p.tracks = {{1, ChunkVideo, &chunk}};
    p.events = {{42, 50000, "<x/>"}, {7, 0xFFFFFFFF, "<y/>"}};
    const ChunkBytes bytes = serialiseChunk(p);
    const Bytes chunkBytes(bytes.data.get(), bytes.data.get() + bytes.size);
    std::vector<std::string> order;
    for (const BoxView& box : boxesIn(chunkBytes)) order.push_back(box.type);
    EXPECT_EQ(order, (std::vector<std::string>{"styp", "emsg", "emsg", "sidx", "moof", "mdat", "teoc"}));
    const BoxView emsg = boxesIn(chunkBytes)[1];
    // Full box v0: scheme and value each ended by a zero byte, timescale 1000, presentation time delta 0, duration
    // 50000 ms, id 42, then the message; 12 + 22 + 2 + 16 + 4 = 56 bytes.
    EXPECT_EQ(Bytes(chunkBytes.begin() + static_cast<std::ptrdiff_t>(emsg.offset),
                    chunkBytes.begin() + static_cast<std::ptrdiff_t>(emsg.end)),
              hex("00000038 'emsg' 00000000 'urn:dvb:iptv:cpm:2014' 00 '1' 00 000003E8 00000000 0000C350 0000002A '<x/>'"));
}

// One-second H.264 chunks at 0, 1 and 2 s, each a segment; each sample may carry a block. What each chunk's emsg
// boxes say (their ids) and what is logged.
struct MapCase {
    const char* name;
    std::optional<std::uint32_t> defaultAge;
    std::vector<std::vector<ParentalRatingEventBlock>> blocks;  // per chunk, one per sample
    std::vector<std::vector<std::uint32_t>> ids;                // per chunk
    std::vector<std::string> logs;                              // the start of each log line
};

std::vector<std::uint32_t> emsgIds(const Bytes& chunk) {
    std::vector<std::uint32_t> ids;
    for (const BoxView& box : boxesIn(chunk))
        if (box.type == "emsg") ids.push_back(be32(chunk.data() + box.contentStart + 4 + 22 + 2 + 12));
    return ids;
}

TEST(ParentalRating, MapOverSegments) {
    // Starts 0.5 s into the first chunk (block at 45000 ticks), lasts 1 s: active only at the second chunk's start.
    const auto inside = blockOf(kStartSeconds, 45000, 1, {{42, kStart, 0x000001, {{kGbr, 9}}}});
    const auto from0 = [](std::int64_t id) { return blockOf(kStartSeconds, 0, 1, {{id, kStart, 0x010000, {{kGbr, 9}}}}); };
    const MapCase cases[] = {
        {"an entry ending inside a chunk is active by the chunk's start only", {}, {{inside}, {}, {}}, {{}, {42}, {}},
         {"segment 2: Parental Rating restriction(s): [@t = -500ms to 500ms, EventId=0042"}},
        {"a count of 33 ends the update", {}, {{from0(42), blockOf(kStartSeconds, 0, 33, {}), from0(43)}, {}, {}},
         {{42}, {42}, {42}},
         {"segment 1: Parental Rating restriction(s): [@t = 0ms to 3600000ms, EventId=0042",
          "segment 2: Parental Rating restriction(s): [@t = -1000ms", "segment 3: Parental Rating restriction(s): [@t = -2000ms"}},
        {"the default event on every segment, logged once", 12, {{}, {}, {}}, {{0}, {0}, {0}},
         {"segment 1: Default Parental Rating restriction: (all countries - 12)"}},
        {"the default again once the entry is over", 12, {{inside}, {}, {}}, {{0}, {42}, {0}},
         {"segment 1: Default", "segment 2: Parental", "segment 3: Default"}},
    };
    for (const MapCase& c : cases) {
        SCOPED_TRACE(c.name);
        RecordingLogger logger;
        Fmp4MuxConfig config = Fmp4MuxConfig::fromMode(GopSegments, 1000, 1, 0, 0);
        ChunksBuilder builder(ChunksBuilderParams{Dash, &config, false, &logger});
        ElementaryStreamAttributes video;
        video.type = H264_VIDEO;
        builder.AddStream(0, 1, video);
        KeepingOutput output;
        builder.SetOutputs({{"", {0}, &output, 1}}, false, false, false);
        if (c.defaultAge) builder.SetDefaultParentalRating(*c.defaultAge);
        builder.OnFirstSegments({{{0, std::make_shared<StreamChunk>()}}, 1}, 1000, 1000, 1000);
        for (std::size_t k = 0; k < c.blocks.size(); ++k) {
            auto chunk = std::make_shared<StreamChunk>();
            chunk->duration = 10000000;
            const std::int64_t t = static_cast<std::int64_t>(k) * 90000;
            for (std::size_t i = 0; i <= c.blocks[k].size(); ++i) {
                auto sample = std::shared_ptr<samples::Sample>(
                    timedSample(0, samples::KindVideo, H264_VIDEO, t + static_cast<std::int64_t>(i), t, 1, {1}));
                if (i < c.blocks[k].size()) {
                    sample->hasParentalRating = true;
                    sample->parentalRating = std::make_unique<ParentalRatingEventBlock>(c.blocks[k][i]);
                }
                chunk->samples.push_back(std::make_shared<Fmp4Sample>(sample));
            }
            builder.OnChunks({{{0, chunk}}, 1}, true);
        }
        const auto media = output.media();
        ASSERT_EQ(media.size(), c.ids.size());
        for (std::size_t k = 0; k < media.size(); ++k) EXPECT_EQ(emsgIds(media[k].bytes), c.ids[k]) << "chunk " << k;
        std::vector<std::string> logs;
        for (const auto& e : logger.entries())
            if (e.level == tvrn::log::LOG_INFO) logs.push_back(e.text);
        ASSERT_EQ(logs.size(), c.logs.size());
        for (std::size_t i = 0; i < logs.size(); ++i) EXPECT_EQ(logs[i].rfind(c.logs[i], 0), 0u) << logs[i];
    }
}

}  // namespace
