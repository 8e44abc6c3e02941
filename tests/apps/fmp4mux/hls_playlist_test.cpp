// HLS playlists of a small hand-made presentation, line by line as RFC 8216 lays them out.
#include <gtest/gtest.h>

#include <regex>

#include "apps/fmp4mux/manifests/hls.h"

// The tracks below name only the fields a case sets; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {
using namespace fmp4mux;

Track video() {
    return {.kind = "video", .representationId = "video0", .codecs = "avc1.64001e", .bandwidth = 300000,
            .averageBandwidth = 250000, .width = 640, .height = 360, .frameRate = "25/1", .timescale = 10,
            .initialization = "s/v/init.mp4", .mediaTemplate = "s/$RepresentationID$/c_$Time$.mp4",
            .segments = {{0, 20, 1}, {20, 25, 2}, {45, 14, 3}}};  // 2.0 s, 2.5 s (rounds to 3), 1.4 s
}

Track audio() {
    return {.kind = "audio", .representationId = "audio1", .language = "fra", .codecs = "mp4a.40.2", .bandwidth = 64000,
            .averageBandwidth = 60000, .channels = 2, .timescale = 10, .initialization = "s/a/init.mp4",
            .mediaTemplate = "s/a/c_$Number$.mp4", .segments = {{0, 20, 1}}};
}

Track subtitles() {
    return {.kind = "text", .representationId = "subs", .language = "eng", .codecs = "wvtt", .bandwidth = 1000,
            .averageBandwidth = 500, .timescale = 10, .initialization = "s/t/init.mp4",
            .mediaTemplate = "s/t/c_$Time$.mp4", .webVttFiles = true, .segments = {{0, 20, 1}}};
}

Track encrypted(const std::string& scheme) {
    Track t = audio();
    t.protectionScheme = scheme;
    t.defaultKid = "00112233-4455-6677-8899-aabbccddeeff";
    t.defaultKidBase64 = "ABEiM0RVZneImaq7zN3u/w==";
    t.protectionSystems = {{"1077efec-c0b2-4d02-ace3-3c1e52e2fb4b", "AAAA", ""},
                           {"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", "BBBB", "CC"},
                           {"9a04f079-9840-4286-ab92-e65be0885f95", "DDDD", "EEEE"}};
    return t;
}

// An audio track's playlist with one key per system: ClearKey (the key id), Widevine (its pssh), PlayReady (its
// header object), each with the key id.
std::string encryptedText(const std::string& method) {
    std::string keys;
    for (const auto& [uri, format] : {std::pair{"base64,ABEiM0RVZneImaq7zN3u/w==", "org.w3.clearkey"},
                                      {"base64,BBBB", "urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed"},
                                      {"charset=UTF-16;base64,EEEE", "com.microsoft.playready"}})
        keys += "#EXT-X-KEY:METHOD=" + method + ",URI=\"data:text/plain;" + uri +
                "\",KEYID=0x00112233445566778899aabbccddeeff,KEYFORMAT=\"" + format + "\",KEYFORMATVERSIONS=\"1\"\n";
    return "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-PLAYLIST-TYPE:VOD\n"
           "#EXT-X-INDEPENDENT-SEGMENTS\n" + keys + "#EXT-X-MAP:URI=\"s/a/init.mp4\"\n#EXTINF:2.000,\ns/a/c_1.mp4\n"
           "#EXT-X-ENDLIST\n";
}

ManifestTiming finished() { return {}; }

// Live, a 4 s window at the end of 5.9 s: the segment at 0 s has left it. Time 0 was available at 1000 s.
ManifestTiming live() {
    ManifestTiming timing;
    timing.dynamic = true;
    timing.availabilityStart = 1000;
    timing.timeShiftBufferSeconds = 4;
    timing.maxSegmentMs = 2500;
    return timing;
}

Track restarted() {
    Track t = video();
    t.discontinuitiesBefore = 1;     // one marked segment left the records before
    t.segments[0].discontinuity = true;  // and one leaves the window now
    t.segments[2].discontinuity = true;
    return t;
}

// Low latency: 2 s segments of 0.5 s chunks; segment 1 written in four parts, segment 2 growing with two.
Track growing() {
    Track t = video();
    t.mediaTemplate = "s/$RepresentationID$/n_$Number$.m4s";
    t.segments = {{0, 20, 1}};
    t.growing = Segment{20, 10, 2};
    t.parts = {{1, 0, 100, 5, true}, {1, 100, 80, 5, false}, {1, 180, 90, 5, false}, {1, 270, 70, 5, false},
               {2, 0, 120, 5, true}, {2, 120, 60, 5, false}};
    return t;
}

