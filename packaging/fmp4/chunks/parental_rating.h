#pragma once
// Parental rating events: the event blocks that H.264 samples carry from the demultiplexer's service information
// (EN 300 468 style records) are kept in a map by event id; at each segment start the events active at the chunk's
// time, or the default rating when none is, become in-band messages holding a BroadcastEvent document.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "packaging/fmp4_types/media_data.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// The scheme of the in-band messages; the manifest's Rating descriptor spells its own with two colons.
inline constexpr char kParentalRatingEventScheme[] = "urn:dvb:iptv:cpm:2014";
inline constexpr char kParentalRatingDescriptorScheme[] = "urn:dvb::iptv:cpm:2014";
inline constexpr std::uint32_t kAllCountries = 902;

struct RatingPair {
    std::uint32_t country = 0;  // a region code 900 to 999, or three characters in the low 24 bits
    std::uint8_t rating = 0;    // 0 undefined, 1 to 15 minimum age minus 3, above private
};

struct RatingEvent {
    std::int64_t id = 0;
    std::uint64_t startTime = 0;  // 16 bits Modified Julian Date then 6 BCD digits hhmmss; undefined from 2^40 - 1
    std::uint64_t duration = 0;   // 6 BCD digits hhmmss; undefined from 2^24 - 1
    std::vector<RatingPair> pairs;  // at most 16
};

// One message for an emsg box of the chunk.
struct RatingMessage {
    std::uint32_t id = 0;
    std::uint32_t durationMs = 0xFFFFFFFF;  // what is left of the event from the chunk's time; unknown for the default
    std::string document;                   // the BroadcastEvent document
};

// The start of an event as seconds since 1970 (UTC); none when undefined.
std::optional<std::int64_t> ratingEventSeconds(std::uint64_t startTime);
// A block's 90 kHz time in 100 ns units, rounded up as the block's writer rounds it.
std::int64_t blockTimeTo100ns(std::int64_t time90kHz);
// "EventId=%04lld, date='%s', duration='%s', ratings=%s".
std::string ratingEventText(const RatingEvent& event);
std::string broadcastEventDocument(const std::vector<RatingPair>& pairs);

class ParentalRatings {
public:
    void setDefaultAge(std::uint32_t age) { m_defaultAge = age; }
    std::optional<std::uint32_t> defaultAge() const { return m_defaultAge; }

    // Takes the blocks of a video chunk's samples, in order, then forgets the events ended before `chunkStart`
    // (100 ns). A block whose count is outside 0 to 32 ends the update there.
    void update(const std::vector<const ParentalRatingEventBlock*>& blocks, std::int64_t chunkStart);
    // The messages of a chunk that starts a segment at `chunkStart`. The text of the restriction is logged at
    // information level, with the segment number, when it differs from the one logged before.
    std::vector<RatingMessage> messagesAt(std::int64_t chunkStart, std::uint64_t segmentNumber,
                                          tvrn::log::ILogger& logger);

    struct Entry {
        std::int64_t start = 0;  // 100 ns, on the stream's clock
        RatingEvent event;
        std::int64_t end() const;
    };
    const std::map<std::int64_t, Entry>& entries() const { return m_entries; }

private:
    std::optional<std::uint32_t> m_defaultAge;
    std::map<std::int64_t, Entry> m_entries;
    bool m_inUse = false;
    std::string m_lastText;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
