#pragma once
// The presentation fmp4mux writes: one track per output, each with its init file and its timeline of segments;
// the names of their files; what the manifests announce (bitrates, the live window). Chunks come in whole from
// the engine's outputs; files and manifests go out through a publisher, never written here, so that no I/O
// happens on the engine's threads.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/manifests/manifests.h"
#include "apps/fmp4mux/model/track.h"
#include "apps/fmp4mux/outputs/publisher.h"

namespace fmp4mux {

struct PresentationSettings {
    bool dash = true;                  // CMAF media files (DASH, HLS); Smooth's otherwise
    bool live = false;                 // a dynamic manifest, rewritten as chunks come; a window of records
    std::string streamName = "live";   // ${sessionId}
    std::string initTemplate;          // naming templates, already checked
    std::string mediaTemplate;
    std::uint64_t firstNumber = 1;
    std::uint32_t timeShiftBufferSeconds = 60;
    // Live: the folder this run's files go in, below the root, and the folders of earlier runs, which are taken
    // away once this run has packaged a window (players that read the earlier run's manifest may still fetch).
    std::string runFolder;
    std::vector<std::string> earlierRuns;
    // Low latency: each chunk is published as it comes, appended to its growing segment of `chunksPerSegment`
    // chunks; the MPD announces segments by number from the clock, and a player may fetch one as it grows.
    bool lowLatency = false;
    std::uint32_t chunksPerSegment = 1;
    std::uint32_t latencyTargetMs = 2000;
    std::string utcTimingUrl;  // an address answering the time (http-xsdate), when there is one
    bool listsParts = false;   // a manifest lists every chunk (HLS partial segments): it is rewritten for each
    // HLS reads subtitles as WebVTT text files: each WebVTT segment is also written as one (not in low latency).
    bool webVttFiles = false;
    // The inputs signal splices (SCTE-35). A live presentation carries them in band, as `emsg` boxes in the video
    // segments that the MPD announces with an InbandEventStream: a player that joins late reads them from the
    // segments it fetches. A file's static MPD lists them all in its Period's EventStream instead, and its
    // segments stay as the engine wrote them. HLS playlists list them as EXT-X-DATERANGE tags either way.
    bool splices = false;
};

class Presentation {
public:
    using WallClock = std::function<double()>;  // Unix seconds

    Presentation(PresentationSettings settings, Publisher& publisher, const ManifestWriter& manifest,
                 WallClock now = {});

    // Declares output `index` before its chunks come; outputs of one kind (and, but for video, one language) share
    // an adaptation set, numbered in the order declared. `channels` and `sampleRate` from the input stand in where
    // the init chunk's manifest says nothing of them; `bitrateGiven`: the operator stated the bitrate, and the
    // manifests announce it as is.
    void addOutput(int index, const std::string& kind, std::uint32_t channels, std::uint32_t sampleRate,
                   bool bitrateGiven, const std::string& representationId, const std::string& language,
                   const std::vector<Descriptor>& descriptors = {});

    // A key frame handed to output `index`'s engine input, at `pts` (100 ns, the running timeline). The first one of
    // the first video output starts its first segment: with that segment's time, it ties the running timeline to
    // the media timeline, on which splices are placed.
    void noteKeyFrame(int index, std::int64_t pts);
    // A splice at `at` (100 ns, the running timeline). A section sent again for the same splice adds nothing.
    void addSplice(std::int64_t at, SpliceEvent event);

    // A whole chunk of output `index`, the first `length` bytes of `room`, given away with the room (which goes
    // with the chunk's file to the publisher, the chunk its only range). The chunk's bytes at each of
    // `references` are the reference's (sample bytes left where they lie), not the room's.
    void onChunk(int index, bool init, tvrn::system::ByteBuffer&& room, std::size_t length,
                 tvrn::system::KeptBytesList&& references = {});
    void onChunk(int index, bool init, const std::vector<std::uint8_t>& chunk) {
        onChunk(index, init, tvrn::system::ByteBuffer(chunk.begin(), chunk.end()), chunk.size());
    }

    // The last manifest: the presentation has ended, so a live one becomes static, with the segments recorded
    // (every one of a file input, those of the time-shift window for a live input).
    void finish();

