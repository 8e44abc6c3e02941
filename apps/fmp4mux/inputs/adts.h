#pragma once
// The ADTS frame header as the host's readers need it: where a frame starts and how long it is.
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

}  // namespace fmp4mux
