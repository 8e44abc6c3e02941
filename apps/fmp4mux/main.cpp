// fmp4mux: packages real inputs into DASH, HLS or Smooth Streaming with the Tovrane filter. This file only wires the
// rooms together: cli (options, terminal), inputs (reading and timing), engine (the filter), model (the
// presentation), manifests (one writer per format) and outputs (the publisher). docs/dataflow.md follows one
// packet from its input to a file on disk.
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "apps/fmp4mux/cli/console.h"
#include "apps/fmp4mux/cli/options.h"
#include "apps/fmp4mux/cli/signals.h"
#include "apps/fmp4mux/engine/packager.h"
#include "apps/fmp4mux/engine/stream_ends.h"
#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/inputs/libav_module.h"
#include "apps/fmp4mux/inputs/reader.h"
#include "apps/fmp4mux/inputs/subtitle_input.h"
#include "apps/fmp4mux/inputs/timeline_keeper.h"
#include "apps/fmp4mux/inputs/ts_input.h"
#include "apps/fmp4mux/manifests/hls.h"
#include "apps/fmp4mux/manifests/manifests.h"
#include "apps/fmp4mux/model/presentation.h"
#include "apps/fmp4mux/model/splices.h"
#include "apps/fmp4mux/outputs/buffer_pool.h"
#include "apps/fmp4mux/outputs/file_publisher.h"
#include "apps/fmp4mux/outputs/http_origin.h"
#include "apps/fmp4mux/outputs/http_pusher.h"
#include "apps/fmp4mux/outputs/publisher_group.h"

