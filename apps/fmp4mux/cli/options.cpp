#include "apps/fmp4mux/cli/options.h"

#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/model/track.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>
#include <regex>
#include <set>

#include "support/variable_expander/variable_expander.h"

namespace fmp4mux {

namespace ve = tvrn::encoding::variable_expander;

std::string Options::initTemplateOrDefault() const {
    if (initTemplate) return *initTemplate;
    return dash ? ve::kDefaultDashInit : ve::kDefaultSmoothInit;
}

std::string Options::mediaTemplateOrDefault() const {
    if (mediaTemplate) return *mediaTemplate;
    // Low-latency segments are announced by number: players reckon which one is growing from the clock.
    if (lowLatency()) return "${sessionId}/${adaptationSetId}/${representationId}/chunk_${number}.mp4";
    return dash ? ve::kDefaultDashMedia : ve::kDefaultSmoothMedia;
}

bool StreamSelector::matches(const StreamInfo& info) const {
    return info.input == input && (stream ? info.sourceIndex == *stream : info.kind == kind);
}

namespace {

bool isPlainName(const std::string& text) {
    if (text.empty() || text == "." || text == ".." || text.size() > 128) return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    });
}

// An ISO 639 code of two or three letters, with optional subtags ("en", "fra", "pt-BR"), as manifests take it.
bool isLanguageCode(const std::string& text) {
    static const std::regex code("[A-Za-z]{2,3}(-[A-Za-z0-9]{1,8})*");
    return std::regex_match(text, code);
}


// Base 10 only, the whole text: "010" is ten and "10ms" is refused.
bool parseInteger(const std::string& text, long long low, long long high, long long& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high) return false;
    value = v;
    return true;
}

// A refusal raised while an option's value is read, reported by parseOptions as it is worded (CLI11 would put the
// option's name before the text of its own validation errors).
struct Refusal : CLI::ParseError {
    explicit Refusal(const std::string& message) : CLI::ParseError("Refusal", message, CLI::ExitCodes::ValidationError) {}
};
[[noreturn]] void refuse(const std::string& message) { throw Refusal(message); }

// "INPUT:STREAM", both numbers from 0 to 1000, rewritten without leading zeros.
std::optional<std::string> streamId(const std::string& text) {
    const auto colon = text.find(':');
    long long input = 0, stream = 0;
    if (colon == std::string::npos || !parseInteger(text.substr(0, colon), 0, 1000, input) ||
        !parseInteger(text.substr(colon + 1), 0, 1000, stream))
        return std::nullopt;
    return std::to_string(input) + ":" + std::to_string(stream);
}

StreamSelector parseSelector(const std::string& text) {
    StreamSelector selector;
    selector.text = text;
    const auto colon = text.find(':');
    const std::string what = colon == std::string::npos ? "" : text.substr(colon + 1);
    long long input = 0, stream = 0;
    if (colon == std::string::npos || !parseInteger(text.substr(0, colon), 0, 1000, input) ||
        (what != "v" && what != "a" && !parseInteger(what, 0, 1000, stream)))
        refuse("--map takes INPUT:STREAM, INPUT:v or INPUT:a, not '" + text + "'");
    selector.input = static_cast<int>(input);
    if (what == "v" || what == "a")
        selector.kind = what == "v" ? "video" : "audio";
    else
        selector.stream = static_cast<int>(stream);
    return selector;
}

// The help as this command has always laid it out: "-f, --format dash|smooth" in a left column of 34, the
// groups in the order the options are defined, the positional arguments only in the usage line.
class HelpLayout : public CLI::Formatter {
public:
    HelpLayout() { column_width(34); }

