// Init chunks from the parameter sets of real streams, and codec strings of hand-filled sample entries.
#include <gtest/gtest.h>

#include "packaging/codec_box/audio_boxes.h"
#include "packaging/codec_box/video_boxes.h"
#include "packaging/fmp4/chunks/codec_string.h"
#include "packaging/fmp4/chunks/init_chunk.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"
#include "tests/common/chunks.h"

namespace {
using namespace testkit;
namespace codec_box = tvrn::encoding::packaging::imff::codec_box;
namespace imff_box = tvrn::encoding::packaging::imff::imff_box;

// The parameter set units of a fixture as a plain walk over its start codes finds them, without start codes.
std::vector<Bytes> parameterSets(const char* name, bool hevc) {
    std::vector<Bytes> out;
    for (const Bytes& unit : referenceUnits(loadFixture(name).bytes)) {
        const std::size_t header = es::skipStartCode(unit.data(), unit.size());
        const unsigned t = unitType(unit, hevc);
        const bool wanted = hevc ? t >= 32 && t <= 34 : t == 7 || t == 8;
        Bytes bare(unit.begin() + static_cast<std::ptrdiff_t>(header), unit.end());
        while (!bare.empty() && bare.back() == 0) bare.pop_back();  // the zero of a following 4-byte start code
        if (wanted && std::find(out.begin(), out.end(), bare) == out.end()) out.push_back(bare);
    }
    return out;
}

ElementaryStreamAttributes videoOf(std::uint32_t type) {
    ElementaryStreamAttributes a;
    a.type = type;
    a.bitrate = 500000;
    return a;
}

const ManifestDurations kDurations{1000, 960, 960};

// The movie part of an init chunk, as bytes.
Bytes movieOf(const Bytes& init) {
    const ByteView movie = moviePart(init);
    return Bytes(movie.begin(), movie.end());
}

// The first sample entry of track 1's stsd.
BoxView sampleEntry(const Bytes& movie) {
    const auto stsd = findBox(movie, "moov/trak/mdia/minf/stbl/stsd");
    const auto entries = stsd ? boxesIn(movie, stsd->contentStart + 8, stsd->end) : std::vector<BoxView>{};
    return entries.empty() ? BoxView{} : entries.front();
}

TEST(InitChunk, ContainerFileTypeAndManifestBox) {
    for (bool dash : {true, false}) {
        InitChunk init("out", dash);
        ASSERT_EQ(init.AddStream(1, 10000000, kDurations, H264_VIDEO, videoOf(H264_VIDEO), false,
                                 firstChunkOf("h264_plain", H264_VIDEO), true),
                  1);
        const Bytes bytes = init.Serialise();
        // A, B = 8, the movie part, an empty mfra.
        ASSERT_GT(bytes.size(), 16u);
        EXPECT_EQ(be32(&bytes[0]), bytes.size() - 16);
        EXPECT_EQ(be32(&bytes[4]), 8u);
        EXPECT_EQ(Bytes(bytes.end() - 8, bytes.end()), hex("00000008 'mfra'"));
        const Bytes movie = movieOf(bytes);
        const auto top = boxesIn(movie);
        ASSERT_EQ(top.size(), 3u);
        EXPECT_EQ(slice(movie, 0, top[0].size()),
                  dash ? hex("0000001C 'ftyp' 'dash' 00000001 'isom' 'avc1' 'dash'")
                       : hex("00000020 'ftyp' 'isml' 00000000 'isom' 'iso2' 'piff' 'avc1'"));
        // The manifest box: uuid a5d40b30-e814-11dd-ba2f-0800200c9a66, version and flags 0, then the text.
        EXPECT_EQ(top[1].type, "uuid");
        const auto uuid = movie.begin() + static_cast<std::ptrdiff_t>(top[1].offset);
        EXPECT_EQ(Bytes(uuid + 8, uuid + 28), hex("a5d40b30e81411ddba2f0800200c9a66 00000000"));
        const std::string text(movie.begin() + static_cast<std::ptrdiff_t>(top[1].offset + 28),
                               movie.begin() + static_cast<std::ptrdiff_t>(top[1].end));
        EXPECT_EQ(text, init.manifest().ToXml());
        EXPECT_EQ(top[2].type, "moov");
        // Track duration unknown in Smooth Streaming (tkhd version 0: the duration after two times, the track id
        // and a reserved word).
        const auto tkhd = findBox(movie, "moov/trak/tkhd");
        ASSERT_TRUE(tkhd);
        EXPECT_EQ(u32In(movie, *tkhd, 20), dash ? 0u : 0xFFFFFFFFu);
    }
}

TEST(InitChunk, AvcEntryHoldsTheStreamsParameterSets) {
    const auto sets = parameterSets("h264_plain", false);
    ASSERT_EQ(sets.size(), 2u);  // one SPS, one PPS
    const Bytes& sps = sets[0];
    const Bytes& pps = sets[1];
    struct Case {
        bool dash, inBand;
        const char* type;
    };
    for (const Case c : {Case{true, false, "avc1"}, Case{true, true, "avc3"}, Case{false, true, "avc1"}}) {
        InitChunk init("out", c.dash);
        init.AddStream(1, 10000000, kDurations, H264_VIDEO, videoOf(H264_VIDEO), c.inBand,
                       firstChunkOf("h264_plain", H264_VIDEO), true);
        const Bytes bytes = init.Serialise();
        const Bytes movie = movieOf(bytes);
        const BoxView entry = sampleEntry(movie);
        EXPECT_EQ(entry.type, c.type);
        // Visual sample entry: 8 header, 6 reserved, data reference index, 16 bytes, width and height.
        EXPECT_EQ(movie[entry.offset + 32] * 256 + movie[entry.offset + 33], 176);
        EXPECT_EQ(movie[entry.offset + 34] * 256 + movie[entry.offset + 35], 96);
        // avcC after the 78 bytes of visual fields: version 1, profile, compatibility, level from the SPS,
        // 4-byte lengths, one SPS, one PPS.
        const std::size_t avcc = entry.offset + 8 + 78;
        EXPECT_EQ(std::string(movie.begin() + static_cast<std::ptrdiff_t>(avcc + 4), movie.begin() + static_cast<std::ptrdiff_t>(avcc + 8)), "avcC");
        Bytes record = {1, sps[1], sps[2], sps[3], 0xFF, 0xE1, 0, static_cast<std::uint8_t>(sps.size())};
        record.insert(record.end(), sps.begin(), sps.end());
        record.insert(record.end(), {1, 0, static_cast<std::uint8_t>(pps.size())});
        record.insert(record.end(), pps.begin(), pps.end());
        EXPECT_EQ(Bytes(movie.begin() + static_cast<std::ptrdiff_t>(avcc + 8),
                        movie.begin() + static_cast<std::ptrdiff_t>(avcc + 8 + record.size())),
                  record);

        char codecs[32];
        std::snprintf(codecs, sizeof codecs, "codecs=\"%s.%02x%02x%02x\"", c.type, sps[1], sps[2], sps[3]);
        if (c.dash) {
            EXPECT_NE(init.manifest().ToXml().find(codecs), std::string::npos);
            EXPECT_NE(init.manifest().ToXml().find("width=\"176\" height=\"96\" startWithSAP=\"1\" frameRate=\"25/1\" "
                                                   "scanType=\"progressive\""),
                      std::string::npos);
        }
    }
}

TEST(InitChunk, HevcEntryHoldsVpsSpsPps) {
    const auto sets = parameterSets("hevc_bframes", true);
    ASSERT_EQ(sets.size(), 3u);
    for (bool inBand : {false, true}) {
        InitChunk init("out", true);
        ASSERT_EQ(init.AddStream(1, 10000000, kDurations, HEVC_VIDEO, videoOf(HEVC_VIDEO), inBand,
                                 firstChunkOf("hevc_bframes", HEVC_VIDEO), true),
                  1);
        const Bytes bytes = init.Serialise();
        const Bytes movie = movieOf(bytes);
        const BoxView entry = sampleEntry(movie);
        EXPECT_EQ(entry.type, inBand ? "hev1" : "hvc1");
        EXPECT_EQ(movie[entry.offset + 32] * 256 + movie[entry.offset + 33], 176);
        EXPECT_EQ(movie[entry.offset + 34] * 256 + movie[entry.offset + 35], 96);
        // hvcC: 23 bytes of record header; byte 1 profile space, tier and profile copied from the SPS's
        // profile_tier_level (one byte into the SPS body behind the 2-byte header), the level at byte 12; then
        // three arrays of one unit each: completeness, type, count, length, unit. The fields are read from the
        // SPS without its emulation prevention bytes (its zero constraint flags hold some).
        const std::size_t hvcc = entry.offset + 8 + 78;
        const Bytes sps = es::unescapeRbsp(sets[1].data(), sets[1].size());
        EXPECT_EQ(movie[hvcc + 8 + 1], sps[3]);
        EXPECT_EQ(movie[hvcc + 8 + 12], sps[14]);
        std::size_t at = hvcc + 8 + 23;
        EXPECT_EQ(movie[hvcc + 8 + 22], 3);
        const std::uint8_t types[] = {32, 33, 34};
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(movie[at], (inBand ? 0 : 0x80) | types[i]);
            EXPECT_EQ(be32(&movie[at + 1]) >> 16, 1u);
            const std::size_t length = be16(&movie[at + 3]);
            EXPECT_EQ(Bytes(movie.begin() + static_cast<std::ptrdiff_t>(at + 5),
                            movie.begin() + static_cast<std::ptrdiff_t>(at + 5 + length)),
                      sets[static_cast<std::size_t>(i)]);
            at += 5 + length;
        }
    }
}

