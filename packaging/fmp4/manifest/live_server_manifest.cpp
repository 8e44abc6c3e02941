#include "packaging/fmp4/manifest/live_server_manifest.h"

#include <tinyxml2.h>

#include <cstdio>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using tinyxml2::XMLElement;

namespace {

constexpr const char* kSmilNamespace = "http://www.w3.org/2001/SMIL20/Language";

// tinyxml2 indents by four blanks; the document is read by tools that expect two.
class TwoBlankPrinter : public tinyxml2::XMLPrinter {
public:
    TwoBlankPrinter() : XMLPrinter(nullptr, false) {}

protected:
    void PrintSpace(int depth) override {
        for (int i = 0; i < depth; ++i) Write("  ");
    }
};

bool usable(const std::string& text) { return text.find_first_of(" \"'=<>&") == std::string::npos; }

std::string number(std::int64_t value) { return std::to_string(value); }

}  // namespace

std::vector<std::pair<std::string, std::string>> parseExtraParameters(const std::string& text) {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::size_t from = 0;
    while (from <= text.size()) {
        std::size_t end = text.find(';', from);
        if (end == std::string::npos) end = text.size();
        const std::string pair = text.substr(from, end - from);
        from = end + 1;
        if (pair.empty()) continue;
        const std::size_t equals = pair.find('=');
        std::string key = pair.substr(0, equals);
        std::string value = equals == std::string::npos ? std::string() : pair.substr(equals + 1);
        if (!usable(key) || !usable(value)) return {};
        pairs.emplace_back(std::move(key), std::move(value));
    }
    return pairs;
}

std::string hexText(const std::vector<std::uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        text.push_back(kDigits[b >> 4]);
        text.push_back(kDigits[b & 15]);
    }
    return text;
}

LiveServerManifest::LiveServerManifest(std::string outputName, bool dash)
    : m_dash(dash), m_outputName(std::move(outputName)), m_document(std::make_unique<tinyxml2::XMLDocument>()) {
    m_document->InsertEndChild(m_document->NewDeclaration());
    XMLElement* smil = m_document->NewElement("smil");
    smil->SetAttribute("xmlns", kSmilNamespace);
    m_document->InsertEndChild(smil);
    XMLElement* head = smil->InsertNewChildElement("head");
    XMLElement* meta = head->InsertNewChildElement("meta");
    meta->SetAttribute("name", "Meta Data");
    meta->SetAttribute("content", "Common meta data");
    m_switch = smil->InsertNewChildElement("body")->InsertNewChildElement("switch");
}

LiveServerManifest::~LiveServerManifest() = default;

XMLElement* LiveServerManifest::addParam(XMLElement* parent, const char* name, const std::string& value) {
    XMLElement* param = parent->InsertNewChildElement("param");
    param->SetAttribute("name", name);
    param->SetAttribute("value", value.c_str());
    param->SetAttribute("valuetype", "data");
    return param;
}

void LiveServerManifest::addExtraParameters(XMLElement* element, const ElementaryStreamAttributes& attributes) {
    for (const auto& [key, value] : parseExtraParameters(attributes.name2)) addParam(element, key.c_str(), value);
}

void LiveServerManifest::addDurations(XMLElement* element, const ManifestDurations& durations) {
    XMLElement* child = element->InsertNewChildElement("durations");
    child->SetAttribute("timescale", number(static_cast<std::int64_t>(durations.timebase)).c_str());
    child->SetAttribute("segmentDuration", number(static_cast<std::int64_t>(durations.segmentDuration)).c_str());
    child->SetAttribute("chunkDuration", number(static_cast<std::int64_t>(durations.chunkDuration)).c_str());
}

void LiveServerManifest::addDescriptors(XMLElement* element, const ElementaryStreamAttributes& attributes) {
    for (const StreamDescriptor& descriptor : attributes.descriptors) {
        if (descriptor.element.empty()) continue;  // no element name to write
        XMLElement* child = element->InsertNewChildElement(descriptor.element.c_str());
        child->SetAttribute("schemeIdUri", descriptor.schemeIdUri.c_str());
        child->SetAttribute("value", descriptor.value.c_str());
    }
}

void LiveServerManifest::AddVideo(std::uint32_t trackId, const VideoManifestInfo& info,
                                  const ElementaryStreamAttributes& a, const ManifestDurations& durations) {
    ++m_entries;
    XMLElement* video = m_switch->InsertNewChildElement("video");
    if (!m_dash) {
        video->SetAttribute("src", "videoStream");
        video->SetAttribute("systemBitrate", number(a.bitrate).c_str());
        addParam(video, "trackName", "video" + a.name);
        addParam(video, "trackID", number(trackId));
        addParam(video, "FourCC", info.fourCC);
        addParam(video, "CodecPrivateData", hexText(info.codecPrivateData));
        addParam(video, "MaxWidth", number(info.width));
        addParam(video, "MaxHeight", number(info.height));
        addParam(video, "DisplayWidth", number(info.width));
        addParam(video, "DisplayHeight", number(info.height));
        addParam(video, "Subtype", "");
        addExtraParameters(video, a);
        return;
    }
    char frameRate[48];
    std::snprintf(frameRate, sizeof frameRate, "%d/%d", static_cast<int>(info.frameRateNumerator),
                  static_cast<int>(info.frameRateDenominator));
    video->SetAttribute("trackId", number(trackId).c_str());
    video->SetAttribute("systemBitrate", number(a.bitrate).c_str());
    video->SetAttribute("peakBitrate", number(a.bandwidth).c_str());
    video->SetAttribute("width", number(info.width).c_str());
    video->SetAttribute("height", number(info.height).c_str());
    video->SetAttribute("startWithSAP", "1");
    video->SetAttribute("frameRate", frameRate);
    video->SetAttribute("scanType", info.interlaced ? "interlaced" : "progressive");
    video->SetAttribute("mimeType", "video/mp4");
    video->SetAttribute("codecs", info.codecs.c_str());
    video->SetAttribute("sar_width", number(info.sarWidth).c_str());
    video->SetAttribute("sar_height", number(info.sarHeight).c_str());
    addDurations(video, durations);
    addDescriptors(video, a);
}

