// Init segment boxes and FileHeader, against layouts worked out from ISO/IEC 14496-12.
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
using testkit::zeros;

const char* kMatrix = "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000";

TEST(FileHeader, AudioOnlyDash) {
    FileHeader header(true);
    auto entry = std::make_shared<AudioSampleEntry>(fourCC("mp4a"), 2);  // bare entry, no esds
    EXPECT_EQ(header.addTrack(1, 48000, TRACK_AUDIO, entry, 0, 0), 1u);

    const Bytes expected = cat({
        hex("0000001C 'ftyp' 'dash'"      // 28 bytes, major brand
            "00000001"                    // minor version
            "'isom' 'avc1' 'dash'"),      // compatible brands
        hex("00000216 'moov'"),           // 534 = 8 + 108 + 40 + 378
        hex("0000006C 'mvhd' 00 000000"   // 108, version 0
            "00000000 00000000"           // creation, modification
            "00989680"                    // timescale 10000000
            "00000000"                    // duration 0 in DASH
            "00010000 0100 0000"          // rate 1.0, volume 1.0, reserved
            "00000000 00000000"),         // reserved
        hex(kMatrix), zeros(24),          // matrix, pre-defined
        hex("00000002"),                  // next track id
        hex("00000028 'mvex'"             // 40: mvex comes before the trak
            "  00000020 'trex' 00 000000 00000001"   // track 1
            "  00000001 00000000 00000000 00000000"), // description index 1, defaults 0
        hex("0000017A 'trak'"             // 378 = 8 + 92 + 278
            "  0000005C 'tkhd' 00 000007" // 92, enabled | in movie | in preview
            "  00000000 00000000"         // creation, modification
            "  00000001 00000000"         // track id, reserved
            "  00000000"                  // duration
            "  00000000 00000000"         // reserved
            "  0000 0000 0100 0000"),     // layer, alternate group, volume 1.0 (audio), reserved
        hex(kMatrix),
        hex("  00000000 00000000"         // width, height 0
            "  00000116 'mdia'"           // 278 = 8 + 44 + 38 + 188
            "    0000002C 'mdhd' 01 000000"  // 44, version 1
            "    0000000000000000 0000000000000000"  // creation, modification
            "    0000BB80"                // timescale 48000
            "    0000000000000000"        // duration
            "    55C4 0000"               // pad 0, 'und' = 10101 01110 00100, pre-defined
            "    00000026 'hdlr' 00 000000"  // 38
            "    00000000 'soun' 000000000000000000000000 'audio' 00"
            "    000000BC 'minf'"         // 188 = 8 + 16 + 36 + 128
            "      00000010 'smhd' 00 000000 0000 0000"
            "      00000024 'dinf'"
            "        0000001C 'dref' 00 000000 00000001"
            "          0000000C 'url ' 00 000001"  // self-contained: no text, no zero byte
            "      00000080 'stbl'"       // 128
            "        00000034 'stsd' 00 000000 00000001"  // 52, one entry
            "          00000024 'mp4a' 000000000000 0001"  // 36, data reference index 1
            "          0000000000000000"  // reserved
            "          0002 0010 0000 0000"  // channels 2, sample size 16, pre-defined, reserved
            "          BB80 0000"         // 48000 as 16.16
            "        00000010 'stts' 00 000000 00000000"
            "        00000010 'stco' 00 000000 00000000"
            "        00000010 'stsc' 00 000000 00000000"
            "        00000014 'stsz' 00 000000 00000000 00000000"),
    });
    EXPECT_BYTES(header.binarize(), expected);
}

TEST(FileHeader, SecondEntryOfATrackAndTheExtraBoxInSmoothMode) {
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
    header.addBox(std::make_shared<Box>(fourCC("free")));

    const BoxList boxes = header.getBoxes();
    ASSERT_EQ(boxes.size(), 3u);
    EXPECT_EQ(boxes[0]->getType(), fourCC("ftyp"));
    EXPECT_EQ(boxes[1]->getType(), fourCC("free"));
    EXPECT_EQ(boxes[2]->getType(), fourCC("moov"));
    EXPECT_BYTES(testkit::writeBox(boxes[0]), hex("00000020 'ftyp' 'isml' 00000000 'isom' 'iso2' 'piff' 'avc1'"));

    const auto& moov = boxes[2]->getChildren();
    ASSERT_EQ(moov.size(), 3u);  // mvhd, mvex, one trak
    const Bytes mvhd = testkit::writeBox(moov[0]);
    EXPECT_BYTES(Bytes(mvhd.begin() + 20, mvhd.begin() + 28), hex("00989680 FFFFFFFF"));  // timescale, duration
    EXPECT_BYTES(Bytes(mvhd.end() - 4, mvhd.end()), hex("00000004"));  // next track id
    const auto& trak = moov[2]->getChildren();
    const Bytes tkhd = testkit::writeBox(trak[0]);
    EXPECT_BYTES(Bytes(tkhd.begin() + 28, tkhd.begin() + 32), hex("FFFFFFFF"));  // duration in Smooth mode
    EXPECT_BYTES(Bytes(tkhd.begin() + 36 + 8, tkhd.begin() + 36 + 8 + 4), hex("0000 0000"));  // volume 0 for video
    EXPECT_BYTES(Bytes(tkhd.end() - 8, tkhd.end()), hex("02800000 02D00000"));  // the larger width and height

    const auto stbl = trak[1]->getChildren()[2]->getChildren()[2];
    ASSERT_EQ(stbl->getType(), fourCC("stbl"));
    const Bytes visual = cat({
        hex("000000000000 0001"   // reserved, data reference index
            "0000 0000"           // pre-defined, reserved
            "000000000000000000000000"),  // pre-defined
    });
    const Bytes fixedTail = hex("00480000 00480000"  // 72 dpi
                                "00000000 0001");     // reserved, frame count
    const Bytes expected = cat({
        hex("000000BC 'stsd' 00 000000 00000002"),  // 16 + 2 x 86, two entries
        hex("00000056 'avc1'"), visual, hex("0280 0168"), fixedTail,
        zeros(32),                                  // empty compressor name
        hex("0018 FFFF"),                           // depth 24, pre-defined -1
        hex("00000056 'avc1'"), visual, hex("0140 02D0"), fixedTail,
        hex("'x264'"), zeros(28),                   // name bytes, zero-padded, no length byte
        hex("0018 FFFF"),
    });
    EXPECT_BYTES(testkit::writeBox(stbl->getChildren()[0]), expected);
}

