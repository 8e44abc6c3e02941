// SCTE-35 sections worked out bit by bit from ANSI/SCTE 35 (splice_info_section, splice_insert, time_signal,
// splice_time, break_duration, an avail descriptor), the splice time their messages take, and the builders that
// accumulate or re-align.
#include <gtest/gtest.h>

#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"
#include "packaging/lib_parse_es/nal_builder_metadata.h"
#include "packaging/lib_parse_es/scte35.h"
#include "tests/common/bytes.h"
#include "tests/common/loggers.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;
namespace scte = es::SCTE_35;

// splice_insert(): event 0x4800008F, out of network, a program splice with a break, at pts_time 0x100001000 (its
// 33rd bit set), a 30 s break (2700000) that returns by itself; one avail descriptor "CUEI", provider avail 0x135.
const Bytes kInsert = hex(
    "FC 302F 00 0000000000 FF FFF014 05"  // table, section_length 47, pts_adjustment 0, cw_index, tier, length 20
    "4800008F 7F EF FF00001000 FE002932E0 0001 00 00"  // event, flags, splice_time, break_duration, program
    "000A 00084355454900000135 00000000");            // descriptors, CRC_32
// time_signal() at pts_time 0x20 with pts_adjustment 2^33 - 16: the splice falls at 16 after the wrap.
const Bytes kTimeSignal = hex("FC 3016 00 01FFFFFFF0 FF FFF005 06 FE00000020 0000 00000000");

// A message as the SCTE-35 input takes it: the reference clock value, then the section.
Bytes message(std::uint64_t reference, const Bytes& section) {
    Bytes out;
    for (int shift = 56; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(reference >> shift));
    return cat({out, section});
}

TEST(Scte35, SpliceInsertParsedAndDumpedFieldByField) {
    const scte::SpliceInfoSection s = scte::parseSpliceInfoSection(kInsert.data(), kInsert.size());
    EXPECT_EQ(s.sectionLength, 47u);
    ASSERT_EQ(s.command.index(), 1u);
    EXPECT_EQ(scte::splicePtsTime(s), 0x100001000u);
    EXPECT_EQ(scte::dumpSpliceInfoSection(s),
              "splice_info_section()\ntable_id: 0xFC\nsection_syntax_indicator: 0x00\nprivate_indicator: 0x00\n"
              "section_length: 0x2F\nprotocol_version: 0x00\nencrypted_packet: 0x00\nencryption_algorithm: 0x00\n"
              "pts_adjustement: 0\ncw_index: 0xFF\nsplice_command_length: 0x14\nsplice_command_type: 0x05\n"
              "splice_insert()\nsplice_event_id: 0x4800008F\nsplice_event_cancel_indicator:0x00\n"
              "out_of_network_indicator: 0x01\nprogram_splice_flag: 0x01\nduration_flag: 0x01\n"
              "splice_immediate_flag: 0x00\nsplice_time()\ntime_specified_flag: 0x01\npts_time: 4294971392\n"
              "break_duration()\nauto_return: 0x01\nduration: 2700000\nunique_program_id: 0x01\navail_num: 0x00\n"
              "avails_expected: 0x00\ndescriptor_loop_length: 0xA\nsplice_descriptor()\nsplice_descriptor_tag: 0x0\n"
              "descriptor_length: 0x8\nidentifier: 0x43554549\nprivate_bytes:0,0,1,35,");
    const scte::SpliceInfoSection t = scte::parseSpliceInfoSection(kTimeSignal.data(), kTimeSignal.size());
    EXPECT_EQ(t.ptsAdjustment, 0x1FFFFFFF0u);
    EXPECT_EQ(scte::splicePtsTime(t), 0x20u);
}

