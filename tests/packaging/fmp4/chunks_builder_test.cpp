// The chunk builder on hand-made samples: the bytes of one DASH and one Smooth Streaming chunk worked out from
// ISO/IEC 14496-12 field by field, numbering, the hold for the time origin, missing chunks, dropped writes,
// and the drift rule with its limits.
#include <gtest/gtest.h>

#include <stdexcept>

#include "packaging/fmp4/chunks/chunk_dump.h"
#include "packaging/fmp4/chunks/chunk_serializer.h"
#include "packaging/fmp4/chunks/chunks_builder.h"
#include "packaging/fmp4/chunks/init_chunk.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "tests/common/chunks.h"
#include "tests/common/loggers.h"

namespace {
using namespace testkit;

// A sample at 90 kHz of 3600 ticks holding `payload`.
std::shared_ptr<ISyncSample> sampleOf(std::uint32_t streamId, std::int32_t kind, std::uint32_t type, std::int64_t dts,
                                      std::int64_t pts, bool sync, const Bytes& payload) {
    std::shared_ptr<samples::Sample> sample = timedSample(streamId, kind, type, dts, pts, 3600, payload);
    sample->sync = sync;
    sample->sapType = sync ? 1 : 0;
    return std::make_shared<Fmp4Sample>(sample);
}

std::shared_ptr<StreamChunk> chunkOf(std::vector<std::shared_ptr<ISyncSample>> samples, std::uint64_t duration) {
    auto chunk = std::make_shared<StreamChunk>();
    chunk->samples = std::move(samples);
    chunk->duration = duration;
    return chunk;
}

// A one-second video chunk of two frames starting at `seconds` on the 90 kHz clock.
std::shared_ptr<StreamChunk> videoSecond(std::uint32_t streamId, std::int64_t seconds) {
    const std::int64_t t = seconds * 90000;
    return chunkOf({sampleOf(streamId, samples::KindVideo, H264_VIDEO, t, t, true, {1, 2}),
                    sampleOf(streamId, samples::KindVideo, H264_VIDEO, t + 45000, t + 45000, false, {3})},
                   10000000);
}

SegmentChunks segmentsOf(std::map<std::uint32_t, std::shared_ptr<StreamChunk>> chunks) {
    SegmentChunks s;
    s.chunks = std::move(chunks);
    s.count = static_cast<std::uint32_t>(s.chunks.size());
    return s;
}

struct Session {
    explicit Session(OutputFormat format, Fmp4MuxConfig muxConfig = Fmp4MuxConfig::fromMode(GopSegments, 1000, 1, 0, 0),
                     bool sparseStreamsHoldOrigin = true)
        : config(std::move(muxConfig)) {
        ChunksBuilderParams params{format, &this->config, true, &logger};
        params.utcClockMs = [this] { return nowMs; };
        params.sparseStreamsHoldOrigin = sparseStreamsHoldOrigin;
        params.chunkDump = [this](const std::string& line) { dumps.push_back(line); };
        builder = std::make_unique<ChunksBuilder>(params);
    }
    // Registers streams 0..n-1 (300 kbit/s) of these (type, track) on the outputs, each the streams listed, and
    // starts the session with one-second segments on a 1000 timebase.
    void open(const std::vector<std::pair<std::uint32_t, std::uint32_t>>& streams,
              const std::vector<std::vector<std::int32_t>>& outputStreams, std::uint64_t firstNumber = 1,
              bool pssh = false) {
        std::map<std::uint32_t, std::shared_ptr<StreamChunk>> first;
        for (std::uint32_t i = 0; i < streams.size(); ++i) {
            builder->AddStream(i, streams[i].second, attributesOf(streams[i].first, 0, 300000));
            first[i] = std::make_shared<StreamChunk>();
        }
        std::vector<ChunkOutputSeed> seeds;
        for (std::size_t o = 0; o < outputStreams.size(); ++o)
            seeds.push_back({"", outputStreams[o], &outputs[o], firstNumber});
        builder->SetOutputs(seeds, false, pssh, false);
        builder->OnFirstSegments(segmentsOf(first), 1000, 1000, 1000);
    }
    // Started with `streams` video streams.
    Session(OutputFormat format, std::int32_t streams) : Session(format) { start(streams); }
    // Video streams on track 1, each with an output of its own.
    void start(std::int32_t streams, std::uint64_t firstNumber = 1, bool pssh = false) {
        std::vector<std::vector<std::int32_t>> each;
        for (std::int32_t i = 0; i < streams; ++i) each.push_back({i});
        open(std::vector<std::pair<std::uint32_t, std::uint32_t>>(static_cast<std::size_t>(streams), {H264_VIDEO, 1}),
             each, firstNumber, pssh);
    }
    std::vector<WrittenChunk> media(int output) const { return outputs[output].media(); }
    // The number in the first top-level box of `type` in a chunk (tnsb, teoc, teos), or 0.
    static std::uint64_t numberBox(const WrittenChunk& chunk, const std::string& type) {
        const auto box = findBox(chunk.bytes, type);
        return box ? u64In(chunk.bytes, *box, 4) : 0;
    }
    // The decoding time in a media chunk's tfdt, or nothing without one.
    static std::optional<std::uint64_t> decodeTime(const WrittenChunk& chunk) {
        const auto tfdt = findBox(chunk.bytes, "moof/traf/tfdt");
        return tfdt ? std::optional(u64In(chunk.bytes, *tfdt, 4)) : std::nullopt;
    }

