// fmp4mux's cutting of subtitle files: good cues kept with their times and text, each bad cue skipped with a
// warning that names file and line, and gaps filled with empty items.
#include <gtest/gtest.h>

#include "apps/fmp4mux/inputs/subtitle_cues.h"

namespace {
using namespace fmp4mux;

constexpr std::int64_t kS = 10000000;  // 100 ns units per second

struct FileCase {
    const char* name;
    bool srt;
    std::string text;
    std::vector<TextCue> cues;
    std::vector<std::string> warnings;
};

class CutSubtitles : public ::testing::TestWithParam<FileCase> {};

TEST_P(CutSubtitles, KeepsGoodCuesAndNamesTheLineOfEachBadOne) {
    const FileCase& c = GetParam();
    const CueFile file = c.srt ? cutSrt(c.text, "f") : cutWebVtt(c.text, "f");
    ASSERT_EQ(file.cues.size(), c.cues.size());
    for (std::size_t i = 0; i < c.cues.size(); ++i) {
        EXPECT_EQ(file.cues[i].start, c.cues[i].start) << i;
        EXPECT_EQ(file.cues[i].end, c.cues[i].end) << i;
        EXPECT_EQ(file.cues[i].item, c.cues[i].item) << i;
    }
    ASSERT_EQ(file.warnings.size(), c.warnings.size()) << (file.warnings.empty() ? "" : file.warnings[0]);
    for (std::size_t i = 0; i < c.warnings.size(); ++i) EXPECT_TRUE(file.warnings[i].starts_with(c.warnings[i])) << file.warnings[i];
}

INSTANTIATE_TEST_SUITE_P(
    Files, CutSubtitles,
    ::testing::Values(
        FileCase{"WebVttWithIdsNotesSettingsAndCrLf", false,
                 "\xEF\xBB\xBFWEBVTT\r\n\r\nNOTE x\r\n\r\nid1\r\n00:01.000 --> 00:02.500 line:0\r\nA\r\nB\r\n\r\n"
                 "01:00:00.000 --> 01:00:01.000\r\n<i>C</i>\r\n",
                 {{1 * kS, 25 * kS / 10, "line:0\nA\nB"}, {3600 * kS, 3601 * kS, "\n<i>C</i>"}},
                 {}},
        FileCase{"WebVttBadCuesSkipped", false,
                 "WEBVTT\n\n00:01.000 --> 00:02.000\nok\n\n"             // line 3: kept
                 "00:01.500 --> 00:03.000\noverlap\n\n"                 // line 6
                 "00:05.000 --> 00:04.000\nbackwards\n\n"               // line 9
                 "00:06.000 --> 00:07.000\n<b>open\n\n"                 // line 12
                 "00:08.000 --> 00:09.000\nLatin-1 \xE9t\xE9\n\n"       // line 15
                 "00:10.000 --> 00:11.000\nbin\x01\x02\n\n"             // line 18
                 "00:1x.000 --> 00:13.000\nbad time\n\n"                // line 21
                 "no timing here\n\n"                                   // line 24
                 "00:14.000 --> 00:15.000\nlast\n",                     // line 26: kept
                 {{1 * kS, 2 * kS, "\nok"}, {14 * kS, 15 * kS, "\nlast"}},
                 {"f:6: the cue overlaps", "f:9: the cue ends before", "f:12: tag <b> is not closed",
                  "f:15: the cue text is not UTF-8", "f:18: control byte", "f:21: the cue times do not parse",
                  "f:24: a block without"}},
        FileCase{"EmptyFile", false, "", {}, {"f:1: the file is empty"}},
        FileCase{"NotWebVtt", false, "\x7F" "ELF\x02\x01", {}, {"f:1: not a WebVTT file"}},
        FileCase{"SrtWithAndWithoutCounters", true,
                 "1\n00:00:01,000 --> 00:00:02,000\nHello\nworld\n\n00:00:03,000 --> 00:00:04,000\n<b>x</b>\n\n"
                 "3\n00:00:03,500 --> 00:00:05,000\nstarts inside\n",
                 {{1 * kS, 2 * kS, "\nHello\nworld"}, {3 * kS, 4 * kS, "\n<b>x</b>"}},
                 {"f:10: the cue overlaps"}}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(SubtitleGaps, FillTheTimelineInPiecesOfAtMostTheLimit) {
    const auto items = withGaps({{5 * kS, 6 * kS, "\na"}, {6 * kS, 7 * kS, "\nb"}}, 0, 2 * kS);
    const std::vector<std::pair<std::int64_t, std::int64_t>> expected = {
        {0, 2 * kS}, {2 * kS, 4 * kS}, {4 * kS, 5 * kS}, {5 * kS, 6 * kS}, {6 * kS, 7 * kS}};
    ASSERT_EQ(items.size(), expected.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(std::make_pair(items[i].start, items[i].end), expected[i]) << i;
        EXPECT_EQ(items[i].item.empty(), i < 3) << i;
    }
}

}  // namespace