TEST(MovieBoxes, HandlersAndMediaHeadersByTrackKind) {
    EXPECT_BYTES(testkit::writeBox(std::make_shared<HandlerReferenceBox>(TRACK_VIDEO)),
                 hex("00000026 'hdlr' 00000000 00000000 'vide' 000000000000000000000000 'video' 00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<HandlerReferenceBox>(TRACK_SUBTITLE)),
                 hex("00000025 'hdlr' 00000000 00000000 'subt' 000000000000000000000000 'subt' 00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<HandlerReferenceBox>(9)),
                 hex("00000021 'hdlr' 00000000 00000000 00000000 000000000000000000000000 00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<VideoMediaHeaderBox>()),
                 hex("00000014 'vmhd' 00 000001 0000 000000000000"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<HintMediaHeaderBox>(1, 2, 3, 4)),
                 hex("0000001C 'hmhd' 00000000 0001 0002 00000003 00000004 00000000"));  // reserved 32

    // A subtitle track has sthd in DASH and nmhd in Smooth.
    for (bool dash : {true, false}) {
        FileHeader header(dash);
        header.addTrack(1, 1000, TRACK_SUBTITLE, std::make_shared<SampleEntry>(fourCC("stpp")), 0, 0);
        const auto minf = header.getMovieBox()->getChildren()[2]->getChildren()[1]->getChildren()[2];
        EXPECT_EQ(minf->getChildren()[0]->getType(), dash ? fourCC("sthd") : fourCC("nmhd"));
    }
}

TEST(MovieBoxes, SampleTables) {
    auto stsz = std::make_shared<SampleSizeBox>();
    for (int i = 0; i < 9; ++i) stsz->addSize(3600);
    EXPECT_BYTES(testkit::writeBox(stsz), hex("00000014 'stsz' 00000000 00000E10 00000009"));  // constant form

    auto turned = std::make_shared<SampleSizeBox>();
    for (int i = 0; i < 3; ++i) turned->addSize(7);
    turned->addSize(9);  // turns the box over: three 7 then 9
    turned->addSize(7);
    EXPECT_BYTES(testkit::writeBox(turned),
                 hex("00000028 'stsz' 00000000 00000000 00000005 00000007 00000007 00000007 00000009 00000007"));

    auto stts = std::make_shared<TimeToSampleBox>();
    for (std::uint32_t d : {1024u, 1024u, 1024u, 512u, 1024u, 1024u}) stts->addDelta(d);
    EXPECT_BYTES(testkit::writeBox(stts), hex("00000028 'stts' 00000000 00000003"
                                            "00000003 00000400 00000001 00000200 00000002 00000400"));

    auto ctts = std::make_shared<CompositionOffsetBox>();
    ctts->addOffset(2);
    ctts->addOffset(2);
    ctts->addEntry(1, 2);  // always a new entry
    EXPECT_BYTES(testkit::writeBox(ctts), hex("00000020 'ctts' 00000000 00000002 00000002 00000002 00000001 00000002"));

    auto stsc = std::make_shared<SampleToChunkBox>();
    stsc->addEntry(1, 30, 2);
    EXPECT_BYTES(testkit::writeBox(stsc), hex("0000001C 'stsc' 00000000 00000001 00000001 0000001E 00000002"));

    auto co64 = std::make_shared<ChunkLargeOffsetBox>();
    co64->addOffset(0x100000000ull);
    EXPECT_BYTES(testkit::writeBox(co64), hex("00000018 'co64' 00000000 00000001 0000000100000000"));

    auto elst = std::make_shared<EditListBox>(1);  // the version-0 entry layout in any version
    elst->addEntry(90000, 3600);
    EXPECT_BYTES(testkit::writeBox(elst), hex("0000001C 'elst' 01000000 00000001 00015F90 00000E10 0001 0000"));

    EXPECT_BYTES(testkit::writeBox(std::make_shared<MovieExtendsHeaderBox>(0x1122334455ull, 1)),
                 hex("00000014 'mehd' 01000000 0000001122334455"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<DataEntryUrlBox>(0, "a")), hex("0000000E 'url ' 00000000 'a' 00"));
    EXPECT_BYTES(testkit::writeBox(std::make_shared<DataEntryUrnBox>(0, "n", "l")),
                 hex("00000010 'urn ' 00000000 'n' 00 'l' 00"));
}

// mdhd v1 (44 bytes): the pad bit and three 5-bit letters (the letter minus 0x60) sit at bytes 40 and 41.
TEST(MovieBoxes, MediaHeaderLanguage) {
    const struct {
        const char* given;
        const char* packed;
    } cases[] = {
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
