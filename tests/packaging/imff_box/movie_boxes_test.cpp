// Init segment boxes and FileHeader, against layouts worked out from ISO/IEC 14496-12. The session writes video
// and audio tracks with empty sample tables only, so the boxes it never writes (text and hint entries, filled
// tables) are not checked here.
#include <gtest/gtest.h>

#include "packaging/imff_box/file_header.h"
#include "packaging/imff_box/movie_boxes.h"
#include "packaging/imff_box/sample_entry.h"
#include "tests/common/boxes.h"

namespace {
using namespace tvrn::encoding::packaging::imff::imff_box;
using testkit::Bytes;
using testkit::cat;
using testkit::hex;
using testkit::slice;
using testkit::writeBox;
using testkit::zeros;

const char* kMatrix = "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000";

TEST(FileHeader, AudioOnlyDash) {
    FileHeader header(true);
    auto entry = std::make_shared<AudioSampleEntry>(fourCC("mp4a"), 2);  // bare entry, no esds
    EXPECT_EQ(header.addTrack(1, 48000, TRACK_AUDIO, entry, 0, 0), 1u);
    EXPECT_BYTES(header.binarize(), cat({
        // ftyp: major brand, minor version 1, compatible brands
        hex("0000001C 'ftyp' 'dash' 00000001 'isom' 'avc1' 'dash'"),
        hex("00000216 'moov'"),  // 8 + 108 + 40 + 378
        // mvhd v0: creation, modification, timescale 10000000, duration 0 in DASH, rate 1.0, volume 1.0, reserved,
        // the matrix, pre-defined, the next track id
        hex("0000006C 'mvhd' 00000000 00000000 00000000 00989680 00000000 00010000 0100 0000 00000000 00000000"),
        hex(kMatrix), zeros(24), hex("00000002"),
        // mvex comes before the trak: trex of track 1, description index 1, defaults 0
        hex("00000028 'mvex' 00000020 'trex' 00000000 00000001 00000001 00000000 00000000 00000000"),
        hex("0000017A 'trak'"),  // 8 + 92 + 278
        // tkhd v0, enabled | in movie | in preview: creation, modification, track 1, reserved, duration, reserved,
        // layer, alternate group, volume 1.0 (audio), reserved, the matrix, width and height 0
        hex("0000005C 'tkhd' 00000007 00000000 00000000 00000001 00000000 00000000 00000000 00000000 0000 0000 0100 0000"),
        hex(kMatrix), hex("00000000 00000000"),
        hex("00000116 'mdia'"),  // 8 + 44 + 38 + 188
        // mdhd v1: creation, modification, timescale 48000, duration, pad 0 and 'und' = 10101 01110 00100, pre-defined
        hex("0000002C 'mdhd' 01000000 0000000000000000 0000000000000000 0000BB80 0000000000000000 55C4 0000"),
        hex("00000026 'hdlr' 00000000 00000000 'soun' 000000000000000000000000 'audio' 00"),
        hex("000000BC 'minf' 00000010 'smhd' 00000000 0000 0000"),  // 8 + 16 + 36 + 128
        // dinf, dref of one self-contained url: no text, no zero byte
        hex("00000024 'dinf' 0000001C 'dref' 00000000 00000001 0000000C 'url ' 00000001"),
        // stbl, stsd of one entry: reserved, data reference index 1, reserved, 2 channels, sample size 16,
        // pre-defined, reserved, 48000 as 16.16; then empty tables
        hex("00000080 'stbl' 00000034 'stsd' 00000000 00000001"
            "00000024 'mp4a' 000000000000 0001 0000000000000000 0002 0010 0000 0000 BB80 0000"),
        hex("00000010 'stts' 00000000 00000000  00000010 'stco' 00000000 00000000"
            "00000010 'stsc' 00000000 00000000  00000014 'stsz' 00000000 00000000 00000000"),
    }));
}

// Two entries in one video track (Smooth Streaming, where every rendition's entry goes to the one track): the
// track takes the larger width and height, and each entry keeps its own.
TEST(FileHeader, SecondEntryOfAVideoTrack) {
    FileHeader header(false);
    auto first = std::make_shared<VisualSampleEntry>(fourCC("avc1"));
    first->width = 640;
    first->height = 360;
    auto second = std::make_shared<VisualSampleEntry>(fourCC("avc1"));
    second->width = 320;
    second->height = 720;
    second->compressorName = "x264";
    EXPECT_EQ(header.addTrack(3, 90000, TRACK_VIDEO, first, 640, 360), 1u);
    EXPECT_EQ(header.addTrack(3, 90000, TRACK_VIDEO, second, 320, 720), 2u);
    const auto& trak = header.getMovieBox()->getChildren().at(2)->getChildren();
    const Bytes tkhd = writeBox(trak.at(0));
    EXPECT_BYTES(slice(tkhd, 44, 4), hex("0000 0000"));  // volume 0 for video, reserved
    EXPECT_BYTES(slice(tkhd, tkhd.size() - 8, 8), hex("02800000 02D00000"));  // the larger width and height
    const auto& mdia = trak.at(1)->getChildren();
    EXPECT_BYTES(writeBox(mdia.at(1)), hex("00000026 'hdlr' 00000000 00000000 'vide' 000000000000000000000000 'video' 00"));
    const auto& minf = mdia.at(2)->getChildren();
    EXPECT_BYTES(writeBox(minf.at(0)), hex("00000014 'vmhd' 00 000001 0000 000000000000"));  // graphics mode, colour

    // Reserved, data reference index, pre-defined, reserved, pre-defined; after the size: 72 dpi, reserved, frame count.
    const Bytes head = hex("000000000000 0001 0000 0000 000000000000000000000000");
    const Bytes tail = hex("00480000 00480000 00000000 0001");
    EXPECT_BYTES(writeBox(minf.at(2)->getChildren().at(0)),
                 cat({hex("000000BC 'stsd' 00 000000 00000002"),  // 16 + 2 x 86, two entries
                      hex("00000056 'avc1'"), head, hex("0280 0168"), tail,
                      zeros(32),                   // empty compressor name
                      hex("0018 FFFF"),            // depth 24, pre-defined -1
                      hex("00000056 'avc1'"), head, hex("0140 02D0"), tail,
                      hex("'x264'"), zeros(28),    // name bytes, zero-padded, no length byte
                      hex("0018 FFFF")}));
}

TEST(SampleEntries, ALongCompressorNameIsCutToItsThirtyTwoBytes) {
    auto entry = std::make_shared<VisualSampleEntry>(fourCC("avc1"));
    entry->compressorName = std::string(40, 'n');
    const Bytes bytes = writeBox(entry);
    ASSERT_EQ(bytes.size(), 86u);
    // After the 50 bytes of header and fixed fields: the name, then the depth.
    EXPECT_EQ(slice(bytes, 50, 36), cat({Bytes(32, 'n'), hex("0018 FFFF")}));
}

// mdhd v1 (44 bytes): the pad bit and three 5-bit letters (the letter minus 0x60) sit at bytes 40 and 41.
TEST(MovieBoxes, MediaHeaderLanguage) {
    const struct { const char* given; const char* packed; } cases[] = {
        {"fra", "1A41"},     // 0 00110 10010 00001
        {"deu-CH", "10B5"},  // the first subtag: 0 00100 00101 10101
        {"FRA", "1A41"},     // lower-cased
        {"en", "55C4"},      // two letters do not fit the field: und, 0 10101 01110 00100
        {"f1a", "55C4"},
        {"", "55C4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        auto mdhd = std::make_shared<MediaHeaderBox>(48000);
        mdhd->setLanguage(c.given);
        const Bytes bytes = testkit::writeBox(mdhd);
        ASSERT_EQ(bytes.size(), 44u);
        EXPECT_BYTES(Bytes(bytes.begin() + 40, bytes.begin() + 42), hex(c.packed));
    }
}

}  // namespace
