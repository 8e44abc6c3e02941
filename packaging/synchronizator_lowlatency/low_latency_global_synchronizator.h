#pragma once
// The synchroniser of the low-latency mode. There is no GOP alignment and no worker thread: each stream has a
// chunker that cuts chunks of exactly n samples on the caller's thread, and the durations are decided once, at
// start, from the samples' own durations, so that every stream makes chunks of the same length and every
// segment holds the same whole number of chunks. Streams whose plans disagree fail the start.
//
// Start: nothing is chunked until every stream has shown a sample. The common start (the first PTS) is the
// latest of the streams' first samples; each stream then drops what lies wholly before it, and a video stream
// also what comes before its next random access point there. Configuration samples go to the chunk builder once,
// with the first segments, and are dropped afterwards. Sparse streams take no part: their samples are dropped.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "packaging/synchronizator_lowlatency/stream_chunker.h"

namespace tvrn::encoding::packaging::synchronizator_lowlatency {
inline namespace v0 {

using synchronizator::i_sample_synchronizator::ISampleSynchronizator;

// What the start of a session is made of.
class IStartingSynchronizatorListener {
public:
    // A stream has shown its first media sample, at `firstTime` (100 ns units).
    virtual void onStreamStart(std::uint32_t streamId, std::int64_t firstTime) = 0;
    // Every stream has: the durations are decided and the chunkers run.
    virtual void onStreamsReady() = 0;
    // The session's chunks start again.
    virtual void onRestart() = 0;
    virtual ~IStartingSynchronizatorListener() = default;
};

class LowLatencyGlobalSynchronizator : public ISampleSynchronizator,
                                       public IStartingSynchronizatorListener,
                                       public ILowLatencyErrorListener {
public:
    LowLatencyGlobalSynchronizator(ISynchronizatorListener& listener, std::uint64_t chunkDurationMs,
                                   std::uint64_t segmentDurationMs, IChunkWarningNotifier* notifier,
                                   tvrn::log::ILogger& logger);
    ~LowLatencyGlobalSynchronizator() override;

    // Every stream is added before the first sample of any, from one thread.
    void addStream(std::uint32_t streamId, std::uint32_t kind, const std::string& label) override;
    // Raises the init failure when the streams' durations cannot make equal chunks.
    void pushSample(std::shared_ptr<ISyncSample> sample) override;
    void eof(std::uint32_t streamId) override;

    void onStreamStart(std::uint32_t streamId, std::int64_t firstTime) override;
    void onStreamsReady() override;
    void onRestart() override;
    void requestRestart(const std::string& streamName, const std::string& reason) override;

    bool running() const;
    // The plan that every stream follows, once running.
    std::optional<ChunkPlan> plan() const;

private:
    bool takesPart(const StreamDescription& stream) const { return stream.kind != 2; }
    void startChunkers(const std::map<std::uint32_t, ChunkPlan>& plans);
    void sendFirstSegments(const ChunkPlan& plan);

    tvrn::log::ILogger& m_logger;
    IChunkWarningNotifier& m_notifier;
    const std::uint64_t m_chunkDurationMs;
    const std::uint64_t m_segmentDurationMs;
    bool m_running = false;
    bool m_failed = false;
    std::map<std::uint32_t, StreamDescription> m_streams;
    std::map<std::uint32_t, std::unique_ptr<StreamChunker>> m_chunkers;
    std::map<std::uint32_t, std::vector<std::shared_ptr<ISyncSample>>> m_firstSamples;
    std::optional<std::int64_t> m_firstPts;
    std::map<std::uint32_t, std::map<std::uint32_t, std::shared_ptr<ISyncSample>>> m_configuration;
    std::map<std::uint32_t, std::uint64_t> m_ownTimescales;
    bool m_firstSegmentsSent = false;
    std::optional<ChunkPlan> m_plan;
    std::set<std::uint32_t> m_ended;
    bool m_endSent = false;
    ISynchronizatorListener& m_listener;
    // Start, restart and chunking are taken one at a time; a chunker may ask for a restart from inside.
    mutable std::recursive_mutex m_mutex;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator_lowlatency
