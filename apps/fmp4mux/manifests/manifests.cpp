#include "apps/fmp4mux/manifests/manifests.h"

#include "apps/fmp4mux/model/splices.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>

namespace fmp4mux {

namespace {

void indent(std::string& out, int level) { out.append(static_cast<std::size_t>(level) * 2, ' '); }

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

// Three segments behind the live edge, but always inside the time-shift window, with a segment to spare where
// the window allows it.
double suggestedDelay(const MpdTiming& timing) {
    const double segment = timing.maxSegmentMs / 1000.0;
    const double window = timing.timeShiftBufferSeconds;
    return std::min(3.0 * segment, std::max(window - segment, window / 2.0));
}

}  // namespace

std::string isoDuration(double seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "PT%.3fS", std::max(0.0, seconds));
    return text;
}

std::string isoUtc(double unixSeconds) {
    const auto whole = static_cast<std::time_t>(std::floor(unixSeconds));
    const int millis = static_cast<int>(std::lround((unixSeconds - static_cast<double>(whole)) * 1000)) % 1000;
    std::tm tm{};
    gmtime_r(&whole, &tm);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
    return text;
}

namespace {
constexpr const char* kPlayReady = "9a04f079-9840-4286-ab92-e65be0885f95";

// Common Encryption of an adaptation set: the scheme with the default key id, then each protection system with
// its pssh box (and PlayReady's header object as mspr:pro, for the players that read that).
void contentProtection(std::string& out, const Track& track) {
    if (track.protectionScheme.empty()) return;
    indent(out, 3);
    out += "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"" +
           escape(track.protectionScheme) + "\"";
    if (!track.defaultKid.empty()) out += " cenc:default_KID=\"" + track.defaultKid + "\"";
    out += "/>\n";
    for (const Track::ProtectionSystem& system : track.protectionSystems) {
        indent(out, 3);
        out += "<ContentProtection schemeIdUri=\"urn:uuid:" + system.id + "\">\n";
        indent(out, 4);
        out += "<cenc:pssh>" + system.psshBase64 + "</cenc:pssh>\n";
        if (system.id == kPlayReady && !system.dataBase64.empty()) {
            indent(out, 4);
            out += "<mspr:pro>" + system.dataBase64 + "</mspr:pro>\n";
        }
        indent(out, 3);
        out += "</ContentProtection>\n";
    }
}
// The descriptors of an adaptation set in the order of the MPD schema: Accessibility, Role, Rating, Viewpoint,
// each in the order given. A text set is a subtitle.
void descriptors(std::string& out, const Track& lead) {
    std::vector<Descriptor> all = lead.descriptors;
    if (lead.kind == "text") all.push_back({"Role", "urn:mpeg:dash:role:2011", "subtitle"});
    for (const char* element : {"Accessibility", "Role", "Rating", "Viewpoint"})
        for (const Descriptor& d : all) {
            if (d.element != element) continue;
            indent(out, 3);
            out += "<" + d.element + " schemeIdUri=\"" + escape(d.scheme) + "\"";
            if (!d.value.empty()) out += " value=\"" + escape(d.value) + "\"";
            out += "/>\n";
        }
}

// The splices of a presentation whose segments do not carry them: an EventStream of the Period, on a 90 kHz
// timescale, each event's message the section in base64.
void splicesEventStream(std::string& out, const std::vector<Track>& tracks, const std::vector<SpliceEvent>& splices) {
    if (splices.empty() || std::any_of(tracks.begin(), tracks.end(), [](const Track& t) { return t.inbandSplices; }))
        return;
    const auto ticks = [](std::uint64_t t) { return std::to_string((t * 9 + 500) / 1000); };
    indent(out, 2);
    out += "<EventStream schemeIdUri=\"" + std::string(kScte35Scheme) + "\" timescale=\"90000\">\n";
    for (const SpliceEvent& e : splices) {
        indent(out, 3);
        out += "<Event presentationTime=\"" + ticks(e.time) + "\"";
        if (e.duration) out += " duration=\"" + ticks(*e.duration) + "\"";
        out += " id=\"" + std::to_string(e.id) + "\" contentEncoding=\"base64\">" + base64(e.section) + "</Event>\n";
    }
    indent(out, 2);
    out += "</EventStream>\n";
}

}  // namespace

