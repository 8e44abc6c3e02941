// Codec configuration boxes and sample entries, against layouts worked out from ISO/IEC 14496-15
// (avcC, hvcC), ISO/IEC 14496-1 (esds descriptors) and ETSI TS 102 366 (dac3, dec3).
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
    EXPECT_BYTES(writeOne(avcC), hex("0000001B 'avcC'"  // 8 + 7 + 6 + 6 = 27
                                     "01 4D 40 1E"      // version 1, profile 77, compatibility, level 3.0
                                     "FF"               // 111111 + length size minus one 3
                                     "E1"               // 111 + one SPS
                                     "0004 674D401E"
                                     "01"               // one PPS
                                     "0004 68EE3C80"));
}

TEST(AVCConfigurationBox, HighProfilesAddChromaAndBitDepths) {
    AVCConfigurationBox avcC;
    avcC.profileIndication = 100;
    avcC.levelIndication = 31;
    avcC.sequenceParameterSets = {hex("6764001F AC")};
    avcC.pictureParameterSets = {hex("68EBE3CB"), hex("68")};
    avcC.chromaFormat = 1;
    EXPECT_BYTES(writeOne(avcC), hex("00000023 'avcC'"   // 8 + 7 + 7 + 6 + 3 + 4 = 35
                                     "01 64 00 1F FF E1 0005 6764001FAC"
                                     "02 0004 68EBE3CB 0001 68"
                                     "FD"                // 111111 + chroma format 1
                                     "F8"                // 11111 + luma depth minus 8 = 0
                                     "F8"                // 11111 + chroma depth minus 8 = 0
                                     "00"));             // no SPS extension

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
    EXPECT_BYTES(writeOne(hvcC),
                 hex("0000003C 'hvcC'"     // 8 + 23 + 3 x 3 + 6 + 5 + 4 + 5 = 60
                     "01"                  // configuration version
                     "01"                  // profile space 0, tier 0, profile idc 1
                     "60000000"            // compatibility flags
                     "90 00 00 00 00 01"   // progressive, -, -, frame only; 44 constraint bits
                     "5D"                  // level 93
                     "FABC"                // 1111 + min spatial segmentation 0xABC
                     "FC"                  // 111111 + parallelism 0
                     "FD"                  // 111111 + chroma format 1
                     "F8 F8"               // 11111 + bit depths minus 8
                     "0000"                // average frame rate
                     "0F"                  // constant 0, 1 temporal layer, nested, length size minus one 3
                     "03"                  // three arrays
                     "A0 0001 0004 40010C01"   // complete, VPS (32)
                     "A1 0001 0003 420101"     // complete, SPS (33)
                     "22 0002 0002 4401 0003 440102"));  // not complete, PPS (34), two units

    HEVCConfigurationBox empty;
    EXPECT_EQ(empty.getSize(), 8u + 23u);
    EXPECT_EQ(writeOne(empty).back(), 0x00);  // number of arrays
}

TEST(ESDescriptorBox, AacLowComplexityStereo) {
    ESDescriptorBox esds;
    esds.setDecoderSpecificInfo(hex("1190"));  // AAC LC, 48 kHz, 2 channels
    EXPECT_BYTES(writeOne(esds), hex("00000027 'esds' 00000000"  // 12 + 25 + 2 = 39
                                     "03 19 0000 00"    // ES descriptor, length 25, id 0, flags 0
                                     "04 11 40 15"      // decoder config, length 17, MPEG-4 audio, audio stream
                                     "00025E"           // buffer size 606
                                     "00027580"         // max bitrate 161152
                                     "000266B8"         // average bitrate 157368
                                     "05 02 1190"       // decoder specific info
                                     "06 01 02"));      // SL config, predefined 2
}