    Fmp4MuxConfig config;
    RecordingLogger logger;
    std::vector<std::string> dumps;  // the chunk dump, a line per chunk built
    std::int64_t nowMs = 1000000;
    KeepingOutput outputs[3];
    std::unique_ptr<ChunksBuilder> builder;
};

// Two pictures at 10 s on the 90 kHz clock: an IDR decoded at 900000 and shown at 907200 (4 payload bytes), and a
// picture decoded and shown at 903600 (2 bytes). The chunk lasts 80 ms. In 100 ns units the origin is 100000000.
// The one media chunk of a session whose chunk numbers start at 100.
WrittenChunk smallChunk(OutputFormat format) {
    Session s(format);
    s.start(1, 100);
    s.builder->OnChunks(segmentsOf({{0, chunkOf({sampleOf(0, samples::KindVideo, H264_VIDEO, 900000, 907200, true, {0xAA, 0xBB, 0xCC, 0xDD}),
                                                 sampleOf(0, samples::KindVideo, H264_VIDEO, 903600, 903600, false, {0xEE, 0xFF})},
                                                800000)}}),
                        true);
    const auto chunks = s.media(0);
    EXPECT_EQ(chunks.size(), 1u);
    return chunks.empty() ? WrittenChunk{} : chunks[0];
}

TEST(ChunkBytes, DashChunkAsWorkedOutFromTheStandard) {
    const WrittenChunk chunk = smallChunk(Dash);
    EXPECT_BYTES(chunk.bytes, hex(
        // tnsb: full box, version 0, the segment number 1
        "00000014 'tnsb' 00000000 0000000000000001"
        // styp: major brand msdh, minor 0, compatible msdh msix
        "00000018 'styp' 'msdh' 00000000 'msdh' 'msix'"
        // sidx v1: reference_ID 1, timescale 10000000, earliest presentation 903600 ticks = 100400000 less the
        // origin, first_offset 0, reserved, 1 reference: type 0 and size of moof + mdat = 116 + 14, duration 80 ms,
        // starts_with_SAP 1, SAP_type 1, delta 0
        "00000034 'sidx' 01000000 00000001 00989680 0000000000061A80 0000000000000000 0000 0001"
        "00000082 000C3500 90000000"
        // moof, mfhd with the chunk number 100 (the first number)
        "00000074 'moof' 00000010 'mfhd' 00000000 00000064"
        // traf: tfhd with default-base-is-moof only, track 1; tfdt v1 0 (the origin)
        "0000005C 'traf' 00000010 'tfhd' 00020000 00000001 00000014 'tfdt' 01000000 0000000000000000"
        // trun: data offset, first sample flags, duration, size, composition offset; 2 samples; data at moof
        // size + mdat header = 124; first sample flags: depends on none (2), depended on (1)
        "00000030 'trun' 00000B05 00000002 0000007C 02400000"
        "00061A80 00000004 000C3500"  // 40 ms, 4 bytes, shown 80 ms after decoding
        "00061A80 00000002 00000000"  // the rest of the 80 ms, 2 bytes
        // mdat with both payloads
        "0000000E 'mdat' AABBCCDD EEFF"
        // teoc with the chunk number, teos with the segment number
        "00000014 'teoc' 00000000 0000000000000064"
        "00000014 'teos' 00000000 0000000000000001"));
    EXPECT_TRUE(chunk.hasTime);
    EXPECT_EQ(chunk.time, 100000000);
    EXPECT_FALSE(chunk.discontinuity);
}

TEST(ChunkBytes, SmoothChunkAsWorkedOutFromTheStandard) {
    EXPECT_BYTES(smallChunk(Smooth).bytes, hex(
        "000000C7 'moof' 00000010 'mfhd' 00000000 00000064"
        // traf: tfhd without flags (data relative to moof)
        "000000AF 'traf' 00000010 'tfhd' 00000000 00000001"
        // tfxd v1: absolute decode time (no origin taken off) and duration
        "0000002C 'uuid' 6D1D9B0542D544E680E2141DAFF757B2 01000000 0000000005F5E100 00000000000C3500"
        // tfrf v1: one entry announcing the next fragment at time + duration
        "0000002D 'uuid' D4807EF2CA3946958E5426CB9E46A79F 01000000 01 0000000006021600 00000000000C3500"
        // trun as in DASH, data offset 199 + 8
        "00000030 'trun' 00000B05 00000002 000000CF 02400000"
        "00061A80 00000004 000C3500 00061A80 00000002 00000000"
        // sdtp: IDR depends on none, is depended on (0x24); the other picture depends on others (0x14)
        "0000000E 'sdtp' 00000000 24 14"
        "0000000E 'mdat' AABBCCDD EEFF"));
}

TEST(ChunkNumbering, FirstNumberAppliesToChunksAndSegmentsCountFromOne) {
    Session s(Dash, Fmp4MuxConfig::fromMode(LowLatency, 1000, 1, 0, 500));
    s.start(1, 100);
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 10)}}), false);
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 11)}}), true);
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 12)}}), false);
    const auto chunks = s.media(0);
    ASSERT_EQ(chunks.size(), 3u);
    // Chunk numbers in mfhd and teoc run from 100; tnsb opens each segment, teos closes it.
    const char* const order[] = {"tnsb styp sidx moof mdat teoc ", "styp sidx moof mdat teoc teos ",
                                 "tnsb styp sidx moof mdat teoc "};
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        EXPECT_EQ(typesIn(chunks[i].bytes), order[i]) << i;
        const auto mfhd = findBox(chunks[i].bytes, "moof/mfhd");
        ASSERT_TRUE(mfhd);
        EXPECT_EQ(u32In(chunks[i].bytes, *mfhd, 4), 100 + i);
        EXPECT_EQ(Session::numberBox(chunks[i], "teoc"), 100 + i);
    }
    EXPECT_EQ(Session::numberBox(chunks[0], "tnsb"), 1u);
    EXPECT_EQ(Session::numberBox(chunks[1], "teos"), 1u);
    EXPECT_EQ(Session::numberBox(chunks[2], "tnsb"), 2u);
    // Each chunk is described before it is built, by its own numbers and times from the origin (10 s).
    ASSERT_EQ(s.dumps.size(), 3u);
    EXPECT_EQ(s.dumps[1], "Video Chunk #101 of Segment #1 :  [Video track #1 : pts = 1000 | dts = 1000 | 2 samples | dur 1000 ms");
}

