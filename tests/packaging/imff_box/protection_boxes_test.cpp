// Common Encryption boxes against layouts worked out from ISO/IEC 23001-7 (cenc, cbcs), ISO/IEC 14496-12 (saiz, saio,
// sbgp, sgpd) and PIFF (the uuid forms), and the boxes the track fragment builder adds for encrypted samples.
#include <gtest/gtest.h>

#include <optional>

#include "packaging/imff_box/fragment_builder.h"
#include "packaging/imff_box/protection_boxes.h"
#include "tests/common/boxes.h"
#include "tests/packaging/imff_box/box_samples.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;
using testkit::hex;
using testkit::BoxSample;
using testkit::pointers;
using testkit::writeBox;

// The GUID 00112233-4455-6677-8899-aabbccddeeff as it is held (first three groups little-endian) ...
const KeyId kKeyId = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
// ... and as every box must show it.
const std::string kKid = " 00112233 44556677 8899AABB CCDDEEFF ";
const Uuid kWidevine = uuidFromString("edef8ba9-79d6-4ace-a3c8-27dcd51d21ed");
const std::string kIvText = " F0F1F2F3 F4F5F6F7 F8F9FAFB FCFDFEFF";
const std::vector<std::uint8_t> kConstantIv = hex(kIvText);

TEST(ProtectionBoxes, Layouts) {
    auto sgpd = std::make_shared<SampleGroupDescriptionBox>(fourCC("seig"), 1, 0);
    sgpd->addEntry(std::make_shared<CencSampleEncryptionInformationAudioGroupEntry>(false, 16, kKeyId));
    // The W3C common system (ClearKey) lists the key id in a version 1 pssh and carries no data.
    auto listing = std::make_shared<ProtectionSystemSpecificHeaderBox>(
        uuidFromString("1077efec-c0b2-4d02-ace3-3c1e52e2fb4b"), std::vector<std::uint8_t>{});
    listing->listKeyIds({kKeyId});
    auto saio = std::make_shared<SampleAuxiliaryInformationOffsetsBox>(fourCC("cenc"), 0, 1);
    saio->addOffset(0);
    saio->setOffset(0, 0x1234);
    VisualSampleEntry video(fourCC("avc1"));
    AudioSampleEntry audio(fourCC("mp4a"));
    PlainTextSampleEntry text(fourCC("wvtt"));
    ASSERT_TRUE(protectSampleEntry(video, true, kKeyId, 8, true) && protectSampleEntry(audio, false, kKeyId, 16, false));
    VisualSampleEntry cbcsVideo(fourCC("hvc1"));
    AudioSampleEntry cbcsAudio(fourCC("mp4a"));
    ASSERT_TRUE(protectSampleEntry(cbcsVideo, true, kKeyId, 8, true, {}, kConstantIv) &&
                protectSampleEntry(cbcsAudio, true, kKeyId, 8, true, {}, kConstantIv));
    EXPECT_FALSE(protectSampleEntry(text, true, kKeyId, 8, true));
    EXPECT_EQ(fourCCText(video.getType()) + fourCCText(audio.getType()) + fourCCText(text.getType()), "encvencawvtt");
    const struct { std::shared_ptr<Box> box; std::string bytes; } cases[] = {
        // sinf: frma with the old type; schm version 0, flags 0, scheme and its version; schi holding tenc: version
        // 0, flags 0, default_isProtected 1 in 24 bits (two reserved bytes, then 1), IV size 8, key id
        {video.getProtection(), "00000050 'sinf' 0000000C 'frma' 'avc1' 00000014 'schm' 00000000 'cenc' 00010000"
                                " 00000028 'schi' 00000020 'tenc' 00000000 000001 08" + kKid},
        {audio.getProtection(), "00000050 'sinf' 0000000C 'frma' 'mp4a' 00000014 'schm' 00000000 'piff' 00010001"
                                " 00000028 'schi' 00000020 'tenc' 00000000 000000 10" + kKid},
        // cbcs: schm 'cbcs' version 1.0; tenc version 1: reserved byte, crypt_byte_block 1 and skip_byte_block 9
        // in one byte (audio 0:0), default_isProtected 1, Per_Sample_IV_Size 0, key id, constant IV size 16, IV
        {cbcsVideo.getProtection(), "00000061 'sinf' 0000000C 'frma' 'hvc1' 00000014 'schm' 00000000 'cbcs' 00010000"
                                    " 00000039 'schi' 00000031 'tenc' 01000000 00 19 01 00" + kKid + "10" + kIvText},
        {cbcsAudio.getProtection(), "00000061 'sinf' 0000000C 'frma' 'mp4a' 00000014 'schm' 00000000 'cbcs' 00010000"
                                    " 00000039 'schi' 00000031 'tenc' 01000000 00 00 01 00" + kKid + "10" + kIvText},
        // version 0, flags 0, system id as written, data size, data
        {std::make_shared<ProtectionSystemSpecificHeaderBox>(kWidevine, std::vector<std::uint8_t>{0xAA, 0xBB, 0xCC}),
         "00000023 'pssh' 00000000 EDEF8BA9 79D64ACE A3C827DC D51D21ED 00000003 AABBCC"},
        {std::make_shared<ProtectionSystemSpecificHeaderBox>(kWidevine, std::vector<std::uint8_t>{0xAA}, false),
         "00000031 'uuid' D08A4F18 10F34A82 B6C832D8 ABA183D3 00000000 EDEF8BA9 79D64ACE A3C827DC D51D21ED 00000001 AA"},
        // version 1 (ISO/IEC 23001-7): system id, KID_count 1, the KID as written, DataSize 0
        {listing, "00000034 'pssh' 01000000 1077EFEC C0B24D02 ACE33C1E 52E2FB4B 00000001" + kKid + "00000000"},
        // version 1, flags 1: aux info type and parameter, entry count, 64-bit offset
        {saio, "00000020 'saio' 01000001 'cenc' 00000000 00000001 0000000000001234"},
        // version 1, default length 0: each entry has its length; isProtected 0, IV size 16
        {sgpd, "00000030 'sgpd' 01000000 'seig' 00000000 00000001 00000014 000000 10" + kKid},
    };
    for (const auto& c : cases) EXPECT_BYTES(writeBox(c.box), hex(c.bytes));
}

