// fmp4mux: packages real inputs into DASH or Smooth Streaming with the Tovrane filter.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "apps/fmp4mux/chunk_sink.h"
#include "apps/fmp4mux/demuxer.h"
#include "apps/fmp4mux/inputs/pacing.h"
#include "apps/fmp4mux/inputs/timeline_keeper.h"
#include "apps/fmp4mux/manifests.h"
#include "apps/fmp4mux/options.h"
#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"
#include "support/log/format.h"
#include "support/variable_expander/variable_expander.h"

namespace {

using namespace fmp4mux;
namespace flt = tvrn::encoding::filter;
namespace ve = tvrn::encoding::variable_expander;
using Clock = std::chrono::steady_clock;

constexpr const char* kVersion = "fmp4mux 0.1.0";

std::atomic<bool> g_interrupted{false};
void onSignal(int) { g_interrupted = true; }

// Log lines of the filter on standard error, up to the chosen level.
class StderrLogger : public tvrn::log::ILogger {
public:
    explicit StderrLogger(int verbosity) : m_verbosity(verbosity) {}
    void WriteMsg(tvrn::log::LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4))) {
        if (static_cast<int>(level) > m_verbosity) return;
        va_list args;
        va_start(args, format);
        const std::string text = tvrn::log::formatV(format, args);
        va_end(args);
        static constexpr const char* kLabels[] = {"error", "warning", "info", "debug"};
        std::lock_guard lock(m_mutex);
        std::fprintf(stderr, "\r\033[Kfmp4mux: %s: %s\n", level < 4 ? kLabels[level] : "log", text.c_str());
    }

private:
    int m_verbosity;
    std::mutex m_mutex;
};

std::size_t inputTypeIndex(std::uint32_t streamType) {
    // Rows of the filter's input type table.
    switch (streamType) {
        case 2: return 1;    // H.264
        case 17: return 2;   // HEVC
        case 10: return 3;   // raw AAC
        case 5: return 7;    // LATM
        default: return 8;   // ADTS
    }
}

flt::MediaType mediaTypeFor(std::uint32_t streamType) {
    const auto& row = flt::inputTypeTable().at(inputTypeIndex(streamType));
    flt::MediaType type;
    type.majortype = row.majortype;
    type.subtype = row.subtype;
    type.formattype = flt::guids::FORMAT_None;
    return type;
}

// The state of one output: what the manifests say of it and where its files go.
struct Output {
    int index = 0;
    bool ready = false;
    bool bitrateGiven = false;    // the operator stated the bitrate: the manifests announce it as is
    std::uint32_t peakBitrate = 0;  // measured over the segments written
    std::uint32_t maxSegmentMs = 0;  // the longest segment written
    double packagedSeconds = 0;      // the durations of the segments written, added up
    Track track;
    std::uint64_t nextNumber = 1;
    std::string initPath;
};

class Session {
public:
    Session(const Options& options, bool live) : m_options(options), m_live(live), m_start(Clock::now()) {}

    // `channels` and `sampleRate` from the input stand in where the server manifest says nothing of them.
    void addOutput(int index, const std::string& kind, std::uint32_t channels, std::uint32_t sampleRate) {
        std::lock_guard lock(m_mutex);
        Output& out = m_outputs[index];
        out.index = index;
        out.track.kind = kind;
        out.track.channels = channels;
        out.track.sampleRate = sampleRate;
        out.nextNumber = static_cast<std::uint64_t>(m_options.firstNumber);
        out.track.representationId = kind + std::to_string(index);
    }

    void setAnnouncedBitrate(int index, bool given) {
        std::lock_guard lock(m_mutex);
        m_outputs[index].bitrateGiven = given;
    }