ManifestTiming lowLatency() {
    ManifestTiming timing = live();
    timing.timeShiftBufferSeconds = 60;
    timing.maxSegmentMs = 2000;
    timing.lowLatency = {true, 0.5, 2.0, 1, 2000, ""};
    return timing;
}

// Three splices of a file whose time 0 was at 1000 s (sorted by time, as the presentation gives them): back into
// the network at 0.5 s, out of it at 2.5 s for a 30 s break, a time_signal at 4.5 s, where the third segment starts.
ManifestTiming withSplices() {
    ManifestTiming timing;
    timing.availabilityStart = 1000;
    timing.splices = {{3, 5000000, std::nullopt, SpliceEvent::Kind::In, {0xAB}},
                      {1, 25000000, 300000000, SpliceEvent::Kind::Out, {0xFC, 0x30, 0x11}},
                      {2, 45000000, std::nullopt, SpliceEvent::Kind::Signal, {0xFC, 0x01}}};
    return timing;
}

const std::string kHead = "#EXTM3U\n#EXT-X-VERSION:6\n";

struct Playlist {
    std::string name;
    std::string text;
    std::string expected;
};
void PrintTo(const Playlist& p, std::ostream* os) { *os << p.name; }
class HlsPlaylists : public ::testing::TestWithParam<Playlist> {};

