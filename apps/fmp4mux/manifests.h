#pragma once
// Client manifests from what each output announced in its init chunk and the chunks it wrote: a DASH MPD (static
// for files, dynamic for live inputs) and a Smooth Streaming client manifest.
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace fmp4mux {

struct Segment {
    std::uint64_t time = 0;
    std::uint64_t duration = 0;
    std::uint64_t number = 0;
};

// One output as the manifests show it.
struct Track {
    std::string kind;  // "video", "audio" or "text"
    int adaptationSetId = 0;
    std::string representationId;
    std::string language = "und";
    std::string codecs;
    std::uint32_t bandwidth = 0;
    std::uint32_t bitrate = 0;
    int width = 0, height = 0;
    std::string frameRate;
    int sarWidth = 1, sarHeight = 1;
    std::uint32_t sampleRate = 0;
    std::uint32_t channels = 0;
    std::string fourCC;
    std::string codecPrivateData;
    std::uint64_t timescale = 10000000;
    std::string initialization;   // path of the init file, relative to the manifest
    std::string mediaTemplate;    // DASH: with $Time$ or $Number$; Smooth: with {bitrate} and {start time}
    bool mediaByNumber = false;
    std::deque<Segment> segments;  // in the order written
};

// How many segments at the front of `segments` a time-shift window of `windowSeconds` leaves out: those that
// start more than the window before the end of the last one, and those that start after the last one (the
// input's times went back). The last segment always stays. A dynamic MPD lists the rest, and a live session
// drops the same records as it goes, so what it keeps does not grow with the run.
std::size_t countBeforeWindow(const std::deque<Segment>& segments, std::uint64_t timescale, std::uint32_t windowSeconds);

// Reads the server manifest of an init chunk into `track` (codecs, bitrates, picture, sound, Smooth fields).
// False when the text is not a manifest with one video or audio entry.
bool readServerManifest(const std::string& xml, bool dash, Track& track);

struct MpdTiming {
    bool dynamic = false;
    std::string availabilityStartTime;  // ISO 8601 UTC, for a dynamic MPD
    std::string publishTime;
    std::uint32_t timeShiftBufferSeconds = 60;
    std::uint32_t maxSegmentMs = 2000;
};

std::string buildMpd(const std::vector<Track>& tracks, const MpdTiming& timing);
std::string buildSmoothManifest(const std::vector<Track>& tracks, bool live, std::uint32_t dvrWindowSeconds);

// "PT12.340S".
std::string isoDuration(double seconds);
// "2026-11-22T18:00:00.000Z".
std::string isoUtc(double unixSeconds);

}  // namespace fmp4mux
