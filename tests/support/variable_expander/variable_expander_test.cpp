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

TEST(Validate, MediaTemplatesPerMode) {
    std::string error;
    EXPECT_FALSE(validateMediaTemplate(1, "", error));
    EXPECT_EQ(error, "'${adaptationSetId}' is mandatory");
    EXPECT_TRUE(validateMediaTemplate(1, kDefaultDashMedia, error));
    EXPECT_TRUE(validateMediaTemplate(0, kDefaultSmoothMedia, error));
    EXPECT_FALSE(validateMediaTemplate(2, "${adaptationSetId}/${time}", error));
    EXPECT_EQ(error, "'${representationId}' is mandatory");
    EXPECT_FALSE(validateMediaTemplate(1, "${adaptationSetId}/${representationId}", error));
    EXPECT_EQ(error, "'${time}' or '${number}' is mandatory");
    const std::string both = "${adaptationSetId}/${representationId}/${bitrate}/${time}_${number}";
    EXPECT_FALSE(validateMediaTemplate(1, both, error));
    EXPECT_EQ(error, "'${time}' and '${number}' can not be used together");
    EXPECT_TRUE(validateMediaTemplate(0, both, error));
    EXPECT_FALSE(validateMediaTemplate(0, "${adaptationSetId}/${time}", error));
    EXPECT_EQ(error, "'${bitrate}' is mandatory");
    EXPECT_FALSE(validateMediaTemplate(0, "${adaptationSetId}/${bitrate}", error));
    EXPECT_EQ(error, "'${time}' is mandatory");
    EXPECT_TRUE(validateMediaTemplate(5, "${adaptationSetId}", error));
}

TEST(Validate, InitTemplatesPerModeAndHbbTv) {
    std::string error;
    EXPECT_TRUE(validateInitTemplate(1, false, kDefaultDashInit, error));
    EXPECT_TRUE(validateInitTemplate(1, true, kDefaultDashInitPerAdaptationSet, error));
    EXPECT_FALSE(validateInitTemplate(2, true, kDefaultDashInit, error));
    EXPECT_EQ(error, "HbbTv 1.5 compatibility : '${representationId}' is forbidden");
    EXPECT_FALSE(validateInitTemplate(1, false, kDefaultDashInitPerAdaptationSet, error));
    EXPECT_EQ(error, "'${representationId}' is mandatory");
    EXPECT_TRUE(validateInitTemplate(0, false, kDefaultSmoothInit, error));
    EXPECT_FALSE(validateInitTemplate(0, false, "${adaptationSetId}/init", error));
    EXPECT_EQ(error, "'${bitrate}' is mandatory");
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
