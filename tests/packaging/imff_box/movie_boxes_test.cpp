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
    EXPECT_BYTES(writeBox(boxes[0]), hex("00000020 'ftyp' 'isml' 00000000 'isom' 'iso2' 'piff' 'avc1'"));
    EXPECT_EQ(boxes[1]->getType(), fourCC("free"));
    const auto& moov = boxes[2]->getChildren();
    ASSERT_EQ(moov.size(), 3u);  // mvhd, mvex, one trak
    const Bytes mvhd = writeBox(moov[0]);
    EXPECT_BYTES(slice(mvhd, 20, 8), hex("00989680 FFFFFFFF"));  // timescale, duration unknown
    EXPECT_BYTES(slice(mvhd, mvhd.size() - 4, 4), hex("00000004"));  // next track id
    const auto& trak = moov[2]->getChildren();
    const Bytes tkhd = writeBox(trak[0]);
    EXPECT_BYTES(slice(tkhd, 28, 4), hex("FFFFFFFF"));  // duration in Smooth mode
    EXPECT_BYTES(slice(tkhd, 44, 4), hex("0000 0000"));  // volume 0 for video, reserved
    EXPECT_BYTES(slice(tkhd, tkhd.size() - 8, 8), hex("02800000 02D00000"));  // the larger width and height

    const auto stbl = trak[1]->getChildren()[2]->getChildren()[2];
    ASSERT_EQ(stbl->getType(), fourCC("stbl"));
    // Reserved, data reference index, pre-defined, reserved, pre-defined; after the size: 72 dpi, reserved, frame count.
    const Bytes head = hex("000000000000 0001 0000 0000 000000000000000000000000");
    const Bytes tail = hex("00480000 00480000 00000000 0001");
    EXPECT_BYTES(writeBox(stbl->getChildren()[0]),
                 cat({hex("000000BC 'stsd' 00 000000 00000002"),  // 16 + 2 x 86, two entries
                      hex("00000056 'avc1'"), head, hex("0280 0168"), tail,
                      zeros(32),                   // empty compressor name
                      hex("0018 FFFF"),            // depth 24, pre-defined -1
                      hex("00000056 'avc1'"), head, hex("0140 02D0"), tail,
                      hex("'x264'"), zeros(28),    // name bytes, zero-padded, no length byte
                      hex("0018 FFFF")}));
}

TEST(MovieBoxes, HandlersAndMediaHeadersByTrackKind) {
    EXPECT_BYTES(writeBox(std::make_shared<HandlerReferenceBox>(TRACK_VIDEO)),
                 hex("00000026 'hdlr' 00000000 00000000 'vide' 000000000000000000000000 'video' 00"));
    EXPECT_BYTES(writeBox(std::make_shared<HandlerReferenceBox>(TRACK_SUBTITLE)),
                 hex("00000025 'hdlr' 00000000 00000000 'subt' 000000000000000000000000 'subt' 00"));
    EXPECT_BYTES(writeBox(std::make_shared<HandlerReferenceBox>(9)),
                 hex("00000021 'hdlr' 00000000 00000000 00000000 000000000000000000000000 00"));
    EXPECT_BYTES(writeBox(std::make_shared<VideoMediaHeaderBox>()),
                 hex("00000014 'vmhd' 00 000001 0000 000000000000"));
    EXPECT_BYTES(writeBox(std::make_shared<HintMediaHeaderBox>(1, 2, 3, 4)),
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
    EXPECT_BYTES(writeBox(stsz), hex("00000014 'stsz' 00000000 00000E10 00000009"));  // constant form

    auto turned = std::make_shared<SampleSizeBox>();
    for (int i = 0; i < 3; ++i) turned->addSize(7);
    turned->addSize(9);  // turns the box over: three 7 then 9
    turned->addSize(7);
    EXPECT_BYTES(writeBox(turned),
                 hex("00000028 'stsz' 00000000 00000000 00000005 00000007 00000007 00000007 00000009 00000007"));

    auto stts = std::make_shared<TimeToSampleBox>();
    for (std::uint32_t d : {1024u, 1024u, 1024u, 512u, 1024u, 1024u}) stts->addDelta(d);
    EXPECT_BYTES(writeBox(stts), hex("00000028 'stts' 00000000 00000003"
                                            "00000003 00000400 00000001 00000200 00000002 00000400"));

    auto ctts = std::make_shared<CompositionOffsetBox>();
    ctts->addOffset(2);
    ctts->addOffset(2);
    ctts->addEntry(1, 2);  // always a new entry
    EXPECT_BYTES(writeBox(ctts), hex("00000020 'ctts' 00000000 00000002 00000002 00000002 00000001 00000002"));

    auto stsc = std::make_shared<SampleToChunkBox>();
    stsc->addEntry(1, 30, 2);
    EXPECT_BYTES(writeBox(stsc), hex("0000001C 'stsc' 00000000 00000001 00000001 0000001E 00000002"));

    auto co64 = std::make_shared<ChunkLargeOffsetBox>();
    co64->addOffset(0x100000000ull);
    EXPECT_BYTES(writeBox(co64), hex("00000018 'co64' 00000000 00000001 0000000100000000"));

    auto elst = std::make_shared<EditListBox>(1);  // the version-0 entry layout in any version
    elst->addEntry(90000, 3600);
    EXPECT_BYTES(writeBox(elst), hex("0000001C 'elst' 01000000 00000001 00015F90 00000E10 0001 0000"));

    EXPECT_BYTES(writeBox(std::make_shared<MovieExtendsHeaderBox>(0x1122334455ull, 1)),
                 hex("00000014 'mehd' 01000000 0000001122334455"));
    EXPECT_BYTES(writeBox(std::make_shared<DataEntryUrlBox>(0, "a")), hex("0000000E 'url ' 00000000 'a' 00"));
    EXPECT_BYTES(writeBox(std::make_shared<DataEntryUrnBox>(0, "n", "l")),
                 hex("00000010 'urn ' 00000000 'n' 00 'l' 00"));
}

}  // namespace
