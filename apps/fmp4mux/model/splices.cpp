#include "apps/fmp4mux/model/splices.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "apps/fmp4mux/inputs/splice_info.h"

namespace fmp4mux {

namespace {
std::uint8_t* put(std::uint8_t* out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) *out++ = static_cast<std::uint8_t>(value >> (8 * i));
    return out;
}

// 90 kHz ticks in 100 ns units, rounded to the nearest.
std::int64_t hundredNs(std::uint64_t ticks) { return static_cast<std::int64_t>((ticks * 1000 + 4) / 9); }
}  // namespace

std::optional<std::pair<std::int64_t, SpliceEvent>> spliceOf(std::span<const std::uint8_t> message,
                                                             std::int64_t clockTime, std::string& why) {
    if (message.size() < 8) {
        why = "shorter than its clock value";
        return std::nullopt;
    }
    std::uint64_t clock = 0;
    for (std::size_t i = 0; i < 8; ++i) clock = (clock << 8) | message[i];
    const auto section = message.subspan(8);
    const std::optional<SpliceInfo> info = readSpliceInfo(section, why);
    if (!info) return std::nullopt;
    const std::optional<std::uint64_t> delay = spliceDelay(*info, clock);
    if (!delay) return std::nullopt;
    SpliceEvent event;
    event.kind = info->commandType == SpliceInfo::kTimeSignal ? SpliceEvent::Kind::Signal
                 : info->outOfNetwork                         ? SpliceEvent::Kind::Out
                                                              : SpliceEvent::Kind::In;
    if (info->breakDuration) event.duration = static_cast<std::uint64_t>(hundredNs(*info->breakDuration));
    const std::size_t length = 3 + (((std::size_t{section[1]} & 0x0F) << 8) | section[2]);
    event.section.assign(section.begin(), section.begin() + static_cast<std::ptrdiff_t>(length));
    return std::pair{clockTime + hundredNs(*delay), std::move(event)};
}

std::vector<std::uint8_t> spliceMessageBox(const SpliceEvent& event, std::uint64_t timescale) {
    const auto scaled = [timescale](std::uint64_t t) {
        return static_cast<std::uint64_t>((static_cast<unsigned __int128>(t) * timescale + 5000000) / 10000000);
    };
    const std::string scheme = kScte35Scheme;
    const std::size_t size = 8 + 4 + 4 + 8 + 4 + 4 + scheme.size() + 1 + 1 + event.section.size();
    std::vector<std::uint8_t> box(size, 0);
    std::uint8_t* p = put(box.data(), size, 4);
    p = put(p, 0x656D7367, 4);  // "emsg"
    p = put(p, 0x01000000, 4);  // version 1, flags 0
    p = put(p, std::min<std::uint64_t>(timescale, UINT32_MAX), 4);
    p = put(p, scaled(event.time), 8);  // presentation_time
    p = put(p, std::min<std::uint64_t>(event.duration ? scaled(*event.duration) : 0, UINT32_MAX), 4);
    p = put(p, event.id, 4);
    std::memcpy(p, scheme.data(), scheme.size());
    p += scheme.size() + 2;  // the scheme's terminating zero, and an empty value
    if (!event.section.empty()) std::memcpy(p, event.section.data(), event.section.size());
    return box;
}

std::size_t insertAfterSegmentType(tvrn::system::ByteBuffer& chunk, const std::vector<std::uint8_t>& boxes) {
    // The engine's marker boxes may come first; the boxes go after `styp`, or else before the first `sidx` or
    // `moof`.
    std::size_t at = 0, box = 0;
    while (box + 8 <= chunk.size()) {
        const std::size_t size = (std::size_t{chunk[box]} << 24) | (std::size_t{chunk[box + 1]} << 16) |
                                 (std::size_t{chunk[box + 2]} << 8) | chunk[box + 3];
        const auto type = std::string_view(reinterpret_cast<const char*>(chunk.data() + box + 4), 4);
        if (type == "sidx" || type == "moof" || size < 8 || size > chunk.size() - box) break;
        box += size;
        if (type == "styp") {
            at = box;
            break;
        }
        at = box;
    }
    chunk.insert(chunk.begin() + static_cast<std::ptrdiff_t>(at), boxes.begin(), boxes.end());
    return at;
}

}  // namespace fmp4mux
