// fmp4mux on inputs made by ffmpeg: every track (init file + its media files in manifest order) must decode in
// ffmpeg with its source's picture width, frame count and audio sample count, and every MPD must validate against
// the MPD schema.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <regex>
#include <string>
#include <vector>

#include "tests/common/process.h"

namespace {
namespace fs = std::filesystem;
using Timeline = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // (start, duration) of each segment
constexpr auto npos = std::string::npos;

// A command's exit code, and its standard output and error.
struct Outcome { int exitCode = -1; std::string output; };

Outcome sh(const std::string& command) {
    int status = -1;
    std::string output = testkit::run(command + " 2>&1", &status);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::move(output)};
}

std::string q(const fs::path& path) { return "'" + path.string() + "'"; }
std::string mux(const std::string& args) { return std::string(FMP4MUX_PATH) + " -q " + args; }

// The folder of every file of this program, removed when it ends.
fs::path dir() {
    static const testkit::TempDir folder;
    return folder.path;
}

std::string readText(const fs::path& file) {
    const std::vector<std::uint8_t> bytes = testkit::readFile(file);
    return {bytes.begin(), bytes.end()};
}

std::size_t count(const std::string& text, const std::string& needle) {
    std::size_t n = 0;
    for (auto at = text.find(needle); at != npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

// An input file: its name, the shell command that writes it (its path appended), and the inputs that command reads.
struct Source { std::string name, command; std::vector<Source> from; };

fs::path path(const Source& source) { return dir() / source.name; }
std::string ffmpeg(const std::string& args) { return "ffmpeg -hide_banner -loglevel error -nostdin -y " + args; }

// 6 s of ffmpeg's test pictures at 25 fps in GOPs of 2 s (50 frames, B-frames), with a 440 Hz tone unless
// `audio` is empty.
Source testPictures(const std::string& name, const std::string& size, const std::string& bitrate,
                    const std::string& audio = "aac") {
    std::string args = "-f lavfi -i testsrc2=size=" + size + ":rate=25";
    if (!audio.empty()) args += " -f lavfi -i sine=frequency=440:sample_rate=48000";
    args += " -t 6 -map 0:v -b:v " + bitrate;
    if (!audio.empty()) args += " -map 1:a -c:a " + audio + (audio.find(" -ac ") == npos ? " -ac 2" : "");
    if (name.starts_with("hevc"))
        return {name, ffmpeg(args + " -c:v libx265 -x265-params log-level=error:keyint=50:min-keyint=50:scenecut=0:"
                                    "bframes=2:open-gop=0"), {}};
    return {name, ffmpeg(args + " -c:v libx264 -g 50 -keyint_min 50 -sc_threshold 0 -bf 2"), {}};
}

const Source kH264 = testPictures("h264.ts", "640x360", "400k");
const Source kHevc = testPictures("hevc.ts", "640x360", "300k");
const Source kMp4 = testPictures("h264.mp4", "640x360", "400k");
const Source kLow = testPictures("r-low.ts", "416x234", "200k", "");
const Source kMid = testPictures("r-mid.ts", "640x360", "500k", "");
const Source kHigh = testPictures("r-high.ts", "960x540", "900k", "");
const Source kLowWithAudio = testPictures("m-low.ts", "416x234", "200k");
const Source kHighWithAudio = testPictures("m-high.ts", "960x540", "900k");
const Source kVideoAndMp2 = testPictures("mixed.ts", "640x360", "400k", "mp2");
// AC-3 5.1 and MP2 in MPEG-TS; E-AC-3 and MP3 in MP4.
const Source kVideoAndAc3 = testPictures("ac3.ts", "640x360", "400k", "ac3 -ac 6");
const Source kVideoAndEac3 = testPictures("eac3.mp4", "640x360", "400k", "eac3");
const Source kVideoAndMp3 = testPictures("mp3.mp4", "640x360", "400k", "libmp3lame");
const Source kVideoAndAac51 = testPictures("aac51.ts", "640x360", "400k", "aac -ac 6");
const Source kVideoAndLatm = testPictures("latm.ts", "640x360", "400k", "aac -mpegts_flags latm");
// h264.ts, then 6 s of r-high.ts (960x540, other parameter sets) from 7 s on: an encoder restarted with other settings.
const Source kHighLater{"r-high-7s.ts", ffmpeg("-i " + q(path(kHigh)) + " -map 0 -c copy -output_ts_offset 7 -f mpegts"), {kHigh}};
const Source kResized{"resized.ts", "cat " + q(path(kH264)) + " " + q(path(kHighLater)) + " >", {kH264, kHighLater}};
const Source kVideoAndEac3Ts{"eac3.ts", ffmpeg("-i " + q(path(kVideoAndEac3)) + " -map 0 -c copy -f mpegts"), {kVideoAndEac3}};
const Source kOpusOnly{"opus.ts", ffmpeg("-f lavfi -i sine -t 2 -c:a libopus"), {}};
// 12 s in GOPs of 4 s.
const Source kGop4{"gop4.ts", ffmpeg("-f lavfi -i testsrc2=size=640x360:rate=25 -t 12 -c:v libx264 -g 100 -keyint_min 100 "
                                     "-sc_threshold 0 -bf 2 -b:v 300k"), {}};
// r-mid.ts 13 ms later: the TS muxer's delay moves every time by 1170 ticks of 90 kHz.
// 500 ms later (the muxer's delay counts twice): key frames a quarter of a GOP out of step with kMid's.
const Source kMidOutOfStep{"r-mid-500ms.ts", ffmpeg("-i " + q(path(kMid)) + " -map 0 -c copy -muxdelay 0.95 -f mpegts"), {kMid}};
const Source kMidLater{"r-mid-13ms.ts", ffmpeg("-i " + q(path(kMid)) + " -map 0 -c copy -muxdelay 0.7065 -f mpegts"), {kMid}};
// h264.ts as program 1 and r-high.ts as program 2.
const Source kTwoPrograms{"two-programs.ts",
                          ffmpeg("-i " + q(path(kH264)) + " -i " + q(path(kHigh)) + " -map 0:v -map 0:a -map 1:v -c copy "
                                 "-program title=A:st=0:st=1 -program title=B:st=2 -f mpegts"),
                          {kH264, kHigh}};

// h264.ts, then h264.ts with its times 5000 s later (two recordings spliced); and h264.ts 100 s later, then h264.ts
// (an encoder restarted).
const Source kLater{"later.ts", ffmpeg("-i " + q(path(kH264)) + " -map 0 -c copy -output_ts_offset 5000 -f mpegts"), {kH264}};
// The bundled sample three times over (ffmpeg's -stream_loop): where it starts again, its first audio PES (of 16 to
// 18 AAC frames) overlaps the one before by a frame less a tick.
const fs::path kSample = FMP4_TEST_DATA_DIR "/../../samples/sample.ts";
const Source kLooped{"looped.ts", ffmpeg("-stream_loop 2 -i " + q(kSample) + " -map 0 -c copy -f mpegts"), {}};
// Two recordings spliced, the second starting 50 ms before the first's audio ends, in PES of several audio frames
// (a payload of 16000 bytes).
Source overlappingSplice(const std::string& name, const Source& from) {
    const std::string remux = "ffmpeg -hide_banner -loglevel error -nostdin -y -i ";
    return {name,
            "f() { " + remux + q(path(from)) + " -map 0 -c copy -pes_payload_size 16000 -f mpegts \"$1.a\" && "
            "off=$(ffprobe -v error -select_streams a -show_entries packet=pts_time,duration_time -of csv=p=0 \"$1.a\" | "
            "awk -F, 'NR == 1 { first = $1 } { end = $1 + $2 } END { printf \"%.4f\", end - first - 0.05 }') && " +
            remux + "\"$1.a\" -map 0 -c copy -pes_payload_size 16000 -output_ts_offset $off -f mpegts \"$1.b\" && "
            "cat \"$1.a\" \"$1.b\" > \"$1\"; }; f",
            {from}};
}
const Source kJumpForward{"jump-forward.ts", "cat " + q(path(kH264)) + " " + q(path(kLater)) + " >", {kH264, kLater}};
const Source kLaterStill{"later-still.ts", ffmpeg("-i " + q(path(kH264)) + " -map 0 -c copy -output_ts_offset 100 -f mpegts"),
                         {kH264}};
const Source kJumpBack{"jump-back.ts", "cat " + q(path(kLaterStill)) + " " + q(path(kH264)) + " >", {kH264, kLaterStill}};

// h264.ts 95440 s later: its times cross the wrap of the 33-bit clock 2.3 s in, having started within a minute of it.
const Source kAcrossTheWrap{"wrap.ts", ffmpeg("-i " + q(path(kH264)) + " -map 0 -c copy -output_ts_offset 95440 -f mpegts"),
                            {kH264}};
// The bundled sample with an SCTE-35 stream (the player test's fixture; the list of its cues is not kept).
const Source kWithCues{"cues.ts", "f() { python3 " + q(FMP4_TEST_DATA_DIR "/../e2e/player/scte35_fixture.py") + " " +
                                      q(kSample) + " \"$1\" /dev/null; }; f",
                       {}};

// Makes a file, and the files it is made from, once per name.
fs::path made(const Source& source) {
    for (const Source& s : source.from) made(s);
    if (!fs::exists(path(source))) {
        const Outcome r = sh(source.command + " " + q(path(source)));
        EXPECT_EQ(r.exitCode, 0) << r.output;
    }
    return path(source);
}

// fmp4mux run with `args` on the inputs (made first) into `out`.
Outcome package(const std::string& args, const std::vector<Source>& inputs, const fs::path& out) {
    std::string names;
    for (const Source& s : inputs) names += q(made(s)) + " ";
    return sh(mux(args + " " + names + q(out)));
}

// The segments of the <S> elements of a text, repeats expanded.
Timeline segments(const std::string& text) {
    Timeline list;
    const std::regex s("<S t=\"(\\d+)\" d=\"(\\d+)\"(?: r=\"(\\d+)\")?/>");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), s); it != std::sregex_iterator(); ++it) {
        std::uint64_t t = std::stoull((*it)[1]);
        const std::uint64_t d = std::stoull((*it)[2]);
        const int repeat = (*it)[3].matched ? std::stoi((*it)[3]) : 0;
        for (int k = 0; k <= repeat; ++k, t += d) list.emplace_back(t, d);
    }
    return list;
}

