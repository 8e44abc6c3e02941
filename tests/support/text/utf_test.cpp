#include "support/text/utf.h"

#include <gtest/gtest.h>

#include "tests/common/bytes.h"

namespace {
using namespace tvrn::encoding::utf;

std::string parseFailure(std::vector<std::uint8_t> bytes) {
    return testkit::failureOf<UtfException>([&] { TextParserUTF8().parse(bytes.data(), bytes.size()); });
}

TEST(Utf8, ParsesSequencesOfOneToFourBytes) {
    // "A", e-acute (C3 A9), euro sign (E2 82 AC), G clef U+1D11E (F0 9D 84 9E).
    const std::vector<std::uint8_t> bytes{0x41, 0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9D, 0x84, 0x9E};
    const auto cps = TextParserUTF8().parse(bytes.data(), bytes.size());
    EXPECT_EQ(cps, (std::vector<char32_t>{0x41, 0xE9, 0x20AC, 0x1D11E}));
    EXPECT_EQ(TextEmitterUTF8().emit(cps), std::string(bytes.begin(), bytes.end()));
}

TEST(Utf8, RefusesMalformedInputWithItsReason) {
    EXPECT_EQ(parseFailure({0xC0, 0x80}), "invalid utf-8 sequence, invalid character");
    EXPECT_EQ(parseFailure({0xF5, 0x80, 0x80, 0x80}), "invalid utf-8 sequence, invalid character");
    EXPECT_EQ(parseFailure({0x41, 0x80}), "invalid utf-8 sequence, unexpected continuation byte");
    EXPECT_EQ(parseFailure({0xE2, 0x41, 0xAC}), "invalid utf-8 sequence, expected a continuation byte");
    EXPECT_EQ(parseFailure({0xF0, 0x9D, 0x84}), "unfinished utf-8 sequence");
    std::string out;
    EXPECT_THROW(TextEmitterUTF8().emit(0x110000, out), UtfException);
    EXPECT_EQ(testkit::failureOf<UtfException>([] { TextEmitterUTF16LE().emit(std::vector<char32_t>{0xD800}); }),
              "invalid Unicode codepoint");
}

TEST(Utf16LE, RoundTripsThroughSurrogatePairs) {
    // U+1D11E is D834 DD1E; little-endian bytes 34 D8 1E DD.
    const std::vector<char32_t> cps{0x41, 0x20AC, 0x1D11E};
    const auto bytes = TextEmitterUTF16LE().emit(cps);
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{0x41, 0x00, 0xAC, 0x20, 0x34, 0xD8, 0x1E, 0xDD}));
    EXPECT_EQ(TextParserUTF16LE().parse(bytes.data(), bytes.size()), cps);
    const std::vector<std::uint8_t> lone{0x1E, 0xDD};
    EXPECT_THROW(TextParserUTF16LE().parse(lone.data(), lone.size()), UtfException);
}
}  // namespace
