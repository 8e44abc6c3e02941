// SCTE-35 in fmp4mux: the host's reading of hand-made splice_info_section()s, and the emsg box and its place in a
// segment. Every section below was laid out field by field from ANSI/SCTE 35 (section 9: splice_info_section(),
// splice_insert(), time_signal(), splice_time(), break_duration()); the last four bytes of each are its CRC_32,
// worked out with a bitwise CRC-32/MPEG-2 in python3 (polynomial 0x04C11DB7, register from 0xFFFFFFFF, no
// reflection, no final XOR).
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/splice_info.h"
#include "apps/fmp4mux/model/splices.h"

namespace {
using namespace fmp4mux;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kWrap = std::uint64_t{1} << 33;

Bytes hex(const std::string& text) {
    Bytes out;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) out.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return out;
}

// FC: table_id. 30 25: section_syntax_indicator 0, private_indicator 0, sap_type 3, section_length 0x025 (37).
// 00: protocol_version. 01 FF FE A0 70: encrypted_packet 0, encryption_algorithm 0, pts_adjustment
// 0x1FFFEA070 = 2^33 - 90000. 00: cw_index. FF F0 14: tier 0xFFF, splice_command_length 0x014 (20). 05: splice_insert.
// 00 00 12 34: splice_event_id. 7F: not cancelled. EF: out_of_network 1, program_splice 1, duration 1, immediate 0.
// FE 00 07 86 90: time_specified 1, pts_time 0x78690 (493200). FE 00 02 BF 20: auto_return 1, duration 180000 (2 s).
// 00 01 00 00: unique_program_id 1, avail_num 0, avails_expected 0. 00 00: no descriptors. 2B F4 5B 33: CRC_32.
const std::string kInsert = "fc30250001fffea07000fff01405000012347feffe00078690fe0002bf200001000000002bf45b33";
// time_signal(): as above to the command; FF F0 05: command length 5. 06: time_signal. FE 00 0B A5 40: pts_time
// 763200. 00 11: 17 bytes of descriptors: a segmentation_descriptor(), tag 02, length 0F, "CUEI", event id
// 0x4800008F, 7F (not cancelled), FF (program segmentation, no duration, delivery not restricted), UPID type 0 of
// length 0, segmentation_type_id 0x30, segment 1 of 1. EF 5C 90 5D: CRC_32.
const std::string kSignal = "fc30270001fffea07000fff00506fe000ba5400011020f435545494800008f7fff0000300101ef5c905d";
// splice_insert(), pts_adjustment 0, length 0x00A: event 0x42, 7F, DF: out_of_network 1, program_splice 1,
// duration 0, splice_immediate 1 (so no splice_time()); 00 01 00 00. CRC_32 CF A3 EC 92.
const std::string kImmediate = "fc301b00000000000000fff00a05000000427fdf000100000000cfa3ec92";
// splice_null(): command type 00, length 0. CRC_32 7A 4F BF FF.
const std::string kNull = "fc301100000000000000fff0000000007a4fbfff";
// splice_insert() of event 0x43 with splice_event_cancel_indicator 1 (FF): nothing follows but the ids' end.
const std::string kCancelled = "fc301600000000000000fff0050500000043ff0000d8e13b1a";

struct SectionCase {
    std::string name;
    Bytes bytes;
    bool readable;
    std::uint8_t command;
    bool out;
    std::optional<std::uint64_t> breakDuration;
    std::uint64_t clock;                  // the section's clock value
    std::optional<std::uint64_t> delay;   // of the splice after it
};
void PrintTo(const SectionCase& c, std::ostream* os) { *os << c.name; }
class SpliceSections : public ::testing::TestWithParam<SectionCase> {};

TEST_P(SpliceSections, ReadAsTheStandardLaysThemOut) {
    const SectionCase& c = GetParam();
    std::string why;
    const auto info = readSpliceInfo(c.bytes, why);
    ASSERT_EQ(info.has_value(), c.readable) << why;
    if (!info) return;
    EXPECT_EQ(info->commandType, c.command);
    EXPECT_EQ(info->outOfNetwork, c.out);
    EXPECT_EQ(info->breakDuration, c.breakDuration);
    EXPECT_EQ(spliceDelay(*info, c.clock), c.delay);
}

Bytes broken(Bytes b, std::size_t at) {
    b[at] ^= 0x01;
    return b;
}

Bytes truncated(Bytes b) {
    b.pop_back();
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Table, SpliceSections,
    ::testing::Values(
        // (493200 + 2^33 - 90000) mod 2^33 = 403200, 261000 ticks after a clock of 142200.
        SectionCase{"InsertOutWithBreak", hex(kInsert), true, 5, true, 180000, 142200, 261000},
        // 763200 - 90000 = 673200 lies past the wrap of a clock 45000 ticks short of 2^33: 718200 ticks on.
        SectionCase{"TimeSignalAcrossTheWrap", hex(kSignal), true, 6, false, std::nullopt, kWrap - 45000, 718200},
        SectionCase{"InsertImmediate", hex(kImmediate), true, 5, true, std::nullopt, 5000, 0},
        SectionCase{"SpliceNull", hex(kNull), true, 0, false, std::nullopt, 0, std::nullopt},
        SectionCase{"Cancelled", hex(kCancelled), true, 5, false, std::nullopt, 0, std::nullopt},
        SectionCase{"Truncated", truncated(hex(kInsert)), false, 0, false, std::nullopt, 0, std::nullopt},
        SectionCase{"CrcMismatch", broken(hex(kInsert), 20), false, 0, false, std::nullopt, 0, std::nullopt},
        SectionCase{"NotASpliceTable", broken(hex(kNull), 0), false, 0, false, std::nullopt, 0, std::nullopt}),
    [](const auto& test) { return test.param.name; });

TEST(SpliceSections, MessageTimesTheSpliceFromItsClock) {
    // The packager's input form: the clock value 142200 (0x22B78) in 8 bytes, then the section; the clock at
    // 1.58 s of the running timeline puts the splice 261000 ticks (2.9 s) later.
    Bytes message = hex("0000000000022b78" + kInsert);
    std::string why;
    const auto splice = spliceOf(message, 15800000, why);
    ASSERT_TRUE(splice) << why;
    EXPECT_EQ(splice->first, 15800000 + 29000000);
    EXPECT_EQ(splice->second.kind, SpliceEvent::Kind::Out);
    EXPECT_EQ(splice->second.duration, 20000000u);
    EXPECT_EQ(splice->second.section, hex(kInsert));
}

TEST(SpliceMessage, BoxAsIso23009Lays) {
    SpliceEvent event{7, 30800000, 20000000, SpliceEvent::Kind::Out, {0xFC, 0x30, 0x11}};
    // size 61 = 8 header + 4 version/flags + 4 timescale + 8 presentation_time + 4 duration + 4 id + 25 scheme with
    // its zero + 1 empty value + 3 message; timescale 90000 (0x15F90); 3.08 s is 277200 (0x43AD0) ticks, 2 s 180000
    // (0x2BF20).
    const Bytes expected = hex("0000003d656d736701000000""00015f90""0000000000043ad0""0002bf20""00000007"
                               "75726e3a736374653a7363746533353a323031333a62696e00""00""fc3011");
    EXPECT_EQ(spliceMessageBox(event, 90000), expected);
}

}  // namespace