// Two video streams, one output each, all video in each init chunk: both init chunks describe both streams on
// track 1, and each chunk names its stream's entry in tfhd.
TEST(AllVideoInInit, EveryOutputDescribesEveryVideoStream) {
    Session s(Dash);
    s.builder->AddStream(0, 1, attributesOf(H264_VIDEO, 0, 300000));
    s.builder->AddStream(1, 1, attributesOf(HEVC_VIDEO, 0, 300000));
    s.builder->SetOutputs({{"", {0}, &s.outputs[0], 1}, {"", {1}, &s.outputs[1], 1}}, false, false, true);
    s.builder->OnFirstSegments(segmentsOf({{0, std::make_shared<StreamChunk>(firstChunkOf("h264_plain", H264_VIDEO))},
                                           {1, std::make_shared<StreamChunk>(firstChunkOf("hevc_bframes", HEVC_VIDEO))}}),
                               1000, 960, 960);
    for (int o = 0; o < 2; ++o) {
        const auto chunks = s.outputs[o].chunks();
        ASSERT_EQ(chunks.size(), 1u);
        ASSERT_TRUE(chunks[0].init);
        const ByteView movie = moviePart(chunks[0].bytes);
        const auto stsd = findBox(movie, "moov/trak/mdia/minf/stbl/stsd");
        ASSERT_TRUE(stsd);
        EXPECT_EQ(typesIn(movie, stsd->contentStart + 8, stsd->end), "avc1 hvc1 ");
        // The manifest announces the output's own stream only.
        const std::string text = serverManifest(movie);
        EXPECT_NE(text.find(o == 0 ? "codecs=\"avc1." : "codecs=\"hvc1."), std::string::npos);
        EXPECT_EQ(text.find(o == 0 ? "codecs=\"hvc1." : "codecs=\"avc1."), std::string::npos);
    }
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 1)}, {1, videoSecond(1, 1)}}), true);
    for (int o = 0; o < 2; ++o) {
        const auto chunks = s.media(o);
        ASSERT_EQ(chunks.size(), 1u);
        const auto tfhd = findBox(chunks[0].bytes, "moof/traf/tfhd");
        ASSERT_TRUE(tfhd);
        // default-base-is-moof and sample-description-index-present; track 1; the entry of the stream.
        EXPECT_BYTES(slice(chunks[0].bytes, tfhd->offset, tfhd->size()),
                     hex(o == 0 ? "00000014 'tfhd' 00020002 00000001 00000001" : "00000014 'tfhd' 00020002 00000001 00000002"));
    }
}