// `count` segments of about `seconds` each (at the 10 MHz timescale), each starting where the one before ended.
void expectEvenTimeline(const Timeline& list, std::size_t count, double seconds) {
    ASSERT_EQ(list.size(), count);
    for (std::size_t k = 0; k < count; ++k) {
        EXPECT_NEAR(static_cast<double>(list[k].second) / 1e7, seconds, 0.1) << "segment " << k;
        if (k > 0) {
            EXPECT_EQ(list[k].first, list[k - 1].first + list[k - 1].second) << "segment " << k;
        }
    }
}

// A DASH representation's timeline, and its files in the order a player reads them: init, then media.
std::pair<Timeline, std::vector<fs::path>> representation(const fs::path& out, const std::string& id) {
    const std::string mpd = readText(out / "manifest.mpd");
    std::smatch m;
    if (!std::regex_search(mpd, m, std::regex("<Representation id=\"" + id + "\"[^>]*>[\\s\\S]*?initialization=\"([^\"]+)\" "
                                              "media=\"([^\"]+)\"[\\s\\S]*?</SegmentTimeline>"))) {
        ADD_FAILURE() << "no representation " << id << " in " << mpd;
        return {};
    }
    const std::string media = std::regex_replace(m[2].str(), std::regex("\\$RepresentationID\\$"), id);
    const Timeline timeline = segments(m[0]);
    std::vector<fs::path> files{out / m[1].str()};
    for (const auto& [t, d] : timeline)
        files.push_back(out / std::regex_replace(media, std::regex("\\$Time\\$"), std::to_string(t)));
    return {timeline, files};
}

// A Smooth quality level's files in the order a player reads them: init, then media. `track` is "video:N" or
// "audio:N": a stream index and its quality level.
std::vector<fs::path> qualityLevel(const fs::path& out, const std::string& track) {
    const std::string manifest = readText(out / "Manifest");
    const auto colon = track.find(':');
    std::smatch m, url, bitrate;
    std::regex_search(manifest, m, std::regex("<StreamIndex Type=\"" + track.substr(0, colon) + "\"[\\s\\S]*?</StreamIndex>"));
    const std::string index = m.empty() ? "" : m[0].str();
    if (!std::regex_search(index, url, std::regex("Url=\"([^\"]+)\"")) ||
        !std::regex_search(index, bitrate,
                           std::regex("QualityLevel Index=\"" + track.substr(colon + 1) + "\" Bitrate=\"(\\d+)\""))) {
        ADD_FAILURE() << "no URL or quality level for " << track << " in " << manifest;
        return {};
    }
    const std::string pattern = std::regex_replace(url[1].str(), std::regex("\\{bitrate\\}"), bitrate[1].str());
    std::vector<fs::path> files{(out / pattern).parent_path() / "smooth_init.mp4"};
    const std::regex chunk("<c t=\"(\\d+)\" d=\"\\d+\"/>");
    for (auto it = std::sregex_iterator(index.begin(), index.end(), chunk); it != std::sregex_iterator(); ++it)
        files.push_back(out / std::regex_replace(pattern, std::regex("\\{start time\\}"), (*it)[1].str()));
    return files;
}

// A track's files joined into one file that ffmpeg reads: a DASH representation, or a Smooth quality level.
fs::path joinTrack(const fs::path& out, const std::string& track) {
    const fs::path joined = out.string() + "-" + std::regex_replace(track, std::regex(":"), "-") + ".mp4";
    std::ofstream file(joined, std::ios::binary);
    for (const fs::path& part : track.find(':') == npos ? representation(out, track).second : qualityLevel(out, track)) {
        std::ifstream in(part, std::ios::binary);
        if (in)
            file << in.rdbuf();
        else
            ADD_FAILURE() << "missing " << part;
    }
    return joined;
}

// What ffmpeg decodes of a file's first video stream: its picture width and its frame count (a TS lists its
// streams twice, in its program and alone).
using Video = std::pair<int, long>;
Video decodedVideo(const fs::path& file) {
    const Outcome r = sh("ffprobe -hide_banner -loglevel error -count_frames -select_streams v:0 -show_entries "
                         "stream=width,nb_read_frames -of csv=p=0 " + q(file));
    std::smatch m;
    if (r.exitCode == 0 && std::regex_search(r.output, m, std::regex("^(\\d+),(\\d+)\n")))
        return {std::stoi(m[1]), std::stol(m[2])};
    ADD_FAILURE() << file << ": " << r.output;
    return {0, -1};
}

// The samples ffmpeg decodes of a file's first audio stream (as 16-bit mono, 2 bytes each), or -1.
long decodedAudio(const fs::path& file) {
    const fs::path pcm = file.string() + ".pcm";
    const Outcome r = sh("ffmpeg -hide_banner -loglevel error -nostdin -y -xerror -i " + q(file) +
                         " -map 0:a:0 -ac 1 -f s16le " + q(pcm));
    return r.exitCode == 0 ? static_cast<long>(fs::file_size(pcm) / 2) : -1;
}

