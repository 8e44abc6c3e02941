#include "support/text/bit_set.h"

#include <gtest/gtest.h>

#include "tests/common/bytes.h"

namespace {
using tvrn::encoding::bit_rw::Bit_Set;

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
    using testkit::failureOf;
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
}  // namespace