std::string buildMpd(const std::vector<Track>& tracks, const MpdTiming& timing) {
    double duration = 0;
    for (const auto& t : tracks)
        if (!t.segments.empty() && t.timescale > 0)
            duration = std::max(duration, static_cast<double>(t.segments.back().time + t.segments.back().duration) /
                                              static_cast<double>(t.timescale));

    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out += "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" profiles=\"urn:mpeg:dash:profile:isoff-live:2011\"";
    if (std::any_of(tracks.begin(), tracks.end(), [](const Track& t) { return !t.protectionScheme.empty(); }))
        out += " xmlns:cenc=\"urn:mpeg:cenc:2013\" xmlns:mspr=\"urn:microsoft:playready\"";
    if (timing.dynamic) {
        out += " type=\"dynamic\" availabilityStartTime=\"" + timing.availabilityStartTime + "\" publishTime=\"" +
               timing.publishTime + "\" minimumUpdatePeriod=\"" + isoDuration(timing.maxSegmentMs / 1000.0) +
               "\" timeShiftBufferDepth=\"" + isoDuration(timing.timeShiftBufferSeconds) +
               "\" suggestedPresentationDelay=\"" +
               isoDuration(timing.lowLatency.on ? timing.lowLatency.latencyTargetMs / 1000.0 : suggestedDelay(timing)) + "\"";
    } else {
        out += " type=\"static\" mediaPresentationDuration=\"" + isoDuration(duration) + "\"";
    }
    const LowLatencyTiming& ll = timing.lowLatency;
    const bool lowLatency = timing.dynamic && ll.on && ll.segmentSeconds > 0;
    out += " minBufferTime=\"" + isoDuration(lowLatency ? ll.chunkSeconds : timing.maxSegmentMs / 1000.0) + "\">\n";
    if (lowLatency) {
        // The latency players aim at, and how fast they may play to hold it.
        const std::uint32_t target = ll.latencyTargetMs;
        indent(out, 1);
        out += "<ServiceDescription id=\"0\">\n";
        indent(out, 2);
        out += "<Latency referenceId=\"0\" target=\"" + std::to_string(target) + "\" min=\"" +
               std::to_string(target / 2) + "\" max=\"" + std::to_string(target * 2) + "\"/>\n";
        indent(out, 2);
        out += "<PlaybackRate min=\"0.96\" max=\"1.04\"/>\n";
        indent(out, 1);
        out += "</ServiceDescription>\n";
    }
    indent(out, 1);
    out += "<Period id=\"0\" start=\"PT0S\">\n";
    splicesEventStream(out, tracks, timing.splices);

    std::map<int, std::vector<const Track*>> sets;
    for (const auto& t : tracks) sets[t.adaptationSetId].push_back(&t);
    for (const auto& [id, members] : sets) {
        const Track& lead = *members.front();
        indent(out, 2);
        out += "<AdaptationSet id=\"" + std::to_string(id) + "\" contentType=\"" + lead.kind + "\" mimeType=\"" +
               (lead.kind == "video" ? "video/mp4" : lead.kind == "audio" ? "audio/mp4" : "application/mp4") +
               "\" segmentAlignment=\"true\" startWithSAP=\"1\"";
        if (lead.kind != "video") out += " lang=\"" + escape(lead.language) + "\"";
        out += ">\n";
        contentProtection(out, lead);
        if (lead.inbandSplices) {
            indent(out, 3);
            out += "<InbandEventStream schemeIdUri=\"" + std::string(kScte35Scheme) + "\"/>\n";
        }
        descriptors(out, lead);
        for (const Track* t : members) {
            indent(out, 3);
            out += "<Representation id=\"" + escape(t->representationId) + "\" bandwidth=\"" +
                   std::to_string(std::max<std::uint32_t>(t->bandwidth, 1)) + "\" codecs=\"" + escape(t->codecs) + "\"";
            if (t->kind == "video") {
                out += " width=\"" + std::to_string(t->width) + "\" height=\"" + std::to_string(t->height) + "\"";
                if (!t->frameRate.empty() && t->frameRate.find("/0") == std::string::npos &&
                    t->frameRate != "0/1")
                    out += " frameRate=\"" + t->frameRate + "\"";
                out += " sar=\"" + std::to_string(t->sarWidth) + ":" + std::to_string(t->sarHeight) + "\"";
            } else if (t->kind == "audio" && t->sampleRate > 0) {
                out += " audioSamplingRate=\"" + std::to_string(t->sampleRate) + "\"";
            }
            out += ">\n";
            if (t->kind == "audio" && !t->channelScheme.empty()) {
                indent(out, 4);
                out += "<AudioChannelConfiguration schemeIdUri=\"" + escape(t->channelScheme) + "\" value=\"" +
                       escape(t->channelValue) + "\"/>\n";
            } else if (t->kind == "audio" && t->channels > 0) {
                indent(out, 4);
                out += "<AudioChannelConfiguration schemeIdUri=\"urn:mpeg:dash:23003:3:audio_channel_configuration:2011\" "
                       "value=\"" + std::to_string(t->channels) + "\"/>\n";
            }
            // A dynamic MPD keeps the segments of the time-shift window only.
            const std::size_t from =
                timing.dynamic ? countBeforeWindow(t->segments, t->timescale, timing.timeShiftBufferSeconds) : 0;
            indent(out, 4);
            out += "<SegmentTemplate timescale=\"" + std::to_string(t->timescale) + "\" initialization=\"" +
                   escape(t->initialization) + "\" media=\"" + escape(t->mediaTemplate) + "\"";
            if (lowLatency) {
                // Segments by number from the clock; each may be fetched a chunk after it starts, and is sent as
                // it grows.
                char offset[32];
                std::snprintf(offset, sizeof offset, "%.3f", ll.segmentSeconds - ll.chunkSeconds);
                out += " startNumber=\"" + std::to_string(ll.startNumber) + "\" duration=\"" +
                       std::to_string(std::llround(ll.segmentSeconds * static_cast<double>(t->timescale))) +
                       "\" availabilityTimeOffset=\"" + offset + "\" availabilityTimeComplete=\"false\"/>\n";
                indent(out, 3);
                out += "</Representation>\n";
                continue;
            }
            if (t->mediaByNumber && from < t->segments.size())
                out += " startNumber=\"" + std::to_string(t->segments[from].number) + "\"";
            out += ">\n";
            indent(out, 5);
            out += "<SegmentTimeline>\n";
            // Runs of equal durations that follow on without a gap share one S element.
            for (std::size_t i = from; i < t->segments.size();) {
                std::size_t run = i + 1;
                while (run < t->segments.size() && t->segments[run].duration == t->segments[i].duration &&
                       t->segments[run].time == t->segments[run - 1].time + t->segments[run - 1].duration)
                    ++run;
                indent(out, 6);
                out += "<S t=\"" + std::to_string(t->segments[i].time) + "\" d=\"" +
                       std::to_string(t->segments[i].duration) + "\"";
                if (run - i > 1) out += " r=\"" + std::to_string(run - i - 1) + "\"";
                out += "/>\n";
                i = run;
            }
            indent(out, 5);
            out += "</SegmentTimeline>\n";
            indent(out, 4);
            out += "</SegmentTemplate>\n";
            indent(out, 3);
            out += "</Representation>\n";
        }
        indent(out, 2);
        out += "</AdaptationSet>\n";
    }
    indent(out, 1);
    out += "</Period>\n";
    if (timing.dynamic) {
        // Players set their clock from the MPD itself: no time server is needed, and none outside is reached.
        // A low-latency presentation served here names the server's own clock first, which is more exact.
        if (lowLatency && !ll.utcTimingUrl.empty()) {
            indent(out, 1);
            out += "<UTCTiming schemeIdUri=\"urn:mpeg:dash:utc:http-xsdate:2014\" value=\"" + escape(ll.utcTimingUrl) +
                   "\"/>\n";
        }
        indent(out, 1);
        out += "<UTCTiming schemeIdUri=\"urn:mpeg:dash:utc:direct:2014\" value=\"" + timing.publishTime + "\"/>\n";
    }
    out += "</MPD>\n";
    return out;
}