// The channel layout of the first audio stream, as ffprobe names it.
std::string channelLayout(const fs::path& file) {
    const std::string text = sh("ffprobe -v error -select_streams a:0 -show_entries stream=channel_layout "
                                "-of default=nw=1:nk=1 " + q(file)).output;
    return text.substr(0, text.find('\n'));
}

void expectValidMpd(const fs::path& out) {
    const Outcome r = sh("xmllint --noout --schema " + q(FMP4_TEST_DATA_DIR "/schemas/DASH-MPD.xsd") + " " +
                         q(out / "manifest.mpd"));
    EXPECT_EQ(r.exitCode, 0) << r.output;
}

// What RFC 8216 asks of the playlists of `out`, read as text: attribute lists of NAME=value pairs (quoted string,
// hexadecimal, decimal, resolution or enumerated) without a repeated name; every URI a file of `out`; in each media
// playlist, a target duration that no EXTINF (three decimals) exceeds once rounded, and a media sequence that is
// the number of the first segment where the files are named by number (n_N), the numbers following on. Returns
// the media playlists' texts by name.
std::map<std::string, std::string> expectValidHls(const fs::path& out) {
    const std::string value = R"((?:"[^"\r\n]*"|0[xX][0-9A-Fa-f]+|-?[0-9]+(?:\.[0-9]+)?|[0-9]+x[0-9]+|[A-Z0-9-]+))";
    const std::regex list("#EXT-X-[A-Z-]+:([A-Z0-9-]+=" + value + ")(,[A-Z0-9-]+=" + value + ")*"),
        name("(?:^#EXT-X-[A-Z-]+:|,)([A-Z0-9-]+)=(?:\"[^\"]*\")?"), uri("[:,]URI=\"([^\"]+)\""),
        number("/n_([0-9]+)\\."), tag("#EXT-X-(TARGETDURATION|MEDIA-SEQUENCE):([0-9]+)"), extinf("#EXTINF:([0-9]+\\.[0-9]{3}),");
    std::smatch m;
    // An attribute list's syntax and its names once each; the URI it names, when it names one.
    const auto attributes = [&](const std::string& line) {
        EXPECT_TRUE(std::regex_match(line, list)) << line;
        std::set<std::string> names;
        for (auto it = std::sregex_iterator(line.begin(), line.end(), name); it != std::sregex_iterator(); ++it)
            EXPECT_TRUE(names.insert((*it)[1]).second) << "repeated " << (*it)[1] << " in " << line;
        return std::regex_search(line, m, uri) ? m[1].str() : std::string();
    };
    std::map<std::string, std::string> playlists;
    std::istringstream master(readText(out / "master.m3u8"));
    std::string line, next;
    EXPECT_TRUE(std::getline(master, line) && line == "#EXTM3U") << line;
    while (std::getline(master, line)) {
        if (line.starts_with("#EXT-X-MEDIA:")) next = attributes(line);
        if (line.starts_with("#EXT-X-STREAM-INF:") && attributes(line).empty()) std::getline(master, next);
        if (!next.empty()) playlists[next] = readText(out / next);
        next.clear();
    }
    EXPECT_FALSE(playlists.empty());
    for (const auto& [file, text] : playlists) {
        SCOPED_TRACE(file);
        std::istringstream in(text);
        std::map<std::string, long> tags;  // TARGETDURATION, MEDIA-SEQUENCE
        EXPECT_TRUE(std::getline(in, line) && line == "#EXTM3U") << line;
        while (std::getline(in, line)) {
            if (std::regex_match(line, m, tag)) tags[m[1]] = std::stol(m[2]);
            if (line.starts_with("#EXT-X-MAP:") || line.starts_with("#EXT-X-KEY:")) {
                const std::string named = attributes(line);
                EXPECT_TRUE(line.starts_with("#EXT-X-KEY:") || fs::exists(out / named)) << line;
            }
            if (!line.starts_with("#EXTINF:")) continue;
            EXPECT_TRUE(std::regex_match(line, m, extinf)) << line;
            EXPECT_GE(tags["TARGETDURATION"], m.empty() ? 1 : std::lround(std::stod(m[1]))) << line;
            std::getline(in, line);
            EXPECT_TRUE(fs::exists(out / line)) << line;
            const long expected = tags["MEDIA-SEQUENCE"]++;
            EXPECT_TRUE(!std::regex_search(line, m, number) || std::stol(m[1]) == expected) << line << ", not " << expected;
        }
        EXPECT_GE(tags["TARGETDURATION"], 1);
        EXPECT_EQ(tags.count("MEDIA-SEQUENCE"), 1u);
    }
    return playlists;
}

// One run whose every track decodes whole, each video track as the source named with it, the audio track as
// input 0's. In DASH, each video timeline covers its source in segments of `seconds`, on the cut points of the
// first, in one adaptation set per kind.
struct Packaging {
    std::string name;
    std::vector<Source> inputs;
    std::string args;
    std::vector<std::pair<std::string, Source>> videos;
    std::string audio;  // none when empty
    std::string says;   // what fmp4mux prints once, when not empty
    int seconds;
    long audioFrame = 1024;  // samples per frame of the audio codec
};

void PrintTo(const Packaging& p, std::ostream* os) { *os << p.name; }

class Packages : public ::testing::TestWithParam<Packaging> {};

