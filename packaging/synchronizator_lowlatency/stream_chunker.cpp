#include "packaging/synchronizator_lowlatency/stream_chunker.h"

#include <algorithm>

namespace tvrn::encoding::packaging::synchronizator_lowlatency {
inline namespace v0 {

using tvrn::log::LOG_DEBUG;
using tvrn::log::LOG_INFO;
using tvrn::log::LOG_WARNING;
using ll = long long;

StreamChunker::StreamChunker(IChunkWarningNotifier& notifier, std::uint32_t mode, tvrn::log::ILogger& logger,
                             ILowLatencyErrorListener& errorListener, const StreamDescription& description,
                             ISynchronizatorListener& listener)
    : m_notifier(notifier), m_mode(mode), m_logger(logger), m_errorListener(errorListener),
      m_description(description), m_listener(listener), m_waiveAccessPoints(description.waiveAccessPoints) {}

void StreamChunker::logPlan() {
    if (!m_plan) return;
    m_logger.WriteMsg(LOG_INFO,
                      "low latency chunker of %s : sample duration =  %lld ms, %d samples / chunk, effective chunk "
                      "duration = %lld ms, effective segment duration = %lld ",
                      m_description.name.c_str(), static_cast<ll>(roundedMs(m_plan->sampleDuration)),
                      static_cast<int>(m_plan->samplesPerChunk), static_cast<ll>(roundedMs(m_plan->chunkDuration)),
                      static_cast<ll>(roundedMs(m_plan->segmentDuration)));
}

void StreamChunker::start(const ChunkPlan& plan) {
    m_plan = plan;
    m_samplesPerChunk = plan.samplesPerChunk;
    m_chunksPerSegment = plan.chunksPerSegment;
    logPlan();
    m_running = true;
}

void StreamChunker::newChunk(bool discontinuity) {
    m_chunk = std::make_shared<StreamChunk>();
    m_chunk->discontinuity = discontinuity ? 1 : 0;
    m_chunk->samples.reserve(m_samplesPerChunk);
}

void StreamChunker::checkSegmentStart(const ISyncSample& sample) {
    if (m_mode != kTracking) return;
    const auto segmentMs = static_cast<std::uint32_t>(m_plan ? roundedMs(m_plan->segmentDuration) : 0);
    if (sample.isSync() || m_waiveAccessPoints) {
        m_missingAccessPoints = 0;
        m_notifier.onCut(sample.getTime(), true, segmentMs);
        return;
    }
    m_logger.WriteMsg(LOG_WARNING, "segment #%lld does not start with access point", static_cast<ll>(m_segmentNumber));
    m_notifier.onCut(sample.getTime(), false, segmentMs);
    ++m_missingAccessPoints;
}

void StreamChunker::push(const std::shared_ptr<ISyncSample>& sample) {
    if (!m_running) return;  // the sample goes with its last reference
    if (!m_chunk) newChunk(false);
    // The first sample of a segment: a segment should start on a random access point.
    if (m_chunkIndex == 0 && m_chunk->samples.empty()) checkSegmentStart(*sample);
    std::uint64_t dataId = 0;
    if (!m_chunk->dataIdPresent && sample->getDataId(dataId)) {
        m_chunk->dataIdPresent = 1;
        m_chunk->dataId = dataId;
    }
    if (sample->hasDiscontinuity()) m_chunk->discontinuity = 1;
    if (m_mode == kTracking && sample->isSync() && m_description.kind == 0)
        m_logger.WriteMsg(LOG_DEBUG, "sample %lld of chunk %d of segment #%lld is access point",
                          static_cast<ll>(m_chunk->samples.size() + 1), static_cast<int>(m_chunkIndex + 1),
                          static_cast<ll>(m_segmentNumber));
    m_chunk->samples.push_back(sample);
    if (m_missingAccessPoints > 1) {
        m_errorListener.requestRestart(m_description.name, "2 consecutive missing \"Access Points\"");
        return;
    }
    // The chunk leaves with its last sample: waiting for the next one would add a sample's duration of latency.
    if (m_chunk->samples.size() >= m_samplesPerChunk) deliver();
}

void StreamChunker::deliver() {
    if (!m_chunk || m_chunk->samples.empty()) return;
    const auto& first = m_chunk->samples.front();
    const auto& last = m_chunk->samples.back();
    m_chunk->duration = static_cast<std::uint64_t>(std::max<std::int64_t>(last->getEndTime() - first->getTime(), 0));
    ++m_chunkIndex;
    const bool lastOfSegment = m_chunkIndex >= m_chunksPerSegment;
    if (m_mode == kTracking && m_chunk->discontinuity)
        m_logger.WriteMsg(LOG_DEBUG, "chunk %d of segment #%lld has discontinuity", static_cast<int>(m_chunkIndex),
                          static_cast<ll>(m_segmentNumber));
    SegmentChunks chunks;
    chunks.chunks[m_description.id] = std::move(m_chunk);
    chunks.count = 1;
    m_chunk.reset();
    if (lastOfSegment) {
        m_chunkIndex = 0;
        ++m_segmentNumber;
    }
    newChunk(false);
    m_listener.OnChunks(chunks, lastOfSegment);
}

void StreamChunker::restart() {
    logPlan();
    m_chunkIndex = 0;
    newChunk(true);
    m_missingAccessPoints = 0;
}

void StreamChunker::finish() {
    if (m_running && m_chunk && !m_chunk->samples.empty()) {
        m_chunkIndex = m_chunksPerSegment - 1;  // what is left closes its segment
        deliver();
    }
    m_running = false;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator_lowlatency