    std::string make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const override {
        std::string out = "Usage: fmp4mux [options] INPUT... OUTDIR\n\n" + app->get_description() + "\n";
        for (const std::string& group : app->get_groups()) {
            if (group.empty()) continue;
            out += "\n" + group + ":\n";
            for (const CLI::Option* option : app->get_options([&](const CLI::Option* o) { return o->get_group() == group; }))
                out += make_option(option, false);
        }
        return out + "\n" + app->get_footer();
    }
    std::string make_option_name(const CLI::Option* option, bool) const override {
        const auto& shortNames = option->get_snames();
        return (shortNames.empty() ? "    " : "-" + shortNames.front() + ", ") + "--" + option->get_lnames().front();
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_type_size() == 0 ? "" : " " + option->get_type_name();
    }
};

// The command line's definition, for parsing and for the help. Options write into `options` as they are parsed.
struct CommandLine {
    CLI::App app;
    std::vector<std::string> positional;

    explicit CommandLine(Options& options);

    // An integer option from `low` to `high`.
    template <typename T>
    void number(const std::string& names, const char* unit, T& target, long long low, long long high,
                const std::string& description) {
        const std::string name = names.substr(names.rfind(',') + 1);
        app.add_option_function<std::string>(
               names,
               [&target, name, low, high](const std::string& text) {
                   long long value = 0;
                   if (!parseInteger(text, low, high, value))
                       refuse("option " + name + ": '" + text + "' is not a number from " + std::to_string(low) +
                              " to " + std::to_string(high));
                   target = static_cast<T>(value);
               },
               description)
            ->type_name(unit);
    }

    // A repeatable option, each value handed to `take` in command-line order.
    void repeatable(const std::string& name, const char* unit, const std::string& description,
                    std::function<void(const std::string&)> take) {
        app.add_option(name)
            ->description(description)
            ->type_name(unit)
            ->each(std::move(take))
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    }

    // --bitrate, --language and --name: INPUT:STREAM=VALUE.
    void streamSetting(Options& options, const std::string& name, const char* unit, const std::string& description,
                       std::function<void(StreamSettings&, const std::string& id, const std::string& value)> apply) {
        repeatable(name, unit, description, [&options, name, apply](const std::string& text) {
            const auto eq = text.find('=');
            const auto id = eq == std::string::npos ? std::nullopt : streamId(text.substr(0, eq));
            if (!id) refuse("option " + name + " takes INPUT:STREAM=VALUE, not '" + text + "'");
            apply(options.streams[*id], *id, text.substr(eq + 1));
        });
    }
};

