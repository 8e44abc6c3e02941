#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

std::vector<std::uint8_t> unescapeRbsp(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> out;
    out.reserve(size);
    unsigned zeros = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint8_t byte = data[i];
        if (zeros >= 2 && byte == 3 && i + 1 < size && data[i + 1] < 4) {
            zeros = 0;
            continue;
        }
        out.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return out;
}

std::size_t skipStartCode(const std::uint8_t* data, std::size_t size) {
    std::size_t i = 0;
    while (i < size && data[i] == 0) ++i;
    if (i < size && data[i] == 1) ++i;
    return i;
}

bool NALH264_HEVC::getNalUnitType(std::uint8_t& unitType, std::uint32_t& offset) {
    if (!nalUnitTypeKnown && !m_headerMissing) {
        const std::uint8_t* bytes = this->bytes();
        std::size_t i = 0;
        while (i < length && bytes[i] == 0) ++i;
        if (i < length && bytes[i] == 1) ++i;
        if (i >= length) {
            m_headerMissing = true;
        } else {
            headerOffset = static_cast<std::uint32_t>(i);
            nalUnitType = m_isHevc ? static_cast<std::uint8_t>((bytes[i] >> 1) & 0x3F)
                                   : static_cast<std::uint8_t>(bytes[i] & 0x1F);
            nalUnitTypeKnown = true;
        }
    }
    if (!nalUnitTypeKnown) return false;
    unitType = nalUnitType;
    offset = headerOffset;
    return true;
}

const std::uint8_t* NALH264_HEVC::getRbsp(std::uint32_t& size) {
    if (!rbspKnown) {
        rbsp = unescapeRbsp(bytes(), length);
        rbspKnown = true;
    }
    size = static_cast<std::uint32_t>(rbsp.size());
    return rbsp.data();
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