// One output with a video and an audio stream: DASH counts each run's data from the start of moof; Smooth
// Streaming (no default-base-is-moof) counts the first from moof and the next from the end of the first's data.
TEST(MuxedOutput, DataOffsetsOfTheSecondTrackFragment) {
    for (OutputFormat format : {Dash, Smooth}) {
        Session s(format);
        s.open({{H264_VIDEO, 1}, {AAC_ADTS_AUDIO, 2}}, {{1, 0}});
        auto sound = chunkOf({sampleOf(1, samples::KindAudio, AAC_ADTS_AUDIO, 90000, 90000, true, {7, 7, 7, 7, 7})},
                             10000000);
        s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 1)}, {1, sound}}), true);
        const auto chunks = s.media(0);
        ASSERT_EQ(chunks.size(), 1u);
        const Bytes& b = chunks[0].bytes;
        const auto moof = findBox(b, "moof");
        ASSERT_TRUE(moof);
        const auto trafs = childrenOf(b, *moof, "traf");
        ASSERT_EQ(trafs.size(), 2u);
        std::vector<std::uint32_t> tracks, offsets;
        for (const BoxView& traf : trafs) {
            tracks.push_back(u32In(b, childrenOf(b, traf, "tfhd").at(0), 4));
            offsets.push_back(u32In(b, childrenOf(b, traf, "trun").at(0), 8));
        }
        // Track fragments in track order whatever the output's stream order; 3 bytes of video go first.
        EXPECT_EQ(tracks, (std::vector<std::uint32_t>{1, 2}));
        const auto first = static_cast<std::uint32_t>(moof->size() + 8);
        EXPECT_EQ(offsets, (std::vector<std::uint32_t>{first, format == Dash ? first + 3 : 0u}));
        const auto mdat = findBox(b, "mdat");
        ASSERT_TRUE(mdat);
        EXPECT_EQ(slice(b, mdat->contentStart, mdat->end - mdat->contentStart), (Bytes{1, 2, 3, 7, 7, 7, 7, 7}));
    }
}

TEST(TimeOrigin, HeldUntilEveryStreamDeliveredThenTheEarliestStart) {
    Session s(Dash, 2);
    // Stream 1 is missing from the first slice: nothing leaves.
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 20)}}), true);
    EXPECT_TRUE(s.media(0).empty());
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 21)}, {1, videoSecond(1, 19)}}), true);
    ASSERT_EQ(s.media(0).size(), 2u);
    // Output 1 had nothing in the first slice: an empty chunk went out for it, counted (DASH, GOP segments).
    ASSERT_EQ(s.media(1).size(), 2u);
    // Decode times less the origin of stream 1, at the 10 MHz timescale; no track fragment in the empty chunk.
    EXPECT_EQ(Session::decodeTime(s.media(0)[0]), 10000000u);
    EXPECT_EQ(Session::decodeTime(s.media(0)[1]), 20000000u);
    EXPECT_EQ(Session::decodeTime(s.media(1)[0]), std::nullopt);
    EXPECT_EQ(Session::decodeTime(s.media(1)[1]), 0u);
}

