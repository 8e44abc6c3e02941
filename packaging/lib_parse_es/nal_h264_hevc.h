#pragma once
// NAL units of H.264 and HEVC as the Annex B builders cut them: start code included.
#include <cstdint>
#include <vector>

#include "packaging/lib_parse_es/nal.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// Removes emulation prevention: a 03 after two zeros goes when a byte below 4 follows it. A 03 that ends
// the data is kept. The start code and header bytes pass through unchanged.
std::vector<std::uint8_t> unescapeRbsp(const std::uint8_t* data, std::size_t size);

class NALH264_HEVC : public NAL {
public:
    NALH264_HEVC(std::int32_t streamType, std::int32_t size, bool isHevc) : NAL(streamType, size), m_isHevc(isHevc) {}
    NALH264_HEVC(std::int32_t streamType, std::span<const std::span<const std::uint8_t>> pieces, bool isHevc)
        : NAL(streamType, pieces, kLengthHeadroom), m_isHevc(isHevc) {}
    NALH264_HEVC(std::int32_t streamType, std::span<const std::uint8_t> bytes, MediaDataRef keep, bool isHevc)
        : NAL(streamType, bytes.data(), static_cast<std::uint32_t>(bytes.size()), std::move(keep)), m_isHevc(isHevc) {}
    // One byte before the unit: with a 3-byte start code, room for the 4-byte length that replaces it in a sample.
    static constexpr std::uint32_t kLengthHeadroom = 1;

    // The unit type and the index of the first header byte. Leading zeros and a 01 are skipped; a unit
    // without a start code is read from its first non-zero byte. False when no header byte exists.
    bool getNalUnitType(std::uint8_t& unitType, std::uint32_t& offset);
    // The whole unit with emulation prevention removed, cached after the first call.
    const std::uint8_t* getRbsp(std::uint32_t& size);

    std::uint8_t nalUnitType = 0;
    bool nalUnitTypeKnown = false;
    std::uint32_t headerOffset = 0;
    std::vector<std::uint8_t> rbsp;
    bool rbspKnown = false;

private:
    bool m_isHevc;
    bool m_headerMissing = false;
};

class NALH264 : public NALH264_HEVC {
public:
    explicit NALH264(std::int32_t size) : NALH264_HEVC(StreamType::H264_VIDEO, size, false) {}
    explicit NALH264(std::span<const std::span<const std::uint8_t>> pieces)
        : NALH264_HEVC(StreamType::H264_VIDEO, pieces, false) {}
    NALH264(std::span<const std::uint8_t> bytes, MediaDataRef keep)
        : NALH264_HEVC(StreamType::H264_VIDEO, bytes, std::move(keep), false) {}
};

class NALHEVC : public NALH264_HEVC {
public:
    explicit NALHEVC(std::int32_t size) : NALH264_HEVC(StreamType::HEVC_VIDEO, size, true) {}
    explicit NALHEVC(std::span<const std::span<const std::uint8_t>> pieces)
        : NALH264_HEVC(StreamType::HEVC_VIDEO, pieces, true) {}
    NALHEVC(std::span<const std::uint8_t> bytes, MediaDataRef keep)
        : NALH264_HEVC(StreamType::HEVC_VIDEO, bytes, std::move(keep), true) {}
};

// The offset of the first byte after a leading run of zeros and one 01 (the start code); for data without
// a start code, the offset of its first non-zero byte. Equal to `size` when nothing follows.
std::size_t skipStartCode(const std::uint8_t* data, std::size_t size);

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
