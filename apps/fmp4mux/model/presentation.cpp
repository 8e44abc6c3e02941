#include "apps/fmp4mux/model/presentation.h"

#include <algorithm>
#include <stdexcept>

#include "packaging/fmp4/output/chunk_reader.h"
#include "support/variable_expander/variable_expander.h"

namespace fmp4mux {

namespace reader = tvrn::encoding::packaging::imff::fmp4;
namespace ve = tvrn::encoding::variable_expander;

namespace {
double systemNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}
}  // namespace

Presentation::Presentation(PresentationSettings settings, Publisher& publisher, const ManifestWriter& manifest,
                           WallClock now)
    : m_settings(std::move(settings)), m_publisher(publisher), m_manifest(manifest),
      m_now(now ? std::move(now) : WallClock(systemNow)), m_live(m_settings.live) {}

void Presentation::addOutput(int index, const std::string& kind, std::uint32_t channels, std::uint32_t sampleRate,
                             bool bitrateGiven, const std::string& representationId, const std::string& language) {
    std::lock_guard lock(m_mutex);
    Output& out = m_outputs[index];
    out.track.kind = kind;
    out.track.channels = channels;
    out.track.sampleRate = sampleRate;
    out.track.representationId = representationId;
    out.track.language = language;
    out.track.adaptationSetId = adaptationSet(out.track);
    out.nextNumber = m_settings.firstNumber;
    out.bitrateGiven = bitrateGiven;
}

void Presentation::onChunk(int index, bool init, std::vector<std::uint8_t>&& chunk) {
    std::lock_guard lock(m_mutex);
    const auto it = m_outputs.find(index);
    if (it == m_outputs.end()) return fail("output " + std::to_string(index) + " was not declared");
    if (init)
        onInit(index, it->second, std::move(chunk));
    else
        onMedia(index, it->second, std::move(chunk));
    m_progress.notify_all();
}

