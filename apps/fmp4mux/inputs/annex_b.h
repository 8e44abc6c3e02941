#pragma once
// Walks the head of an Annex B access unit of H.264 or HEVC: the NAL units before its first slice, where the
// parameter sets, SEI and delimiters are, and the type of that slice, which tells a key frame.
#include <cstddef>
#include <cstdint>

namespace fmp4mux {

// Calls `visit(type, unit, size)` for each NAL unit before the first slice (a VCL unit), the unit from its header
// to the next start code, trailing zero bytes left off; answers the type of the first slice, or -1 when there is
// none. The bytes of the slices themselves are not looked at.
template <typename Visit>
int unitsBeforeFirstSlice(const std::uint8_t* data, std::size_t size, bool hevc, Visit&& visit) {
    const auto nextStart = [&](std::size_t from) {
        for (std::size_t i = from; i + 3 <= size; ++i)
            if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
        return size;
    };
    for (std::size_t start = nextStart(0); start + 3 < size;) {
        const std::size_t begin = start + 3;
        const int type = hevc ? (data[begin] >> 1) & 0x3F : data[begin] & 0x1F;
        if (hevc ? type < 32 : type >= 1 && type <= 5) return type;
        const std::size_t next = nextStart(begin);
        std::size_t end = next;
        while (end > begin && data[end - 1] == 0) --end;
        visit(type, data + begin, end - begin);
        start = next;
    }
    return -1;
}

}  // namespace fmp4mux
