#pragma once
// Chunks as the filter's outputs deliver them, built by hand for the host's tests.
#include <cstdint>
#include <string>

#include "tests/common/bytes.h"

namespace host_test {
using testkit::Bytes;
using testkit::cat;
using testkit::hex;

inline Bytes u32(std::uint64_t v) {
    return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v)};
}

inline Bytes box(const std::string& type, const Bytes& content = {}) {
    return cat({u32(content.size() + 8), Bytes(type.begin(), type.end()), content});
}

// An init chunk: its container (the sizes of the movie part and of the index), the movie part (ftyp, the manifest
// box holding `xml` after its uuid, a moov of `moovSize` bytes), then the index (an empty mfra).
inline Bytes initChunk(const std::string& xml, std::size_t moovSize = 0) {
    const Bytes movie = cat({box("ftyp", hex("'dash' 00000000")), box("uuid", cat({Bytes(16, 0), Bytes(xml.begin(), xml.end())})),
                             box("moov", Bytes(moovSize, 1))});
    const Bytes index = box("mfra");
    return cat({u32(movie.size()), u32(index.size()), movie, index});
}

// A DASH media chunk at 90 kHz between its markers (20 bytes before, 40 after): styp, sidx (version 0, one
// reference of `duration` from `time`), moof, and an mdat of `mdatSize` bytes.
inline Bytes dashChunk(std::uint32_t time, std::uint32_t duration, std::size_t mdatSize = 1000) {
    const Bytes sidx = box("sidx", cat({hex("00000000 00000001 00015F90"), u32(time), hex("00000000 0000 0001 00000064"),
                                        u32(duration), hex("90000000")}));
    return cat({box("tnsb", Bytes(12, 0)), box("styp", hex("'msdh'")), sidx, box("moof"), box("mdat", Bytes(mdatSize, 7)),
                box("teoc", Bytes(12, 0)), box("teos", Bytes(12, 0))});
}

}  // namespace host_test
