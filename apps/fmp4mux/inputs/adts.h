#pragma once
// The ADTS frame header as the host's readers need it: where a frame starts, how long it is and what it carries.
#include <cstddef>
#include <cstdint>

namespace fmp4mux {

// The frame_length of the ADTS frame at `frame` (at least 7 bytes readable): 0 when there is no sync word
// (0xFFF, layer 0) or the length is shorter than a header.
inline std::size_t adtsFrameLength(const std::uint8_t* frame) {
    if (frame[0] != 0xFF || (frame[1] & 0xF6) != 0xF0) return 0;
    const std::size_t length = (static_cast<std::size_t>(frame[3] & 0x03u) << 11) |
                               (static_cast<std::size_t>(frame[4]) << 3) | (frame[5] >> 5);
    return length < 7 ? 0 : length;
}

// The sampling rates of the ADTS and AudioSpecificConfig frequency index (ISO/IEC 14496-3, 1.6.3.4); 13 and up
// are reserved or escaped.
inline constexpr std::uint32_t kAacRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                22050, 16000, 12000, 11025, 8000,  7350};

// The configuration an ADTS header carries: profile (object type less one), sampling frequency index and channel
// configuration, from its bytes 2 and 3.
struct AdtsConfig {
    unsigned profile = 0, rateIndex = 0, channels = 0;
};
inline AdtsConfig adtsConfig(const std::uint8_t* frame) {
    const unsigned b2 = frame[2], b3 = frame[3];
    return {b2 >> 6, (b2 >> 2) & 0x0Fu, ((b2 & 0x01u) << 2) | (b3 >> 6)};
}

}  // namespace fmp4mux
