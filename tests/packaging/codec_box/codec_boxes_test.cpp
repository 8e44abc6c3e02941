// Codec configuration boxes and sample entries, against layouts worked out from ISO/IEC 14496-15 (avcC, hvcC) and
// ISO/IEC 14496-1 (esds descriptors): those of the streams the session packages.
#include <gtest/gtest.h>

#include "packaging/codec_box/audio_boxes.h"
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

}  // namespace