TEST_P(Packages, EveryTrackDecodesWithItsSourcesPicturesAndSamples) {
    const Packaging& p = GetParam();
    const fs::path out = dir() / p.name;
    const Outcome r = package(p.args, p.inputs, out);
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const std::size_t jumps = count(r.output, "timestamps jump by");
    EXPECT_TRUE(p.says.empty() || count(r.output, p.says) == 1) << "said once: " << p.says << "\n" << r.output;
    const bool smooth = p.args.find("-f smooth") != npos;
    const std::string manifest = readText(out / (smooth ? "Manifest" : "manifest.mpd"));
    // Nothing is packaged but the tracks listed.
    EXPECT_EQ(count(manifest, smooth ? "<QualityLevel " : "<Representation "), p.videos.size() + !p.audio.empty())
        << manifest;
    if (!smooth) {
        expectValidMpd(out);
        EXPECT_EQ(count(manifest, "<AdaptationSet "), 1u + !p.audio.empty()) << manifest;
    }
    Timeline first;
    for (const auto& [track, source] : p.videos) {
        SCOPED_TRACE(track);
        const Video want = decodedVideo(made(source));
        EXPECT_EQ(decodedVideo(joinTrack(out, track)), want);
        if (smooth) continue;
        // The last segment may differ by a frame between renditions: each encoder ends its last GOP its own way.
        const Timeline timeline = representation(out, track).first;
        expectEvenTimeline(timeline, static_cast<std::size_t>(want.second / (25 * p.seconds)), p.seconds);  // at 25 fps
        if (first.empty()) first = timeline;
        for (std::size_t k = 0; k < timeline.size() && k < first.size(); ++k)
            EXPECT_EQ(timeline[k].first, first[k].first) << "segment " << k;
    }
    if (p.audio.empty()) return;
    // The source's audio within one AAC frame per stretch between timestamp jumps (the frame before each stretch's
    // first video key frame has no segment), and one more per jump: the one after it that overlaps the frame before.
    const fs::path track = joinTrack(out, p.audio);
    const long audio = decodedAudio(track), want = decodedAudio(made(p.inputs[0]));
    EXPECT_GT(audio, 0);
    EXPECT_LE(std::labs(audio - want), p.audioFrame * (1 + 2 * static_cast<long>(jumps))) << audio << " samples against " << want;
    EXPECT_EQ(channelLayout(track), channelLayout(made(p.inputs[0])));
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, Packages,
    ::testing::Values(
        Packaging{"DashH264", {kH264}, "", {{"video0", kH264}}, "audio1", "", 2},
        Packaging{"DashHevc", {kHevc}, "", {{"video0", kHevc}}, "audio1", "", 2},
        // MP4 holds H.264 in length-prefixed form and AAC as raw frames with its configuration in the header.
        Packaging{"DashMp4SeparateAudio", {kMp4}, "-m separate-audio --audio-segment-duration 1920", {{"video0", kMp4}},
                  "audio1", "", 2},
        // --name gives a stream its representation id; a ${bitrate} template names files by the number the MPD states.
        Packaging{"DashNamedWithBitrateInFileNames", {kH264},
                  "--name 0:0=hd --name 0:1=stereo "
                  "--media-template '${sessionId}/${adaptationSetId}/${representationId}/${bitrate}_${time}.m4s'",
                  {{"hd", kH264}}, "stereo", "", 2},
        // Three renditions that carry the same audio: only the first input's audio is packaged.
        Packaging{"DashMapOfThreeVideosAndOneAudio", {kLowWithAudio, kH264, kHighWithAudio},
                  "--map 0:v --map 1:v --map 2:v --map 0:a",
                  {{"video0", kLowWithAudio}, {"video2", kH264}, {"video3", kHighWithAudio}}, "audio1", "", 2},
        // Renditions 13 ms apart (as separate encodes of one source are) share their cut points.
        Packaging{"DashRenditionsAFewMillisecondsApart", {kLow, kMidLater, kHigh}, "",
                  {{"video0", kLow}, {"video1", kMidLater}, {"video2", kHigh}}, "", "", 2},
        // AC-3 5.1 and MP2 from MPEG-TS, E-AC-3 and MP3 from MP4: whole sync frames, with the Dolby channel
        // configuration for AC-3 and E-AC-3.
        Packaging{"DashAc3Surround", {kVideoAndAc3}, "", {{"video0", kVideoAndAc3}}, "audio1",
                  "", 2, 1536},
        Packaging{"DashEac3FromMp4", {kVideoAndEac3}, "", {{"video0", kVideoAndEac3}}, "audio1", "", 2, 1536},
        Packaging{"DashMp2Audio", {kVideoAndMp2}, "", {{"video0", kVideoAndMp2}}, "audio1", "", 2, 1152},
        Packaging{"DashMp3FromMp4", {kVideoAndMp3}, "", {{"video0", kVideoAndMp3}}, "audio1", "", 2, 1152},
        Packaging{"SmoothAc3Surround", {kVideoAndAc3}, "-f smooth", {{"video:0", kVideoAndAc3}}, "audio:0", "", 2, 1536},
        // Smooth Streaming has no FourCC for MPEG-1 audio: the video alone, and why.
        Packaging{"SmoothWithoutMp2", {kVideoAndMp2}, "-f smooth", {{"video:0", kVideoAndMp2}}, "",
                  "Smooth Streaming carries no MPEG-1 audio (mp2); the stream is skipped", 2},
        // Under the default options the input's GOP duration is measured, and segments follow it.
        Packaging{"DashOfFourSecondGops", {kGop4}, "", {{"video0", kGop4}}, "",
                  "key frames every 4000 ms: GOP duration 4000 ms", 4},
        // A TS of two programs packages one: the first by default, or the one --program names; it says which.
        Packaging{"DashFirstProgram", {kTwoPrograms}, "", {{"video0", kH264}}, "audio1", "of programs 1, 2", 2},
        Packaging{"DashProgramTwo", {kTwoPrograms}, "--program 2", {{"video0", kHigh}}, "", "of programs 1, 2", 2},
        // Timestamps that jump (two recordings spliced, an encoder restarted) give one continuous timeline.
        Packaging{"DashTimesJumpForward", {kJumpForward}, "", {{"video0", kJumpForward}}, "audio1", "timestamps jump by", 2},
        Packaging{"DashTimesJumpBack", {kJumpBack}, "", {{"video0", kJumpBack}}, "audio1", "timestamps jump by", 2},
        Packaging{"SmoothH264", {kH264}, "-f smooth", {{"video:0", kH264}}, "audio:0", "", 2},
        Packaging{"SmoothHevc", {kHevc}, "-f smooth", {{"video:0", kHevc}}, "audio:0", "", 2},
        // Distinct bitrates keep the three quality levels' folders apart.
        Packaging{"SmoothThreeRenditions", {kLow, kMid, kHigh},
                  "-f smooth --bitrate 0:0=200000 --bitrate 1:0=500000 --bitrate 2:0=900000",
                  {{"video:0", kLow}, {"video:1", kMid}, {"video:2", kHigh}}, "", "", 2}),
    [](const auto& test) { return test.param.name; });

// HLS, alone or beside DASH over the same media files: the playlists keep RFC 8216's rules, and ffmpeg reading
// the multivariant playlist decodes every rendition whole, each video with its source's frame count (told apart
// by width), the audio with the source's AAC frames.
struct HlsRun {
    std::string name;
    std::vector<Source> inputs;
    std::string args;
    std::vector<Source> videos;
    bool audio;
};
void PrintTo(const HlsRun& p, std::ostream* os) { *os << p.name; }
class HlsRuns : public ::testing::TestWithParam<HlsRun> {};

TEST_P(HlsRuns, FfmpegDecodesEveryRenditionOfTheMultivariantPlaylist) {
    const HlsRun& p = GetParam();
    const fs::path out = dir() / p.name;
    const Outcome r = package(p.args, p.inputs, out);
    ASSERT_EQ(r.exitCode, 0) << r.output;
    expectValidHls(out);
    if (fs::exists(out / "manifest.mpd")) expectValidMpd(out);
    const auto counts = [](const fs::path& file) {
        std::map<std::string, long> found;  // "video,WIDTH" or "audio": frames
        std::smatch m;
        const std::string text = sh("ffprobe -v error -count_frames -show_entries stream=codec_type,width,nb_read_frames "
                                    "-of csv=p=0 " + q(file)).output;
        const std::regex row("(video,[0-9]+|audio),([0-9]+)\n");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), row); it != std::sregex_iterator(); ++it)
            found[(*it)[1]] = std::stol((*it)[2]);
        return found;
    };
    const auto decoded = counts(out / "master.m3u8");
    std::size_t renditions = p.audio ? 1 : 0;
    for (const Source& v : p.videos) {
        const auto [width, frames] = decodedVideo(made(v));
        EXPECT_EQ(decoded.count("video," + std::to_string(width)) ? decoded.at("video," + std::to_string(width)) : -1, frames)
            << v.name;
        ++renditions;
    }
    EXPECT_EQ(decoded.size(), renditions);
    if (p.audio) {
        const long want = counts(made(p.inputs[0])).at("audio");
        EXPECT_LE(std::labs((decoded.count("audio") ? decoded.at("audio") : 0) - want), 1) << want << " AAC frames";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, HlsRuns,
    ::testing::Values(
        HlsRun{"HlsNamedByNumber", {kH264},
               "-f hls --media-template '${sessionId}/${adaptationSetId}/${representationId}/n_${number}.m4s'", {kH264},
               true},
        HlsRun{"DashAndHlsOfThreeRenditions", {kLowWithAudio, kH264, kHighWithAudio},
               "-f dash,hls --map 0:v --map 1:v --map 2:v --map 0:a", {kLowWithAudio, kH264, kHighWithAudio}, true},
        HlsRun{"HlsAudioOnly", {kH264}, "-f hls --map 0:a", {}, true}),
    [](const auto& test) { return test.param.name; });

