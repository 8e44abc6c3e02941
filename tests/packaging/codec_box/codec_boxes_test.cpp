// Codec configuration boxes and sample entries, against layouts worked out from ISO/IEC 14496-15 (avcC, hvcC) and
// ISO/IEC 14496-1 (esds descriptors): those of the streams the session packages.
#include <gtest/gtest.h>

#include <string>

#include "packaging/codec_box/audio_boxes.h"
#include "packaging/codec_box/dolby_labels.h"
#include "packaging/codec_box/video_boxes.h"
#include "tests/common/bytes.h"

namespace {
using namespace tvrn::encoding::packaging::imff::codec_box;
using testkit::cat;
using testkit::hex;
using testkit::zeros;

template <typename T>
testkit::Bytes writeOne(const T& box) {
    testkit::Bytes bytes(box.getSize() + 64, 0xEE);
    ImffBitWriter writer(bytes.data(), bytes.size());
    box.binarize(writer);
    EXPECT_EQ(writer.getBytePosition(), box.getSize());
    bytes.resize(writer.getBytePosition());
    return bytes;
}

TEST(AVCConfigurationBox, MainProfileHasNoChromaFields) {
    AVCConfigurationBox avcC;
    avcC.profileIndication = 77;
    avcC.profileCompatibility = 0x40;
    avcC.levelIndication = 30;
    avcC.sequenceParameterSets = {hex("674D401E")};
    avcC.pictureParameterSets = {hex("68EE3C80")};
    // Version 1, profile 77, compatibility, level 3.0, 111111 + length size minus one 3, 111 + one SPS, its length
    // and bytes, one PPS, its length and bytes.
    EXPECT_BYTES(writeOne(avcC), hex("0000001B 'avcC' 01 4D 40 1E FF E1 0004 674D401E 01 0004 68EE3C80"));
}

TEST(AVCConfigurationBox, HighProfilesAddChromaAndBitDepths) {
    AVCConfigurationBox avcC;
    avcC.profileIndication = 100;
    avcC.levelIndication = 31;
    avcC.sequenceParameterSets = {hex("6764001F AC")};
    avcC.pictureParameterSets = {hex("68EBE3CB"), hex("68")};
    avcC.chromaFormat = 1;
    // Then 111111 + chroma format 1, 11111 + luma and chroma depths minus 8, no SPS extension.
    EXPECT_BYTES(writeOne(avcC), hex("00000023 'avcC' 01 64 00 1F FF E1 0005 6764001FAC 02 0004 68EBE3CB 0001 68 FD F8 F8 00"));

    AVCConfigurationBox high422;
    high422.profileIndication = 122;
    high422.chromaFormat = 2;
    high422.bitDepthLumaMinus8 = 2;
    high422.bitDepthChromaMinus8 = 2;
    high422.sequenceParameterSetExtensions = {hex("6D00")};
    EXPECT_BYTES(writeOne(high422), hex("00000017 'avcC' 01 7A 00 00 FF E0 00"  // no SPS, no PPS
                                        "FE FA FA 01 0002 6D00"));
}

TEST(HEVCConfigurationBox, ArraysInTypeOrder) {
    HEVCConfigurationBox hvcC;
    hvcC.generalProfileIdc = 1;
    hvcC.generalProfileCompatibilityFlags = 0x60000000;
    hvcC.progressiveSourceFlag = true;
    hvcC.frameOnlyConstraintFlag = true;
    hvcC.generalConstraintIndicatorFlags = 0x00000000001;  // the last of the 44 bits
    hvcC.generalLevelIdc = 93;
    hvcC.minSpatialSegmentationIdc = 0xABC;
    hvcC.numTemporalLayers = 1;
    hvcC.temporalIdNested = true;
    hvcC.addNalUnit(34, hex("4401"), false);  // added first, written last
    hvcC.addNalUnit(34, hex("440102"), false);
    hvcC.addNalUnit(32, hex("40010C01"));
    hvcC.addNalUnit(33, hex("420101"));
    // Version 1; profile space 0, tier 0, profile 1; compatibility flags; progressive, -, -, frame only and the 44
    // constraint bits; level 93; 1111 + min spatial segmentation; 111111 + parallelism 0; 111111 + chroma format 1;
    // 11111 + bit depths minus 8 (twice); average frame rate; constant 0, 1 temporal layer, nested, length size
    // minus one 3; three arrays: complete VPS (32), complete SPS (33), not complete PPS (34) with two units.
    EXPECT_BYTES(writeOne(hvcC), hex("0000003C 'hvcC' 01 01 60000000 90 0000000001 5D FABC FC FD F8 F8 0000 0F 03"
                                     "A0 0001 0004 40010C01  A1 0001 0003 420101  22 0002 0002 4401 0003 440102"));

    HEVCConfigurationBox empty;
    EXPECT_EQ(empty.getSize(), 8u + 23u);
    EXPECT_EQ(writeOne(empty).back(), 0x00);  // number of arrays
}

TEST(SampleEntries, AvcAndAacEntries) {
    AVCSampleEntry avc1(false);
    avc1.width = 320;
    avc1.height = 240;
    avc1.configuration.profileIndication = 66;
    avc1.configuration.levelIndication = 13;
    const auto bytes = writeOne(avc1);
    EXPECT_BYTES(bytes, cat({hex("00000065 'avc1' 000000000000 0001"  // 8 + 8 + 70 + 15 = 101
                                 "0000 0000 000000000000000000000000"
                                 "0140 00F0 00480000 00480000 00000000 0001"),
                             zeros(32),
                             hex("0018 FFFF"
                                 "0000000F 'avcC' 01 42 00 0D FF E0 00")}));  // no parameter sets

    MP4AudioSampleEntry mp4a;
    mp4a.sampleRate = 44100;
    mp4a.esds.setDecoderSpecificInfo(hex("1210"));  // AAC LC, 44.1 kHz, 2 channels
    // After the audio fields: the ES descriptor (length 25, id 0, flags 0); decoder config (length 17, MPEG-4 audio,
    // audio stream, buffer size 606, max bitrate 161152, average 157368); decoder specific info; SL config,
    // predefined 2.
    EXPECT_BYTES(writeOne(mp4a), hex("0000004B 'mp4a' 000000000000 0001"  // 8 + 8 + 20 + 39 = 75
                                     "0000000000000000 0002 0010 0000 0000 AC44 0000"
                                     "00000027 'esds' 00000000 03 19 0000 00 04 11 40 15 00025E 00027580 000266B8"
                                     "05 02 1210 06 01 02"));
}

// Each label by its code's meaning in ETSI TS 102 366: cmixlev 0.707/0.595/0.500/reserved, surmixlev
// 0.707/0.500/0/reserved, the 3-bit Lt/Rt and Lo/Ro centre levels 1.414 down to 0 in 1.5 dB steps, their surround
// levels reserved below code 3 then 0.841 down to 0; dmixmod and dsurmod in their coded order. acmod 7 (3/2) has
// every channel kind, 2 (2/0) neither centre nor surround, 5 (3/1) both, 6 (2/2) surround only, 3 (3/0) centre only.
TEST(DolbyLabels, EachCodeByItsMeaningAndTheModesItFits) {
    using L = DolbyMixLevel;
    const auto label = [](char what, L kind, int code, unsigned acmod) -> std::string {
        try {
            if (what == 'm') return dolbyMixLevelLabel(kind, code, acmod);
            if (what == 'd') return dolbyStereoDownmixLabel(code, acmod);
            return what == 's' ? dolbySurroundModeLabel(code) : dolbyDynamicRangeProfileLabel(code);
        } catch (const DolbyMetadataException& e) {
            return std::string("! ") + e.what();
        }
    };
    const std::string mixThrow = "! uncompliant Dolby mix level with audio mode";
    const std::string downmixThrow = "! uncompliant Dolby stereo downmix preference with audio mode";
    const struct { char what; L kind; int code; unsigned acmod; std::string want; } rows[] = {
        {'m', L::Centre, 0, 7, "-3.0 dB"}, {'m', L::Centre, 1, 5, "-4.5 dB"}, {'m', L::Centre, 2, 3, "-6.0 dB"},
        {'m', L::Centre, 3, 7, "None"}, {'m', L::Surround, 0, 6, "-3.0 dB"}, {'m', L::Surround, 1, 5, "-6.0 dB"},
        {'m', L::Surround, 2, 7, "-inf dB"}, {'m', L::Surround, -1, 2, "None"}, {'m', L::LtRtCentre, 0, 7, "+3.0 dB"},
        {'m', L::LoRoCentre, 1, 3, "+1.5 dB"}, {'m', L::LtRtCentre, 2, 5, "0.0 dB"}, {'m', L::LoRoCentre, 7, 7, "-inf dB"},
        {'m', L::LtRtSurround, 2, 7, "None"}, {'m', L::LoRoSurround, 3, 6, "-1.5 dB"}, {'m', L::LoRoCentre, 8, 7, "None"},
        {'m', L::Centre, 0, 6, mixThrow}, {'m', L::LoRoCentre, 4, 1, mixThrow}, {'m', L::LtRtSurround, 4, 3, mixThrow},
        {'d', L::Centre, 0, 2, "Not indicated"}, {'d', L::Centre, 1, 7, "Lt/Rt"}, {'d', L::Centre, 2, 3, "Lo/Ro"},
        {'d', L::Centre, 3, 6, "Dolby Prologic II"}, {'d', L::Centre, 1, 2, downmixThrow}, {'d', L::Centre, 4, 7, downmixThrow},
        {'s', L::Centre, 0, 2, "Not indicated"}, {'s', L::Centre, 1, 2, "Surround disabled"},
        {'s', L::Centre, 2, 2, "Surround enabled"}, {'s', L::Centre, 3, 2, "Not indicated"},
        {'p', L::Centre, -1, 0, "None"}, {'p', L::Centre, 1, 0, "Film Standard"}, {'p', L::Centre, 2, 0, "Film Light"},
        {'p', L::Centre, 3, 0, "Music Standard"}, {'p', L::Centre, 4, 0, "Music Light"}, {'p', L::Centre, 5, 0, "Speech"},
        {'p', L::Centre, 6, 0, "Unknown"},
    };
    for (const auto& r : rows) EXPECT_EQ(label(r.what, r.kind, r.code, r.acmod), r.want) << r.what << r.code << "/" << r.acmod;
}

}  // namespace