CommandLine::CommandLine(Options& o) {
    app.name("fmp4mux");
    app.set_help_flag();  // -h is an ordinary flag here: its text is usageText()
    app.formatter(std::make_shared<HelpLayout>());
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // a repeated option: the last wins
    app.description(
        "Packages every H.264, HEVC and AAC stream of the inputs (or those that --map selects) into fragmented MP4\n"
        "chunks with a DASH MPD, HLS playlists (master.m3u8 and one per track) or a Smooth Streaming client\n"
        "manifest. Several inputs are renditions of one\n"
        "presentation (for example three MPEG-TS files with aligned GOPs). INPUT is anything libavformat opens: a\n"
        "file (MPEG-TS, MP4), udp://..., srt://..., or - for standard input; put -- before inputs that begin with -.");
    app.footer(R"(Templates use ${sessionId}, ${adaptationSetId}, ${representationId}, ${bitrate}, ${time}, ${number}.
DASH defaults: ${sessionId}/${adaptationSetId}/${representationId}/init.mp4 and
  ${sessionId}/${adaptationSetId}/${representationId}/chunk_${time}.mp4
Smooth defaults: ${sessionId}/${adaptationSetId}/${bitrate}/smooth_init.mp4 and
  ${sessionId}/${adaptationSetId}/${bitrate}/smooth_segment_${time}

Exit codes: 0 done; 1 packaging failed; 2 bad command line, template or --map; 3 input missing, unreadable or
with nothing to package; 4 output folder not writable.
)");
    app.add_option("INPUT", positional)->group("");  // INPUT... OUTDIR, told in the usage line

    app.option_defaults()->group("Output");
    app.add_option_function<std::string>(
           "-f,--format",
           [&o](const std::string& text) {
               std::set<std::string> formats;
               for (std::size_t at = 0; at <= text.size();) {
                   const std::size_t comma = std::min(text.find(',', at), text.size());
                   const std::string name = text.substr(at, comma - at);
                   if (name != "dash" && name != "hls" && name != "smooth")
                       refuse("unknown format '" + name + "' (dash, hls or smooth, or dash,hls)");
                   formats.insert(name);
                   at = comma + 1;
               }
               // Smooth Streaming media files are its own (absolute times, its own boxes, named by bitrate):
               // DASH and HLS cannot list them.
               if (formats.count("smooth") && formats.size() > 1)
                   refuse("smooth writes media files of its own that dash and hls cannot share: package smooth in "
                          "a run of its own");
               o.dash = !formats.count("smooth");
               o.mpd = formats.count("dash") > 0;
               o.hls = formats.count("hls") > 0;
           },
           "output formats, comma separated (default dash): dash (manifest.mpd),\n"
           "hls (master.m3u8 and a playlist per track), both sharing their media\n"
           "files, or smooth (Manifest) alone")
        ->type_name("FORMATS");
    app.add_option_function<std::string>(
           "-m,--mode",
           [&o](const std::string& text) {
               if (text == "gop")
                   o.mode = 0;
               else if (text == "separate-audio")
                   o.mode = 1;
               else if (text == "gop-alt")
                   o.mode = 2;
               else if (text == "low-latency")
                   o.mode = 3;
               else
                   refuse("unknown mode '" + text + "' (gop, gop-alt, separate-audio or low-latency)");
           },
           "gop (default): segments of whole GOPs, cut at common key frames;\n"
           "gop-alt: the same, with another numbering of missing chunks;\n"
           "separate-audio: audio cut on its own duration;\n"
           "low-latency (DASH, HLS): segments of equal chunks (--chunk-duration), each chunk\n"
           "written and served as soon as its samples exist")
        ->type_name("MODE");
    number("-g,--gop-duration", "MS", o.gopDurationMs, 100, 600000, "GOP duration of the inputs (default: measured on\nthe first video input, else 2000)");
    number("-n,--gops-per-segment", "N", o.gopsPerSegment, 1, 1000, "GOPs in a segment (default 1)");
    number("--audio-segment-duration", "MS", o.audioSegmentDurationMs, 1, 600000,
           "audio segment duration in separate-audio mode (default: the segment duration)");
    number("--chunk-duration", "MS", o.chunkDurationMs, 1, 600000, "chunk duration of the low-latency mode (default 500)");
    app.add_option_function<std::string>(
           "--serve",
           [&o](const std::string& text) {
               const auto colon = text.rfind(':');
               const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
               long long number = 0;
               if (!parseInteger(port, 0, 65535, number)) refuse("--serve takes [ADDR:]PORT, not '" + text + "'");
               o.servePort = static_cast<std::uint16_t>(number);
               o.serveAddress = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
           },
           "serve OUTDIR and the manifests over HTTP (default address 127.0.0.1);\n"
           "a segment still being written is sent chunk by chunk as it grows")
        ->type_name("[ADDR:]PORT");
    app.add_option_function<std::string>(
           "--push",
           [&o](const std::string& text) {
               if (text.rfind("http://", 0) != 0 && text.rfind("https://", 0) != 0)
                   refuse("--push takes an http:// or https:// URL, not '" + text + "'");
               o.pushUrl = text;
           },
           "send every file with HTTP PUT to the origin at URL as it is made")
        ->type_name("URL");
    app.add_flag("--in-band-parameter-sets", o.inBandParameterSets, "DASH: parameter sets in the samples (avc3/hev1)");
    app.add_flag("--all-video-in-init", o.allVideoInInit, "DASH: every video sample entry in each init segment");
    app.add_flag("--drift-detection", o.driftDetection, "restart numbering when the input drifts from the wall clock");
    number("--first-number", "N", o.firstNumber, 0, std::numeric_limits<std::int32_t>::max(),
           "number of the first chunk (default 1)");
    app.add_option_function<std::string>(
           "--stream-name",
           [&o](const std::string& text) {
               if (!isPlainName(text))
                   refuse("the stream name '" + text + "' must be a plain name: letters, digits, '-', '_' and '.', not "
                          "'.' or '..'");
               o.streamName = text;
           },
           "the session name, ${sessionId} in templates (default live)")
        ->type_name("NAME");
    app.add_option("--init-template", o.initTemplate, "name of init files (default per format, see below)")
        ->type_name("TEMPLATE");
    app.add_option("--media-template", o.mediaTemplate, "name of media files (default per format, see below)")
        ->type_name("TEMPLATE");
    number("--time-shift-buffer", "SECONDS", o.timeShiftBufferSeconds, 1, 86400,
           "live DASH: how much of the past the MPD keeps (default 60)");

    app.option_defaults()->group(
        "Streams (STREAM_ID is INPUT:STREAM, both from 0, e.g. 0:1 for the second stream of the first input)");
    repeatable("--map", "SELECTOR",
               "package only the selected streams (repeat it): STREAM_ID, INPUT:v for\n"
               "the video streams of an input, INPUT:a for its audio streams",
               [&o](const std::string& text) { o.maps.push_back(parseSelector(text)); });
    streamSetting(o, "--bitrate", "STREAM_ID=BPS", "bitrate announced for a stream",
                  [](StreamSettings& s, const std::string& id, const std::string& value) {
                      long long bps = 0;
                      if (!parseInteger(value, 1, 0x7FFFFFFF, bps))
                          refuse("--bitrate " + id + ": '" + value + "' is not a bitrate in bits per second");
                      s.bitrate = static_cast<std::uint32_t>(bps);
                  });
    streamSetting(o, "--language", "STREAM_ID=CODE", "ISO 639 language of a stream (three letters reach the track too)",
                  [](StreamSettings& s, const std::string& id, const std::string& value) {
                      if (!isLanguageCode(value))
                          refuse("--language " + id + ": '" + value + "' is not a language code (ISO 639, e.g. 'fra')");
                      s.language = value;
                  });
    streamSetting(o, "--name", "STREAM_ID=NAME", "name of a stream: its representation id, ${representationId}",
                  [](StreamSettings& s, const std::string& id, const std::string& value) {
                      if (!isPlainName(value))
                          refuse("--name " + id + ": '" + value + "' must be a plain name: letters, digits, '-', '_' and '.'");
                      s.name = value;
                  });

    // Descriptors of the stream's adaptation set: the MPD lists them, and the engine has them in its manifest.
    streamSetting(o, "--role", "STREAM_ID=VALUE", "DASH Role of a stream in the urn:mpeg:dash:role:2011 scheme (main,\n"
                  "alternate, commentary, dub, description, ...)",
                  [](StreamSettings& s, const std::string& id, const std::string& value) {
                      if (value.empty()) refuse("--role " + id + ": the role is empty");
                      s.descriptors.push_back({"Role", "urn:mpeg:dash:role:2011", value});
                  });
    streamSetting(o, "--descriptor", "STREAM_ID=ELEMENT,SCHEME,VALUE",
                  "a descriptor of a stream's adaptation set: ELEMENT is Accessibility,\n"
                  "Role, Rating or Viewpoint, SCHEME its scheme URI (VALUE may be empty)",
                  [](StreamSettings& s, const std::string& id, const std::string& text) {
                      const auto first = text.find(',');
                      const auto second = first == std::string::npos ? first : text.find(',', first + 1);
                      if (second == std::string::npos)
                          refuse("--descriptor " + id + ": '" + text + "' is not ELEMENT,SCHEME,VALUE");
                      Descriptor d{text.substr(0, first), text.substr(first + 1, second - first - 1), text.substr(second + 1)};
                      if (d.element != "Accessibility" && d.element != "Role" && d.element != "Rating" && d.element != "Viewpoint")
                          refuse("--descriptor " + id + ": '" + d.element +
                                 "' is not a descriptor element (Accessibility, Role, Rating or Viewpoint)");
                      if (d.scheme.empty() || d.scheme.find_first_of(" \t\"<>") != std::string::npos)
                          refuse("--descriptor " + id + ": '" + d.scheme + "' is not a scheme URI");
                      s.descriptors.push_back(std::move(d));
                  });

    app.option_defaults()->group("Encryption (Common Encryption, AES-128 CTR or CBC; keys stay out of logs)");
    EncryptionOptions& e = o.encryption;
    app.add_option("--key-id", e.keyIdText, "key id: UUID, 32 hexadecimal digits or base64")->type_name("KID");
    app.add_option("--key", e.keyText, "content key: 32 hexadecimal digits or base64")->type_name("KEY");
    app.add_option("--key-seed", e.keySeedText, "PlayReady key seed (base64) to derive the key from the key id")
        ->type_name("SEED");
    app.add_option("--key-file", e.keyFile, "a file of key_id=, key= and key_seed= lines, in place of the options\n"
                   "(and of encryption_scheme=, constant_iv=, and the kms_...=, irdeto_...=\n"
                   "and vmx_...= key server settings, passwords only there)")
        ->type_name("FILE");
    repeatable("--drm", "SYSTEM", "DRM system to signal (repeat it): clearkey, playready, widevine",
               [&e](const std::string& text) { e.drmSystems.push_back(text); });
    app.add_option("--playready-la-url", e.playReadyLicenceUrl, "PlayReady licence acquisition URL")->type_name("URL");
    app.add_option("--widevine-provider", e.widevineProvider, "Widevine provider name")->type_name("NAME");
    app.add_option("--widevine-content-id", e.widevineContentId, "Widevine content id (UUID)")->type_name("UUID");
    app.add_option("--drm-system-id", e.customSystemId, "another DRM system to signal, by its system id")
        ->type_name("UUID");
    app.add_option("--drm-pssh-data", e.customPsshData, "that system's pssh data (hexadecimal or base64)")
        ->type_name("DATA");
    app.add_option("--encryption-scheme", e.schemeText, "cenc (AES-CTR, the default) or cbcs (AES-CBC, 1:9 pattern\n"
                   "for video, constant IV; DASH only)")->type_name("cenc|cbcs");
    app.add_option("--constant-iv", e.constantIvText, "the cbcs constant IV: 32 hexadecimal digits or base64\n"
                   "(default: a random IV for each key)")->type_name("IV");
    app.add_option("--kms-key-url", e.kmsKeyUrl, "keys from a Harmonic KMS: its key provisioning address")->type_name("URL");
    app.add_option("--kms-session-url", e.kmsSessionUrl, "or its key session server (the server names the key address)")
        ->type_name("URL");
    app.add_option("--kms-backup-session-url", e.kmsBackupSessionUrl, "the backup key session server")->type_name("URL");
    app.add_option("--kms-resource-id", e.kmsResourceId, "the content's resource id at the key server")->type_name("ID");
    app.add_option("--kms-requestor-id", e.kmsRequestorId, "this packager's requestor id (key sessions)")->type_name("ID");
    app.add_option("--key-period", e.keyPeriodText, "seconds between key changes (0: one key; default 0)")
        ->type_name("SECONDS");
    app.add_option("--kms-ca-file", e.kmsCaFile, "CA certificates the key server's certificate is checked against")
        ->type_name("FILE");
    app.add_option("--kms-client-key", e.kmsClientKey, "client key and certificate (PEM) for the key server; its\n"
                   "password, if any, as kms_client_key_password= in --key-file")->type_name("FILE");
    app.add_option("--widevine-key-server", e.widevineKeyServer, "keys from a Widevine key server at this address\n"
                   "(signing key and IV as widevine_signing_key= and widevine_signing_iv= in --key-file)")->type_name("URL");
    app.add_option("--widevine-signer", e.widevineSigner, "the signer name of the Widevine requests")->type_name("NAME");
    app.add_option("--insidesecure-key-server", e.insideSecureKeyServer, "keys from an Inside Secure key server (PlayReady)")
        ->type_name("URL");
    app.add_option("--buydrm-key-server", e.buyDrmKeyServer, "the key of --key-id from a BuyDRM KeyOS server (PlayReady;\n"
                   "buydrm_user_key= and buydrm_server_key= in --key-file)")->type_name("URL");
    app.add_option("--kms-content-id", e.kmsContentId, "the content id at the Widevine, Inside Secure or BuyDRM server")
        ->type_name("ID");
    app.add_option("--kms-timeout", e.kmsTimeoutText, "seconds each stage of a key request may take (default 5)")
        ->type_name("SECONDS");
    app.add_option("--kms-wait", e.kmsWaitText, "give up when the key server has not answered at the start after\n"
                   "this many seconds (default: wait until interrupted)")->type_name("SECONDS");
    app.add_option("--irdeto-url", e.irdetoUrl, "keys from Irdeto's live DRM service at this address, for the\n"
                   "--drm systems (playready, widevine); the password as irdeto_password= in --key-file")
        ->type_name("URL");
    app.add_option("--irdeto-account-id", e.irdetoAccountId, "the account at Irdeto's service")->type_name("ID");
    app.add_option("--irdeto-content-id", e.irdetoContentId, "the content at Irdeto's service")->type_name("ID");
    app.add_option("--irdeto-user", e.irdetoUser, "the user name at Irdeto's service")->type_name("NAME");
    app.add_option("--irdeto-event", e.irdetoEventName, "create this live event at the start (its description,\n"
                   "address, types and policy group as irdeto_event_...= in --key-file)")->type_name("NAME");
    app.add_option("--irdeto-key-request-period", e.irdetoRequestPeriodText,
                   "seconds between requests for the same key (0: none; --key-period changes the key)")
        ->type_name("SECONDS");
    app.add_option("--vmx-url", e.vmxUrl, "keys from a Verimatrix key file server at this address")->type_name("URL");
    app.add_option("--vmx-resource-id", e.vmxResourceId, "the content's resource id at the Verimatrix server")
        ->type_name("ID");

    app.option_defaults()->group("Running");
    app.add_flag("--realtime", o.realtime, "pace file inputs by their timestamps, as a live source would");
    app.add_option_function<std::string>(
           "--stream-timeout",
           [&o](const std::string& text) {
               long long seconds = 0;
               if (!parseInteger(text, 0, 3600, seconds))
                   refuse("--stream-timeout takes seconds from 0 to 3600, not '" + text + "'");
               o.streamTimeoutSeconds = static_cast<std::uint32_t>(seconds);
           },
           "end an audio or video stream that delivers nothing for this many seconds of media\n"
           "while the rest of its input goes on, so that the others are still cut (0: never;\n"
           "default three segments, at least 6 for a live input and 30 for a file)")
        ->type_name("SECONDS");
    repeatable("--follow", "INPUT",
               "read subtitle input INPUT (its index) as another program writes it, cue by\n"
               "cue, until the media ends (WebVTT, SRT; a named pipe is always read so)",
               [&o](const std::string& text) {
                   long long index = 0;
                   if (!parseInteger(text, 0, 1000, index)) refuse("--follow takes an input's index, not '" + text + "'");
                   o.follow.push_back(static_cast<int>(index));
               });
    app.add_option_function<int>(
           "--program", [&o](int number) { o.program = number; },
           "the program to package of inputs with several (an MPTS), by its number (default the first)")
        ->type_name("N")
        ->check(CLI::Range(1, 65535));
    app.add_option_function<std::string>(
           "--demuxer",
           [&o](const std::string& name) {
               if (name != "internal" && name != "libavformat")
                   refuse("--demuxer is 'internal' or 'libavformat', not '" + name + "'");
               o.libavDemuxer = name == "libavformat";
           },
           "what reads MPEG-TS inputs: 'internal' (fmp4mux's own reader, the default) or\n"
           "'libavformat' (other containers are always read with libavformat)")
        ->type_name("NAME");
    app.add_flag("-q,--quiet", o.quiet, "no progress line");
    app.add_flag_function("-v,--verbose", [&o](std::int64_t count) { o.verbosity += static_cast<int>(count); },
                          "more log lines (repeat for debug: -vv)");
    // Acted on as soon as they are seen: a mistake elsewhere on the line does not hide the help.
    app.add_flag_function("-h,--help", [](std::int64_t) { throw CLI::CallForHelp(); }, "this text")->trigger_on_parse();
    app.add_flag_function("-V,--version", [](std::int64_t) { throw CLI::CallForVersion(); }, "the version")
        ->trigger_on_parse();
}

}  // namespace

