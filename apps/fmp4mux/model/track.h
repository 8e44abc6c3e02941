#pragma once
// One output of the presentation as the manifests show it, with the segments it has written.
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fmp4mux {

struct Segment {
    std::uint64_t time = 0;
    std::uint64_t duration = 0;
    std::uint64_t number = 0;
    // The timeline was re-based before this segment (a new session, or a gap or step back in its times): HLS
    // marks it with EXT-X-DISCONTINUITY.
    bool discontinuity = false;
};

// A descriptor of an adaptation set, as the operator gave it: the DASH element (Accessibility, Role, Rating,
// Viewpoint), its scheme and its value.
struct Descriptor {
    std::string element, scheme, value;
    bool operator==(const Descriptor&) const = default;
};

// A splice that the input signalled with SCTE-35, placed on the tracks' media timeline.
struct SpliceEvent {
    enum class Kind { Out, In, Signal };  // splice_insert() out of the network or back into it; time_signal()
    std::uint32_t id = 0;                 // unique in the presentation
    std::uint64_t time = 0;               // 100 ns units from the timeline's 0, as segment times count
    std::optional<std::uint64_t> duration;  // the break's, 100 ns units
    Kind kind = Kind::Signal;
    std::vector<std::uint8_t> section;      // the splice_info_section() as received
};

// One output as the manifests show it.
struct Track {
    std::string kind;  // "video", "audio" or "text"
    int adaptationSetId = 0;
    std::string representationId;
    std::string language = "und";
    std::vector<Descriptor> descriptors;  // of its adaptation set
    // Its media segments carry the presentation's splices as `emsg` boxes (DASH: an InbandEventStream).
    bool inbandSplices = false;
    std::string codecs;
    std::uint32_t bandwidth = 0;
    std::uint32_t bitrate = 0;
    std::uint32_t averageBandwidth = 0;  // measured over every segment written, bits/s (0: not measured)
    int width = 0, height = 0;
    std::string frameRate;
    int sarWidth = 1, sarHeight = 1;
    std::uint32_t sampleRate = 0;
    std::uint32_t channels = 0;
    // DASH: the audio channel configuration as the init file's manifest states it (scheme and value).
    std::string channelScheme, channelValue;
    std::string fourCC;
    std::string codecPrivateData;
    std::uint64_t timescale = 10000000;
    std::string initialization;   // path of the init file, relative to the manifest
    std::string mediaTemplate;    // DASH: with $Time$ or $Number$; Smooth: with {bitrate} and {start time}
    bool mediaByNumber = false;
    bool webVttFiles = false;     // each media file has a WebVTT text twin (webVttName), for HLS
    // Common Encryption as the init file states it: the scheme ("cenc", "cbcs", "piff"; empty when clear), the default
    // key id as UUID text, and each protection system with its id (UUID text), its pssh box and the box's data,
    // both in base64.
    struct ProtectionSystem {
        std::string id;
        std::string psshBase64;
        std::string dataBase64;
    };
    std::string protectionScheme;
    std::string defaultKid;
    std::string defaultKidBase64;  // the same 16 bytes in base64
    std::vector<ProtectionSystem> protectionSystems;
    std::deque<Segment> segments;  // in the order written
    // How many segments marked `discontinuity` have left `segments` (HLS EXT-X-DISCONTINUITY-SEQUENCE).
    std::uint64_t discontinuitiesBefore = 0;
    // Low latency: the segment being written (its duration so far), and the chunks of the last segments and of
    // that one, each a byte range of its segment's file, for HLS partial segments.
    struct PartialSegment {
        std::uint64_t number = 0;  // of its segment
        std::uint64_t offset = 0, length = 0, duration = 0;
        bool independent = false;  // starts with a sync sample
    };
    std::optional<Segment> growing;
    std::deque<PartialSegment> parts;
    // The chunk and segment durations the engine planned, in their own timescale (0 when not told).
    struct PlannedDurations {
        std::uint64_t timescale = 0, chunk = 0, segment = 0;
    };
    PlannedDurations planned;
};

// How many segments at the front of `segments` a time-shift window of `windowSeconds` leaves out: those that
// start more than the window before the end of the last one, and those that start after the last one (the
// input's times went back). The last segment always stays. A dynamic MPD lists the rest, and a live session
// drops the same records as it goes, so what it keeps does not grow with the run.
std::size_t countBeforeWindow(const std::deque<Segment>& segments, std::uint64_t timescale, std::uint32_t windowSeconds);

// Reads the server manifest of an init chunk into `track` (codecs, bitrates, picture, sound, Smooth fields).
// False when the text is not a manifest with one video or audio entry.
bool readServerManifest(const std::string& xml, bool dash, Track& track);

std::string base64(const std::vector<std::uint8_t>& bytes);

// Fills the protection fields of `track` from an init file's movie part.
void readProtection(std::span<const std::uint8_t> movie, Track& track);

// A file name (or a naming template's literal text) stays below the output folder and reads the same as a URL:
// no absolute path, no '..' segment, none of '#', '?', '%', '\\'. False, with `why`, when it does not.
bool nameStaysInside(const std::string& name, std::string& why);

}  // namespace fmp4mux