namespace {

using namespace fmp4mux;
using Clock = std::chrono::steady_clock;

constexpr const char* kVersion = "fmp4mux 0.1.0";

// What stops a run early: an interruption, or a failure that makes going on pointless. A second interruption
// does not wait for the chunks under way.
struct RunControl {
    std::atomic<bool> stop{false};
    std::atomic<bool> interrupted{false};
    std::atomic<int> interruptions{0};
    std::atomic<bool> abandon{false};
};

// How long the outputs may take to end once nothing more comes in (the inputs have ended, or the run was
// interrupted) without a chunk coming out: the engine flushes at once, so an output still open after that will
// never end (a session that failed, and was rebuilt, drops what it is given). Shorter when the engine has
// reported an error since the last chunk.
constexpr auto kFinishLimit = std::chrono::seconds(10);
constexpr auto kFinishLimitAfterError = std::chrono::seconds(2);

// The low-latency mode makes each stream's chunks of whole samples: chunks that are not a whole number of pictures
// come out longer or shorter than asked, the segments made of them leave the key frames, and the engine restarts
// its session for it, losing pictures. Says so, with the chunk durations that fit, for pictures of `picture`
// (100 ns units; the 100 ns rounding of each picture's time is allowed for).
std::optional<std::string> pictureMisfit(std::int32_t chunkMs, std::int32_t segmentMs, std::int64_t picture) {
    const auto whole = [picture](std::int64_t ms) {
        const std::int64_t span = ms * 10000, pictures = (span + picture / 2) / picture;
        return pictures > 0 && std::llabs(pictures * picture - span) <= pictures;
    };
    if (picture <= 0 || whole(chunkMs)) return std::nullopt;
    std::vector<std::int32_t> fits;
    for (std::int32_t d = 1; d <= segmentMs; ++d)
        if (segmentMs % d == 0 && whole(d)) fits.push_back(d);
    // The three nearest to what was asked, in order.
    std::stable_sort(fits.begin(), fits.end(), [chunkMs](std::int32_t a, std::int32_t b) {
        return std::abs(a - chunkMs) < std::abs(b - chunkMs);
    });
    if (fits.size() > 3) fits.resize(3);
    std::sort(fits.begin(), fits.end());
    char head[160];
    std::snprintf(head, sizeof head, "chunks of %d ms are %.4g pictures of %.4g ms", chunkMs,
                  static_cast<double>(chunkMs) * 10000 / static_cast<double>(picture), static_cast<double>(picture) / 10000);
    std::string text = std::string(head) + ", and the low-latency mode cuts whole pictures: its segments would leave the key frames; ";
    if (fits.empty())
        return text + "no chunk duration fits both these pictures and segments of " + std::to_string(segmentMs) + " ms (-g, -n)";
    text += "chunk durations that fit segments of " + std::to_string(segmentMs) + " ms: ";
    for (std::size_t i = 0; i < fits.size(); ++i) text += (i > 0 ? ", " : "") + std::to_string(fits[i]);
    return text + " ms (--chunk-duration)";
}

int run(int argc, char** argv) {
    Options options;
    std::string error;
    switch (parseOptions(argc, argv, options, error)) {
        case ParseResult::Help: std::cout << usageText(); return kExitDone;
        case ParseResult::Version: std::cout << kVersion << "\n"; return kExitDone;
        case ParseResult::Error: throw ExitError(kExitUsage, error + "\nTry 'fmp4mux --help'.");
        case ParseResult::Run: break;
    }
    if (!checkTemplateSyntax(options, error)) throw ExitError(kExitUsage, error);
    checkInputsOutsideOutput(options);

    // An interruption ends the run cleanly: the chunks under way are finished and the manifests written.
    RunControl control;
    StopSignals signals([&control] {
        const int count = ++control.interruptions;
        control.interrupted = true;
        if (count == 1) std::cerr << "\nfmp4mux: interrupted, finishing the chunks under way (again to stop at once)\n";
        if (count == 2) {
            std::cerr << "\nfmp4mux: interrupted again, stopping without the chunks under way\n";
            control.abandon = true;
        }
        control.stop = true;
    });

    setLibavVerbosity(options.verbosity);
    // Inputs, and the streams to package.
    std::vector<std::unique_ptr<Input>> inputs;
    std::vector<std::string> skipped;
    bool live = false;
    std::vector<SubtitleFileInput*> subtitleFiles(options.inputs.size(), nullptr);
    // Followed subtitle inputs (growing files, named pipes) are read until every other input has ended.
    std::atomic<bool> mediaEnded{false};
    std::vector<bool> followed(options.inputs.size(), false);
    for (const int f : options.follow) {
        if (static_cast<std::size_t>(f) >= options.inputs.size() || !SubtitleFileInput::handles(options.inputs[static_cast<std::size_t>(f)]))
            throw ExitError(kExitUsage, "--follow " + std::to_string(f) + ": input " + std::to_string(f) +
                                            " is not a subtitle file (.vtt, .srt)");
        followed[static_cast<std::size_t>(f)] = true;
    }
    for (std::size_t i = 0; i < options.inputs.size(); ++i) {
        try {
            if (SubtitleFileInput::handles(options.inputs[i])) {
                std::vector<std::string> warnings;
                followed[i] = followed[i] || SubtitleFileInput::isPipe(options.inputs[i]);
                auto subtitles = followed[i]
                                     ? std::make_unique<SubtitleFileInput>(
                                           options.inputs[i], static_cast<int>(i),
                                           SubtitleFileInput::Follow{&mediaEnded, [](const std::string& w) { warn(w); }})
                                     : std::make_unique<SubtitleFileInput>(options.inputs[i], static_cast<int>(i), warnings);
                for (const auto& w : warnings) warn(w);
                subtitleFiles[i] = subtitles.get();
                inputs.push_back(std::move(subtitles));
                continue;
            }
            // An MPEG-TS goes to fmp4mux's own reader, unless --demuxer says otherwise: a local file probed by it
            // too, without libavformat; any other input probed by libavformat, which reads what is not MPEG-TS.
            std::vector<std::string> notes;
            std::optional<TsContents> ts;
            if (!options.libavDemuxer)
                if (const auto file = MappedFile::open(options.inputs[i], 0))
                    ts = probeTsFile(*file, static_cast<int>(i), skipped, options.program, &notes);
            if (ts) {
                auto file = MappedFile::open(options.inputs[i], 0);
                if (!file) throw std::runtime_error("cannot open input '" + options.inputs[i] + "'");
                inputs.push_back(std::make_unique<TsInput>(std::make_unique<MappedTsSource>(std::move(file)), std::move(*ts)));
            } else {
                inputs.push_back(libav().open(options.inputs[i], static_cast<int>(i), skipped, &control.interrupted,
                                              options.program, &notes, options.libavDemuxer));
            }
            for (const auto& note : notes) say(note);
        } catch (const ExitError&) {
            throw;
        } catch (const std::exception& e) {
            throw ExitError(kExitInput, e.what());
        }
        live = live || inputs.back()->isLive();
    }
    for (const auto& s : skipped) warn(s + "; the stream is skipped");
    // Drift is measured against the wall clock: a file read as fast as it goes drifts by design, and renumbering
    // would write over the segments already written.
    if (options.driftDetection && !live && !options.realtime)
        throw ExitError(kExitUsage, "--drift-detection needs a live input or --realtime");
    std::vector<std::vector<StreamInfo>> streamLists;
    for (const auto& input : inputs) streamLists.push_back(input->streams());
    std::vector<std::vector<bool>> selected;  // by --map, or every stream without it
    if (!selectStreams(options.maps, streamLists, selected, error)) throw ExitError(kExitUsage, error);
    // The stream options are checked before anything is read; the plans are made again below, with what the
    // read-ahead measured.
    if (planStreams(options, streamLists, selected).empty())
        throw ExitError(kExitInput, "the inputs hold no stream that can be packaged");
    // Segments are cut at key frames, so the GOP duration must be the input's: measured on the first input with a
    // video stream to package, it is the default, and a -g that disagrees with it is said loudly. The same
    // read-ahead measures the bitrates that the inputs do not tell.
    std::vector<std::optional<std::int64_t>> firstKeys(inputs.size());  // each input's first key frame, 100 ns
    bool measured = false;
    std::int32_t longestKeyIntervalMs = 0;  // of every input measured, for how far a reader may run ahead
    for (std::size_t d = 0; d < inputs.size(); ++d) {
        bool video = false;
        for (std::size_t k = 0; k < streamLists[d].size(); ++k) video = video || (selected[d][k] && streamLists[d][k].kind == "video");
        const auto interval = inputs[d]->keyFrameInterval(20.0);
        streamLists[d] = inputs[d]->streams();
        if (!video) continue;
        firstKeys[d] = inputs[d]->firstKeyFrameTime();
        if (!interval) continue;
        const auto measuredMs = static_cast<std::int32_t>(std::lround(*interval * 1000));
        longestKeyIntervalMs = std::max(longestKeyIntervalMs, measuredMs);
        if (measured) continue;
        measured = true;
        if (!options.gopDurationGiven && measuredMs >= 100 && measuredMs <= 600000) {
            options.gopDurationMs = measuredMs;
            say("input " + std::to_string(d) + ": key frames every " + std::to_string(measuredMs) + " ms: GOP duration " +
                std::to_string(measuredMs) + " ms (-g sets another)");
        } else if (options.gopDurationGiven && std::abs(measuredMs - options.gopDurationMs) * 10 > options.gopDurationMs) {
            warn("input " + std::to_string(d) + " has key frames every " + std::to_string(measuredMs) + " ms, but -g says " +
                 std::to_string(options.gopDurationMs) + " ms: segments follow the input's key frames and may not last what -g asks");
        }
    }
    const std::vector<StreamPlan> plans = planStreams(options, streamLists, selected);
    // Low latency: a segment is a whole number of chunks, and its MPD is a live one whatever the input.
    const std::int32_t plannedSegmentMs = options.gopDurationMs * static_cast<std::int32_t>(options.gopsPerSegment);
    if (options.lowLatency() && plannedSegmentMs % options.chunkDurationMs != 0)
        throw ExitError(kExitUsage, "the segment duration (" + std::to_string(plannedSegmentMs) +
                                        " ms) is not a whole number of chunks of " +
                                        std::to_string(options.chunkDurationMs) + " ms");
    live = live || (options.lowLatency() && options.realtime);

    // Renditions from real encoders are never tick-identical: an input whose key frames fall within 20 ms of the
    // first input's (a whole number of GOPs apart or not) is moved onto them, so that they share their cut points.
    // Key frames further out of step never meet, and nothing could be cut: that is refused, saying by how much.
    std::optional<std::size_t> reference;
    std::vector<std::int64_t> offsets(inputs.size(), 0);  // 100 ns units
    const std::int64_t gop = std::int64_t{options.gopDurationMs} * 10000;
    for (std::size_t d = 0; d < inputs.size(); ++d) {
        if (!firstKeys[d]) continue;
        if (!reference) {
            reference = d;
            continue;
        }
        std::int64_t step = (*firstKeys[*reference] - *firstKeys[d]) % gop;
        if (step > gop / 2) step -= gop;
        if (step < -gop / 2) step += gop;
        if (std::llabs(step) > 200000)
            throw ExitError(kExitInput, "the key frames of inputs " + std::to_string(*reference) + " and " + std::to_string(d) +
                                            " are " + std::to_string(std::llabs(step) / 10000) + " ms out of step (GOP " +
                                            std::to_string(options.gopDurationMs) +
                                            " ms): their segments cannot share cut points; package them separately");
        offsets[d] = step;
    }

    if (options.lowLatency())
        for (std::size_t d = 0; d < inputs.size(); ++d)
            if (subtitleFiles[d] != nullptr)
                throw ExitError(kExitUsage, "input " + std::to_string(d) + " is a subtitle file: the low-latency mode cuts "
                                            "equal chunks from each stream's sample duration, which cues do not have");
    // The picture duration measured is that of each input's first video stream.
    std::set<std::size_t> pictureChecked;
    if (options.lowLatency())
        for (const StreamPlan& plan : plans) {
            const auto d = static_cast<std::size_t>(plan.input);
            if (streamLists[d][plan.stream].kind != "video" || !pictureChecked.insert(d).second) continue;
            if (!inputs[d]->pictureDuration()) continue;
            if (const auto misfit = pictureMisfit(options.chunkDurationMs, plannedSegmentMs, *inputs[d]->pictureDuration()))
                throw ExitError(kExitUsage, "input " + plan.label + ": " + *misfit);
        }

    // Subtitle files count their cues from the start of the media: from the first video key frame, or from 0.
    // Their gaps become empty cues of at most a segment, so that every segment has a text sample.
    for (std::size_t d = 0; d < inputs.size(); ++d) {
        if (subtitleFiles[d] == nullptr) continue;
        offsets[d] = reference ? *firstKeys[*reference] : 0;
        subtitleFiles[d]->setMaxGap(std::int64_t{plannedSegmentMs} * 10000);
    }
    // Subtitle streams inside the media inputs keep their own times, and fill their gaps alike.
    for (const auto& media : inputs)
        media->setTextHandling(std::int64_t{plannedSegmentMs} * 10000, [](const std::string& w) { warn(w); });

    // The output folder is made (and held) only once the inputs are known to be there.
    const OutputFolder folder(options.outputDirectory);

    // Outputs: files through a publisher of their own, the presentation that names them and writes manifests.
    BufferPool rooms(4);
    FilePublisher files(options.outputDirectory, [&rooms](tvrn::system::ByteBuffer&& room) { rooms.give(std::move(room)); });
    // Inputs that can wait are read as fast as packaging goes, which can be faster than the disk takes the files:
    // packaging then waits for the disk instead of queuing the difference in memory.
    if (!options.realtime && std::all_of(inputs.begin(), inputs.end(), [](const auto& in) { return in->canWait(); }))
        files.limitBacklog(4u << 20);
    // Every file goes to the folder, and to the built-in origin with --serve.
    PublisherGroup publisher;
    std::unique_ptr<HttpOrigin> origin;
    if (options.serveAddress) {
        try {
            HttpOrigin::Settings serving{options.outputDirectory, *options.serveAddress, options.servePort};
            // A blocking HLS playlist request is held for three segments at the most.
            serving.blockingReloadLimit = std::chrono::milliseconds(
                3 * std::int64_t{options.gopDurationMs} * static_cast<std::int64_t>(options.gopsPerSegment));
            origin = std::make_unique<HttpOrigin>(serving);
        } catch (const std::exception& e) {
            throw ExitError(kExitOutput, e.what());
        }
        publisher.add(*origin);
        say("serving " + options.outputDirectory + " on http://" + *options.serveAddress + ":" +
            std::to_string(origin->port()) + "/");
    }
    std::unique_ptr<HttpPusher> pusher;
    if (options.pushUrl) {
        std::string base = *options.pushUrl;
        if (!base.ends_with("/")) base += "/";
        pusher = std::make_unique<HttpPusher>(HttpPusher::Settings{base}, [](const std::string& line) { warn(line); });
        publisher.add(*pusher);
    }
    publisher.add(files);
    DashManifestWriter dashManifest;
    SmoothManifestWriter smoothManifest;
    PresentationSettings settings;
    settings.dash = options.dash;
    settings.live = live;
    settings.streamName = options.streamName;
    settings.initTemplate = options.initTemplateOrDefault();
    settings.mediaTemplate = options.mediaTemplateOrDefault();
    settings.firstNumber = static_cast<std::uint64_t>(options.firstNumber);
    settings.timeShiftBufferSeconds = options.timeShiftBufferSeconds;
    settings.lowLatency = options.lowLatency();
    settings.chunksPerSegment = static_cast<std::uint32_t>(plannedSegmentMs / std::max(options.chunkDurationMs, 1));
    settings.listsParts = options.lowLatency() && options.hls;
    settings.webVttFiles = options.hls;
    if (origin && *options.serveAddress != "0.0.0.0") settings.utcTimingUrl = origin->utcTimingUrl();
    for (const StreamPlan& plan : plans)
        settings.splices = settings.splices || streamLists[static_cast<std::size_t>(plan.input)][plan.stream].kind == "scte35";
    if (live) {
        RunFolders runs = planRunFolders(options.outputDirectory, std::time(nullptr));
        settings.runFolder = runs.current;
        settings.earlierRuns = std::move(runs.earlier);
    }
    HlsManifestWriter hlsManifest;
    std::vector<const ManifestWriter*> formats;
    if (!options.dash) formats.push_back(&smoothManifest);
    if (options.dash && options.mpd) formats.push_back(&dashManifest);
    if (options.hls) formats.push_back(&hlsManifest);
    const ManifestSet manifests(formats);
    Presentation presentation(settings, publisher, manifests);

    // The engine, one input pin and one output per planned stream.
    StderrLogger logger(options.verbosity);
    const std::int32_t segmentMs = options.gopDurationMs * static_cast<std::int32_t>(options.gopsPerSegment);
    EngineSettings engineSettings;
    engineSettings.dash = options.dash;
    engineSettings.mode = options.mode;
    engineSettings.gopDurationMs = options.gopDurationMs;
    engineSettings.gopsPerSegment = options.gopsPerSegment;
    engineSettings.audioSegmentDurationMs = options.audioSegmentDurationMs.value_or(segmentMs);
    engineSettings.chunkDurationMs = options.chunkDurationMs;
    engineSettings.inBandParameterSets = options.inBandParameterSets;
    engineSettings.allVideoInInit = options.allVideoInInit;
    engineSettings.driftDetection = options.driftDetection;
    engineSettings.offline = !live && !options.realtime;
    engineSettings.firstNumber = options.firstNumber;
    engineSettings.streamName = options.streamName;
    engineSettings.encryption = options.encryption;
    engineSettings.chunkDump = options.verbosity >= 3;
    Packager packager(engineSettings, logger);
    // routes[input][stream]: where a stream's packets go: the engine's stream (-1: none) and the presentation's
    // output; a stream left out goes nowhere. SCTE-35 sections make the presentation's splices, whether or not the
    // engine takes them.
    struct Route {
        int engine = -1;
        int output = -1;
        bool splices = false;
        bool video = false;
        bool used() const { return engine >= 0 || splices; }
    };
    std::vector<std::vector<Route>> routes(inputs.size());
    for (std::size_t d = 0; d < inputs.size(); ++d) routes[d].assign(streamLists[d].size(), Route{});
    for (const StreamPlan& plan : plans) {
        const StreamInfo& info = streamLists[static_cast<std::size_t>(plan.input)][plan.stream];
        const int output = static_cast<int>(&plan - plans.data());
        Route& route = routes[static_cast<std::size_t>(plan.input)][plan.stream];
        if (info.kind == "scte35") {
            std::string refused;
            route.splices = true;
            route.engine = packager.connectSplices({plan.label, info, plan.bitrate, plan.language, plan.name, {}}, refused);
            if (route.engine < 0) warn("input " + plan.label + ": SCTE-35 goes to the manifests and segments only: " + refused);
            else logger.quietMissingChunks(route.engine);
            say("input " + plan.label + ": SCTE-35 splice information");
            continue;
        }
        // Smooth Streaming names no FourCC for MPEG-1 audio (a client would take it for AAC): left out, said.
        if (!options.dash && info.kind == "audio" && info.streamType == 1) {
            warn("input " + plan.label + ": Smooth Streaming carries no MPEG-1 audio (" + info.codec +
                 "); the stream is skipped");
            continue;
        }
        // The low-latency mode cuts equal chunks from every stream's own sample duration, which cues do not have.
        if (info.kind == "text" && options.lowLatency()) {
            warn("input " + plan.label + ": subtitles are not packaged in the low-latency mode; the stream is skipped");
            continue;
        }
        route.output = output;
        route.video = info.kind == "video";
        presentation.addOutput(output, info.kind, static_cast<std::uint32_t>(std::max(info.channels, 0)),
                               static_cast<std::uint32_t>(std::max(info.sampleRate, 0)), plan.bitrateGiven, plan.name,
                               plan.language, plan.descriptors);
        // Room for one chunk of a segment and a half at a high rate (40 Mb/s video, 2 Mb/s audio), whatever
        // bitrate the stream announced: the sink copies every buffer at once.
        const double peakBitsPerSecond = info.kind == "video" ? 40e6 : 2e6;
        const auto bufferCount = static_cast<long>(1.5 * segmentMs / 1000.0 * peakBitsPerSecond / 8 / 8192) + 1;
        route.engine = packager.connect(
            {plan.label, info, plan.bitrate, plan.language, plan.name, plan.descriptors}, bufferCount,
            [&presentation, output](bool init, tvrn::system::ByteBuffer&& room, std::size_t length,
                                    ChunkSink::References&& references) {
                presentation.onChunk(output, init, std::move(room), length, std::move(references));
            },
            [&rooms](std::size_t wanted) { return rooms.take(wanted); });
        if (info.kind != "video" && info.kind != "audio") logger.quietMissingChunks(route.engine);
        say("input " + plan.label + ": " + info.codec + " " + info.kind +
            (info.width ? " " + std::to_string(info.width) + "x" + std::to_string(info.height) : "") +
            (info.sampleRate ? " " + std::to_string(info.sampleRate) + " Hz" : ""));
    }
    for (std::size_t d = 0; d < inputs.size(); ++d)
        for (std::size_t k = 0; k < routes[d].size(); ++k)
            if (!routes[d][k].used()) inputs[d]->drop(k);
    packager.start(control.stop);

    // One reading thread per input that has a stream to package. Timestamp jumps are taken out before anything
    // is paced or packaged; a step of more than two segments (and never less than two seconds) counts as one.
    TimelineKeeper timeline(std::max<std::int64_t>(2LL * segmentMs, 2000) * 10000, [](const std::string& line) { warn(line); });
    for (std::size_t d = 0; d < inputs.size(); ++d)
        if (offsets[d] != 0) timeline.setInputOffset(static_cast<int>(d), offsets[d]);
    const PackagingProgress progress{[&presentation] { return presentation.packagedSeconds(); },
                                     [&presentation](std::uint64_t seen, std::chrono::milliseconds timeout) {
                                         return presentation.waitForChunk(seen, timeout);
                                     }};
    const auto started = Clock::now();
    std::vector<std::pair<std::size_t, std::unique_ptr<InputReader>>> readers;  // by input
    std::set<std::size_t> watched;  // inputs whose silence ends their streams
    const auto reads = [&routes](std::size_t d) {
        return std::any_of(routes[d].begin(), routes[d].end(), [](const Route& r) { return r.engine >= 0 || r.splices; });
    };
    std::atomic<std::size_t> mediaReading{0};
    for (std::size_t d = 0; d < inputs.size(); ++d) mediaReading += reads(d) && !followed[d] ? 1 : 0;
    std::vector<std::vector<int>> engineOf(inputs.size());
    for (std::size_t d = 0; d < inputs.size(); ++d)
        for (const Route& route : routes[d]) engineOf[d].push_back(route.engine);
    StreamEnds earlyEnds(
        std::move(engineOf),
        [&packager, &logger](int engine) {
            logger.quietMissingChunks(engine);
            packager.endOfStream(engine);
        },
        [](const std::string& line) { warn(line); });
    // How long a stream may deliver nothing while the rest of its input goes on before it is ended. A live input
    // (read as it comes) waits three segments (or GOPs, if longer), and at least 6 s: its output stands still
    // meanwhile. A file has nobody waiting: it waits at least 30 s of its media, so that a gap in one stream (an
    // encoder that stopped for a while) is kept as a gap, while a stream that died does not hold the rest in
    // memory to the end of the file.
    const auto streamTimeout = [&](bool readAsItComes) {
        const std::int64_t segments = (3 * std::max<std::int64_t>(segmentMs, longestKeyIntervalMs) + 999) / 1000;
        return options.streamTimeoutSeconds.value_or(static_cast<std::uint32_t>(std::max<std::int64_t>(readAsItComes ? 6 : 30, segments)));
    };
    const std::uint32_t silenceSeconds = streamTimeout(true);  // of live inputs that fall silent as a whole
    for (std::size_t d = 0; d < inputs.size(); ++d) {
        const auto& mine = routes[d];
        const bool throttled = inputs[d]->canWait() && !options.realtime;
        const std::uint32_t timeout = streamTimeout(!throttled);
        if (!reads(d)) {
            say("input " + std::to_string(d) + ": no stream selected, the input is not read");
            continue;
        }
        PacketDestination destination{
            [&mine](std::size_t stream) { return mine[stream].used(); },
            [&packager, &presentation, &mine, &earlyEnds, timeout, d](std::size_t stream, Packet& packet) {
                const Route& route = mine[stream];
                // A stream that leaves the input (its PID dropped from the program) ends on its own: the others
                // are cut without it from then on, rather than wait for it for ever. So does one that stops
                // delivering while the others of its input go on.
                if (packet.ended)
                    return earlyEnds.end(d, stream,
                                         (packet.silent ? "nothing came for " + std::to_string(timeout) +
                                                              " s while the others went on"
                                                        : std::string("it left the program")) +
                                             "; it ends here and the others go on without it");
                earlyEnds.deliver(d, stream, [&] {
                    if (route.splices && packet.pts) {
                        std::string why;
                        if (auto splice = spliceOf({packet.data, packet.size}, *packet.pts, why))
                            presentation.addSplice(splice->first, std::move(splice->second));
                        else if (!why.empty())
                            warn("an SCTE-35 section was left out: " + why);
                    }
                    if (route.video && packet.key && packet.pts) presentation.noteKeyFrame(route.output, *packet.pts);
                    if (route.engine >= 0) packager.deliver(route.engine, packet);
                });
            },
            [&earlyEnds, &mediaReading, &mediaEnded, media = !followed[d], d] {
                earlyEnds.endInput(d, "");
                if (media && --mediaReading == 0) mediaEnded = true;
            },
            [](const std::string& line) { warn(line); }};
        ReaderSettings reading;
        reading.realtime = options.realtime;
        reading.throttle = throttled;
        // Two segments (or two of the longest GOP, which a cut has to wait for) and two seconds: enough to keep
        // packaging busy, and all that a file input holds in memory.
        reading.aheadLimitSeconds = 2.0 * std::max(segmentMs, longestKeyIntervalMs) / 1000.0 + 2.0;
        reading.silenceLimitSeconds = timeout;
        reading.inBandParameterSets = options.inBandParameterSets;
        // Watched for silence as a whole: an input that is read as it comes and carries audio or video. One that
        // is held back to the packaging's pace stops delivering for that alone.
        if (!reading.throttle && !followed[d])
            for (std::size_t k = 0; k < mine.size(); ++k)
                if (mine[k].engine >= 0 && (streamLists[d][k].kind == "video" || streamLists[d][k].kind == "audio"))
                    watched.insert(d);
        readers.emplace_back(d, std::make_unique<InputReader>(*inputs[d], static_cast<int>(d), timeline,
                                                              std::move(destination), progress, reading, control.stop));
    }

    // A live input from which nothing has come for the stream timeout, while another input delivers, has fallen
    // silent (its source died): its streams are ended, so that the other inputs' renditions are still cut.
    const auto endSilentInputs = [&] {
        if (silenceSeconds == 0) return;
        const auto now = Clock::now();
        const auto delivering = [&](const InputReader& reader, std::chrono::seconds within) {
            return reader.reading() && now - reader.lastDelivery() < within;
        };
        for (auto& [d, reader] : readers) {
            if (watched.count(d) == 0 || !reader->reading() || delivering(*reader, std::chrono::seconds(silenceSeconds)))
                continue;
            const bool othersGoOn = std::any_of(readers.begin(), readers.end(), [&](const auto& other) {
                return other.first != d && delivering(*other.second, std::chrono::seconds(2));
            });
            if (!othersGoOn) continue;
            watched.erase(d);
            earlyEnds.endInput(d, "nothing came for " + std::to_string(silenceSeconds) +
                                      " s while the other inputs went on; its streams end here and the others go on "
                                      "without them");
        }
    };
    // Progress until every output has ended; a failure or an interruption stops the readers, and the chunks under
    // way are finished, within a limit.
    std::optional<std::string> unfinished;
    auto lastProgress = Clock::now();
    std::uint64_t chunksSeen = presentation.chunks(), errorsSeen = logger.errors();
    while (!packager.waitForEnd(std::chrono::seconds(1))) {
        if (presentation.failure()) control.stop = true;
        const auto now = Clock::now();
        const bool inputsDone = std::none_of(readers.begin(), readers.end(), [](const auto& r) { return r.second->reading(); });
        if (presentation.chunks() != chunksSeen || !(inputsDone || control.stop.load())) {
            chunksSeen = presentation.chunks();
            errorsSeen = logger.errors();
            lastProgress = now;
        }
        if (control.abandon.load()) {
            unfinished = "interrupted twice";
            break;
        }
        const bool failed = logger.errors() != errorsSeen;
        const auto limit = failed ? kFinishLimitAfterError : kFinishLimit;
        if (now - lastProgress > limit) {
            unfinished = "packaging did not finish within " + std::to_string(limit.count()) + " s of the " +
                         (inputsDone ? "inputs' end" : "interruption") +
                         (failed ? "; the engine reported: " + logger.errorAfter(errorsSeen) : "");
            break;
        }
        endSilentInputs();
        if (control.stop.load()) presentation.wake();
        if (!options.quiet) {
            std::uint64_t dropped = 0, lost = 0;
            for (const auto& [d, reader] : readers) {
                dropped += reader->damage().videoFramesDropped() + reader->damage().audioPacketsDropped();
                lost += inputs[d]->packetsLost();
            }
            showProgress(presentation.mediaSeconds(), presentation.chunks(),
                         std::chrono::duration<double>(Clock::now() - started).count(), dropped,
                         packager.keyServerDown(), lost);
        }
        if (control.stop.load() && presentation.failure()) break;
    }
    // Every output has ended; a reader of an input that fell silent may still wait for it.
    control.stop = true;
    for (auto& [d, reader] : readers) reader->join();
    packager.stop();

    const double wall = std::chrono::duration<double>(Clock::now() - started).count();
    if (!options.quiet) clearProgress();
    presentation.finish();
    publisher.drain();
    if (timeline.dropped() > 0)
        warn(std::to_string(timeline.dropped()) + " packets that went back behind their stream at a timestamp jump were dropped");
    for (const auto& [d, reader] : readers) {
        const DamageGuard& damage = reader->damage();
        if (damage.videoFramesDropped() + damage.audioPacketsDropped() == 0) continue;
        warn("input " + std::to_string(d) + " was damaged: " + std::to_string(damage.videoFramesDropped()) +
             " video frames dropped (" + std::to_string(damage.damagedVideoFrames()) +
             " damaged and those after them up to the next key frame) and " +
             std::to_string(damage.audioPacketsDropped()) + " damaged audio packets");
    }
    for (const auto& [d, reader] : readers) {
        const std::uint64_t lost = inputs[d]->packetsLost(), dropped = inputs[d]->pesDropped();
        if (lost + dropped == 0) continue;
        warn("input " + std::to_string(d) + " lost " + std::to_string(lost) + " transport packets (continuity gaps)" +
             (dropped > 0 ? " and " + std::to_string(dropped) + " PES that could not be read" : ""));
    }
    for (const auto& [d, reader] : readers)
        if (const std::string report = inputs[d]->transportReport(); !report.empty())
            say("input " + std::to_string(d) + " transport: " + report);
    for (const auto& [d, reader] : readers)
        if (!reader->error().empty()) warn("reading input " + std::to_string(d) + " stopped early: " + reader->error());
    if (const auto failure = presentation.failure()) throw ExitError(kExitFailed, *failure);
    if (unfinished) throw ExitError(kExitFailed, *unfinished);
    if (presentation.chunks() == 0)
        throw ExitError(kExitFailed, logger.errors() > 0
                                         ? "no chunk was produced; the engine reported: " + logger.errorAfter(0)
                                         : "no chunk was produced (is there a key frame and a time stamp in the input?)");
    showSummary(presentation.mediaSeconds(), presentation.chunks(), presentation.files(), wall,
                options.outputDirectory, presentation.manifestName(), options.dash,
                options.encryption.keyServer() ? "from the key server" : options.encryption.keyId);
    return kExitDone;
}

}  // namespace

int main(int argc, char** argv) {
    // Media bytes are taken on one thread and given back on another (reader, worker, synchroniser, publisher):
    // with an allocation arena per thread, each arena keeps the room freed into it, and a run holds several
    // times what it uses. Two arenas are shared by all. Chunks of a few megabytes come and go all run long: they
    // are kept in the arenas (up to 8 MiB each, and 8 MiB of free room at their top) rather than mapped, faulted in
    // page by page and given back to the system each time.
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 8 << 20);
    mallopt(M_TRIM_THRESHOLD, 8 << 20);
    try {
        return run(argc, argv);
    } catch (const ExitError& e) {
        std::cerr << "fmp4mux: " << e.what() << "\n";
        return e.code();
    } catch (const std::exception& e) {
        std::cerr << "fmp4mux: " << e.what() << "\n";
        return kExitFailed;
    }
}
