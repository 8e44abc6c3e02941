// fmp4mux's MPEG-TS demultiplexer on transport packets built by hand from ISO/IEC 13818-1: each case's packets
// go in whole and cut into 7-byte pieces, and what comes out (PES and sections, their times and flags, and the
// counts of what was lost) must be the same both ways.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/inputs/ts_demux.h"
#include "apps/fmp4mux/inputs/ts_probe.h"

namespace {
using fmp4mux::TsDemux;

// Bytes from text: hexadecimal pairs, and "XX*N" for N bytes of XX.
std::vector<std::uint8_t> hex(const std::string& text) {
    std::vector<std::uint8_t> out;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] == ' ') {
            ++at;
            continue;
        }
        const auto value = static_cast<std::uint8_t>(std::stoi(text.substr(at, 2), nullptr, 16));
        at += 2;
        std::size_t count = 1;
        if (at < text.size() && text[at] == '*') {
            std::size_t used = 0;
            count = std::stoul(text.substr(at + 1), &used);
            at += 1 + used;
        }
        out.insert(out.end(), count, value);
    }
    return out;
}

// One transport packet: the 4-byte header, then with adaptation_field_control 2 or 3 an adaptation field (its
// length byte, then `adaptation`, flags first, or a flags byte of 0, then FF stuffing) that fills the packet up to
// `payload`; with control 1 the payload then FF, the stuffing after the last section of a packet.
std::vector<std::uint8_t> ts(const std::string& header, const std::string& payload, const std::string& adaptation = "") {
    std::vector<std::uint8_t> p = hex(header);
    const std::vector<std::uint8_t> body = hex(payload);
    if ((p[3] & 0x20) != 0) {
        const std::vector<std::uint8_t> field = hex(adaptation.empty() ? "00" : adaptation);
        p.push_back(static_cast<std::uint8_t>(183 - body.size()));
        p.insert(p.end(), field.begin(), field.end());
        p.resize(188 - body.size(), 0xFF);
    }
    p.insert(p.end(), body.begin(), body.end());
    p.resize(188, 0xFF);
    return p;
}

// PAT: table_id 0, section_syntax_indicator 1, section_length 13, transport_stream_id 1, version 0, current; program
// 1 on PMT PID 0x100; CRC_32 (CRC-32/MPEG-2 of the bytes before it, computed bit by bit apart from this code).
const auto kPat = ts("47 40 00 10", "00 00 B0 0D 00 01 C1 00 00 00 01 E1 00 E8 F9 5E 7D");
// PMT of program 1, version 0: PCR on 0x101; H.264 (type 0x1B) on 0x101, ADTS (0x0F) on 0x102, SCTE-35 (0x86) on
// 0x103, no descriptors (section_length 28). Version 1 (C3) leaves the audio out (section_length 23).
// A PAT section of length 0 (B0 00), then the PAT again with counter 1.
const auto kEmptyPat = ts("47 40 00 10", "00 00 B0 00");
const auto kPatAgain = ts("47 40 00 11", "00 00 B0 0D 00 01 C1 00 00 00 01 E1 00 E8 F9 5E 7D");
// The PAT in two sections (section_number 0 and 1, last_section_number 1): program 2 on PMT PID 0x200 in the
// first, program 1 on 0x100 in the second; CRCs worked out as above.
const auto kPatFirstOfTwo = ts("47 40 00 10", "00 00 B0 0D 00 01 C1 00 01 00 02 E2 00 D1 76 93 AA");
const auto kPatSecondOfTwo = ts("47 40 00 11", "00 00 B0 0D 00 01 C1 01 01 00 01 E1 00 BA DC 34 88");
const auto kPmt = ts("47 41 00 10", "00 02 B0 1C 00 01 C1 00 00 E1 01 F0 00 1B E1 01 F0 00 0F E1 02 F0 00 86 E1 03 F0 00 "
                                    "15 E9 47 57");