const SampleEncryptionInfo kVideo1{hex("0102030405060708"), {{5, 16}, {14, 32}}};  // 67 bytes
const SampleEncryptionInfo kVideo2{hex("0102030405060709"), {{8, 992}}};             // 1000 bytes
// Entries: IV, then for video subsample count (16) and per subsample clear (16) and protected (32) bytes.
const std::string kVideoEntries = "0102030405060708 0002 0005 00000010 000E 00000020  0102030405060709 0001 0008 000003E0";

TEST(EncryptionBoxes, SencSaizAndTheSeigGroup) {
    const struct {
        const char* name;
        bool video, overrides, dash;
        std::vector<BoxSample> samples;
        std::string senc;  // the box, written even where the traf doesn't hold it
        std::string saiz;  // DASH form only
    } cases[] = {
        // flags 2 (subsamples), count, entries of 22 and 16 bytes: saiz has default 0 and the table
        {"video", true, false, true, {{67, kVideo1}, {1000, kVideo2}},
         "00000036 'senc' 00000002 00000002 " + kVideoEntries, "0000001B 'saiz' 00000001 'cenc' 00000000 00 00000002 16 10"},
        // flags 3: algorithm id 1, IV size 8, key id before the count
        {"video, override", true, true, true, {{67, kVideo1}, {1000, kVideo2}},
         "0000004A 'senc' 00000003 000001 08" + kKid + "00000002 " + kVideoEntries,
         "0000001B 'saiz' 00000001 'cenc' 00000000 00 00000002 16 10"},
        // no subsample fields; every entry 8 bytes: saiz default 8, no table
        {"audio", false, false, true, {{10, SampleEncryptionInfo{kVideo1.iv, {}}}, {10, SampleEncryptionInfo{kVideo2.iv, {}}}},
         "00000020 'senc' 00000000 00000002 0102030405060708 0102030405060709",
         "00000019 'saiz' 00000001 'cenc' 00000000 08 00000002"},
        // a video sample without info among encrypted ones: zero IV, 70000 clear bytes in two runs; both 22 bytes
        {"video, a clear sample", true, false, true, {{67, kVideo1}, {70000, std::nullopt}},
         "0000003C 'senc' 00000002 00000002 0102030405060708 0002 0005 00000010 000E 00000020"
         " 0000000000000000 0002 FFFF 00000000 1171 00000000",
         "00000019 'saiz' 00000001 'cenc' 00000000 16 00000002"},
        // Smooth Streaming: the PIFF uuid box
        {"video, Smooth", true, false, false, {{67, kVideo1}, {1000, kVideo2}},
         "00000046 'uuid' A2394F52 5A9B4F14 A2446C42 7C648DF4 00000002 00000002 " + kVideoEntries, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const EncryptionBoxes boxes = makeEncryptionBoxes(pointers(c.samples), {kKeyId, c.overrides, c.dash}, c.video);
        ASSERT_TRUE(boxes.senc);
        const testkit::Bytes senc = writeBox(boxes.senc);
        EXPECT_BYTES(senc, hex(c.senc));
        if (!c.dash) {
            EXPECT_TRUE(!boxes.saiz && !boxes.saio && !boxes.sbgp && !boxes.sgpd && boxes.auxiliaryData.empty());
            continue;
        }
        EXPECT_BYTES(writeBox(boxes.saiz), hex(c.saiz));
        // The auxiliary data is the senc entries, after header, [override fields,] and count.
        const std::size_t entries = c.overrides ? 36 : 16;
        EXPECT_BYTES(boxes.auxiliaryData, testkit::slice(senc, entries, senc.size() - entries));
        // seig: every sample in the first entry of the fragment's own group description (0x10001); the entry has
        // isProtected 1, the IV size and the key id, and its length as default length
        EXPECT_BYTES(writeBox(boxes.sbgp), hex("0000001C 'sbgp' 00000000 'seig' 00000001 00000002 00010001"));
        EXPECT_BYTES(writeBox(boxes.sgpd), hex("0000002C 'sgpd' 01000000 'seig' 00000014 00000001 000001 08" + kKid));
    }
}

TEST(EncryptionBoxes, CbcsNamesItsAuxiliaryInformationAndPutsPatternAndConstantIvInSeig) {
    const SampleEncryptionInfo slices{{}, {{100, 400}}};
    const struct {
        bool video;
        std::vector<BoxSample> samples;
        std::string saiz, seig;
    } cases[] = {
        // no IV: an entry is the subsample count and one (clear, protected) pair, 8 bytes
        {true, {{500, slices}, {500, slices}}, "00000019 'saiz' 00000001 'cbcs' 00000000 08 00000002", "00 19 01 00"},
        // audio: no IV, no map: entries of 0 bytes, listed
        {false, {{10, SampleEncryptionInfo{}}, {10, SampleEncryptionInfo{}}},
         "0000001B 'saiz' 00000001 'cbcs' 00000000 00 00000002 00 00", "00 00 01 00"},
    };
    for (const auto& c : cases) {
        SampleEncryptionContext context{kKeyId, false, true, kConstantIv};
        const EncryptionBoxes boxes = makeEncryptionBoxes(pointers(c.samples), context, c.video);
        EXPECT_BYTES(writeBox(boxes.saiz), hex(c.saiz));
        EXPECT_BYTES(writeBox(boxes.saio), hex("00000020 'saio' 01000001 'cbcs' 00000000 00000001 0000000000000000"));
        // the seig entry as tenc version 1 lays it out: 37 bytes, the default length
        EXPECT_BYTES(writeBox(boxes.sgpd),
                     hex("0000003D 'sgpd' 01000000 'seig' 00000025 00000001 " + c.seig + kKid + "10" + kIvText));
    }
}

TEST(EncryptionBoxes, WhatTheTrackFragmentGets) {
    const std::vector<BoxSample> encrypted = {{67, kVideo1}}, clear = {{67, std::nullopt}}, none;
    const SampleEncryptionContext dash{kKeyId, false, true}, smooth{kKeyId, false, false};
    const struct {
        const char* name;
        const std::vector<BoxSample>& samples;
        bool video, audio;
        std::optional<SampleEncryptionContext> context;
        const char* types;
    } cases[] = {
        {"DASH video", encrypted, true, false, dash, "tfhd tfdt trun saiz saio sbgp sgpd "},
        {"DASH audio", encrypted, false, true, dash, "tfhd tfdt trun saiz saio sbgp sgpd "},
        {"Smooth: senc last", encrypted, true, false, smooth, "tfhd uuid uuid trun sdtp uuid "},
        {"no context", encrypted, true, false, std::nullopt, "tfhd tfdt trun "},
        {"neither video nor audio", encrypted, false, false, dash, "tfhd tfdt trun "},
        {"no sample with info", clear, true, false, dash, "tfhd tfdt trun "},
        {"no sample", none, true, false, dash, "tfhd tfdt trun "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TrackFragmentParameters p{.video = c.video, .segmentDuration = 3600, .trackTimescale = 90000};
        p.dash = !c.context || c.context->dashForm;
        p.audio = c.audio;
        p.encryption = c.context;
        const TrackFragment fragment = TrackFragmentBuilder::build(p, pointers(c.samples));
        std::string types;
        for (const auto& child : fragment.traf->getChildren()) types += fourCCText(child->getType()) + " ";
        EXPECT_EQ(types, c.types);
        EXPECT_EQ(fragment.encryption.auxiliaryData.empty(), types.find("saio") == std::string::npos);
    }
}

}  // namespace
