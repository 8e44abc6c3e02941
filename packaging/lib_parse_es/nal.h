#pragma once
// One syntactic unit of an elementary stream with the timing of the input buffer it came from.
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "packaging/fmp4_types/media_data.h"
#include "packaging/fmp4_types/stream_type.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

using imff::fmp4::CuePoint;
using imff::fmp4::DolbyMetadata;
using imff::fmp4::IMediaData;
using imff::fmp4::MediaDataRef;
using imff::fmp4::ParentalRatingEventBlock;
using imff::fmp4::StreamType;

// Conversions between 100 ns units and 90 kHz, rounding half away from zero.
constexpr std::int64_t to90kHz(std::int64_t hundredNs) {
    const std::int64_t product = hundredNs * 9;
    return (product + (product < 0 ? -500 : 500)) / 1000;
}
constexpr std::int64_t from90kHz(std::int64_t ticks) {
    const std::int64_t product = ticks * 1000;
    return (product + (product < 0 ? -4 : 4)) / 9;
}

// Everything an input buffer said about itself, carried down to the sample. Times in 100 ns units.
struct NalTimingInfo {
    std::uint8_t hasTime = 0;
    std::uint8_t hasMediaTime = 0;
    std::uint8_t syncPoint = 0;
    std::uint8_t discontinuity = 0;
    std::uint8_t preroll = 0;
    std::uint8_t hasDuration = 0;
    std::uint8_t hasDataId = 0;
    std::int64_t time = 0;       // presentation time
    std::int64_t mediaTime = 0;  // decoding time
    std::int64_t duration = 0;
    CuePoint cuePoint{};
    std::uint64_t sampleDate = 0;
    std::uint64_t dataId = 0;
    DolbyMetadata dolbyMetadata{};
    std::uint8_t hasParentalRating = 0;
    // The parental block is 5 KB and rare: shared, so that every unit does not carry (and copy) a zeroed one.
    std::shared_ptr<const ParentalRatingEventBlock> parentalRating;

    std::int64_t time90kHz() const { return to90kHz(time); }
    std::int64_t mediaTime90kHz() const { return to90kHz(mediaTime); }
    std::int64_t duration90kHz() const { return to90kHz(duration); }
    void setTime90kHz(std::int64_t t) { time = from90kHz(t); }
    void setMediaTime90kHz(std::int64_t t) { mediaTime = from90kHz(t); }
    void setDuration90kHz(std::int64_t d) { duration = from90kHz(d); }
};

class NAL {
public:
    // type: the stream type, or -1 for a plain unit made by the sample builders.
    NAL(std::int32_t streamType, std::int32_t size)
        : type(streamType), capacity(size), data(size > 0 ? static_cast<std::size_t>(size) : 0),
          writePosition(data.data()) {}
    // A unit of the given pieces, copied once, in order, without zero-filling its storage first: capacity and
    // length are the pieces' total. `headroom` bytes are kept free before the unit, so that a header can later
    // be put in front of it without copying the unit again.
    NAL(std::int32_t streamType, std::span<const std::span<const std::uint8_t>> pieces, std::uint32_t headroom = 0)
        : type(streamType), capacity(0), unitStart(headroom) {
        std::size_t total = 0;
        for (const auto& piece : pieces) total += piece.size();
        data.reserve(headroom + total);
        data.resize(headroom);
        for (const auto& piece : pieces) data.insert(data.end(), piece.begin(), piece.end());
        capacity = static_cast<std::int32_t>(total);
        length = static_cast<std::uint32_t>(total);
        writePosition = data.data() + data.size();
    }
    NAL(const NAL&) = delete;
    NAL& operator=(const NAL&) = delete;
    virtual ~NAL() = default;

    // Appends bytes; the caller never appends more than the capacity.
    void append(const std::uint8_t* bytes, std::size_t count) {
        if (count == 0) return;
        std::memcpy(writePosition, bytes, count);
        writePosition += count;
        length += static_cast<std::uint32_t>(count);
    }
    const std::uint8_t* bytes() const { return data.data() + unitStart; }
    std::uint8_t* bytes() { return data.data() + unitStart; }

    // Turns a unit that starts with a start code of `startCodeLength` bytes into the same unit with a 4-byte
    // big-endian length in front, in place. Possible when the start code and the headroom before it hold 4 bytes.
    bool replaceStartCodeWithLength(std::uint32_t startCodeLength) {
        if (startCodeLength > length || unitStart + startCodeLength < 4) return false;
        const std::uint32_t size = length - startCodeLength;
        unitStart = unitStart + startCodeLength - 4;
        std::uint8_t* p = data.data() + unitStart;
        p[0] = static_cast<std::uint8_t>(size >> 24);
        p[1] = static_cast<std::uint8_t>(size >> 16);
        p[2] = static_cast<std::uint8_t>(size >> 8);
        p[3] = static_cast<std::uint8_t>(size);
        length = size + 4;
        capacity = static_cast<std::int32_t>(length);
        return true;
    }

    std::int32_t type;
    std::int32_t capacity;
    std::uint32_t unitStart = 0;  // where the unit starts in `data`
    std::vector<std::uint8_t> data;
    std::uint8_t* writePosition;
    std::uint32_t length = 0;
    NalTimingInfo timing{};
};

// A NAL with its type fixed.
template <std::int32_t N>
class NalInputTypeGeneric : public NAL {
public:
    explicit NalInputTypeGeneric(std::int32_t size) : NAL(N, size) {}
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
