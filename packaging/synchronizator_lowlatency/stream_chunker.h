#pragma once
// The chunker of one stream in a low-latency session: groups the stream's samples into chunks of exactly n
// samples, m chunks a segment, and hands each chunk to the listener the moment its last sample is in.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "packaging/synchronizator/i_sample_synchronizator.h"
#include "packaging/synchronizator_lowlatency/chunk_plan.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::synchronizator_lowlatency {
inline namespace v0 {

using synchronizator::i_chunk_warning_notifier::IChunkWarningNotifier;
using synchronizator::i_sample_synchronizator::ISynchronizatorListener;
using synchronizator::i_sample_synchronizator::ISyncSample;
using imff::fmp4::SegmentChunks;
using imff::fmp4::StreamChunk;

// Who is told that a stream can no longer go on as it is (the session then starts its chunks again).
class ILowLatencyErrorListener {
public:
    virtual void requestRestart(const std::string& streamName, const std::string& reason) = 0;
    virtual ~ILowLatencyErrorListener() = default;
};

// What the session knows of a stream at start.
struct StreamDescription {
    std::uint32_t id = 0;
    std::string name;
    std::uint32_t kind = 0;           // 0 video, 1 audio, 2 sparse
    Seconds sampleDuration{0, 1};     // from its first sample
    bool waiveAccessPoints = false;   // its segments need not start on a random access point
    bool seen = false;                // its first sample has come
    std::int64_t firstTime = 0;       // 100 ns units
};

class StreamChunker {
public:
    // Mode 1 tracks each chunk: segment starts on random access points (with the restart rule) and the
    // per-chunk debug lines. Mode 0 only counts.
    static constexpr std::uint32_t kTracking = 1;

    StreamChunker(IChunkWarningNotifier& notifier, std::uint32_t mode, tvrn::log::ILogger& logger,
                  ILowLatencyErrorListener& errorListener, const StreamDescription& description,
                  ISynchronizatorListener& listener);

    // Takes the counts of the session's plan and runs.
    void start(const ChunkPlan& plan);
    // Adds one media sample; delivers the chunk that it completes.
    void push(const std::shared_ptr<ISyncSample>& sample);
    // Starts the chunks again at the beginning of a segment; the next chunk says it is discontinuous.
    void restart();
    // The end of the stream: a chunk under way goes out as the last of its segment.
    void finish();

    bool running() const { return m_running; }
    std::uint64_t segmentNumber() const { return m_segmentNumber; }

private:
    void newChunk(bool discontinuity);
    void deliver();
    void checkSegmentStart(const ISyncSample& sample);
    void logPlan();

    IChunkWarningNotifier& m_notifier;
    const std::uint32_t m_mode;
    tvrn::log::ILogger& m_logger;
    ILowLatencyErrorListener& m_errorListener;
    StreamDescription m_description;
    ISynchronizatorListener& m_listener;
    std::shared_ptr<StreamChunk> m_chunk;
    std::uint64_t m_segmentNumber = 0;
    std::uint32_t m_samplesPerChunk = 1;
    std::uint32_t m_chunksPerSegment = 1;
    std::uint32_t m_chunkIndex = 0;  // chunks delivered in the current segment
    bool m_waiveAccessPoints;
    bool m_running = false;
    std::uint32_t m_missingAccessPoints = 0;
    std::optional<ChunkPlan> m_plan;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator_lowlatency