// A TTML stream (1) beside the video (0): by default its silence holds every chunk; told not to wait for sparse
// streams, the origin is the video's, and a cue from before it is dropped.
TEST(TimeOrigin, ASilentSparseStreamHoldsTheOriginOnlyWhenWaitedFor) {
    for (const bool hold : {true, false}) {
        Session s(Dash, Fmp4MuxConfig::fromMode(GopSegments, 1000, 1, 0, 0), hold);
        s.open({{H264_VIDEO, 1}, {TTML, 2}}, {{0}, {1}});
        s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 20)}, {1, std::make_shared<StreamChunk>()}}), true);
        EXPECT_EQ(s.media(0).size(), hold ? 0u : 1u);
        auto early = chunkOf({sampleOf(1, samples::KindTimedText, TTML, 19 * 90000, 19 * 90000, true, {'<'})}, 10000000);
        s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 21)}, {1, early}}), true);
        EXPECT_EQ(s.builder->timeOrigin(), hold ? 190000000 : 200000000);
        EXPECT_EQ(early->samples.empty(), !hold);
    }
}

TEST(MissingChunks, DashGopModesCountThemOtherModesAndSmoothSkipThem) {
    struct Case { OutputFormat format; Fmp4MuxConfig config; std::size_t written; };
    const Case cases[] = {{Dash, Fmp4MuxConfig::fromMode(GopSegments, 1000, 1, 0, 0), 3},
                          {Dash, Fmp4MuxConfig::fromMode(GopSegmentsAlt, 1000, 1, 0, 0), 3},
                          {Dash, Fmp4MuxConfig::fromMode(SeparateAudioSegments, 1000, 1, 1000, 0), 2},
                          {Dash, Fmp4MuxConfig::fromMode(LowLatency, 1000, 1, 0, 1000), 2},
                          {Smooth, Fmp4MuxConfig::fromMode(GopSegments, 1000, 1, 0, 0), 2}};
    for (const Case& c : cases) {
        Session s(c.format, c.config);
        s.start(2);
        s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 1)}, {1, videoSecond(1, 1)}}), true);
        // Output 0 has nothing in the second slice.
        s.builder->OnChunks(segmentsOf({{0, std::make_shared<StreamChunk>()}, {1, videoSecond(1, 2)}}), true);
        s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 3)}, {1, videoSecond(1, 3)}}), true);
        const auto chunks = s.media(0);
        ASSERT_EQ(chunks.size(), c.written);
        const bool counted = c.written == 3;
        if (counted) {
            // The empty chunk goes out without a track fragment, and numbering runs on.
            EXPECT_FALSE(findBox(chunks[1].bytes, "moof/traf"));
            EXPECT_TRUE(s.logger.contains("1 output#0video_300kbps : missing chunk detected 2 : incr seq. num. anyway"));
        }
        if (c.format == Dash) {
            EXPECT_EQ(Session::numberBox(chunks.back(), "teoc"), counted ? 3u : 2u);
        }
        EXPECT_EQ(s.builder->outputs().at(0).segmentNumber, counted ? 4u : 3u);
        EXPECT_EQ(s.builder->outputs().at(1).segmentNumber, 4u);
    }
}

TEST(Writes, RefusedChunkIsLoggedAndNumberingGoesOn) {
    Session s(Dash, 1);
    s.outputs[0].refuse = true;
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 1)}}), true);
    s.outputs[0].refuse = false;
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 2)}}), true);
    EXPECT_TRUE(s.logger.contains("1 output#0video_300kbps : drop segment 1 buffer (0 kbytes) "));
    const auto chunks = s.media(0);
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(Session::numberBox(chunks[0], "tnsb"), 2u);
}

TEST(Writes, PsshInFragmentsWithoutProviderFails) {
    Session s(Dash);
    s.start(1, 1, true);
    EXPECT_EQ(failureOf([&] { s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 1)}}), true); }),
              "No Encryption Provider Specified");
}

// --- the sync point test -------------------------------------------------------------------------------

