#include "apps/fmp4mux/manifests/hls.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>

#include "apps/fmp4mux/manifests/webvtt_segment.h"

namespace fmp4mux {

namespace {

// Every playlist uses EXT-X-MAP for fMP4 segments without EXT-X-I-FRAMES-ONLY, which needs version 6; nothing
// written here needs more (KEYFORMAT needs 5, decimal EXTINF 3). The multivariant playlist states the version of
// the playlists it leads to.
constexpr int kVersion = 6;

std::string seconds3(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", std::max(0.0, seconds));
    return text;
}

double secondsOf(std::uint64_t ticks, std::uint64_t timescale) {
    return timescale == 0 ? 0.0 : static_cast<double>(ticks) / static_cast<double>(timescale);
}

// A quoted-string attribute value may hold neither a double quote nor a line break.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text)
        if (c != '"' && c != '\n' && c != '\r') out += c;
    return out + "\"";
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// A segment's path, from the track's DASH media template.
std::string segmentUri(const Track& track, const Segment& segment) {
    std::string uri = track.mediaTemplate;
    replaceAll(uri, "$RepresentationID$", track.representationId);
    replaceAll(uri, "$Time$", std::to_string(segment.time));
    replaceAll(uri, "$Number$", std::to_string(segment.number));
    return track.webVttFiles ? webVttName(uri) : uri;
}

// "25", "30000/1001" as a decimal with three places; empty when the rate is not known.
std::string frameRate(const std::string& rate) {
    const auto slash = rate.find('/');
    double num = 0, den = 1;
    try {
        num = std::stod(rate.substr(0, slash));
        if (slash != std::string::npos) den = std::stod(rate.substr(slash + 1));
    } catch (const std::exception&) {
        return {};
    }
    if (!(num > 0) || !(den > 0)) return {};
    return seconds3(num / den);
}

constexpr const char* kWidevine = "edef8ba9-79d6-4ace-a3c8-27dcd51d21ed";
constexpr const char* kPlayReadyId = "9a04f079-9840-4286-ab92-e65be0885f95";
constexpr const char* kClearKey = "1077efec-c0b2-4d02-ace3-3c1e52e2fb4b";

// One EXT-X-KEY per protection system the init file signals. The segments carry Common Encryption: 'cenc'
// (AES-CTR) is SAMPLE-AES-CTR, 'cbcs' SAMPLE-AES. Each system's initialization data travels in a data URI: the
// pssh box for Widevine and other systems (KEYFORMAT their urn:uuid), the PlayReady header object (UTF-16) for
// PlayReady, whose players know it by the key format "com.microsoft.playready", and the key id for W3C ClearKey,
// "org.w3.clearkey" (the "identity" format means a whole-segment AES-128 key file and does not apply to Common
// Encryption).
void keys(std::string& out, const Track& track) {
    if (track.protectionScheme.empty()) return;
    const std::string method = track.protectionScheme == "cbcs" ? "SAMPLE-AES" : "SAMPLE-AES-CTR";
    std::string keyId;
    for (char c : track.defaultKid)
        if (c != '-') keyId += c;
    for (const Track::ProtectionSystem& system : track.protectionSystems) {
        std::string format = "urn:uuid:" + system.id, uri = "data:text/plain;base64," + system.psshBase64;
        if (system.id == kPlayReadyId) {
            if (system.dataBase64.empty()) continue;
            format = "com.microsoft.playready";
            uri = "data:text/plain;charset=UTF-16;base64," + system.dataBase64;
        } else if (system.id == kClearKey) {
            // ClearKey players (hls.js) read the key id itself from the URI's data.
            if (track.defaultKidBase64.empty()) continue;
            format = "org.w3.clearkey";
            uri = "data:text/plain;base64," + track.defaultKidBase64;
        }
        out += "#EXT-X-KEY:METHOD=" + method + ",URI=" + quoted(uri);
        if (!keyId.empty()) out += ",KEYID=0x" + keyId;
        out += ",KEYFORMAT=" + quoted(format) + ",KEYFORMATVERSIONS=\"1\"\n";
    }
}

// Low latency: the partial segments of segment `number`, byte ranges of its file.
void partLines(std::string& out, const Track& track, const Segment& segment) {
    const std::string uri = segmentUri(track, segment);
    for (const Track::PartialSegment& part : track.parts) {
        if (part.number != segment.number) continue;
        out += "#EXT-X-PART:DURATION=" + seconds3(secondsOf(part.duration, track.timescale)) + ",URI=" + quoted(uri) +
               ",BYTERANGE=\"" + std::to_string(part.length) + "@" + std::to_string(part.offset) + "\"";
        if (part.independent) out += ",INDEPENDENT=YES";
        out += "\n";
    }
}

// The last partial segment listed: of the segment growing, or else of the last one written.
std::optional<std::pair<std::uint64_t, std::uint64_t>> lastPartOf(const Track& track) {
    if (track.parts.empty()) return std::nullopt;
    const std::uint64_t number = track.parts.back().number;
    const auto count = static_cast<std::uint64_t>(std::count_if(
        track.parts.begin(), track.parts.end(), [number](const Track::PartialSegment& p) { return p.number == number; }));
    return std::pair{number, count - 1};
}

// A splice as RFC 8216 dates it: its start on the clock of the segments' EXT-X-PROGRAM-DATE-TIME, the section in
// hexadecimal as SCTE35-OUT (a splice out of the network), SCTE35-IN (back into it) or SCTE35-CMD (a time_signal),
// and the break's duration, when told, as planned.
std::string dateRange(const SpliceEvent& splice, const ManifestTiming& timing) {
    static const char* digits = "0123456789ABCDEF";
    std::string hex = "0x";
    for (const std::uint8_t b : splice.section) {
        hex += digits[b >> 4];
        hex += digits[b & 15];
    }
    std::string line = "#EXT-X-DATERANGE:ID=\"splice-" + std::to_string(splice.id) + "\",START-DATE=\"" +
                       isoUtc(timing.availabilityStart + static_cast<double>(splice.time) / 1e7) + "\"";
    if (splice.duration) line += ",PLANNED-DURATION=" + seconds3(static_cast<double>(*splice.duration) / 1e7);
    const char* attribute = splice.kind == SpliceEvent::Kind::Out  ? "SCTE35-OUT"
                            : splice.kind == SpliceEvent::Kind::In ? "SCTE35-IN"
                                                                   : "SCTE35-CMD";
    return line + "," + attribute + "=" + hex + "\n";
}

}  // namespace

std::string mediaPlaylistName(const Track& track) { return track.representationId + ".m3u8"; }

std::string buildMediaPlaylist(const Track& track, const ManifestTiming& timing) {
    const LowLatencyTiming& ll = timing.lowLatency;
    const bool parts = timing.dynamic && ll.on && ll.chunkSeconds > 0;
    // Live, the window of the DASH time-shift buffer; the segments that left it raise the media sequence.
    const std::size_t from =
        timing.dynamic ? countBeforeWindow(track.segments, track.timescale, timing.timeShiftBufferSeconds) : 0;
    std::uint64_t discontinuities = track.discontinuitiesBefore;
    // The first segment listed takes its discontinuity sequence number from the tag; a tag of its own is counted.
    for (std::size_t k = 0; k <= from && k < track.segments.size(); ++k)
        discontinuities += track.segments[k].discontinuity ? 1U : 0U;
    // No segment may last more than the target duration, each rounded to the nearest second; live, the longest
    // segment so far too, so that the target stays put as the window moves.
    long target = timing.dynamic ? std::lround(timing.maxSegmentMs / 1000.0) : 1;
    for (std::size_t k = from; k < track.segments.size(); ++k)
        target = std::max(target, std::lround(secondsOf(track.segments[k].duration, track.timescale)));
    target = std::max(target, 1L);

    std::string out = "#EXTM3U\n#EXT-X-VERSION:" + std::to_string(kVersion) + "\n";
    out += "#EXT-X-TARGETDURATION:" + std::to_string(target) + "\n";
    if (parts) {
        // Players block on reload for the next part, and stay three parts behind the live edge.
        out += "#EXT-X-SERVER-CONTROL:CAN-BLOCK-RELOAD=YES,PART-HOLD-BACK=" + seconds3(3 * ll.chunkSeconds) + "\n";
        out += "#EXT-X-PART-INF:PART-TARGET=" + seconds3(ll.chunkSeconds) + "\n";
    }
    const std::uint64_t sequence = from < track.segments.size() ? track.segments[from].number
                                   : parts && track.growing ? track.growing->number
                                                            : 0;
    out += "#EXT-X-MEDIA-SEQUENCE:" + std::to_string(sequence) + "\n";
    if (discontinuities > 0) out += "#EXT-X-DISCONTINUITY-SEQUENCE:" + std::to_string(discontinuities) + "\n";
    if (!timing.dynamic) out += "#EXT-X-PLAYLIST-TYPE:VOD\n";
    out += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    keys(out, track);
    if (!track.webVttFiles) out += "#EXT-X-MAP:URI=" + quoted(track.initialization) + "\n";
    // Splices are dated in the media playlists of the audio and video (in the segment they fall in; those before
    // the first one listed have left), which needs the segments' dates.
    const std::vector<SpliceEvent> none;
    const std::vector<SpliceEvent>& splices = track.kind == "text" ? none : timing.splices;
    std::size_t splice = 0;
    const auto spliceTime = [&](std::size_t i) { return static_cast<double>(splices[i].time) / 1e7; };
    if (from < track.segments.size())
        while (splice < splices.size() &&
               spliceTime(splice) < secondsOf(track.segments[from].time, track.timescale))
            ++splice;
    for (std::size_t k = from; k < track.segments.size(); ++k) {
        const Segment& s = track.segments[k];
        if (s.discontinuity && k > from) out += "#EXT-X-DISCONTINUITY\n";
        // Live, each segment's wall-clock start on the clock of the DASH availability start.
        if (timing.dynamic || !splices.empty())
            out += "#EXT-X-PROGRAM-DATE-TIME:" + isoUtc(timing.availabilityStart + secondsOf(s.time, track.timescale)) + "\n";
        for (; splice < splices.size() && spliceTime(splice) < secondsOf(s.time + s.duration, track.timescale); ++splice)
            out += dateRange(splices[splice], timing);
        if (parts) partLines(out, track, s);
        out += "#EXTINF:" + seconds3(secondsOf(s.duration, track.timescale)) + ",\n" + segmentUri(track, s) + "\n";
    }
    if (parts) {
        // The segment being written, by its parts so far, and the part to come: the rest of the growing file, or
        // the next segment's file from its start.
        Segment next;
        std::uint64_t start = 0;
        if (track.growing) {
            partLines(out, track, *track.growing);
            next = *track.growing;
            for (const Track::PartialSegment& part : track.parts)
                if (part.number == next.number) start = part.offset + part.length;
        } else if (!track.segments.empty()) {
            const Segment& before = track.segments.back();
            next = {before.time + before.duration, 0, before.number + 1, false};
        }
        if (track.growing || !track.segments.empty())
            out += "#EXT-X-PRELOAD-HINT:TYPE=PART,URI=" + quoted(segmentUri(track, next)) + ",BYTERANGE-START=" +
                   std::to_string(start) + "\n";
    }
    if (!timing.dynamic) out += "#EXT-X-ENDLIST\n";
    return out;
}

std::string buildMultivariantPlaylist(const std::vector<Track>& tracks, const ManifestTiming&) {
    std::vector<const Track*> videos, audios, texts;
    for (const Track& t : tracks) {
        if (t.kind == "video") videos.push_back(&t);
        if (t.kind == "audio") audios.push_back(&t);
        if (t.kind == "text") texts.push_back(&t);
    }
    std::string out = "#EXTM3U\n#EXT-X-VERSION:" + std::to_string(kVersion) + "\n#EXT-X-INDEPENDENT-SEGMENTS\n";
    // The audio renditions of one group: the variants carry the codecs of all and the rate of the highest.
    const bool grouped = !videos.empty() && !audios.empty();
    std::uint32_t audioPeak = 0, audioAverage = 0;
    std::vector<std::string> audioCodecs;
    for (const Track* a : audios) {
        audioPeak = std::max(audioPeak, a->bandwidth);
        audioAverage = std::max(audioAverage, a->averageBandwidth);
        if (std::find(audioCodecs.begin(), audioCodecs.end(), a->codecs) == audioCodecs.end())
            audioCodecs.push_back(a->codecs);
        if (!grouped) continue;
        out += "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=" + quoted(a->representationId);
        if (!a->language.empty() && a->language != "und") out += ",LANGUAGE=" + quoted(a->language);
        out += std::string(",DEFAULT=") + (a == audios.front() ? "YES" : "NO") + ",AUTOSELECT=YES";
        if (a->channels > 0) out += ",CHANNELS=\"" + std::to_string(a->channels) + "\"";
        out += ",URI=" + quoted(mediaPlaylistName(*a)) + "\n";
    }
    // Subtitles: one group that every variant names. None is the default, so that a player shows them only
    // when asked; AUTOSELECT lets it pick the one of the viewer's language. The variants' CODECS list the text
    // formats too (wvtt, stpp), as they list every format a variant may need.
    std::vector<std::string> textCodecs;
    std::uint32_t textPeak = 0, textAverage = 0;  // the largest, as one subtitle rendition plays at a time
    for (const Track* t : texts) {
        // TTML in fMP4 is announced as IMSC1 text, the profile HLS players take it in; WebVTT text files need no
        // codecs entry.
        const std::string codecs = t->codecs == "stpp" ? "stpp.ttml.im1t" : t->webVttFiles ? "" : t->codecs;
        if (!codecs.empty() && std::find(textCodecs.begin(), textCodecs.end(), codecs) == textCodecs.end())
            textCodecs.push_back(codecs);
        textPeak = std::max(textPeak, t->bandwidth);
        textAverage = std::max(textAverage, t->averageBandwidth);
        out += "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=" + quoted(t->representationId);
        if (!t->language.empty() && t->language != "und") out += ",LANGUAGE=" + quoted(t->language);
        out += ",DEFAULT=NO,AUTOSELECT=YES,URI=" + quoted(mediaPlaylistName(*t)) + "\n";
    }
    const auto variantCodecs = [&](std::string codecs) {
        for (const std::string& c : textCodecs) codecs += "," + c;
        return codecs;
    };
    for (const Track* v : videos) {
        std::string codecs = v->codecs;
        for (const std::string& c : audioCodecs) codecs += "," + c;
        codecs = variantCodecs(codecs);
        out += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(std::max<std::uint64_t>(1, std::uint64_t{v->bandwidth} + audioPeak + textPeak));
        if (v->averageBandwidth > 0)
            out += ",AVERAGE-BANDWIDTH=" + std::to_string(std::uint64_t{v->averageBandwidth} + audioAverage + textAverage);
        out += ",CODECS=" + quoted(codecs);
        if (v->width > 0 && v->height > 0) out += ",RESOLUTION=" + std::to_string(v->width) + "x" + std::to_string(v->height);
        if (const std::string rate = frameRate(v->frameRate); !rate.empty()) out += ",FRAME-RATE=" + rate;
        if (grouped) out += ",AUDIO=\"audio\"";
        if (!texts.empty()) out += ",SUBTITLES=\"subs\"";
        out += "\n" + mediaPlaylistName(*v) + "\n";
    }
    // Audio alone: each audio track is a variant of its own.
    if (videos.empty())
        for (const Track* a : audios) {
            out += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(std::max<std::uint64_t>(1, std::uint64_t{a->bandwidth} + textPeak));
            if (a->averageBandwidth > 0)
                out += ",AVERAGE-BANDWIDTH=" + std::to_string(std::uint64_t{a->averageBandwidth} + textAverage);
            out += ",CODECS=" + quoted(variantCodecs(a->codecs));
            if (!texts.empty()) out += ",SUBTITLES=\"subs\"";
            out += "\n" + mediaPlaylistName(*a) + "\n";
        }
    return out;
}

std::vector<ManifestFile> HlsManifestWriter::files(const std::vector<Track>& tracks, const ManifestTiming& timing) const {
    std::vector<ManifestFile> all{{fileName(), buildMultivariantPlaylist(tracks, timing)}};
    const bool parts = timing.dynamic && timing.lowLatency.on;
    for (const Track& t : tracks)
        if (t.kind == "video" || t.kind == "audio" || t.kind == "text")
            all.push_back({mediaPlaylistName(t), buildMediaPlaylist(t, timing), parts ? lastPartOf(t) : std::nullopt});
    return all;
}

}  // namespace fmp4mux