void Presentation::onInit(int index, Output& out, std::vector<std::uint8_t>&& chunk) {
    const reader::ByteView movie = reader::moviePart(chunk);
    if (movie.empty()) return fail("output " + std::to_string(index) + ": the init chunk is not readable");
    Track track = out.track;
    readServerManifest(reader::serverManifest(movie), m_settings.dash, track);
    readProtection(movie, track);
    if (track.channels == 0) track.channels = out.track.channels;
    if (track.sampleRate == 0) track.sampleRate = out.track.sampleRate;
    track.representationId = out.track.representationId;
    track.adaptationSetId = out.track.adaptationSetId;
    out.track = track;
    out.track.segments.clear();  // a new session starts the timeline again
    try {
        out.track.initialization = expandName(m_settings.initTemplate, out, 0, 0);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    out.track.mediaTemplate = manifestMediaTemplate(out);
    out.track.mediaByNumber = m_settings.mediaTemplate.find("${number}") != std::string::npos;
    out.ready = true;
    ++m_files;
    const auto offset = static_cast<std::size_t>(movie.data() - chunk.data());
    m_publisher.publish({out.track.initialization, std::move(chunk), {{offset, movie.size()}}, false});
}

void Presentation::onMedia(int index, Output& out, std::vector<std::uint8_t>&& chunk) {
    if (!out.ready) return;
    const auto timing = reader::readChunkTiming(chunk, m_settings.dash);
    if (!timing) return fail("output " + std::to_string(index) + ": a chunk without timing was dropped");
    // A chunk of no duration is the engine's stand-in for a chunk this output missed (its input had nothing for
    // that segment, as at a jump in the input's times): it holds no sample and starts at 0, so written it would
    // replace the first file of a $Time$ template and put the timeline back to 0.
    if (timing->duration == 0) return;
    out.track.timescale = timing->timescale;
    const std::uint64_t number = out.nextNumber++;
    std::string path;
    try {
        path = expandName(m_settings.mediaTemplate, out, timing->time, number);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    // Times and durations are each rounded to the track's timescale (1 ms for the audio of separate-audio
    // segments), so a segment may start a tick before or after the end of the one before: the timeline stays
    // continuous, the earlier segment lasting to the next one's start. Real gaps and overlaps stay as they are.
    if (!out.track.segments.empty()) {
        Segment& before = out.track.segments.back();
        const std::uint64_t end = before.time + before.duration;
        const std::uint64_t step = end > timing->time ? end - timing->time : timing->time - end;
        if (step > 0 && step * 100 <= before.duration && timing->time > before.time) before.duration = timing->time - before.time;
    }
    out.track.segments.push_back({timing->time, timing->duration, number});
    // A live session keeps the records of its time-shift window only, so that neither its memory nor the
    // manifest rewrite on every chunk grows with the run; the manifest that ends a live input therefore lists
    // the segments still in the window. A file input keeps them all for its static manifest.
    const double end = static_cast<double>(timing->time + timing->duration) / static_cast<double>(timing->timescale);
    if (m_live) {
        const auto leaving = static_cast<std::ptrdiff_t>(
            countBeforeWindow(out.track.segments, out.track.timescale, m_settings.timeShiftBufferSeconds));
        // Their files go a window later: players that read the manifest before may still fetch them.
        for (auto it = out.track.segments.begin(); it != out.track.segments.begin() + leaving; ++it) {
            try {
                m_leaving.push_back({end + m_settings.timeShiftBufferSeconds,
                                     expandName(m_settings.mediaTemplate, out, it->time, it->number), false});
            } catch (const std::exception&) {
                // a name that expanded once expands again
            }
        }
        out.track.segments.erase(out.track.segments.begin(), out.track.segments.begin() + leaving);
    }
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
    m_mediaSeconds = std::max(m_mediaSeconds, end - *m_firstStart);
    if (!m_availabilityStart) {
        m_availabilityStart = m_now() - end;
        for (const std::string& folder : m_settings.earlierRuns)
            m_leaving.push_back({end + m_settings.timeShiftBufferSeconds, folder, true});
    }

    // DASH media files leave out the engine's marker boxes, which players do not know.
    Publication file{std::move(path), {}, {}, false};
    if (m_settings.dash)
        for (const reader::ByteView range : reader::withoutMarkerBoxes(chunk))
            file.ranges.emplace_back(static_cast<std::size_t>(range.data() - chunk.data()), range.size());
    file.bytes = std::move(chunk);
    m_publisher.publish(std::move(file));
    if (m_live) publishManifestLocked();
    m_mediaEnd = std::max(m_mediaEnd, end);
    while (!m_leaving.empty() && m_leaving.front().after <= m_mediaEnd) {
        m_publisher.publish({std::move(m_leaving.front().path), {}, {}, false, true, m_leaving.front().tree});
        m_leaving.pop_front();
    }
}

void Presentation::finish() {
    std::lock_guard lock(m_mutex);
    m_live = false;
    publishManifestLocked();
}

void Presentation::publishManifestLocked() {
    std::vector<Track> tracks;
    std::uint32_t maxSegmentMs = 0;
    for (const auto& [index, out] : m_outputs) {
        if (!out.ready || out.track.segments.empty()) continue;
        Track track = out.track;
        // DASH announces what a client must sustain: the stated bitrate, or else the peak measured over the
        // segments written (the input seldom tells a stream's own rate).
        if (m_settings.dash)
            track.bandwidth = out.bitrateGiven ? std::max(track.bandwidth, track.bitrate)
                                               : std::max<std::uint32_t>(out.peakBitrate, 1);
        tracks.push_back(std::move(track));
        maxSegmentMs = std::max(maxSegmentMs, out.maxSegmentMs);
    }
    if (tracks.empty()) return;
    ManifestTiming timing;
    timing.dynamic = m_live;
    timing.now = m_now();
    timing.availabilityStart = m_availabilityStart.value_or(timing.now);
    timing.timeShiftBufferSeconds = m_settings.timeShiftBufferSeconds;
    timing.maxSegmentMs = maxSegmentMs;
    const std::string text = m_manifest.build(tracks, timing);
    m_publisher.publish({m_manifest.fileName(), std::vector<std::uint8_t>(text.begin(), text.end()), {}, true});
}

std::uint64_t Presentation::chunks() const {
    std::lock_guard lock(m_mutex);
    return m_chunks;
}

std::uint64_t Presentation::files() const {
    std::lock_guard lock(m_mutex);
    return m_files;
}

double Presentation::mediaSeconds() const {
    std::lock_guard lock(m_mutex);
    return m_mediaSeconds;
}

double Presentation::packagedSeconds() const {
    std::lock_guard lock(m_mutex);
    return m_packagedSeconds;
}

std::uint64_t Presentation::waitForChunk(std::uint64_t seen, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(m_mutex);
    m_progress.wait_for(lock, timeout, [&] { return m_chunks != seen; });
    return m_chunks;
}

void Presentation::wake() const { m_progress.notify_all(); }

std::optional<std::string> Presentation::failure() const {
    {
        std::lock_guard lock(m_mutex);
        if (m_failure) return m_failure;
    }
    return m_publisher.failure();
}

void Presentation::fail(const std::string& message) {
    if (!m_failure) m_failure = message;
}

int Presentation::adaptationSet(const Track& track) {
    const std::string key = track.kind + "/" + (track.kind == "video" ? "" : track.language);
    const auto it = m_sets.find(key);
    if (it != m_sets.end()) return it->second;
    const int id = static_cast<int>(m_sets.size());
    m_sets[key] = id;
    return id;
}

std::string Presentation::expandName(const std::string& pattern, const Output& out, std::uint64_t time,
                                     std::uint64_t number) const {
    ve::MapVariables variables;
    variables.add("sessionId", m_settings.streamName);
    variables.add("adaptationSetId", std::to_string(out.track.adaptationSetId));
    variables.add("representationId", out.track.representationId);
    variables.add("bitrate", std::to_string(out.track.bitrate));
    variables.add("time", std::to_string(time));
    variables.add("number", std::to_string(number));
    variables.add("ext", "mp4");
    std::string name = ve::expand(pattern, variables);
    if (!m_settings.runFolder.empty()) name = m_settings.runFolder + "/" + name;
    std::string why;
    if (!nameStaysInside(name, why)) throw std::runtime_error("the file name '" + name + "' is refused: " + why);
    return name;
}

// The media template as a manifest states it: DASH placeholders, or Smooth's {bitrate} and {start time}.
std::string Presentation::manifestMediaTemplate(const Output& out) const {
    ve::MapVariables variables;
    variables.add("sessionId", m_settings.streamName);
    variables.add("adaptationSetId", std::to_string(out.track.adaptationSetId));
    variables.add("ext", "mp4");
    if (m_settings.dash) {
        variables.add("representationId", "$RepresentationID$");
        // The files are named by the stream's own bitrate, which may differ from the bandwidth the MPD
        // announces (the peak measured): the template states the number itself.
        variables.add("bitrate", std::to_string(out.track.bitrate));
        variables.add("time", "$Time$");
        variables.add("number", "$Number$");
    } else {
        variables.add("representationId", out.track.representationId);
        variables.add("bitrate", "{bitrate}");
        variables.add("time", "{start time}");
        variables.add("number", "{start time}");
    }
    const std::string text = ve::expand(m_settings.mediaTemplate, variables);
    return m_settings.runFolder.empty() ? text : m_settings.runFolder + "/" + text;
}

}  // namespace fmp4mux