TEST(SyncPoint, DurationWithinAQuarterAboveTheSegmentVideoStartsWithin50MsAllStartsWithin150Ms) {
    // A chunk of one sample of stream `id` starting at `ms`, lasting `durationMs`.
    const auto video = [](std::uint32_t id, std::int64_t ms, std::uint64_t durationMs = 2000) {
        return chunkOf({sampleOf(id, samples::KindVideo, H264_VIDEO, ms * 90, ms * 90, true, {1})}, durationMs * 10000);
    };
    const auto audio = [](std::uint32_t id, std::int64_t ms) {
        return chunkOf({sampleOf(id, samples::KindAudio, AAC_ADTS_AUDIO, ms * 90, ms * 90, true, {1})}, 20000000);
    };
    const std::pair<SegmentChunks, std::optional<std::string>> cases[] = {
        {segmentsOf({{0, video(0, 0, 2500)}}), std::nullopt},
        {segmentsOf({{0, video(0, 0, 2520)}}), "Invalid duration 2520 ms"},
        {SegmentChunks{}, "Empty segment"},
        {segmentsOf({{0, video(0, 10000)}, {1, video(1, 10049)}}), std::nullopt},
        {segmentsOf({{0, video(0, 10000)}, {1, video(1, 10051)}}),
         "Mis-aligned video segments start times: min = 10051 ms, max = 10000 ms"},
        {segmentsOf({{0, video(0, 10000)}, {1, audio(1, 10150)}}), std::nullopt},
        {segmentsOf({{0, video(0, 10000)}, {1, audio(1, 10151)}}),
         "Mis-aligned segments start times: delta = 151 ms : pts(ms) V0=10000 A1=10151 "},
    };
    for (const auto& [segment, failure] : cases) EXPECT_EQ(syncPointFailure(segment, 2000), failure);
}

// --- the drift rule -------------------------------------------------------------------------------------

// Chunks of one second, each after a step of the wall clock (the session starts at the first): ahead by 2 s, the
// segment number follows the clock with a discontinuity and a new origin; behind by 3, renumbered too; a chunk that
// is no sync point (1260 ms against segments of 1000) changes nothing. Before the last chunk, drift is tolerated.
TEST(Drift, TheWallClockRenumbersBeyondItsToleranceAtSyncPointsOnly) {
    struct Step { std::int64_t advanceMs, second; std::uint64_t duration = 10000000; };
    struct Case { std::vector<Step> steps; const char* line; std::uint64_t number; bool discontinuity; };
    const Case cases[] = {
        {{{0, 1}, {2999, 2}, {1001, 3}},  // expected 3 for current 2: tolerated; 4000 ms in: expected 5, current 3
         "1 output#0video_300kbps : segment #3 : drift detected : segment 5 is expected (drift of 2000 ms) : new "
         "sequence number is 5", 5, true},
        {{{0, 1}, {0, 2}, {0, 3}, {0, 4}},  // chunks 2 and 3 at current 2 and 3 against expected 1: tolerated
         "1 output#0video_300kbps : segment #4 : drift detected : segment 1 is expected (drift of -3000 ms) : new "
         "sequence number is 1", 1, true},
        {{{0, 1}, {10000, 2, 12600000}},
         "1 drift detected but segments do not comply whith sync. point (Invalid duration 1260 ms).", 2, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Session s(Dash, 1);
        for (const Step& step : c.steps) {
            s.nowMs += step.advanceMs;
            auto chunk = videoSecond(0, step.second);
            chunk->duration = step.duration;
            s.builder->OnChunks(segmentsOf({{0, chunk}}), true);
        }
        EXPECT_TRUE(s.logger.contains(c.line));
        const auto chunks = s.media(0);
        ASSERT_EQ(chunks.size(), c.steps.size());
        for (std::size_t k = 0; k + 1 < chunks.size(); ++k) {
            EXPECT_EQ(Session::numberBox(chunks[k], "tnsb"), k + 1);
            EXPECT_FALSE(chunks[k].discontinuity);
        }
        EXPECT_EQ(Session::numberBox(chunks.back(), "tnsb"), c.number);
        EXPECT_EQ(chunks.back().discontinuity, c.discontinuity);
        // A new origin: the renumbered chunk starts at decode time 0.
        EXPECT_EQ(Session::decodeTime(chunks.back()), c.discontinuity ? 0u : 10000000u);
    }
}

TEST(Restart, ResynchronisesFromTheWallClock) {
    Session s(Dash, 1);
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 1)}}), true);
    s.nowMs += 5500;
    s.builder->OnRestart();
    EXPECT_FALSE(s.builder->aligned());
    EXPECT_TRUE(s.logger.contains("1 output#0video_300kbps : resynchronize: segment number changes from 2 to 6"));
    s.builder->OnChunks(segmentsOf({{0, videoSecond(0, 7)}}), true);
    EXPECT_EQ(Session::numberBox(s.media(0).back(), "tnsb"), 6u);
}

