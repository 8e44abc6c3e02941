// The session over recording stand-ins of its parts: which synchroniser and track each stream gets, what reaches
// the analysis, and when the session ends. The sample wrapping and time conversions are in the golden chunks.
#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"

#include <gtest/gtest.h>

#include <tuple>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/mpeg2_video.h"
#include "tests/common/bytes.h"
#include "tests/common/chunks.h"
#include "tests/common/fixtures.h"
#include "tests/common/session_fakes.h"

namespace {
using namespace testkit;

// A session over recording parts.
struct SessionFixture {
    SynchronizatorLog mainSync;
    SynchronizatorLog audioSync;
    ChunksBuilderLog chunks;
    NalBuilderLog nals;
    std::vector<std::pair<std::uint32_t, bool>> sampleBuilders;  // (type, in-band flag)
    int synchronisersBuilt = 0;
    std::vector<SegmentSynchronizatorParams> syncParams;
    RecordingLogger logger;

    Fmp4MuxParts parts() {
        Fmp4MuxParts p;
        p.makeChunksBuilder = [this](const ChunksBuilderParams&) { return std::make_unique<FakeChunksBuilder>(chunks); };
        p.makeSegmentSynchronizator = [this](const SegmentSynchronizatorParams& params) {
            syncParams.push_back(params);
            return std::make_unique<FakeSynchronizator>(synchronisersBuilt++ == 0 ? mainSync : audioSync);
        };
        p.makeNalBuilder = [this](std::uint32_t type) -> std::unique_ptr<lib_parse_es::NALBuilder> {
            if (type == KLV) return nullptr;
            return std::make_unique<FakeNalBuilder>(type, nals);
        };
        p.makeSampleBuilder = [this](std::uint32_t type, bool inBand, imff_samples::ISampleListener*) {
            sampleBuilders.emplace_back(type, inBand);
            return std::unique_ptr<imff_samples::SampleBuilder>();
        };
        return p;
    }

