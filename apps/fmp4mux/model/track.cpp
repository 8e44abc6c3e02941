#include "apps/fmp4mux/model/track.h"

#include <openssl/evp.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include "packaging/fmp4/output/chunk_reader.h"

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

// The channels an audio channel configuration names: a count in MPEG's scheme, a mask in Dolby's (bits from
// the top: L, C, R, Ls, Rs, Lc/Rc, Lrs/Rrs, Cs, Ts, Lsd/Rsd, Lw/Rw, Vhl/Vhr, Vhc, Lts/Rts, LFE2, LFE).
std::uint32_t channelCountOf(const std::string& scheme, const std::string& value) {
    if (scheme == "urn:dolby:dash:audio_channel_configuration:2011") {
        static constexpr std::uint32_t kWeights[16] = {1, 1, 1, 1, 1, 2, 2, 1, 1, 2, 2, 2, 1, 2, 1, 1};
        const unsigned long mask = std::strtoul(value.c_str(), nullptr, 16);
        std::uint32_t count = 0;
        for (unsigned bit = 0; bit < 16; ++bit)
            if ((mask >> (15 - bit)) & 1u) count += kWeights[bit];
        return count;
    }
    return number(value);
}

}  // namespace

std::string base64(const std::vector<std::uint8_t>& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(std::max(length, 0)));
    return text;
}

namespace {

// 16 bytes in the order a file holds them as UUID text: 8-4-4-4-12 lower-case hexadecimal digits.
std::string uuidText(const std::vector<std::uint8_t>& id) {
    static const char* digits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < id.size() && i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += digits[id[i] >> 4];
        text += digits[id[i] & 15];
    }
    return text;
}
}  // namespace

void readProtection(std::span<const std::uint8_t> movie, Track& track) {
    namespace reader = tvrn::encoding::packaging::imff::fmp4;
    const reader::MovieProtection protection = reader::readMovieProtection(movie);
    track.protectionScheme = protection.scheme;
    track.defaultKid = protection.defaultKeyId.size() == 16 ? uuidText(protection.defaultKeyId) : "";
    track.defaultKidBase64 = protection.defaultKeyId.size() == 16 ? base64(protection.defaultKeyId) : "";
    track.protectionSystems.clear();
    for (const auto& system : protection.systems)
        track.protectionSystems.push_back({uuidText(system.systemId), base64(system.box), base64(system.data)});
}

bool readServerManifest(const std::string& xml, bool dash, Track& track) {
    tinyxml2::XMLDocument doc;
    if (doc.Parse(xml.c_str(), xml.size()) != tinyxml2::XML_SUCCESS) return false;
    const auto* smil = doc.FirstChildElement("smil");
    const auto* body = smil ? smil->FirstChildElement("body") : nullptr;
    const auto* sw = body ? body->FirstChildElement("switch") : nullptr;
    if (sw == nullptr) return false;
    const auto planned = [&track](const tinyxml2::XMLElement* element) {
        if (const auto* durations = element->FirstChildElement("durations"))
            track.planned = {number(attribute(durations, "timescale")), number(attribute(durations, "chunkDuration")),
                             number(attribute(durations, "segmentDuration"))};
    };
    if (const auto* video = sw->FirstChildElement("video")) {
        track.kind = "video";
        planned(video);
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
        planned(audio);
        if (dash) {
            track.bitrate = track.bandwidth = number(attribute(audio, "systemBitrate"));
            track.language = attribute(audio, "lang").empty() ? "und" : attribute(audio, "lang");
            track.codecs = attribute(audio, "codecs");
            track.sampleRate = number(attribute(audio, "audioSamplingRate"));
            if (const auto* channels = audio->FirstChildElement("AudioChannelConfiguration")) {
                track.channelScheme = attribute(channels, "schemeIdUri");
                track.channelValue = attribute(channels, "value");
                track.channels = channelCountOf(track.channelScheme, track.channelValue);
            }
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
    if (const auto* text = sw->FirstChildElement("textstream")) {
        // Subtitles: "stpp" or "wvtt" (DASH), "TTML" or "wvtt" (Smooth Streaming).
        track.kind = "text";
        track.bitrate = track.bandwidth = number(attribute(text, "systemBitrate"));
        if (dash) {
            track.language = attribute(text, "lang").empty() ? "und" : attribute(text, "lang");
            track.codecs = attribute(text, "codecs");
        } else {
            auto p = params(text);
            track.language = attribute(text, "systemLanguage").empty() ? "und" : attribute(text, "systemLanguage");
            track.fourCC = p["FourCC"];
        }
        return true;
    }
    return false;
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

bool nameStaysInside(const std::string& text, std::string& why) {
    if (!text.empty() && text.front() == '/') {
        why = "names must be relative to the output folder";
        return false;
    }
    if (text.find_first_of("#?%\\") != std::string::npos) {
        why = "names must not hold '#', '?', '%' or '\\', which break URLs";
        return false;
    }
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find('/', start), text.size());
        if (text.compare(start, end - start, "..") == 0) {
            why = "names must not leave the output folder ('..')";
            return false;
        }
        start = end + 1;
    }
    return true;
}

}  // namespace fmp4mux
