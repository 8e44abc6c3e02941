#pragma once
// What a synchroniser offers the session, and what it calls with its results.
#include <cstdint>
#include <memory>
#include <string>

#include "packaging/fmp4_types/sync_sample.h"

namespace tvrn::encoding::packaging::synchronizator {

namespace i_sample_synchronizator {
inline namespace v0 {

// Each call only posts to the synchroniser's worker and returns.
class ISampleSynchronizator {
public:
    // kind: 0 video, 1 audio, 2 sparse.
    virtual void addStream(std::uint32_t streamId, std::uint32_t kind, const std::string& label) = 0;
    virtual void pushSample(std::shared_ptr<ISyncSample> sample) = 0;
    virtual void eof(std::uint32_t streamId) = 0;
    virtual ~ISampleSynchronizator() = default;
};

class ISynchronizatorListener {
public:
    virtual void OnChunks(const imff::fmp4::SegmentChunks& chunks, bool lastOfSegment) = 0;
    virtual void OnFirstSegments(const imff::fmp4::SegmentChunks& first, std::uint64_t timebase,
                                 std::uint64_t chunkDuration, std::uint64_t segmentDuration) = 0;
    virtual void OnEndOfStream() = 0;
    virtual void OnRestart() = 0;
    virtual ~ISynchronizatorListener() = default;
};

}  // namespace v0
}  // namespace i_sample_synchronizator

namespace i_chunk_warning_notifier {
inline namespace v0 {

class IChunkWarningNotifier {
public:
    virtual void onCut(std::int64_t cutTime, bool isRandomAccessPoint, std::uint32_t segmentDurationMs) = 0;
    virtual void onSamplesDropped(std::uint64_t count) = 0;
    virtual ~IChunkWarningNotifier() = default;
};

// The notifier of the chunk builder, an extension of the synchroniser's.
class IFmp4ChunkWarningNotifier : public IChunkWarningNotifier {};

// The default notifier: it ignores everything.
class EmptyChunkWarningNotifier : public IFmp4ChunkWarningNotifier {
public:
    void onCut(std::int64_t, bool, std::uint32_t) override {}
    void onSamplesDropped(std::uint64_t) override {}
};

}  // namespace v0
}  // namespace i_chunk_warning_notifier

}  // namespace tvrn::encoding::packaging::synchronizator