std::string buildSmoothManifest(const std::vector<Track>& tracks, bool live, std::uint32_t dvrWindowSeconds) {
    // The presentation runs from the earliest chunk to the end of the latest one.
    std::uint64_t earliest = UINT64_MAX, end = 0;
    for (const auto& t : tracks) {
        if (t.segments.empty()) continue;
        earliest = std::min(earliest, t.segments.front().time);
        end = std::max(end, t.segments.back().time + t.segments.back().duration);
    }
    const std::uint64_t duration = end > earliest ? end - earliest : 0;
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out += "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"2\" TimeScale=\"10000000\" Duration=\"" +
           std::to_string(live ? 0 : duration) + "\"";
    if (live)
        out += " IsLive=\"TRUE\" LookAheadFragmentCount=\"0\" DVRWindowLength=\"" +
               std::to_string(static_cast<std::uint64_t>(dvrWindowSeconds) * 10000000) + "\"";
    out += ">\n";
    // The PlayReady header of the first protected track, for the players that license through it.
    for (const auto& t : tracks) {
        const auto system = std::find_if(t.protectionSystems.begin(), t.protectionSystems.end(),
                                         [](const Track::ProtectionSystem& s) { return s.id == kPlayReady; });
        if (system == t.protectionSystems.end() || system->dataBase64.empty()) continue;
        indent(out, 1);
        out += "<Protection>\n";
        indent(out, 2);
        out += "<ProtectionHeader SystemID=\"" + std::string(kPlayReady) + "\">" + system->dataBase64 +
               "</ProtectionHeader>\n";
        indent(out, 1);
        out += "</Protection>\n";
        break;
    }
    std::map<int, std::vector<const Track*>> sets;
    for (const auto& t : tracks) sets[t.adaptationSetId].push_back(&t);
    for (const auto& [id, members] : sets) {
        const Track& first = *members.front();
        // Every quality level of a stream index shares the chunk list of the first.
        indent(out, 1);
        out += "<StreamIndex Type=\"" + first.kind + "\" Name=\"" + first.kind + std::to_string(id) + "\" Chunks=\"" +
               std::to_string(first.segments.size()) + "\" QualityLevels=\"" + std::to_string(members.size()) +
               "\" Url=\"" + escape(first.mediaTemplate) + "\"";
        if (first.kind == "video") {
            int maxWidth = 0, maxHeight = 0;
            for (const Track* t : members) {
                maxWidth = std::max(maxWidth, t->width);
                maxHeight = std::max(maxHeight, t->height);
            }
            out += " MaxWidth=\"" + std::to_string(maxWidth) + "\" MaxHeight=\"" + std::to_string(maxHeight) +
                   "\" DisplayWidth=\"" + std::to_string(maxWidth) + "\" DisplayHeight=\"" + std::to_string(maxHeight) +
                   "\"";
        } else {
            out += " Language=\"" + escape(first.language) + "\"";
            if (first.kind == "text") out += " Subtype=\"CAPT\"";
        }
        out += ">\n";
        int index = 0;
        for (const Track* t : members) {
            indent(out, 2);
            out += "<QualityLevel Index=\"" + std::to_string(index++) + "\" Bitrate=\"" + std::to_string(t->bitrate) +
                   "\" FourCC=\"" + t->fourCC + "\"";
            if (t->kind == "text") {
                out += "/>\n";
                continue;
            }
            if (t->kind == "video")
                out += " MaxWidth=\"" + std::to_string(t->width) + "\" MaxHeight=\"" + std::to_string(t->height) + "\"";
            else
                out += " SamplingRate=\"" + std::to_string(t->sampleRate) + "\" Channels=\"" +
                       std::to_string(t->channels) + "\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\"";
            out += " CodecPrivateData=\"" + t->codecPrivateData + "\"/>\n";
        }
        for (const auto& s : first.segments) {
            indent(out, 2);
            out += "<c t=\"" + std::to_string(s.time) + "\" d=\"" + std::to_string(s.duration) + "\"/>\n";
        }
        indent(out, 1);
        out += "</StreamIndex>\n";
    }
    out += "</SmoothStreamingMedia>\n";
    return out;
}

