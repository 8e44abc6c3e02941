#include "packaging/synchronizator_lowlatency/low_latency_global_synchronizator.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>

#include "tests/packaging/synchronizator/sync_fakes.h"

namespace {
using namespace tvrn::encoding::packaging::synchronizator_lowlatency;
using sync_test::FakeSample;

constexpr std::int64_t kSecond = 10000000;

// A stream of the session: its kind and its samples' own duration.
struct StreamSpec {
    std::uint32_t id;
    std::uint32_t kind;  // 0 video, 1 audio
    std::uint64_t timescale;
    std::int64_t duration;  // in the timescale
};
const StreamSpec kVideo25{1, 0, 90000, 3600};
const StreamSpec kVideo30{1, 0, 90000, 3000};
const StreamSpec kVideo50{2, 0, 90000, 1800};
const StreamSpec kAac48k{3, 1, 48000, 1024};

struct Delivered {
    std::uint32_t stream;
    std::uint64_t duration;
    std::size_t samples;
    bool last;
    bool discontinuity;
};

struct Session {
    sync_test::RecordingListener listener;
    sync_test::RecordingNotifier notifier;
    testkit::RecordingLogger logger;
    LowLatencyGlobalSynchronizator sync;
    Session(std::uint64_t chunkMs, std::uint64_t segmentMs, const std::vector<StreamSpec>& streams)
        : sync(listener, chunkMs, segmentMs, &notifier, logger) {
        for (const StreamSpec& s : streams) sync.addStream(s.id, s.kind, s.kind == 0 ? "video" : "audio");
    }
    // `seconds` of every stream, interleaved by time; a video frame is a key frame when `key` says so.
    void play(const std::vector<StreamSpec>& streams, double seconds, const std::function<bool(std::int64_t)>& key) {
        std::vector<std::int64_t> next(streams.size(), 0);
        while (true) {
            std::size_t pick = streams.size();
            std::int64_t earliest = 0;
            for (std::size_t i = 0; i < streams.size(); ++i) {
                const std::int64_t time = next[i] * streams[i].duration * kSecond / static_cast<std::int64_t>(streams[i].timescale);
                if (time >= static_cast<std::int64_t>(seconds * kSecond)) continue;
                if (pick == streams.size() || time < earliest) pick = i, earliest = time;
            }
            if (pick == streams.size()) break;
            const StreamSpec& s = streams[pick];
            auto sample = std::make_shared<FakeSample>();
            sample->streamId = s.id;
            sample->time = earliest;
            sample->duration = (next[pick] + 1) * s.duration * kSecond / static_cast<std::int64_t>(s.timescale) - earliest;
            sample->ownTimescale = s.timescale;
            sample->ownDuration = s.duration;
            sample->sync = s.kind != 0 || key(next[pick]);
            ++next[pick];
            sync.pushSample(sample);
        }
    }
    // Every chunk delivered, in order; of `stream` only when given.
    std::vector<Delivered> delivered(std::optional<std::uint32_t> stream = std::nullopt) const {
        const auto record = listener.record();
        std::vector<Delivered> out;
        for (std::size_t k = 0; k < record.segments.size(); ++k)
            for (const auto& [id, chunk] : record.segments[k].chunks)
                if (!stream || id == *stream)
                    out.push_back({id, chunk->duration, chunk->samples.size(), record.lastFlags[k],
                                   chunk->discontinuity != 0});
        return out;
    }
};

struct PlanCase {
    const char* name;
    std::vector<StreamSpec> streams;
    std::uint64_t chunkMs, segmentMs;
    std::int64_t chunkUnits;  // the effective chunk duration in 100 ns units; 0: the start fails
    std::uint32_t chunksPerSegment;
    const char* failure;
    bool warned;  // the sample duration exceeds the target
};

class ChunkPlanTable : public ::testing::TestWithParam<PlanCase> {};

// Every stream makes chunks of exactly the same duration, m to a segment, or the start fails with the reason.
TEST_P(ChunkPlanTable, EqualChunksAndWholeSegmentsOrTheStartFails) {
    const PlanCase& c = GetParam();
    Session run(c.chunkMs, c.segmentMs, c.streams);
    // Key frames at the start of each segment.
    const auto atSegmentStarts = [&](std::int64_t frame) {
        const auto& v = c.streams.front();
        const std::int64_t segment = std::max<std::int64_t>(c.chunkUnits * c.chunksPerSegment, 1);
        return frame * v.duration * kSecond / static_cast<std::int64_t>(v.timescale) % segment == 0;
    };
    if (c.chunkUnits == 0) {
        try {
            run.play(c.streams, 1, atSegmentStarts);
            FAIL() << "the start did not fail";
        } catch (const CorvaneException& e) {
            EXPECT_STREQ(e.what(), c.failure);
        }
        EXPECT_TRUE(run.delivered().empty());
        return;
    }
    run.play(c.streams, 12, atSegmentStarts);
    for (const StreamSpec& s : c.streams) run.sync.eof(s.id);
    const auto record = run.listener.record();
    EXPECT_EQ(record.ends, 1);
    EXPECT_EQ(record.restarts, 0);
    // The chunk builder is told the durations in a timescale where they are exact.
    ASSERT_EQ(record.firstArguments.size(), 3u);
    EXPECT_EQ(record.firstArguments[1] * kSecond, static_cast<std::uint64_t>(c.chunkUnits) * record.firstArguments[0]);
    EXPECT_EQ(record.firstArguments[2], record.firstArguments[1] * c.chunksPerSegment);

    std::size_t fullChunks = 0;
    for (const StreamSpec& s : c.streams) {
        const auto chunks = run.delivered(s.id);
        ASSERT_GT(chunks.size(), c.chunksPerSegment) << s.id;
        // All but the end-of-stream rest are full; the last-of-segment flag falls on every m-th chunk.
        for (std::size_t i = 0; i + 1 < chunks.size(); ++i) {
            EXPECT_EQ(chunks[i].duration, static_cast<std::uint64_t>(c.chunkUnits)) << s.id << " chunk " << i;
            EXPECT_EQ(chunks[i].last, (i + 1) % c.chunksPerSegment == 0) << s.id << " chunk " << i;
        }
        // A rest shorter than a chunk closes its segment; a full chunk closes it at the m-th.
        const bool rest = chunks.back().duration != static_cast<std::uint64_t>(c.chunkUnits);
        EXPECT_EQ(chunks.back().last, rest || chunks.size() % c.chunksPerSegment == 0);
        if (fullChunks == 0) fullChunks = chunks.size();
        EXPECT_EQ(chunks.size(), fullChunks) << "streams make the same number of chunks " << chunks.back().samples << " " << chunks.front().samples;
    }
    EXPECT_EQ(run.logger.mentions("exceeds target chunk duration"), c.warned);
}

INSTANTIATE_TEST_SUITE_P(
    LowLatency, ChunkPlanTable,
    ::testing::Values(
        PlanCase{"Video30At500ms", {kVideo30}, 500, 2000, 5000000, 4, "", false},
        PlanCase{"Video25AndAacAt320ms", {kVideo25, kAac48k}, 320, 1920, 3200000, 6, "", false},
        PlanCase{"TwoFrameRatesAt1s", {kVideo25, kVideo50}, 1000, 2000, kSecond, 2, "", false},
        PlanCase{"TargetBelowTheSampleDuration", {kVideo25}, 20, 200, 400000, 5, "", true},
        PlanCase{"SegmentRoundedToWholeChunks", {kVideo30}, 500, 2300, 5000000, 5, "", false},
        PlanCase{"Video25AndAacAt1sDiffer", {kVideo25, kAac48k}, 1000, 4000, 0, 0,
                 "low latency synchronizator: init failed: inconsistent chunk duration", false}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(LowLatencyCompatibility, MessagesNameBothStreams) {
    const ChunkPlan a = planChunks(Seconds(1, 25), 1000, 4000);
    ChunkPlan b = planChunks(Seconds(1, 50), 1000, 4000);
    Incompatibility why;
    EXPECT_TRUE(compatible(a, "video", b, 2, why));
    b.chunksPerSegment = 3;
    b.segmentDuration = Seconds(3, 1);
    ASSERT_FALSE(compatible(a, "video", b, 2, why));
    EXPECT_EQ(why.failure, "low latency synchronizator: init failed: inconsistent segment duration");
    EXPECT_EQ(why.message, "Low latency synchronizators : non-compatible segment durations: [video : sample duration = 40 ms, "
                           "seg. duration = 4000 ms] vs [id = 2 : sample duration = 20 ms, seg. duration = 3000 ms]");
    ASSERT_FALSE(compatible(a, "video", planChunks(Seconds(1024, 48000), 1000, 4000), 3, why));
    EXPECT_EQ(why.message, "Low latency synchronizators : non-compatible chunk durations: [video : sample duration = 40 ms, "
                           "chunk duration = 1000 ms] vs [id = 3 : sample duration = 21 ms, chunk duration = 1003 ms]");
}

struct RestartCase {
    const char* name;
    StreamSpec stream;
    std::set<std::int64_t> segmentsWithoutKey;  // 200 ms chunks, 1 s segments of 25 frames
    int restarts;
    std::size_t cutsWithoutKey;
};

class RestartRule : public ::testing::TestWithParam<RestartCase> {};

// One segment without a random access point is tolerated; the second in a row restarts the chunks, and the
// first chunk after that says it is discontinuous. A stream that waives access points never restarts.
TEST_P(RestartRule, TwoMissingAccessPointsInARowRestart) {
    const RestartCase& c = GetParam();
    Session run(200, 1000, {c.stream});
    run.play({c.stream}, 10, [&](std::int64_t frame) { return frame % 25 == 0 && !c.segmentsWithoutKey.contains(frame / 25); });
    EXPECT_EQ(run.listener.record().restarts, c.restarts);
    std::size_t without = 0;
    for (const auto& cut : run.notifier.record().cuts) without += cut.randomAccess ? 0 : 1;
    EXPECT_EQ(without, c.cutsWithoutKey);
    std::size_t discontinuous = 0;
    for (const auto& chunk : run.delivered()) {
        discontinuous += chunk.discontinuity ? 1 : 0;
        EXPECT_EQ(chunk.samples, 5u);
    }
    EXPECT_EQ(discontinuous, static_cast<std::size_t>(c.restarts));
    const bool logged = run.logger.contains(
        "1 Low latency synchronizator: restart requested from \"video\" (2 consecutive missing \"Access Points\")");
    EXPECT_EQ(logged, c.restarts > 0);
}

INSTANTIATE_TEST_SUITE_P(
    LowLatency, RestartRule,
    ::testing::Values(RestartCase{"OneMissing", kVideo25, {3}, 0, 1},
                      RestartCase{"TwoApart", kVideo25, {3, 5}, 0, 2},
                      RestartCase{"TwoInARow", kVideo25, {3, 4}, 1, 2},
                      RestartCase{"AudioWaives", StreamSpec{1, 1, 25, 1}, {3, 4}, 0, 0}),
    [](const auto& p) { return std::string(p.param.name); });

}  // namespace
