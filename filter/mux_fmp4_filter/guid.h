#pragma once
// 16-byte identifiers in the memory order of the media graph platform: a 32-bit, two 16-bit little-endian
// fields and 8 bytes.
#include <array>
#include <cstdint>
#include <string>

namespace tvrn::encoding::filter {

struct GUID {
    std::uint32_t Data1 = 0;
    std::uint16_t Data2 = 0;
    std::uint16_t Data3 = 0;
    std::array<std::uint8_t, 8> Data4{};

    bool operator==(const GUID&) const = default;
    bool isNull() const { return *this == GUID{}; }
};
static_assert(sizeof(GUID) == 16);

// From "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" (braces optional); an ill-formed text fails.
GUID guidFromString(const std::string& text);
std::string toString(const GUID& guid);
// The media type of a four-character code: {fourcc-0000-0010-8000-00AA00389B71}.
GUID guidFromFourCC(const char (&fourcc)[5]);

namespace guids {
// The filter and its configuration interface.
extern const GUID CLSID_MuxFmp4Filter;
extern const GUID IID_IMuxFmp4Config;
extern const GUID IID_IMediaSample2;
extern const GUID IID_IMediaSample3;
extern const GUID IID_IDelayCrossingPointPin;
extern const GUID IID_IDataIdDroppingPin;
// Media types.
extern const GUID MEDIATYPE_Video;  // "vids"
extern const GUID MEDIATYPE_Audio;  // "auds"
extern const GUID MEDIATYPE_Text;   // "txts"
extern const GUID MEDIATYPE_Scte35;
extern const GUID FORMAT_None;
extern const GUID MEDIATYPE_Fmp4Output;
extern const GUID MEDIASUBTYPE_SmoothOutput;
extern const GUID MEDIASUBTYPE_DashOutput;
extern const GUID FORMAT_OutputBitrate;
}  // namespace guids

}  // namespace tvrn::encoding::filter