const auto kPmtV1 = ts("47 41 00 11", "00 02 B0 17 00 01 C3 00 00 E1 01 F0 00 1B E1 01 F0 00 86 E1 03 F0 00 B5 26 6E D7");
// Video PES without a length (00 00), PTS and DTS (flags C0, 10 header bytes): PTS 126000 = 0x1EC30 is bits
// 32..30 0, 29..15 3, 14..0 0x6C30, written '0011' 000 1, (3 << 1) | 1, (0x6C30 << 1) | 1 = 31 00 07 D8 61; DTS
// 122400 = 3 << 15 | 0x5E20, with '0001': 11 00 07 BC 41. 165 payload bytes fill the packet; the next packet
// (continuity counter 1) carries 10 more behind adaptation-field stuffing.
const auto kVideo = ts("47 41 01 10", "00 00 01 E0 00 00 80 C0 0A 31 00 07 D8 61 11 00 07 BC 41 AB*165");
const auto kVideoEnd = ts("47 01 01 31", "CD*10");
const auto kVideoEndAfterGap = ts("47 01 01 33", "CD*10");  // counter 3: two packets lost
const auto kVideoOtherWithCounter0 = ts("47 01 01 30", "CD*10");  // the counter of kVideo, other bytes
// A PES that starts with the discontinuity indicator (adaptation flags 80), counter 7: PTS only (flags 80), 129600
// = 3 << 15 | 0x7A40: 21 00 07 F4 81.
const auto kVideoAfterDiscontinuity = ts("47 41 01 37", "00 00 01 E0 00 00 80 80 05 21 00 07 F4 81 EE*4", "80");
// Audio PES of length 16 (3 + 5 header bytes + 8 of payload), PTS 126000 alone (prefix '0010': 21 00 07 D8 61).
const auto kAudio = ts("47 41 02 30", "00 00 01 C0 00 10 80 80 05 21 00 07 D8 61 A0*8");
const auto kAudioAgain = ts("47 41 02 31", "00 00 01 C0 00 10 80 80 05 21 00 07 D8 61 A0*8");
// Across the wrap: PTS 2^33 - 3600 (bits 7, 0x7FFF, 0x71F0: 2F FF FF E3 E1), then 3600 (21 00 01 1C 21).
const auto kAudioBeforeWrap = ts("47 41 02 30", "00 00 01 C0 00 0A 80 80 05 2F FF FF E3 E1 11 22");
const auto kAudioAfterWrap = ts("47 41 02 31", "00 00 01 C0 00 0A 80 80 05 21 00 01 1C 21 33 44");
// A PCR of 90000 on 0x101 (adaptation only, flags 10): base 0x15F90 in 33 bits, 6 reserved, extension 0.
const auto kPcr = ts("47 01 01 20", "", "10 00 00 AF C8 7E 00");
// A splice_null splice_info_section (table_id FC, section_length 17, CRC 7A 4F BF FF), cut after its tenth byte;
// then again, whole, with its last CRC byte wrong.
const auto kSpliceStart = ts("47 41 03 30", "00 FC 30 11 00 00 00 00 00 00 00");
const auto kSpliceEnd = ts("47 01 03 11", "FF F0 00 00 00 00 7A 4F BF FF");
const auto kSpliceBadCrc = ts("47 41 03 12", "00 FC 30 11 00 00 00 00 00 00 00 FF F0 00 00 00 00 7A 4F BF FE");