std::string DashManifestWriter::build(const std::vector<Track>& tracks, const ManifestTiming& timing) const {
    MpdTiming mpd;
    mpd.dynamic = timing.dynamic;
    mpd.maxSegmentMs = std::max<std::uint32_t>(timing.maxSegmentMs, 1000);
    mpd.timeShiftBufferSeconds = timing.timeShiftBufferSeconds;
    mpd.availabilityStartTime = isoUtc(timing.availabilityStart);
    mpd.publishTime = isoUtc(timing.now);
    mpd.lowLatency = timing.lowLatency;
    mpd.splices = timing.splices;
    return buildMpd(tracks, mpd);
}

std::string SmoothManifestWriter::build(const std::vector<Track>& tracks, const ManifestTiming& timing) const {
    return buildSmoothManifest(tracks, timing.dynamic, timing.timeShiftBufferSeconds);
}

std::string ManifestSet::fileName() const { return m_writers.empty() ? std::string() : m_writers.front()->fileName(); }

std::string ManifestSet::build(const std::vector<Track>& tracks, const ManifestTiming& timing) const {
    return m_writers.empty() ? std::string() : m_writers.front()->build(tracks, timing);
}

std::vector<ManifestFile> ManifestSet::files(const std::vector<Track>& tracks, const ManifestTiming& timing) const {
    std::vector<ManifestFile> all;
    for (const ManifestWriter* writer : m_writers)
        for (ManifestFile& file : writer->files(tracks, timing)) all.push_back(std::move(file));
    return all;
}

}  // namespace fmp4mux