// What operators get wrong is refused before anything is written, with the exit code of its kind (2 the command
// line, 3 the input, 4 the output folder) and a message that says what; or said, when the run can go on.
// A key id and a key of the test inputs' encryption (W3C ClearKey hands them to players).
const std::string kKid = "00112233-4455-6677-8899-aabbccddeeff", kKey = "2b7e151628aed2a6abf7158809cf4f3c";

TEST(Fmp4muxEndToEnd, OperatorMistakesGetTheirExitCodeAndAMessage) {
    const std::string source = q(made(kH264));
    const fs::path out = dir() / "refused", never = dir() / "never-made";
    fs::create_directories(out);
    fs::copy_file(made(kH264), out / "inside.ts", fs::copy_options::overwrite_existing);
    const std::string to = " " + q(out);
    // fmp4mux copied without its libavformat module: a TS file needs none; any other input says what is missing.
    const fs::path alone = dir() / "alone";
    fs::create_directories(alone);
    fs::copy_file(FMP4MUX_PATH, alone / "fmp4mux", fs::copy_options::overwrite_existing);
    const std::string without = q(alone / "fmp4mux") + " -q ";
    const struct { std::string command; int exitCode; std::string message; } cases[] = {
        {without + source + " " + q(dir() / "alone-ts"), 0, "h264 video 640x360"},
        {"cat " + source + " | " + without + "- " + q(never), 3, "cannot load the libavformat module " + (alone / "libfmp4mux_libav.so").string()},
        {mux("--bitrate 0:7=100000 " + source + to), 2, "stream 0:7 named by a stream setting does not exist"},
        {mux("--language 0:0=fra " + source + to), 2, "stream 0:0 is video, which has no language"},
        {mux("--name 0:0=same --name 0:1=same " + source + to), 2, "two streams are named 'same'"},
        {mux(q(out / "inside.ts") + to), 2, "is inside the output folder"},
        {mux("--drift-detection " + source + to), 2, "--drift-detection needs a live input or --realtime"},
        {mux("--map 0:7 " + source + to), 2, "--map 0:7 matches no stream (input 0 has streams 0 (h264 video), 1 (aac audio))"},
        {mux("--map 0:x " + source + to), 2, "--map takes INPUT:STREAM, INPUT:v or INPUT:a, not '0:x'\nTry 'fmp4mux --help'."},
        {mux("--init-template '${adaptationSetId}/${representationId}/${' " + source + to), 2, "unbalanced braces"},
        {mux("--program 5 " + q(made(kTwoPrograms)) + to), 2, "input 0 has no program 5 (its programs: 1, 2)"},
        {mux("-m low-latency " + source + " " + q(fs::path(FMP4_TEST_DATA_DIR) / "subtitles/cues.vtt") + to), 2,
         "input 1 is a subtitle file: the low-latency mode cuts equal chunks"},
        {mux("--follow 0 " + source + to), 2, "--follow 0: input 0 is not a subtitle file"},
        // Low latency at 25 fps: 500 ms chunks are refused before anything is read; 400 ms fit the pictures but
        // not 21.3 ms AAC frames, which the engine refuses at every session it starts: the run ends (without
        // waiting for outputs that may never end) and says why.
        {mux("-m low-latency " + source + to), 2, "input 0:0: chunks of 500 ms are 12.5 pictures of 40 ms, and the "
                                                  "low-latency mode cuts whole pictures: its segments would leave the key "
                                                  "frames; chunk durations that fit segments of 2000 ms: 80, 200, 400 ms"},
        {mux("-m low-latency --chunk-duration 400 " + source + to), 1,
         "the engine reported: Fmp4 mux: Low latency synchronizators : non-compatible chunk durations"},
        // A second fmp4mux on a folder that one already writes to (flock holds its lock meanwhile).
        {"flock " + q(out / ".fmp4mux.lock") + " " + mux(source + to), 4, "is in use by another fmp4mux"},
        {mux(source + " /proc/fmp4mux-cannot-write-here"), 4, "output folder"},
        // An input that cannot be opened, or holds nothing to package, leaves no output folder behind.
        {mux(q(dir() / "missing.ts") + " " + q(never)), 3, "cannot open input"},
        {mux(q(made(kOpusOnly)) + " " + q(never)), 3, "no stream that can be packaged"},
        {mux(q(made(kLow)) + " " + q(made(kMidOutOfStep)) + " " + q(never)), 3, "are 500 ms out of step (GOP 2000 ms)"},
        {mux("-g 2000 " + q(made(kGop4)) + " " + q(dir() / "g2000")), 0, "has key frames every 4000 ms, but -g says 2000 ms"},
        // Encryption: a key or key id that cannot be one, a missing key file; the key itself is never quoted.
        {mux("--key-id " + kKid + " --key 00112233445566778899aabbccddee " + source + to), 2, "--key: the key is not 32 hexadecimal"},
        {mux("--key-id " + kKid + " --key 'not+a*key' " + source + to), 2, "--key: the key is not 32 hexadecimal"},
        {mux("--key-id 0011-2233 --key " + kKey + " " + source + to), 2, "--key-id: '0011-2233' is not a UUID"},
        {mux("--key-file " + q(dir() / "no-such-keys") + " " + source + to), 2, "--key-file: cannot read"},
        {mux("--key-id " + kKid + " " + source + to), 2, "encryption needs either --key or --key-seed"},
        {mux("--key-id " + kKid + " --key " + kKey + " --drm-system-id 12 " + source + to), 2, "--drm-system-id: '12' is not a UUID"},
        {mux("--key-id " + kKid + " --key " + kKey + " --drm fairplay " + source + to), 2, "--drm: unknown system 'fairplay'"},
        {mux("--key-id " + kKid + " --key " + kKey + " --encryption-scheme cens " + source + to), 2, "--encryption-scheme: unknown scheme 'cens' (cenc or cbcs)"},
        {mux("--key-id " + kKid + " --key " + kKey + " --encryption-scheme cbcs -f smooth " + source + to), 2, "--encryption-scheme cbcs is DASH only"},
        {mux("--key-id " + kKid + " --key " + kKey + " --constant-iv " + kKey + " " + source + to), 2, "--constant-iv needs --encryption-scheme cbcs"},
        {mux("--key-id " + kKid + " --key " + kKey + " --encryption-scheme cbcs --constant-iv 0011 " + source + to), 2, "--constant-iv: the IV is not 32 hexadecimal"},
        {mux("--encryption-scheme cbcs " + source + to), 2, "--encryption-scheme needs encryption"},
        {mux("--kms-key-url http://127.0.0.1:9/k " + source + to), 2, "--kms-resource-id: a key server needs the resource id"},
        {mux("--kms-resource-id r --kms-key-url ftp://x " + source + to), 2, "--kms-key-url: 'ftp://x' is not an http:// or https:// address"},
        {mux("--kms-resource-id r --kms-key-url http://127.0.0.1:9/k --key-period 4000 " + source + to), 2, "--key-period: '4000' is not a number of seconds"},
        {mux("--kms-resource-id r --kms-key-url http://127.0.0.1:9/k --key " + kKey + " " + source + to), 2, "--key-id, --key and --key-seed do not go with it"},
        {mux("--kms-resource-id r --kms-key-url http://127.0.0.1:9/k --kms-timeout 0.05 " + source + to), 2, "--kms-timeout: '0.05' is not a number of seconds from 0.1 to 60"},
        {mux("--widevine-key-server http://127.0.0.1:9/w --kms-resource-id r --kms-key-url http://127.0.0.1:9/k " + source + to), 2, "the keys come from one key server"},
        {mux("--widevine-key-server http://127.0.0.1:9/w " + source + to), 2, "--kms-content-id: the key server needs the content id"},
        {mux("--buydrm-key-server http://127.0.0.1:9/b --kms-content-id c " + source + to), 2, "--buydrm-key-server needs the key id (--key-id)"},
        // A key server that never answers, and an operator who waits half a second for it.
        {mux("--kms-resource-id r --kms-key-url http://127.0.0.1:9/k --kms-wait 0.5 " + source + to), 1, "the key server did not answer within --kms-wait"},
        {mux("--irdeto-url http://127.0.0.1:9/i --vmx-url http://127.0.0.1:9/v " + source + to), 2, "the keys come from one key server"},
        {mux("--irdeto-url http://127.0.0.1:9/i --irdeto-account-id a " + source + to), 2, "--irdeto-account-id and --irdeto-content-id"},
        {mux("--irdeto-url http://127.0.0.1:9/i --irdeto-account-id a --irdeto-content-id c " + source + to), 2, "--drm playready and/or --drm widevine"},
        {mux("--irdeto-url http://127.0.0.1:9/i --irdeto-account-id a --irdeto-content-id c --drm clearkey " + source + to), 2, "--drm clearkey: Irdeto's ClearKey is not available"},
        {mux("--irdeto-url x --irdeto-account-id a --irdeto-content-id c --drm widevine " + source + to), 2, "--irdeto-url: 'x' is not an http:// or https:// address"},
        {mux("--vmx-url http://127.0.0.1:9/v " + source + to), 2, "a Verimatrix key server needs --vmx-url and --vmx-resource-id"},
        {mux("--vmx-url http://127.0.0.1:9/v --vmx-resource-id r --drm widevine " + source + to), 2, "--drm does not go with Verimatrix"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        const Outcome r = sh(c.command);
        EXPECT_EQ(r.exitCode, c.exitCode) << r.output;
        EXPECT_NE(r.output.find(c.message), npos) << r.output;
        EXPECT_EQ(r.output.find(kKey), npos) << "the key was quoted";
    }
    EXPECT_FALSE(fs::exists(out / "manifest.mpd"));
    EXPECT_FALSE(fs::exists(never));
    EXPECT_EQ(sh(std::string(FMP4MUX_PATH) + " --help").exitCode, 0);
    EXPECT_NE(sh(std::string(FMP4MUX_PATH) + " --version").output.find("fmp4mux"), npos);
}

// Once fmp4mux, reading h264.ts at its own pace, counts a chunk on its progress line (the event: no clock; into a
// pipe the first such line is written as soon as there is a chunk), a
// shell command runs ($pid is fmp4mux's, $3 its output folder). SIGHUP (the terminal went away) finishes the run as
// SIGINT does: the chunks under way, a static MPD, exit 0. The output folder taken away stops the run with a clear
// error rather than a manifest of missing files.
TEST(Fmp4muxEndToEnd, AHangUpOrTheOutputFolderRemovedDuringTheRun) {
    const struct { std::string name, action; int exitCode; std::string message; } cases[] = {
        {"hangup", "kill -HUP $pid", 0, "interrupted"}, {"removed", "rm -rf \"$3\"", 1, "was removed during the run"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path out = dir() / c.name;
        const std::string script = R"(mkfifo "$3.progress" && { "$1" --realtime "$2" "$3" 2>"$3.progress" & pid=$!;
            { while IFS= read -r line && [[ $line != *"| "[1-9]*" chunks"* ]]; do :; done; )" +
                                   c.action + R"(; cat; } <"$3.progress"; wait $pid; })";
        const Outcome r =
            sh("bash -c '" + script + "' fmp4mux " + std::string(FMP4MUX_PATH) + " " + q(made(kH264)) + " " + q(out));
        EXPECT_EQ(r.exitCode, c.exitCode) << r.output;
        EXPECT_NE(r.output.find(c.message), npos) << r.output;
        if (c.exitCode != 0) continue;
        expectValidMpd(out);
        EXPECT_NE(readText(out / "manifest.mpd").find("type=\"static\""), npos);
        EXPECT_GT(decodedVideo(joinTrack(out, "video0")).second, 0);
    }
}

// A full disk (here a file size limit of 64 KB) fails the run clearly: no temporary file is left, and no manifest
// lists a file that was not written.
TEST(Fmp4muxEndToEnd, AFullDiskFailsClearlyAndLeavesNoManifestOfWhatWasNotWritten) {
    const fs::path out = dir() / "full";
    const Outcome r = sh("ulimit -f 64; " + mux(q(made(kH264)) + " " + q(out)));
    EXPECT_EQ(r.exitCode, 1) << r.output;
    EXPECT_NE(r.output.find("File too large"), npos) << r.output;
    for (const auto& entry : fs::recursive_directory_iterator(out))
        EXPECT_EQ(entry.path().filename().string().find(".tmp"), npos) << entry.path();
    // Joining the video reports any file a manifest lists that is not there.
    if (fs::exists(out / "manifest.mpd")) {
        EXPECT_GT(decodedVideo(joinTrack(out, "video0")).second, 0);
    }
}

// An input that does not tell its rate (a pipe) has it measured, and the audio track carries its language.
TEST(Fmp4muxEndToEnd, APipedInputAnnouncesItsMeasuredRateAndItsAudioTrackItsLanguage) {
    const fs::path out = dir() / "piped-smooth";
    const Outcome r = sh("cat " + q(made(kH264)) + " | " + mux("-f smooth --language 0:1=fra - " + q(out)));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const std::string manifest = readText(out / "Manifest");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(manifest, m, std::regex("QualityLevel Index=\"0\" Bitrate=\"(\\d+)\" FourCC=\"H264\"")))
        << manifest;
    EXPECT_NEAR(std::stod(m[1]), 400000, 150000) << "kH264 is encoded at 400 kbit/s";
    // libavformat's demuxer measures the same packets, to the end of the input.
    const fs::path libav = dir() / "piped-smooth-libav";
    ASSERT_EQ(sh("cat " + q(made(kH264)) + " | " + mux("-f smooth --demuxer libavformat - " + q(libav))).exitCode, 0);
    EXPECT_NE(readText(libav / "Manifest").find("QualityLevel Index=\"0\" Bitrate=\"" + m[1].str() + "\""), npos);
    const Outcome language = sh("ffprobe -v error -show_entries stream_tags=language -of csv=p=0 " + q(joinTrack(out, "audio:0")));
    EXPECT_EQ(language.output, "fra\n");
}

// Standard input is a live input. Fed a file three times over with its times going on (ffmpeg -stream_loop), it
// keeps a timeline that goes forward, with no empty segment where the file starts again, and the MPD that ends
// the run lists the segments of the time-shift window, which decode.
// Run twice into one folder, a live channel's files never take a name its earlier run used (a CDN may have cached
// them): each run writes below a folder of its own, and the earlier run's folder goes once a window has passed.
TEST(Fmp4muxEndToEnd, LoopedStandardInputKeepsAForwardTimelineAndItsWindow) {
    const fs::path out = dir() / "looped";
    std::vector<std::string> runFolders;
    for (int run = 0; run < 2; ++run) {
        const Outcome r = sh("ffmpeg -hide_banner -loglevel error -nostdin -stream_loop 2 -i " + q(made(kH264)) +
                             " -map 0 -c copy -f mpegts - | " + mux("-f dash,hls --time-shift-buffer 6 - " + q(out)));
        ASSERT_EQ(r.exitCode, 0) << r.output;
        const std::string mpd = readText(out / "manifest.mpd");
        std::smatch m;
        ASSERT_TRUE(std::regex_search(mpd, m, std::regex("media=\"(run-[0-9T]+Z(-[0-9]+)?)/"))) << mpd;
        runFolders.push_back(m[1]);
    }
    EXPECT_NE(runFolders[0], runFolders[1]);
    EXPECT_FALSE(fs::exists(out / runFolders[0])) << "the earlier run's files stay";
    expectValidMpd(out);
    const std::string mpd = readText(out / "manifest.mpd");
    EXPECT_EQ(count(mpd, "<Representation "), 2u) << mpd;
    for (const char* id : {"video0", "audio1"}) {
        std::uint64_t end = 0;
        const Timeline list = representation(out, id).first;
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
    EXPECT_GT(decodedVideo(joinTrack(out, "video0")).second, 0);
    // The HLS playlists list the same window, from the media sequence number of the first segment in it.
    const auto playlists = expectValidHls(out);
    for (const char* id : {"video0", "audio1"}) {
        const std::string text = playlists.count(std::string(id) + ".m3u8") ? playlists.at(std::string(id) + ".m3u8") : "";
        std::vector<fs::path> files;
        std::smatch m;
        ASSERT_TRUE(std::regex_search(text, m, std::regex("#EXT-X-MAP:URI=\"([^\"]+)\""))) << text;
        files.push_back(out / m[1].str());
        const std::regex uriLine("\n([^#\n][^\n]*)");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), uriLine); it != std::sregex_iterator(); ++it)
            files.push_back(out / (*it)[1].str());
        EXPECT_EQ(files, representation(out, id).second) << text;
        ASSERT_TRUE(std::regex_search(text, m, std::regex("#EXT-X-MEDIA-SEQUENCE:([0-9]+)\n"))) << text;
        EXPECT_GT(std::stoul(m[1]), 3u) << "segments left the window";
    }
}

