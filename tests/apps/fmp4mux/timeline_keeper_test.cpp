// Timestamp jumps taken out of inputs: packets fed in order, with the times (ms here) they must come out at.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/timeline_keeper.h"

namespace {
using fmp4mux::TimelineKeeper;

constexpr long long kDropped = -1;

struct Packet {
    int input, stream;
    bool video, key;
    long long raw;       // decode time in, ms
    long long expected;  // decode time out, ms, or kDropped
};

struct Case {
    std::string name;
    std::vector<Packet> packets;
    std::size_t jumpsLogged;
};

class TimelineKeeperTable : public ::testing::TestWithParam<Case> {};

TEST_P(TimelineKeeperTable, PlacesEveryPacket) {
    std::vector<std::string> lines;
    TimelineKeeper keeper(4000 * 10000LL, [&](const std::string& line) { lines.push_back(line); });
    std::uint64_t dropped = 0;
    for (const Packet& p : GetParam().packets) {
        std::optional<std::int64_t> dts = p.raw * 10000, pts = (p.raw + 80) * 10000;
        const bool kept = keeper.place(p.input, p.stream, p.video, p.key, pts, dts, 0);
        SCOPED_TRACE("packet " + std::to_string(p.input) + ":" + std::to_string(p.stream) + " at " + std::to_string(p.raw));
        if (p.expected == kDropped) {
            EXPECT_FALSE(kept);
            ++dropped;
            continue;
        }
        ASSERT_TRUE(kept);
        EXPECT_EQ(*dts, p.expected * 10000);
        EXPECT_EQ(*pts, (p.expected + 80) * 10000);  // presentation times move with the same offset
    }
    EXPECT_EQ(keeper.dropped(), dropped);
    EXPECT_EQ(lines.size(), GetParam().jumpsLogged);
    for (const auto& line : lines) EXPECT_NE(line.find("timestamps jump by"), std::string::npos) << line;
}

const Packet V(int input, long long raw, long long expected, bool key = true) { return {input, 0, true, key, raw, expected}; }
const Packet A(int input, long long raw, long long expected) { return {input, 1, false, true, raw, expected}; }

INSTANTIATE_TEST_SUITE_P(
    Jumps, TimelineKeeperTable,
    ::testing::Values(
        Case{"ForwardJumpContinuesWhereTheNextPacketWasDue",
             {V(0, 0, 0), V(0, 40, 40), V(0, 80, 80), V(0, 5000080, 120), V(0, 5000120, 160)}, 1},
        Case{"BackwardJumpContinuesWhereTheNextPacketWasDue",
             {V(0, 10000, 10000), V(0, 10040, 10040), V(0, 0, 10080), V(0, 40, 10120)}, 1},
        Case{"GapBelowTheBoundIsKept", {V(0, 0, 0), V(0, 40, 40), V(0, 3040, 3040), V(0, 3080, 3080)}, 0},
        Case{"AudioAndVideoOfOneInputTakeOneOffset",
             {V(0, 0, 0), A(0, 0, 0), V(0, 40, 40), A(0, 21, 21), A(0, 42, 42), V(0, 80, 80), A(0, 63, 63),
              A(0, 84, 84), A(0, 5000105, 105), V(0, 5000120, 120), A(0, 5000126, 126)},
             1},
        Case{"RenditionsThatJumpTogetherStayAligned",
             // input 1 lost its packet at 80 just before the jump: it still lands where input 0 does
             {V(0, 0, 0), V(1, 0, 0), V(0, 40, 40), V(1, 40, 40), V(0, 80, 80), V(0, 5000120, 120),
              V(1, 5000120, 120), V(1, 5000160, 160)},
             2},
        Case{"RenditionThatDoesNotJumpKeepsItsTimes",
             {V(0, 0, 0), V(1, 0, 0), V(0, 40, 40), V(1, 40, 40), V(0, 5000080, 80), V(1, 80, 80), V(1, 120, 120)}, 1},
        Case{"WhatTheCommonOffsetPutsBehindIsDroppedAndVideoWaitsForAKeyFrame",
             {V(0, 0, 0), A(0, 0, 0), V(0, 40, 40), A(0, 42, 42), V(0, 80, 80), A(0, 84, 84), A(0, 5000126, 126),
              V(0, 5000070, kDropped), V(0, 5000110, kDropped, false), V(0, 5000150, 150), V(0, 5000190, 190, false)},
             1}),
    [](const auto& test) { return test.param.name; });

}  // namespace