    std::uint64_t chunks() const;
    std::uint64_t files() const;
    // Media packaged so far, from the earliest chunk start to the furthest chunk end.
    double mediaSeconds() const;
    // The most media one output has packaged, as the sum of its segments' durations: unlike mediaSeconds, it
    // goes on evenly whatever the input's times do.
    double packagedSeconds() const;
    // Waits until a chunk beyond `seen` has been packaged, or `timeout`, or wake(); the chunk count then.
    std::uint64_t waitForChunk(std::uint64_t seen, std::chrono::milliseconds timeout) const;
    // Wakes every waiter (the run is stopping).
    void wake() const;
    // The first failure: of the chunks (unreadable) or of the publisher (a file not written).
    std::optional<std::string> failure() const;
    std::string manifestName() const { return m_manifest.fileName(); }

private:
    struct Output {
        bool ready = false;
        bool bitrateGiven = false;
        std::uint32_t peakBitrate = 0;   // measured over the segments written
        std::uint32_t maxSegmentMs = 0;  // the longest segment written
        double packagedSeconds = 0;      // the durations of its segments, added up
        double packagedBytes = 0;        // the sizes of its segments, added up
        bool restarted = false;          // a new session began: its next segment starts a new timeline
        Track track;
        std::uint64_t nextNumber = 1;
        // Low latency: the segment being written, and the duration of a chunk (the track's timescale).
        struct Growing {
            std::string path;
            std::uint64_t time = 0, duration = 0, number = 0, bytes = 0;
            std::uint64_t fileBytes = 0;  // what its file holds: the chunks without the engine's marker boxes
        };
        std::optional<Growing> growing;
        std::uint64_t chunkDuration = 0;
        std::optional<std::int64_t> firstKey;  // 100 ns, the running timeline
        std::uint32_t splicesSent = 0;         // the id of the last splice its segments carry
    };

    void onInit(int index, Output& out, tvrn::system::ByteBuffer&& room, std::size_t length);
    void onMedia(int index, Output& out, tvrn::system::ByteBuffer&& room, std::size_t length,
                 tvrn::system::KeptBytesList&& references);
    void onLowLatencyChunk(int index, Output& out, tvrn::system::ByteBuffer&& room, std::size_t length,
                           tvrn::system::KeptBytesList&& references);
    // Ties the running timeline to the media timeline at a video output's first chunk (of media time `time` on
    // `timescale`), then places the splices that waited for it; live, puts the splices this output's segments do
    // not carry yet into the chunk (the first `length` bytes of `room`), which grows by them (and the
    // `references` behind them move along).
    void carrySplices(Output& out, tvrn::system::ByteBuffer& room, std::size_t& length,
                      tvrn::system::KeptBytesList& references, std::uint64_t time, std::uint64_t timescale);
    void placeSplice(std::int64_t at, SpliceEvent&& event);
    // A segment written whole (or, in low latency, completed): its record, the live window, the bitrate.
    void recordSegment(Output& out, std::uint64_t time, std::uint64_t duration, std::uint64_t number,
                       std::uint64_t bytes);
    void removeLeaving();
    void publishManifestLocked();
    void fail(const std::string& message);
    int adaptationSet(const Track& track);
    std::string expandName(const std::string& pattern, const Output& out, std::uint64_t time, std::uint64_t number) const;
    std::string manifestMediaTemplate(const Output& out) const;

    const PresentationSettings m_settings;
    Publisher& m_publisher;
    const ManifestWriter& m_manifest;
    const WallClock m_now;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_progress;
    std::map<int, Output> m_outputs;
    std::map<std::string, int> m_sets;
    bool m_live;
    std::uint64_t m_chunks = 0;
    std::uint64_t m_files = 0;
    double m_mediaSeconds = 0;
    double m_packagedSeconds = 0;
    std::optional<double> m_firstStart;
    std::optional<double> m_availabilityStart;
    // Files of segments that have left a live window, with the media time (seconds) after which they go: a grace
    // of a window more, for players still fetching them.
    struct Leaving {
        double after;
        std::string path;
        bool tree;  // an earlier run's folder
    };
    std::deque<Leaving> m_leaving;
    double m_mediaEnd = 0;
    std::optional<std::string> m_failure;
    // Splices: those waiting for the media timeline (the running time of each), and those placed on it, which the
    // manifests list (the latest few hundred).
    std::optional<std::int64_t> m_origin;  // the running time of media time 0, 100 ns
    std::deque<std::pair<std::int64_t, SpliceEvent>> m_unplacedSplices;
    std::deque<std::pair<std::int64_t, std::vector<std::uint8_t>>> m_recentSections;
    std::deque<SpliceEvent> m_splices;
    std::uint32_t m_nextSpliceId = 1;
};

}  // namespace fmp4mux
