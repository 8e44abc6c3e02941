#include "packaging/lib_parse_es/scte35.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

#include "packaging/lib_parse_es/bit_reader.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {
namespace SCTE_35 {

namespace {

std::uint64_t read33(BitReader& r) {
    const std::uint64_t high = r.readBits(1);
    return high << 32 | r.readBits(32);
}

SpliceTime readSpliceTime(BitReader& r) {
    SpliceTime t;
    t.timeSpecifiedFlag = r.readFlag();
    if (t.timeSpecifiedFlag) {
        r.skipBits(6);
        t.ptsTime = read33(r);
    } else {
        r.skipBits(7);
    }
    return t;
}

BreakDuration readBreakDuration(BitReader& r) {
    BreakDuration d;
    d.autoReturn = r.readFlag();
    r.skipBits(6);
    d.duration = read33(r);
    return d;
}

// What splice_insert() and each splice_schedule() event share after the flags: components, break duration and
// the program's numbers. `insert` tells the form of a component's time.
void readEventTail(BitReader& r, SpliceEvent& e, bool insert, bool immediate) {
    if (!e.programSpliceFlag) {
        const std::uint32_t count = r.readByte();
        for (std::uint32_t i = 0; i < count; ++i) {
            Component c;
            c.componentTag = static_cast<std::uint8_t>(r.readByte());
            if (insert && !immediate) c.spliceTime = readSpliceTime(r);
            if (!insert) c.utcSpliceTime = r.readBits(32);
            e.components.push_back(c);
        }
    }
    if (e.durationFlag) e.breakDuration = readBreakDuration(r);
    e.uniqueProgramId = static_cast<std::uint16_t>(r.readBits(16));
    e.availNum = static_cast<std::uint8_t>(r.readByte());
    e.availsExpected = static_cast<std::uint8_t>(r.readByte());
}

SpliceInsert readSpliceInsert(BitReader& r) {
    SpliceInsert s;
    s.spliceEventId = r.readBits(32);
    s.spliceEventCancelIndicator = r.readFlag();
    r.skipBits(7);
    if (s.spliceEventCancelIndicator) return s;
    s.outOfNetworkIndicator = r.readFlag();
    s.programSpliceFlag = r.readFlag();
    s.durationFlag = r.readFlag();
    s.spliceImmediateFlag = r.readFlag();
    r.skipBits(4);
    if (s.programSpliceFlag && !s.spliceImmediateFlag) s.spliceTime = readSpliceTime(r);
    readEventTail(r, s, true, s.spliceImmediateFlag);
    return s;
}

SpliceSchedule readSpliceSchedule(BitReader& r) {
    SpliceSchedule s;
    const std::uint32_t count = r.readByte();
    for (std::uint32_t i = 0; i < count; ++i) {
        ScheduledEvent e;
        e.spliceEventId = r.readBits(32);
        e.spliceEventCancelIndicator = r.readFlag();
        r.skipBits(7);
        if (!e.spliceEventCancelIndicator) {
            e.outOfNetworkIndicator = r.readFlag();
            e.programSpliceFlag = r.readFlag();
            e.durationFlag = r.readFlag();
            r.skipBits(5);
            if (e.programSpliceFlag) e.utcSpliceTime = r.readBits(32);
            readEventTail(r, e, false, false);
        }
        s.events.push_back(std::move(e));
    }
    return s;
}

void append(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void append(std::string& out, const char* format, ...) {
    char line[160];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    out += line;
}

void dumpSpliceTime(std::string& out, const SpliceTime& t) {
    append(out, "splice_time()\n");
    append(out, "time_specified_flag: 0x%.2X\n", unsigned{t.timeSpecifiedFlag});
    if (t.timeSpecifiedFlag) append(out, "pts_time: %" PRId64 "\n", static_cast<std::int64_t>(t.ptsTime));
}

void dumpBreakDuration(std::string& out, const BreakDuration& d) {
    append(out, "break_duration()\n");
    append(out, "auto_return: 0x%.2X\n", unsigned{d.autoReturn});
    append(out, "duration: %" PRId64 "\n", static_cast<std::int64_t>(d.duration));
}

void dumpInsert(std::string& out, const SpliceInsert& s) {
    append(out, "splice_insert()\n");
    append(out, "splice_event_id: 0x%.2X\n", s.spliceEventId);
    append(out, "splice_event_cancel_indicator:0x%.2X\n", unsigned{s.spliceEventCancelIndicator});
    if (s.spliceEventCancelIndicator) return;
    append(out, "out_of_network_indicator: 0x%.2X\n", unsigned{s.outOfNetworkIndicator});
    append(out, "program_splice_flag: 0x%.2X\n", unsigned{s.programSpliceFlag});
    append(out, "duration_flag: 0x%.2X\n", unsigned{s.durationFlag});
    append(out, "splice_immediate_flag: 0x%.2X\n", unsigned{s.spliceImmediateFlag});
    if (s.programSpliceFlag && !s.spliceImmediateFlag) dumpSpliceTime(out, s.spliceTime);
    if (!s.programSpliceFlag) {
        append(out, "component_count: 0x%.2X\n", static_cast<unsigned>(s.components.size()));
        for (std::size_t i = 0; i < s.components.size(); ++i) {
            append(out, "component_tag[%d]: 0x%.2X\n", static_cast<int>(i), unsigned{s.components[i].componentTag});
            if (!s.spliceImmediateFlag) dumpSpliceTime(out, s.components[i].spliceTime);
        }
    }
    if (s.durationFlag) dumpBreakDuration(out, s.breakDuration);
    append(out, "unique_program_id: 0x%.2X\n", unsigned{s.uniqueProgramId});
    append(out, "avail_num: 0x%.2X\n", unsigned{s.availNum});
    append(out, "avails_expected: 0x%.2X\n", unsigned{s.availsExpected});
}

void dumpSchedule(std::string& out, const SpliceSchedule& s) {
    append(out, "splice_schedule()\n");
    append(out, "splice_count: 0x%.2X\n", static_cast<unsigned>(s.events.size()));
    for (std::size_t k = 0; k < s.events.size(); ++k) {
        const ScheduledEvent& e = s.events[k];
        const int i = static_cast<int>(k);
        append(out, "splice_event_id[%d]: 0x%.2X\n", i, e.spliceEventId);
        append(out, "splice_event_cancel_indicator[%d]: 0x%.2X\n", i, unsigned{e.spliceEventCancelIndicator});
        if (e.spliceEventCancelIndicator) continue;
        append(out, "out_of_network_indicator[%d]: 0x%.2X\n", i, unsigned{e.outOfNetworkIndicator});
        append(out, "program_splice_flag[%d]: 0x%.2X\n", i, unsigned{e.programSpliceFlag});
        append(out, "duration_flag[%d]: 0x%.2X\n", i, unsigned{e.durationFlag});
        if (e.programSpliceFlag) {
            append(out, "utc_splice_time[%d]: %d\n", i, static_cast<int>(e.utcSpliceTime));
        } else {
            append(out, "component_count[%d]: 0x%.2X\n", i, static_cast<unsigned>(e.components.size()));
            for (std::size_t j = 0; j < e.components.size(); ++j) {
                append(out, "component_tag[%d][%d]: 0x%.2X\n", i, static_cast<int>(j), unsigned{e.components[j].componentTag});
                append(out, "utc_splice_time[%d][%d]: %d\n", i, static_cast<int>(j),
                       static_cast<int>(e.components[j].utcSpliceTime));
            }
        }
        if (e.durationFlag) dumpBreakDuration(out, e.breakDuration);
    }
}

}  // namespace

SpliceInfoSection parseSpliceInfoSection(const std::uint8_t* bytes, std::size_t size) {
    BitReader r(bytes, size);
    SpliceInfoSection s;
    s.tableId = static_cast<std::uint8_t>(r.readByte());
    s.sectionSyntaxIndicator = r.readFlag();
    s.privateIndicator = r.readFlag();
    r.skipBits(2);
    s.sectionLength = static_cast<std::uint16_t>(r.readBits(12));
    s.protocolVersion = static_cast<std::uint8_t>(r.readByte());
    s.encryptedPacket = r.readFlag();
    s.encryptionAlgorithm = static_cast<std::uint8_t>(r.readBits(6));
    s.ptsAdjustment = read33(r);
    s.cwIndex = static_cast<std::uint8_t>(r.readByte());
    s.tier = static_cast<std::uint16_t>(r.readBits(12));
    s.spliceCommandLength = static_cast<std::uint16_t>(r.readBits(12));
    s.spliceCommandType = static_cast<std::uint8_t>(r.readByte());
    switch (s.spliceCommandType) {
        case 4: s.command = readSpliceSchedule(r); break;
        case 5: s.command = readSpliceInsert(r); break;
        case 6: s.command = TimeSignal{readSpliceTime(r)}; break;
        default:
            s.command = OtherCommand{};
            // The body of a command this parser does not read is passed over by its stated length.
            if (s.spliceCommandLength != 0xFFF) r.skipBits(std::size_t{s.spliceCommandLength} * 8);
            break;
    }
    s.descriptorLoopLength = static_cast<std::uint16_t>(r.readBits(16));
    for (std::size_t used = 0; used < s.descriptorLoopLength;) {
        SpliceDescriptor d;
        d.spliceDescriptorTag = static_cast<std::uint8_t>(r.readByte());
        d.descriptorLength = static_cast<std::uint8_t>(r.readByte());
        if (d.descriptorLength < 4 || d.descriptorLength == 255) throw Exception("Bad splice descriptor size");
        d.identifier = r.readBits(32);
        for (int i = 0; i < d.descriptorLength - 4; ++i) d.privateBytes.push_back(static_cast<std::uint8_t>(r.readByte()));
        used += 2u + d.descriptorLength;
        s.descriptors.push_back(std::move(d));
    }
    return s;
}

std::optional<std::uint64_t> splicePtsTime(const SpliceInfoSection& section) {
    switch (section.command.index()) {
        case 0:
        case 3: throw Exception("Unmanaged command type");
        case 1: {
            const auto& s = std::get<SpliceInsert>(section.command);
            if (s.spliceEventCancelIndicator || !s.programSpliceFlag || s.spliceImmediateFlag ||
                !s.spliceTime.timeSpecifiedFlag)
                return std::nullopt;
            return s.spliceTime.ptsTime;
        }
        case 2: {
            const auto& t = std::get<TimeSignal>(section.command).spliceTime;
            return t.timeSpecifiedFlag ? std::optional(t.ptsTime) : std::nullopt;
        }
        default: throw std::runtime_error("internal assertion failure");
    }
}

std::string dumpSpliceInfoSection(const SpliceInfoSection& s) {
    std::string out;
    append(out, "splice_info_section()\n");
    append(out, "table_id: 0x%.2X\n", unsigned{s.tableId});
    append(out, "section_syntax_indicator: 0x%.2X\n", unsigned{s.sectionSyntaxIndicator});
    append(out, "private_indicator: 0x%.2X\n", unsigned{s.privateIndicator});
    append(out, "section_length: 0x%.2X\n", unsigned{s.sectionLength});
    append(out, "protocol_version: 0x%.2X\n", unsigned{s.protocolVersion});
    append(out, "encrypted_packet: 0x%.2X\n", unsigned{s.encryptedPacket});
    append(out, "encryption_algorithm: 0x%.2X\n", unsigned{s.encryptionAlgorithm});
    append(out, "pts_adjustement: %" PRId64 "\n", static_cast<std::int64_t>(s.ptsAdjustment));
    append(out, "cw_index: 0x%.2X\n", unsigned{s.cwIndex});
    append(out, "splice_command_length: 0x%.2X\n", unsigned{s.spliceCommandLength});
    append(out, "splice_command_type: 0x%.2X\n", unsigned{s.spliceCommandType});
    if (const auto* schedule = std::get_if<SpliceSchedule>(&s.command)) dumpSchedule(out, *schedule);
    if (const auto* insert = std::get_if<SpliceInsert>(&s.command)) dumpInsert(out, *insert);
    if (const auto* signal = std::get_if<TimeSignal>(&s.command)) {
        append(out, "time_signal()\n");
        dumpSpliceTime(out, signal->spliceTime);
    }
    if (std::holds_alternative<OtherCommand>(s.command)) append(out, "unknown_splice_command()\n");
    append(out, "descriptor_loop_length: 0x%X\n", unsigned{s.descriptorLoopLength});
    for (const SpliceDescriptor& d : s.descriptors) {
        append(out, "splice_descriptor()\n");
        append(out, "splice_descriptor_tag: 0x%x\n", unsigned{d.spliceDescriptorTag});
        append(out, "descriptor_length: 0x%x\n", unsigned{d.descriptorLength});
        append(out, "identifier: 0x%x\n", d.identifier);
        append(out, "private_bytes:");
        for (const std::uint8_t b : d.privateBytes) append(out, "%x,", unsigned{b});
    }
    return out;
}

}  // namespace SCTE_35
}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