std::string usageText() {
    Options unused;
    return CommandLine(unused).app.help();
}

ParseResult parseOptions(int argc, char** argv, Options& options, std::string& error) {
    CommandLine line(options);
    try {
        line.app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return ParseResult::Help;
    } catch (const CLI::CallForVersion&) {
        return ParseResult::Version;
    } catch (const CLI::ExtrasError&) {
        error = "unknown option " + line.app.remaining().front();
        return ParseResult::Error;
    } catch (const CLI::ParseError& e) {
        error = e.what();
        return ParseResult::Error;
    }
    if (line.positional.size() < 2) {
        error = "give at least one INPUT and the OUTDIR";
        return ParseResult::Error;
    }
    options.gopDurationGiven = line.app.count("--gop-duration") > 0;
    options.outputDirectory = line.positional.back();
    line.positional.pop_back();
    options.inputs = line.positional;
    if (std::count(options.inputs.begin(), options.inputs.end(), std::string("-")) > 1) {
        error = "standard input ('-') can be read only once";
        return ParseResult::Error;
    }

    try {
        finishEncryptionOptions(options.encryption);
    } catch (const std::exception& e) {
        error = e.what();
        return ParseResult::Error;
    }

    if (options.encryption.cbcs && !options.dash) {
        error = "--encryption-scheme cbcs is DASH only: Smooth Streaming (PlayReady) protection is cenc";
        return ParseResult::Error;
    }
    if (options.lowLatency() && !options.dash) {
        error = "the low-latency mode is for DASH and HLS only";
        return ParseResult::Error;
    }
    if (options.lowLatency() && options.mediaTemplateOrDefault().find("${number}") == std::string::npos) {
        error = "in the low-latency mode the media template names segments by ${number}";
        return ParseResult::Error;
    }
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
    for (const std::string& text : {options.initTemplateOrDefault(), options.mediaTemplateOrDefault()})
        if (!nameStaysInside(text, why)) {
            error = "template '" + text + "': " + why;
            return ParseResult::Error;
        }
    return ParseResult::Run;
}