void LiveServerManifest::AddAudio(std::uint32_t trackId, const AudioManifestInfo& info,
                                  const ElementaryStreamAttributes& a, const ManifestDurations& durations) {
    ++m_entries;
    XMLElement* audio = m_switch->InsertNewChildElement("audio");
    if (!m_dash) {
        audio->SetAttribute("src", ("audioStream_" + number(trackId)).c_str());
        audio->SetAttribute("systemBitrate", number(a.bitrate).c_str());
        if (!a.name.empty()) audio->SetAttribute("Name", a.name.c_str());
        audio->SetAttribute("systemLanguage", a.language.c_str());
        addParam(audio, "systemBitrate", number(a.bitrate));
        addParam(audio, "trackName", a.name);
        addParam(audio, "trackID", number(trackId));
        addParam(audio, "FourCC", info.fourCC);
        addParam(audio, "CodecPrivateData", hexText(info.codecPrivateData));
        addParam(audio, "AudioTag", "255");
        addParam(audio, "Channels", number(info.channels));
        addParam(audio, "SamplingRate", number(info.samplingRate));
        addParam(audio, "BitsPerSample", "16");
        addParam(audio, "PacketSize", "4");
        addParam(audio, "Subtype", "");
        addExtraParameters(audio, a);
        return;
    }
    audio->SetAttribute("systemBitrate", number(a.bitrate).c_str());
    audio->SetAttribute("trackID", number(trackId).c_str());
    audio->SetAttribute("lang", a.language.empty() ? "und" : a.language.c_str());
    audio->SetAttribute("startWithSAP", "1");
    audio->SetAttribute("mimeType", "audio/mp4");
    audio->SetAttribute("codecs", info.codecs.c_str());
    audio->SetAttribute("audioSamplingRate", number(info.samplingRate).c_str());
    if (!info.channelScheme.empty()) {
        XMLElement* channels = audio->InsertNewChildElement("AudioChannelConfiguration");
        channels->SetAttribute("schemeIdUri", info.channelScheme.c_str());
        channels->SetAttribute("value", info.channelValue.c_str());
    }
    addDurations(audio, durations);
    addDescriptors(audio, a);
}

void LiveServerManifest::AddText(std::uint32_t trackId, const std::string& fourCC, const ElementaryStreamAttributes& a) {
    ++m_entries;
    XMLElement* text = m_switch->InsertNewChildElement("textstream");
    if (!m_dash) {
        text->SetAttribute("src", ("textStream_" + number(trackId)).c_str());
        text->SetAttribute("systemBitrate", number(a.bitrate).c_str());
        if (!a.name.empty()) text->SetAttribute("Name", a.name.c_str());
        text->SetAttribute("systemLanguage", a.language.c_str());
        addParam(text, "trackID", number(trackId));
        addParam(text, "trackName", a.name);
        addParam(text, "Subtype", "CAPT");
        // Smooth Streaming clients know TTML as "TTML"; WebVTT keeps its own code.
        addParam(text, "FourCC", fourCC == "wvtt" ? fourCC : std::string("TTML"));
        return;
    }
    text->SetAttribute("systemBitrate", number(a.bitrate).c_str());
    text->SetAttribute("trackID", number(trackId).c_str());
    text->SetAttribute("lang", a.language.empty() ? "und" : a.language.c_str());
    text->SetAttribute("startWithSAP", "1");
    text->SetAttribute("mimeType", "application/mp4");
    text->SetAttribute("codecs", fourCC.c_str());
    if (a.flag) {
        XMLElement* accessibility = text->InsertNewChildElement("Accessibility");
        accessibility->SetAttribute("schemeIdUri", "urn:tva:metadata:cs:AudioPurposeCS:2007");
        accessibility->SetAttribute("value", "2");
    }
    addDescriptors(text, a);
}

void LiveServerManifest::AddScte35(std::uint32_t trackId, const ElementaryStreamAttributes& a) {
    if (m_dash) return;
    ++m_entries;
    XMLElement* markers = m_switch->InsertNewChildElement("textstream");
    markers->SetAttribute("src", ("textStream_" + number(trackId)).c_str());
    markers->SetAttribute("systemLanguage", "eng");
    addParam(markers, "trackID", number(trackId));
    addParam(markers, "trackName", "SCTE35_" + m_outputName + "_" + number(trackId));
    addParam(markers, "trackName", "AdMarkers");
    addParam(markers, "manifestOutput", "TRUE");
    // Publishers read these two from "Subtype", not from "value".
    for (const auto& [name, subtype] : {std::pair<const char*, std::string>{"FourCC", "SCTE35"},
                                        std::pair<const char*, std::string>{"parentTrackName", "video" + a.name}}) {
        XMLElement* param = markers->InsertNewChildElement("param");
        param->SetAttribute("name", name);
        param->SetAttribute("Subtype", subtype.c_str());
        param->SetAttribute("valuetype", "data");
    }
}

std::string LiveServerManifest::ToXml() const {
    TwoBlankPrinter printer;
    m_document->Print(&printer);
    return std::string(printer.CStr(), printer.CStrSize() > 0 ? static_cast<std::size_t>(printer.CStrSize() - 1) : 0u);
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
