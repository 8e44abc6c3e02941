// The host's own parts: its command line, its manifests, raw AAC packets of MP4 inputs, the keeper that takes
// timestamp jumps out of inputs, and the guard that keeps damaged media out.
#include <gtest/gtest.h>

#include <sstream>

#include "apps/fmp4mux/cli/options.h"
#include "apps/fmp4mux/inputs/audio_frames.h"
#include "apps/fmp4mux/inputs/audio_silence.h"
#include "apps/fmp4mux/inputs/byte_pool.h"
#include "apps/fmp4mux/inputs/damage_guard.h"
#include "apps/fmp4mux/inputs/kept_stream.h"
#include "apps/fmp4mux/inputs/reader.h"
#include "apps/fmp4mux/inputs/timeline_keeper.h"
#include "apps/fmp4mux/manifests/manifests.h"
#include "tests/common/bytes.h"

namespace {
using namespace fmp4mux;

TEST(Manifests, ReadTheServerManifestOfBothDialects) {
    Track video;
    ASSERT_TRUE(readServerManifest(R"(<?xml version="1.0" encoding="UTF-8"?>
<smil xmlns="http://www.w3.org/2001/SMIL20/Language"><head/><body><switch>
<video trackId="1" systemBitrate="500000" peakBitrate="550000" width="640" height="360" startWithSAP="1"
 frameRate="25/1" scanType="progressive" mimeType="video/mp4" codecs="avc1.64001e" sar_width="1" sar_height="1"/>
</switch></body></smil>)", true, video));
    EXPECT_EQ(video.kind + " " + video.codecs + " " + video.frameRate, "video avc1.64001e 25/1");
    EXPECT_EQ(video.bandwidth, 550000u);
    Track audio;
    ASSERT_TRUE(readServerManifest(R"(<?xml version="1.0"?><smil><body><switch>
<audio src="audioStream_2" systemBitrate="64000" systemLanguage="fra">
<param name="FourCC" value="mp4a" valuetype="data"/><param name="CodecPrivateData" value="1190" valuetype="data"/>
<param name="Channels" value="2" valuetype="data"/><param name="SamplingRate" value="48000" valuetype="data"/>
</audio></switch></body></smil>)", false, audio));
    EXPECT_EQ(audio.fourCC + " " + audio.language + " " + audio.codecPrivateData, "AACL fra 1190");
    EXPECT_EQ(audio.sampleRate, 48000u);
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

// A low-latency live MPD names segments by number from the clock: a segment may be fetched one chunk after it
// starts, it is not complete when fetched, the latency target is stated, and the origin's own clock comes first.
TEST(Manifests, LowLatencyLiveMpd) {
    Track t;
    t.kind = "video";
    t.representationId = "video0";
    t.timescale = 90000;
    t.initialization = "i.mp4";
    t.mediaTemplate = "c_$Number$.mp4";
    MpdTiming timing;
    timing.dynamic = true;
    timing.lowLatency = {true, 0.5, 2.0, 7, 2000, "http://127.0.0.1:8080/utc"};
    const std::string mpd = buildMpd({t}, timing);
    EXPECT_NE(mpd.find("startNumber=\"7\" duration=\"180000\" availabilityTimeOffset=\"1.500\" "
                       "availabilityTimeComplete=\"false\"/>"), std::string::npos) << mpd;
    EXPECT_NE(mpd.find("<Latency referenceId=\"0\" target=\"2000\""), std::string::npos);
    EXPECT_EQ(mpd.find("<SegmentTimeline>"), std::string::npos);
    const auto xsdate = mpd.find("urn:mpeg:dash:utc:http-xsdate:2014\" value=\"http://127.0.0.1:8080/utc\"");
    ASSERT_NE(xsdate, std::string::npos);
    EXPECT_LT(xsdate, mpd.find("urn:mpeg:dash:utc:direct:2014"));
    EXPECT_LT(mpd.find("<ServiceDescription"), mpd.find("<Period"));
}

ParseResult parse(std::vector<std::string> args, Options& options, std::string& error) {
    std::vector<char*> argv{const_cast<char*>("fmp4mux")};
    for (auto& a : args) argv.push_back(a.data());
    return parseOptions(static_cast<int>(argv.size()), argv.data(), options, error);
}

// What a command line sets, in one line: format, mode, -g, -n, verbosity, quiet, first number, audio segment
// duration, stream settings (bitrate/language/name), maps (as written = input:stream or kind), inputs, output.
std::string summary(const Options& o) {
    std::ostringstream s;
    s << (!o.dash ? "smooth" : o.mpd && o.hls ? "dash,hls" : o.hls ? "hls" : "dash") << " m" << o.mode << " g" << o.gopDurationMs << " n" << o.gopsPerSegment << " v"
      << o.verbosity << (o.quiet ? " q" : "") << " first" << o.firstNumber;
    if (o.audioSegmentDurationMs) s << " audio" << *o.audioSegmentDurationMs;
    for (const auto& [key, st] : o.streams)
        s << " " << key << "=" << st.bitrate.value_or(0) << "/" << st.language.value_or("") << "/" << st.name.value_or("");
    for (const auto& m : o.maps)
        s << " map " << m.text << "=" << m.input << ":" << (m.stream ? std::to_string(*m.stream) : m.kind);
    for (const auto& i : o.inputs) s << " <" << i;
    return s.str() + " >" + o.outputDirectory;
}

TEST(Options, AcceptedCommandLinesSetWhatTheySay) {
    const struct { std::vector<std::string> args; std::string options; } cases[] = {
        {{"a.ts", "out"}, "dash m0 g2000 n1 v1 first1 <a.ts >out"},
        // Options may come between the positional arguments; the last of a repeated option wins.
        {{"-f", "smooth", "a.ts", "-n", "3", "b.ts", "-g", "1000", "-g", "1500", "out"},
         "smooth m0 g1500 n3 v1 first1 <a.ts <b.ts >out"},
        {{"-g3000", "-vv", "-q", "a", "out"}, "dash m0 g3000 n1 v3 q first1 <a >out"},
        // Numbers are decimal, even with a leading 0.
        {{"--gop-duration=0100", "--mode=separate-audio", "--audio-segment-duration=1920", "--first-number=0", "a", "out"},
         "dash m1 g100 n1 v1 first0 audio1920 <a >out"},
        {{"--bitrate", "0:1=96000", "--bitrate=00:0=500000", "--language", "0:1=fra", "--name=0:1=audio-fr", "a", "out"},
         "dash m0 g2000 n1 v1 first1 0:0=500000// 0:1=96000/fra/audio-fr <a >out"},
        {{"-", "out"}, "dash m0 g2000 n1 v1 first1 <- >out"},
        {{"-f", "hls,dash", "-", "out"}, "dash,hls m0 g2000 n1 v1 first1 <- >out"},
        {{"-f", "hls", "-", "out"}, "hls m0 g2000 n1 v1 first1 <- >out"},
        {{"-v", "--", "-in.ts", "--x", "out"}, "dash m0 g2000 n1 v2 first1 <-in.ts <--x >out"},
        {{"--map", "0:v", "--map=1:0", "--map", "2:a", "a", "b", "c", "out"},
         "dash m0 g2000 n1 v1 first1 map 0:v=0:video map 1:0=1:0 map 2:a=2:audio <a <b <c >out"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        Options o;
        std::string e;
        ASSERT_EQ(parse(c.args, o, e), ParseResult::Run) << e;
        EXPECT_EQ(summary(o), c.options);
    }
    Options o;
    std::string e;
    EXPECT_EQ(parse({"-g", "nonsense", "--help"}, o, e), ParseResult::Help);
    EXPECT_EQ(parse({"-V"}, o, e), ParseResult::Version);
}

TEST(Options, RefusedCommandLinesSayWhy) {
    const struct { std::vector<std::string> args; std::string message; } cases[] = {
        {{"out"}, "give at least one INPUT and the OUTDIR"},
        {{"--frobnicate", "a", "out"}, "unknown option --frobnicate"},
        {{"-vx", "a", "out"}, "unknown option -x"},
        {{"a", "out", "-g"}, "--gop-duration"},
        {{"-f", "dash,ts", "a", "out"}, "unknown format 'ts' (dash, hls or smooth"},
        {{"-f", "hls,smooth", "a", "out"}, "package smooth in a run of its own"},
        {{"--mode", "sometimes", "a", "out"}, "unknown mode 'sometimes' (gop, gop-alt, separate-audio or low-latency)"},
        {{"--demuxer", "ffmpeg", "a", "out"}, "--demuxer is 'internal' or 'libavformat', not 'ffmpeg'"},
        {{"-m", "low-latency", "-f", "smooth", "a", "out"}, "the low-latency mode is for DASH and HLS only"},
        {{"-m", "low-latency", "--media-template", "${time}.mp4", "a", "out"}, "names segments by ${number}"},
        {{"--serve", "host:http", "a", "out"}, "--serve takes [ADDR:]PORT, not 'host:http'"},
        {{"--push", "ftp://x/", "a", "out"}, "--push takes an http:// or https:// URL"},
        {{"-g50", "a", "out"}, "option --gop-duration: '50' is not a number from 100 to 600000"},
        {{"--time-shift-buffer=1h", "a", "out"}, "'1h' is not a number from 1 to 86400"},
        {{"--first-number", "2147483648", "a", "out"}, "is not a number from 0 to 2147483647"},
        {{"--stream-timeout", "-1", "a", "out"}, "--stream-timeout takes seconds from 0 to 3600, not '-1'"},
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
        {{"--descriptor", "0:0=Label,urn:x,y", "a", "out"},
         "--descriptor 0:0: 'Label' is not a descriptor element (Accessibility, Role, Rating or Viewpoint)"},
        {{"--descriptor", "0:0=Role,urn:mpeg:dash:role:2011", "a", "out"}, "is not ELEMENT,SCHEME,VALUE"},
        {{"--map", "0:x", "a", "out"}, "--map takes INPUT:STREAM, INPUT:v or INPUT:a, not '0:x'"},
        {{"--map", "1", "a", "out"}, "not '1'"},
        {{"--map=:0", "a", "out"}, "not ':0'"},
        {{"--media-template", "${sessionId}/${time}", "a", "out"},
         "media template '${sessionId}/${time}': '${adaptationSetId}' is mandatory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
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
    // The streams each input has selected, or (when `selected` is empty) the message that refuses the maps.
    const struct { std::vector<std::string> maps; Selected selected; std::string message; } cases[] = {
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
        SCOPED_TRACE(::testing::PrintToString(args));
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
    const std::uint8_t frame[3] = {0xAA, 0xBB, 0xCC};
    // Marker, whole size 20 + 2 + 3, 128000 bit/s, 16 configuration bits, the configuration, the frame's size and bytes.
    EXPECT_EQ(makeRawAacPacket({0x11, 0x90}, 128000, frame, 3),
              testkit::hex("FFFAFAFA 00000019 0001F400 00000010 1190 00000003 AABBCC"));
}

// Packets of sync frames, headers worked out from the standards, the rest of each frame zeros: ADTS (ISO/IEC
// 14496-3 1.A.2) AAC-LC 48 kHz stereo of 8 bytes, FF F1 4C 80 01 1F FC; MPEG-1 Layer II 64 kbit/s 48 kHz mono
// (ISO/IEC 11172-3 2.4.1.3) of 144 * 64000 / 48000 = 192 bytes, FF FD 44 C0; AC-3 48 kHz 32 kbit/s (ETSI TS 102
// 366 4.4.1) of 64 words, 0B 77 crc crc 00 40 (bsid 8) 40 (2/0); E-AC-3 (annex E.1.2) of 64 words (frmsiz 63),
// six blocks at 48 kHz, independent (strmtyp 0) or dependent (1), bsid 16. LOAS frames (ISO/IEC 14496-3 1.7) of 12
// bytes: with a StreamMuxConfig of version 0 whose AudioSpecificConfig is AAC-LC 48 kHz stereo (11 90) or HE-AAC
// with a 24 kHz core and 48 kHz played (2B 11 88), or referring to the one before (useSameStreamMux, 80).
// The read-ahead: with video it stops at the fourth key frame (every 2 s here) and gives their median interval;
// without, after 4 s of a stream. Rates come from bytes over time for the streams that had none, by 100 kB packets
// every 0.5 s (1.6 Mb/s) of stream 0 and 2 kB every 0.1 s (160 kb/s) of stream 1.
TEST(BytePool, HandsBackAKeptBufferThatFitsWithinFourTimesAndKeepsNoMoreThanItsBounds) {
    fmp4mux::BytePool pool;
    const auto buffer = [](std::size_t capacity) {
        std::vector<std::uint8_t> bytes(capacity / 2, 7);
        bytes.reserve(capacity);
        return bytes;
    };
    for (const std::size_t capacity : {4000u, 1000u, 100000u, 2000u}) pool.recycle(buffer(capacity));
    pool.recycle({});  // nothing to keep
    EXPECT_EQ(pool.keptBuffers(), 4u);
    // Wanted size -> capacity handed: a kept one, or a new one of the size when none fits within four times it.
    const std::pair<std::size_t, std::size_t> takes[] = {{1500, 2000}, {900, 1000},      {20000, 20000},
                                                         {30000, 100000}, {900, 900}, {1000, 4000}};
    for (const auto& [size, capacity] : takes) {
        const auto bytes = pool.take(size);
        EXPECT_TRUE(bytes.empty());
        EXPECT_EQ(bytes.capacity(), capacity) << size;
    }
    EXPECT_EQ(pool.keptBuffers(), 0u);
    for (std::size_t i = 0; i < fmp4mux::BytePool::kMaxKept + 5; ++i) pool.recycle(buffer(1024));
    EXPECT_EQ(pool.keptBuffers(), fmp4mux::BytePool::kMaxKept);
    fmp4mux::BytePool bytesBound;
    for (int i = 0; i < 3; ++i) bytesBound.recycle(buffer(fmp4mux::BytePool::kMaxBytes / 2));
    EXPECT_EQ(bytesBound.keptBuffers(), 2u);
}

TEST(KeyFrameMeter, StopsAtTheFourthKeyFrameOrAfterFourSecondsAndMeasuresTheUnknownRates) {
    for (const bool video : {true, false}) {
        SCOPED_TRACE(video);
        KeyFrameMeter meter(2, video ? std::optional<std::size_t>(0) : std::nullopt, 20.0);
        int packets = 0;
        for (int tenth = 0; meter.wantsMore() && tenth < 200; ++tenth, ++packets) {
            const double seconds = tenth / 10.0;
            if (tenth % 5 == 0)
                meter.add(0, 100000, seconds, std::int64_t{tenth} * 1000000, [&] { return tenth % 20 == 0; });
            else
                meter.add(1, 2000, seconds, std::int64_t{tenth} * 1000000, [] { return false; });
        }
        // Key frames at 0, 2, 4 and 6 s; or stream 1, from 0.1 s, spans more than 4 s at 4.2 s.
        EXPECT_EQ(packets, video ? 61 : 43);
        EXPECT_EQ(meter.interval(), video ? std::optional<double>(2.0) : std::nullopt);
        std::vector<StreamInfo> streams(2);
        streams[1].bitrate = 96000;  // told by the input: kept
        meter.measureBitrates(streams);
        EXPECT_EQ(streams[0].bitrate, video ? 100000 * 13 * 8 / 6 : 100000 * 9 * 8 / 4);
        EXPECT_EQ(streams[1].bitrate, 96000);
    }
}

TEST(FrameRun, CountsWholeFramesOfOneLengthAndWhereTheFirstOnesEnd) {
    using fmp4mux::Framing;
    const auto frame = [](std::vector<std::uint8_t> head, std::size_t size) {
        head.resize(size);
        return head;
    };
    const auto adts = frame({0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFC}, 8);
    const auto twoBlocks = frame({0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFD}, 8);
    const auto adts44k = frame({0xFF, 0xF1, 0x50, 0x80, 0x01, 0x1F, 0xFC}, 8);
    const auto layer2 = frame({0xFF, 0xFD, 0x44, 0xC0}, 192);
    const auto ac3 = frame({0x0B, 0x77, 0, 0, 0x00, 0x40, 0x40}, 128);
    const auto independent = frame({0x0B, 0x77, 0x00, 0x3F, 0x34, 0x80}, 128);
    const auto latmLc = frame({0x56, 0xE0, 0x0C, 0x20, 0x00, 0x11, 0x90, 0x1F, 0xE0}, 15);
    const auto latmHe = frame({0x56, 0xE0, 0x0C, 0x20, 0x00, 0x2B, 0x11, 0x88, 0x0F, 0xF0}, 15);
    const auto latmSame = frame({0x56, 0xE0, 0x0C, 0x80}, 15);
    const auto dependent = frame({0x0B, 0x77, 0x40, 0x3F, 0x34, 0x80}, 128);
    const auto join = [](std::initializer_list<std::vector<std::uint8_t>> parts) {
        std::vector<std::uint8_t> all;
        for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
        return all;
    };
    struct Case {
        const char* name;
        Framing framing;
        std::vector<std::uint8_t> bytes;
        int frames;
        std::int64_t duration;  // 100 ns
        std::size_t firstBytes; // of the first frame, with what plays with it
    };
    const Case cases[] = {
        {"two ADTS frames", Framing::Adts, join({adts, adts}), 2, 2 * 1024 * 10000000LL / 48000, 8},
        {"an ADTS frame of two AAC frames", Framing::Adts, join({twoBlocks}), 0, 0, 0},
        {"ADTS frames of two rates", Framing::Adts, join({adts, adts44k}), 0, 0, 0},
        {"an ADTS frame cut short", Framing::Adts, join({adts, frame({0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFC}, 7)}), 0, 0, 0},
        {"two Layer II frames", Framing::Layer2, join({layer2, layer2}), 2, 2 * 1152 * 10000000LL / 48000, 192},
        {"three AC-3 frames", Framing::Dolby, join({ac3, ac3, ac3}), 3, 3 * 1536 * 10000000LL / 48000, 128},
        {"E-AC-3 with a dependent substream", Framing::Dolby, join({independent, dependent, independent, dependent}), 2,
         2 * 1536 * 10000000LL / 48000, 256},
        {"a dependent substream first", Framing::Dolby, join({dependent, independent}), 0, 0, 0},
        {"LOAS frames after a configuration", Framing::Latm, join({latmLc, latmSame}), 2, 2 * 1024 * 10000000LL / 48000, 15},
        {"HE-AAC in LOAS, timed by its core", Framing::Latm, join({latmSame, latmHe}), 2, 2 * 1024 * 10000000LL / 24000, 15},
        {"LOAS frames that refer to a configuration not seen", Framing::Latm, join({latmSame, latmSame}), 0, 0, 0},
        {"raw AAC", Framing::None, join({adts, adts}), 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::size_t first = 0;
        const fmp4mux::FrameRun run = fmp4mux::frameRun(c.framing, c.bytes.data(), c.bytes.size(), nullptr, 1, &first);
        EXPECT_EQ(run.frames, c.frames);
        EXPECT_EQ(run.duration, c.duration);
        if (c.frames > 0) {
            EXPECT_EQ(first, c.firstBytes);
        }
    }
    // The configuration seen in an earlier packet times LOAS frames that refer to it, and a new one takes over.
    fmp4mux::LatmTiming seen;
    EXPECT_EQ(fmp4mux::frameRun(Framing::Latm, latmLc.data(), latmLc.size(), &seen).frames, 1);
    const auto two = join({latmSame, latmSame});
    EXPECT_EQ(fmp4mux::frameRun(Framing::Latm, two.data(), two.size(), &seen).duration, 2 * 1024 * 10000000LL / 48000);
    EXPECT_EQ(fmp4mux::frameRun(Framing::Latm, latmHe.data(), latmHe.size(), &seen).frames, 1);
    EXPECT_EQ(seen.rate, 24000u);
}

// Timestamp jumps taken out of inputs: packets fed in order, with the times (ms here) they must come out at.
constexpr long long kDropped = -1;

struct Fed {
    int input, stream;
    bool video, key;
    long long raw;       // decode time in, ms
    long long expected;  // decode time out, ms, or kDropped
    bool discontinuity = false;  // signalled by the source
    int frames = 0;              // an audio PES of this many 20 ms frames
    int cut = 0;                 // of which the keeper cuts this many off its front
};

struct JumpCase { std::string name; std::vector<Fed> packets; std::size_t jumpsLogged; };

class TimelineKeeperTable : public ::testing::TestWithParam<JumpCase> {};

TEST_P(TimelineKeeperTable, PlacesEveryPacket) {
    std::vector<std::string> lines;
    TimelineKeeper keeper(4000 * 10000LL, [&](const std::string& line) { lines.push_back(line); });
    std::uint64_t dropped = 0;
    for (const Fed& p : GetParam().packets) {
        std::optional<std::int64_t> dts = p.raw * 10000, pts = (p.raw + 80) * 10000;
        int cut = -1;
        const bool kept = keeper.place(p.input, p.stream, p.video, p.key, pts, dts, p.frames * 20 * 10000LL,
                                       p.discontinuity, p.frames, &cut);
        SCOPED_TRACE("packet " + std::to_string(p.input) + ":" + std::to_string(p.stream) + " at " + std::to_string(p.raw));
        if (p.expected == kDropped) {
            EXPECT_FALSE(kept);
            ++dropped;
            continue;
        }
        ASSERT_TRUE(kept);
        EXPECT_EQ(cut, p.cut);
        EXPECT_EQ(*dts, p.expected * 10000);
        EXPECT_EQ(*pts, (p.expected + 80) * 10000);  // presentation times move with the same offset
    }
    EXPECT_EQ(keeper.dropped(), dropped);
    EXPECT_EQ(lines.size(), GetParam().jumpsLogged);
    for (const auto& line : lines) EXPECT_NE(line.find("timestamps jump by"), std::string::npos) << line;
}

const Fed V(int input, long long raw, long long expected, bool key = true) { return {input, 0, true, key, raw, expected}; }
const Fed A(int input, long long raw, long long expected) { return {input, 1, false, true, raw, expected}; }
const Fed Pes(long long raw, long long expected, int cut = 0, int frames = 4) {
    return {0, 1, false, true, raw, expected, false, frames, cut};
}

INSTANTIATE_TEST_SUITE_P(
    Jumps, TimelineKeeperTable,
    ::testing::Values(
        JumpCase{"ForwardJumpContinuesWhereTheNextPacketWasDue",
             {V(0, 0, 0), V(0, 40, 40), V(0, 80, 80), V(0, 5000080, 120), V(0, 5000120, 160)}, 1},
        JumpCase{"BackwardJumpContinuesWhereTheNextPacketWasDue",
             {V(0, 10000, 10000), V(0, 10040, 10040), V(0, 0, 10080), V(0, 40, 10120)}, 1},
        JumpCase{"GapBelowTheBoundIsKept", {V(0, 0, 0), V(0, 40, 40), V(0, 3040, 3040), V(0, 3080, 3080)}, 0},
        // After a discontinuity the source signalled, the same gap is a jump; times that go on as due are none.
        JumpCase{"SignalledDiscontinuityBelowTheBound",
                 {V(0, 0, 0), V(0, 40, 40), {0, 0, true, true, 3040, 80, true}, V(0, 3080, 120),
                  {0, 0, true, true, 3120, 160, true}},
                 1},
        JumpCase{"AudioAndVideoOfOneInputTakeOneOffset",
             {V(0, 0, 0), A(0, 0, 0), V(0, 40, 40), A(0, 21, 21), A(0, 42, 42), V(0, 80, 80), A(0, 63, 63),
              A(0, 84, 84), A(0, 5000105, 105), V(0, 5000120, 120), A(0, 5000126, 126)},
             1},
        JumpCase{"AStreamBackFromAGapToWhereItsInputHasGotKeepsItsTimes",
             {V(0, 0, 0), A(0, 0, 0), A(0, 21, 21), V(0, 3000, 3000), V(0, 6000, 6000), V(0, 9000, 9000),
              A(0, 9021, 9021), A(0, 9042, 9042)},
             0},
        JumpCase{"RenditionsThatJumpTogetherStayAligned",
             // input 1 lost its packet at 80 just before the jump: it still lands where input 0 does
             {V(0, 0, 0), V(1, 0, 0), V(0, 40, 40), V(1, 40, 40), V(0, 80, 80), V(0, 5000120, 120),
              V(1, 5000120, 120), V(1, 5000160, 160)},
             2},
        JumpCase{"RenditionThatDoesNotJumpKeepsItsTimes",
             {V(0, 0, 0), V(1, 0, 0), V(0, 40, 40), V(1, 40, 40), V(0, 5000080, 80), V(1, 80, 80), V(1, 120, 120)}, 1},
        // PES of four 20 ms frames, then of one: a frame that overlaps the PES before by half a frame or more is
        // cut, a PES of only such frames dropped; less overlap stays.
        JumpCase{"OverlappingFramesOfAnAudioPesAreCut",
                 {Pes(0, 0), Pes(61, 81, 1), Pes(135, 135), Pes(140, kDropped), Pes(215, 215), Pes(285, kDropped, 0, 1),
                  Pes(295, 295, 0, 1)},
                 0},
        JumpCase{"WhatTheCommonOffsetPutsBehindIsDroppedAndVideoWaitsForAKeyFrame",
             {V(0, 0, 0), A(0, 0, 0), V(0, 40, 40), A(0, 42, 42), V(0, 80, 80), A(0, 84, 84), A(0, 5000126, 126),
              V(0, 5000070, kDropped), V(0, 5000110, kDropped, false), V(0, 5000150, 150), V(0, 5000190, 190, false)},
             1}),
    [](const auto& test) { return test.param.name; });

// Streams 0 and 1 are media, 2 is not; the limit is 10. Each step notes a time and lists the streams then said to be
// silent: one is said once, counts from the input's first time when it never delivered, and not after it ended.
// Key frames as H.264 and HEVC encoders send them: the sequence parameter sets (H.264 type 7, first byte 67; HEVC
// type 33, 42 01) against the first key frame's. The same set again, with trailing zero bytes, or a key frame
// without one, is no change; a new one is, once; the first one back is none.
TEST(ParameterSetWatch, SaysEachSequenceParameterSetThatTheFirstKeyFrameDidNotCarryOnce) {
    using Frame = std::vector<std::uint8_t>;
    const Frame a = {0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1E, 0, 0, 1, 0x68, 0xEE, 0, 0, 1, 0x65, 0x88};
    const Frame aZeros = {0, 0, 1, 0x67, 0x64, 0x00, 0x1E, 0, 0, 0, 0, 1, 0x65, 0x88};
    const Frame b = {0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1F, 0, 0, 1, 0x68, 0xEE, 0, 0, 1, 0x65, 0x88};
    const Frame none = {0, 0, 0, 1, 0x65, 0x88, 0x84};
    fmp4mux::ParameterSetWatch h264(false);
    std::string seen;
    for (const Frame* f : {&a, &a, &aZeros, &none, &b, &b, &a, &b}) seen += h264.changed(f->data(), f->size()) ? '1' : '0';
    EXPECT_EQ(seen, "00001000");
    const Frame hevcA = {0, 0, 1, 0x40, 0x01, 0x0C, 0, 0, 1, 0x42, 0x01, 0x01, 0x60, 0, 0, 1, 0x26, 0x01, 0xAF};
    const Frame hevcB = {0, 0, 1, 0x40, 0x01, 0x0C, 0, 0, 1, 0x42, 0x01, 0x01, 0x61, 0, 0, 1, 0x26, 0x01, 0xAF};
    fmp4mux::ParameterSetWatch hevc(true);
    EXPECT_FALSE(hevc.changed(hevcA.data(), hevcA.size()));
    EXPECT_TRUE(hevc.changed(hevcB.data(), hevcB.size()));
    // Read as H.264, 42 is no SPS (type 2): HEVC's are told apart by their own header.
    fmp4mux::ParameterSetWatch wrong(false);
    EXPECT_FALSE(wrong.changed(hevcA.data(), hevcA.size()));
    EXPECT_FALSE(wrong.changed(hevcB.data(), hevcB.size()));
}

// ADTS headers (AAC-LC unless said): stereo at 48 kHz first; 5.1 (configuration 6: 4D 80) is a change, said once;
// stereo again is none; 44.1 kHz (rate index 4: 50 80) is one; AAC Main (profile 0: 0C 80) one more; bytes that
// are no ADTS frame say nothing.
TEST(AdtsFormatWatch, SaysEachConfigurationOtherThanTheFirstOnce) {
    const auto header = [](std::uint8_t b2, std::uint8_t b3) {
        return std::vector<std::uint8_t>{0xFF, 0xF1, b2, b3, 0x01, 0x1F, 0xFC, 0x00};
    };
    const std::vector<std::pair<std::vector<std::uint8_t>, std::string>> steps{
        {header(0x4C, 0x80), ""},
        {header(0x4D, 0x80), "6 channels at 48000 Hz"},
        {header(0x4C, 0x80), ""},
        {header(0x4D, 0x80), ""},
        {header(0x50, 0x80), "2 channels at 44100 Hz"},
        {header(0x0C, 0x80), "2 channels at 48000 Hz, AAC Main"},
        {{0x47, 0x40, 0x11, 0x10, 0x00, 0x00, 0x00, 0x00}, ""},
    };
    fmp4mux::AdtsFormatWatch watch;
    for (const auto& [bytes, said] : steps) EXPECT_EQ(watch.changed(bytes.data(), bytes.size()).value_or(""), said);
}

TEST(SilenceWatch, EndsAMediaStreamThatLagsTheOthersByMoreThanTheLimit) {
    const struct { std::vector<std::pair<std::size_t, std::int64_t>> steps; std::vector<std::size_t> silent; } cases[] = {
        {{{0, 100}, {1, 101}, {0, 111}, {1, 111}, {0, 121}}, {}},
        {{{0, 100}, {1, 101}, {0, 112}, {0, 130}}, {1}},       // 112 - 101 > 10; then not again
        {{{0, 100}, {0, 111}}, {1}},                           // never delivered: counted from 100
        {{{0, 100}, {2, 500}, {1, 105}, {0, 110}}, {}},        // stream 2 drives nothing
        {{{1, 100}, {0, 100}, {1, 200}}, {0}},
    };
    for (const auto& c : cases) {
        SilenceWatch watch({true, true, false}, 10);
        std::vector<std::size_t> silent;
        for (const auto& [stream, time] : c.steps)
            for (const std::size_t k : watch.note(stream, time)) silent.push_back(k);
        EXPECT_EQ(silent, c.silent) << ::testing::PrintToString(c.steps);
    }
    SilenceWatch ended({true, true}, 10);
    ended.forget(1);
    EXPECT_TRUE(ended.note(0, 0).empty());
    EXPECT_TRUE(ended.note(0, 50).empty());
}

// Silent AAC frames after a stereo AAC-LC PES of two 48 kHz frames at 1 s: they start where it ended (2048 samples
// later), each one 1024 samples; the frame is the ADTS header (frame length 13) and the 6-byte silent CPE. A packet of
// the stream that the silence already stands for is dropped; one at or past it takes over.
TEST(AudioSilence, SilentFramesFollowOnFromTheStreamAndHandBackToIt) {
    // ADTS: FFF1, profile LC (01), rate index 3 (48 kHz), channels 2; two frames of 8 bytes (length 8, 1 block each).
    const std::vector<std::uint8_t> pes = {0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFC, 0xAA,
                                           0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFC, 0xBB};
    fmp4mux::Packet real;
    real.data = pes.data();
    real.size = pes.size();
    real.pts = real.dts = 10000000;
    fmp4mux::AudioSilence fill(1, "aac");
    fill.noteReal(real);
    ASSERT_TRUE(fill.canFill());
    fill.start();
    const std::int64_t start = 10000000 + 2048 * 10000000LL / 48000;  // 1.0426666 s
    const auto frames = fill.upTo(start + 3 * 1024 * 10000000LL / 48000);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].owned, (std::vector<std::uint8_t>{0xFF, 0xF1, 0x4C, 0x80, 0x01, 0xBF, 0xFC, 0x21, 0x00, 0x00,
                                                          0x00, 0x00, 0x1C}));
    EXPECT_EQ(*frames[0].pts, start);
    EXPECT_EQ(*frames[1].pts, start + 1024 * 10000000LL / 48000);
    // 1024 samples each, on a running count so that no rounding adds up: 213333, 213333, 213334 (640000 in all).
    EXPECT_EQ(frames[1].duration, 213333);
    EXPECT_EQ(frames[2].duration, 213334);
    EXPECT_EQ(frames[2].stream, 1u);
    const std::int64_t reached = start + 3 * 1024 * 10000000LL / 48000;
    EXPECT_TRUE(fill.covers(reached - 200000));
    EXPECT_FALSE(fill.covers(reached - 50000));
    EXPECT_EQ(fill.handOver(reached + 213334).size(), 1u);
    EXPECT_FALSE(fill.filling());

    // A profile other than AAC-LC (field 2, SSR) makes none.
    std::vector<std::uint8_t> other = pes;
    other[2] = 0x8C;
    fmp4mux::AudioSilence none(0, "aac");
    real.data = other.data();
    none.noteReal(real);
    EXPECT_FALSE(none.canFill());
}

// LOAS/LATM: a frame whose StreamMuxConfig says AAC-LC, 48 kHz, stereo (20 00 11 90 1F E0: version 0, one program
// and layer, object type 2, rate index 3, channel configuration 2, frame length in bytes, buffer fullness 0xFF, no
// other data, no CRC), at 1 s. Its silence uses that configuration: useSameStreamMux 1, a payload length of 6 and
// the silent stereo block 21 00 00 00 00 1C, shifted by those 9 bits: 83 10 80 00 00 00 0E 00, after 56 E0 08.
// A frame that leaves its configuration to an earlier one decides nothing; HE-AAC (object type 5) gets no silence.
TEST(AudioSilence, LatmSilenceUsesTheConfigurationOfTheStream) {
    const std::vector<std::uint8_t> config = {0x56, 0xE0, 0x06, 0x20, 0x00, 0x11, 0x90, 0x1F, 0xE0};
    const std::vector<std::uint8_t> same = {0x56, 0xE0, 0x02, 0x80, 0x00};
    fmp4mux::Packet real;
    real.pts = real.dts = 10000000;
    fmp4mux::AudioSilence fill(2, "aac_latm");
    real.data = same.data();
    real.size = same.size();
    fill.noteReal(real);
    EXPECT_FALSE(fill.canFill());
    real.data = config.data();
    real.size = config.size();
    fill.noteReal(real);
    ASSERT_TRUE(fill.canFill());
    fill.start();
    const auto frames = fill.upTo(10000000 + 2 * 213333 + 1);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].owned,
              (std::vector<std::uint8_t>{0x56, 0xE0, 0x08, 0x83, 0x10, 0x80, 0x00, 0x00, 0x00, 0x0E, 0x00}));
    EXPECT_EQ(*frames[0].pts, 10000000 + 213333);
    std::vector<std::uint8_t> he = config;
    he[5] = 0x29;  // object type 00101
    fmp4mux::AudioSilence none(2, "aac_latm");
    real.data = he.data();
    none.noteReal(real);
    EXPECT_FALSE(none.canFill());
}

// The frames that time a PES of each codec, from headers worked out by hand: AAC (ADTS, 48 kHz, 1 and 2 raw data
// blocks); AC-3 48 kHz at 384 kbit/s (frmsizecod 28: 768 words); an E-AC-3 dependent substream of 256 words (no
// samples of its own); MPEG-1 Layer II 256 kbit/s at 44.1 kHz with padding (144 * 256000 / 44100 + 1 = 836 bytes).
// A frame longer than the bytes left, an AC-3 frame size code past the table, an MP3 header read as MP2, and a codec without silence read as nothing. A
// LOAS frame's rate is in its configuration, not in every frame.
TEST(AudioSilence, ReadsTheLengthAndSamplesOfEachFrame) {
    struct Case { std::string codec; std::vector<std::uint8_t> header; std::size_t size; fmp4mux::AudioSilence::Frame want; };
    const std::vector<Case> cases{
        {"aac", {0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFC}, 8, {8, 1024, 48000}},
        {"aac", {0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFD}, 8, {8, 2048, 48000}},
        {"aac", {0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x1F, 0xFC}, 7, {0, 0, 0}},
        {"ac3", {0x0B, 0x77, 0x00, 0x00, 0x1C, 0x40, 0xE0}, 1536, {1536, 1536, 48000}},
        // 44.1 kHz (fscod 1): 640 kbit/s is 1393 words (Table 4.13), the odd code 1394; 32 kHz 56 kbit/s 168 words.
        {"ac3", {0x0B, 0x77, 0x00, 0x00, 0x64, 0x40, 0xE0}, 2786, {2786, 1536, 44100}},
        {"ac3", {0x0B, 0x77, 0x00, 0x00, 0x65, 0x40, 0xE0}, 2788, {2788, 1536, 44100}},
        {"ac3", {0x0B, 0x77, 0x00, 0x00, 0x86, 0x40, 0xE0}, 336, {336, 1536, 32000}},
        {"ac3", {0x0B, 0x77, 0x00, 0x00, 0x26, 0x40, 0xE0}, 4000, {0, 0, 0}},  // frmsizecod 38: none
        {"eac3", {0x0B, 0x77, 0x40, 0xFF, 0x34, 0x80, 0x00}, 512, {512, 0, 48000}},
        {"mp2", {0xFF, 0xFD, 0xC2, 0x00}, 836, {836, 1152, 44100}},
        {"mp2", {0xFF, 0xFB, 0xC2, 0x00}, 836, {0, 0, 0}},
        {"mp3", {0xFF, 0xFB, 0xC2, 0x00}, 836, {0, 0, 0}},
        {"aac_latm", {0x56, 0xE0, 0x05}, 8, {8, 1024, 0}},
    };
    for (const Case& c : cases) {
        std::vector<std::uint8_t> bytes = c.header;
        bytes.resize(std::max(c.size, bytes.size()));
        const auto got = fmp4mux::AudioSilence::readFrame(c.codec, bytes.data(), c.size);
        EXPECT_EQ(std::tie(got.length, got.samples, got.rate), std::tie(c.want.length, c.want.samples, c.want.rate))
            << c.codec << " " << c.size;
    }
    EXPECT_FALSE(fmp4mux::AudioSilence::fills("mp3"));
}

// Damaged packets, as a demuxer flags them after a transport continuity error. Letters: V video, K video key
// frame, J video key frame whose times jumped (a splice), A audio; a trailing '!' marks the packet damaged. In
// `kept`, what reached the packager in order, lower case for what was dropped (in the order fed).
TEST(DamageGuard, DropsDamagedVideoToTheNextKeyFrameAndDamagedAudioAlone) {
    struct Case { std::vector<std::string> fed; std::string passed; std::uint64_t damagedVideo, videoDropped, audioDropped; };
    const std::vector<Case> cases{
        {{"K", "V", "A", "V", "K"}, "KVAVK", 0, 0, 0},
        {{"K", "V!", "V", "A", "V", "K", "V"}, "KAKV", 1, 3, 0},
        {{"K!", "V", "K", "V"}, "KV", 1, 2, 0},  // a damaged key frame is no place to start from either
        {{"K", "A!", "V", "A"}, "KVA", 0, 0, 1},
        {{"K", "V!", "K!", "V", "K"}, "KK", 2, 3, 0},
        {{"K", "V!", "A", "J", "V"}, "KAVJV", 0, 0, 0},  // the last frame before a splice was whole
        {{"K", "V!", "K", "V"}, "KKV", 1, 1, 0},        // no jump: the frame before the key frame lost its end
        {{"K", "V!"}, "K", 1, 1, 0},                    // still held at the end
    };
    for (const Case& c : cases) {
        DamageGuard guard;
        std::string passed;
        for (const std::string& p : c.fed) {
            Packet packet;
            const bool video = p[0] != 'A';
            packet.stream = video ? 0 : 1;
            packet.key = p[0] == 'K' || p[0] == 'J';
            packet.damaged = p.size() > 1;
            packet.owned = {static_cast<std::uint8_t>(p[0])};
            packet.data = packet.owned.data();
            packet.size = 1;
            guard.offer(packet, video, p[0] == 'J', [&](Packet& out) { passed += static_cast<char>(out.data[0]); });
        }
        guard.finish();
        EXPECT_EQ(passed, c.passed);
        EXPECT_EQ(guard.damagedVideoFrames(), c.damagedVideo) << c.passed;
        EXPECT_EQ(guard.videoFramesDropped(), c.videoDropped) << c.passed;
        EXPECT_EQ(guard.audioPacketsDropped(), c.audioDropped) << c.passed;
    }
}

}  // namespace
