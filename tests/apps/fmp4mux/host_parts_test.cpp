#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "apps/fmp4mux/cli/options.h"
#include "apps/fmp4mux/engine/chunk_sink.h"
#include "apps/fmp4mux/inputs/libav_input.h"
#include "apps/fmp4mux/manifests/manifests.h"
#include "packaging/fmp4/output/chunk_reader.h"

namespace {
using namespace fmp4mux;
namespace flt = tvrn::encoding::filter;
using tvrn::encoding::packaging::imff::fmp4::moviePart;
using tvrn::encoding::packaging::imff::fmp4::readChunkTiming;
using tvrn::encoding::packaging::imff::fmp4::serverManifest;
using tvrn::encoding::packaging::imff::fmp4::withoutMarkerBoxes;

std::vector<std::uint8_t> joined(const std::vector<std::span<const std::uint8_t>>& ranges) {
    std::vector<std::uint8_t> out;
    for (const auto r : ranges) out.insert(out.end(), r.begin(), r.end());
    return out;
}

std::vector<std::uint8_t> box(const char* type, std::vector<std::uint8_t> content) {
    const std::uint32_t size = static_cast<std::uint32_t>(content.size() + 8);
    std::vector<std::uint8_t> out{static_cast<std::uint8_t>(size >> 24), static_cast<std::uint8_t>(size >> 16),
                                  static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)};
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(type[i]));
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

