#pragma once
// One syntactic unit of an elementary stream with the timing of the input buffer it came from.
#include <algorithm>
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
    // A unit over `size` bytes of an input buffer, which `keep` holds alive for as long as the unit: nothing is
    // copied, and the input buffer is never written (it may be the host's). Writing the unit (writableBytes)
    // first copies it into storage of its own.
    NAL(std::int32_t streamType, const std::uint8_t* bytes, std::uint32_t size, MediaDataRef keep)
        : type(streamType), capacity(static_cast<std::int32_t>(size)), writePosition(nullptr), length(size),
          m_borrowed(bytes), m_borrowedSize(size), m_keep(std::move(keep)) {}
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
    // The unit's `length` bytes. A unit over an input buffer whose start code is to be written as a length
    // (replaceStartCodeWithLength) is copied into storage of its own here; writeTo writes it without that copy.
    const std::uint8_t* bytes() const {
        if (m_borrowed == nullptr) return data.data() + unitStart;
        if (m_lengthFor != 0) own();
        return m_borrowed != nullptr ? m_borrowed : data.data() + unitStart;
    }
    // The unit's bytes to be changed in place.
    std::uint8_t* writableBytes() {
        if (m_borrowed != nullptr) own();
        return data.data() + unitStart;
    }
    // Writes the unit's `length` bytes at `dest`.
    void writeTo(std::uint8_t* dest) const {
        if (m_borrowed == nullptr) {
            if (length > 0) std::memcpy(dest, data.data() + unitStart, length);
            return;
        }
        dest = writeLength(dest);
        if (m_borrowedSize > m_lengthFor) std::memcpy(dest, m_borrowed + m_lengthFor, m_borrowedSize - m_lengthFor);
    }
    // As writeTo, except for a run of at least `least` bytes that the caller refers to where it lies, holding this
    // unit (and so its input buffer) alive for as long as it does: the bytes of a unit in its own storage, whole,
    // or those of a unit over an input buffer after its start code, whose length alone is written. Answers that
    // run, unwritten, or nothing when the unit is shorter and written whole.
    std::span<const std::uint8_t> writeReferring(std::uint8_t* dest, std::size_t least) const {
        least = std::max<std::size_t>(least, 1);
        if (m_borrowed == nullptr && length >= least) return {data.data() + unitStart, length};
        if (m_borrowed == nullptr || m_borrowedSize - m_lengthFor < least) {
            writeTo(dest);
            return {};
        }
        writeLength(dest);
        return {m_borrowed + m_lengthFor, m_borrowedSize - m_lengthFor};
    }
    bool borrowed() const { return m_borrowed != nullptr; }
    // A plain unit over this one's bytes from `from` on, sharing its input buffer: null when this unit is not
    // over an input buffer as it came (then its bytes are to be copied).
    std::unique_ptr<NAL> shareFrom(std::uint32_t from) const {
        if (m_borrowed == nullptr || m_lengthFor != 0 || from > m_borrowedSize) return nullptr;
        return std::make_unique<NAL>(-1, m_borrowed + from, m_borrowedSize - from, m_keep);
    }

    // Turns a unit that starts with a start code of `startCodeLength` bytes into the same unit with a 4-byte
    // big-endian length in front: in place when the start code and the headroom before it hold 4 bytes; for a
    // unit over an input buffer, as it is written out. False when neither is possible.
    bool replaceStartCodeWithLength(std::uint32_t startCodeLength) {
        if (startCodeLength > length) return false;
        const std::uint32_t size = length - startCodeLength;
        if (m_borrowed != nullptr) {
            if (m_lengthFor != 0 || startCodeLength == 0) return false;
            m_lengthFor = startCodeLength;
            length = size + 4;
            capacity = static_cast<std::int32_t>(length);
            return true;
        }
        if (unitStart + startCodeLength < 4) return false;
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

private:
    // The 4-byte length that replaces the start code of a unit over an input buffer, if it has one; where the
    // unit's bytes go on.
    std::uint8_t* writeLength(std::uint8_t* dest) const {
        if (m_lengthFor == 0) return dest;
        const std::uint32_t size = length - 4;
        dest[0] = static_cast<std::uint8_t>(size >> 24);
        dest[1] = static_cast<std::uint8_t>(size >> 16);
        dest[2] = static_cast<std::uint8_t>(size >> 8);
        dest[3] = static_cast<std::uint8_t>(size);
        return dest + 4;
    }

    // Copies a unit over an input buffer into `data`, as it is written out, and lets the input buffer go.
    void own() const {
        std::vector<std::uint8_t> copy(length);
        writeTo(copy.data());
        auto& self = const_cast<NAL&>(*this);
        self.data = std::move(copy);
        self.unitStart = 0;
        self.writePosition = self.data.data() + self.data.size();
        self.m_borrowed = nullptr;
        self.m_borrowedSize = 0;
        self.m_lengthFor = 0;
        self.m_keep = {};
    }

    const std::uint8_t* m_borrowed = nullptr;  // the unit's bytes in an input buffer, or null when in `data`
    std::uint32_t m_borrowedSize = 0;
    std::uint32_t m_lengthFor = 0;  // bytes of start code written out as a 4-byte length instead
    MediaDataRef m_keep;
};

// A NAL with its type fixed.
template <std::int32_t N>
class NalInputTypeGeneric : public NAL {
public:
    explicit NalInputTypeGeneric(std::int32_t size) : NAL(N, size) {}
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
