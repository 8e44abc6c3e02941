#include "packaging/fmp4/chunks/parental_rating.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {

constexpr std::int64_t kUnitsPerSecond = 10000000;
constexpr std::int64_t kUnitsPerMs = 10000;
constexpr std::int64_t kMjdOf1970 = 40587;
constexpr std::size_t kEventsOffset = 24;
constexpr std::size_t kEventSize = 160;
constexpr std::int64_t kMaxEvents = 32;
constexpr std::uint32_t kMaxPairs = 16;

// The block is written in the host's byte order.
template <typename T>
T readAt(const std::uint8_t* bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

std::int64_t saturate(__int128 value) {
    return static_cast<std::int64_t>(std::clamp<__int128>(value, std::numeric_limits<std::int64_t>::min(),
                                                          std::numeric_limits<std::int64_t>::max()));
}

int bcdPair(std::uint64_t bcd, int shift) {
    return static_cast<int>(((bcd >> (shift + 4)) & 0xF) * 10 + ((bcd >> shift) & 0xF));
}

struct Hms {
    int h, m, s;
    std::int64_t seconds() const { return std::int64_t{h} * 3600 + m * 60 + s; }
};
Hms hms(std::uint64_t bcd) { return {bcdPair(bcd, 16), bcdPair(bcd, 8), bcdPair(bcd, 0)}; }

bool startDefined(std::uint64_t startTime) { return startTime < 0xFFFFFFFFFFull; }
bool durationDefined(std::uint64_t duration) { return duration < 0xFFFFFFull; }

std::string format(const char* fmt, auto... args) {
    char text[160];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

std::string countryText(std::uint32_t country) {
    static const char* const kRegions[] = {
        "scandinavia", "north America and North American Territories", "all countries",
        "south America and South American Territories",
        "latin America (North, Central & South America; Caribbean)", "europe", "middle East", "north Africa",
        "oceania", "central America", "africa", "asia"};
    if (country >= 900 && country <= 999) return country - 900 < std::size(kRegions) ? kRegions[country - 900] : "undefined";
    std::string code;
    for (int shift = 16; shift >= 0; shift -= 8) code.push_back(static_cast<char>((country >> shift) & 0xFF));
    return code;
}

std::string ageText(std::uint8_t rating) {
    if (rating == 0) return "und";
    if (rating <= 15) return format("%02d", rating + 3);
    return format("private value = %02d", rating);
}

// The rating of the document: the minimum age where the byte gives one, the byte itself otherwise.
std::string documentRating(std::uint8_t rating) {
    return std::to_string(rating >= 1 && rating <= 15 ? rating + 3 : rating);
}

std::string documentOf(const std::vector<std::pair<std::string, std::string>>& ratingsAndCountries) {
    std::string document = "<BroadcastEvent><InstanceDescription>";
    for (const auto& [rating, country] : ratingsAndCountries) {
        document += "<ParentalGuidance><mpeg7:ParentalRating href=\"urn:dvb:iptv:rating:2014:";
        document += rating;
        document += "\"/><mpeg7:Region>";
        document += country;
        document += "</mpeg7:Region></ParentalGuidance>";
    }
    return document + "</InstanceDescription></BroadcastEvent>";
}

// Milliseconds from `from` to `to`, clear of overflow at the ends of the clock.
std::int64_t msBetween(std::int64_t from, std::int64_t to) { return saturate((__int128{to} - from) / kUnitsPerMs); }

std::uint32_t clampMs(std::int64_t ms) { return static_cast<std::uint32_t>(std::clamp<std::int64_t>(ms, 0, 0xFFFFFFFE)); }

}  // namespace

std::optional<std::int64_t> ratingEventSeconds(std::uint64_t startTime) {
    if (!startDefined(startTime)) return std::nullopt;
    const auto mjd = static_cast<std::int64_t>((startTime >> 24) & 0xFFFF);
    return (mjd - kMjdOf1970) * 86400 + hms(startTime & 0xFFFFFF).seconds();
}

std::int64_t blockTimeTo100ns(std::int64_t t) {
    const std::int64_t whole = t / 90000;
    const std::int64_t rest = t % 90000;
    __int128 units = __int128{whole} * kUnitsPerSecond + __int128{rest} * 111;
    if (rest != 0) units += rest * 10000 / 90000;
    return saturate(units);
}

std::string ratingEventText(const RatingEvent& event) {
    std::string date = "undefined";
    if (startDefined(event.startTime)) {
        using namespace std::chrono;
        const auto mjd = static_cast<std::int64_t>((event.startTime >> 24) & 0xFFFF);
        const year_month_day day{sys_days{days{mjd - kMjdOf1970}}};
        const Hms t = hms(event.startTime & 0xFFFFFF);
        date = format("%04d-%02d-%02d %02dh%02dm%02ds", static_cast<int>(day.year()),
                      static_cast<int>(static_cast<unsigned>(day.month())),
                      static_cast<int>(static_cast<unsigned>(day.day())), t.h, t.m, t.s);
    }
    std::string duration = "undefined";
    if (durationDefined(event.duration)) {
        const Hms d = hms(event.duration & 0xFFFFFF);
        duration = format("%02dh%02dm%02ds", d.h, d.m, d.s);
    }
    std::string ratings;
    for (const RatingPair& pair : event.pairs) {
        if (!ratings.empty()) ratings += ", ";
        ratings.append("(").append(countryText(pair.country)).append(" - ").append(ageText(pair.rating)).append(")");
    }
    return format("EventId=%04lld, date='%s', duration='%s', ratings=", static_cast<long long>(event.id), date.c_str(),
                  duration.c_str()) +
           ratings;
}

std::string broadcastEventDocument(const std::vector<RatingPair>& pairs) {
    std::vector<std::pair<std::string, std::string>> texts;
    for (const RatingPair& pair : pairs) texts.emplace_back(documentRating(pair.rating), countryText(pair.country));
    return documentOf(texts);
}

std::int64_t ParentalRatings::Entry::end() const {
    const std::int64_t length = durationDefined(event.duration) ? hms(event.duration & 0xFFFFFF).seconds() : 0;
    return saturate(__int128{start} + __int128{length} * kUnitsPerSecond);
}

void ParentalRatings::update(const std::vector<const ParentalRatingEventBlock*>& blocks, std::int64_t chunkStart) {
    for (const ParentalRatingEventBlock* block : blocks) {
        const std::uint8_t* bytes = block->bytes;
        const auto count = readAt<std::int64_t>(bytes, 16);
        if (count < 0 || count > kMaxEvents) return;
        m_inUse = true;
        const auto blockSeconds = readAt<std::int64_t>(bytes, 0);
        const std::int64_t reference = blockTimeTo100ns(readAt<std::int64_t>(bytes, 8));
        for (std::int64_t i = 0; i < count; ++i) {
            const std::uint8_t* record = bytes + kEventsOffset + static_cast<std::size_t>(i) * kEventSize;
            RatingEvent event;
            event.id = readAt<std::int64_t>(record, 0);
            event.startTime = readAt<std::uint64_t>(record, 8);
            event.duration = readAt<std::uint64_t>(record, 16);
            const std::uint32_t pairs = std::min(readAt<std::uint32_t>(record, 24), kMaxPairs);
            for (std::uint32_t j = 0; j < pairs; ++j)
                event.pairs.push_back({readAt<std::uint32_t>(record, 28 + 8 * j), record[32 + 8 * j]});
            const std::optional<std::int64_t> seconds = ratingEventSeconds(event.startTime);
            if (!seconds) continue;  // an event without a start cannot be placed on the stream's clock
            const std::int64_t start =
                saturate((__int128{*seconds} - blockSeconds) * kUnitsPerSecond + __int128{reference});
            m_entries[event.id] = Entry{start, std::move(event)};
        }
    }
    std::erase_if(m_entries, [chunkStart](const auto& entry) { return entry.second.end() < chunkStart; });
}

std::vector<RatingMessage> ParentalRatings::messagesAt(std::int64_t chunkStart, std::uint64_t segmentNumber,
                                                       tvrn::log::ILogger& logger) {
    std::vector<RatingMessage> messages;
    if (!m_defaultAge && !m_inUse) return messages;
    std::string active;
    for (const auto& [id, entry] : m_entries) {
        const std::int64_t end = entry.end();
        if (chunkStart < entry.start || chunkStart >= end) continue;
        if (!active.empty()) active += ",";
        active.append(format("[@t = %lldms to %lldms, ", static_cast<long long>(msBetween(chunkStart, entry.start)),
                             static_cast<long long>(msBetween(chunkStart, end))))
            .append(ratingEventText(entry.event))
            .append("]");
        messages.push_back({static_cast<std::uint32_t>(entry.event.id), clampMs(msBetween(chunkStart, end)),
                            broadcastEventDocument(entry.event.pairs)});
    }
    std::string text;
    if (!active.empty()) {
        text = "Parental Rating restriction(s): " + active;
    } else if (m_defaultAge) {
        text = format("Default Parental Rating restriction: (all countries - %d)", static_cast<int>(*m_defaultAge));
        messages.push_back({0, 0xFFFFFFFF, documentOf({{std::to_string(*m_defaultAge), countryText(kAllCountries)}})});
    }
    if (!text.empty() && text != m_lastText) {
        logger.WriteMsg(tvrn::log::LOG_INFO, "segment %d: %s", static_cast<int>(segmentNumber), text.c_str());
        m_lastText = text;
    }
    return messages;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
