#pragma once
// The server manifest of an output: a SMIL document whose "switch" holds one entry per stream. A publisher
// downstream reads it from the init chunk to announce the streams. Two dialects: Smooth Streaming carries the
// stream parameters as "param" children, DASH as attributes.
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "packaging/fmp4_types/stream_attributes.h"

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// The cutting durations of the session, in units of 1 / timebase seconds.
struct ManifestDurations {
    std::uint64_t timebase = 1;
    std::uint64_t segmentDuration = 0;
    std::uint64_t chunkDuration = 0;
};

// What the manifest says of a video stream, read from its parameter sets and sample entry.
struct VideoManifestInfo {
    std::string fourCC;                         // of the sample entry
    std::string codecs;                         // codec string
    std::vector<std::uint8_t> codecPrivateData; // parameter sets, each after a start code
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::int64_t frameRateNumerator = 0;
    std::int64_t frameRateDenominator = 1;
    bool interlaced = false;
    std::uint32_t sarWidth = 1;
    std::uint32_t sarHeight = 1;
};

// What the manifest says of an audio stream.
struct AudioManifestInfo {
    std::string fourCC;
    std::string codecs;
    std::vector<std::uint8_t> codecPrivateData;  // the decoder configuration
    std::uint32_t channels = 0;
    std::uint32_t samplingRate = 0;
    // The DASH audio channel configuration, when the codec has one to state.
    std::string channelScheme;
    std::string channelValue;
};

// The pairs of the extra parameters ("k=v;k2=v2"); empty when any key or value holds a blank, a quote, an
// equals sign, '<', '>' or '&', which makes the whole list unusable.
std::vector<std::pair<std::string, std::string>> parseExtraParameters(const std::string& text);

// Lower-case hexadecimal, two digits a byte.
std::string hexText(const std::vector<std::uint8_t>& bytes);

class LiveServerManifest {
public:
    LiveServerManifest(std::string outputName, bool dash);
    ~LiveServerManifest();
    LiveServerManifest(const LiveServerManifest&) = delete;
    LiveServerManifest& operator=(const LiveServerManifest&) = delete;

    // Protection signalling joins these calls when encryption is added to the session.
    void AddVideo(std::uint32_t trackId, const VideoManifestInfo& info, const ElementaryStreamAttributes& attributes,
                  const ManifestDurations& durations);
    void AddAudio(std::uint32_t trackId, const AudioManifestInfo& info, const ElementaryStreamAttributes& attributes,
                  const ManifestDurations& durations);
    // A TTML or WebVTT stream; `fourCC` is its sample entry's code ("stpp", "wvtt", "dfxp").
    void AddText(std::uint32_t trackId, const std::string& fourCC, const ElementaryStreamAttributes& attributes);
    // An SCTE-35 stream: the ad markers of the output's video for Smooth Streaming publishers. A DASH manifest
    // says nothing of it.
    void AddScte35(std::uint32_t trackId, const ElementaryStreamAttributes& attributes);

    bool empty() const { return m_entries == 0; }
    // The document, declared as XML 1.0 in UTF-8 and indented by two blanks.
    std::string ToXml() const;

private:
    tinyxml2::XMLElement* addParam(tinyxml2::XMLElement* parent, const char* name, const std::string& value);
    void addExtraParameters(tinyxml2::XMLElement* element, const ElementaryStreamAttributes& attributes);
    void addDurations(tinyxml2::XMLElement* element, const ManifestDurations& durations);
    // DASH: one child per stream descriptor, in the attributes' order, named by its element word.
    void addDescriptors(tinyxml2::XMLElement* element, const ElementaryStreamAttributes& attributes);

    bool m_dash;
    std::string m_outputName;
    std::unique_ptr<tinyxml2::XMLDocument> m_document;
    tinyxml2::XMLElement* m_switch = nullptr;
    std::size_t m_entries = 0;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