TEST(InitChunk, NothingAddedWithoutParameterSetsOrSampleEntry) {
    InitChunk init("out", true);
    EXPECT_EQ(init.AddStream(1, 10000000, kDurations, H264_VIDEO, videoOf(H264_VIDEO), false, StreamChunk{}, true), 0);
    EXPECT_EQ(init.AddStream(1, 10000000, kDurations, MPEG2_VIDEO, videoOf(MPEG2_VIDEO), false,
                             firstChunkOf("h264_plain", H264_VIDEO), true),
              0);
    EXPECT_TRUE(init.manifest().empty());

    // Parameter sets cut short or of garbage: an entry or nothing, never a crash or a read past the data.
    for (std::uint32_t type : {H264_VIDEO, HEVC_VIDEO}) {
        for (const Bytes& unit : {Bytes{0x67}, Bytes{0x42, 0x01, 0x01}, Bytes(40, 0xFF), Bytes{0x67, 0, 0, 0, 0, 0}}) {
            auto sample = std::make_shared<samples::Sample>();
            sample->kind = samples::KindSequenceParameterSet;
            auto nal = std::make_unique<samples::NAL>(-1, static_cast<std::int32_t>(unit.size() + 4));
            const Bytes length = {0, 0, 0, static_cast<std::uint8_t>(unit.size())};
            nal->append(length.data(), 4);
            nal->append(unit.data(), static_cast<std::uint32_t>(unit.size()));
            sample->addNal(std::move(nal));
            StreamChunk chunk;
            chunk.samples.push_back(std::make_shared<Fmp4Sample>(sample));
            InitChunk garbage("out", true);
            const std::int32_t index = garbage.AddStream(1, 10000000, kDurations, type, videoOf(type), false, chunk, true);
            EXPECT_GE(index, 0);
            EXPECT_FALSE(garbage.Serialise().empty());
        }
    }
    EXPECT_TRUE(initChunkMoviePart(nullptr, 0).empty());
    const Bytes truncated = hex("00000010 00000008 0000");
    EXPECT_TRUE(initChunkMoviePart(truncated.data(), truncated.size()).empty());
}