// fmp4mux's own MPEG-TS reader and libavformat's hand the packager the same packets: on every TS input it takes,
// the two runs write the same files, byte for byte (media, MPD and playlists, or the Smooth manifest).
struct BothDemuxers {
    std::string name;
    std::vector<Source> inputs;
    std::string args = "-f dash,hls";
};
void PrintTo(const BothDemuxers& p, std::ostream* os) { *os << p.name; }
class Demuxers : public ::testing::TestWithParam<BothDemuxers> {};

TEST_P(Demuxers, WriteTheSameFiles) {
    const BothDemuxers& p = GetParam();
    const fs::path own = dir() / ("own-" + p.name), libav = dir() / ("libav-" + p.name);
    const Outcome a = package(p.args, p.inputs, own), b = package(p.args + " --demuxer libavformat", p.inputs, libav);
    ASSERT_EQ(a.exitCode, 0) << a.output;
    ASSERT_EQ(b.exitCode, 0) << b.output;
    std::set<fs::path> files;
    for (const fs::path& top : {own, libav})
        for (const auto& entry : fs::recursive_directory_iterator(top))
            if (entry.is_regular_file() && entry.path().filename() != ".fmp4mux.lock")
                files.insert(fs::relative(entry.path(), top));
    EXPECT_GT(files.size(), 4u);
    for (const fs::path& file : files)
        EXPECT_TRUE(fs::exists(own / file) && fs::exists(libav / file) &&
                    testkit::readFile(own / file) == testkit::readFile(libav / file))
            << file;
}

