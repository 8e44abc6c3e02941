// Text chunks before serialisation: repeated WebVTT cues folded, TTML documents merged into one per chunk with
// each paragraph kept at its place.
#include <gtest/gtest.h>

#include <string>
#include <tinyxml2.h>

#include "packaging/fmp4/chunks/text_chunks.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "tests/common/samples.h"

namespace {
namespace fmp4 = tvrn::encoding::packaging::imff::fmp4;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;

// A sample of `text` at `start` for `duration`, in the sample's timescale.
std::shared_ptr<fmp4::ISyncSample> textSample(const std::string& text, std::int64_t start, std::int64_t duration,
                                              std::uint64_t timescale) {
    std::shared_ptr<samples::Sample> sample = testkit::timedSample(0, samples::KindTimedText, 0, start, start, duration,
                                                                   {text.begin(), text.end()}, timescale);
    sample->sync = true;
    return std::make_shared<fmp4::Fmp4Sample>(std::move(sample));
}

std::vector<std::int64_t> durations(const fmp4::StreamChunk& chunk) {
    std::vector<std::int64_t> out;
    for (const auto& s : chunk.samples) out.push_back(s->getDuration() / 10000000);
    return out;
}

TEST(TextChunks, RepeatedWebVttCuesFoldIntoOneLongerCue) {
    constexpr std::int64_t kS = 10000000;
    fmp4::StreamChunk chunk;
    for (std::int64_t i = 0; i < 3; ++i) chunk.samples.push_back(textSample("same", 2 * i * kS, 2 * kS, kS));
    chunk.samples.push_back(textSample("other", 6 * kS, 2 * kS, kS));
    chunk.samples.push_back(textSample("same", 8 * kS, 1 * kS, kS));
    fmp4::foldRepeatedWebVttCues(chunk);
    EXPECT_EQ(durations(chunk), (std::vector<std::int64_t>{6, 2, 1}));
}

TEST(TextChunks, TtmlDocumentsMergeOnTheTrackTimelineWithTheDefaultRegion) {
    // Two documents at 90 kHz, 10 s and 12 s on the samples' timeline; the track's zero is at 9 s. The second
    // paragraph has no end: it ends with its sample (2 s later).
    const std::string first = R"(<tt xmlns="http://www.w3.org/ns/ttml" xmlns:tts="http://www.w3.org/ns/ttml#styling">)"
                              R"(<head><styling><style xml:id="s" tts:color="red"/></styling></head>)"
                              R"(<body><div><p begin="100s" end="101.5s">one</p></div></body></tt>)";
    const std::string second = R"(<tt xmlns="http://www.w3.org/ns/ttml"><head><styling><style xml:id="s"/></styling>)"
                               R"(</head><body><div><p begin="00:00:05.000">two</p></div></body></tt>)";
    fmp4::StreamChunk chunk;
    chunk.samples.push_back(textSample(first, 900000, 180000, 90000));
    chunk.samples.push_back(textSample(second, 1080000, 180000, 90000));
    chunk.samples.push_back(textSample("<tt", 1260000, 90000, 90000));  // not XML: left out, named
    std::string skipped;
    fmp4::mergeTtmlChunk(chunk, 9 * 10000000LL, "fra", skipped);
    EXPECT_EQ(skipped, "00:00:05.000");
    ASSERT_EQ(chunk.samples.size(), 1u);
    EXPECT_EQ(chunk.samples[0]->getTime(), 10 * 10000000LL);
    EXPECT_EQ(chunk.samples[0]->getDuration(), 5 * 10000000LL);
    const auto* sample = dynamic_cast<const fmp4::Fmp4Sample*>(chunk.samples[0].get());
    std::vector<std::uint8_t> bytes(sample->getSize());
    sample->getData(bytes.data());
    tinyxml2::XMLDocument doc;
    ASSERT_EQ(doc.Parse(reinterpret_cast<const char*>(bytes.data()), bytes.size()), tinyxml2::XML_SUCCESS);
    const auto* tt = doc.FirstChildElement("tt");
    ASSERT_NE(tt, nullptr);
    EXPECT_STREQ(tt->Attribute("xml:lang"), "fra");
    EXPECT_STREQ(tt->Attribute("ttp:timeBase"), "media");
    const auto* style = tt->FirstChildElement("head")->FirstChildElement("styling")->FirstChildElement("style");
    EXPECT_STREQ(style->Attribute("tts:color"), "red");  // the first of id "s" is kept
    EXPECT_EQ(style->NextSiblingElement("style"), nullptr);
    const auto* region = tt->FirstChildElement("head")->FirstChildElement("layout")->FirstChildElement("region");
    EXPECT_STREQ(region->Attribute("tts:origin"), "10% 10%");
    const auto* div = tt->FirstChildElement("body")->FirstChildElement("div");
    const auto* p1 = div->FirstChildElement("p");
    const auto* p2 = div->NextSiblingElement("div")->FirstChildElement("p");
    EXPECT_STREQ(p1->Attribute("begin"), "00:00:01.000");
    EXPECT_STREQ(p1->Attribute("end"), "00:00:02.500");
    EXPECT_STREQ(p1->Attribute("xml:id"), "sub_1");
    EXPECT_STREQ(p2->Attribute("begin"), "00:00:03.000");
    EXPECT_STREQ(p2->Attribute("end"), "00:00:05.000");
}

}  // namespace
