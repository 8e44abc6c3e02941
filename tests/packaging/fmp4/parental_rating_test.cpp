// Parental rating events: an event block laid out by hand (EN 300 468 start time and duration, two rating pairs,
// one a region code), its log text, BroadcastEvent document and emsg bytes, and the map's rules over segments.
#include <gtest/gtest.h>

#include <cstring>

#include "packaging/fmp4/chunks/chunk_serializer.h"
#include "packaging/fmp4/chunks/parental_rating.h"
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
void put(ParentalRatingEventBlock& block, std::size_t at, T value) { std::memcpy(block.bytes + at, &value, sizeof value); }

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

// The block is dated 10 s before the event, at 10 s (900001 ticks: 111 units for the odd tick) of stream time: the
// event runs from 20 s to 80 s. At 30 s it is active, 10 s behind and 50 s ahead. Its message goes into an emsg
// box: full box v0, scheme and value each ended by a zero byte, timescale 1000, presentation time delta 0, 50000 ms,
// id 42, then the document; 12 + 22 + 2 + 16 + 333 = 385 bytes.
TEST(ParentalRating, EventTextDocumentAndEmsgWorkedOutByHand) {
    const ParentalRatingEventBlock block = blockOf(kStartSeconds - 10, 900001, 1, {kEvent});
    ParentalRatings ratings;
    ratings.update({&block}, 0);
    ASSERT_EQ(ratings.entries().size(), 1u);
    EXPECT_EQ(ratings.entries().at(42).start, 200000111);
    RecordingLogger logger;
    ChunkSerialisationParameters p;
    p.events = ratings.messagesAt(300000000, 7, logger);
    EXPECT_EQ(logger.lines(),
              std::vector<std::string>{"2 segment 7: Parental Rating restriction(s): [@t = -9999ms to 50000ms, " + kEventText + "]"});
    const ChunkBytes chunk = serialiseChunk(p);
    const Bytes bytes(chunk.data.get(), chunk.data.get() + chunk.size);
    const BoxView emsg = boxesIn(bytes).at(1);
    EXPECT_EQ(slice(bytes, emsg.offset, emsg.size()),
              cat({hex("00000181 'emsg' 00000000 'urn:dvb:iptv:cpm:2014' 00 '1' 00 000003E8 00000000 0000C350 0000002A"),
                   Bytes(kDocument.begin(), kDocument.end())}));
}

// The map's rules over chunks at 0, 1 and 2 s, each a segment start: the ids of each chunk's messages, and the
// start of each information line logged.
TEST(ParentalRating, MapOverSegments) {
    // From 0.5 s (block at 45000 ticks) for 1 s: active at the second chunk's start only.
    const auto inside = blockOf(kStartSeconds, 45000, 1, {{42, kStart, 0x000001, {{kGbr, 9}}}});
    const auto hour = [](std::int64_t id) { return blockOf(kStartSeconds, 0, 1, {{id, kStart, 0x010000, {{kGbr, 9}}}}); };
    const auto over = blockOf(kStartSeconds, 0, 33, {});
    struct Case {
        const char* name;
        std::optional<std::uint32_t> defaultAge;
        std::vector<const ParentalRatingEventBlock*> first;  // the blocks of the first chunk's samples
        std::vector<std::vector<std::uint32_t>> ids;
        std::vector<std::string> logs;
    };
    const auto h42 = hour(42), h43 = hour(43);
    const Case cases[] = {
        {"ending inside a chunk: active by the chunk's start", {}, {&inside}, {{}, {42}, {}},
         {"segment 2: Parental Rating restriction(s): [@t = -500ms to 500ms, EventId=0042"}},
        {"a count of 33 ends the update", {}, {&h42, &over, &h43}, {{42}, {42}, {42}},
         {"segment 1: Parental", "segment 2: Parental", "segment 3: Parental"}},
        {"the default on every segment, its text logged once", 12, {}, {{0}, {0}, {0}},
         {"segment 1: Default Parental Rating restriction: (all countries - 12)"}},
        {"the default again after an entry", 12, {&inside}, {{0}, {42}, {0}},
         {"segment 1: Default", "segment 2: Parental", "segment 3: Default"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ParentalRatings ratings;
        if (c.defaultAge) ratings.setDefaultAge(*c.defaultAge);
        RecordingLogger logger;
        for (std::size_t k = 0; k < c.ids.size(); ++k) {
            const std::int64_t t = static_cast<std::int64_t>(k) * 10000000;
            ratings.update(k == 0 ? c.first : std::vector<const ParentalRatingEventBlock*>{}, t);
            std::vector<std::uint32_t> ids;
            for (const RatingMessage& m : ratings.messagesAt(t, k + 1, logger)) ids.push_back(m.id);
            EXPECT_EQ(ids, c.ids[k]) << "chunk " << k;
        }
        const auto logs = logger.lines();
        ASSERT_EQ(logs.size(), c.logs.size());
        for (std::size_t i = 0; i < logs.size(); ++i) EXPECT_EQ(logs[i].rfind("2 " + c.logs[i], 0), 0u) << logs[i];
    }
}

}  // namespace
