#include "packaging/synchronizator/sample_segment_synchronisator.h"

#include <gtest/gtest.h>

#include "tests/packaging/synchronizator/sync_fakes.h"

namespace {
using namespace sync_test;

constexpr std::int64_t kSecond = 10000000;
constexpr std::int64_t kFrame = kSecond / 25;  // 25 fps

std::int64_t firstTime(const SegmentChunks& segment, std::uint32_t stream) {
    const auto& chunk = segment.chunks.at(stream);
    return chunk->samples.empty() ? -1 : chunk->samples.front()->getTime();
}

std::size_t sampleCount(const RecordingListener::Record& listener, std::uint32_t stream) {
    std::size_t count = 0;
    for (const auto& segment : listener.segments) {
        const auto it = segment.chunks.find(stream);
        if (it != segment.chunks.end()) count += it->second->samples.size();
    }
    return count;
}

struct SyncRun {
    RecordingListener listener;
    RecordingNotifier notifier;
    testkit::RecordingLogger logger;
    std::unique_ptr<SampleSegmentSynchronisator> sync;
    SyncRun(std::uint32_t segmentMs, std::uint32_t gops, bool offline = false) {
        sync = std::make_unique<SampleSegmentSynchronisator>(listener, segmentMs, gops, &notifier, logger, offline);
    }
    // Adds the streams, then pushes their configuration samples: SPS and PPS for video, one for audio.
    void open(std::initializer_list<std::pair<std::uint32_t, SyncKind>> streams) {
        for (const auto& [id, kind] : streams)
            sync->addStream(id, kind, kind == KindVideo ? "video" : kind == KindAudio ? "audio" : "text");
        for (const auto& [id, kind] : streams) {
            if (kind == KindVideo) sync->pushSample(config(id, 1, 2));
            if (kind != KindSparse) sync->pushSample(config(id, 0, kind == KindVideo ? 2 : 1));
        }
    }
    // Frames `from` to `to` (excluded) of a 25 fps stream, each a key frame where `key` says.
    template <typename Key>
    void frames(std::uint32_t id, std::int64_t from, std::int64_t to, Key key) {
        for (std::int64_t f = from; f < to; ++f) sync->pushSample(media(id, f * kFrame, kFrame, key(f)));
    }
    void endAll(const std::vector<std::uint32_t>& streams) {
        for (auto id : streams) sync->eof(id);
        got = listener.waitForEnd();
        notes = notifier.record();
    }
    RecordingListener::Record got;      // what the listener had at the end
    RecordingNotifier::Record notes;    // what the notifier had at the end
};

TEST(SegmentSynchroniser, RenditionsAreCutAtTheSameRandomAccessPointsForAnyGopCount) {
    // 60 s at 25 fps with a key frame every 2 s: 30 GOPs.
    struct Setting { std::uint32_t segmentMs, gops; std::size_t segments; };
    for (const Setting s : {Setting{2000, 1, 30}, Setting{4000, 2, 15}, Setting{10000, 5, 6}}) {
        SyncRun run(s.segmentMs, s.gops);
        const std::vector<std::uint32_t> streams{0, 1, 2};
        run.open({{0, KindVideo}, {1, KindVideo}, {2, KindVideo}});
        for (std::int64_t f = 0; f < 1500; ++f)  // interleaved by time, as live inputs deliver them
            for (auto id : streams) run.sync->pushSample(media(id, f * kFrame, kFrame, f % 50 == 0));
        run.endAll(streams);

        ASSERT_EQ(run.got.firstSegments.size(), 1u);
        EXPECT_EQ(run.got.firstArguments, (std::vector<std::uint64_t>{1000, s.segmentMs, s.segmentMs}));
        // The first segments carry the configuration samples of each stream.
        EXPECT_EQ(run.got.firstSegments[0].chunks.at(1)->samples.size(), 2u);
        ASSERT_EQ(run.got.segments.size(), s.segments) << s.segmentMs;
        for (std::size_t k = 0; k < s.segments; ++k) {
            const auto& segment = run.got.segments[k];
            const std::int64_t expected = static_cast<std::int64_t>(k) * s.gops * 2 * kSecond;
            for (auto id : streams) {
                EXPECT_EQ(firstTime(segment, id), expected) << "segment " << k << " stream " << id;
                EXPECT_TRUE(segment.chunks.at(id)->samples.front()->isSync());
                EXPECT_EQ(segment.chunks.at(id)->duration, static_cast<std::uint64_t>(s.gops * 2 * kSecond));
            }
        }
        for (auto id : streams) EXPECT_EQ(sampleCount(run.got, id), 1500u);
        EXPECT_EQ(run.got.ends, 1);
        // Every cut but the final flush was announced, all on real random access points.
        EXPECT_EQ(run.notes.cuts.size(), s.segments - 1);
        for (const auto& cut : run.notes.cuts) EXPECT_TRUE(cut.randomAccess);
    }
}

TEST(SegmentSynchroniser, ASparseStreamNeverHoldsACutAndGoesWhereItsTimesFall) {
    SyncRun run(2000, 1);
    run.open({{0, KindVideo}, {5, KindSparse}});
    for (std::int64_t f = 0; f < 250; ++f) {
        run.sync->pushSample(media(0, f * kFrame, kFrame, f % 50 == 0));
        if (f == 30 || f == 140) run.sync->pushSample(media(5, f * kFrame, kSecond / 2, true));
    }
    // The video ends first; the sparse stream brings one more cue, then ends. The video's end gives no endless
    // run of empty segments at forced boundaries: the last GOP goes at its boundary, the cue with the flush.
    run.sync->eof(0);
    run.sync->pushSample(media(5, 260 * kFrame, kSecond / 2, true));
    run.endAll({5});
    ASSERT_EQ(run.got.segments.size(), 6u);
    // Cue at 1.2 s in segment 0, at 5.6 s in segment 2, at 10.4 s in the flush; the others carry an empty chunk.
    const std::vector<std::size_t> expected{1, 0, 1, 0, 0, 1};
    for (std::size_t k = 0; k < expected.size(); ++k) {
        const auto& chunks = run.got.segments[k].chunks;
        const auto it = chunks.find(5);
        EXPECT_EQ(it == chunks.end() ? 0u : it->second->samples.size(), expected[k]) << k;
    }
}

TEST(SegmentSynchroniser, AudioOnlyBoundariesSnapToFramesWithoutDriftOverAnHour) {
    SyncRun run(2000, 1);
    run.open({{3, KindAudio}});
    // AAC at 48 kHz: 1024 samples a frame, times rounded down to 100 ns as the session converts them.
    const std::int64_t frames = 3600LL * 48000 / 1024;
    auto frameTime = [](std::int64_t n) { return n * 1024 * kSecond / 48000; };
    for (std::int64_t n = 0; n < frames; ++n)
        run.sync->pushSample(media(3, frameTime(n) + 1000, frameTime(n + 1) - frameTime(n), true));
    run.endAll({3});
    const auto& segments = run.got.segments;
    // 2 s is 93.75 frames: each boundary is the first frame at or past the previous segment's first frame
    // plus 2 s, so every segment holds exactly 94 frames, from the first to the last hour, and starts on a
    // frame time with no rounding carried over. 168750 frames make 1795 segments and a last one of 20 frames.
    ASSERT_EQ(segments.size(), 1796u);
    for (std::size_t k = 0; k < segments.size(); ++k) {
        const auto& chunk = *segments[k].chunks.at(3);
        ASSERT_EQ(firstTime(segments[k], 3), frameTime(static_cast<std::int64_t>(k) * 94) + 1000) << k;
        ASSERT_EQ(chunk.samples.size(), k + 1 < segments.size() ? 94u : 20u) << k;
        if (k + 1 < segments.size()) {
            const auto first = static_cast<std::int64_t>(k) * 94;
            ASSERT_EQ(chunk.duration, static_cast<std::uint64_t>(frameTime(first + 94) - frameTime(first)));
        }
    }
    EXPECT_EQ(sampleCount(run.got, 3), static_cast<std::size_t>(frames));
}

// The video starts at 0.8 s: its frames before the first key frame, at 2 s, are dropped.
TEST(SegmentSynchroniser, VideoStartsOnAKeyFrameAndAMissingKeyFrameGivesAForcedBoundaryOneSegmentOn) {
    SyncRun run(2000, 1);
    run.open({{0, KindVideo}});
    run.frames(0, 20, 250, [](std::int64_t f) { return f % 50 == 0 && f != 150; });
    run.endAll({0});
    std::vector<std::int64_t> starts;
    for (const auto& s : run.got.segments) starts.push_back(firstTime(s, 0));
    // The key frame at 6 s is missing: the segment from 4 s is still closed at 6 s.
    EXPECT_EQ(starts, (std::vector<std::int64_t>{2 * kSecond, 4 * kSecond, 6 * kSecond, 8 * kSecond}));
    EXPECT_EQ(sampleCount(run.got, 0), 200u);
    ASSERT_EQ(run.notes.cuts.size(), 3u);
    EXPECT_TRUE(run.notes.cuts[0].randomAccess);
    EXPECT_EQ(run.notes.cuts[1].time, 6 * kSecond);
    EXPECT_FALSE(run.notes.cuts[1].randomAccess);
    EXPECT_EQ(run.notes.cuts[1].segmentMs, 2000u);
    EXPECT_TRUE(run.notes.cuts[2].randomAccess);
    EXPECT_FALSE(run.got.segments[2].chunks.at(0)->samples.front()->isSync());
}

TEST(SegmentSynchroniser, AForcedBoundaryStopsTheGopCountEarly) {
    SyncRun run(6000, 3);
    run.open({{0, KindVideo}});
    // Key frames every 2 s but a 2.4 s GOP in the middle (key at 4 s missing, next at 6.4 s): the forced
    // boundary at 6 s ends the first segment inside a GOP.
    run.frames(0, 0, 400, [](std::int64_t f) { return (f < 100 && f % 50 == 0) || (f >= 160 && (f - 160) % 50 == 0); });
    run.endAll({0});
    ASSERT_GE(run.got.segments.size(), 3u);
    EXPECT_EQ(firstTime(run.got.segments[0], 0), 0);
    EXPECT_EQ(firstTime(run.got.segments[1], 0), 6 * kSecond);
    EXPECT_EQ(firstTime(run.got.segments[2], 0), 160 * kFrame);  // the next real key frame, at 6.4 s
    EXPECT_FALSE(run.notes.cuts[0].randomAccess);
}

TEST(SegmentSynchroniser, DifferingFirstVideoTimesDropTheFirstSegmentOnly) {
    SyncRun run(2000, 1);
    run.open({{0, KindVideo}, {1, KindVideo}});
    // Stream 0 delivers a frame out of order at its start: its list begins 40 ms after the common point.
    run.sync->pushSample(media(0, kFrame, kFrame, true));
    run.sync->pushSample(media(0, 0, kFrame, true));
    run.frames(0, 2, 200, [](std::int64_t f) { return f % 50 == 0; });
    run.frames(1, 0, 200, [](std::int64_t f) { return f % 50 == 0; });
    run.endAll({0, 1});
    ASSERT_EQ(run.got.segments.size(), 3u);
    EXPECT_EQ(firstTime(run.got.segments[0], 0), 2 * kSecond);
    EXPECT_EQ(firstTime(run.got.segments[0], 1), 2 * kSecond);
}

TEST(SegmentSynchroniser, ALateStreamInLiveModeCostsTheOldestSamplesButOfflineLosesNothing) {
    for (const bool offline : {false, true}) {
        SyncRun run(2000, 1, offline);
        run.open({{0, KindVideo}, {1, KindAudio}});
        // Stream 0 runs 10 s (5 segments) before stream 1 starts.
        run.frames(0, 0, 251, [](std::int64_t f) { return f % 50 == 0; });
        if (!offline) {
            // Samples older than the newest (10 s) minus 3 segments (6 s) went: frames 0 to 99.
            EXPECT_EQ(run.notifier.waitForDrop().front(), 100u);
        }
        for (std::int64_t f = 251; f < 400; ++f) {
            run.sync->pushSample(media(0, f * kFrame, kFrame, f % 50 == 0));
            run.sync->pushSample(media(1, f * kFrame, kFrame, true));
        }
        run.endAll({0, 1});
        ASSERT_FALSE(run.got.segments.empty());
        // The video starts the session at its first key frame still held; the audio joins where it begins.
        if (offline) {
            EXPECT_TRUE(run.notes.dropped.empty());
            EXPECT_EQ(firstTime(run.got.segments[0], 0), 0);
            EXPECT_EQ(sampleCount(run.got, 0), 400u);
        } else {
            EXPECT_EQ(firstTime(run.got.segments[0], 0), 4 * kSecond);
            EXPECT_EQ(sampleCount(run.got, 0), 300u);
        }
        EXPECT_EQ(sampleCount(run.got, 1), 149u);
    }
}

TEST(SegmentSynchroniser, EndOfStreamFlushesEverythingOnceWithDataIds) {
    SyncRun run(2000, 1);
    run.open({{0, KindVideo}, {1, KindAudio}});
    for (std::int64_t f = 0; f < 130; ++f) {
        run.sync->pushSample(media(0, f * kFrame, kFrame, f % 50 == 0, f == 110 ? 42 : 0));
        run.sync->pushSample(media(1, f * kFrame, kFrame, true));
    }
    run.endAll({0, 1});
    ASSERT_EQ(run.got.segments.size(), 3u);
    const auto& last = run.got.segments.back();
    EXPECT_EQ(last.chunks.at(0)->samples.size(), 30u);
    EXPECT_EQ(last.chunks.at(1)->samples.size(), 30u);
    EXPECT_EQ(last.chunks.at(0)->duration, static_cast<std::uint64_t>(30 * kFrame));
    EXPECT_EQ(last.chunks.at(0)->dataIdPresent, 1);
    EXPECT_EQ(last.chunks.at(0)->dataId, 42u);
    EXPECT_EQ(sampleCount(run.got, 1), 130u);
    for (bool flag : run.got.lastFlags) EXPECT_TRUE(flag);
    // After the end, samples are ignored and no second end comes.
    run.sync->pushSample(media(0, 200 * kFrame, kFrame, true));
    run.sync->eof(0);
    run.sync.reset();
    EXPECT_EQ(run.listener.record().ends, 1);
}

}  // namespace