TEST(AudioConfigurationBoxes, Ac3AndEac3) {
    AC3SpecificBox dac3;
    dac3.fscod = 0;
    dac3.bsid = 8;
    dac3.bsmod = 0;
    dac3.acmod = 7;
    dac3.lfeon = true;
    dac3.bitRateCode = 15;
    // 00 01000 000 111 1 01111 00000
    EXPECT_BYTES(writeOne(dac3), hex("0000000B 'dac3' 10 3D E0"));

    EC3SpecificBox dec3;
    dec3.dataRate = 448;
    EC3SpecificBox::Substream main;
    main.bsid = 16;
    main.acmod = 7;
    main.lfeon = true;
    dec3.substreams = {main};
    // 0000111000000 000 | 00 10000 00000 111 1 000 0000 0
    EXPECT_BYTES(writeOne(dec3), hex("0000000D 'dec3' 0E00 200F00"));

    EC3SpecificBox::Substream withDependent;
    withDependent.fscod = 1;
    withDependent.bsid = 16;
    withDependent.reservedAsvcBsmod = 2;
    withDependent.acmod = 2;
    withDependent.numDependentSubstreams = 1;
    withDependent.channelLocation = 0x1FF;
    dec3.substreams.push_back(withDependent);
    // 0000111000000 001 | 200F00 | 01 10000 00010 010 0 000 0001 111111111
    EXPECT_BYTES(writeOne(dec3), hex("00000011 'dec3' 0E01 200F00 602403FF"));

    AC4SpecificBox dac4;
    dac4.data = hex("20A6");
    EXPECT_BYTES(writeOne(dac4), hex("0000000A 'dac4' 20A6"));
}

TEST(WaveformatexBox, LittleEndianFieldsStartingAsAllOnes) {
    WaveformatexBox wfex;
    EXPECT_BYTES(writeOne(wfex), hex("0000001A 'wfex' FFFF FFFF FFFFFFFF FFFFFFFF FFFF FFFF 0000"));
    wfex.formatTag = 0x0161;
    wfex.channels = 2;
    wfex.samplesPerSecond = 48000;
    wfex.averageBytesPerSecond = 16000;
    wfex.blockAlign = 0x2E5;
    wfex.bitsPerSample = 16;
    wfex.extra = hex("0088");
    EXPECT_BYTES(writeOne(wfex), hex("0000001C 'wfex' 6101 0200 80BB0000 803E0000 E502 1000 0200 0088"));
}

TEST(SampleEntries, AvcEntryWithBitRateAndAudioEntries) {
    AVCSampleEntry avc1(false);
    EXPECT_EQ(avc1.getType(), fourCC("avc1"));
    EXPECT_EQ(AVCSampleEntry(true).getType(), fourCC("avc3"));
    EXPECT_EQ(HEVCSampleEntry(false).getType(), fourCC("hvc1"));
    EXPECT_EQ(HEVCSampleEntry(true).getType(), fourCC("hev1"));
    avc1.width = 320;
    avc1.height = 240;
    avc1.configuration.profileIndication = 66;
    avc1.configuration.levelIndication = 13;
    avc1.bitRate = std::make_shared<tvrn::encoding::packaging::imff::imff_box::MPEG4BitRateBox>(1, 2, 3);
    const auto bytes = writeOne(avc1);
    EXPECT_BYTES(bytes, cat({hex("00000079 'avc1' 000000000000 0001"  // 8 + 8 + 70 + 15 + 20 = 121
                                 "0000 0000 000000000000000000000000"
                                 "0140 00F0 00480000 00480000 00000000 0001"),
                             zeros(32),
                             hex("0018 FFFF"
                                 "0000000F 'avcC' 01 42 00 0D FF E0 00"  // no parameter sets
                                 "00000014 'btrt' 00000001 00000002 00000003")}));

    MP4AudioSampleEntry mp4a;
    mp4a.sampleRate = 44100;
    mp4a.esds.setDecoderSpecificInfo(hex("1210"));
    EXPECT_BYTES(writeOne(mp4a), hex("0000004B 'mp4a' 000000000000 0001"  // 8 + 8 + 20 + 39 = 75
                                     "0000000000000000 0002 0010 0000 0000 AC44 0000"
                                     "00000027 'esds' 00000000 03 19 0000 00 04 11 40 15 00025E 00027580 000266B8"
                                     "05 02 1210 06 01 02"));

    EC3AudioSampleEntry ec3;
    ec3.dec3.substreams.resize(1);
    EXPECT_EQ(writeOne(ec3).size(), 8u + 8u + 20u + 13u);
    AC3AudioSampleEntry ac3;
    EXPECT_EQ(ac3.getSize(), 8u + 8u + 20u + 11u);
    AC4AudioSampleEntry ac4;
    ac4.dac4.data = hex("01020304");
    EXPECT_EQ(writeOne(ac4).size(), 8u + 8u + 20u + 12u);
}

}  // namespace
