#include "apps/fmp4mux/manifests.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>

namespace fmp4mux {

namespace {

std::string attribute(const tinyxml2::XMLElement* e, const char* name) {
    const char* value = e->Attribute(name);
    return value ? value : "";
}

std::uint32_t number(const std::string& text) {
    try {
        return text.empty() ? 0 : static_cast<std::uint32_t>(std::stoul(text));
    } catch (...) {
        return 0;
    }
}

// The Smooth dialect's "param" children as a map.
std::map<std::string, std::string> params(const tinyxml2::XMLElement* e) {
    std::map<std::string, std::string> out;
    for (auto* p = e->FirstChildElement("param"); p != nullptr; p = p->NextSiblingElement("param"))
        if (p->Attribute("name") && p->Attribute("value")) out[p->Attribute("name")] = p->Attribute("value");
    return out;
}

std::string smoothFourCC(const std::string& sampleEntry, const std::string& codecPrivateData) {
    if (sampleEntry == "avc1" || sampleEntry == "avc3") return "H264";
    if (sampleEntry == "hvc1" || sampleEntry == "hev1") return "HEVC";
    if (sampleEntry == "mp4a") {
        // Object type 5 in the first five bits of the configuration (0x28..0x2F) is HE-AAC.
        if (codecPrivateData.size() >= 2) {
            const unsigned first = static_cast<unsigned>(std::stoul(codecPrivateData.substr(0, 2), nullptr, 16));
            if ((first >> 3) == 5 || (first >> 3) == 29) return "AACH";
        }
        return "AACL";
    }
    std::string upper = sampleEntry;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    return upper;
}

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

}  // namespace

bool readServerManifest(const std::string& xml, bool dash, Track& track) {
    tinyxml2::XMLDocument doc;
    if (doc.Parse(xml.c_str(), xml.size()) != tinyxml2::XML_SUCCESS) return false;
    const auto* smil = doc.FirstChildElement("smil");
    const auto* body = smil ? smil->FirstChildElement("body") : nullptr;
    const auto* sw = body ? body->FirstChildElement("switch") : nullptr;
    if (sw == nullptr) return false;
    if (const auto* video = sw->FirstChildElement("video")) {
        track.kind = "video";
        if (dash) {
            track.bitrate = number(attribute(video, "systemBitrate"));
            track.bandwidth = std::max(track.bitrate, number(attribute(video, "peakBitrate")));
            track.width = static_cast<int>(number(attribute(video, "width")));
            track.height = static_cast<int>(number(attribute(video, "height")));
            track.frameRate = attribute(video, "frameRate");
            track.codecs = attribute(video, "codecs");
            track.sarWidth = std::max(1, static_cast<int>(number(attribute(video, "sar_width"))));
            track.sarHeight = std::max(1, static_cast<int>(number(attribute(video, "sar_height"))));
        } else {
            auto p = params(video);
            track.bitrate = track.bandwidth = number(attribute(video, "systemBitrate"));
            track.width = static_cast<int>(number(p["MaxWidth"]));
            track.height = static_cast<int>(number(p["MaxHeight"]));
            track.codecPrivateData = p["CodecPrivateData"];
            track.fourCC = smoothFourCC(p["FourCC"], track.codecPrivateData);
        }
        return true;
    }
    if (const auto* audio = sw->FirstChildElement("audio")) {
        track.kind = "audio";
        if (dash) {
            track.bitrate = track.bandwidth = number(attribute(audio, "systemBitrate"));
            track.language = attribute(audio, "lang").empty() ? "und" : attribute(audio, "lang");
            track.codecs = attribute(audio, "codecs");
            track.sampleRate = number(attribute(audio, "audioSamplingRate"));
            if (const auto* channels = audio->FirstChildElement("AudioChannelConfiguration"))
                track.channels = number(attribute(channels, "value"));
        } else {
            auto p = params(audio);
            track.bitrate = track.bandwidth = number(attribute(audio, "systemBitrate"));
            track.language = attribute(audio, "systemLanguage").empty() ? "und" : attribute(audio, "systemLanguage");
            track.codecPrivateData = p["CodecPrivateData"];
            track.fourCC = smoothFourCC(p["FourCC"], track.codecPrivateData);
            track.sampleRate = number(p["SamplingRate"]);
            track.channels = number(p["Channels"]);
        }
        return true;
    }
    return false;
}

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

std::size_t countBeforeWindow(const std::deque<Segment>& segments, std::uint64_t timescale, std::uint32_t windowSeconds) {
    if (segments.empty()) return 0;
    const Segment& last = segments.back();
    const std::uint64_t end = last.time + last.duration;
    const std::uint64_t window = static_cast<std::uint64_t>(windowSeconds) * timescale;
    std::size_t count = 0;
    // Scans from the front: a session that drops as it goes finds at most the one or two segments just out.
    while (count + 1 < segments.size() &&
           (segments[count].time + window < end || segments[count].time > last.time))
        ++count;
    return count;
}

std::string buildMpd(const std::vector<Track>& tracks, const MpdTiming& timing) {
    double duration = 0;
    for (const auto& t : tracks)
        if (!t.segments.empty() && t.timescale > 0)
            duration = std::max(duration, static_cast<double>(t.segments.back().time + t.segments.back().duration) /
                                              static_cast<double>(t.timescale));

    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out += "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" profiles=\"urn:mpeg:dash:profile:isoff-live:2011\"";
    if (timing.dynamic) {
        out += " type=\"dynamic\" availabilityStartTime=\"" + timing.availabilityStartTime + "\" publishTime=\"" +
               timing.publishTime + "\" minimumUpdatePeriod=\"" + isoDuration(timing.maxSegmentMs / 1000.0) +
               "\" timeShiftBufferDepth=\"" + isoDuration(timing.timeShiftBufferSeconds) +
               "\" suggestedPresentationDelay=\"" + isoDuration(3.0 * timing.maxSegmentMs / 1000.0) + "\"";
    } else {
        out += " type=\"static\" mediaPresentationDuration=\"" + isoDuration(duration) + "\"";
    }
    out += " minBufferTime=\"" + isoDuration(timing.maxSegmentMs / 1000.0) + "\">\n";
    indent(out, 1);
    out += "<Period id=\"0\" start=\"PT0S\">\n";

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
            if (t->kind == "audio" && t->channels > 0) {
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
    out += "</Period>\n</MPD>\n";
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
        }
        out += ">\n";
        int index = 0;
        for (const Track* t : members) {
            indent(out, 2);
            out += "<QualityLevel Index=\"" + std::to_string(index++) + "\" Bitrate=\"" + std::to_string(t->bitrate) +
                   "\" FourCC=\"" + t->fourCC + "\"";
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

}  // namespace fmp4mux
