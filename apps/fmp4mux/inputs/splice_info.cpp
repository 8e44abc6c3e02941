#include "apps/fmp4mux/inputs/splice_info.h"

namespace fmp4mux {

namespace {
constexpr std::uint64_t kClockMask = (std::uint64_t{1} << 33) - 1;

// Reads big-endian fields from a byte range; reading past its end sets `overrun` and gives zeros.
class Fields {
public:
    explicit Fields(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}
    std::uint64_t take(std::size_t count) {
        std::uint64_t v = 0;
        for (std::size_t i = 0; i < count; ++i) v = (v << 8) | byte();
        return v;
    }
    std::uint8_t byte() {
        if (m_at >= m_bytes.size()) {
            overrun = true;
            return 0;
        }
        return m_bytes[m_at++];
    }
    // splice_time(): time_specified_flag, then 6 reserved bits and a 33-bit pts_time, or 7 reserved bits.
    std::optional<std::uint64_t> spliceTime() {
        const std::uint8_t first = byte();
        if ((first & 0x80) == 0) return std::nullopt;
        return ((std::uint64_t{first} & 1) << 32) | take(4);
    }
    bool overrun = false;

private:
    std::span<const std::uint8_t> m_bytes;
    std::size_t m_at = 0;
};
}  // namespace

std::uint32_t mpeg2Crc32(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (const std::uint8_t b : bytes) {
        crc ^= std::uint32_t{b} << 24;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    return crc;
}

std::optional<SpliceInfo> readSpliceInfo(std::span<const std::uint8_t> section, std::string& why) {
    // table_id, section_syntax_indicator, private_indicator, sap_type, section_length: the section's own size.
    if (section.size() < 3 || section[0] != 0xFC) {
        why = "not a splice_info_section (table_id 0xFC)";
        return std::nullopt;
    }
    const std::size_t length = 3 + (((std::size_t{section[1]} & 0x0F) << 8) | section[2]);
    // The fixed fields (11 bytes after section_length), a command type, a descriptor loop length and the CRC.
    if (length < 3 + 11 + 2 + 4 || length > section.size()) {
        why = "section_length does not fit the bytes";
        return std::nullopt;
    }
    section = section.first(length);
    if (mpeg2Crc32(section) != 0) {
        why = "CRC_32 mismatch";
        return std::nullopt;
    }
    Fields f(section.subspan(3, length - 3 - 4));
    SpliceInfo info;
    f.byte();  // protocol_version
    const std::uint8_t flags = f.byte();
    if (flags & 0x80) {
        why = "encrypted";
        return std::nullopt;
    }
    info.ptsAdjustment = ((std::uint64_t{flags} & 1) << 32) | f.take(4);
    f.byte();   // cw_index
    f.take(3);  // tier (12 bits), splice_command_length (12 bits): the command is read by its own syntax
    info.commandType = f.byte();
    if (info.commandType == SpliceInfo::kSpliceInsert) {
        info.eventId = static_cast<std::uint32_t>(f.take(4));
        info.cancelled = (f.byte() & 0x80) != 0;
        if (!info.cancelled) {
            const std::uint8_t insert = f.byte();
            info.outOfNetwork = (insert & 0x80) != 0;
            info.programSplice = (insert & 0x40) != 0;
            const bool duration = (insert & 0x20) != 0;
            info.immediate = (insert & 0x10) != 0;
            if (info.programSplice && !info.immediate) info.ptsTime = f.spliceTime();
            if (!info.programSplice) {
                const std::uint8_t components = f.byte();
                for (int c = 0; c < components && !f.overrun; ++c) {
                    f.byte();  // component_tag
                    if (!info.immediate) f.spliceTime();
                }
            }
            // break_duration(): auto_return, 6 reserved bits, a 33-bit duration.
            if (duration) info.breakDuration = ((std::uint64_t{f.byte()} & 1) << 32) | f.take(4);
        }
    } else if (info.commandType == SpliceInfo::kTimeSignal) {
        info.ptsTime = f.spliceTime();
    }
    if (f.overrun) {
        why = "the command ends past the section";
        return std::nullopt;
    }
    return info;
}

std::optional<std::uint64_t> spliceDelay(const SpliceInfo& info, std::uint64_t clock) {
    if (info.commandType == SpliceInfo::kSpliceInsert) {
        if (info.cancelled || !info.programSplice) return std::nullopt;
        if (info.immediate) return 0;
    } else if (info.commandType != SpliceInfo::kTimeSignal) {
        return std::nullopt;
    }
    if (!info.ptsTime) return std::nullopt;
    const std::uint64_t splice = (*info.ptsTime + info.ptsAdjustment) & kClockMask;
    return (splice - (clock & kClockMask)) & kClockMask;
}

}  // namespace fmp4mux