    void onInit(int index, const std::vector<std::uint8_t>& chunk) {
        const auto movie = moviePart(chunk);
        std::lock_guard lock(m_mutex);
        Output& out = m_outputs.at(index);
        if (movie.empty()) return fail("output " + std::to_string(index) + ": the init chunk is not readable");
        Track track = out.track;
        readServerManifest(serverManifest(movie), m_options.dash, track);
        if (track.channels == 0) track.channels = out.track.channels;
        if (track.sampleRate == 0) track.sampleRate = out.track.sampleRate;
        track.representationId = out.track.representationId;
        track.adaptationSetId = adaptationSet(track);
        out.track = track;
        out.track.segments.clear();  // a new session starts the timeline again
        try {
            out.initPath = expandName(m_options.initTemplateOrDefault(), out, 0, 0);
            writeFileAtomically(m_options.outputDirectory + "/" + out.initPath, movie.data(), movie.size());
        } catch (const std::exception& e) {
            return fail(e.what());
        }
        out.track.initialization = out.initPath;
        out.track.mediaTemplate = manifestMediaTemplate(out);
        out.track.mediaByNumber = m_options.mediaTemplateOrDefault().find("${number}") != std::string::npos;
        out.ready = true;
        ++m_files;
    }

    void onMedia(int index, const std::vector<std::uint8_t>& chunk) {
        const auto timing = readChunkTiming(chunk.data(), chunk.size(), m_options.dash);
        std::lock_guard lock(m_mutex);
        Output& out = m_outputs.at(index);
        if (!out.ready) return;
        if (!timing) return fail("output " + std::to_string(index) + ": a chunk without timing was dropped");
        // A chunk of no duration is the engine's stand-in for a chunk this output missed (its input had nothing
        // for that segment, as at a jump in the input's times): it holds no sample and starts at 0, so written
        // it would replace the first file of a $Time$ template and put the timeline back to 0.
        if (timing->duration == 0) return;
        out.track.timescale = timing->timescale;
        const std::uint64_t number = out.nextNumber++;
        try {
            const std::string path = expandName(m_options.mediaTemplateOrDefault(), out, timing->time, number);
            const std::string target = m_options.outputDirectory + "/" + path;
            if (m_options.dash)
                writeFileAtomically(target, playerRanges(chunk));
            else
                writeFileAtomically(target, chunk.data(), chunk.size());
        } catch (const std::exception& e) {
            return fail(e.what());
        }
        out.track.segments.push_back({timing->time, timing->duration, number});
        // A live session keeps the records of its time-shift window only, so that neither its memory nor the
        // MPD rewrite on every chunk grows with the run; the MPD that ends a live input therefore lists the
        // segments still in the window. A file input keeps them all for its static MPD.
        if (m_live)
            out.track.segments.erase(out.track.segments.begin(),
                                     out.track.segments.begin() +
                                         static_cast<std::ptrdiff_t>(countBeforeWindow(
                                             out.track.segments, out.track.timescale, m_options.timeShiftBufferSeconds)));
        out.maxSegmentMs = std::max(out.maxSegmentMs, static_cast<std::uint32_t>(std::min<std::uint64_t>(
                                                          UINT32_MAX, timing->duration * 1000 / timing->timescale)));
        out.packagedSeconds += static_cast<double>(timing->duration) / static_cast<double>(timing->timescale);
        m_packagedSeconds = std::max(m_packagedSeconds, out.packagedSeconds);
        out.peakBitrate = std::max(out.peakBitrate, static_cast<std::uint32_t>(std::min<double>(
            4e9, static_cast<double>(chunk.size()) * 8 * static_cast<double>(timing->timescale) /
                     static_cast<double>(timing->duration))));
        ++m_files;
        ++m_chunks;
        // Media packaged so far, from the earliest chunk start: Smooth times are absolute, DASH ones start near 0.
        const double start = static_cast<double>(timing->time) / static_cast<double>(timing->timescale);
        if (!m_firstStart || start < *m_firstStart) m_firstStart = start;
        m_mediaSeconds = std::max(m_mediaSeconds, static_cast<double>(timing->time + timing->duration) /
                                                      static_cast<double>(timing->timescale) - *m_firstStart);
        if (!m_availabilityStart) {
            const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
            m_availabilityStart = now - static_cast<double>(timing->time + timing->duration) /
                                            static_cast<double>(timing->timescale);
        }
        if (m_live) writeManifestsLocked();
    }

    // The last manifests: the presentation has ended, so a live one becomes static, with the segments recorded
    // (every one of a file input, those of the time-shift window for a live input).
    void writeFinalManifests() {
        std::lock_guard lock(m_mutex);
        m_live = false;
        writeManifestsLocked();
    }