bool selectStreams(const std::vector<StreamSelector>& maps, const std::vector<std::vector<StreamInfo>>& inputs,
                   std::vector<std::vector<bool>>& selected, std::string& error) {
    selected.clear();
    for (const auto& streams : inputs) selected.emplace_back(streams.size(), maps.empty());
    for (const StreamSelector& selector : maps) {
        bool matched = false;
        for (std::size_t i = 0; i < inputs.size(); ++i)
            for (std::size_t k = 0; k < inputs[i].size(); ++k)
                if (selector.matches(inputs[i][k])) {
                    selected[i][k] = true;
                    matched = true;
                }
        if (matched) continue;
        error = "--map " + selector.text + " matches no stream (";
        const auto input = static_cast<std::size_t>(selector.input);
        if (input >= inputs.size()) {
            error += inputs.size() == 1 ? "there is 1 input" : "there are " + std::to_string(inputs.size()) + " inputs";
        } else if (inputs[input].empty()) {
            error += "input " + std::to_string(input) + " has no stream that can be packaged";
        } else {
            error += "input " + std::to_string(input) + " has streams ";
            for (std::size_t k = 0; k < inputs[input].size(); ++k) {
                const StreamInfo& info = inputs[input][k];
                error += (k ? ", " : "") + std::to_string(info.sourceIndex) + " (" + info.codec + " " + info.kind + ")";
            }
        }
        error += ")";
        return false;
    }
    return true;
}

