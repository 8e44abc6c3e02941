// fmp4mux on inputs made by ffmpeg: every representation (init file + its chunk files in manifest order) must
// decode in ffmpeg with the source's frame and audio sample counts, and every MPD must validate against the
// MPD schema.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {
namespace fs = std::filesystem;

struct Outcome {
    int exitCode = -1;
    std::string output;
};

Outcome run(const std::string& command) {
    Outcome r;
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return r;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) r.output.append(buffer, n);
    const int status = pclose(pipe);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string quote(const std::string& s) { return "'" + s + "'"; }

class Fmp4muxEndToEnd : public ::testing::Test {
protected:
    static fs::path dir() {
        static fs::path d = [] {
            char pattern[] = "/tmp/fmp4mux-e2e-XXXXXX";
            return fs::path(mkdtemp(pattern));
        }();
        return d;
    }
    // Makes a 6 s input with ffmpeg's test sources, GOPs of 2 s (50 frames), once per name.
    static fs::path input(const std::string& name, const std::string& videoCodec, const std::string& size,
                          const std::string& bitrate, bool audio = true, const std::string& format = "mpegts") {
        const fs::path path = dir() / name;
        if (fs::exists(path)) return path;
        std::string cmd = "ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=" + size + ":rate=25";
        if (audio) cmd += " -f lavfi -i sine=frequency=440:sample_rate=48000";
        cmd += " -t 6 -map 0:v";
        if (audio) cmd += " -map 1:a -c:a aac -b:a 96k -ac 2";
        if (videoCodec == "hevc")
            cmd += " -c:v libx265 -x265-params log-level=error:keyint=50:min-keyint=50:scenecut=0:bframes=2:open-gop=0 -b:v " + bitrate;
        else
            cmd += " -c:v libx264 -g 50 -keyint_min 50 -sc_threshold 0 -bf 2 -b:v " + bitrate;
        cmd += " -f " + format + " " + quote(path.string());
        const Outcome r = run(cmd);
        EXPECT_EQ(r.exitCode, 0) << r.output;
        return path;
    }
    static Outcome fmp4mux(const std::string& args) { return run(std::string(FMP4MUX_PATH) + " -q " + args); }

    // Counts what ffmpeg decodes of one kind of stream of a file: frames of video, samples of audio.
    static long decodedCount(const fs::path& file, const std::string& kind) {
        if (kind == "video") {
            const Outcome r = run("ffprobe -hide_banner -loglevel error -count_frames -select_streams v:0 -show_entries "
                              "stream=nb_read_frames -of csv=p=0 " + quote(file.string()));
            return r.exitCode == 0 ? std::stol(r.output) : -1;
        }
        // Decoded audio as 16-bit mono samples at the source rate: the byte count / 2 is the sample count.
        const fs::path pcm = file.string() + ".pcm";
        const Outcome r = run("ffmpeg -hide_banner -loglevel error -y -xerror -i " + quote(file.string()) +
                          " -map 0:a:0 -ac 1 -f s16le " + quote(pcm.string()));
        if (r.exitCode != 0) return -1;
        return static_cast<long>(fs::file_size(pcm) / 2);
    }

    // Joins a DASH representation's init file and media files in timeline order.
    static fs::path joinRepresentation(const fs::path& out, const std::string& representation, const std::string& name) {
        std::ifstream in(out / "manifest.mpd");
        std::stringstream text;
        text << in.rdbuf();
        const std::string mpd = text.str();
        const std::regex rep("<Representation id=\"" + representation +
                             "\"[^>]*>[\\s\\S]*?initialization=\"([^\"]+)\" media=\"([^\"]+)\"[\\s\\S]*?</SegmentTimeline>");
        std::smatch m;
        EXPECT_TRUE(std::regex_search(mpd, m, rep)) << mpd;
        if (m.empty()) return {};
        const std::string block = m[0];
        std::string media = m[2];
        media = std::regex_replace(media, std::regex("\\$RepresentationID\\$"), representation);
        const fs::path joined = dir() / name;
        std::ofstream outFile(joined, std::ios::binary);
        auto append = [&](const fs::path& p) {
            std::ifstream f(p, std::ios::binary);
            EXPECT_TRUE(f.good()) << p;
            outFile << f.rdbuf();
        };
        append(out / m[1].str());
        const std::regex s("<S t=\"(\\d+)\" d=\"(\\d+)\"(?: r=\"(\\d+)\")?/>");
        for (auto it = std::sregex_iterator(block.begin(), block.end(), s); it != std::sregex_iterator(); ++it) {
            std::uint64_t t = std::stoull((*it)[1]);
            const std::uint64_t d = std::stoull((*it)[2]);
            const int repeat = (*it)[3].matched ? std::stoi((*it)[3]) : 0;
            for (int k = 0; k <= repeat; ++k, t += d)
                append(out / std::regex_replace(media, std::regex("\\$Time\\$"), std::to_string(t)));
        }
        return joined;
    }

