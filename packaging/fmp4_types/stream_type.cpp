#include "packaging/fmp4_types/stream_type.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

const char* streamTypeText(std::uint32_t type) {
    static constexpr const char* kTexts[] = {
        "MPEG2 Video", "MPEG1 Audio",   "H264 Video", "AC3 Audio",    "AAC ADTS Audio", "AAC LATM Audio",
        "Teletext",    "H263 Video",    "Unknown",    "MPEG4 Video",  "AAC Raw Audio",  "DVB Subtitle",
        "SCTE-35",     "FMP4 Chunk",    "MPEG-2 TS",  "VC-1 Video",   "Corvane CC",     "HEVC Video",
        "TTML",        "KLV",           "WebVTT",     "ProRes",       "JPEG-2000",      "DV Video",
        "SRT",         "TX3G",          "Youtube SRT", "AC4 Audio",
    };
    static_assert(sizeof kTexts / sizeof kTexts[0] == 28);
    if (type >= 28) return "Unknown";
    return kTexts[type];
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