    std::unique_ptr<Fmp4Mux> make(const Fmp4MuxConfig& config, OutputFormat format = Dash, bool inBand = false,
                                  bool offline = false) {
        return std::make_unique<Fmp4Mux>(format, config, nullptr, logger, inBand, false, false, false, offline, parts());
    }
};

// Adds streams 0, 1, ... of these types.
void addStreams(Fmp4Mux& mux, std::initializer_list<std::uint32_t> types) {
    std::uint32_t id = 0;
    for (std::uint32_t type : types) mux.AddStream(id++, attributesOf(type));
}

TEST(Fmp4Mux, BuildsOneSynchroniserReportingToTheChunkBuilder) {
    SessionFixture f;
    auto mux = f.make(Fmp4MuxConfig::fromMode(GopSegments, 2000, 3, 0, 0));
    ASSERT_EQ(f.syncParams.size(), 1u);
    EXPECT_EQ(f.syncParams[0].segmentDurationMs, 6000u);
    EXPECT_EQ(f.syncParams[0].listener, &mux->chunksBuilder());
}

TEST(Fmp4Mux, VideoIsTrackOneAndEverythingElseCountsFromTwo) {
    SessionFixture f;
    auto mux = f.make(Fmp4MuxConfig::fromMode(GopSegments, 2000, 1, 0, 0));
    addStreams(*mux, {H264_VIDEO, HEVC_VIDEO, AC4_AUDIO, AAC_ADTS_AUDIO, TTML, H264_VIDEO});
    EXPECT_EQ(f.chunks.streams, (std::vector<std::string>{"0:1", "1:1", "2:2", "3:3", "4:4", "5:1"}));
    // AC-4 cuts as video; text is sparse. Labels name the input and its type.
    EXPECT_EQ(f.mainSync.added,
              (std::vector<std::string>{"0:0:input 0(H264 Video)", "1:0:input 1(HEVC Video)", "2:0:input 2(AC4 Audio)",
                                        "3:1:input 3(AAC ADTS Audio)", "4:2:input 4(TTML)", "5:0:input 5(H264 Video)"}));
    // Timed text gets the subtitle role in the chunk builder's record.
    ASSERT_EQ(f.chunks.attributes[4].descriptors.size(), 1u);
    EXPECT_EQ(f.chunks.attributes[4].descriptors[0],
              (StreamDescriptor{"Role", "urn:mpeg:dash:role:2011", "subtitle"}));
    EXPECT_TRUE(f.chunks.attributes[0].descriptors.empty());
}

// A second synchroniser, of the audio segment duration, takes the audio; the session ends once every synchroniser
// with streams has ended.
TEST(Fmp4Mux, SeparateAudioSegmentsGoToASecondSynchroniserAndEndOnceEachWithStreamsHasEnded) {
    {
        SessionFixture f;
        auto mux = f.make(Fmp4MuxConfig::fromMode(SeparateAudioSegments, 2000, 1, 1920, 0), Dash, false, true);
        addStreams(*mux, {H264_VIDEO, AAC_LATM_AUDIO, AC4_AUDIO, WEBVTT});
        ASSERT_EQ(f.syncParams.size(), 2u);
        EXPECT_EQ(f.syncParams[1].segmentDurationMs, 1920u);
        EXPECT_EQ(f.syncParams[1].gopsPerSegment, 1u);
        EXPECT_TRUE(f.syncParams[0].offline && f.syncParams[1].offline);
        EXPECT_EQ(f.mainSync.added, (std::vector<std::string>{"0:0:input 0(H264 Video)", "3:2:input 3(WebVTT)"}));
        EXPECT_EQ(f.audioSync.added, (std::vector<std::string>{"1:1:input 1(AAC LATM Audio)", "2:0:input 2(AC4 Audio)"}));
        // Both synchronisers report through one joint listener, not to the chunk builder directly.
        EXPECT_EQ(f.syncParams[0].listener, f.syncParams[1].listener);
        EXPECT_NE(f.syncParams[0].listener, &mux->chunksBuilder());
        f.syncParams[1].listener->OnEndOfStream();  // audio done, video still going
        EXPECT_EQ(f.chunks.endsOfStream, 0);
        f.syncParams[0].listener->OnEndOfStream();
        EXPECT_EQ(f.chunks.endsOfStream, 1);
    }
    {
        // Audio only: the video synchroniser has no stream and never ends; the audio one ends the session.
        SessionFixture f;
        auto mux = f.make(Fmp4MuxConfig::fromMode(SeparateAudioSegments, 2000, 1, 2000, 0));
        addStreams(*mux, {AAC_ADTS_AUDIO, AAC_LATM_AUDIO});
        f.syncParams[1].listener->OnEndOfStream();
        EXPECT_EQ(f.chunks.endsOfStream, 1);
    }
}

TEST(Fmp4Mux, SampleBuildersTakeTheInBandFlagFromTheFormat) {
    // Smooth Streaming always carries parameter sets in band; DASH as configured.
    for (const auto& [format, inBand, expected] : {std::tuple{Dash, false, false}, {Dash, true, true}, {Smooth, false, true}}) {
        SessionFixture f;
        auto mux = f.make(Fmp4MuxConfig::fromMode(GopSegments, 2000, 1, 0, 0), format, inBand);
        mux->AddStream(0, attributesOf(H264_VIDEO));
        EXPECT_EQ(f.sampleBuilders.at(0).second, expected);
    }
}

TEST(Fmp4Mux, DropsEverythingBeforeTheFirstTimedBufferOfEachStream) {
    SessionFixture f;
    auto mux = f.make(Fmp4MuxConfig::fromMode(GopSegments, 2000, 1, 0, 0));
    addStreams(*mux, {H264_VIDEO, AAC_ADTS_AUDIO, KLV});  // no analysis for KLV here
    mux->ConsumeSample(0, timedBuffer(-1).get());
    mux->ConsumeSample(0, timedBuffer(-1).get());
    mux->ConsumeSample(1, timedBuffer(500).get());
    mux->ConsumeSample(0, timedBuffer(1000).get());
    mux->ConsumeSample(0, timedBuffer(-1).get());  // started: untimed buffers continue the stream
    mux->ConsumeSample(2, timedBuffer(1000).get());
    mux->ConsumeSample(7, timedBuffer(1000).get());  // unknown stream
    const std::vector<std::pair<std::uint32_t, std::int64_t>> expected{
        {AAC_ADTS_AUDIO, 500}, {H264_VIDEO, 1000}, {H264_VIDEO, -1}};
    EXPECT_EQ(f.nals.pushes, expected);
    mux->ConsumeEndOfStream(0);
    mux->ConsumeEndOfStream(2);
    mux->ConsumeEndOfStream(9);
    EXPECT_EQ(f.nals.flushes, 1);
}

// MPEG-2 video is framed and its sequence headers read, but it is not packaged: declared to the synchroniser as
// video, it gives it nothing. ffmpeg's 720x576 stream: ffprobe reports 25/1 and a sample aspect ratio of 16:15,
// which the lookup gives unreduced as 2304/2160 (4 x 576 over 3 x 720). With its frame_rate_code (the low nibble of
// byte 7) set to 0, the first buffer throws out of the session, as any analysis failure does on the worker.
TEST(Fmp4Mux, Mpeg2VideoIsReadButNotPackaged) {
    const Bytes stream = readData("mpeg2_720x576.m2v");
    Bytes broken = stream;
    broken[7] &= 0xF0;
    for (const Bytes* bytes : std::initializer_list<const Bytes*>{&stream, &broken}) {
        SessionFixture f;
        lib_parse_es::NALBuilderMPEG2Video* builder = nullptr;
        Fmp4MuxParts parts = f.parts();
        parts.makeNalBuilder = [&builder](std::uint32_t type) {
            auto made = lib_parse_es::createNalBuilder(type);
            builder = dynamic_cast<lib_parse_es::NALBuilderMPEG2Video*>(made.get());
            return made;
        };
        parts.makeSampleBuilder = imff_samples::createSampleBuilder;
        Fmp4Mux mux(Dash, Fmp4MuxConfig::fromMode(GopSegments, 2000, 1, 0, 0), nullptr, f.logger, false, false, false,
                    false, false, parts);
        mux.AddStream(0, attributesOf(MPEG2_VIDEO));
        ASSERT_NE(builder, nullptr);
        std::string failure;
        try {
            mux.ConsumeSample(0, timedBuffer(0, *bytes).get());
            mux.ConsumeEndOfStream(0);
        } catch (const CorvaneException& e) {
            failure = e.what();
        }
        if (bytes == &broken) {
            EXPECT_EQ(failure, "Mpeg2 video sequence_header parsing issue: unknown frame_rate_code: 0");
            continue;
        }
        ASSERT_TRUE(failure.empty() && builder->sequence().has_value()) << failure;
        const auto& [header, rate, sar] = *builder->sequence();
        EXPECT_EQ(std::make_tuple(header.horizontal_size_value, rate.num, rate.den, sar.num, sar.den),
                  std::make_tuple(720u, 25, 1, 2304, 2160));
        EXPECT_EQ(f.mainSync.added, std::vector<std::string>{"0:0:input 0(MPEG2 Video)"});
        EXPECT_TRUE(f.mainSync.samples.empty());
    }
}

}  // namespace
