#include "apps/fmp4mux/model/presentation.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "apps/fmp4mux/manifests/webvtt_segment.h"
#include "apps/fmp4mux/model/splices.h"
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
                             bool bitrateGiven, const std::string& representationId, const std::string& language,
                             const std::vector<Descriptor>& descriptors) {
    std::lock_guard lock(m_mutex);
    Output& out = m_outputs[index];
    out.track.kind = kind;
    out.track.descriptors = descriptors;
    out.track.inbandSplices = m_settings.splices && m_settings.live && m_settings.dash && kind == "video";
    out.track.channels = channels;
    out.track.sampleRate = sampleRate;
    out.track.representationId = representationId;
    out.track.language = language;
    out.track.adaptationSetId = adaptationSet(out.track);
    out.nextNumber = m_settings.firstNumber;
    out.bitrateGiven = bitrateGiven;
}

void Presentation::onChunk(int index, bool init, tvrn::system::ByteBuffer&& room, std::size_t length,
                           tvrn::system::KeptBytesList&& references) {
    std::lock_guard lock(m_mutex);
    const auto it = m_outputs.find(index);
    if (it == m_outputs.end()) return fail("output " + std::to_string(index) + " was not declared");
    if (length > room.size()) return fail("output " + std::to_string(index) + ": a chunk longer than its room");
    std::size_t referredTo = 0;  // the end of the references so far: they come in order, apart
    for (const auto& reference : references) {
        if (reference.at < referredTo || reference.at > length || reference.size > length - reference.at)
            return fail("output " + std::to_string(index) + ": a chunk refers to bytes out of order or past its end");
        referredTo = reference.at + reference.size;
    }
    if (init)
        onInit(index, it->second, std::move(room), length);
    else
        onMedia(index, it->second, std::move(room), length, std::move(references));
    m_progress.notify_all();
}

