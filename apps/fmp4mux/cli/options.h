#pragma once
// The command line of fmp4mux.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/cli/encryption_options.h"
#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/model/track.h"

namespace fmp4mux {

// Per-stream settings, keyed by "INPUT:STREAM" (both counted from 0, streams as the input lists them).
struct StreamSettings {
    std::optional<std::uint32_t> bitrate;
    std::optional<std::string> language;
    std::optional<std::string> name;
    std::vector<Descriptor> descriptors;  // --role, --descriptor: of its adaptation set
};

// One --map: a stream of an input ("1:0"), or every video ("1:v") or audio ("1:a") stream of an input.
struct StreamSelector {
    int input = 0;
    std::optional<int> stream;  // the stream's index in its input; unset when the selector names a kind
    std::string kind;           // "video" or "audio" when `stream` is unset
    std::string text;           // as written on the command line, for messages

    bool matches(const StreamInfo& info) const;
};

struct Options {
    bool dash = true;   // CMAF media files, for DASH and HLS; Smooth Streaming's otherwise
    bool mpd = true;    // the formats' manifests (-f): a DASH MPD, HLS playlists
    bool hls = false;
    std::uint32_t mode = 0;  // 0 gop segments, 1 separate audio segments, 2 gop segments (alt), 3 low latency
    std::int32_t gopDurationMs = 2000;
    bool gopDurationGiven = false;  // -g was given; otherwise the input's key-frame interval is measured
    std::uint32_t gopsPerSegment = 1;
    std::optional<std::int32_t> audioSegmentDurationMs;
    std::int32_t chunkDurationMs = 500;
    // --serve: the built-in HTTP origin's address and port; --push: the origin every file is sent to.
    std::optional<std::string> serveAddress;
    std::uint16_t servePort = 0;
    std::optional<std::string> pushUrl;
    bool inBandParameterSets = false;
    bool allVideoInInit = false;
    bool driftDetection = false;
    std::int32_t firstNumber = 1;
    std::string streamName = "live";
    std::map<std::string, StreamSettings> streams;
    std::vector<StreamSelector> maps;  // empty: every stream is packaged
    std::optional<std::string> initTemplate;
    std::optional<std::string> mediaTemplate;
    std::optional<int> program;  // of an input with several programs; the first by default
    bool libavDemuxer = false;   // MPEG-TS read with libavformat rather than fmp4mux's own reader
    bool realtime = false;
    // Seconds of media an audio or video stream may deliver nothing while its input goes on, before it is ended;
    // 0 never; unset: three segments, at least 6 for a live input and 30 for a file.
    std::optional<std::uint32_t> streamTimeoutSeconds;
    std::vector<int> follow;  // subtitle inputs read as they grow (named pipes are, always)
    std::uint32_t timeShiftBufferSeconds = 60;
    bool quiet = false;
    int verbosity = 1;  // 0 errors, 1 warnings, 2 information, 3 debug
    EncryptionOptions encryption;
    std::vector<std::string> inputs;
    std::string outputDirectory;

    bool lowLatency() const { return mode == 3; }
    std::string initTemplateOrDefault() const;
    std::string mediaTemplateOrDefault() const;
};

enum class ParseResult { Run, Help, Version, Error };

// Fills `options`; on Error, `error` says what is wrong.
ParseResult parseOptions(int argc, char** argv, Options& options, std::string& error);

std::string usageText();

// Checks that the templates expand, so that a syntax error stops the run before anything starts. False, with
// `error` saying why, when one does not.
bool checkTemplateSyntax(const Options& options, std::string& error);

// Refuses (ExitError, bad command line) an input file inside the output folder, where the run could overwrite it.
void checkInputsOutsideOutput(const Options& options);

// Which streams of each input (`inputs[i]` is input i's stream list) are packaged: every one when there is no
// selector, otherwise those that some selector matches. False, with `error` naming the selector, when a selector
// matches no stream.
bool selectStreams(const std::vector<StreamSelector>& maps, const std::vector<std::vector<StreamInfo>>& inputs,
                   std::vector<std::vector<bool>>& selected, std::string& error);

// One stream to package, with what the command line and the input say of it.
struct StreamPlan {
    int input = 0;
    std::size_t stream = 0;  // index in the input's stream list
    std::string label;       // "INPUT:STREAM"
    std::uint32_t bitrate = 0;
    bool bitrateGiven = false;
    std::string language;
    std::string name;        // its representation id
    std::vector<Descriptor> descriptors;
};

// The selected streams in input order, with their bitrates (given, the input's, or a default by kind; quality
// levels of one kind get distinct bitrates, since Smooth names their folders and URLs by them), languages and
// names. Raises ExitError when a stream setting names no stream or does not fit it, or two names are the same.
std::vector<StreamPlan> planStreams(const Options& options, const std::vector<std::vector<StreamInfo>>& inputs,
                                    const std::vector<std::vector<bool>>& selected);

}  // namespace fmp4mux