// Each message into the builder with a buffer time of 1 s: what reaches the listener, and the splice time.
TEST(Scte35, MessagesTheBuilderPassesWithTheirSpliceTimeOrDrops) {
    const std::int64_t t90 = 90000;
    struct Row { const char* name; Bytes bytes; bool delivered; std::optional<std::int64_t> splice90k; };
    const Row rows[] = {
        // The splice 1 s after the section's clock: 2 s on the buffers' clock.
        {"insert", message(0x100001000 - 90000, kInsert), true, t90 + 90000},
        // The reference just before the clock wraps, the splice just after it: 90 ticks ahead, not backwards.
        {"wrap", message(0x1FFFFFFB6, kTimeSignal), true, t90 + 90},
        // splice_immediate_flag: no splice_time, and no splice time.
        {"immediate", message(0, hex("FC 301B 00 0000000000 FF FFF00A 05 4800008F 7F DF 0001 00 00 0000 00000000")),
         true, std::nullopt},
        // A cancelled event ends after its flag.
        {"cancelled", message(0, hex("FC 3016 00 0000000000 FF FFF005 05 4800008F FF 0000 00000000")), true,
         std::nullopt},
        {"time_signal without a time", message(0, hex("FC 3012 00 0000000000 FF FFF001 06 7F 0000 00000000")), true,
         std::nullopt},
        {"splice_null", message(0, hex("FC 3011 00 0000000000 FF FFF000 00 0000 00000000")), false, std::nullopt},
        {"splice_schedule", message(0, hex("FC 3012 00 0000000000 FF FFF001 04 00 0000 00000000")), false, std::nullopt},
        {"descriptor of length 3", message(0, hex("FC 3017 00 0000000000 FF FFF001 06 7F 0005 0003434545 00000000")),
         false, std::nullopt},
        {"shorter than the prefix", hex("00000000 0000"), false, std::nullopt},
        {"a prefix alone: a section of zeros, a splice_null", Bytes(8, 0), false, std::nullopt},
    };
    for (const Row& row : rows) {
        es::NALBuilderSCTE35 builder;
        NalCollector collector;
        RecordingLogger logger;
        builder.setListener(&collector);
        builder.setLogger(&logger);
        builder.push(makeBuffer(row.bytes, t90, t90 / 2).get());
        ASSERT_EQ(collector.nals.size(), row.delivered ? 1u : 0u) << row.name;
        // A dropped message leaves one debug line with the parser's reason.
        const auto logs = logger.lines();
        EXPECT_EQ(logs.size(), row.delivered ? 0u : 1u) << row.name;
        for (const std::string& line : logs) EXPECT_EQ(line.rfind("3 SCTE-35 section dropped: ", 0), 0u) << line;
        if (!row.delivered) continue;
        const auto& nal = static_cast<const es::NALSCTE35&>(*collector.nals[0]);
        EXPECT_EQ(collector.bytesOf(0), row.bytes) << row.name;
        EXPECT_EQ(nal.timing.time90kHz(), t90);
        EXPECT_TRUE(nal.hasMediaTime90k && nal.mediaTime90k == t90 / 2) << row.name;
        EXPECT_EQ(nal.hasSpliceTime ? std::optional(nal.spliceTime) : std::nullopt, row.splice90k) << row.name;
    }
}

TEST(MetadataBuilders, SyncPointsCutAccumulatedUnitsAndTransportStreamsRealignTo188Bytes) {
    auto buffer = [](const Bytes& bytes, bool sync, std::int64_t t90) {
        auto b = makeBuffer(bytes, t90);
        b->SetSyncPoint(sync);
        return b;
    };
    // KLV: a sync point on the first buffer emits nothing; the next one emits the run before it; empty buffers
    // are not queued.
    es::NalBuilderSyncPointBased<es::NalInputTypeGeneric<es::StreamType::KLV>> klv;
    NalCollector units;
    klv.setListener(&units);
    klv.push(buffer({1, 2}, true, 10).get());
    klv.push(buffer({}, false, 20).get());
    klv.push(buffer({3}, false, 30).get());
    EXPECT_TRUE(units.nals.empty());
    klv.push(buffer({4}, true, 40).get());
    klv.flush();
    EXPECT_EQ(units.all(), (std::vector<Bytes>{{1, 2, 3}, {4}}));
    EXPECT_EQ(units.nals[0]->timing.time90kHz(), 10);
    EXPECT_EQ(units.nals[0]->type, static_cast<std::int32_t>(es::StreamType::KLV));

    // A transport stream cut anywhere: bytes before the first 0x47 skipped, then packets of 188 bytes timed by
    // the buffer each began in.
    Bytes ts = {0x00, 0x12};
    for (int p = 0; p < 3; ++p) {
        ts.push_back(0x47);
        ts.insert(ts.end(), 187, static_cast<std::uint8_t>(p));
    }
    es::NALBuilderMpeg2ts realign;
    NalCollector packets;
    realign.setListener(&packets);
    for (const auto& [from, to] : {std::pair{0, 1}, {1, 100}, {100, 290}, {290, 566}})
        realign.push(makeBuffer(Bytes(ts.begin() + from, ts.begin() + to), from).get());
    realign.flush();
    ASSERT_EQ(packets.nals.size(), 3u);
    for (std::size_t p = 0; p < 3; ++p) EXPECT_EQ(packets.bytesOf(p), slice(ts, 2 + 188 * p, 188)) << p;
    EXPECT_EQ(packets.nals[0]->timing.time90kHz(), 1);
    EXPECT_EQ(packets.nals[1]->timing.time90kHz(), 100);
    EXPECT_EQ(packets.nals[2]->timing.time90kHz(), 290);
    EXPECT_EQ(packets.ends, 1);
}

}  // namespace
