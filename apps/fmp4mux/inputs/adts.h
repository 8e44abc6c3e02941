#pragma once
// The ADTS frame header as the host's readers need it: where a frame starts, how long it is and what it carries.
#include <cstddef>
#include <cstdint>
#include <iterator>

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

// The ADTS frames of a run of whole frames, from its first byte to its last, and the AAC frames (raw data blocks,
// 1024 samples each) they hold; none when the bytes are not whole frames. With `bytesOf`, the bytes of the first
// `bytesOf` ADTS frames go to `bytes`.
struct AdtsRun {
    unsigned frames = 0, blocks = 0;
};
inline AdtsRun adtsRun(const std::uint8_t* data, std::size_t size, unsigned bytesOf = 0, std::size_t* bytes = nullptr) {
    std::size_t at = 0;
    AdtsRun run;
    while (at + 7 <= size) {
        const std::size_t length = adtsFrameLength(data + at);
        if (length == 0) return {};
        run.blocks += 1 + (data[at + 6] & 0x03u);
        at += length;
        if (++run.frames == bytesOf && bytes != nullptr) *bytes = at;
    }
    return at == size ? run : AdtsRun{};
}

// The AAC frames of a packet of whole ADTS frames, one AAC frame each, and how long they last (100 ns units); none
// for other bytes.
struct AdtsSpan {
    int frames = 0;
    std::int64_t duration = 0;
};
inline AdtsSpan adtsSpan(const std::uint8_t* data, std::size_t size) {
    const AdtsRun run = adtsRun(data, size);
    if (run.frames == 0 || run.blocks != run.frames) return {};
    const unsigned rateIndex = adtsConfig(data).rateIndex;
    if (rateIndex >= std::size(kAacRates)) return {};
    return {static_cast<int>(run.frames), static_cast<std::int64_t>(run.frames) * 1024 * 10000000 / kAacRates[rateIndex]};
}

}  // namespace fmp4mux
