#pragma once
// The few fields of an SCTE-35 splice_info_section() (ANSI/SCTE 35) that fmp4mux turns into events players
// understand: the command, and for splice_insert() and time_signal() when the splice happens. The engine reads
// the sections for its own downstream; this reading is the host's own, small and apart from it.
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace fmp4mux {

struct SpliceInfo {
    static constexpr std::uint8_t kSpliceNull = 0x00, kSpliceInsert = 0x05, kTimeSignal = 0x06;
    std::uint8_t commandType = 0;
    std::uint64_t ptsAdjustment = 0;  // 33 bits, 90 kHz
    // splice_insert()
    std::uint32_t eventId = 0;
    bool cancelled = false;
    bool outOfNetwork = false;
    bool programSplice = true;  // one time for the whole program, not one per component
    bool immediate = false;
    std::optional<std::uint64_t> breakDuration;  // 90 kHz
    // The splice_time() of splice_insert() (of the program) or time_signal(), as sent: 33 bits, 90 kHz.
    std::optional<std::uint64_t> ptsTime;
};

// CRC-32 of MPEG-2 sections: polynomial 0x04C11DB7, register starting at all ones, no reflection, no final XOR.
// Over a whole section, its CRC_32 field included, it is 0.
std::uint32_t mpeg2Crc32(std::span<const std::uint8_t> bytes);

// Reads one whole section (table_id 0xFC up to and with its CRC_32). None, with `why`, when the bytes are not a
// section whose CRC holds, or are encrypted, or end before the fields read.
std::optional<SpliceInfo> readSpliceInfo(std::span<const std::uint8_t> section, std::string& why);

// How long after `clock` (the 33-bit 90 kHz clock value the section came with) the splice happens, in 90 kHz ticks:
// the splice time is (pts_time + pts_adjustment) modulo 2^33, counted forward from `clock` across the wrap; an
// immediate splice happens at `clock`. None when the section makes no event: splice_null and the other commands,
// a cancelled event, a splice of components only, a splice_time() without a time.
std::optional<std::uint64_t> spliceDelay(const SpliceInfo& info, std::uint64_t clock);

}  // namespace fmp4mux
