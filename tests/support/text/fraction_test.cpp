#include "support/text/fraction.h"

#include <gtest/gtest.h>

#include "tests/common/bytes.h"

namespace {
using tvrn::encoding::Fraction;
using tvrn::encoding::computeLCM;

TEST(MulDiv, ExactWhereThe64BitProductOverflows) {
    // 10^12 ticks at 90 kHz (about 128 days) times 10^7 is 10^19, past the 64-bit range;
    // the quotient 10^19 / 90000 = 111111111111111.1 fits.
    EXPECT_EQ(tvrn::encoding::mulDiv(1000000000000, 10000000, 90000), std::int64_t{111111111111111});
    EXPECT_EQ(tvrn::encoding::rescale(std::int64_t{1000000000000000}, 90000, 10000000),
              std::int64_t{111111111111111111});
    EXPECT_EQ(tvrn::encoding::rescale(std::int64_t{-1000000000000000}, 90000, 10000000),
              std::int64_t{-111111111111111111});
}

TEST(Fraction, RoundingAndReduction) {
    EXPECT_EQ((Fraction<std::int64_t>{7, 2}.floor()), 3);
    EXPECT_EQ((Fraction<std::int64_t>{-7, 2}.floor()), -4);
    EXPECT_EQ((Fraction<std::int64_t>{7, 2}.ceil()), 4);
    EXPECT_EQ((Fraction<std::int64_t>{-7, 2}.ceil()), -3);
    EXPECT_EQ((Fraction<std::int64_t>{5, 2}.round()), 3);  // (5 + 1) / 2
    EXPECT_EQ((Fraction<std::uint64_t>{4, 3}.round()), 1u);
    const auto r = Fraction<std::int64_t>{30, -12}.reduced();
    EXPECT_EQ(r.num, -5);
    EXPECT_EQ(r.den, 2);
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
    EXPECT_EQ(testkit::failureOf<CorvaneException>([] { computeLCM(std::vector<Fraction<std::int64_t>>{}); }),
              "Cannot compute LCM of no fraction");
}
}  // namespace
