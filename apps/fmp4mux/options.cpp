#include "apps/fmp4mux/options.h"

#include <cstdlib>
#include <limits>

#include "support/variable_expander/variable_expander.h"

namespace fmp4mux {

namespace ve = tvrn::encoding::variable_expander;

std::string Options::initTemplateOrDefault() const {
    if (initTemplate) return *initTemplate;
    return dash ? ve::kDefaultDashInit : ve::kDefaultSmoothInit;
}

std::string Options::mediaTemplateOrDefault() const {
    if (mediaTemplate) return *mediaTemplate;
    return dash ? ve::kDefaultDashMedia : ve::kDefaultSmoothMedia;
}

std::string usageText() {
    return R"(Usage: fmp4mux [options] INPUT... OUTDIR

Packages every H.264, HEVC and AAC stream of the inputs into fragmented MP4 chunks with a DASH MPD or a
Smooth Streaming client manifest. Several inputs are renditions of one presentation (for example three
MPEG-TS files with aligned GOPs). INPUT is anything libavformat opens: a file (MPEG-TS, MP4), udp://...,
srt://..., or - for standard input.

Output:
  -f, --format dash|smooth        output flavour (default dash)
  -m, --mode MODE                 gop (default): segments of whole GOPs, cut at common key frames;
                                  gop-alt: the same, with another numbering of missing chunks;
                                  separate-audio: audio cut on its own duration
  -g, --gop-duration MS           GOP duration of the inputs (default 2000)
  -n, --gops-per-segment N        GOPs in a segment (default 1)
      --audio-segment-duration MS audio segment duration in separate-audio mode (default: the segment duration)
      --chunk-duration MS         chunk duration of the low-latency mode (default 500)
      --in-band-parameter-sets    DASH: parameter sets in the samples (avc3/hev1)
      --all-video-in-init         DASH: every video sample entry in each init segment
      --drift-detection           restart numbering when the input drifts from the wall clock
      --first-number N            number of the first chunk (default 1)
      --stream-name NAME          the session name, ${sessionId} in templates (default live)
      --init-template TEMPLATE    name of init files (default per format, see below)
      --media-template TEMPLATE   name of media files (default per format, see below)
      --time-shift-buffer SECONDS live DASH: how much of the past the MPD keeps (default 60)

Streams (STREAM_ID is INPUT:STREAM, both from 0, e.g. 0:1 for the second stream of the first input):
      --bitrate STREAM_ID=BPS     bitrate announced for a stream
      --language STREAM_ID=CODE   ISO 639 language of a stream
      --name STREAM_ID=NAME       name of a stream

Running:
      --realtime                  pace file inputs by their timestamps, as a live source would
  -q, --quiet                     no progress line
  -v, --verbose                   more log lines (repeat for debug)
  -h, --help                      this text
  -V, --version                   the version

Templates use ${sessionId}, ${adaptationSetId}, ${representationId}, ${bitrate}, ${time}, ${number}.
DASH defaults: ${sessionId}/${adaptationSetId}/${representationId}/init.mp4 and
  ${sessionId}/${adaptationSetId}/${representationId}/chunk_${time}.mp4
Smooth defaults: ${sessionId}/${adaptationSetId}/${bitrate}/smooth_init.mp4 and
  ${sessionId}/${adaptationSetId}/${bitrate}/smooth_segment_${time}

Exit codes: 0 done; 1 packaging failed; 2 bad command line or template; 3 input missing, unreadable or with
nothing to package; 4 output folder not writable.
)";
}

namespace {

bool parseInteger(const std::string& text, long long low, long long high, long long& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high) return false;
    value = v;
    return true;
}

}  // namespace