void Presentation::onInit(int index, Output& out, tvrn::system::ByteBuffer&& room, std::size_t length) {
    reader::ByteView chunk(room.data(), length);
    const reader::ByteView movie = reader::moviePart(chunk);
    if (movie.empty()) return fail("output " + std::to_string(index) + ": the init chunk is not readable");
    Track track = out.track;
    readServerManifest(reader::serverManifest(movie), m_settings.dash, track);
    readProtection(movie, track);
    if (track.channels == 0) track.channels = out.track.channels;
    if (track.sampleRate == 0) track.sampleRate = out.track.sampleRate;
    track.representationId = out.track.representationId;
    track.adaptationSetId = out.track.adaptationSetId;
    track.descriptors = out.track.descriptors;
    track.inbandSplices = out.track.inbandSplices;
    // A new session starts the timeline again: the segments of the one before leave the manifests.
    out.restarted = out.restarted || !track.segments.empty() || out.packagedSeconds > 0;
    for (const Segment& s : track.segments) track.discontinuitiesBefore += s.discontinuity ? 1U : 0U;
    track.segments.clear();
    track.parts.clear();
    out.track = track;
    try {
        out.track.initialization = expandName(m_settings.initTemplate, out, 0, 0);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    out.track.mediaTemplate = manifestMediaTemplate(out);
    out.track.mediaByNumber = m_settings.mediaTemplate.find("${number}") != std::string::npos;
    out.track.webVttFiles = m_settings.webVttFiles && !m_settings.lowLatency && out.track.codecs == "wvtt";
    out.ready = true;
    ++m_files;
    const auto offset = static_cast<std::size_t>(movie.data() - chunk.data());
    m_publisher.publish({out.track.initialization, std::move(room), {{offset, movie.size()}}, false});
}

void Presentation::onMedia(int index, Output& out, tvrn::system::ByteBuffer&& room, std::size_t length,
                           tvrn::system::KeptBytesList&& references) {
    if (!out.ready) return;
    if (m_settings.lowLatency) return onLowLatencyChunk(index, out, std::move(room), length, std::move(references));
    reader::ByteView chunk(room.data(), length);
    const auto timing = reader::readChunkTiming(chunk, m_settings.dash);
    if (!timing) return fail("output " + std::to_string(index) + ": a chunk without timing was dropped");
    // A chunk of no duration is the engine's stand-in for a chunk this output missed (its input had nothing for
    // that segment, as at a jump in the input's times): it holds no sample and starts at 0, so written it would
    // replace the first file of a $Time$ template and put the timeline back to 0.
    if (timing->duration == 0) return;
    out.track.timescale = timing->timescale;
    carrySplices(out, room, length, references, timing->time, timing->timescale);
    chunk = reader::ByteView(room.data(), length);
    const std::uint64_t number = out.nextNumber++;
    std::string path;
    try {
        path = expandName(m_settings.mediaTemplate, out, timing->time, number);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    ++m_chunks;
    const std::uint64_t size = chunk.size();
    if (out.track.webVttFiles) {
        const std::optional<std::string> text = webVttOfSegment(chunk, timing->timescale);
        if (!text) return fail("output " + std::to_string(index) + ": a WebVTT segment could not be read");
        ++m_files;
        m_publisher.publish({webVttName(path), tvrn::system::ByteBuffer(text->begin(), text->end()), {}, false});
    }
    // DASH media files leave out the engine's marker boxes, which players do not know.
    Publication file{std::move(path), {}, {}, false};
    if (m_settings.dash)
        for (const reader::ByteView range : reader::withoutMarkerBoxes(chunk))
            file.ranges.emplace_back(static_cast<std::size_t>(range.data() - chunk.data()), range.size());
    else
        file.ranges.emplace_back(0, length);
    file.bytes = std::move(room);
    file.references = std::move(references);
    m_publisher.publish(std::move(file));
    recordSegment(out, timing->time, timing->duration, number, size);
    if (m_live) publishManifestLocked();
    removeLeaving();
}

void Presentation::onLowLatencyChunk(int index, Output& out, tvrn::system::ByteBuffer&& room, std::size_t length,
                                     tvrn::system::KeptBytesList&& references) {
    reader::ByteView chunk(room.data(), length);
    auto timing = reader::readChunkTiming(chunk, true);
    if (!timing) return fail("output " + std::to_string(index) + ": a chunk without timing was dropped");
    if (timing->duration == 0) return;
    const bool last = reader::lastCompleteBox(chunk) == "teos";
    out.track.timescale = timing->timescale;
    // Every chunk lasts what the engine planned (its presentation span may differ, with reordered frames).
    const Track::PlannedDurations& plan = out.track.planned;
    if (plan.timescale == 0 || plan.chunk == 0) return fail("output " + std::to_string(index) + ": the init chunk tells no chunk duration");
    out.chunkDuration = static_cast<std::uint64_t>(
        static_cast<unsigned __int128>(plan.chunk) * timing->timescale / plan.timescale);
    timing->duration = out.chunkDuration;
    carrySplices(out, room, length, references, timing->time, timing->timescale);
    chunk = reader::ByteView(room.data(), length);
    Publication part{{}, {}, {}, false};
    if (!out.growing) {
        Output::Growing growing;
        growing.number = out.nextNumber++;
        growing.time = timing->time;
        try {
            growing.path = expandName(m_settings.mediaTemplate, out, timing->time, growing.number);
        } catch (const std::exception& e) {
            return fail(e.what());
        }
        out.growing = growing;
        part.growth = Publication::Growth::Start;
    } else {
        part.growth = Publication::Growth::More;
    }
    out.growing->duration += timing->duration;
    out.growing->bytes += chunk.size();
    part.path = out.growing->path;
    part.complete = last;
    std::uint64_t written = 0;
    for (const reader::ByteView range : reader::withoutMarkerBoxes(chunk)) {
        part.ranges.emplace_back(static_cast<std::size_t>(range.data() - chunk.data()), range.size());
        written += range.size();
    }
    // HLS partial segments: each chunk a byte range of the growing file. A segment's first chunk starts with a
    // key frame; every audio chunk starts with a sync sample.
    Track& track = out.track;
    const bool first = part.growth == Publication::Growth::Start;
    track.parts.push_back({out.growing->number, out.growing->fileBytes, written, timing->duration,
                           first || track.kind != "video"});
    out.growing->fileBytes += written;
    track.growing = Segment{out.growing->time, out.growing->duration, out.growing->number, false};
    // The parts of the last two segments before the growing one stay listed.
    while (!track.parts.empty() && track.parts.front().number + 2 < out.growing->number) track.parts.pop_front();
    part.bytes = std::move(room);
    part.references = std::move(references);
    ++m_chunks;
    const bool firstChunk = !m_availabilityStart;
    if (firstChunk) {
        // Time 0 of the timeline was available a chunk before now: the first segment's first chunk is in.
        m_availabilityStart = m_now() - static_cast<double>(timing->time + timing->duration) /
                                            static_cast<double>(timing->timescale);
        for (const std::string& folder : m_settings.earlierRuns)
            m_leaving.push_back({m_settings.timeShiftBufferSeconds * 1.0, folder, true});
    }
    m_publisher.publish(std::move(part));
    const double end = static_cast<double>(timing->time + timing->duration) / static_cast<double>(timing->timescale);
    m_mediaEnd = std::max(m_mediaEnd, end);
    if (!m_firstStart) m_firstStart = static_cast<double>(out.growing->time) / static_cast<double>(timing->timescale);
    m_mediaSeconds = std::max(m_mediaSeconds, end - *m_firstStart);
    if (last) {
        const Output::Growing done = *out.growing;
        out.growing.reset();
        track.growing.reset();
        recordSegment(out, done.time, done.duration, done.number, done.bytes);
    }
    // The MPD announces segments from the clock: it would do with being written at the start and as segments
    // complete (for the bitrates measured and the timeline of the last one); HLS playlists list every chunk.
    if (m_live && (firstChunk || last || m_settings.listsParts)) publishManifestLocked();
    removeLeaving();
}

void Presentation::noteKeyFrame(int index, std::int64_t pts) {
    std::lock_guard lock(m_mutex);
    const auto it = m_outputs.find(index);
    if (it != m_outputs.end() && !it->second.firstKey) it->second.firstKey = pts;
}

void Presentation::addSplice(std::int64_t at, SpliceEvent event) {
    std::lock_guard lock(m_mutex);
    // Encoders send a cue several times ahead of its splice: the same section for the same time (within the
    // rounding of two clock values to 100 ns) is one splice.
    for (const auto& [time, section] : m_recentSections)
        if (std::llabs(time - at) < 10000 && section == event.section) return;
    m_recentSections.emplace_back(at, event.section);
    if (m_recentSections.size() > 16) m_recentSections.pop_front();
    event.id = m_nextSpliceId++;
    if (m_origin) return placeSplice(at, std::move(event));
    m_unplacedSplices.emplace_back(at, std::move(event));
    if (m_unplacedSplices.size() > 64) m_unplacedSplices.pop_front();
}

void Presentation::placeSplice(std::int64_t at, SpliceEvent&& event) {
    // A splice before the media's start has nothing to mark.
    if (at < *m_origin) return;
    event.time = static_cast<std::uint64_t>(at - *m_origin);
    m_splices.push_back(std::move(event));
    if (m_splices.size() > 256) m_splices.pop_front();
}

void Presentation::carrySplices(Output& out, tvrn::system::ByteBuffer& room, std::size_t& length,
                                tvrn::system::KeptBytesList& references, std::uint64_t time, std::uint64_t timescale) {
    if (out.track.kind != "video") return;
    // The engine starts the media timeline at the earliest sample of the session, and a video output's first
    // segment starts with the first key frame it was given: that key frame's running time less the segment's
    // media time is the running time of media time 0, for every stream.
    if (!m_origin && out.firstKey && timescale > 0) {
        m_origin = *out.firstKey - static_cast<std::int64_t>(static_cast<unsigned __int128>(time) * 10000000 / timescale);
        while (!m_unplacedSplices.empty()) {
            placeSplice(m_unplacedSplices.front().first, std::move(m_unplacedSplices.front().second));
            m_unplacedSplices.pop_front();
        }
    }
    if (!out.track.inbandSplices) return;
    std::vector<std::uint8_t> boxes;
    for (const SpliceEvent& event : m_splices) {
        if (event.id <= out.splicesSent) continue;
        const std::vector<std::uint8_t> box = spliceMessageBox(event, timescale);
        boxes.insert(boxes.end(), box.begin(), box.end());
        out.splicesSent = event.id;
    }
    if (boxes.empty()) return;
    room.resize(length);
    const std::size_t at = insertAfterSegmentType(room, boxes);
    length = room.size();
    for (auto& reference : references)
        if (reference.at >= at) reference.at += boxes.size();
}

void Presentation::recordSegment(Output& out, std::uint64_t time, std::uint64_t duration, std::uint64_t number,
                                 std::uint64_t bytes) {
    // Times and durations are each rounded to the track's timescale (1 ms for the audio of separate-audio
    // segments), so a segment may start a tick before or after the end of the one before: the timeline stays
    // continuous, the earlier segment lasting to the next one's start. Real gaps and overlaps stay as they are.
    if (!out.track.segments.empty()) {
        Segment& before = out.track.segments.back();
        const std::uint64_t beforeEnd = before.time + before.duration;
        const std::uint64_t step = beforeEnd > time ? beforeEnd - time : time - beforeEnd;
        if (step > 0 && step * 100 <= before.duration && time > before.time) before.duration = time - before.time;
        out.restarted = out.restarted || before.time + before.duration != time;
    }
    out.track.segments.push_back({time, duration, number, out.restarted});
    out.restarted = false;
    // A live session keeps the records of its time-shift window only, so that neither its memory nor the
    // manifest rewrite on every chunk grows with the run; the manifest that ends a live input therefore lists
    // the segments still in the window. A file input keeps them all for its static manifest.
    const double end = static_cast<double>(time + duration) / static_cast<double>(out.track.timescale);
    if (m_live) {
        const auto leaving = static_cast<std::ptrdiff_t>(
            countBeforeWindow(out.track.segments, out.track.timescale, m_settings.timeShiftBufferSeconds));
        // Their files go a window later: players that read the manifest before may still fetch them.
        for (auto it = out.track.segments.begin(); it != out.track.segments.begin() + leaving; ++it) {
            try {
                const std::string path = expandName(m_settings.mediaTemplate, out, it->time, it->number);
                m_leaving.push_back({end + m_settings.timeShiftBufferSeconds, path, false});
                if (out.track.webVttFiles) m_leaving.push_back({end + m_settings.timeShiftBufferSeconds, webVttName(path), false});
            } catch (const std::exception&) {
                // a name that expanded once expands again
            }
        }
        for (auto it = out.track.segments.begin(); it != out.track.segments.begin() + leaving; ++it)
            out.track.discontinuitiesBefore += it->discontinuity ? 1U : 0U;
        out.track.segments.erase(out.track.segments.begin(), out.track.segments.begin() + leaving);
    }
    out.maxSegmentMs = std::max(out.maxSegmentMs, static_cast<std::uint32_t>(std::min<std::uint64_t>(
                                                      UINT32_MAX, duration * 1000 / out.track.timescale)));
    out.packagedSeconds += static_cast<double>(duration) / static_cast<double>(out.track.timescale);
    out.packagedBytes += static_cast<double>(bytes);
    m_packagedSeconds = std::max(m_packagedSeconds, out.packagedSeconds);
    out.peakBitrate = std::max(out.peakBitrate, static_cast<std::uint32_t>(std::min<double>(
        4e9, static_cast<double>(bytes) * 8 * static_cast<double>(out.track.timescale) / static_cast<double>(duration))));
    ++m_files;
    if (m_settings.lowLatency) return;  // counted and timed by chunk
    // Media packaged so far, from the earliest chunk start: Smooth times are absolute, DASH ones start near 0.
    const double start = static_cast<double>(time) / static_cast<double>(out.track.timescale);
    if (!m_firstStart || start < *m_firstStart) m_firstStart = start;
    m_mediaSeconds = std::max(m_mediaSeconds, end - *m_firstStart);
    if (!m_availabilityStart) {
        m_availabilityStart = m_now() - end;
        for (const std::string& folder : m_settings.earlierRuns)
            m_leaving.push_back({end + m_settings.timeShiftBufferSeconds, folder, true});
    }
    m_mediaEnd = std::max(m_mediaEnd, end);
}

void Presentation::removeLeaving() {
    while (!m_leaving.empty() && m_leaving.front().after <= m_mediaEnd) {
        m_publisher.publish({std::move(m_leaving.front().path), {}, {}, false, true, m_leaving.front().tree});
        m_leaving.pop_front();
    }
}

void Presentation::finish() {
    std::lock_guard lock(m_mutex);
    // A segment that the end of the input left growing is complete with what it has.
    for (auto& [index, out] : m_outputs) {
        if (!out.growing) continue;
        Publication last{out.growing->path, {}, {}, false};
        last.growth = Publication::Growth::More;
        last.complete = true;
        m_publisher.publish(std::move(last));
        const Output::Growing done = *out.growing;
        out.growing.reset();
        out.track.growing.reset();
        recordSegment(out, done.time, done.duration, done.number, done.bytes);
    }
    m_live = false;
    publishManifestLocked();
}

void Presentation::publishManifestLocked() {
    std::vector<Track> tracks;
    std::uint32_t maxSegmentMs = 0;
    for (const auto& [index, out] : m_outputs) {
        const bool announced = m_settings.lowLatency && m_live && out.chunkDuration > 0;
        if (!out.ready || (out.track.segments.empty() && !announced)) continue;
        Track track = out.track;
        // DASH announces what a client must sustain: the stated bitrate, or else the peak measured over the
        // segments written (the input seldom tells a stream's own rate).
        if (m_settings.dash)
            track.bandwidth = out.bitrateGiven ? std::max(track.bandwidth, track.bitrate)
                                               : std::max<std::uint32_t>(out.peakBitrate, 1);
        if (out.packagedSeconds > 0)
            track.averageBandwidth = static_cast<std::uint32_t>(std::min(4e9, out.packagedBytes * 8 / out.packagedSeconds));
        tracks.push_back(std::move(track));
        maxSegmentMs = std::max(maxSegmentMs, out.maxSegmentMs);
    }
    if (tracks.empty()) return;
    ManifestTiming timing;
    timing.splices.assign(m_splices.begin(), m_splices.end());
    std::stable_sort(timing.splices.begin(), timing.splices.end(),
                     [](const SpliceEvent& a, const SpliceEvent& b) { return a.time < b.time; });
    timing.dynamic = m_live;
    timing.now = m_now();
    timing.availabilityStart = m_availabilityStart.value_or(timing.now);
    timing.timeShiftBufferSeconds = m_settings.timeShiftBufferSeconds;
    timing.maxSegmentMs = maxSegmentMs;
    if (m_settings.lowLatency && m_live) {
        for (const auto& [index, out] : m_outputs) {
            if (out.chunkDuration == 0) continue;
            timing.lowLatency.on = true;
            timing.lowLatency.chunkSeconds =
                static_cast<double>(out.chunkDuration) / static_cast<double>(out.track.timescale);
            timing.lowLatency.segmentSeconds =
                static_cast<double>(out.track.planned.segment) / static_cast<double>(out.track.planned.timescale);
            break;
        }
        timing.lowLatency.startNumber = m_settings.firstNumber;
        timing.lowLatency.latencyTargetMs = m_settings.latencyTargetMs;
        timing.lowLatency.utcTimingUrl = m_settings.utcTimingUrl;
        timing.maxSegmentMs = static_cast<std::uint32_t>(std::lround(timing.lowLatency.segmentSeconds * 1000));
    }
    for (ManifestFile& file : m_manifest.files(tracks, timing)) {
        Publication p{std::move(file.name), tvrn::system::ByteBuffer(file.text.begin(), file.text.end()), {}, true};
        if (file.lastPart) p.lastPart = Publication::PartPosition{file.lastPart->first, file.lastPart->second};
        m_publisher.publish(std::move(p));
    }
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
    // A zero timeout only reads the count: a timed wait that has already expired still puts the thread to sleep
    // and wakes it, a context switch for every packet read.
    if (timeout.count() > 0) m_progress.wait_for(lock, timeout, [&] { return m_chunks != seen; });
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
    std::string key = track.kind + "/" + (track.kind == "video" ? "" : track.language);
    // Streams described differently (another role, accessibility) are sets of their own.
    for (const Descriptor& d : track.descriptors) key += "/" + d.element + "=" + d.scheme + "=" + d.value;
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