    std::uint64_t chunks() const {
        std::lock_guard lock(m_mutex);
        return m_chunks;
    }
    std::uint64_t files() const {
        std::lock_guard lock(m_mutex);
        return m_files;
    }
    double mediaSeconds() const {
        std::lock_guard lock(m_mutex);
        return m_mediaSeconds;
    }
    // The most media one output has packaged, as the sum of its segments' durations: unlike mediaSeconds, it
    // goes on evenly whatever the input's times do.
    double packagedSeconds() const {
        std::lock_guard lock(m_mutex);
        return m_packagedSeconds;
    }
    std::string error() const {
        std::lock_guard lock(m_mutex);
        return m_error;
    }
    std::string manifestPath() const {
        return m_options.outputDirectory + (m_options.dash ? "/manifest.mpd" : "/Manifest");
    }
    std::string absoluteManifestPath() const { return std::filesystem::absolute(manifestPath()).lexically_normal().string(); }

private:
    void fail(const std::string& message) {
        if (m_error.empty()) m_error = message;
    }

    int adaptationSet(const Track& track) {
        const std::string key = track.kind + "/" + (track.kind == "video" ? "" : track.language);
        const auto it = m_sets.find(key);
        if (it != m_sets.end()) return it->second;
        const int id = static_cast<int>(m_sets.size());
        m_sets[key] = id;
        return id;
    }

    std::string expandName(const std::string& pattern, const Output& out, std::uint64_t time, std::uint64_t number) {
        ve::MapVariables variables;
        variables.add("sessionId", m_options.streamName);
        variables.add("adaptationSetId", std::to_string(out.track.adaptationSetId));
        variables.add("representationId", out.track.representationId);
        variables.add("bitrate", std::to_string(out.track.bitrate));
        variables.add("time", std::to_string(time));
        variables.add("number", std::to_string(number));
        variables.add("ext", "mp4");
        return ve::expand(pattern, variables);
    }

    // The media template as a manifest states it: DASH placeholders, or Smooth's {bitrate} and {start time}.
    std::string manifestMediaTemplate(const Output& out) {
        ve::MapVariables variables;
        variables.add("sessionId", m_options.streamName);
        variables.add("adaptationSetId", std::to_string(out.track.adaptationSetId));
        variables.add("ext", "mp4");
        if (m_options.dash) {
            variables.add("representationId", "$RepresentationID$");
            variables.add("bitrate", "$Bandwidth$");
            variables.add("time", "$Time$");
            variables.add("number", "$Number$");
        } else {
            variables.add("representationId", out.track.representationId);
            variables.add("bitrate", "{bitrate}");
            variables.add("time", "{start time}");
            variables.add("number", "{start time}");
        }
        return ve::expand(m_options.mediaTemplateOrDefault(), variables);
    }