// --- codec strings -------------------------------------------------------------------------------------

TEST(CodecString, VideoEntries) {
    codec_box::AVCSampleEntry avc(false);
    avc.configuration.profileIndication = 0x64;
    avc.configuration.profileCompatibility = 0x00;
    avc.configuration.levelIndication = 0x1F;
    EXPECT_EQ(codecString(avc), "avc1.64001f");
    codec_box::AVCSampleEntry avc3(true);
    avc3.configuration.profileIndication = 0x42;
    avc3.configuration.profileCompatibility = 0xC0;
    avc3.configuration.levelIndication = 0x0D;
    EXPECT_EQ(codecString(avc3), "avc3.42c00d");

    // Main profile, compatible with Main and Main 10 (flags 1 and 2), level 3.1, progressive, non-packed,
    // frame only: the example of ISO/IEC 14496-15.
    codec_box::HEVCSampleEntry hevc(true);
    auto& c = hevc.configuration;
    c.generalProfileIdc = 1;
    c.generalProfileCompatibilityFlags = 0x60000000;
    c.generalLevelIdc = 93;
    c.progressiveSourceFlag = true;
    c.nonPackedConstraintFlag = true;
    c.frameOnlyConstraintFlag = true;
    EXPECT_EQ(codecString(hevc), "hev1.1.6.L93.b0");
    // High tier, profile space 1, a constraint byte further in; no flags at all ends at the level.
    c.generalTierFlag = true;
    c.generalProfileSpace = 1;
    c.generalConstraintIndicatorFlags = 0x00000100000ull;  // bit 20: the fourth of the six bytes
    EXPECT_EQ(codecString(hevc), "hev1.A1.6.H93.b0.00.00.10");
    codec_box::HEVCSampleEntry bare(false);
    bare.configuration.generalProfileIdc = 2;
    bare.configuration.generalProfileCompatibilityFlags = 0x20000000;
    bare.configuration.generalLevelIdc = 120;
    EXPECT_EQ(codecString(bare), "hvc1.2.4.L120");

    EXPECT_EQ(codecString(imff_box::VisualSampleEntry(imff_box::fourCC("mp4v"))), "mp4v.0x20");
    EXPECT_EQ(codecString(imff_box::VisualSampleEntry(imff_box::fourCC("s263"))), "s263");
    EXPECT_EQ(codecString(imff_box::VisualSampleEntry(imff_box::fourCC("vc-1"))), "vc-1");
    EXPECT_EQ(failureOf([] { codecString(imff_box::VisualSampleEntry(imff_box::fourCC("mp2v"))); }),
              "internal assertion failure");
}

