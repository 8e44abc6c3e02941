// Init chunks with parameter sets in band or unusable, the "mp4a" entry of each form of AAC configuration, codec
// strings of hand-filled sample entries, and what stream names, languages and extra parameters put in the server
// manifest. The init chunks of real streams are compared whole in the golden chunks.
#include <gtest/gtest.h>

#include <sstream>

#include "packaging/codec_box/audio_boxes.h"
#include "packaging/codec_box/video_boxes.h"
#include "packaging/fmp4/chunks/audio_sample_entry.h"
#include "packaging/fmp4/chunks/codec_string.h"
#include "packaging/fmp4/chunks/init_chunk.h"
#include "packaging/fmp4/manifest/live_server_manifest.h"
#include "tests/common/boxes.h"
#include "tests/common/chunks.h"
#include "tests/common/fixtures.h"
#include "tests/common/synthetic.h"

namespace {
using namespace testkit;
namespace codec_box = tvrn::encoding::packaging::imff::codec_box;

const ManifestDurations kDurations{1000, 2000, 500};  // timescale, segment and chunk durations

// Parameter sets in band in DASH (Smooth Streaming's are in the golden chunks): the entry is avc3 or hev1, the
// codec string says so, and hvcC marks none of its arrays complete.
TEST(InitChunk, InBandParameterSetsInDash) {
    struct Case { const char* fixture; std::uint32_t type; const char* entry; };
    for (const Case& c : {Case{"h264_plain", H264_VIDEO, "avc3"}, Case{"hevc_bframes", HEVC_VIDEO, "hev1"}}) {
        SCOPED_TRACE(c.entry);
        InitChunk init("out", true);
        ASSERT_EQ(init.AddStream(1, 10000000, kDurations, c.type, attributesOf(c.type, 500000), true,
                                 firstChunkOf(c.fixture, c.type), true),
                  1);
        const Bytes bytes = init.Serialise();
        const ByteView movie = moviePart(bytes);
        const auto stsd = findBox(movie, "moov/trak/mdia/minf/stbl/stsd");
        ASSERT_TRUE(stsd);
        const BoxView entry = boxesIn(movie, stsd->contentStart + 8, stsd->end).at(0);
        EXPECT_EQ(entry.type, c.entry);
        EXPECT_NE(init.manifest().ToXml().find(std::string("codecs=\"") + c.entry + "."), std::string::npos);
        if (c.type != HEVC_VIDEO) continue;
        // hvcC after the 78 bytes of visual fields: three arrays behind the 23 bytes of the record's header, each
        // with its unit type (VPS, SPS, PPS) without the completeness bit, a count of 1, a length and the unit.
        std::size_t at = entry.contentStart + 78 + 8 + 23;
        for (unsigned type : {32u, 33u, 34u}) {
            ASSERT_LT(at + 5, movie.size());
            EXPECT_EQ(movie[at], type);
            EXPECT_EQ(be16(&movie[at + 1]), 1u);
            at += 5 + be16(&movie[at + 3]);
        }
    }
}

TEST(InitChunk, NothingAddedWithoutParameterSetsOrSampleEntry) {
    InitChunk init("out", true);
    EXPECT_EQ(init.AddStream(1, 10000000, kDurations, H264_VIDEO, attributesOf(H264_VIDEO, 500000), false,
                             StreamChunk{}, true),
              0);
    EXPECT_EQ(init.AddStream(1, 10000000, kDurations, MPEG2_VIDEO, attributesOf(MPEG2_VIDEO, 500000), false,
                             firstChunkOf("h264_plain", H264_VIDEO), true),
              0);
    EXPECT_TRUE(init.manifest().empty());

    // Parameter sets cut short or of garbage: an entry or nothing, never a crash or a read past the data.
    for (std::uint32_t type : {H264_VIDEO, HEVC_VIDEO}) {
        for (const Bytes& unit : {hex("67"), hex("420101"), Bytes(40, 0xFF), hex("67 0000000000")}) {
            const Bytes withLength = cat({hex("000000"), {static_cast<std::uint8_t>(unit.size())}, unit});
            InitChunk garbage("out", true);
            EXPECT_GE(garbage.AddStream(1, 10000000, kDurations, type, attributesOf(type, 500000), false,
                                        configurationChunk(samples::KindSequenceParameterSet, withLength), true),
                      0);
            EXPECT_FALSE(garbage.Serialise().empty());
        }
    }
    EXPECT_TRUE(initChunkMoviePart(nullptr, 0).empty());
    const Bytes truncated = hex("00000010 00000008 0000");
    EXPECT_TRUE(initChunkMoviePart(truncated.data(), truncated.size()).empty());
}

// --- codec strings -------------------------------------------------------------------------------------

// AVC's string (profile, compatibility, level in hex) is in the golden manifests and the in-band test above.
TEST(CodecString, HevcEntriesAndAnAacObjectTypeNotAnnounced) {
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
    // An AAC object type that players are not told of gives no string. (Those they are told of are in the audio
    // sample entry's tests.)
    codec_box::MP4AudioSampleEntry aac;
    aac.esds.setDecoderSpecificInfo({0x0A, 0x10});  // audio object type 1, AAC main
    EXPECT_EQ(codecString(aac), "");
}

// --- AAC sample entries --------------------------------------------------------------------------------

StreamChunk configChunk(const Bytes& config) { return configurationChunk(samples::KindDecoderConfiguration, config); }

// Each configuration's entry: its type, the channels, the rate in the 16.16 field and, filling the rest, its
// configuration box; the codec string and what the manifest says. AAC's "esds" ends with the decoder specific info
// (tag 5 and its length), the configuration itself, then the SL descriptor. AC-3, E-AC-3 and MPEG-1 from ffmpeg's
// first frames, with configuration boxes worked out by hand from ETSI TS 102 366 annex F. AC-3 5.1: fscod 0,
// bsid 8, bsmod 0, acmod 7, lfeon 1, frmsizcod 28 (code 14). E-AC-3: one independent substream, 416 bytes at
// 44.1 kHz (95 kbit/s), fscod 1, bsid 16, acmod 2; then the same with a hand-made 64-byte dependent substream
// (strmtyp 1, frmsiz 31, acmod 2, bsid 16, chanmape 1, chanmap): 480 bytes a 1536-tick frame at 44100 make data_rate
// 110, with num_ind_sub 0 = 0370. chanmap counts from its most significant bit (5 Lc/Rc, 6 Lrs/Rrs, 14 LFE2; TS 102
// 366 table E.1.4), chan_loc from its least (0 Lc/Rc, 1 Lrs/Rrs, 8 LFE2; table F.6.1). Then fscod 01, bsid 10000,
// 00000, acmod 010, lfeon 0 = 6004, reserved 000, num_dep_sub 0001 and chan_loc: chanmap 0x0200 (Lrs/Rrs) is
// 000000010 = 0202, 4 channels; chanmap 0x0402 (Lc/Rc, LFE2) is 100000001 = 0301, 5 channels. The first fixes the
// order of chan_loc, the second both ends of the mapping, across chanmap's 13 (Lts/Rts) that chan_loc lacks.
TEST(AudioSampleEntry, EachConfigurationGivesItsEntryRateChannelsAndCodecString) {
    const Bytes ac3 = packetBytes(loadAudioFixture("ac3_51_48k.ac3")).front();
    const Bytes eac3 = packetBytes(loadAudioFixture("eac3_stereo_44k.eac3")).front();
    Bytes dependent = hex("0B77 401F 74 87 D0 20 00");  // chanmap 0x0200
    dependent.resize(64, 0);
    Bytes dependentLcRcLfe2 = hex("0B77 401F 74 87 D0 40 20");  // chanmap 0x0402
    dependentLcRcLfe2.resize(64, 0);
    struct Case {
        std::uint32_t type;
        Bytes config;
        const char* entryType;
        const char* boxType;
        Bytes boxTail;
        std::uint16_t channels;
        std::uint32_t rate;
        const char* codecs;
        const char* channelValue;
    };
    const auto aac = [](const Bytes& config, std::uint16_t channels, std::uint32_t rate, const char* codecs) {
        return Case{AAC_ADTS_AUDIO, config, "mp4a", "esds",
                    cat({{0x05, static_cast<std::uint8_t>(config.size())}, config, hex("06 01 02")}), channels, rate,
                    codecs, ""};
    };
    const Case cases[] = {
        aac({0x11, 0x90}, 2, 48000, "mp4a.40.2"),
        aac({0x12, 0x30}, 6, 44100, "mp4a.40.2"),
        aac(ascBytes({5, 6, 2, 3}), 2, 48000, "mp4a.40.5"),
        aac(ascBytes({29, 6, 1, 3}), 2, 48000, "mp4a.40.29"),
        aac({0x11, 0x88}, 1, 48000, "mp4a.40.2"),
        {AC3_AUDIO, ac3, "ac-3", "dac3", hex("103DC0"), 6, 48000, "ac-3", "F801"},
        {AC3_AUDIO, eac3, "ec-3", "dec3", hex("02F8 600400"), 2, 44100, "ec-3", "A000"},
        {AC3_AUDIO, cat({eac3, dependent}), "ec-3", "dec3", hex("0370 60040202"), 4, 44100, "ec-3", "A200"},
        {AC3_AUDIO, cat({eac3, dependentLcRcLfe2}), "ec-3", "dec3", hex("0370 60040301"), 5, 44100, "ec-3", "A402"},
        // esds: object type 0x6B, then the decoder specific info as the sample builder makes it.
        {MPEG1_AUDIO, hex("F97E 0177 0040"), "mp4a", "esds", hex("05 06 F97E01770040 060102"), 2, 48000, "mp4a.6b",
         "2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.codecs + std::to_string(c.channels) + c.channelValue);
        const AudioSampleEntryResult result = makeAudioSampleEntry(c.type, configChunk(c.config), {});
        ASSERT_TRUE(result.entry);
        const Bytes bytes = writeBox(result.entry);
        ASSERT_GE(bytes.size(), 36u + 8 + c.boxTail.size());
        EXPECT_EQ(slice(bytes, 4, 4), Bytes(c.entryType, c.entryType + 4));
        EXPECT_EQ(be16(&bytes[24]), c.channels);
        EXPECT_EQ(be16(&bytes[32]), c.rate & 0xFFFF);
        EXPECT_EQ(slice(bytes, 36, 8), cat({Bytes{0, 0, 0, static_cast<std::uint8_t>(bytes.size() - 36)},
                                              Bytes(c.boxType, c.boxType + 4)}));
        EXPECT_EQ(slice(bytes, bytes.size() - c.boxTail.size(), c.boxTail.size()), c.boxTail);
        EXPECT_EQ(codecString(*result.entry), c.codecs);
        EXPECT_EQ(result.manifest.codecs, c.codecs);
        EXPECT_EQ(result.manifest.fourCC, c.entryType);
        EXPECT_EQ(result.manifest.codecPrivateData, c.config.size() > 64 ? Bytes{} : c.config);
        EXPECT_EQ(result.manifest.channels, c.channels);
        EXPECT_EQ(result.manifest.channelValue, c.channelValue);
        EXPECT_EQ(result.manifest.samplingRate, c.rate);
    }
}

// The downmix metadata of a Dolby entry's first frame, in the entry's dump with its labels (TS 102 366 4.4.2 and
// annexes D and E). ffmpeg's AC-3 5.1: byte 6 is EB = acmod 111, cmixlev 01, surmixlev 01, lfeon 1. A hand-made
// AC-3 frame of the alternate syntax: 0B77, crc 0000, fscod 00 with frmsizcod 8, bsid 6 = 30; then acmod 111,
// cmixlev 00, surmixlev 10, lfeon 1 = E5; dialnorm 31, no compr, langcod, mixlevel = F8; copyrightb 0, origbs 0,
// xbsi1e 1, dmixmod 10, ltrtcmixlev 000 = 30; ltrtsurmixlev 011, lorocmixlev 110, lorosurmixlev 111 = 7B 80. And
// ffmpeg's E-AC-3 stereo with the information metadata set: byte 6 C8 ends dialnorm (11), then compre 0,
// mixmdate 0, infomdate 1, bsmod 000; byte 7 20 is copyrightb 0, origbs 0, dsurmod 10.
TEST(AudioSampleEntry, DolbyEntriesDumpTheDownmixOfTheirFirstFrame) {
    Bytes alternate = hex("0B77 0000 08 30 E5 F8 30 7B 80");
    alternate.resize(256, 0);
    Bytes eac3 = packetBytes(loadAudioFixture("eac3_stereo_44k.eac3")).front();
    eac3[6] = 0xC8;
    eac3[7] = 0x20;
    const std::pair<Bytes, std::string> cases[] = {
        {packetBytes(loadAudioFixture("ac3_51_48k.ac3")).front(),
         "<DolbyDownmix CentreMixLevel=\"-4.5 dB\" SurroundMixLevel=\"-6.0 dB\"/>"},
        {alternate,
         "<DolbyDownmix CentreMixLevel=\"-3.0 dB\" SurroundMixLevel=\"-inf dB\" LtRtCentreMixLevel=\"+3.0 dB\" "
         "LoRoCentreMixLevel=\"-6.0 dB\" LtRtSurroundMixLevel=\"-1.5 dB\" LoRoSurroundMixLevel=\"-inf dB\" "
         "StereoDownmix=\"Lo/Ro\"/>"},
        {eac3, "<DolbyDownmix SurroundMode=\"Surround enabled\"/>"},
    };
    for (const auto& [config, line] : cases) {
        const AudioSampleEntryResult result = makeAudioSampleEntry(AC3_AUDIO, configChunk(config), {});
        ASSERT_TRUE(result.entry);
        std::ostringstream dump;
        result.entry->dump(&dump);
        EXPECT_NE(dump.str().find(line + "\n"), std::string::npos) << dump.str();
    }
}

TEST(AudioSampleEntry, NoEntryWithoutAUsableConfiguration) {
    ElementaryStreamAttributes attributes;
    EXPECT_FALSE(makeAudioSampleEntry(AAC_ADTS_AUDIO, StreamChunk{}, attributes).entry);
    EXPECT_FALSE(makeAudioSampleEntry(AAC_LATM_AUDIO, configChunk({0x41, 0x90}), attributes).entry);  // object type 8
    EXPECT_FALSE(makeAudioSampleEntry(AAC_RAW_AUDIO, configChunk({0x16, 0x90}), attributes).entry);   // index 13
    EXPECT_FALSE(makeAudioSampleEntry(H264_VIDEO, configChunk({0x11, 0x90}), attributes).entry);
    EXPECT_EQ(channelCountOf(7), 8u);
    EXPECT_EQ(channelCountOf(0), 0u);
}

TEST(AudioSampleEntry, Ac4EntryFromItsFirstFrame) {
    // AC-4 from the hand-made first frame: ac4_dsi_v1 with version 1, bitstream_version 2, fs_index 1,
    // frame_rate_index 3, no presentation descriptions, no program id, bit rate mode 0 with two zero rates: 91 bits
    // in 12 bytes. The codec string takes presentation_version 1 and mdcompat 2 from the frame's TOC.
    const AudioSampleEntryResult ac4 =
        makeAudioSampleEntry(AC4_AUDIO, configChunk(packetBytes(loadAudioFixture("ac4_handmade.ac4")).front()), {});
    ASSERT_TRUE(ac4.entry);
    const Bytes ac4Bytes = writeBox(ac4.entry);
    EXPECT_EQ(slice(ac4Bytes, 4, 4), hex("'ac-4'"));
    EXPECT_EQ(slice(ac4Bytes, ac4Bytes.size() - 20, 20), hex("00000014 'dac4' 20A60000 00000000 00000000"));
    EXPECT_EQ(ac4.manifest.codecs, "ac-4.02.01.02");
    // Two channels are the L/R speaker group alone: bit 0 of the 24-bit AC-4 mask.
    EXPECT_EQ(ac4.manifest.channelScheme + " " + ac4.manifest.channelValue,
              "tag:dolby.com,2015:dash:audio_channel_configuration:2015 000001");
    // A damaged first frame gives no entry.
    EXPECT_FALSE(makeAudioSampleEntry(AC3_AUDIO, configChunk(hex("0B77 0000 C0 40 00 00")), {}).entry);
}

// --- the server manifest ------------------------------------------------------------------------------

ElementaryStreamAttributes videoAttributes() { return attributesOf(H264_VIDEO, 3000000, 3300000, "hd", "Foo=1;bar=x"); }

const VideoManifestInfo kVideo{.fourCC = "avc1", .codecs = "avc1.64001f", .codecPrivateData = {0, 0, 0, 1, 0x67, 0x64, 0xAB},
                               .width = 1280, .height = 720, .frameRateNumerator = 25, .sarWidth = 4, .sarHeight = 3};
const AudioManifestInfo kAudio{.fourCC = "mp4a", .codecs = "mp4a.40.2", .codecPrivateData = {0x11, 0x90}, .channels = 2,
                               .samplingRate = 48000, .channelScheme = {}, .channelValue = {}};

ElementaryStreamAttributes audioAttributes() {
    ElementaryStreamAttributes a = attributesOf(AAC_ADTS_AUDIO, 128000, 128000, "main", "k=v");
    a.language = "fra";
    return a;
}

// The document around the streams is the golden init chunks' own.
TEST(LiveServerManifest, EmptyOutputHasAnEmptySwitch) {
    for (bool dash : {false, true}) {
        LiveServerManifest m("out", dash);
        EXPECT_TRUE(m.empty());
        EXPECT_NE(m.ToXml().find("  <body>\n    <switch/>\n  </body>\n"), std::string::npos) << m.ToXml();
    }
}

// The golden init chunks hold whole documents of plain streams; here what names, languages, aspect ratios and
// extra parameters add.
TEST(LiveServerManifest, SmoothNamesLanguageAndExtraParameters) {
    LiveServerManifest m("out", false);
    m.AddVideo(1, kVideo, videoAttributes(), kDurations);
    m.AddAudio(2, kAudio, audioAttributes(), kDurations);
    expectInOrder(m.ToXml(),
                  {"      <video src=\"videoStream\" systemBitrate=\"3000000\">\n"
                   "        <param name=\"trackName\" value=\"videohd\" valuetype=\"data\"/>\n",
                   "        <param name=\"CodecPrivateData\" value=\"000000016764ab\" valuetype=\"data\"/>\n",
                   "        <param name=\"Subtype\" value=\"\" valuetype=\"data\"/>\n"
                   "        <param name=\"Foo\" value=\"1\" valuetype=\"data\"/>\n"
                   "        <param name=\"bar\" value=\"x\" valuetype=\"data\"/>\n"
                   "      </video>\n"
                   "      <audio src=\"audioStream_2\" systemBitrate=\"128000\" Name=\"main\" systemLanguage=\"fra\">\n"
                   "        <param name=\"systemBitrate\" value=\"128000\" valuetype=\"data\"/>\n"
                   "        <param name=\"trackName\" value=\"main\" valuetype=\"data\"/>\n",
                   "        <param name=\"Subtype\" value=\"\" valuetype=\"data\"/>\n"
                   "        <param name=\"k\" value=\"v\" valuetype=\"data\"/>\n"
                   "      </audio>\n"});
}

TEST(LiveServerManifest, DashAspectRatioAndUndeterminedLanguage) {
    LiveServerManifest m("out", true);
    m.AddVideo(1, kVideo, videoAttributes(), kDurations);
    ElementaryStreamAttributes audio = audioAttributes();
    audio.language.clear();  // an empty language is announced as undetermined
    m.AddAudio(2, kAudio, audio, kDurations);
    expectInOrder(m.ToXml(),
                  {"      <video trackId=\"1\" systemBitrate=\"3000000\" peakBitrate=\"3300000\" width=\"1280\" "
                   "height=\"720\" startWithSAP=\"1\" frameRate=\"25/1\" scanType=\"progressive\" mimeType=\"video/mp4\" "
                   "codecs=\"avc1.64001f\" sar_width=\"4\" sar_height=\"3\">\n"
                   "        <durations timescale=\"1000\" segmentDuration=\"2000\" chunkDuration=\"500\"/>\n",
                   "      <audio systemBitrate=\"128000\" trackID=\"2\" lang=\"und\" startWithSAP=\"1\""});
}

// DASH entries end with the stream descriptors in their given order: video after "durations", audio after its
// channel configuration and "durations", text after its accessibility mark. SCTE-35 is a Smooth Streaming entry
// only, its last two params read from "Subtype".
TEST(LiveServerManifest, DescriptorsInOrderAndAdMarkers) {
    ElementaryStreamAttributes a = audioAttributes(), markers;
    a.descriptors = {{"Role", "urn:mpeg:dash:role:2011", "main"}, {"Rating", "urn:dvb::iptv:cpm:2014", "1"}};
    a.flag = true;
    markers.name = "hd";
    AudioManifestInfo channels = kAudio;
    channels.channelScheme = "urn:x:channels";
    channels.channelValue = "2";
    const std::string durations = "        <durations timescale=\"1000\" segmentDuration=\"2000\" chunkDuration=\"500\"/>\n";
    const std::string descriptors = "        <Role schemeIdUri=\"urn:mpeg:dash:role:2011\" value=\"main\"/>\n"
                                    "        <Rating schemeIdUri=\"urn:dvb::iptv:cpm:2014\" value=\"1\"/>\n";
    LiveServerManifest dash("out", true), smooth("out", false);
    for (LiveServerManifest* m : {&dash, &smooth}) {
        m->AddVideo(1, kVideo, a, kDurations);
        m->AddAudio(2, channels, a, kDurations);
        m->AddText(3, "stpp", a);
        m->AddScte35(4, markers);
    }
    expectInOrder(dash.ToXml(), {durations + descriptors + "      </video>\n",
                                 "        <AudioChannelConfiguration schemeIdUri=\"urn:x:channels\" value=\"2\"/>\n" +
                                     durations + descriptors + "      </audio>\n",
                                 "        <Accessibility schemeIdUri=\"urn:tva:metadata:cs:AudioPurposeCS:2007\" value=\"2\"/>\n" +
                                     descriptors + "      </textstream>\n    </switch>"});
    EXPECT_EQ(smooth.ToXml().find("Rating"), std::string::npos);
    expectInOrder(smooth.ToXml(), {"      <textstream src=\"textStream_4\" systemLanguage=\"eng\">\n"
                                   "        <param name=\"trackID\" value=\"4\" valuetype=\"data\"/>\n"
                                   "        <param name=\"trackName\" value=\"SCTE35_out_4\" valuetype=\"data\"/>\n"
                                   "        <param name=\"trackName\" value=\"AdMarkers\" valuetype=\"data\"/>\n"
                                   "        <param name=\"manifestOutput\" value=\"TRUE\" valuetype=\"data\"/>\n"
                                   "        <param name=\"FourCC\" Subtype=\"SCTE35\" valuetype=\"data\"/>\n"
                                   "        <param name=\"parentTrackName\" Subtype=\"videohd\" valuetype=\"data\"/>\n"
                                   "      </textstream>\n"});
}

TEST(ExtraParameters, AnyForbiddenCharacterVoidsTheWholeList) {
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(parseExtraParameters("a=1;b=two;;c"), (Pairs{{"a", "1"}, {"b", "two"}, {"c", ""}}));
    EXPECT_EQ(parseExtraParameters(""), Pairs{});
    for (const char* bad : {"a=1;b=x y", "a=1;b=\"x\"", "a=1;b='x'", "a=1;b=x=y", "a=<", "a=>", "a&=1"})
        EXPECT_EQ(parseExtraParameters(bad), Pairs{}) << bad;

    // In the document: none of an invalid list.
    ElementaryStreamAttributes a = videoAttributes();
    a.name2 = "good=1;bad=a&b";
    LiveServerManifest m("out", false);
    m.AddVideo(1, kVideo, a, kDurations);
    EXPECT_EQ(m.ToXml().find("good"), std::string::npos);
}

}  // namespace
