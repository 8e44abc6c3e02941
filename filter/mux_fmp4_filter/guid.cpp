#include "filter/mux_fmp4_filter/guid.h"

#include <cstdio>
#include <stdexcept>

namespace tvrn::encoding::filter {

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

GUID guidFromString(const std::string& text) {
    std::string digits;
    std::size_t i = 0;
    std::string body = text;
    if (!body.empty() && body.front() == '{' && body.back() == '}') body = body.substr(1, body.size() - 2);
    static constexpr std::size_t kDashes[] = {8, 13, 18, 23};
    if (body.size() != 36) throw std::invalid_argument("invalid GUID text: " + text);
    for (i = 0; i < body.size(); ++i) {
        const bool dashPlace = i == kDashes[0] || i == kDashes[1] || i == kDashes[2] || i == kDashes[3];
        if (dashPlace) {
            if (body[i] != '-') throw std::invalid_argument("invalid GUID text: " + text);
            continue;
        }
        if (hexValue(body[i]) < 0) throw std::invalid_argument("invalid GUID text: " + text);
        digits.push_back(body[i]);
    }
    auto field = [&digits](std::size_t from, std::size_t count) {
        std::uint64_t value = 0;
        for (std::size_t k = 0; k < count; ++k) value = (value << 4) | static_cast<std::uint64_t>(hexValue(digits[from + k]));
        return value;
    };
    GUID guid;
    guid.Data1 = static_cast<std::uint32_t>(field(0, 8));
    guid.Data2 = static_cast<std::uint16_t>(field(8, 4));
    guid.Data3 = static_cast<std::uint16_t>(field(12, 4));
    for (std::size_t k = 0; k < 8; ++k) guid.Data4[k] = static_cast<std::uint8_t>(field(16 + 2 * k, 2));
    return guid;
}

std::string toString(const GUID& g) {
    char text[40];
    std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
                  g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

GUID guidFromFourCC(const char (&fourcc)[5]) {
    GUID guid = guidFromString("{00000000-0000-0010-8000-00AA00389B71}");
    guid.Data1 = static_cast<std::uint32_t>(static_cast<std::uint8_t>(fourcc[0])) |
                 static_cast<std::uint32_t>(static_cast<std::uint8_t>(fourcc[1])) << 8 |
                 static_cast<std::uint32_t>(static_cast<std::uint8_t>(fourcc[2])) << 16 |
                 static_cast<std::uint32_t>(static_cast<std::uint8_t>(fourcc[3])) << 24;
    return guid;
}

namespace guids {
const GUID CLSID_MuxFmp4Filter = guidFromString("{5E4721DD-8521-40AA-A672-7C2097D22477}");
const GUID IID_IMuxFmp4Config = guidFromString("{260480A9-48F7-45F2-B8DC-DD7E51C9211F}");
const GUID IID_IMediaSample2 = guidFromString("{36B73884-C2C8-11CF-8B46-00805F6CEF60}");
const GUID IID_IMediaSample3 = guidFromString("{5D8CEC5F-63DA-46A1-9237-A2F3587B323C}");
const GUID IID_IDelayCrossingPointPin = guidFromString("{B25C6432-06E0-4C39-B7B2-AA91C6DD4DBF}");
const GUID IID_IDataIdDroppingPin = guidFromString("{DA464CFF-5136-455C-9268-B28B16C00773}");
const GUID MEDIATYPE_Video = guidFromFourCC("vids");
const GUID MEDIATYPE_Audio = guidFromFourCC("auds");
const GUID MEDIATYPE_Text = guidFromFourCC("txts");
const GUID MEDIATYPE_Scte35 = guidFromString("{64C21BFC-996F-4E61-A632-78904FFE1B21}");
const GUID FORMAT_None = guidFromString("{0F6417D6-C318-11D0-A43F-00A0C9223196}");
const GUID MEDIATYPE_Fmp4Output = guidFromString("{8AE47536-86DB-4368-B48B-B55E5684D196}");
const GUID MEDIASUBTYPE_SmoothOutput = guidFromString("{94036050-4EF8-4AA8-BEB0-82445E9A9923}");
const GUID MEDIASUBTYPE_DashOutput = guidFromString("{49966143-F648-45F4-894E-6BF31B0C9634}");
const GUID FORMAT_OutputBitrate = guidFromString("{05589F83-C356-11CE-BF01-00AA0055595A}");
}  // namespace guids

}  // namespace tvrn::encoding::filter
