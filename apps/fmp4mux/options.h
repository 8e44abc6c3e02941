#pragma once
// The command line of fmp4mux.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fmp4mux {

// Per-stream settings, keyed by "INPUT:STREAM" (both counted from 0, streams as the input lists them).
struct StreamSettings {
    std::optional<std::uint32_t> bitrate;
    std::optional<std::string> language;
    std::optional<std::string> name;
};

struct Options {
    bool dash = true;
    std::uint32_t mode = 0;  // 0 gop segments, 1 separate audio segments, 2 gop segments (alt), 3 low latency
    std::int32_t gopDurationMs = 2000;
    std::uint32_t gopsPerSegment = 1;
    std::optional<std::int32_t> audioSegmentDurationMs;
    std::int32_t chunkDurationMs = 500;
    bool inBandParameterSets = false;
    bool allVideoInInit = false;
    bool driftDetection = false;
    std::int32_t firstNumber = 1;
    std::string streamName = "live";
    std::map<std::string, StreamSettings> streams;
    std::optional<std::string> initTemplate;
    std::optional<std::string> mediaTemplate;
    bool realtime = false;
    std::uint32_t timeShiftBufferSeconds = 60;
    bool quiet = false;
    int verbosity = 1;  // 0 errors, 1 warnings, 2 information, 3 debug
    std::vector<std::string> inputs;
    std::string outputDirectory;

    std::string initTemplateOrDefault() const;
    std::string mediaTemplateOrDefault() const;
};

enum class ParseResult { Run, Help, Version, Error };

// Fills `options`; on Error, `error` says what is wrong.
ParseResult parseOptions(int argc, char** argv, Options& options, std::string& error);

std::string usageText();

}  // namespace fmp4mux
