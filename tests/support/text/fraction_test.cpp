#include "support/text/fraction.h"

#include <gtest/gtest.h>

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

TEST(Fraction, LcmOfDurations) {
    // 1/25 s and 1024/48000 s of audio: both divide 16/25 s... check against hand arithmetic:
    // 1/25 = 1920/48000, 1024/48000; lcm(1920, 1024) = 15360 -> 15360/48000 = 8/25.
    auto lcm = computeLCM(std::vector<Fraction<std::int64_t>>{{1, 25}, {1024, 48000}});
    EXPECT_EQ(lcm.num, 8);
    EXPECT_EQ(lcm.den, 25);
}
}  // namespace
