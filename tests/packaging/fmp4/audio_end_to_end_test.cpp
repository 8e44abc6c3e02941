// AAC through the whole session, beside H.264 and alone: per output, the movie part of the init chunk and the
// media chunks joined into one file must decode in ffmpeg without error, the audio to the source's sample count
// within one frame, in every segment mode, in DASH and in Smooth Streaming.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "packaging/fmp4/chunks/init_chunk.h"
#include "tests/packaging/fmp4/chunk_test_support.h"
#include "tests/packaging/lib_parse_es/aac_test_support.h"

namespace chunk_test {
namespace {

// Like the video sessions: all inputs 10 s into their clock.
constexpr std::int64_t kOffset90k = 900000;

enum class AudioForm { Adts, Adts51, Latm, Raw };

// The source of each form: the 5.1 stream at 44.1 kHz, or the stereo one at 48 kHz.
struct AudioSource {
    const char* adtsFile;
    std::uint32_t rate;
    std::uint32_t channels;
    const char* config;  // the AudioSpecificConfig in hexadecimal
};
AudioSource sourceOf(AudioForm form) {
    if (form == AudioForm::Adts51) return {"aac_lc_51_44k.adts", 44100, 6, "1230"};
    return {"aac_lc_stereo_48k.adts", 48000, 2, "1190"};
}

// The audio input: one buffer per frame, each with its ffprobe time moved by the offset.
struct AudioInput {
    std::uint32_t type = AAC_ADTS_AUDIO;
    std::vector<es_test::Bytes> frames;
    std::vector<std::int64_t> times90k;
};

AudioInput audioInput(AudioForm form) {
    const es_test::AudioFixture adts = es_test::loadAudioFixture(sourceOf(form).adtsFile);
    AudioInput input;
    if (form == AudioForm::Latm) {
        const es_test::AudioFixture latm = es_test::loadAudioFixture("aac_lc_stereo_48k.latm");
        input.type = AAC_LATM_AUDIO;
        input.frames = es_test::packetBytes(latm);
    } else if (form == AudioForm::Raw) {
        // Raw packets around the frames of the same encoding, with its AudioSpecificConfig (LC, 48 kHz, stereo).
        input.type = AAC_RAW_AUDIO;
        for (const es_test::Bytes& payload : es_test::adtsPayloads(adts))
            input.frames.push_back(es_test::rawPacket(payload, {0x11, 0x90}, 16));
    } else {
        input.frames = es_test::packetBytes(adts);
    }
    // The audio starts with the video's first picture (at 7200 ticks in the video fixture): the session cuts
    // at the video's first random access point, and audio before it would be left out.
    const std::int64_t start90k = es_test::loadFixture("h264_plain").packets.front().pts + kOffset90k;
    for (const es_test::AudioPacket& p : adts.packets)
        input.times90k.push_back(p.pts * 90000 / es_test::kProbeTimeBase + start90k);
    return input;
}

// One session, one output per input: the video first when there is one, then the audio. The inputs are fed
// interleaved in decoding-time order, as a transport stream demultiplexer delivers them.
void runSession(OutputFormat format, Fmp4MuxMode mode, bool withVideo, const AudioInput& audio,
                std::vector<KeepingOutput>& outputs) {
    SilentLogger logger;
    const Fmp4MuxConfig config = Fmp4MuxConfig::fromMode(mode, 960, 1, 960, 0);
    auto mux = std::make_unique<Fmp4Mux>(format, config, nullptr, logger, false, false, false, false, false,
                                         Fmp4MuxParts{});
    std::vector<ChunkOutputSeed> seeds;
    std::uint32_t id = 0;
    std::vector<es_test::es::MediaDataRef> video;
    std::vector<std::int64_t> videoDts;
    if (withVideo) {
        ElementaryStreamAttributes attributes;
        attributes.type = H264_VIDEO;
        attributes.bitrate = 300000;
        attributes.bandwidth = 300000;
        mux->AddStream(id, attributes);
        seeds.push_back({"", {static_cast<std::int32_t>(id)}, &outputs[id], 1});
        const es_test::Fixture fixture = es_test::loadFixture("h264_plain");
        video = fixtureBuffers(fixture, kOffset90k);
        for (const es_test::Packet& p : fixture.packets) videoDts.push_back(p.dts + kOffset90k);
        ++id;
    }
    const std::uint32_t audioId = id;
    ElementaryStreamAttributes attributes;
    attributes.type = audio.type;
    attributes.bitrate = 64000;
    attributes.bandwidth = 64000;
    attributes.language = "eng";
    mux->AddStream(audioId, attributes);
    seeds.push_back({"", {static_cast<std::int32_t>(audioId)}, &outputs[audioId], 1});
    mux->SetOutputs(seeds);

    std::size_t v = 0;
    for (std::size_t a = 0; a < audio.frames.size(); ++a) {
        while (v < video.size() && videoDts[v] <= audio.times90k[a]) mux->ConsumeSample(0, video[v++].get());
        auto buffer = es_test::makeBuffer(audio.frames[a], audio.times90k[a]);
        mux->ConsumeSample(audioId, buffer.get());
    }
    while (v < video.size()) mux->ConsumeSample(0, video[v++].get());
    for (std::uint32_t i = 0; i <= audioId; ++i) mux->ConsumeEndOfStream(i);
    for (std::uint32_t i = 0; i <= audioId; ++i) ASSERT_TRUE(outputs[i].waitForEnd());
    mux.reset();
}

Bytes playableFile(const std::vector<WrittenChunk>& chunks) {
    Bytes file;
    for (const WrittenChunk& chunk : chunks) {
        if (chunk.init) {
            const Bytes movie = initChunkMoviePart(chunk.bytes.data(), chunk.bytes.size());
            file.insert(file.end(), movie.begin(), movie.end());
        } else {
            file.insert(file.end(), chunk.bytes.begin(), chunk.bytes.end());
        }
    }
    return file;
}

// The decoded audio of a file, as ffprobe's frames report it: the total sample count.
std::int64_t decodedSamples(const std::string& file) {
    std::int64_t total = 0;
    for (const std::string& line :
         lines(run("/usr/bin/ffprobe -v error -select_streams a:0 -show_entries frame=nb_samples -of csv=p=0 " + file)))
        total += std::stoll(line);
    return total;
}

// ffmpeg decodes the file whole: exit status 0 and nothing on its error output.
void expectCleanDecode(const std::string& file) {
    int status = -1;
    const std::string errors =
        run("/usr/bin/ffmpeg -v error -nostdin -xerror -err_detect explode -i " + file + " -f null - 2>&1", &status);
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(errors, "");
}

struct SessionCase {
    AudioForm form;
    bool withVideo;
    Fmp4MuxMode mode;
    OutputFormat format;
};

std::string caseName(const ::testing::TestParamInfo<SessionCase>& info) {
    const SessionCase& c = info.param;
    const char* forms[] = {"Adts", "Adts51", "Latm", "Raw"};
    std::string name = forms[static_cast<int>(c.form)];
    name += c.withVideo ? "_WithH264" : "_AudioOnly";
    name += c.mode == GopSegments ? "_GopSegments" : c.mode == GopSegmentsAlt ? "_GopSegmentsAlt" : "_SeparateAudio";
    name += c.format == Dash ? "_Dash" : "_Smooth";
    return name;
}

class AudioDecodesLikeTheSource : public ::testing::TestWithParam<SessionCase> {};

TEST_P(AudioDecodesLikeTheSource, WholeAndWithoutError) {
    const SessionCase c = GetParam();
    const AudioInput audio = audioInput(c.form);
    std::vector<KeepingOutput> outputs(c.withVideo ? 2 : 1);
    runSession(c.format, c.mode, c.withVideo, audio, outputs);

    TempDir dir;
    const AudioSource src = sourceOf(c.form);
    const std::string rate = std::to_string(src.rate);
    const std::string source = std::string(FMP4_TEST_DATA_DIR) + "/" + src.adtsFile;
    const std::int64_t sourceSamples = decodedSamples(source);
    ASSERT_GT(sourceSamples, 40 * 1024);

    const std::vector<WrittenChunk> audioChunks = outputs.back().chunks();
    ASSERT_GE(audioChunks.size(), 2u);
    EXPECT_TRUE(audioChunks[0].init);
    EXPECT_EQ(std::count_if(audioChunks.begin(), audioChunks.end(), [](const auto& w) { return w.init; }), 1);

    // The server manifest in the init chunk announces the audio with its configuration.
    const std::string init(audioChunks[0].bytes.begin(), audioChunks[0].bytes.end());
    if (c.format == Dash) {
        EXPECT_NE(init.find("codecs=\"mp4a.40.2\""), std::string::npos) << init;
        EXPECT_NE(init.find("audioSamplingRate=\"" + rate + "\""), std::string::npos);
        EXPECT_NE(init.find("lang=\"eng\""), std::string::npos);
    } else {
        EXPECT_NE(init.find("name=\"FourCC\" value=\"mp4a\""), std::string::npos) << init;
        EXPECT_NE(init.find("name=\"CodecPrivateData\" value=\"" + std::string(src.config) + "\""),
                  std::string::npos);
        EXPECT_NE(init.find("name=\"Channels\" value=\"" + std::to_string(src.channels) + "\""), std::string::npos);
        EXPECT_NE(init.find("name=\"SamplingRate\" value=\"" + rate + "\""), std::string::npos);
    }
    const std::string audioFile = dir.file("audio.mp4");
    writeFile(audioFile, playableFile(audioChunks));
    expectCleanDecode(audioFile);
    EXPECT_NEAR(static_cast<double>(decodedSamples(audioFile)), static_cast<double>(sourceSamples), 1024.0);

    // What the file says of the track, read by ffprobe. The track is timed in 100 ns units, except a DASH output
    // of a single audio stream in separate audio segments, which takes the synchroniser's timebase (1 ms).
    const std::string stream = run("/usr/bin/ffprobe -v error -select_streams a:0 -show_entries "
                                   "stream=codec_name,profile,sample_rate,channels,time_base -of default=nw=1 " +
                                   audioFile);
    const bool millisecondTrack = c.format == Dash && c.mode == SeparateAudioSegments;
    EXPECT_NE(stream.find(millisecondTrack ? "time_base=1/1000\n" : "time_base=1/10000000\n"), std::string::npos)
        << stream;
    EXPECT_NE(stream.find("codec_name=aac"), std::string::npos) << stream;
    EXPECT_NE(stream.find("profile=LC"), std::string::npos) << stream;
    EXPECT_NE(stream.find("sample_rate=" + rate + "\n"), std::string::npos) << stream;
    EXPECT_NE(stream.find("channels=" + std::to_string(src.channels) + "\n"), std::string::npos) << stream;

    // The audio packets' times follow the source's, less the session's time origin, within one sample.
    const es_test::AudioFixture adts = es_test::loadAudioFixture(src.adtsFile);
    const std::vector<std::string> times =
        lines(run("/usr/bin/ffprobe -v error -select_streams a:0 -show_entries packet=pts_time -of csv=p=0 " + audioFile));
    ASSERT_EQ(times.size(), adts.packets.size());
    // Within a millisecond in a millisecond track, and one sample more than the 90 kHz input times can say.
    const double tolerance = (millisecondTrack ? 0.001 : 0.0) + 1.0 / src.rate + 1.0 / 90000;
    const double origin = std::stod(times[0]);
    for (std::size_t i = 0; i < times.size(); ++i)
        EXPECT_NEAR(std::stod(times[i]) - origin, static_cast<double>(adts.packets[i].pts) / es_test::kProbeTimeBase,
                    tolerance)
            << i;

    if (c.withVideo) {
        const std::vector<WrittenChunk> videoChunks = outputs[0].chunks();
        ASSERT_GE(videoChunks.size(), 2u);
        const std::string videoFile = dir.file("video.mp4");
        writeFile(videoFile, playableFile(videoChunks));
        expectCleanDecode(videoFile);
        EXPECT_EQ(lines(run("/usr/bin/ffprobe -v error -select_streams v:0 -show_entries frame=pts -of csv=p=0 " +
                            videoFile))
                      .size(),
                  es_test::loadFixture("h264_plain").packets.size());
    }
}

std::vector<SessionCase> allCases() {
    std::vector<SessionCase> cases;
    for (Fmp4MuxMode mode : {GopSegments, GopSegmentsAlt, SeparateAudioSegments})
        for (OutputFormat format : {Dash, Smooth}) {
            cases.push_back({AudioForm::Adts, true, mode, format});
            cases.push_back({AudioForm::Adts, false, mode, format});
        }
    for (AudioForm form : {AudioForm::Latm, AudioForm::Raw})
        for (OutputFormat format : {Dash, Smooth}) cases.push_back({form, true, GopSegments, format});
    for (Fmp4MuxMode mode : {GopSegments, SeparateAudioSegments}) cases.push_back({AudioForm::Adts51, false, mode, Dash});
    cases.push_back({AudioForm::Adts51, true, GopSegmentsAlt, Smooth});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Sessions, AudioDecodesLikeTheSource, ::testing::ValuesIn(allCases()), caseName);

}  // namespace
}  // namespace chunk_test