// `chunk` serialised alone as track 1 of `content`, told it lasts 40 ms, for players or not.
Bytes serialised(StreamChunk& chunk, ChunkContentType content, bool players) {
    ChunkSerialisationParameters p;
    p.tracks = {{1, content, &chunk}};
    p.chunkDuration = 400000;
    p.playerCompatible = players;
    const ChunkBytes bytes = serialiseChunk(p);
    return Bytes(bytes.data.get(), bytes.data.get() + bytes.size);
}

// With an output that takes references, the units of a shared sample of kLeastReferenced bytes or more, in an input
// buffer or in their own storage, are left out of the lent memory and referred to where they are (the sample kept
// alive with them); a shorter unit is written. The memory with the referred bytes put in is the chunk serialised
// without references.
TEST(ChunkBytes, LargeUnitsAreReferredToWhenTheOutputTakesReferences) {
    Bytes pes{0, 0, 0, 1, 0x65};
    pes.resize(4 + kLeastReferenced, 0xAB);
    const Bytes small{0, 0, 0, 1, 0x06, 1, 2, 3};
    pes.insert(pes.end(), small.begin(), small.end());
    ChunkBytes whole, referring;
    std::vector<std::uint8_t> lent;
    {
        const tvrn::encoding::packaging::imff::fmp4::MediaDataRef input = tvrn::encoding::packaging::imff::fmp4::SimpleMediaData::create(pes.data(), pes.size());
        std::uint8_t* in = nullptr;
        ASSERT_EQ(input->GetPointer(&in), 0);
        std::shared_ptr<samples::Sample> sample = timedSample(0, samples::KindVideo, H264_VIDEO, 0, 0, 3600);
        sample->sync = true;
        sample->sapType = 1;
        sample->nals.clear();
        for (const auto& [from, size] : {std::pair<std::size_t, std::size_t>{0, 4 + kLeastReferenced},
                                         {4 + kLeastReferenced, small.size()}}) {
            auto unit = std::make_unique<samples::NAL>(-1, in + from, static_cast<std::uint32_t>(size), input);
            ASSERT_TRUE(unit->replaceStartCodeWithLength(4));
            sample->addNal(std::move(unit));
        }
        const Bytes own(kLeastReferenced, 0xCD);
        auto owned = std::make_unique<samples::NAL>(-1, static_cast<std::int32_t>(own.size()));
        owned->append(own.data(), own.size());
        const std::uint8_t* ownBytes = owned->bytes();
        sample->addNal(std::move(owned));
        const auto chunk = chunkOf({std::make_shared<Fmp4Sample>(sample)}, 400000);
        ChunkSerialisationParameters p;
        p.tracks = {{1, ChunkVideo, chunk.get()}};
        p.chunkDuration = 400000;
        whole = serialiseChunk(p);
        // A text track's samples are always written whole.
        p.tracks = {{1, ChunkTimedText, chunk.get()}};
        const ChunkBytes text = serialiseChunk(p, {}, [&](std::size_t size) {
            lent.assign(size, 0xEE);
            return ChunkPlace{lent.data(), true};
        });
        EXPECT_TRUE(text.placed && text.references.empty());
        p.tracks = {{1, ChunkVideo, chunk.get()}};
        referring = serialiseChunk(p, {}, [&](std::size_t size) {
            lent.assign(size, 0xEE);
            return ChunkPlace{lent.data(), true};
        });
        ASSERT_TRUE(referring.placed);
        ASSERT_EQ(referring.references.size(), 2u);
        EXPECT_EQ(referring.references[0].data, in + 4);
        EXPECT_EQ(referring.references[1].data, ownBytes);
    }
    // Only the references hold the sample and its input buffer now.
    const tvrn::system::KeptBytes& kept = referring.references[0];
    ASSERT_EQ(kept.size, kLeastReferenced);
    ASSERT_EQ(referring.references[1].at, kept.at + kept.size + 8);
    ASSERT_EQ(lent.size(), whole.size);
    EXPECT_EQ(Bytes(lent.begin() + static_cast<std::ptrdiff_t>(kept.at) - 4, lent.begin() + static_cast<std::ptrdiff_t>(kept.at)),
              (Bytes{0x00, 0x00, 0x08, 0x00}));
    EXPECT_EQ(std::count(lent.begin(), lent.end(), 0xEE), static_cast<std::ptrdiff_t>(2 * kLeastReferenced));
    for (const auto& reference : referring.references)
        std::copy_n(reference.data, reference.size, lent.begin() + static_cast<std::ptrdiff_t>(reference.at));
    EXPECT_EQ(lent, Bytes(whole.data.get(), whole.data.get() + whole.size));
    const auto after = lent.begin() + static_cast<std::ptrdiff_t>(kept.at + kept.size);
    EXPECT_EQ(Bytes(after, after + 8), (Bytes{0, 0, 0, 4, 0x06, 1, 2, 3}));
}