    void writeManifestsLocked() {
        std::vector<Track> tracks;
        std::uint32_t maxSegmentMs = 0;
        for (const auto& [index, out] : m_outputs) {
            if (!out.ready || out.track.segments.empty()) continue;
            Track track = out.track;
            // DASH announces what a client must sustain: the stated bitrate, or else the peak measured over the
            // segments written (the input seldom tells a stream's own rate).
            if (m_options.dash) track.bandwidth = out.bitrateGiven ? std::max(track.bandwidth, track.bitrate)
                                                                   : std::max<std::uint32_t>(out.peakBitrate, 1);
            tracks.push_back(std::move(track));
            maxSegmentMs = std::max(maxSegmentMs, out.maxSegmentMs);
        }
        if (tracks.empty()) return;
        std::string text;
        if (m_options.dash) {
            MpdTiming timing;
            timing.dynamic = m_live;
            timing.maxSegmentMs = std::max<std::uint32_t>(maxSegmentMs, 1000);
            timing.timeShiftBufferSeconds = m_options.timeShiftBufferSeconds;
            const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
            timing.availabilityStartTime = isoUtc(m_availabilityStart.value_or(now));
            timing.publishTime = isoUtc(now);
            text = buildMpd(tracks, timing);
        } else {
            text = buildSmoothManifest(tracks, m_live, m_options.timeShiftBufferSeconds);
        }
        try {
            writeFileAtomically(manifestPath(), reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        } catch (const std::exception& e) {
            fail(e.what());
        }
    }

    const Options& m_options;
    bool m_live;
    Clock::time_point m_start;
    mutable std::mutex m_mutex;
    std::map<int, Output> m_outputs;
    std::map<std::string, int> m_sets;
    std::uint64_t m_chunks = 0;
    std::uint64_t m_files = 0;
    double m_mediaSeconds = 0;
    double m_packagedSeconds = 0;
    std::optional<double> m_firstStart;
    std::optional<double> m_availabilityStart;
    std::string m_error;
};

// How much media a reader has read, in seconds, whatever its timestamps do: each stream adds up its steps from
// one timestamp to the next, and a step back or a leap of more than ten seconds (the source restarted or looped,
// its clock wrapped) adds nothing. The stream furthest on counts.
class ReadProgress {
public:
    double add(std::size_t stream, std::int64_t time) {
        if (stream >= m_streams.size()) m_streams.resize(stream + 1);
        Stream& s = m_streams[stream];
        if (s.last && time > *s.last && time - *s.last <= kLeap) s.seconds += static_cast<double>(time - *s.last) / 1e7;
        s.last = time;
        m_furthest = std::max(m_furthest, s.seconds);
        return m_furthest;
    }

private:
    static constexpr std::int64_t kLeap = 10 * 10000000LL;  // 100 ns units
    struct Stream {
        std::optional<std::int64_t> last;
        double seconds = 0;
    };
    std::vector<Stream> m_streams;
    double m_furthest = 0;
};

bool prepareOutputDirectory(const std::string& dir, std::string& error) {
    std::error_code code;
    std::filesystem::create_directories(dir, code);
    if (code || !std::filesystem::is_directory(dir)) {
        error = "cannot create the output folder '" + dir + "'" + (code ? ": " + code.message() : "");
        return false;
    }
    const std::string probe = dir + "/.fmp4mux-write-test";
    std::FILE* file = std::fopen(probe.c_str(), "wb");
    if (file == nullptr) {
        error = "the output folder '" + dir + "' is not writable: " + std::strerror(errno);
        return false;
    }
    std::fclose(file);
    std::remove(probe.c_str());
    return true;
}

// Checks that the templates expand, so that a syntax error stops the run before anything starts.
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

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    switch (parseOptions(argc, argv, options, error)) {
        case ParseResult::Help: std::cout << usageText(); return 0;
        case ParseResult::Version: std::cout << kVersion << "\n"; return 0;
        case ParseResult::Error:
            std::cerr << "fmp4mux: " << error << "\nTry 'fmp4mux --help'.\n";
            return 2;
        case ParseResult::Run: break;
    }
    if (!checkTemplateSyntax(options, error)) {
        std::cerr << "fmp4mux: " << error << "\n";
        return 2;
    }
    if (!prepareOutputDirectory(options.outputDirectory, error)) {
        std::cerr << "fmp4mux: " << error << "\n";
        return 4;
    }

    // An interruption ends the run cleanly: the chunks under way are finished and the manifests written.
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    // Inputs.
    std::vector<std::unique_ptr<Demuxer>> demuxers;
    std::vector<std::string> skipped;
    bool live = false;
    for (std::size_t i = 0; i < options.inputs.size(); ++i) {
        try {
            demuxers.push_back(std::make_unique<Demuxer>(options.inputs[i], static_cast<int>(i), skipped, &g_interrupted));
            live = live || demuxers.back()->isLive();
        } catch (const std::exception& e) {
            std::cerr << "fmp4mux: " << e.what() << "\n";
            return 3;
        }
    }
    for (const auto& s : skipped) std::cerr << "fmp4mux: warning: " << s << "; the stream is skipped\n";
    std::vector<std::vector<StreamInfo>> streamLists;
    for (const auto& demuxer : demuxers) streamLists.push_back(demuxer->streams());
    std::vector<std::vector<bool>> selected;  // by --map, or every stream without it
    if (!selectStreams(options.maps, streamLists, selected, error)) {
        std::cerr << "fmp4mux: " << error << "\n";
        return 2;
    }