INSTANTIATE_TEST_SUITE_P(
    TsInputs, Demuxers,
    ::testing::Values(BothDemuxers{"H264", {kH264}}, BothDemuxers{"Hevc", {kHevc}}, BothDemuxers{"Mp2", {kVideoAndMp2}},
                      BothDemuxers{"Ac3Smooth", {kVideoAndAc3}, "-f smooth"}, BothDemuxers{"Gop4", {kGop4}},
                      BothDemuxers{"RenditionsApart", {kLow, kMidLater, kHigh}},
                      BothDemuxers{"RenditionsWithAudio", {kLowWithAudio, kMid, kHighWithAudio}, "--map 0:v --map 1:v --map 2:v --map 0:a"},
                      BothDemuxers{"FirstProgram", {kTwoPrograms}}, BothDemuxers{"ProgramTwo", {kTwoPrograms}, "--program 2"},
                      BothDemuxers{"JumpForward", {kJumpForward}}, BothDemuxers{"JumpBack", {kJumpBack}},
                      BothDemuxers{"AcrossTheWrap", {kAcrossTheWrap}},
                      // HLS would date its segments by the wall clock once there are splices to date.
                      BothDemuxers{"Scte35", {kWithCues}, "-f dash"}),
    [](const auto& test) { return test.param.name; });