ParseResult parseOptions(int argc, char** argv, Options& options, std::string& error) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasInlineValue = false;
        if (arg.rfind("--", 0) == 0) {
            const auto eq = arg.find('=');
            if (eq != std::string::npos && arg.find("--bitrate") != 0 && arg.find("--language") != 0 &&
                arg.find("--name") != 0) {
                value = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
                hasInlineValue = true;
            }
        }
        auto next = [&](std::string& out) -> bool {
            if (hasInlineValue) {
                out = value;
                return true;
            }
            if (i + 1 >= argc) {
                error = "option " + arg + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        auto number = [&](long long low, long long high, long long& out) -> bool {
            std::string text;
            if (!next(text)) return false;
            if (!parseInteger(text, low, high, out)) {
                error = "option " + arg + ": '" + text + "' is not a number from " + std::to_string(low) + " to " +
                        std::to_string(high);
                return false;
            }
            return true;
        };
        auto streamSetting = [&](std::string& selector, std::string& setting) -> bool {
            std::string text;
            if (!next(text)) return false;
            const auto eq = text.find('=');
            const auto colon = text.find(':');
            long long a = 0, b = 0;
            if (eq == std::string::npos || colon == std::string::npos || colon > eq ||
                !parseInteger(text.substr(0, colon), 0, 1000, a) ||
                !parseInteger(text.substr(colon + 1, eq - colon - 1), 0, 1000, b)) {
                error = "option " + arg + " takes INPUT:STREAM=VALUE, not '" + text + "'";
                return false;
            }
            selector = std::to_string(a) + ":" + std::to_string(b);
            setting = text.substr(eq + 1);
            return true;
        };
        long long n = 0;
        std::string text;
        if (arg == "-h" || arg == "--help") return ParseResult::Help;
        if (arg == "-V" || arg == "--version") return ParseResult::Version;
        if (arg == "-f" || arg == "--format") {
            if (!next(text)) return ParseResult::Error;
            if (text == "dash")
                options.dash = true;
            else if (text == "smooth")
                options.dash = false;
            else {
                error = "unknown format '" + text + "' (dash or smooth)";
                return ParseResult::Error;
            }
        } else if (arg == "-m" || arg == "--mode") {
            if (!next(text)) return ParseResult::Error;
            if (text == "gop")
                options.mode = 0;
            else if (text == "separate-audio")
                options.mode = 1;
            else if (text == "gop-alt")
                options.mode = 2;
            else {
                error = "unknown mode '" + text + "' (gop, gop-alt or separate-audio)";
                return ParseResult::Error;
            }
        } else if (arg == "-g" || arg == "--gop-duration") {
            if (!number(1, 600000, n)) return ParseResult::Error;
            options.gopDurationMs = static_cast<std::int32_t>(n);
        } else if (arg == "-n" || arg == "--gops-per-segment") {
            if (!number(1, 1000, n)) return ParseResult::Error;
            options.gopsPerSegment = static_cast<std::uint32_t>(n);
        } else if (arg == "--audio-segment-duration") {
            if (!number(1, 600000, n)) return ParseResult::Error;
            options.audioSegmentDurationMs = static_cast<std::int32_t>(n);
        } else if (arg == "--chunk-duration") {
            if (!number(1, 600000, n)) return ParseResult::Error;
            options.chunkDurationMs = static_cast<std::int32_t>(n);
        } else if (arg == "--in-band-parameter-sets") {
            options.inBandParameterSets = true;
        } else if (arg == "--all-video-in-init") {
            options.allVideoInInit = true;
        } else if (arg == "--drift-detection") {
            options.driftDetection = true;
        } else if (arg == "--first-number") {
            if (!number(0, std::numeric_limits<std::int32_t>::max(), n)) return ParseResult::Error;
            options.firstNumber = static_cast<std::int32_t>(n);
        } else if (arg == "--stream-name") {
            if (!next(text)) return ParseResult::Error;
            if (text.empty() || text.find('/') != std::string::npos) {
                error = "the stream name must be a non-empty name without '/'";
                return ParseResult::Error;
            }
            options.streamName = text;
        } else if (arg == "--init-template") {
            if (!next(text)) return ParseResult::Error;
            options.initTemplate = text;
        } else if (arg == "--media-template") {
            if (!next(text)) return ParseResult::Error;
            options.mediaTemplate = text;
        } else if (arg == "--time-shift-buffer") {
            if (!number(1, 86400, n)) return ParseResult::Error;
            options.timeShiftBufferSeconds = static_cast<std::uint32_t>(n);
        } else if (arg == "--bitrate" || arg == "--language" || arg == "--name") {
            std::string selector, setting;
            if (!streamSetting(selector, setting)) return ParseResult::Error;
            auto& stream = options.streams[selector];
            if (arg == "--bitrate") {
                long long bps = 0;
                if (!parseInteger(setting, 1, 0x7FFFFFFF, bps)) {
                    error = "--bitrate " + selector + ": '" + setting + "' is not a bitrate in bits per second";
                    return ParseResult::Error;
                }
                stream.bitrate = static_cast<std::uint32_t>(bps);
            } else if (arg == "--language") {
                stream.language = setting;
            } else {
                stream.name = setting;
            }
        } else if (arg == "--realtime") {
            options.realtime = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options.quiet = true;
        } else if (arg == "-v" || arg == "--verbose") {
            ++options.verbosity;
        } else if (arg.size() > 1 && arg[0] == '-' ) {
            error = "unknown option " + arg;
            return ParseResult::Error;
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() < 2) {
        error = "give at least one INPUT and the OUTDIR";
        return ParseResult::Error;
    }
    options.outputDirectory = positional.back();
    positional.pop_back();
    options.inputs = positional;

    const int validatorMode = options.dash ? 1 : 0;
    std::string why;
    if (!ve::validateInitTemplate(validatorMode, false, options.initTemplateOrDefault(), why)) {
        error = "init template '" + options.initTemplateOrDefault() + "': " + why;
        return ParseResult::Error;
    }
    if (!ve::validateMediaTemplate(validatorMode, options.mediaTemplateOrDefault(), why)) {
        error = "media template '" + options.mediaTemplateOrDefault() + "': " + why;
        return ParseResult::Error;
    }
    return ParseResult::Run;
}

}  // namespace fmp4mux
