#pragma once
// Client manifests from what each output announced in its init chunk and the chunks it wrote: a DASH MPD (static
// for files, dynamic for live inputs) and a Smooth Streaming client manifest.
#include <cstdint>
#include <optional>
#include <utility>
#include <string>
#include <vector>

#include "apps/fmp4mux/model/track.h"

namespace fmp4mux {

// A low-latency presentation: segments by number of `segmentDuration` (in each track's timescale), each of
// chunks of `chunkDuration`, fetched as they grow.
struct LowLatencyTiming {
    bool on = false;
    double chunkSeconds = 0;
    double segmentSeconds = 0;
    std::uint64_t startNumber = 1;
    std::uint32_t latencyTargetMs = 2000;
    std::string utcTimingUrl;
};

struct MpdTiming {
    LowLatencyTiming lowLatency;
    bool dynamic = false;
    std::string availabilityStartTime;  // ISO 8601 UTC, for a dynamic MPD
    std::string publishTime;
    std::uint32_t timeShiftBufferSeconds = 60;
    std::uint32_t maxSegmentMs = 2000;
    std::vector<SpliceEvent> splices;  // listed in the Period's EventStream unless the segments carry them
};

std::string buildMpd(const std::vector<Track>& tracks, const MpdTiming& timing);
std::string buildSmoothManifest(const std::vector<Track>& tracks, bool live, std::uint32_t dvrWindowSeconds);

// "PT12.340S".
std::string isoDuration(double seconds);
// "2026-11-22T18:00:00.000Z".
std::string isoUtc(double unixSeconds);

// What a manifest says of time besides the tracks' timelines.
struct ManifestTiming {
    bool dynamic = false;             // a live presentation, still going on
    double availabilityStart = 0;     // Unix seconds at which the timeline's time 0 became available
    double now = 0;                   // Unix seconds
    std::uint32_t timeShiftBufferSeconds = 60;
    std::uint32_t maxSegmentMs = 0;   // the longest segment written
    LowLatencyTiming lowLatency;
    std::vector<SpliceEvent> splices;  // on the media timeline, in the order signalled
};

// One file of a manifest format, with its text.
struct ManifestFile {
    std::string name;
    std::string text;
    // A low-latency HLS media playlist: its last partial segment (media sequence number, part index).
    std::optional<std::pair<std::uint64_t, std::uint64_t>> lastPart = std::nullopt;
};

// One client manifest format: the file it is and its text for the tracks written so far. A format of several
// files (HLS: a multivariant playlist and a playlist per track) names its main one and builds them all in files().
class ManifestWriter {
public:
    virtual ~ManifestWriter() = default;
    virtual std::string fileName() const = 0;
    virtual std::string build(const std::vector<Track>& tracks, const ManifestTiming& timing) const = 0;
    virtual std::vector<ManifestFile> files(const std::vector<Track>& tracks, const ManifestTiming& timing) const {
        return {{fileName(), build(tracks, timing)}};
    }
};

// Several formats written side by side for the same media files (DASH and HLS): every file of each.
class ManifestSet : public ManifestWriter {
public:
    explicit ManifestSet(std::vector<const ManifestWriter*> writers) : m_writers(std::move(writers)) {}
    // The first format's main file, and its main text.
    std::string fileName() const override;
    std::string build(const std::vector<Track>& tracks, const ManifestTiming& timing) const override;
    std::vector<ManifestFile> files(const std::vector<Track>& tracks, const ManifestTiming& timing) const override;

private:
    std::vector<const ManifestWriter*> m_writers;
};

class DashManifestWriter : public ManifestWriter {
public:
    std::string fileName() const override { return "manifest.mpd"; }
    std::string build(const std::vector<Track>& tracks, const ManifestTiming& timing) const override;
};

class SmoothManifestWriter : public ManifestWriter {
public:
    std::string fileName() const override { return "Manifest"; }
    std::string build(const std::vector<Track>& tracks, const ManifestTiming& timing) const override;
};

}  // namespace fmp4mux
