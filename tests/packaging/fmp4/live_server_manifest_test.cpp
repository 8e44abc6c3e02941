// The server manifest documents: what stream names, languages and extra parameters put in them.
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

const VideoManifestInfo kVideo{.fourCC = "avc1", .codecs = "avc1.64001f", .codecPrivateData = {0, 0, 0, 1, 0x67, 0x64, 0xAB},
                               .width = 1280, .height = 720, .frameRateNumerator = 25, .sarWidth = 4, .sarHeight = 3};
const AudioManifestInfo kAudio{.fourCC = "mp4a", .codecs = "mp4a.40.2", .codecPrivateData = {0x11, 0x90}, .channels = 2,
                               .samplingRate = 48000};

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

const ManifestDurations kDurations{1000, 2000, 500};

// Each of `lines` in `xml`, one after the other.
void expectInOrder(const std::string& xml, const std::vector<std::string>& lines) {
    std::size_t at = 0;
    for (const std::string& line : lines) {
        const std::size_t found = xml.find(line, at);
        EXPECT_NE(found, std::string::npos) << "missing after byte " << at << ": " << line << "\nin\n" << xml;
        if (found != std::string::npos) at = found + line.size();
    }
}

TEST(LiveServerManifest, EmptyOutputHasAnEmptySwitch) {
    for (bool dash : {false, true}) {
        LiveServerManifest m("out", dash);
        EXPECT_TRUE(m.empty());
        EXPECT_EQ(m.ToXml(), kHead + "    <switch/>\n" + kTail);
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