    StderrLogger logger(options.verbosity);
    flt::CMuxFmp4Filter* filter = flt::CMuxFmp4Filter::Create();
    filter->SetLogger(&logger);
    const bool offline = !live && !options.realtime;
    const std::int32_t segmentMs = options.gopDurationMs * static_cast<std::int32_t>(options.gopsPerSegment);
    try {
        filter->SetMuxMode(options.streamName.c_str(), options.dash ? 1 : 0, options.mode, options.gopDurationMs,
                           options.gopsPerSegment, options.audioSegmentDurationMs.value_or(segmentMs),
                           options.chunkDurationMs, options.inBandParameterSets, 0, options.allVideoInInit,
                           options.driftDetection, offline);
    } catch (const std::exception& e) {
        std::cerr << "fmp4mux: " << e.what() << "\n";
        filter->Release();
        return 2;
    }
    filter->SetFirstNumber(options.firstNumber);

    // One input pin per selected stream, each with its own output and sink. A stream left out keeps its place in
    // the routes without a pin, so that Packet::stream still indexes them.
    Session session(options, live);
    struct Route {
        flt::MuxFmp4InputPin* pin;
    };
    std::vector<std::vector<Route>> routes(demuxers.size());
    std::vector<std::unique_ptr<ChunkSink>> sinks;
    std::size_t connected = 0;
    std::set<std::string> usedBitrates;
    for (std::size_t d = 0; d < demuxers.size(); ++d) {
        const auto& streams = demuxers[d]->streams();
        for (std::size_t k = 0; k < streams.size(); ++k) {
            const StreamInfo& info = streams[k];
            if (!selected[d][k]) {
                routes[d].push_back({nullptr});
                demuxers[d]->drop(k);
                continue;
            }
            const std::string selector = std::to_string(info.input) + ":" + std::to_string(info.sourceIndex);
            const StreamSettings settings = options.streams.count(selector) ? options.streams.at(selector) : StreamSettings{};
            std::uint32_t bitrate = settings.bitrate.value_or(static_cast<std::uint32_t>(info.bitrate));
            if (bitrate == 0) bitrate = info.kind == "video" ? 2000000 : 128000;
            // Quality levels of one kind must differ in bitrate: Smooth names their folders and URLs by it.
            while (!usedBitrates.insert(info.kind + "/" + std::to_string(bitrate)).second) ++bitrate;
            const std::string language = settings.language.value_or(info.language.empty() ? "und" : info.language);
            const std::string name = settings.name.value_or(info.kind + std::to_string(connected));
            if (filter->ConfigureInputPin(bitrate, language.c_str(), 0, name.c_str(), "", 0, 0, nullptr) != tvrn::com::S_OK) {
                std::cerr << "fmp4mux: cannot configure an input for stream " << selector << "\n";
                filter->Release();
                return 1;
            }
            flt::MuxFmp4InputPin* pin = nullptr;
            for (auto* p : filter->inputPins())
                if (!p->IsConnected() && (pin == nullptr || p->streamId() < pin->streamId())) pin = p;
            // LATM and raw AAC are not offered at connection: the stream connects as ADTS and then takes its
            // real type through the pin's dynamic type change.
            const bool changesType = info.streamType == 5 || info.streamType == 10;
            const auto type = mediaTypeFor(changesType ? 4 : info.streamType);
            if (pin == nullptr || pin->ReceiveConnection(type) != tvrn::com::S_OK ||
                (changesType && pin->SetMediaType(mediaTypeFor(info.streamType)) != tvrn::com::S_OK)) {
                std::cerr << "fmp4mux: cannot connect stream " << selector << " (" << info.codec << ")\n";
                filter->Release();
                return 1;
            }
            routes[d].push_back({pin});
            flt::MuxFmp4OutputPin* output = filter->outputFor(pin->streamId());
            const int index = static_cast<int>(sinks.size());
            session.addOutput(index, info.kind, static_cast<std::uint32_t>(std::max(info.channels, 0)),
                              static_cast<std::uint32_t>(std::max(info.sampleRate, 0)));
            // Room for one chunk of a segment and a half at a high rate (40 Mb/s video, 2 Mb/s audio), whatever
            // bitrate the stream announced: the sink copies every buffer at once.
            const double peakBitsPerSecond = info.kind == "video" ? 40e6 : 2e6;
            const auto bufferCount = static_cast<long>(1.5 * segmentMs / 1000.0 * peakBitsPerSecond / 8 / 8192) + 1;
            session.setAnnouncedBitrate(index, settings.bitrate.has_value());
            sinks.push_back(std::make_unique<ChunkSink>(
                options.dash, bufferCount, [&session, index](const auto& c) { session.onInit(index, c); },
                [&session, index](const auto& c) { session.onMedia(index, c); }));
            if (output == nullptr || output->Connect(sinks.back().get()) != tvrn::com::S_OK) {
                std::cerr << "fmp4mux: cannot connect the output of stream " << selector << "\n";
                filter->Release();
                return 1;
            }
            std::cerr << "fmp4mux: input " << selector << ": " << info.codec << " " << info.kind
                      << (info.width ? " " + std::to_string(info.width) + "x" + std::to_string(info.height) : "")
                      << (info.sampleRate ? " " + std::to_string(info.sampleRate) + " Hz" : "") << "\n";
            ++connected;
        }
    }
    if (connected == 0) {
        std::cerr << "fmp4mux: the inputs hold no stream that can be packaged\n";
        filter->Release();
        return 3;
    }