// The last word of a sidx reference: starts_with_SAP (1 bit), SAP_type (3), SAP_delta_time (28). For players an
// audio chunk starts with a SAP of type 1 (its samples say 0), and a video chunk starting inside a GOP with none.
TEST(ChunkBytes, SegmentIndexSapForPlayers) {
    struct Case { ChunkContentType content; bool sync; bool players; std::uint32_t sapWord; } cases[] = {
        {ChunkAudio, false, false, 0x80000000}, {ChunkAudio, false, true, 0x90000000},
        {ChunkVideo, true, true, 0x90000000},   {ChunkVideo, false, true, 0x00000000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "content " << c.content << " sync " << c.sync << " players " << c.players);
        const bool audio = c.content == ChunkAudio;
        const auto chunk = chunkOf({sampleOf(0, audio ? samples::KindAudio : samples::KindVideo,
                                             audio ? AAC_ADTS_AUDIO : H264_VIDEO, 0, 0, c.sync, {1})}, 400000);
        const Bytes bytes = serialised(*chunk, c.content, c.players);
        const auto sidx = findBox(bytes, "sidx");
        ASSERT_TRUE(sidx);
        EXPECT_EQ(u32In(bytes, *sidx, 40), c.sapWord);  // after version, ids, times, reserved, count, size, duration
    }
}

// smallChunk()'s pictures, shown from 903600 to 910800 on the 90 kHz clock (80 ms), in a chunk told it lasts 40 ms,
// as the last chunk of a stream with B frames is. For players the sidx duration (at 36 bytes into its content)
// covers the 80 ms and the last sample gets the rest of them; otherwise both follow the chunk.
TEST(ChunkBytes, ForPlayersAChunkLastsAsLongAsItsPicturesAreShown) {
    const auto chunk = chunkOf({sampleOf(0, samples::KindVideo, H264_VIDEO, 900000, 907200, true, {1}),
                                sampleOf(0, samples::KindVideo, H264_VIDEO, 903600, 903600, false, {2})},
                               400000);
    for (const bool players : {false, true}) {
        SCOPED_TRACE(players);
        const Bytes bytes = serialised(*chunk, ChunkVideo, players);
        const auto sidx = findBox(bytes, "sidx");
        const auto trun = findBox(bytes, "moof/traf/trun");
        ASSERT_TRUE(sidx && trun);
        EXPECT_EQ(u32In(bytes, *sidx, 36), players ? 800000u : 400000u);
        // trun: version and flags, count, data offset, first sample flags, then duration, size, offset per sample
        EXPECT_EQ(u32In(bytes, *trun, 16), 400000u);
        EXPECT_EQ(u32In(bytes, *trun, 28), players ? 400000u : 0u);
    }
}

// The debugging line of a chunk: times in ms from the origin (1 s here), the first sample's.
TEST(ChunkDump, KindNumbersAndPerTrackTimes) {
    const auto video = chunkOf({sampleOf(1, samples::KindVideo, H264_VIDEO, 180000, 187200, true, {}),
                                sampleOf(1, samples::KindVideo, H264_VIDEO, 183600, 190800, false, {})},
                               800000);
    StreamChunk audio, empty;
    audio.samples.push_back(std::make_shared<Fmp4Sample>(
        std::shared_ptr<samples::Sample>(timedSample(2, samples::KindAudio, AC3_AUDIO, 96000, 96000, 1536, {}, 48000))));
    audio.duration = 320000;
    EXPECT_EQ(chunkDumpText({}, 7, 3, 0), "Invalid empty chunk 7 of segment 3");
    EXPECT_EQ(chunkDumpText({{1, ChunkVideo, video.get()}}, 4, 2, 10000000),
              "Video Chunk #4 of Segment #2 :  [Video track #1 : pts = 1080 | dts = 1000 | 2 samples | dur 80 ms");
    EXPECT_EQ(chunkDumpText({{2, ChunkAudio, &audio}, {3, ChunkTimedText, &empty}}, 5, 2, 10000000),
              "Multi Chunk #5 of Segment #2 :  [Audio track #2 : pts = 1000 | dts = 1000 | 1 samples | dur 32 ms"
              " [Ttml track #3 : Invalid Empty Chunk");
}

}  // namespace