struct Case {
    std::string name;
    std::vector<std::vector<std::uint8_t>> packets;
    std::vector<std::string> out;  // what comes out, in order, then the counts
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class TsDemuxCases : public ::testing::TestWithParam<Case> {};

TEST_P(TsDemuxCases, GiveWhatTheBytesHold) {
    const Case& c = GetParam();
    std::vector<std::uint8_t> input;
    for (const auto& p : c.packets) input.insert(input.end(), p.begin(), p.end());
    for (const std::size_t piece : {input.size(), std::size_t{7}}) {
        SCOPED_TRACE(piece);
        std::vector<std::string> out;
        char text[200];
        TsDemux demux({[&](const TsDemux::Pes& p) {
                           std::snprintf(text, sizeof text, "pes %u %zu %02X-%02X pts=%lld dts=%lld%s%s", p.pid, p.size,
                                         p.data[0], p.data[p.size - 1], static_cast<long long>(p.pts.value_or(-1)),
                                         static_cast<long long>(p.dts.value_or(-1)), p.damaged ? " damaged" : "",
                                         p.discontinuity ? " discontinuity" : "");
                           out.push_back(text);
                       },
                       [&](const TsDemux::Section& s) {
                           std::snprintf(text, sizeof text, "section %u %zu clock=%lld", s.pid, s.size,
                                         static_cast<long long>(s.clock.value_or(-1)));
                           out.push_back(text);
                       },
                       [&](std::uint16_t pid) { out.push_back("gone " + std::to_string(pid)); },
                       nullptr, nullptr});
        for (std::size_t at = 0; at < input.size(); at += piece)
            demux.push(input.data() + at, std::min(piece, input.size() - at));
        demux.finish();
        const TsDemux::Stats& s = demux.stats();
        out.push_back("lost " + std::to_string(s.lost) + " duplicates " + std::to_string(s.duplicates) + " bad sections " +
                      std::to_string(s.badSections) + " PMT changes " + std::to_string(s.pmtChanges));
        EXPECT_EQ(out, c.out);
    }
}

INSTANTIATE_TEST_SUITE_P(
    HandBuilt, TsDemuxCases,
    ::testing::Values(
        // The bounded audio PES goes out when it is whole; the video PES at the end of the input.
        Case{"PesWithAndWithoutLength",
             {kPat, kPmt, kVideo, kAudio, kVideoEnd},
             {"pes 258 8 A0-A0 pts=126000 dts=126000", "pes 257 175 AB-CD pts=126000 dts=122400",
              "lost 0 duplicates 0 bad sections 0 PMT changes 0"}},
        Case{"GarbageBeforeTheFirstPacket",
             {hex("47 00 11 47 47 47 00*60 47 00*30"), kPat, kPmt, kVideo, kVideoEnd},
             {"pes 257 175 AB-CD pts=126000 dts=122400", "lost 0 duplicates 0 bad sections 0 PMT changes 0"}},
        Case{"ContinuityGap",
             {kPat, kPmt, kVideo, kVideoEndAfterGap},
             {"pes 257 175 AB-CD pts=126000 dts=122400 damaged", "lost 2 duplicates 0 bad sections 0 PMT changes 0"}},
        Case{"DuplicatePacket",
             {kPat, kPmt, kVideo, kVideo, kVideoEnd},
             {"pes 257 175 AB-CD pts=126000 dts=122400", "lost 0 duplicates 1 bad sections 0 PMT changes 0"}},
        // The same counter on other bytes is no repeat (packets out of order, or sixteen lost): a loss.
        Case{"SameCounterOtherBytes",
             {kPat, kPmt, kVideo, kVideoOtherWithCounter0, kVideoEnd},
             {"pes 257 185 AB-CD pts=126000 dts=122400 damaged", "lost 15 duplicates 0 bad sections 0 PMT changes 0"}},
        // The counter jumps at the indicator without a loss; the PES before ends there.
        Case{"DiscontinuityIndicator",
             {kPat, kPmt, kVideo, kVideoAfterDiscontinuity},
             {"pes 257 165 AB-AB pts=126000 dts=122400", "pes 257 4 EE-EE pts=129600 dts=129600 discontinuity",
              "lost 0 duplicates 0 bad sections 0 PMT changes 0"}},
        // The first time lies within 60 s of the wrap: it is put before 0, and the time after the wrap after it.
        Case{"WrapOf33Bits",
             {kPat, kPmt, kAudioBeforeWrap, kAudioAfterWrap},
             {"pes 258 2 11-22 pts=-3600 dts=-3600", "pes 258 2 33-44 pts=3600 dts=3600",
              "lost 0 duplicates 0 bad sections 0 PMT changes 0"}},
        Case{"PmtVersionChangeRemovesAStream",
             {kPat, kPmt, kAudio, kPmtV1, kAudioAgain},
             {"pes 258 8 A0-A0 pts=126000 dts=126000", "gone 258", "lost 0 duplicates 0 bad sections 0 PMT changes 1"}},
        Case{"SectionOfLengthZero",
             {kEmptyPat, kPatAgain, kPmt, kAudio},
             {"pes 258 8 A0-A0 pts=126000 dts=126000", "lost 0 duplicates 0 bad sections 1 PMT changes 0"}},
        Case{"ProgramInTheSecondSectionOfThePat",
             {kPatFirstOfTwo, kPatSecondOfTwo, kPmt, kAudio},
             {"pes 258 8 A0-A0 pts=126000 dts=126000", "lost 0 duplicates 0 bad sections 0 PMT changes 0"}},
        Case{"SectionAcrossPacketsThenOneWithABadCrc",
             {kPat, kPmt, kPcr, kSpliceStart, kSpliceEnd, kSpliceBadCrc},
             {"section 259 20 clock=90000", "lost 0 duplicates 0 bad sections 1 PMT changes 0"}}),
    [](const auto& test) { return test.param.name; });

// A PMT section from its bytes after section_length up to CRC_32, with both filled in: CRC-32/MPEG-2 bit by bit.
std::vector<std::uint8_t> pmtPacket(const std::string& header, const std::string& body) {
    std::vector<std::uint8_t> section = hex("02 00 00 " + body);
    const std::size_t length = section.size() - 3 + 4;
    section[1] = static_cast<std::uint8_t>(0xB0 | (length >> 8));
    section[2] = static_cast<std::uint8_t>(length);
    std::uint32_t crc = 0xFFFFFFFF;
    for (const std::uint8_t byte : section) {
        crc ^= static_cast<std::uint32_t>(byte) << 24;
        for (int k = 0; k < 8; ++k) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    for (int i = 0; i < 4; ++i) section.push_back(static_cast<std::uint8_t>(crc >> (24 - 8 * i)));
    std::string text = "00";  // pointer_field
    char byte[4];
    for (const std::uint8_t b : section) {
        std::snprintf(byte, sizeof byte, " %02X", b);
        text += byte;
    }
    return ts(header, text);
}

// Program 1 lists H.264 on 0x101; on 0x102 private PES with an AC-3 descriptor (6A) and the language "fra" (0A);
// MPEG-2 video on 0x103; DVB subtitles (descriptor 59, "eng") on 0x104; private sections (type 05) on 0x105;
// SCTE-35 on 0x106. Version 1 drops 0x102.
const std::string kEntries1 = "1B E1 01 F0 00 06 E1 02 F0 09 6A 01 00 0A 04 66 72 61 00";
const std::string kEntries2 = "02 E1 03 F0 00 06 E1 04 F0 0A 59 08 65 6E 67 10 00 01 00 01 05 E1 05 F0 00 86 E1 06 F0 00";
// An AC-3 sync frame header in a PES of length 24: 48 kHz at 192 kbit/s (fscod 0, frmsizecod 20: 14), bsid 8
// (40), acmod 3/2 then cmixlev 0, surmixlev 0, lfeon 1 (E1): 5.1.
const auto kAc3 = ts("47 41 02 10", "00 00 01 BD 00 18 80 80 05 21 00 07 D8 61 0B 77 00 00 14 40 E1 00 AA*8");

TEST(TsProbe, ListsEveryPmtEntryAsItFirstCameAndNamesWhatItCannotCarry) {
    std::vector<std::uint8_t> input;
    for (const auto& p : {kPat, pmtPacket("47 41 00 10", "00 01 C1 00 00 E1 01 F0 00 " + kEntries1 + " " + kEntries2), kAc3,
                          pmtPacket("47 41 00 11", "00 01 C3 00 00 E1 01 F0 00 1B E1 01 F0 00 " + kEntries2)})
        input.insert(input.end(), p.begin(), p.end());
    // Whole, and in pieces that cut packets anywhere and hold both PMT versions at once: the same list.
    for (const std::size_t piece : {input.size(), std::size_t{1}, std::size_t{100}, std::size_t{700}}) {
        SCOPED_TRACE(piece);
        fmp4mux::TsProbe probe;
        for (std::size_t at = 0; at < input.size(); at += piece)
            EXPECT_TRUE(probe.push(input.data() + at, std::min(piece, input.size() - at))) << "no picture size yet";
        probe.finish();
        std::vector<std::string> skipped;
        const auto contents = probe.contents(0, skipped, std::nullopt, nullptr);
        ASSERT_TRUE(contents);
        std::vector<std::string> kept;
        for (const fmp4mux::KeptStream& k : contents->kept)
            kept.push_back(std::to_string(k.sourceIndex) + " " + std::to_string(k.id) + " " + k.info.codec + " " +
                           k.info.kind + " type " + std::to_string(k.info.streamType) + " '" + k.info.language + "' " +
                           std::to_string(k.info.sampleRate) + " Hz " + std::to_string(k.info.channels) + " ch");
        EXPECT_EQ(kept, (std::vector<std::string>{"0 257 h264 video type 2 '' 0 Hz 0 ch",
                                                  "1 258 ac3 audio type 3 'fra' 48000 Hz 6 ch",
                                                  "5 262 scte_35 scte35 type 12 '' 0 Hz 0 ch"}));
        EXPECT_EQ(skipped, (std::vector<std::string>{"input 0 stream 2: video codec 'mpeg2video' is not supported",
                                                     "input 0 stream 3: subtitle codec 'dvb_subtitle' is not supported"}));
        EXPECT_EQ(contents->ignored, (std::vector<std::uint16_t>{0x103, 0x104, 0x105}));
        EXPECT_THROW(probe.contents(0, skipped, 2, nullptr), fmp4mux::ExitError);
    }
}

TEST(TsProbe, FindsNothingInWhatIsNoPlainTransportStream) {
    for (const std::vector<std::uint8_t>& bytes : {hex("00*752"), hex("47 00*191 47 00*191 47 00*191"), kAc3}) {
        fmp4mux::TsProbe probe;
        probe.push(bytes.data(), bytes.size());
        std::vector<std::string> skipped;
        EXPECT_FALSE(probe.contents(0, skipped, std::nullopt, nullptr));
        EXPECT_TRUE(skipped.empty());
    }
}

}  // namespace
