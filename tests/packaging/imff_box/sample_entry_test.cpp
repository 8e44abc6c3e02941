// Generic sample entries: text, subtitle, WebVTT, hint, and the visual and audio fixed fields.
#include "packaging/imff_box/sample_entry.h"

#include <gtest/gtest.h>

#include "tests/common/boxes.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;
using testkit::cat;
using testkit::hex;
using testkit::zeros;

TEST(SampleEntries, TextEntryWithFontTable) {
    auto tx3g = std::make_shared<TextSampleEntry>();
    EXPECT_BYTES(testkit::writeBox(tx3g),
                 hex("00000040 'tx3g' 000000000000 0001"  // 8 + 8 + 30 + 18 = 64
                     "00000000"           // display flags
                     "01 FF"              // horizontal, vertical justification
                     "00000000"           // background colour
                     "0000 0000 0000 0000"  // text box
                     "0000 0000 0001"     // start char, end char, font id 1
                     "00 12"              // style flags, font size 18
                     "FFFFFFFF"           // text colour
                     "00000012 'ftab' 0001 0001 05 'Serif'"));  // 8 + 2 + 3 + 5
}

TEST(SampleEntries, SubtitleAndWebVttEntries) {
    auto stpp = std::make_shared<XMLSubtitleSampleEntry>("http://www.w3.org/ns/ttml");
    EXPECT_BYTES(testkit::writeBox(stpp), hex("0000002C 'stpp' 000000000000 0001 'http://www.w3.org/ns/ttml' 00 00 00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<DfxpSampleEntry>()), hex("00000010 'dfxp' 000000000000 0001"));

    auto wvtt = std::make_shared<WVTTSampleEntry>();
    EXPECT_BYTES(testkit::writeBox(wvtt),
                 hex("0000001F 'wvtt' 000000000000 0000"  // data reference index 0 by default
                     "0000000F 'vttC' 'WEBVTT' 00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<WebVTTSourceLabelBox>("")), hex("00000009 'vlab' 00"));

    auto hint = std::make_shared<HintSampleEntry>(fourCC("rtp "), hex("0102"));
    EXPECT_BYTES(testkit::writeBox(hint), hex("00000012 'rtp ' 000000000000 0001 0102"));

    // The protection box comes last.
    auto audio = std::make_shared<AudioSampleEntry>(fourCC("enca"));
    audio->sampleRate = 96000;  // above 16 bits: cut
    audio->setProtection(std::make_shared<Box>(fourCC("sinf")));
    EXPECT_BYTES(testkit::writeBox(audio), hex("0000002C 'enca' 000000000000 0001 0000000000000000"
                                             "0006 0010 0000 0000 7700 0000"  // 96000 & 0xFFFF = 0x7700
                                             "00000008 'sinf'"));
}

TEST(SampleEntries, ALongCompressorNameIsCutToItsThirtyTwoBytes) {
    auto entry = std::make_shared<VisualSampleEntry>(fourCC("avc1"));
    entry->compressorName = std::string(40, 'n');
    const testkit::Bytes bytes = testkit::writeBox(entry);
    ASSERT_EQ(bytes.size(), 86u);
    // After the 50 bytes of header and fixed fields: the name, then the depth.
    EXPECT_EQ(testkit::slice(bytes, 50, 36), cat({testkit::Bytes(32, 'n'), hex("0018 FFFF")}));
}

}  // namespace