TEST(CodecString, AudioEntries) {
    codec_box::MP4AudioSampleEntry aac;
    aac.esds.setDecoderSpecificInfo({0x11, 0x90});  // audio object type 2
    EXPECT_EQ(codecString(aac), "mp4a.40.2");
    aac.esds.setDecoderSpecificInfo({0x2B, 0x92, 0x08, 0x00});  // 5
    EXPECT_EQ(codecString(aac), "mp4a.40.5");
    aac.esds.setDecoderSpecificInfo({0xEB, 0x09, 0x88, 0x00});  // 29
    EXPECT_EQ(codecString(aac), "mp4a.40.29");
    aac.esds.setDecoderSpecificInfo({0x0A, 0x10});  // 1, AAC main: not announced
    EXPECT_EQ(codecString(aac), "");
    codec_box::MP4AudioSampleEntry mpeg1;
    mpeg1.esds.objectType = 0x6B;
    EXPECT_EQ(codecString(mpeg1), "mp4a.6b");
    EXPECT_EQ(codecString(codec_box::AC3AudioSampleEntry()), "ac-3");
    EXPECT_EQ(codecString(codec_box::EC3AudioSampleEntry()), "ec-3");

    // ac4_dsi_v1: version 1, bitstream version 2, 48 kHz, frame rate index 2, one presentation, no program id,
    // bit rate mode and two 32-bit rates, byte alignment; presentation version 1, 10 bytes, config 0, mdcompat 3.
    codec_box::AC4AudioSampleEntry ac4;
    ac4.dac4.data = hex("20 a4 01 00 00 00 00 00 00 00 00 00 01 0a 03");
    EXPECT_EQ(codecString(ac4), "ac-4.02.01.03");
    ac4.dac4.data.resize(5);  // cut short: nothing announced rather than guesses
    EXPECT_EQ(codecString(ac4), "");
}

}  // namespace