    filter->Pause();
    filter->Run();
    // The session is built on the filter's worker; a configuration it cannot run leaves the worker idle.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (filter->workerState() != tvrn::encoding::packaging::imff::fmp4::Running && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (filter->workerState() != tvrn::encoding::packaging::imff::fmp4::Running) {
        std::cerr << "fmp4mux: the packaging session did not start (see the messages above)\n";
        filter->Stop();
        filter->Release();
        return 1;
    }

    // Timestamp jumps are taken out before anything is paced or packaged; a step of more than two segments (and
    // never less than two seconds) counts as one.
    TimelineKeeper timeline(std::max<std::int64_t>(2LL * segmentMs, 2000) * 10000,
                            [](const std::string& line) { std::fprintf(stderr, "\r\033[Kfmp4mux: warning: %s\n", line.c_str()); });

    // One streaming thread per input, as a live source would deliver; an input with no selected stream is not read.
    std::vector<std::size_t> read;
    for (std::size_t d = 0; d < demuxers.size(); ++d) {
        if (std::any_of(routes[d].begin(), routes[d].end(), [](const Route& r) { return r.pin != nullptr; }))
            read.push_back(d);
        else
            std::cerr << "fmp4mux: input " << d << ": no stream selected, the input is not read\n";
    }
    const auto started = Clock::now();
    std::atomic<bool> stop{false};
    std::atomic<int> running{static_cast<int>(read.size())};
    std::vector<std::string> readErrors(demuxers.size());
    std::vector<std::thread> readers;
    for (const std::size_t d : read) {
        readers.emplace_back([&, d] {
            auto& routesOf = routes[d];
            // An input that can wait (a file, standard input) is read as fast as the packager takes it, and no
            // faster: the reader waits while it is more than a few segments ahead of the media packaged, so
            // memory stays bounded however long the run (the packager's own queues do not bound themselves).
            // Should the output stall (a stream that never delivers), the reader stops waiting until the output
            // moves again rather than wait for ever.
            const bool throttle = demuxers[d]->canWait() && !options.realtime;
            const double aheadLimit = 4.0 * segmentMs / 1000.0 + 2.0;
            RealtimePacer pacer;
            const auto& streams = demuxers[d]->streams();
            ReadProgress readSoFar;
            std::optional<std::uint64_t> stalledAt;  // the chunk count when the output last stalled
            demuxers[d]->run(
                [&](Packet& packet) {
                    flt::MuxFmp4InputPin* pin = routesOf[packet.stream].pin;
                    if (pin == nullptr) return;
                    if (!timeline.place(static_cast<int>(d), static_cast<int>(packet.stream),
                                        streams[packet.stream].kind == "video", packet.key, packet.pts, packet.dts,
                                        packet.duration))
                        return;
                    const std::optional<std::int64_t> t = packet.dts ? packet.dts : packet.pts;
                    if (options.realtime && t) pacer.wait(*t, stop);
                    if (throttle && t) {
                        const double inputSeconds = readSoFar.add(packet.stream, *t);
                        std::uint64_t chunksSeen = session.chunks();
                        if (stalledAt && chunksSeen != *stalledAt) stalledAt.reset();
                        auto lastProgress = Clock::now();
                        while (!stalledAt && !stop.load() && inputSeconds - session.packagedSeconds() > aheadLimit) {
                            std::this_thread::sleep_for(std::chrono::microseconds(500));
                            if (session.chunks() != chunksSeen) {
                                chunksSeen = session.chunks();
                                lastProgress = Clock::now();
                            } else if (Clock::now() - lastProgress > std::chrono::seconds(1)) {
                                stalledAt = chunksSeen;
                            }
                        }
                    }
                    auto sample = flt::COOBMediaSample::createUninitialised(packet.size);
                    std::uint8_t* data = nullptr;
                    sample->GetPointer(&data);
                    std::memcpy(data, packet.data, packet.size);
                    if (packet.pts) {
                        const std::int64_t stopTime = *packet.pts + packet.duration;
                        sample->SetTime(&*packet.pts, packet.duration > 0 ? &stopTime : nullptr);
                    }
                    if (packet.dts) sample->SetMediaTime(&*packet.dts, &*packet.dts);
                    sample->SetSyncPoint(packet.key);
                    pin->Receive(sample.get());
                },
                stop);
            if (!demuxers[d]->error().empty()) readErrors[d] = demuxers[d]->error();
            for (auto& route : routesOf)
                if (route.pin != nullptr) route.pin->EndOfStream();
            --running;
        });
    }

    // Progress until every output has ended.
    auto allEnded = [&] {
        for (const auto& s : sinks)
            if (!s->ended()) return false;
        return true;
    };
    auto lastProgress = Clock::now();
    while (!allEnded()) {
        if (g_interrupted.load() && !stop.load()) {
            std::cerr << "\nfmp4mux: interrupted, finishing the chunks under way\n";
            stop = true;
        }
        if (!session.error().empty()) stop = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (!options.quiet && Clock::now() - lastProgress > std::chrono::seconds(1)) {
            lastProgress = Clock::now();
            const double wall = std::chrono::duration<double>(Clock::now() - started).count();
            std::fprintf(stderr, "\r\033[Kfmp4mux: %.1f s packaged | %llu chunks | %.1fx real time", session.mediaSeconds(),
                         static_cast<unsigned long long>(session.chunks()), wall > 0 ? session.mediaSeconds() / wall : 0.0);
        }
        if (running.load() == 0 && stop.load() && !session.error().empty()) break;
    }
    for (auto& reader : readers) reader.join();
    filter->Stop();
    filter->Release();

    const double wall = std::chrono::duration<double>(Clock::now() - started).count();
    if (!options.quiet) std::fprintf(stderr, "\r\033[K");
    session.writeFinalManifests();
    if (timeline.dropped() > 0)
        std::cerr << "fmp4mux: warning: " << timeline.dropped()
                  << " packets that went back behind their stream at a timestamp jump were dropped\n";
    for (std::size_t d = 0; d < readErrors.size(); ++d)
        if (!readErrors[d].empty())
            std::cerr << "fmp4mux: warning: reading input " << d << " stopped early: " << readErrors[d] << "\n";
    if (!session.error().empty()) {
        std::cerr << "fmp4mux: " << session.error() << "\n";
        return 1;
    }
    if (session.chunks() == 0) {
        std::cerr << "fmp4mux: no chunk was produced (is there a key frame and a time stamp in the input?)\n";
        return 1;
    }
    std::fprintf(stderr, "fmp4mux: %.1f s of media in %llu chunks (%llu files) in %.2f s, %.1fx real time\n",
                 session.mediaSeconds(), static_cast<unsigned long long>(session.chunks()),
                 static_cast<unsigned long long>(session.files()), wall, wall > 0 ? session.mediaSeconds() / wall : 0.0);
    std::fprintf(stderr, "fmp4mux: the result is in %s; its manifest is %s\n", options.outputDirectory.c_str(),
                 session.manifestPath().c_str());
    if (options.dash)
        std::fprintf(stderr,
                     "fmp4mux: play it with: ffplay %s\n"
                     "         or serve the folder (python3 -m http.server -d %s 8000) and open\n"
                     "         http://localhost:8000/manifest.mpd in a DASH player such as dash.js\n",
                     session.absoluteManifestPath().c_str(), options.outputDirectory.c_str());
    else
        std::fprintf(stderr,
                     "fmp4mux: serve the folder (python3 -m http.server -d %s 8000) and open\n"
                     "         http://localhost:8000/Manifest in a Smooth Streaming player (dash.js with its MSS module)\n",
                     options.outputDirectory.c_str());
    return 0;
}