std::vector<std::uint8_t> join(std::initializer_list<std::vector<std::uint8_t>> parts) {
    std::vector<std::uint8_t> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(ChunkTiming, ReadsTheSegmentIndexOfADashChunk) {
    // sidx version 0 (ISO/IEC 14496-12 8.16.3): version/flags, reference_ID 1, timescale 90000,
    // earliest_presentation_time 180000, first_offset 0, reserved, reference_count 1, then one reference:
    // type/size 0x00000400, subsegment_duration 180000, SAP flags 0x90000000.
    const auto sidx = box("sidx", {0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0x5F, 0x90, 0, 2, 0xBF, 0x20, 0, 0, 0, 0, 0, 0, 0, 1,
                                   0, 0, 4, 0, 0, 2, 0xBF, 0x20, 0x90, 0, 0, 0});
    const auto chunk = join({box("styp", {'m', 's', 'd', 'h', 0, 0, 0, 0}), sidx, box("moof", {}), box("mdat", {1, 2})});
    const auto timing = readChunkTiming(chunk, true);
    ASSERT_TRUE(timing);
    EXPECT_EQ(timing->timescale, 90000u);
    EXPECT_EQ(timing->time, 180000u);
    EXPECT_EQ(timing->duration, 180000u);
    EXPECT_FALSE(readChunkTiming(std::span(chunk).first(chunk.size() - 3), false));
}

TEST(ChunkTiming, ReadsTheTimeBoxOfASmoothChunk) {
    // uuid 6D1D9B05-42D5-44E6-80E2-141DAFF757B2, version 1: absolute time and duration, 64 bits each.
    std::vector<std::uint8_t> tfxd{0x6D, 0x1D, 0x9B, 0x05, 0x42, 0xD5, 0x44, 0xE6, 0x80, 0xE2, 0x14, 0x1D, 0xAF, 0xF7,
                                   0x57, 0xB2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x98, 0x96, 0x80, 0, 0, 0, 0, 0x01, 0x31, 0x2D, 0x00};
    const auto chunk = join({box("moof", join({box("mfhd", {0, 0, 0, 0, 0, 0, 0, 1}),
                                               box("traf", join({box("tfhd", {0, 0, 0, 0, 0, 0, 0, 1}), box("uuid", tfxd)}))})),
                             box("mdat", {})});
    const auto timing = readChunkTiming(chunk, false);
    ASSERT_TRUE(timing);
    EXPECT_EQ(timing->timescale, 10000000u);
    EXPECT_EQ(timing->time, 10000000u);
    EXPECT_EQ(timing->duration, 20000000u);
}

TEST(InitChunk, TheMoviePartAndItsManifestComeOutOfTheContainer) {
    const std::string xml = "<?xml version=\"1.0\"?><smil/>";
    std::vector<std::uint8_t> manifest(16 + 4, 0);
    manifest.insert(manifest.end(), xml.begin(), xml.end());
    const auto movie = join({box("ftyp", {'d', 'a', 's', 'h', 0, 0, 0, 1}), box("uuid", manifest), box("moov", {})});
    const auto mfra = box("mfra", {});
    const auto a = static_cast<std::uint32_t>(movie.size());
    auto container = join({{static_cast<std::uint8_t>(a >> 24), static_cast<std::uint8_t>(a >> 16),
                            static_cast<std::uint8_t>(a >> 8), static_cast<std::uint8_t>(a), 0, 0, 0, 8},
                           movie, mfra});
    EXPECT_EQ(joined({moviePart(container)}), movie);
    EXPECT_EQ(serverManifest(movie), xml);
    container.pop_back();
    EXPECT_TRUE(moviePart(container).empty());
}

// Feeds a sink as the filter's output pin does: buffers of at most 8192 bytes.
struct Feeder {
    flt::MemAllocator allocator{100, 8192};
    Feeder() {
        flt::MemAllocator::Properties actual;
        allocator.SetProperties({100, 8192, 1, 0}, actual);
    }
    void send(ChunkSink& sink, const std::vector<std::uint8_t>& bytes, bool init, std::int64_t time) {
        for (std::size_t at = 0; at < bytes.size(); at += 8192) {
            flt::IMediaSample3* sample = nullptr;
            ASSERT_EQ(allocator.GetBuffer(&sample, nullptr, nullptr, 0), 0);
            std::uint8_t* data = nullptr;
            sample->GetPointer(&data);
            const std::size_t n = std::min<std::size_t>(8192, bytes.size() - at);
            std::memcpy(data, bytes.data() + at, n);
            sample->SetActualDataLength(static_cast<long>(n));
            sample->SetSyncPoint(init);
            if (!init) sample->SetTime(&time, nullptr);
            sink.Receive(sample);
            sample->Release();
        }
    }
};

TEST(ChunkSink, JoinsBuffersBackIntoWholeChunks) {
    std::vector<std::vector<std::uint8_t>> inits, media;
    ChunkSink sink(true, 10, [&](bool init, std::vector<std::uint8_t>&& c) { (init ? inits : media).push_back(std::move(c)); });
    Feeder feeder;
    const auto movie = box("moov", std::vector<std::uint8_t>(9000, 1));
    const auto init = join({{0, 0, 0x23, 0x30, 0, 0, 0, 8}, movie, box("mfra", {})});  // A = 9008, B = 8
    feeder.send(sink, init, true, 0);
    ASSERT_EQ(inits.size(), 1u);  // complete without waiting for what follows
    EXPECT_EQ(inits[0], init);

    const auto chunk = join({box("styp", {}), box("moof", {}), box("mdat", std::vector<std::uint8_t>(20000, 2)),
                             box("teoc", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), box("teos", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})});
    feeder.send(sink, chunk, false, 100);
    ASSERT_EQ(media.size(), 1u);  // the end-of-segment box closes it
    EXPECT_EQ(media[0], chunk);
    // A chunk without a closing box is completed by the next one, and the last by the end of the stream.
    const auto open = join({box("moof", {}), box("mdat", {3}), box("teoc", {})});
    feeder.send(sink, open, false, 200);
    EXPECT_EQ(media.size(), 1u);
    feeder.send(sink, open, false, 300);
    ASSERT_EQ(media.size(), 2u);
    EXPECT_EQ(media[1], open);  // the room of the previous chunk is reused, and nothing of it is left
    sink.EndOfStream();
    ASSERT_EQ(media.size(), 3u);
    EXPECT_EQ(media[2], open);
    EXPECT_TRUE(sink.ended());

    // The files players read lose the segment and chunk markers, and only those.
    const auto tnsb = box("tnsb", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    const auto body = join({box("styp", {}), box("sidx", {9}), box("moof", {}), box("mdat", {7})});
    EXPECT_EQ(joined(withoutMarkerBoxes(join({tnsb, body, box("teoc", {1}), box("teos", {2})}))), body);
}

TEST(Manifests, ReadTheServerManifestOfBothDialects) {
    Track video;
    ASSERT_TRUE(readServerManifest(R"(<?xml version="1.0" encoding="UTF-8"?>
<smil xmlns="http://www.w3.org/2001/SMIL20/Language"><head/><body><switch>
<video trackId="1" systemBitrate="500000" peakBitrate="550000" width="640" height="360" startWithSAP="1"
 frameRate="25/1" scanType="progressive" mimeType="video/mp4" codecs="avc1.64001e" sar_width="1" sar_height="1"/>
</switch></body></smil>)", true, video));
    EXPECT_EQ(video.kind, "video");
    EXPECT_EQ(video.codecs, "avc1.64001e");
    EXPECT_EQ(video.bandwidth, 550000u);
    EXPECT_EQ(video.frameRate, "25/1");
    Track audio;
    ASSERT_TRUE(readServerManifest(R"(<?xml version="1.0"?><smil><body><switch>
<audio src="audioStream_2" systemBitrate="64000" systemLanguage="fra">
<param name="FourCC" value="mp4a" valuetype="data"/><param name="CodecPrivateData" value="1190" valuetype="data"/>
<param name="Channels" value="2" valuetype="data"/><param name="SamplingRate" value="48000" valuetype="data"/>
</audio></switch></body></smil>)", false, audio));
    EXPECT_EQ(audio.fourCC, "AACL");
    EXPECT_EQ(audio.language, "fra");
    EXPECT_EQ(audio.sampleRate, 48000u);
    EXPECT_EQ(audio.codecPrivateData, "1190");
    EXPECT_FALSE(readServerManifest("<smil><body><switch/></body></smil>", true, audio));
}

TEST(Manifests, TimelineRunsAndTheLiveWindow) {
    Track t;
    t.kind = "video";
    t.representationId = "video0";
    t.codecs = "avc1.64001e";
    t.bandwidth = 1000;
    t.timescale = 10;
    t.initialization = "i.mp4";
    t.mediaTemplate = "c_$Time$.mp4";
    for (std::uint64_t k = 0; k < 10; ++k) t.segments.push_back({k * 20, 20, k + 1});
    t.segments.push_back({300, 15, 11});  // after a gap
    MpdTiming timing;
    const std::string mpd = buildMpd({t}, timing);
    EXPECT_NE(mpd.find("<S t=\"0\" d=\"20\" r=\"9\"/>"), std::string::npos);
    EXPECT_NE(mpd.find("<S t=\"300\" d=\"15\"/>"), std::string::npos);
    EXPECT_NE(mpd.find("type=\"static\" mediaPresentationDuration=\"PT31.500S\""), std::string::npos);
    timing.dynamic = true;
    timing.timeShiftBufferSeconds = 20;  // 200 ticks before the end at 315: segments from t = 115 on
    timing.availabilityStartTime = isoUtc(0);
    timing.publishTime = isoUtc(1.5);
    const std::string live = buildMpd({t}, timing);
    EXPECT_NE(live.find("availabilityStartTime=\"1970-01-01T00:00:00.000Z\""), std::string::npos);
    EXPECT_NE(live.find("publishTime=\"1970-01-01T00:00:01.500Z\""), std::string::npos);
    EXPECT_EQ(live.find("<S t=\"0\""), std::string::npos);
    EXPECT_NE(live.find("<S t=\"120\" d=\"20\" r=\"3\"/>"), std::string::npos);

    // A live session drops the records the window leaves out as it goes: the MPD stays the same.
    EXPECT_EQ(countBeforeWindow(t.segments, t.timescale, 20), 6u);
    Track kept = t;
    kept.segments.erase(kept.segments.begin(), kept.segments.begin() + 6);
    EXPECT_EQ(buildMpd({kept}, timing), live);
    EXPECT_EQ(countBeforeWindow(kept.segments, kept.timescale, 20), 0u);
    // Times that go back (the source restarted) leave everything before them out; the last segment stays.
    kept.segments.push_back({5, 20, 12});
    EXPECT_EQ(countBeforeWindow(kept.segments, kept.timescale, 20), kept.segments.size() - 1);
    EXPECT_EQ(countBeforeWindow({{0, 20, 1}}, 10, 0), 0u);
}

ParseResult parse(std::vector<std::string> args, Options& options, std::string& error) {
    std::vector<char*> argv{const_cast<char*>("fmp4mux")};
    for (auto& a : args) argv.push_back(a.data());
    return parseOptions(static_cast<int>(argv.size()), argv.data(), options, error);
}

std::string joined(const std::vector<std::string>& args) {
    std::string out;
    for (const auto& a : args) out += a + " ";
    return out;
}

TEST(Options, AcceptedCommandLinesSetWhatTheySay) {
    using Inputs = std::vector<std::string>;
    const struct {
        std::vector<std::string> args;
        std::function<void(const Options&)> check;
    } cases[] = {
        {{"a.ts", "out"},
         [](const Options& o) {
             EXPECT_TRUE(o.dash);
             EXPECT_EQ(o.gopDurationMs, 2000);
             EXPECT_EQ(o.verbosity, 1);
             EXPECT_TRUE(o.maps.empty());
             EXPECT_EQ(o.inputs, Inputs{"a.ts"});
             EXPECT_EQ(o.outputDirectory, "out");
         }},
        // Options may come between the positional arguments; the last of a repeated option wins.
        {{"-f", "smooth", "a.ts", "-n", "3", "b.ts", "-g", "1000", "-g", "1500", "out"},
         [](const Options& o) {
             EXPECT_FALSE(o.dash);
             EXPECT_EQ(o.gopsPerSegment, 3u);
             EXPECT_EQ(o.gopDurationMs, 1500);
             EXPECT_EQ(o.inputs, (Inputs{"a.ts", "b.ts"}));
         }},
        {{"-g3000", "-vv", "-q", "a", "out"},
         [](const Options& o) {
             EXPECT_EQ(o.gopDurationMs, 3000);
             EXPECT_EQ(o.verbosity, 3);
             EXPECT_TRUE(o.quiet);
         }},
        {{"--gop-duration=0100", "--mode=separate-audio", "--audio-segment-duration=1920", "--first-number=0", "a", "out"},
         [](const Options& o) {
             EXPECT_EQ(o.gopDurationMs, 100);  // base 10, not octal
             EXPECT_EQ(o.mode, 1u);
             EXPECT_EQ(o.audioSegmentDurationMs, 1920);
             EXPECT_EQ(o.firstNumber, 0);
         }},
        {{"--bitrate", "0:1=96000", "--bitrate=00:0=500000", "--language", "0:1=fra", "--name=0:1=audio-fr", "a", "out"},
         [](const Options& o) {
             EXPECT_EQ(o.streams.at("0:1").bitrate, 96000u);
             EXPECT_EQ(o.streams.at("0:0").bitrate, 500000u);
             EXPECT_EQ(o.streams.at("0:1").language, "fra");
             EXPECT_EQ(o.streams.at("0:1").name, "audio-fr");
         }},
        {{"-", "out"}, [](const Options& o) { EXPECT_EQ(o.inputs, Inputs{"-"}); }},
        {{"-v", "--", "-in.ts", "--x", "out"},
         [](const Options& o) {
             EXPECT_EQ(o.verbosity, 2);
             EXPECT_EQ(o.inputs, (Inputs{"-in.ts", "--x"}));
         }},
        {{"--map", "0:v", "--map=1:0", "--map", "2:a", "a", "b", "c", "out"},
         [](const Options& o) {
             ASSERT_EQ(o.maps.size(), 3u);
             EXPECT_EQ(o.maps[0].input, 0);
             EXPECT_EQ(o.maps[0].kind, "video");
             EXPECT_FALSE(o.maps[0].stream);
             EXPECT_EQ(o.maps[1].input, 1);
             EXPECT_EQ(o.maps[1].stream, 0);
             EXPECT_EQ(o.maps[2].kind, "audio");
             EXPECT_EQ(o.maps[2].text, "2:a");
             EXPECT_EQ(o.inputs.size(), 3u);
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(joined(c.args));
        Options o;
        std::string e;
        ASSERT_EQ(parse(c.args, o, e), ParseResult::Run) << e;
        c.check(o);
    }
    Options o;
    std::string e;
    EXPECT_EQ(parse({"-g", "nonsense", "--help"}, o, e), ParseResult::Help);
    EXPECT_EQ(parse({"-V"}, o, e), ParseResult::Version);
}

TEST(Options, RefusedCommandLinesSayWhy) {
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"out"}, "give at least one INPUT and the OUTDIR"},
        {{"--frobnicate", "a", "out"}, "unknown option --frobnicate"},
        {{"-vx", "a", "out"}, "unknown option -x"},
        {{"a", "out", "-g"}, "--gop-duration"},
        {{"-f", "hls", "a", "out"}, "unknown format 'hls' (dash or smooth)"},
        {{"--mode", "sometimes", "a", "out"}, "unknown mode 'sometimes' (gop, gop-alt or separate-audio)"},
        {{"-g50", "a", "out"}, "option --gop-duration: '50' is not a number from 100 to 600000"},
        {{"--time-shift-buffer=1h", "a", "out"}, "'1h' is not a number from 1 to 86400"},
        {{"--first-number", "2147483648", "a", "out"}, "is not a number from 0 to 2147483647"},
        // Names that would leave the output folder or break URLs.
        {{"--stream-name", "a/b", "a", "out"}, "the stream name 'a/b' must be a plain name"},
        {{"--stream-name", "..", "a", "out"}, "the stream name '..' must be a plain name"},
        {{"--name", "0:0=../x", "a", "out"}, "--name 0:0: '../x' must be a plain name"},
        {{"--media-template", "../../x_${adaptationSetId}_${representationId}_${time}.mp4", "a", "out"},
         "names must not leave the output folder ('..')"},
        {{"--init-template", "/tmp/${adaptationSetId}/${representationId}/i.mp4", "a", "out"},
         "names must be relative to the output folder"},
        {{"--media-template", "${adaptationSetId}/${representationId}/c#${time}.mp4", "a", "out"}, "break URLs"},
        {{"--language", "0:1=français", "a", "out"}, "--language 0:1: 'français' is not a language code"},
        {{"-", "-", "out"}, "standard input ('-') can be read only once"},
        {{"--bitrate", "0:1", "a", "out"}, "option --bitrate takes INPUT:STREAM=VALUE, not '0:1'"},
        {{"--language", "x:1=fra", "a", "out"}, "option --language takes INPUT:STREAM=VALUE"},
        {{"--bitrate", "0:1=fast", "a", "out"}, "--bitrate 0:1: 'fast' is not a bitrate in bits per second"},
        {{"--map", "0:x", "a", "out"}, "--map takes INPUT:STREAM, INPUT:v or INPUT:a, not '0:x'"},
        {{"--map", "1", "a", "out"}, "not '1'"},
        {{"--map=:0", "a", "out"}, "not ':0'"},
        {{"--media-template", "${sessionId}/${time}", "a", "out"},
         "media template '${sessionId}/${time}': '${adaptationSetId}' is mandatory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(joined(c.args));
        Options o;
        std::string e;
        EXPECT_EQ(parse(c.args, o, e), ParseResult::Error);
        EXPECT_NE(e.find(c.message), std::string::npos) << e;
    }
}

TEST(Options, MapSelectorsPickStreamsOrNameTheOneThatMatchesNothing) {
    auto stream = [](int input, int index, const char* codec, const char* kind) {
        StreamInfo s;
        s.input = input;
        s.sourceIndex = index;
        s.codec = codec;
        s.kind = kind;
        return s;
    };
    // Input 0 lists a skipped stream 1 (absent here), so its AAC stays at source index 2.
    const std::vector<std::vector<StreamInfo>> inputs{
        {stream(0, 0, "h264", "video"), stream(0, 2, "aac", "audio")},
        {stream(1, 0, "h264", "video"), stream(1, 1, "aac", "audio")},
        {},
    };
    using Selected = std::vector<std::vector<bool>>;
    const struct {
        std::vector<std::string> maps;
        Selected selected;  // empty: refused with `message`
        std::string message;
    } cases[] = {
        {{}, {{true, true}, {true, true}, {}}, ""},
        {{"0:v", "1:v", "0:a"}, {{true, true}, {true, false}, {}}, ""},
        {{"0:2", "1:0", "1:v"}, {{false, true}, {true, false}, {}}, ""},
        {{"0:v", "1:7"}, {}, "--map 1:7 matches no stream (input 1 has streams 0 (h264 video), 1 (aac audio))"},
        {{"0:1"}, {}, "--map 0:1 matches no stream (input 0 has streams 0 (h264 video), 2 (aac audio))"},
        {{"2:a"}, {}, "--map 2:a matches no stream (input 2 has no stream that can be packaged)"},
        {{"3:v"}, {}, "--map 3:v matches no stream (there are 3 inputs)"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args;
        for (const auto& m : c.maps) args.insert(args.end(), {"--map", m});
        args.insert(args.end(), {"a", "b", "c", "out"});
        SCOPED_TRACE(joined(args));
        Options o;
        std::string e;
        ASSERT_EQ(parse(args, o, e), ParseResult::Run) << e;
        Selected selected;
        EXPECT_EQ(selectStreams(o.maps, inputs, selected, e), c.message.empty());
        if (c.message.empty())
            EXPECT_EQ(selected, c.selected);
        else
            EXPECT_EQ(e, c.message);
    }
}

TEST(RawAacPacket, LaysOutMarkerSizesConfigurationAndPayload) {
    const std::vector<std::uint8_t> asc{0x11, 0x90};
    const std::uint8_t frame[3] = {0xAA, 0xBB, 0xCC};
    const auto packet = makeRawAacPacket(asc, 128000, frame, 3);
    const std::vector<std::uint8_t> expected{0xFF, 0xFA, 0xFA, 0xFA, 0, 0, 0, 25,  // marker, whole size 20 + 2 + 3
                                             0, 1, 0xF4, 0,                      // 128000 bit/s
                                             0, 0, 0, 16,                        // 16 configuration bits
                                             0x11, 0x90, 0, 0, 0, 3, 0xAA, 0xBB, 0xCC};
    EXPECT_EQ(packet, expected);
}
}  // namespace
