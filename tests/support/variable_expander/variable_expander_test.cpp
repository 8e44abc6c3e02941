#include "support/variable_expander/variable_expander.h"

#include <gtest/gtest.h>

#include "tests/common/bytes.h"

namespace {
using namespace tvrn::encoding::variable_expander;

std::string failure(const std::string& text, const IVariables& variables) {
    return testkit::failureOf<ExpandVariableException>([&] { expand(text, variables); });
}

TEST(Expand, SubstitutesVariablesAndEscapes) {
    MapVariables v;
    v.add("sessionId", "live");
    v.add("time", "900000");
    EXPECT_EQ(expand("${sessionId}/chunk_${time}.mp4", v), "live/chunk_900000.mp4");
    EXPECT_EQ(expand("", v), "");
    EXPECT_EQ(expand("a\\$b\\{\\}\\\\\\n\\t\\r", v), "a$b{}\\\n\t\r");
}

TEST(Expand, RefusesBadSyntaxWithItsMessage) {
    MapVariables v;
    v.add("b", "x");
    v.add("a", "y");
    EXPECT_EQ(failure("a{", v), "unexpected character {; you might want \\{ instead.");
    EXPECT_EQ(failure("}", v), "unexpected character }; you might want \\} instead.");
    EXPECT_EQ(failure("\\q", v), "unknown escape sequence \\q.");
    EXPECT_EQ(failure("abc\\", v), "unfinished escape sequence (available: \\\\ \\$ \\{ \\} \\t \\n \\r).");
    EXPECT_EQ(failure("cost $", v), "expecting opening brace { after $; you might want \\$ instead.");
    EXPECT_EQ(failure("$x", v), "expecting opening brace { after $; you might want \\$ instead.");
    EXPECT_EQ(failure("${", v), "unbalanced braces, you probably forgot a }.");
    EXPECT_EQ(failure("${a{b}", v), "special character { is forbidden in variable names.");
    EXPECT_EQ(failure("${a$}", v), "special character $ is forbidden in variable names.");
    // Unknown names list what is there, in name order.
    EXPECT_EQ(failure("${c}", v), "unknown variable ${c} (available: a b)");
}

TEST(Expand, RequiredVariablesMustAppear) {
    MapVariables v;
    v.add("time", "1", true);
    v.add("bitrate", "2", true);
    v.add("x", "3");
    EXPECT_EQ(expand("${bitrate}${time}", v), "21");
    EXPECT_EQ(failure("${time}", v), "${bitrate} must appear at least once.");
    MosaicVariables mosaic(3, "", "news");
    EXPECT_EQ(expand("${feedIndex}-${serviceName}-${customName}", mosaic), "3-N/A-news");
}

// What the checks say of a template per mode (0 Smooth, 1 and 2 DASH): "valid", or why not.
std::string media(int mode, const std::string& text) {
    std::string error;
    return validateMediaTemplate(mode, text, error) ? "valid" : error;
}
std::string init(int mode, bool hbbTv, const std::string& text) {
    std::string error;
    return validateInitTemplate(mode, hbbTv, text, error) ? "valid" : error;
}

TEST(Validate, MediaAndInitTemplatesPerModeAndHbbTv) {
    EXPECT_EQ(media(1, ""), "'${adaptationSetId}' is mandatory");
    EXPECT_EQ(media(1, kDefaultDashMedia), "valid");
    EXPECT_EQ(media(0, kDefaultSmoothMedia), "valid");
    EXPECT_EQ(media(2, "${adaptationSetId}/${time}"), "'${representationId}' is mandatory");
    EXPECT_EQ(media(1, "${adaptationSetId}/${representationId}"), "'${time}' or '${number}' is mandatory");
    const std::string both = "${adaptationSetId}/${representationId}/${bitrate}/${time}_${number}";
    EXPECT_EQ(media(1, both), "'${time}' and '${number}' can not be used together");
    EXPECT_EQ(media(0, both), "valid");
    EXPECT_EQ(media(0, "${adaptationSetId}/${time}"), "'${bitrate}' is mandatory");
    EXPECT_EQ(media(0, "${adaptationSetId}/${bitrate}"), "'${time}' is mandatory");
    EXPECT_EQ(media(5, "${adaptationSetId}"), "valid");
    EXPECT_EQ(init(1, false, kDefaultDashInit), "valid");
    EXPECT_EQ(init(1, true, kDefaultDashInitPerAdaptationSet), "valid");
    EXPECT_EQ(init(2, true, kDefaultDashInit), "HbbTv 1.5 compatibility : '${representationId}' is forbidden");
    EXPECT_EQ(init(1, false, kDefaultDashInitPerAdaptationSet), "'${representationId}' is mandatory");
    EXPECT_EQ(init(0, false, kDefaultSmoothInit), "valid");
    EXPECT_EQ(init(0, false, "${adaptationSetId}/init"), "'${bitrate}' is mandatory");
}

TEST(Translate, ConcreteNamesAndSegmentTemplateText) {
    std::string result, error;
    ASSERT_TRUE(translateTemplate(kDefaultDashMedia, result, "live", 1, "mp4", error, 90000, -1, "video_500"));
    EXPECT_EQ(result, "live/1/video_500/chunk_90000.mp4");
    ASSERT_TRUE(translateTemplate(kDefaultDashMedia, result, "live", -1, "mp4", error, -1, -1, ""));
    EXPECT_EQ(result, "live/$AdapatationSet$/$RepresentationID$/chunk_$Time$.mp4");
    ASSERT_TRUE(translateTemplate("${sessionId}/${number}.${ext}", result, "s", 0, "m4s", error, -1, 7, ""));
    EXPECT_EQ(result, "s/7.m4s");
    EXPECT_FALSE(translateTemplate("${bitrate}", result, "s", 0, "m4s", error, 0, 0, "r"));
    EXPECT_EQ(error.rfind("unknown variable ${bitrate} (available:", 0), 0u);
}
}  // namespace