// The PMT of one of ffmpeg's TS packets (PID 0x1000) at version 1 without the stream on `pid`: the entry leaves its
// loop, section_length and CRC_32 (CRC-32/MPEG-2) are written again.
void withoutStream(std::uint8_t* packet, unsigned pid) {
    std::uint8_t* s = packet + 5 + packet[4];
    std::size_t length = ((s[1] & 0x0Fu) << 8) | s[2];
    s[5] = static_cast<std::uint8_t>((s[5] & 0xC1) | (1 << 1));
    for (std::size_t at = 12 + (((s[10] & 0x0Fu) << 8) | s[11]); at + 5 <= length + 3 - 4;) {
        const std::size_t entry = 5 + (((s[at + 3] & 0x0Fu) << 8) | s[at + 4]);
        if ((((s[at + 1] & 0x1Fu) << 8) | s[at + 2]) != pid) {
            at += entry;
            continue;
        }
        std::copy(s + at + entry, s + length + 3, s + at);
        length -= entry;
        break;
    }
    s[1] = static_cast<std::uint8_t>((s[1] & 0xF0) | (length >> 8));
    s[2] = static_cast<std::uint8_t>(length);
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i < length + 3 - 4; ++i) {
        crc ^= static_cast<std::uint32_t>(s[i]) << 24;
        for (int k = 0; k < 8; ++k) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    for (int i = 0; i < 4; ++i) s[length - 1 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
    std::fill(s + length + 3, packet + 188, 0xFF);
}

// A fixture (the h264 one unless told) with its audio PID gone from the middle on (null packets instead) and,
// unless told otherwise, its PMT changed to say so; or gone from 0.5 s to 5.5 s only, a gap.
std::vector<std::uint8_t> withoutAudioFromTheMiddle(bool pmtSaysSo = true, bool gap = false, const Source& source = kH264) {
    std::vector<std::uint8_t> ts = testkit::readFile(made(source));
    const std::size_t packets = ts.size() / 188;
    for (std::size_t k = gap ? packets / 12 : packets / 2; k < (gap ? packets * 11 / 12 : packets); ++k) {
        std::uint8_t* p = &ts[k * 188];
        const unsigned pid = ((p[1] & 0x1Fu) << 8) | p[2];
        if (pid == 0x101) {
            p[1] = 0x1F;
            p[2] = 0xFF;
        }
        if (pmtSaysSo && pid == 0x1000 && (p[1] & 0x40) != 0) withoutStream(p, 0x101);
    }
    return ts;
}

// The audio leaves the program half way (after 3 of the 6 s): it ends there, and the video goes on without it to its
// last frame, in segments of 2 s (waiting for the audio, the last two would be one at the end). Or the audio just
// stops coming while the PMT still lists it: at the stream timeout silent frames take its place, to the end, in
// every audio format that silence is made for: AAC stereo and 5.1 in ADTS, AAC in LATM, AC-3 5.1, E-AC-3 and MP2,
// each decoded without an error in the channel layout it came in.
TEST(Fmp4muxEndToEnd, AStreamThatLeavesTheProgramEndsAndOneThatFallsSilentIsFilledWithSilence) {
    const std::vector<std::pair<Source, bool>> rows{
        {kH264, true},         {kH264, false},           {kVideoAndAac51, false}, {kVideoAndLatm, false},
        {kVideoAndAc3, false}, {kVideoAndEac3Ts, false}, {kVideoAndMp2, false}};
    for (const auto& [source, pmtSaysSo] : rows) {
        const std::string name = (pmtSaysSo ? "audio-leaves-" : "audio-silent-") + fs::path(source.name).stem().string();
        const fs::path input = dir() / (name + ".ts"), out = dir() / name;
        testkit::writeFile(input.string(), withoutAudioFromTheMiddle(pmtSaysSo, false, source));
        const Outcome r = sh(mux("--stream-timeout 1 " + q(input) + " " + q(out)));
        ASSERT_EQ(r.exitCode, 0) << r.output;
        EXPECT_NE(r.output.find(pmtSaysSo ? "input 0 stream 1: it left the program"
                                          : "input 0 stream 1: nothing came for 1 s while the others went on; "
                                            "silence fills its gap"),
                  std::string::npos) << r.output;
        EXPECT_EQ(r.output.find("missing chunk"), std::string::npos) << r.output;
        EXPECT_EQ(r.output.find("input 0 transport: 1 new version of the program map") != std::string::npos, pmtSaysSo)
            << r.output;
        EXPECT_EQ(decodedVideo(joinTrack(out, "video0")).second, 150) << r.output;
        EXPECT_EQ(representation(out, "video0").second.size(), 4u) << name;  // the init segment and three of 2 s
        const long audio = decodedAudio(joinTrack(out, "audio1"));
        EXPECT_GT(audio, pmtSaysSo ? 48000 * 2 : 48000 * 11 / 2) << name;
        EXPECT_LT(audio, pmtSaysSo ? 48000 * 4 : 48000 * 13 / 2) << name;
        EXPECT_EQ(channelLayout(joinTrack(out, "audio1")), channelLayout(made(source))) << name;
    }
}

// An encoder restarted with another picture size: with the parameter sets in the sample description the operator
// is told that players cannot follow it; with them in the samples every picture decodes, at both sizes.
TEST(Fmp4muxEndToEnd, ChangedParameterSetsAreSaidOrCarriedInTheSamples) {
    for (const bool inBand : {false, true}) {
        const fs::path out = dir() / (inBand ? "resized-in-band" : "resized");
        const Outcome r = sh(mux((inBand ? "--in-band-parameter-sets " : "") + q(made(kResized)) + " " + q(out)));
        ASSERT_EQ(r.exitCode, 0) << r.output;
        EXPECT_EQ(r.output.find("input 0 stream 0: its sequence parameter set changed at ") == npos, inBand) << r.output;
        if (!inBand) continue;
        const std::string widths = "ffprobe -v error -select_streams v:0 -show_entries frame=width -of default=nw=1:nk=1 " +
                                   q(joinTrack(out, "video0")) + " | grep -cx ";
        // 150 pictures of each size, less at most one at the join.
        EXPECT_GE(std::stoi(sh(widths + "640").output), 149);
        EXPECT_GE(std::stoi(sh(widths + "960").output), 149);
        const Outcome decoded = sh("ffmpeg -hide_banner -loglevel error -nostdin -xerror -i " + q(joinTrack(out, "video0")) +
                                   " -f null -");
        EXPECT_EQ(decoded.exitCode, 0) << decoded.output;
    }
}

// The audio stops for 5 of the 6 s and comes back: a gap longer than a timestamp jump's bound (4 s here), but not a
// jump of the input, which would move the video back and lose it; and shorter than a file's stream timeout: the
// audio comes back in.
// The audio frames that overlap where a source starts again (looped, or spliced a little back) are cut, not the
// PES that holds them: no two frames take one time, and all but a few frames per seam are kept.
TEST(Fmp4muxEndToEnd, AnOverlappingSeamTakesEachAudioInstantOnce) {
    const struct { Source source; fs::path once; int copies; long frame; } cases[] = {
        {kLooped, kSample, 3, 1024},
        {overlappingSplice("splice-ac3.ts", kVideoAndAc3), path(kVideoAndAc3), 2, 1536},
        {overlappingSplice("splice-mp2.ts", kVideoAndMp2), path(kVideoAndMp2), 2, 1152},
        {overlappingSplice("splice-latm.ts", kVideoAndLatm), path(kVideoAndLatm), 2, 1024},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source.name);
        const fs::path out = dir() / ("out-" + c.source.name);
        const Outcome r = package("", {c.source}, out);
        ASSERT_EQ(r.exitCode, 0) << r.output;
        const fs::path track = joinTrack(out, "audio1");
        std::istringstream times(
            sh("ffprobe -v error -select_streams a:0 -show_entries packet=dts -of csv=p=0 " + q(track)).output);
        long long last = -1, t = 0, frames = 0;
        for (; times >> t; ++frames, last = t) EXPECT_GT(t, last) << "frame " << frames;
        const long once = decodedAudio(c.once) / c.frame;
        EXPECT_GE(frames, c.copies * (once - 4)) << r.output;  // a PES dropped whole would lose 8 and more
        EXPECT_LE(frames, c.copies * once);
    }
}

TEST(Fmp4muxEndToEnd, AGapInOneStreamIsKeptAsAGap) {
    const fs::path input = dir() / "audio-gap.ts", out = dir() / "audio-gap";
    testkit::writeFile(input.string(), withoutAudioFromTheMiddle(false, true));
    const Outcome r = sh(mux(q(input) + " " + q(out)));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(r.output.find("timestamps jump"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("it ends here"), std::string::npos) << r.output;
    EXPECT_EQ(decodedVideo(joinTrack(out, "video0")).second, 150) << r.output;
    EXPECT_EQ(representation(out, "video0").second.size(), 4u);  // the init segment and three of 2 s
    const long audio = decodedAudio(joinTrack(out, "audio1"));  // about 0.5 s before the gap and 0.5 s after
    EXPECT_GT(audio, 48000 / 2);
    EXPECT_LT(audio, 48000 * 3 / 2);
}

// An MPEG-TS damaged every way at once: its audio gone from the middle on, as above; a dozen packets overwritten
// with noise; 30000 bytes cut out of it (off the packet grid); its last packet cut short. fmp4mux reads it to the
// end, says what it lost, and what it wrote decodes without error.
TEST(Fmp4muxEndToEnd, ADamagedTransportStreamIsReadToTheEndAndItsLossesAreSaid) {
    std::vector<std::uint8_t> ts = withoutAudioFromTheMiddle();
    const std::size_t packets = ts.size() / 188;
    std::mt19937 noise(7);
    for (int i = 0; i < 12; ++i) {
        const std::size_t k = 20 + noise() % (packets - 40);
        for (std::size_t j = 0; j < 188; ++j) ts[k * 188 + j] = static_cast<std::uint8_t>(noise());
    }
    const auto cut = ts.begin() + static_cast<std::ptrdiff_t>(packets * 3 / 4 * 188 + 77);
    ts.erase(cut, cut + 30000);
    ts.resize(ts.size() - 100);
    const fs::path input = dir() / "damaged.ts", out = dir() / "damaged";
    testkit::writeFile(input.string(), ts);
    const Outcome r = sh(mux(q(input) + " " + q(out)));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(std::regex_search(r.output, std::regex("input 0 lost [1-9][0-9]* transport packets"))) << r.output;
    EXPECT_TRUE(std::regex_search(r.output, std::regex("input 0 transport: .*[1-9][0-9]* loss(es)? of the packet grid")))
        << r.output;
    const Outcome video = sh("ffmpeg -hide_banner -loglevel error -nostdin -xerror -i " + q(joinTrack(out, "video0")) +
                             " -f null -");
    EXPECT_EQ(video.exitCode, 0) << video.output;
    EXPECT_GT(decodedVideo(joinTrack(out, "video0")).second, 0);
    EXPECT_GT(decodedAudio(joinTrack(out, "audio1")), 0);
}
}  // namespace
