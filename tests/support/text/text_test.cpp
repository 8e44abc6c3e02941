// The text helpers: exact fractions and rescaling, bit sets, UTF-8 and UTF-16, paths and files.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/text/bit_set.h"
#include "support/text/files.h"
#include "support/text/fraction.h"
#include "support/text/paths.h"
#include "support/text/utf.h"
#include "tests/common/bytes.h"

namespace {
using namespace tvrn::encoding::files;
using namespace tvrn::encoding::paths;
using namespace tvrn::encoding::utf;
using testkit::failureOf;
using tvrn::encoding::Fraction;
using tvrn::encoding::computeLCM;
using tvrn::encoding::bit_rw::Bit_Set;

TEST(MulDiv, ExactWhereThe64BitProductOverflows) {
    // 10^12 ticks at 90 kHz (about 128 days) times 10^7 is 10^19, past the 64-bit range;
    // the quotient 10^19 / 90000 = 111111111111111.1 fits.
    // (The same forward through rescale is the fragment builder's test.)
    EXPECT_EQ(tvrn::encoding::mulDiv(1000000000000, 10000000, 90000), std::int64_t{111111111111111});
    EXPECT_EQ(tvrn::encoding::rescale(std::int64_t{-1000000000000000}, 90000, 10000000), std::int64_t{-111111111111111111});
}

TEST(Fraction, RoundingAndReduction) {
    EXPECT_EQ((Fraction<std::int64_t>{7, 2}.floor()), 3);
    EXPECT_EQ((Fraction<std::int64_t>{-7, 2}.floor()), -4);
    EXPECT_EQ((Fraction<std::int64_t>{7, 2}.ceil()), 4);
    EXPECT_EQ((Fraction<std::int64_t>{-7, 2}.ceil()), -3);
    EXPECT_EQ((Fraction<std::int64_t>{5, 2}.round()), 3);  // (5 + 1) / 2
    EXPECT_EQ((Fraction<std::uint64_t>{4, 3}.round()), 1u);
    const auto r = Fraction<std::int64_t>{30, -12}.reduced();
    EXPECT_EQ(std::make_pair(r.num, r.den), std::make_pair(std::int64_t{-5}, std::int64_t{2}));
    // Cross products in 128 bits: these products overflow 64 bits.
    EXPECT_TRUE((Fraction<std::uint64_t>{3000000000000, 6000000000001} ==
                 Fraction<std::uint64_t>{6000000000000, 12000000000002}));
    EXPECT_FALSE((Fraction<std::uint64_t>{3000000000000, 6000000000001} ==
                  Fraction<std::uint64_t>{3000000000001, 6000000000001}));
}

TEST(Fraction, LcmOfDurations) {
    // 1/25 s (1920/48000) and an AAC frame of 1024/48000 s: lcm(1920, 1024) = 15360, so 15360/48000 = 8/25.
    const auto lcm = computeLCM(std::vector<Fraction<std::int64_t>>{{1, 25}, {1024, 48000}});
    EXPECT_EQ(std::make_pair(lcm.num, lcm.den), std::make_pair(std::int64_t{8}, std::int64_t{25}));
    // A 29.97 fps frame, 1001/30000 s, is 8008/240000 and the AAC frame 5120/240000: lcm = 5125120/240000 = 8008/375.
    const auto ntsc = computeLCM(std::vector<Fraction<std::uint64_t>>{{1001, 30000}, {1024, 48000}});
    EXPECT_EQ(std::make_pair(ntsc.num, ntsc.den), std::make_pair(std::uint64_t{8008}, std::uint64_t{375}));
    const auto one = computeLCM(std::vector<Fraction<std::uint64_t>>{{6, 4}});  // itself, reduced
    EXPECT_EQ(std::make_pair(one.num, one.den), std::make_pair(std::uint64_t{3}, std::uint64_t{2}));
    EXPECT_EQ(failureOf<CorvaneException>([] { computeLCM(std::vector<Fraction<std::int64_t>>{}); }),
              "Cannot compute LCM of no fraction");
}

TEST(BitSet, ReadsWritesAndCombines) {
    Bit_Set a("1100101");
    EXPECT_EQ(a.size(), 7u);
    EXPECT_TRUE(a.get(0));
    EXPECT_FALSE(a.get(2));
    a.set(2, true);
    EXPECT_EQ(a.toString(), "1110101");
    EXPECT_EQ(a.sub_set(2, 3).toString(), "101");
    const Bit_Set b("0101010");
    EXPECT_EQ((a ^ b).toString(), "1011111");
    EXPECT_EQ((a & b).toString(), "0100000");
    EXPECT_EQ((a | b).toString(), "1111111");
    Bit_Set c = a;
    c ^= a;
    EXPECT_TRUE(c == Bit_Set(7));
    c |= b;
    c &= a;
    EXPECT_EQ(c.toString(), "0100000");
}

TEST(BitSet, FailuresCarryTheirMessages) {
    Bit_Set a(4);
    EXPECT_EQ(failureOf([&] { a.get(4); }), "out of range");
    EXPECT_EQ(failureOf([&] { a.set(9, true); }), "out of range");
    EXPECT_EQ(failureOf([&] { a.sub_set(3, 2); }), "invalid sub_set Position or Size");
    EXPECT_EQ(failureOf([] { Bit_Set("0120"); }), "Bad Bit_Set input string");
    const Bit_Set other(5);
    const std::string differ = "Cannot compare 2 Bit_Set with different sizes ";
    EXPECT_EQ(failureOf([&] { (void)(a == other); }), differ + "(==)");
    EXPECT_EQ(failureOf([&] { a ^= other; }), differ + "(^=)");
    EXPECT_EQ(failureOf([&] { (void)(a ^ other); }), differ + "(^)");
    EXPECT_EQ(failureOf([&] { a &= other; }), differ + "(&=)");
    EXPECT_EQ(failureOf([&] { (void)(a & other); }), differ + "(&)");
    EXPECT_EQ(failureOf([&] { a |= other; }), differ + "(|=)");
    EXPECT_EQ(failureOf([&] { (void)(a | other); }), differ + "(|)");
}

std::string parseFailure(std::vector<std::uint8_t> bytes) {
    return failureOf<UtfException>([&] { TextParserUTF8().parse(bytes.data(), bytes.size()); });
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
    EXPECT_EQ(failureOf<UtfException>([] { TextEmitterUTF16LE().emit(std::vector<char32_t>{0xD800}); }),
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

TEST(Paths, ParseAndPrintTheKnownForms) {
    EXPECT_EQ(toString(parseAbsolutePath("D:")), "D:");
    EXPECT_EQ(toString(parseAbsolutePath("D:\\")), "D:");
    EXPECT_EQ(toString(parseAbsolutePath("//serveur")), "//serveur");
    EXPECT_EQ(parseAbsolutePath("c:/a/b/x").directory.components, (std::vector<std::string>{"a", "b", "x"}));
    EXPECT_EQ(toString(parseAbsolutePath("c:\\a\\b/x")), "c:/a/b/x");
    EXPECT_EQ(toString(parseAbsolutePath("/srv/media//out")), "/srv/media/out");
    EXPECT_EQ(toString(AbsolutePath(WindowsDrive{"c"}, DirectoryPath())), "c:");
    EXPECT_EQ(failureOf([] { parseAbsolutePath("./serveur"); }), "invalid absolute path:./serveur");
    EXPECT_EQ(failureOf([] { parseAbsolutePath("toto/titi"); }), "invalid absolute path:toto/titi");
}

TEST(Paths, ParentFileNameAndJoin) {
    const auto base = parseAbsolutePath("c:/a/b");
    EXPECT_EQ(toString(base + RelativePath("../c/d.mp4")), "c:/a/c/d.mp4");
    EXPECT_EQ(fileName(base), "b");
    EXPECT_EQ(toString(parent(base)), "c:/a");
    EXPECT_EQ(parent(RelativePath()), RelativePath(".."));
    EXPECT_THROW(base + RelativePath("../../.."), PathException);
    EXPECT_EQ(failureOf([] { parent(parseAbsolutePath("D:")); }), "cannot get parent of empty directory path");
    EXPECT_EQ(failureOf([] { fileName(RelativePath()); }), "cannot exctract file name from empty path");
}

TEST(Files, WriteReadMoveEnumerateAndTemporaryNames) {
    char pattern[] = "/tmp/fmp4-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern, tmp = temporaryDirectory(dir);
    EXPECT_EQ(tmp, dir + "/f0077324-7974-46c1-8f4d-c121507e30e6");
    const std::string first = makeTemporaryFile(tmp);
    EXPECT_EQ(first, tmp + "/f0077324-7974-46c1-8f4d-c121507e30e6_0");
    EXPECT_EQ(makeTemporaryFile(tmp), tmp + "/f0077324-7974-46c1-8f4d-c121507e30e6_1");

    writeFile(first, "chunk bytes");
    moveFile(first, dir + "/final.m4s");
    const auto bytes = readFile(dir + "/final.m4s");
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "chunk bytes");
    EXPECT_EQ(enumerateDirectory(dir), (std::vector<std::string>{"f0077324-7974-46c1-8f4d-c121507e30e6", "final.m4s"}));

    const std::string missing = dir + "/none", win32 = "]: Win32 error " + std::to_string(ENOENT);
    EXPECT_EQ(failureOf([&] { removeFile(missing); }), "could not remove file [" + missing + win32);
    EXPECT_EQ(failureOf([&] { enumerateDirectory(missing); }), "could not enumerate the contents of [" + missing + win32);
    EXPECT_EQ(failureOf([&] { readFile(missing); }).rfind("could not read file:", 0), 0u);
    EXPECT_EQ(failureOf([&] { moveFile(missing, dir + "/x"); }).rfind("Can't move file", 0), 0u);
    removeDirectory(dir);
    EXPECT_EQ(access(dir.c_str(), F_OK), -1);
}
}  // namespace
