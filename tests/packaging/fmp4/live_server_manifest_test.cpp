// The server manifest documents, written out by hand from the element and attribute rules.
#include <gtest/gtest.h>

#include "packaging/fmp4/manifest/live_server_manifest.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;

const std::string kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<smil xmlns=\"http://www.w3.org/2001/SMIL20/Language\">\n"
    "  <head>\n"
    "    <meta name=\"Meta Data\" content=\"Common meta data\"/>\n"
    "  </head>\n"
    "  <body>\n";
const std::string kTail =
    "  </body>\n"
    "</smil>\n";

ElementaryStreamAttributes videoAttributes() {
    ElementaryStreamAttributes a;
    a.type = H264_VIDEO;
    a.bitrate = 3000000;
    a.bandwidth = 3300000;
    a.name = "hd";
    a.name2 = "Foo=1;bar=x";
    return a;
}

VideoManifestInfo videoInfo() {
    VideoManifestInfo v;
    v.fourCC = "avc1";
    v.codecs = "avc1.64001f";
    v.codecPrivateData = {0, 0, 0, 1, 0x67, 0x64, 0xAB};
    v.width = 1280;
    v.height = 720;
    v.frameRateNumerator = 25;
    v.frameRateDenominator = 1;
    v.sarWidth = 4;
    v.sarHeight = 3;
    return v;
}

ElementaryStreamAttributes audioAttributes() {
    ElementaryStreamAttributes a;
    a.type = AAC_ADTS_AUDIO;
    a.bitrate = 128000;
    a.bandwidth = 128000;
    a.name = "main";
    a.language = "fra";
    a.name2 = "k=v";
    return a;
}

AudioManifestInfo audioInfo() {
    AudioManifestInfo a;
    a.fourCC = "mp4a";
    a.codecs = "mp4a.40.2";
    a.codecPrivateData = {0x11, 0x90};
    a.channels = 2;
    a.samplingRate = 48000;
    return a;
}

const ManifestDurations kDurations{1000, 2000, 500};

TEST(LiveServerManifest, EmptyOutputHasAnEmptySwitch) {
    for (bool dash : {false, true}) {
        LiveServerManifest m("out", dash);
        EXPECT_TRUE(m.empty());
        EXPECT_EQ(m.ToXml(), kHead + "    <switch/>\n" + kTail);
    }
}

TEST(LiveServerManifest, SmoothVideoAndAudioCarryParams) {
    LiveServerManifest m("out", false);
    m.AddVideo(1, videoInfo(), videoAttributes(), kDurations);
    m.AddAudio(2, audioInfo(), audioAttributes(), kDurations);
    const std::string expected =
        kHead +
        "    <switch>\n"
        "      <video src=\"videoStream\" systemBitrate=\"3000000\">\n"
        "        <param name=\"trackName\" value=\"videohd\" valuetype=\"data\"/>\n"
        "        <param name=\"trackID\" value=\"1\" valuetype=\"data\"/>\n"
        "        <param name=\"FourCC\" value=\"avc1\" valuetype=\"data\"/>\n"
        "        <param name=\"CodecPrivateData\" value=\"00000001" "6764ab\" valuetype=\"data\"/>\n"
        "        <param name=\"MaxWidth\" value=\"1280\" valuetype=\"data\"/>\n"
        "        <param name=\"MaxHeight\" value=\"720\" valuetype=\"data\"/>\n"
        "        <param name=\"DisplayWidth\" value=\"1280\" valuetype=\"data\"/>\n"
        "        <param name=\"DisplayHeight\" value=\"720\" valuetype=\"data\"/>\n"
        "        <param name=\"Subtype\" value=\"\" valuetype=\"data\"/>\n"
        "        <param name=\"Foo\" value=\"1\" valuetype=\"data\"/>\n"
        "        <param name=\"bar\" value=\"x\" valuetype=\"data\"/>\n"
        "      </video>\n"
        "      <audio src=\"audioStream_2\" systemBitrate=\"128000\" Name=\"main\" systemLanguage=\"fra\">\n"
        "        <param name=\"systemBitrate\" value=\"128000\" valuetype=\"data\"/>\n"
        "        <param name=\"trackName\" value=\"main\" valuetype=\"data\"/>\n"
        "        <param name=\"trackID\" value=\"2\" valuetype=\"data\"/>\n"
        "        <param name=\"FourCC\" value=\"mp4a\" valuetype=\"data\"/>\n"
        "        <param name=\"CodecPrivateData\" value=\"1190\" valuetype=\"data\"/>\n"
        "        <param name=\"AudioTag\" value=\"255\" valuetype=\"data\"/>\n"
        "        <param name=\"Channels\" value=\"2\" valuetype=\"data\"/>\n"
        "        <param name=\"SamplingRate\" value=\"48000\" valuetype=\"data\"/>\n"
        "        <param name=\"BitsPerSample\" value=\"16\" valuetype=\"data\"/>\n"
        "        <param name=\"PacketSize\" value=\"4\" valuetype=\"data\"/>\n"
        "        <param name=\"Subtype\" value=\"\" valuetype=\"data\"/>\n"
        "        <param name=\"k\" value=\"v\" valuetype=\"data\"/>\n"
        "      </audio>\n"
        "    </switch>\n" +
        kTail;
    EXPECT_EQ(m.ToXml(), expected);
}

TEST(LiveServerManifest, DashVideoAndAudioCarryAttributesAndDurations) {
    LiveServerManifest m("out", true);
    m.AddVideo(1, videoInfo(), videoAttributes(), kDurations);
    ElementaryStreamAttributes audio = audioAttributes();
    audio.language.clear();  // an empty language is announced as undetermined
    m.AddAudio(2, audioInfo(), audio, kDurations);
    const std::string expected =
        kHead +
        "    <switch>\n"
        "      <video trackId=\"1\" systemBitrate=\"3000000\" peakBitrate=\"3300000\" width=\"1280\" height=\"720\" "
        "startWithSAP=\"1\" frameRate=\"25/1\" scanType=\"progressive\" mimeType=\"video/mp4\" codecs=\"avc1.64001f\" "
        "sar_width=\"4\" sar_height=\"3\">\n"
        "        <durations timescale=\"1000\" segmentDuration=\"2000\" chunkDuration=\"500\"/>\n"
        "      </video>\n"
        "      <audio systemBitrate=\"128000\" trackID=\"2\" lang=\"und\" startWithSAP=\"1\" mimeType=\"audio/mp4\" "
        "codecs=\"mp4a.40.2\" audioSamplingRate=\"48000\">\n"
        "        <durations timescale=\"1000\" segmentDuration=\"2000\" chunkDuration=\"500\"/>\n"
        "      </audio>\n"
        "    </switch>\n" +
        kTail;
    EXPECT_EQ(m.ToXml(), expected);
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
    m.AddVideo(1, videoInfo(), a, kDurations);
    EXPECT_EQ(m.ToXml().find("good"), std::string::npos);
}

}  // namespace
