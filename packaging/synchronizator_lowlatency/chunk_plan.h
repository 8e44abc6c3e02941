#pragma once
// The durations of a low-latency session, decided once from the samples' own durations: how many samples make
// a chunk and how many chunks make a segment, so that every stream makes chunks of exactly the same length.
// All durations are exact fractions of a second; nothing here is a float.
#include <cstdint>
#include <string>

#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::synchronizator_lowlatency {
inline namespace v0 {

using Seconds = Fraction<std::uint64_t>;

struct ChunkPlan {
    Seconds sampleDuration;         // S, reduced
    std::uint32_t samplesPerChunk;  // n
    Seconds chunkDuration;          // E = n x S, reduced
    std::uint32_t chunksPerSegment; // m
    Seconds segmentDuration;        // F = m x E, reduced
};

// round(a / b) in integers: (a.num x b.den + half) / (a.den x b.num), half being half the divisor.
std::uint64_t roundedQuotient(const Seconds& a, const Seconds& b);
// A duration in whole milliseconds, rounded.
std::uint64_t roundedMs(const Seconds& value);

// The plan of one stream whose samples last `sampleDuration` (not zero), for the target chunk and segment
// durations in ms. At least one sample per chunk and one chunk per segment.
ChunkPlan planChunks(const Seconds& sampleDuration, std::uint64_t targetChunkMs, std::uint64_t targetSegmentMs);

// Why two streams' plans cannot make chunks together: empty when they can. `name` is the first stream's,
// `otherId` the other's id. Fills `message` with the line to log and `failure` with the exception's text.
struct Incompatibility {
    std::string message;
    std::string failure;
};
bool compatible(const ChunkPlan& reference, const std::string& name, const ChunkPlan& other, std::uint32_t otherId,
                Incompatibility& why);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator_lowlatency