    static void expectValidMpd(const fs::path& out) {
        const Outcome r = run("xmllint --noout --schema " + quote(std::string(FMP4_SOURCE_DIR) + "/tests/data/schemas/DASH-MPD.xsd") +
                          " " + quote((out / "manifest.mpd").string()));
        EXPECT_EQ(r.exitCode, 0) << r.output;
    }
};

fs::path Fmp4muxEndToEnd_dir() {
    struct Access : Fmp4muxEndToEnd {
        using Fmp4muxEndToEnd::dir;
    };
    return Access::dir();
}

// Removes the working folder when the test program ends.
class CleanUp : public ::testing::Environment {
public:
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(FolderOwner::dir(), ignored);
    }
    struct FolderOwner : Fmp4muxEndToEnd {
        using Fmp4muxEndToEnd::dir;
    };
};
const auto* const g_cleanUp = ::testing::AddGlobalTestEnvironment(new CleanUp);

fs::path Fmp4muxEndToEnd_dir();

std::string readText(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Each SegmentTimeline of an MPD expanded into its segments' (start, duration), in document order.
std::vector<std::vector<std::pair<std::uint64_t, std::uint64_t>>> timelines(const std::string& mpd) {
    std::vector<std::vector<std::pair<std::uint64_t, std::uint64_t>>> all;
    const std::regex timeline("<SegmentTimeline>([\\s\\S]*?)</SegmentTimeline>");
    const std::regex s("<S t=\"(\\d+)\" d=\"(\\d+)\"(?: r=\"(\\d+)\")?/>");
    for (auto it = std::sregex_iterator(mpd.begin(), mpd.end(), timeline); it != std::sregex_iterator(); ++it) {
        const std::string block = (*it)[1];
        auto& list = all.emplace_back();
        for (auto e = std::sregex_iterator(block.begin(), block.end(), s); e != std::sregex_iterator(); ++e) {
            std::uint64_t t = std::stoull((*e)[1]);
            const std::uint64_t d = std::stoull((*e)[2]);
            const int repeat = (*e)[3].matched ? std::stoi((*e)[3]) : 0;
            for (int k = 0; k <= repeat; ++k, t += d) list.emplace_back(t, d);
        }
    }
    return all;
}

// The source's audio, decoded, within one AAC frame: the frame before the first video key frame has no segment.
void expectAudioSamples(long got, long source) {
    EXPECT_GT(got, 0);
    EXPECT_LE(std::labs(got - source), 1024) << got << " samples against " << source;
}

TEST_F(Fmp4muxEndToEnd, DashOfH264AndAacDecodesWithTheSourceCounts) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "dash-h264";
    const Outcome r = fmp4mux(quote(source.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    const fs::path video = joinRepresentation(out, "video0", "dash-h264-video.mp4");
    EXPECT_EQ(decodedCount(video, "video"), decodedCount(source, "video"));
    const fs::path audio = joinRepresentation(out, "audio1", "dash-h264-audio.mp4");
    expectAudioSamples(decodedCount(audio, "audio"), decodedCount(source, "audio"));
}

// Joins one quality level of a Smooth stream index: its init file, then its chunks in manifest order.
fs::path joinSmooth(const fs::path& out, const std::string& type, int qualityLevel, const std::string& name) {
    std::ifstream in(out / "Manifest");
    std::stringstream text;
    text << in.rdbuf();
    const std::string manifest = text.str();
    std::smatch index;
    EXPECT_TRUE(std::regex_search(manifest, index,
                                  std::regex("<StreamIndex Type=\"" + type + "\"[\\s\\S]*?</StreamIndex>")))
        << manifest;
    if (index.empty()) return {};
    const std::string block = index[0];
    std::smatch url, bitrate;
    EXPECT_TRUE(std::regex_search(block, url, std::regex("Url=\"([^\"]+)\"")));
    EXPECT_TRUE(std::regex_search(
        block, bitrate, std::regex("QualityLevel Index=\"" + std::to_string(qualityLevel) + "\" Bitrate=\"(\\d+)\"")));
    if (url.empty() || bitrate.empty()) return {};
    const std::string pattern = std::regex_replace(url[1].str(), std::regex("\\{bitrate\\}"), bitrate[1].str());
    const fs::path joined = Fmp4muxEndToEnd_dir() / name;
    std::ofstream outFile(joined, std::ios::binary);
    std::ifstream init((out / pattern).parent_path() / "smooth_init.mp4", std::ios::binary);
    EXPECT_TRUE(init.good()) << (out / pattern).parent_path();
    outFile << init.rdbuf();
    const std::regex c("<c t=\"(\\d+)\" d=\"\\d+\"/>");
    for (auto it = std::sregex_iterator(block.begin(), block.end(), c); it != std::sregex_iterator(); ++it) {
        std::ifstream f(out / std::regex_replace(pattern, std::regex("\\{start time\\}"), (*it)[1].str()),
                        std::ios::binary);
        EXPECT_TRUE(f.good());
        outFile << f.rdbuf();
    }
    return joined;
}

TEST_F(Fmp4muxEndToEnd, SmoothOfH264AndAacDecodesWithTheSourceCounts) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "smooth-h264";
    const Outcome r = fmp4mux("-f smooth " + quote(source.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(decodedCount(joinSmooth(out, "video", 0, "smooth-h264-video.mp4"), "video"), decodedCount(source, "video"));
    expectAudioSamples(decodedCount(joinSmooth(out, "audio", 0, "smooth-h264-audio.mp4"), "audio"),
                       decodedCount(source, "audio"));
}

TEST_F(Fmp4muxEndToEnd, SmoothOfHevcAndAacDecodesWithTheSourceCounts) {
    const fs::path source = input("hevc.ts", "hevc", "640x360", "300k");
    const fs::path out = dir() / "smooth-hevc";
    const Outcome r = fmp4mux("-f smooth " + quote(source.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(decodedCount(joinSmooth(out, "video", 0, "smooth-hevc-video.mp4"), "video"), decodedCount(source, "video"));
    expectAudioSamples(decodedCount(joinSmooth(out, "audio", 0, "smooth-hevc-audio.mp4"), "audio"),
                       decodedCount(source, "audio"));
}

TEST_F(Fmp4muxEndToEnd, SmoothOfThreeRenditionsHasThreeQualityLevelsThatDecode) {
    const fs::path low = input("r-low.ts", "h264", "416x234", "200k", false);
    const fs::path mid = input("r-mid.ts", "h264", "640x360", "500k", false);
    const fs::path high = input("r-high.ts", "h264", "960x540", "900k", false);
    const fs::path out = dir() / "smooth-renditions";
    // Distinct bitrates keep the three quality levels' folders apart.
    const Outcome r = fmp4mux("-f smooth --bitrate 0:0=200000 --bitrate 1:0=500000 --bitrate 2:0=900000 " +
                              quote(low.string()) + " " + quote(mid.string()) + " " + quote(high.string()) + " " +
                              quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const fs::path sources[] = {low, mid, high};
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(decodedCount(joinSmooth(out, "video", k, "smooth-rendition-" + std::to_string(k) + ".mp4"), "video"),
                  decodedCount(sources[k], "video"))
            << k;
}

TEST_F(Fmp4muxEndToEnd, DashOfHevcAndAacDecodesWithTheSourceCounts) {
    const fs::path source = input("hevc.ts", "hevc", "640x360", "300k");
    const fs::path out = dir() / "dash-hevc";
    const Outcome r = fmp4mux(quote(source.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    const fs::path video = joinRepresentation(out, "video0", "dash-hevc-video.mp4");
    EXPECT_EQ(decodedCount(video, "video"), decodedCount(source, "video"));
    const fs::path audio = joinRepresentation(out, "audio1", "dash-hevc-audio.mp4");
    expectAudioSamples(decodedCount(audio, "audio"), decodedCount(source, "audio"));
}

TEST_F(Fmp4muxEndToEnd, Mp4InputWithRawAacAndSeparateAudioSegments) {
    // MP4 holds H.264 in length-prefixed form and AAC as raw frames with its configuration in the header.
    const fs::path source = input("h264.mp4", "h264", "640x360", "400k", true, "mp4");
    const fs::path out = dir() / "dash-mp4";
    const Outcome r = fmp4mux("-m separate-audio --audio-segment-duration 1920 " + quote(source.string()) + " " +
                              quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    const fs::path video = joinRepresentation(out, "video0", "dash-mp4-video.mp4");
    EXPECT_EQ(decodedCount(video, "video"), decodedCount(source, "video"));
    const fs::path audio = joinRepresentation(out, "audio1", "dash-mp4-audio.mp4");
    expectAudioSamples(decodedCount(audio, "audio"), decodedCount(source, "audio"));
}

TEST_F(Fmp4muxEndToEnd, ThreeRenditionsShareOneTimelineAndEachDecodesWhole) {
    const fs::path low = input("r-low.ts", "h264", "416x234", "200k", false);
    const fs::path mid = input("r-mid.ts", "h264", "640x360", "500k", false);
    const fs::path high = input("r-high.ts", "h264", "960x540", "900k", false);
    const fs::path out = dir() / "dash-renditions";
    const Outcome r = fmp4mux(quote(low.string()) + " " + quote(mid.string()) + " " + quote(high.string()) + " " +
                          quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    const std::string mpd = readText(out / "manifest.mpd");
    auto count = [&mpd](const std::string& needle) {
        std::size_t n = 0;
        for (auto at = mpd.find(needle); at != std::string::npos; at = mpd.find(needle, at + 1)) ++n;
        return n;
    };
    // One adaptation set with three representations whose timelines are the same.
    EXPECT_EQ(count("<AdaptationSet "), 1u);
    ASSERT_EQ(count("<Representation "), 3u);
    // Segment starts of each timeline. The last segment's length may differ by a frame between renditions, since
    // each encoder ends its last GOP with its own frame order.
    std::vector<std::vector<std::uint64_t>> starts;
    for (const auto& list : timelines(mpd)) {
        starts.emplace_back();
        for (const auto& segment : list) starts.back().push_back(segment.first);
    }
    ASSERT_EQ(starts.size(), 3u);
    EXPECT_EQ(starts[0].size(), 3u);
    EXPECT_EQ(starts[0], starts[1]);
    EXPECT_EQ(starts[1], starts[2]);
    const fs::path sources[] = {low, mid, high};
    for (int k = 0; k < 3; ++k) {
        const std::string id = "video" + std::to_string(k);
        const fs::path joined = joinRepresentation(out, id, "rendition-" + id + ".mp4");
        EXPECT_EQ(decodedCount(joined, "video"), decodedCount(sources[k], "video")) << id;
    }
}

TEST_F(Fmp4muxEndToEnd, MapPicksThreeVideoRenditionsAndOneSharedAudio) {
    // Three renditions that carry the same audio: only the first input's audio is packaged.
    const int widths[] = {416, 640, 960};
    const fs::path sources[] = {input("m-low.ts", "h264", "416x234", "200k"), input("m-mid.ts", "h264", "640x360", "500k"),
                                input("m-high.ts", "h264", "960x540", "900k")};
    const std::string inputs = quote(sources[0].string()) + " " + quote(sources[1].string()) + " " +
                               quote(sources[2].string()) + " ";
    const fs::path out = dir() / "dash-map";
    const Outcome r = fmp4mux("--map 0:v --map 1:v --map 2:v --map 0:a " + inputs + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    const std::string mpd = readText(out / "manifest.mpd");
    std::map<std::string, std::vector<std::string>> representations;  // by content type
    const std::regex set("<AdaptationSet [^>]*contentType=\"(\\w+)\"[\\s\\S]*?</AdaptationSet>");
    const std::regex id("<Representation id=\"([^\"]+)\"");
    for (auto it = std::sregex_iterator(mpd.begin(), mpd.end(), set); it != std::sregex_iterator(); ++it) {
        const std::string block = (*it)[0];
        for (auto rep = std::sregex_iterator(block.begin(), block.end(), id); rep != std::sregex_iterator(); ++rep)
            representations[(*it)[1]].push_back((*rep)[1]);
    }
    ASSERT_EQ(representations["video"].size(), 3u) << mpd;
    ASSERT_EQ(representations["audio"].size(), 1u) << mpd;
    std::set<int> widthsSeen;
    for (const std::string& rep : representations["video"]) {
        const fs::path joined = joinRepresentation(out, rep, "map-" + rep + ".mp4");
        const Outcome probe = run("ffprobe -hide_banner -loglevel error -select_streams v:0 -show_entries stream=width "
                                  "-of csv=p=0 " + quote(joined.string()));
        ASSERT_EQ(probe.exitCode, 0) << probe.output;
        const int width = std::stoi(probe.output);
        widthsSeen.insert(width);
        const auto k = std::find(std::begin(widths), std::end(widths), width) - std::begin(widths);
        ASSERT_LT(k, 3) << width;
        EXPECT_EQ(decodedCount(joined, "video"), decodedCount(sources[k], "video")) << rep;
    }
    EXPECT_EQ(widthsSeen, (std::set<int>{416, 640, 960}));
    const std::string audio = representations["audio"][0];
    expectAudioSamples(decodedCount(joinRepresentation(out, audio, "map-" + audio + ".mp4"), "audio"),
                       decodedCount(sources[0], "audio"));

    // A selector that matches nothing is named with what the input holds; a malformed one is refused at once.
    Outcome bad = fmp4mux("--map 0:v --map 1:7 " + inputs + quote((dir() / "map-none").string()));
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_NE(bad.output.find("fmp4mux: --map 1:7 matches no stream (input 1 has streams 0 (h264 video), 1 (aac audio))"),
              std::string::npos) << bad.output;
    bad = fmp4mux("--map 0:x " + inputs + quote((dir() / "map-none").string()));
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_NE(bad.output.find("--map takes INPUT:STREAM, INPUT:v or INPUT:a, not '0:x'\nTry 'fmp4mux --help'."),
              std::string::npos) << bad.output;
}

// Standard input is a live input. Fed a file three times over with its times going on (ffmpeg -stream_loop), it
// keeps a timeline that goes forward, with no empty segment where the file starts again, and the MPD that ends
// the run lists the segments of the time-shift window, which decode.
TEST_F(Fmp4muxEndToEnd, LoopedStandardInputKeepsAForwardTimelineAndItsWindow) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "looped";
    const Outcome r = run("ffmpeg -hide_banner -loglevel error -nostdin -stream_loop 2 -i " + quote(source.string()) +
                          " -map 0 -c copy -f mpegts - | " + FMP4MUX_PATH + " -q --time-shift-buffer 6 - " +
                          quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    const std::string mpd = readText(out / "manifest.mpd");
    const auto lists = timelines(mpd);
    EXPECT_EQ(lists.size(), 2u) << mpd;
    for (const auto& list : lists) {
        std::uint64_t end = 0;
        for (const auto& [t, d] : list) {
            // Where the file starts again ffmpeg's loop leaves the times a frame out of step, so a segment may
            // overlap the one before by a frame (40 ms, at the 10 MHz timescale), never more.
            EXPECT_GE(t + 400000, end) << mpd;
            EXPECT_GT(d, 0u) << mpd;
            end = t + d;
        }
        // 18 s of media in 2 s segments, of which a 6 s window: three or four segments (plus a short audio one
        // where the file starts again).
        EXPECT_GE(list.size(), 3u) << mpd;
        EXPECT_LE(list.size(), 5u) << mpd;
    }
    EXPECT_GT(decodedCount(joinRepresentation(out, "video0", "looped-video.mp4"), "video"), 0);
}

TEST_F(Fmp4muxEndToEnd, ClearErrorsAndExitCodes) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    Outcome r = fmp4mux(quote((dir() / "missing.ts").string()) + " " + quote((dir() / "x").string()));
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_NE(r.output.find("cannot open input"), std::string::npos) << r.output;
    r = fmp4mux("--media-template 'x/${time}' " + quote(source.string()) + " " + quote((dir() / "x").string()));
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.output.find("'${adaptationSetId}' is mandatory"), std::string::npos) << r.output;
    r = fmp4mux("--init-template '${adaptationSetId}/${representationId}/${' " + quote(source.string()) + " " +
                quote((dir() / "x").string()));
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.output.find("unbalanced braces"), std::string::npos) << r.output;
    r = fmp4mux(quote(source.string()) + " /proc/fmp4mux-cannot-write-here");
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.output.find("output folder"), std::string::npos) << r.output;
    EXPECT_EQ(run(std::string(FMP4MUX_PATH) + " --help").exitCode, 0);
    EXPECT_NE(run(std::string(FMP4MUX_PATH) + " --version").output.find("fmp4mux"), std::string::npos);

    // An unsupported codec is named and its stream skipped; the rest is packaged.
    const fs::path mixed = dir() / "mixed.ts";
    Outcome made = run("ffmpeg -hide_banner -loglevel error -y -i " + quote(source.string()) +
                   " -f lavfi -i sine=sample_rate=44100 -t 6 -map 0:v -map 1:a -c:v copy -c:a mp2 " + quote(mixed.string()));
    ASSERT_EQ(made.exitCode, 0) << made.output;
    r = fmp4mux(quote(mixed.string()) + " " + quote((dir() / "mixed").string()));
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("'mp2'"), std::string::npos) << r.output;
    // A file with nothing to package.
    const fs::path audioOnly = dir() / "mp2.ts";
    made = run("ffmpeg -hide_banner -loglevel error -y -f lavfi -i sine -t 2 -c:a mp2 " + quote(audioOnly.string()));
    ASSERT_EQ(made.exitCode, 0);
    r = fmp4mux(quote(audioOnly.string()) + " " + quote((dir() / "none").string()));
    EXPECT_EQ(r.exitCode, 3) << r.output;
}

// An input whose timestamps jump (two recordings spliced, an encoder restarted) gives one continuous timeline that
// decodes whole: the 6 s input, then the same input with its timestamps moved by the offset.
class TimestampJumps : public Fmp4muxEndToEnd, public ::testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(TimestampJumps, TimelineStaysContinuousAndEveryFrameDecodes) {
    const auto [name, offset] = GetParam();
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path moved = dir() / (std::string(name) + "-moved.ts"), spliced = dir() / (std::string(name) + ".ts");
    const Outcome made = run("ffmpeg -hide_banner -loglevel error -y -i " + quote(source.string()) +
                             " -map 0 -c copy -output_ts_offset " + std::to_string(std::abs(offset)) + " -f mpegts " +
                             quote(moved.string()));
    ASSERT_EQ(made.exitCode, 0) << made.output;
    const fs::path first = offset > 0 ? source : moved, second = offset > 0 ? moved : source;
    ASSERT_EQ(run("cat " + quote(first.string()) + " " + quote(second.string()) + " > " + quote(spliced.string())).exitCode, 0);

    const fs::path out = dir() / name;
    const Outcome r = fmp4mux(quote(spliced.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    std::size_t logged = 0;
    for (auto at = r.output.find("timestamps jump by"); at != std::string::npos; at = r.output.find("timestamps jump by", at + 1))
        ++logged;
    EXPECT_EQ(logged, 1u) << r.output;
    expectValidMpd(out);
    // Every segment starts where the one before it ended, and lasts about the 2 s asked for (the last may be shorter).
    for (const auto& list : timelines(readText(out / "manifest.mpd"))) {
        ASSERT_EQ(list.size(), 6u);
        for (std::size_t k = 0; k < list.size(); ++k) {
            const double seconds = static_cast<double>(list[k].second) / 1e7;
            EXPECT_TRUE(seconds > 1.9 && seconds < 2.1) << "segment " << k << " lasts " << seconds << " s";
            if (k > 0) {
                EXPECT_EQ(list[k].first, list[k - 1].first + list[k - 1].second) << "segment " << k;
            }
        }
    }
    EXPECT_EQ(decodedCount(joinRepresentation(out, "video0", std::string(name) + "-video.mp4"), "video"),
              2 * decodedCount(source, "video"));
    // Each half may lose the audio frame before its first key frame.
    const long audio = decodedCount(joinRepresentation(out, "audio1", std::string(name) + "-audio.mp4"), "audio");
    EXPECT_LE(std::labs(audio - 2 * decodedCount(source, "audio")), 2048) << audio;
}

INSTANTIATE_TEST_SUITE_P(Splices, TimestampJumps,
                         ::testing::Values(std::make_pair("forward", 5000), std::make_pair("backward", -100)),
                         [](const auto& test) { return std::string(test.param.first); });

// What operators get wrong is refused with exit 2 (4 for the output folder) and a message that says what.
TEST_F(Fmp4muxEndToEnd, OperatorMistakesAreRefusedBeforeAnythingIsWritten) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "refused";
    fs::create_directories(out);
    fs::copy_file(source, out / "inside.ts", fs::copy_options::overwrite_existing);
    const struct {
        std::string args;
        int exitCode;
        std::string message;
    } cases[] = {
        {"--bitrate 0:7=100000 " + quote(source.string()), 2, "stream 0:7 named by a stream setting does not exist"},
        {"--language 0:0=fra " + quote(source.string()), 2, "stream 0:0 is video, which has no language"},
        {"--name 0:0=same --name 0:1=same " + quote(source.string()), 2, "two streams are named 'same'"},
        {quote((out / "inside.ts").string()), 2, "is inside the output folder"},
        {"--drift-detection " + quote(source.string()), 2, "--drift-detection needs a live input or --realtime"},
        // A second fmp4mux on a folder that one already writes to (flock holds its lock meanwhile).
        {"", 4, "is in use by another fmp4mux"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const Outcome r = c.args.empty()
                              ? run("flock " + quote((out / ".fmp4mux.lock").string()) + " " + FMP4MUX_PATH + " -q " +
                                    quote(source.string()) + " " + quote(out.string()))
                              : fmp4mux(c.args + " " + quote(out.string()));
        EXPECT_EQ(r.exitCode, c.exitCode) << r.output;
        EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
        EXPECT_FALSE(fs::exists(out / "manifest.mpd"));
    }
    // An input that cannot be opened leaves no output folder behind.
    EXPECT_EQ(fmp4mux(quote((dir() / "missing.ts").string()) + " " + quote((dir() / "never-made").string())).exitCode, 3);
    EXPECT_FALSE(fs::exists(dir() / "never-made"));
}

// --name gives a stream its representation id, and a ${bitrate} template names files by the number the MPD states.
TEST_F(Fmp4muxEndToEnd, NamesAndBitrateTemplatesAgreeWithTheManifest) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "named";
    const Outcome r = fmp4mux("--name 0:0=hd --name 0:1=stereo --media-template "
                              "'${sessionId}/${adaptationSetId}/${representationId}/${bitrate}_${time}.m4s' " +
                              quote(source.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidMpd(out);
    // Every segment the MPD lists is there: the whole representation decodes.
    EXPECT_EQ(decodedCount(joinRepresentation(out, "hd", "named-video.mp4"), "video"), decodedCount(source, "video"));
    expectAudioSamples(decodedCount(joinRepresentation(out, "stereo", "named-audio.mp4"), "audio"),
                       decodedCount(source, "audio"));
}

// SIGHUP (the terminal went away) finishes the run as SIGINT does: the chunks under way, a static MPD, exit 0.
TEST_F(Fmp4muxEndToEnd, HangUpFinishesTheRunCleanly) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "hangup";
    const Outcome r = run("( " + std::string(FMP4MUX_PATH) + " -q --realtime " + quote(source.string()) + " " +
                          quote(out.string()) + " & pid=$!; for i in $(seq 1 100); do ls " + quote(out.string()) +
                          "/live/0/video0/chunk_* >/dev/null 2>&1 && break; sleep 0.1; done; kill -HUP $pid; wait $pid )");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("interrupted"), std::string::npos) << r.output;
    expectValidMpd(out);
    EXPECT_NE(readText(out / "manifest.mpd").find("type=\"static\""), std::string::npos);
    EXPECT_GT(decodedCount(joinRepresentation(out, "video0", "hangup-video.mp4"), "video"), 0);
}

// A full disk (here a file size limit of 64 KB) fails the run clearly: no temporary file is left, and no manifest
// lists a file that was not written.
TEST_F(Fmp4muxEndToEnd, AFullDiskFailsClearlyAndLeavesNoManifestOfWhatWasNotWritten) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "full";
    const Outcome r = run("ulimit -f 64; " + std::string(FMP4MUX_PATH) + " -q " + quote(source.string()) + " " +
                          quote(out.string()));
    EXPECT_EQ(r.exitCode, 1) << r.output;
    EXPECT_NE(r.output.find("File too large"), std::string::npos) << r.output;
    for (const auto& entry : fs::recursive_directory_iterator(out))
        EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();
    if (fs::exists(out / "manifest.mpd")) {
        const std::string mpd = readText(out / "manifest.mpd");
        for (const auto& list : timelines(mpd)) EXPECT_FALSE(list.empty());
        EXPECT_GT(decodedCount(joinRepresentation(out, "video0", "full-video.mp4"), "video"), 0);
    }
}

// An input with 4 s GOPs under the default options: the GOP duration is measured, segments last 4 s and the
// whole input decodes; a -g that disagrees with the input is said.
TEST_F(Fmp4muxEndToEnd, TheInputsGopDurationIsMeasured) {
    const fs::path source = dir() / "gop4.ts";
    const Outcome made = run("ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=640x360:rate=25 -t 12 "
                             "-c:v libx264 -g 100 -keyint_min 100 -sc_threshold 0 -bf 2 -b:v 300k -f mpegts " +
                             quote(source.string()));
    ASSERT_EQ(made.exitCode, 0) << made.output;
    const fs::path out = dir() / "gop4";
    Outcome r = fmp4mux(quote(source.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("key frames every 4000 ms: GOP duration 4000 ms"), std::string::npos) << r.output;
    const auto lists = timelines(readText(out / "manifest.mpd"));
    ASSERT_EQ(lists.size(), 1u);
    ASSERT_EQ(lists[0].size(), 3u);
    for (std::size_t k = 1; k < 3; ++k) EXPECT_EQ(lists[0][k].first, lists[0][k - 1].first + lists[0][k - 1].second);
    EXPECT_EQ(lists[0][0].second, 40000000u);
    EXPECT_EQ(decodedCount(joinRepresentation(out, "video0", "gop4-video.mp4"), "video"), decodedCount(source, "video"));
    r = fmp4mux("-g 2000 " + quote(source.string()) + " " + quote((dir() / "gop4-g2000").string()));
    EXPECT_NE(r.output.find("has key frames every 4000 ms, but -g says 2000 ms"), std::string::npos) << r.output;
}

// A TS of two programs packages one: the first by default, or the one --program names; it says which.
TEST_F(Fmp4muxEndToEnd, OneProgramOfAMultiProgramInput) {
    const fs::path a = input("h264.ts", "h264", "640x360", "400k");
    const fs::path b = input("r-high.ts", "h264", "960x540", "900k", false);
    const fs::path two = dir() / "two-programs.ts";
    const Outcome made = run("ffmpeg -hide_banner -loglevel error -y -i " + quote(a.string()) + " -i " + quote(b.string()) +
                             " -map 0:v -map 0:a -map 1:v -c copy -program title=A:st=0:st=1 -program title=B:st=2 "
                             "-f mpegts " + quote(two.string()));
    ASSERT_EQ(made.exitCode, 0) << made.output;
    const struct {
        std::string option;
        std::string width;
        std::size_t representations;
    } cases[] = {{"", "width=\"640\"", 2u}, {"--program 2 ", "width=\"960\"", 1u}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        const fs::path out = dir() / ("program" + std::to_string(c.representations));
        const Outcome r = fmp4mux(c.option + quote(two.string()) + " " + quote(out.string()));
        ASSERT_EQ(r.exitCode, 0) << r.output;
        EXPECT_NE(r.output.find("of programs 1, 2"), std::string::npos) << r.output;
        const std::string mpd = readText(out / "manifest.mpd");
        EXPECT_NE(mpd.find(c.width), std::string::npos) << mpd;
        EXPECT_EQ(timelines(mpd).size(), c.representations) << mpd;
    }
    const Outcome r = fmp4mux("--program 5 " + quote(two.string()) + " " + quote((dir() / "program5").string()));
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.output.find("input 0 has no program 5 (its programs: 1, 2)"), std::string::npos) << r.output;
}

// The output folder taken away during a run stops it with a clear error rather than a manifest of missing files.
TEST_F(Fmp4muxEndToEnd, AnOutputFolderRemovedDuringTheRunStopsIt) {
    const fs::path source = input("h264.ts", "h264", "640x360", "400k");
    const fs::path out = dir() / "removed";
    const Outcome r = run("( " + std::string(FMP4MUX_PATH) + " -q --realtime " + quote(source.string()) + " " +
                          quote(out.string()) + " & pid=$!; for i in $(seq 1 100); do ls " + quote(out.string()) +
                          "/live/0/video0/chunk_* >/dev/null 2>&1 && break; sleep 0.1; done; rm -rf " +
                          quote(out.string()) + "; wait $pid )");
    EXPECT_EQ(r.exitCode, 1) << r.output;
    EXPECT_NE(r.output.find("was removed during the run"), std::string::npos) << r.output;
}

// Two renditions whose clocks are 13 ms apart (as separate encodes of one source are) share their cut points.
TEST_F(Fmp4muxEndToEnd, RenditionsAFewMillisecondsApartAreAligned) {
    const fs::path low = input("r-low.ts", "h264", "416x234", "200k", false);
    const fs::path mid = input("r-mid.ts", "h264", "640x360", "500k", false);
    const fs::path later = dir() / "r-mid-13ms.ts";  // the TS muxer's delay moves every time by 1170 ticks
    ASSERT_EQ(run("ffmpeg -hide_banner -loglevel error -y -i " + quote(mid.string()) +
                  " -map 0 -c copy -muxdelay 0.7065 -f mpegts " + quote(later.string())).exitCode, 0);
    const fs::path out = dir() / "apart";
    const Outcome r = fmp4mux(quote(low.string()) + " " + quote(later.string()) + " " + quote(out.string()));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const auto lists = timelines(readText(out / "manifest.mpd"));
    ASSERT_EQ(lists.size(), 2u);
    ASSERT_EQ(lists[0].size(), 3u);
    for (std::size_t k = 0; k < 3; ++k) EXPECT_EQ(lists[0][k].first, lists[1][k].first) << k;
    EXPECT_EQ(decodedCount(joinRepresentation(out, "video1", "apart-1.mp4"), "video"), decodedCount(mid, "video"));
}
}  // namespace