TEST_P(HlsPlaylists, ReadLineByLine) { EXPECT_EQ(GetParam().text, GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Table, HlsPlaylists,
    ::testing::Values(
        Playlist{"Multivariant",
                 buildMultivariantPlaylist({video(), audio(), subtitles()}, finished()),
                 kHead + "#EXT-X-INDEPENDENT-SEGMENTS\n"
                 "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"audio1\",LANGUAGE=\"fra\",DEFAULT=YES,"
                 "AUTOSELECT=YES,CHANNELS=\"2\",URI=\"audio1.m3u8\"\n"
                 "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"subs\",LANGUAGE=\"eng\",DEFAULT=NO,"
                 "AUTOSELECT=YES,URI=\"subs.m3u8\"\n"
                 "#EXT-X-STREAM-INF:BANDWIDTH=365000,AVERAGE-BANDWIDTH=310500,CODECS=\"avc1.64001e,mp4a.40.2\","
                 "RESOLUTION=640x360,FRAME-RATE=25.000,AUDIO=\"audio\",SUBTITLES=\"subs\"\nvideo0.m3u8\n"},
        Playlist{"AudioOnlyMultivariant",
                 buildMultivariantPlaylist({audio()}, finished()),
                 kHead + "#EXT-X-INDEPENDENT-SEGMENTS\n"
                 "#EXT-X-STREAM-INF:BANDWIDTH=64000,AVERAGE-BANDWIDTH=60000,CODECS=\"mp4a.40.2\"\naudio1.m3u8\n"},
        Playlist{"OnDemand",
                 buildMediaPlaylist(video(), finished()),
                 kHead + "#EXT-X-TARGETDURATION:3\n#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                 "#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"s/v/init.mp4\"\n"
                 "#EXTINF:2.000,\ns/video0/c_0.mp4\n#EXTINF:2.500,\ns/video0/c_20.mp4\n"
                 "#EXTINF:1.400,\ns/video0/c_45.mp4\n#EXT-X-ENDLIST\n"},
        Playlist{"LiveWindowWithDiscontinuities",
                 buildMediaPlaylist(restarted(), live()),
                 kHead + "#EXT-X-TARGETDURATION:3\n#EXT-X-MEDIA-SEQUENCE:2\n#EXT-X-DISCONTINUITY-SEQUENCE:2\n"
                 "#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"s/v/init.mp4\"\n"
                 "#EXT-X-PROGRAM-DATE-TIME:1970-01-01T00:16:42.000Z\n#EXTINF:2.500,\ns/video0/c_20.mp4\n"
                 "#EXT-X-DISCONTINUITY\n"
                 "#EXT-X-PROGRAM-DATE-TIME:1970-01-01T00:16:44.500Z\n#EXTINF:1.400,\ns/video0/c_45.mp4\n"},
        Playlist{"SplicesDatedInTheirSegments",
                 buildMediaPlaylist(video(), withSplices()),
                 kHead + "#EXT-X-TARGETDURATION:3\n#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                 "#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"s/v/init.mp4\"\n"
                 "#EXT-X-PROGRAM-DATE-TIME:1970-01-01T00:16:40.000Z\n"
                 "#EXT-X-DATERANGE:ID=\"splice-3\",START-DATE=\"1970-01-01T00:16:40.500Z\",SCTE35-IN=0xAB\n"
                 "#EXTINF:2.000,\ns/video0/c_0.mp4\n"
                 "#EXT-X-PROGRAM-DATE-TIME:1970-01-01T00:16:42.000Z\n"
                 "#EXT-X-DATERANGE:ID=\"splice-1\",START-DATE=\"1970-01-01T00:16:42.500Z\",PLANNED-DURATION=30.000,"
                 "SCTE35-OUT=0xFC3011\n"
                 "#EXTINF:2.500,\ns/video0/c_20.mp4\n"
                 "#EXT-X-PROGRAM-DATE-TIME:1970-01-01T00:16:44.500Z\n"
                 "#EXT-X-DATERANGE:ID=\"splice-2\",START-DATE=\"1970-01-01T00:16:44.500Z\",SCTE35-CMD=0xFC01\n"
                 "#EXTINF:1.400,\ns/video0/c_45.mp4\n#EXT-X-ENDLIST\n"},
        Playlist{"WebVttTextFiles",
                 buildMediaPlaylist(subtitles(), finished()),
                 kHead + "#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                 "#EXT-X-INDEPENDENT-SEGMENTS\n#EXTINF:2.000,\ns/t/c_0.vtt\n#EXT-X-ENDLIST\n"},
        Playlist{"EncryptedCenc", buildMediaPlaylist(encrypted("cenc"), finished()), encryptedText("SAMPLE-AES-CTR")},
        Playlist{"EncryptedCbcs", buildMediaPlaylist(encrypted("cbcs"), finished()), encryptedText("SAMPLE-AES")},
        Playlist{"LowLatencyParts",
                 buildMediaPlaylist(growing(), lowLatency()),
                 kHead + "#EXT-X-TARGETDURATION:2\n"
                 "#EXT-X-SERVER-CONTROL:CAN-BLOCK-RELOAD=YES,PART-HOLD-BACK=1.500\n#EXT-X-PART-INF:PART-TARGET=0.500\n"
                 "#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"s/v/init.mp4\"\n"
                 "#EXT-X-PROGRAM-DATE-TIME:1970-01-01T00:16:40.000Z\n"
                 "#EXT-X-PART:DURATION=0.500,URI=\"s/video0/n_1.m4s\",BYTERANGE=\"100@0\",INDEPENDENT=YES\n"
                 "#EXT-X-PART:DURATION=0.500,URI=\"s/video0/n_1.m4s\",BYTERANGE=\"80@100\"\n"
                 "#EXT-X-PART:DURATION=0.500,URI=\"s/video0/n_1.m4s\",BYTERANGE=\"90@180\"\n"
                 "#EXT-X-PART:DURATION=0.500,URI=\"s/video0/n_1.m4s\",BYTERANGE=\"70@270\"\n"
                 "#EXTINF:2.000,\ns/video0/n_1.m4s\n"
                 "#EXT-X-PART:DURATION=0.500,URI=\"s/video0/n_2.m4s\",BYTERANGE=\"120@0\",INDEPENDENT=YES\n"
                 "#EXT-X-PART:DURATION=0.500,URI=\"s/video0/n_2.m4s\",BYTERANGE=\"60@120\"\n"
                 "#EXT-X-PRELOAD-HINT:TYPE=PART,URI=\"s/video0/n_2.m4s\",BYTERANGE-START=180\n"}),
    [](const auto& test) { return test.param.name; });

// The origin holds a blocking reload until the last part listed: part 1 of segment 2; parts go once finished.
TEST(HlsPlaylist, LowLatencyPlaylistsTellTheirLastPart) {
    const auto files = HlsManifestWriter().files({growing()}, lowLatency());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_FALSE(files[0].lastPart);
    EXPECT_EQ(files[1].lastPart, (std::pair<std::uint64_t, std::uint64_t>{2, 1}));
    EXPECT_EQ(buildMediaPlaylist(growing(), finished()).find("PART"), std::string::npos);
}

// A variant's CODECS are the codecs attributes of the MPD's representations, one source for both.
TEST(HlsPlaylist, CodecsAreTheMpdsCodecs) {
    Track v = video(), a = audio();
    v.codecs = "hvc1.1.6.L93.B0";
    const std::string mpd = buildMpd({v, a}, {});
    std::string fromMpd;
    const std::regex codecs(" codecs=\"([^\"]+)\"");
    for (auto it = std::sregex_iterator(mpd.begin(), mpd.end(), codecs); it != std::sregex_iterator(); ++it)
        fromMpd += (fromMpd.empty() ? "" : ",") + (*it)[1].str();
    EXPECT_NE(buildMultivariantPlaylist({v, a}, finished()).find("CODECS=\"" + fromMpd + "\""), std::string::npos) << fromMpd;
}

}  // namespace