void checkInputsOutsideOutput(const Options& options) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path out = fs::weakly_canonical(options.outputDirectory, ignored);
    for (const std::string& input : options.inputs) {
        if (input == "-" || input.find("://") != std::string::npos) continue;
        const fs::path in = fs::weakly_canonical(input, ignored);
        const auto [o, i] = std::mismatch(out.begin(), out.end(), in.begin(), in.end());
        if (o == out.end() && i != in.end())
            throw ExitError(kExitUsage, "the input '" + input + "' is inside the output folder '" +
                                            options.outputDirectory + "', where the run could overwrite it");
    }
}

bool checkTemplateSyntax(const Options& options, std::string& error) {
    for (const std::string& text : {options.initTemplateOrDefault(), options.mediaTemplateOrDefault()}) {
        std::string result;
        if (!ve::translateTemplate(text, result, options.streamName, 0, "mp4", error, 0, 0, "r")) {
            // ${bitrate} is not a DASH variable of the translation: try again with it known.
            ve::MapVariables v;
            for (const char* name : {"sessionId", "adaptationSetId", "representationId", "bitrate", "time", "number", "ext"})
                v.add(name, "0");
            try {
                ve::expand(text, v);
            } catch (const std::exception& e) {
                error = "template '" + text + "': " + e.what();
                return false;
            }
        }
    }
    error.clear();
    return true;
}

std::vector<StreamPlan> planStreams(const Options& options, const std::vector<std::vector<StreamInfo>>& inputs,
                                    const std::vector<std::vector<bool>>& selected) {
    // Settings must name a stream that exists, and fit it.
    for (const auto& [id, given] : options.streams) {
        const StreamInfo* found = nullptr;
        for (const auto& streams : inputs)
            for (const StreamInfo& info : streams)
                if (std::to_string(info.input) + ":" + std::to_string(info.sourceIndex) == id) found = &info;
        if (found == nullptr) throw ExitError(kExitUsage, "stream " + id + " named by a stream setting does not exist");
        if (given.language && found->kind == "video")
            throw ExitError(kExitUsage, "--language " + id + ": stream " + id + " is video, which has no language");
        if (!given.descriptors.empty() && found->kind == "scte35")
            throw ExitError(kExitUsage, "stream " + id + " carries SCTE-35, which has no adaptation set to describe");
    }
    std::vector<StreamPlan> plans;
    std::set<std::string> usedBitrates, usedNames;
    for (std::size_t d = 0; d < inputs.size(); ++d) {
        for (std::size_t k = 0; k < inputs[d].size(); ++k) {
            if (!selected[d][k]) continue;
            const StreamInfo& info = inputs[d][k];
            StreamPlan plan;
            plan.input = static_cast<int>(d);
            plan.stream = k;
            plan.label = std::to_string(info.input) + ":" + std::to_string(info.sourceIndex);
            const auto given = options.streams.find(plan.label);
            const StreamSettings settings = given != options.streams.end() ? given->second : StreamSettings{};
            plan.bitrate = settings.bitrate.value_or(static_cast<std::uint32_t>(info.bitrate));
            if (plan.bitrate == 0) plan.bitrate = info.kind == "video" ? 2000000 : 128000;
            while (!usedBitrates.insert(info.kind + "/" + std::to_string(plan.bitrate)).second) ++plan.bitrate;
            plan.bitrateGiven = settings.bitrate.has_value();
            plan.language = settings.language.value_or(info.language.empty() ? "und" : info.language);
            plan.name = settings.name.value_or(info.kind + std::to_string(plans.size()));
            plan.descriptors = settings.descriptors;
            if (!usedNames.insert(plan.name).second)
                throw ExitError(kExitUsage, "two streams are named '" + plan.name + "'");
            plans.push_back(std::move(plan));
        }
    }
    return plans;
}

}  // namespace fmp4mux
