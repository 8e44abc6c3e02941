#include "packaging/synchronizator_lowlatency/chunk_plan.h"

#include <algorithm>

#include <cstdarg>

#include "support/log/format.h"

namespace tvrn::encoding::packaging::synchronizator_lowlatency {
inline namespace v0 {

namespace {
using ull = unsigned long long;

std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = tvrn::log::formatV(format, args);
    va_end(args);
    return out;
}

Seconds times(std::uint64_t count, const Seconds& value) { return Seconds(count * value.num, value.den).reduced(); }
}  // namespace

std::uint64_t roundedQuotient(const Seconds& a, const Seconds& b) {
    const unsigned __int128 dividend = static_cast<unsigned __int128>(a.num) * b.den;
    const unsigned __int128 divisor = static_cast<unsigned __int128>(a.den) * b.num;
    if (divisor == 0) return 0;
    return static_cast<std::uint64_t>((dividend + divisor / 2) / divisor);
}

std::uint64_t roundedMs(const Seconds& value) {
    if (value.den == 0) return 0;
    return static_cast<std::uint64_t>((static_cast<unsigned __int128>(value.num) * 1000 + value.den / 2) / value.den);
}

ChunkPlan planChunks(const Seconds& sampleDuration, std::uint64_t targetChunkMs, std::uint64_t targetSegmentMs) {
    ChunkPlan plan{};
    plan.sampleDuration = sampleDuration.reduced();
    const Seconds chunk = Seconds(targetChunkMs, 1000).reduced();
    const Seconds segment = Seconds(targetSegmentMs, 1000).reduced();
    plan.samplesPerChunk = static_cast<std::uint32_t>(std::max<std::uint64_t>(roundedQuotient(chunk, plan.sampleDuration), 1));
    plan.chunkDuration = times(plan.samplesPerChunk, plan.sampleDuration);
    plan.chunksPerSegment = static_cast<std::uint32_t>(std::max<std::uint64_t>(roundedQuotient(segment, plan.chunkDuration), 1));
    plan.segmentDuration = times(plan.chunksPerSegment, plan.chunkDuration);
    return plan;
}

bool compatible(const ChunkPlan& reference, const std::string& name, const ChunkPlan& other, std::uint32_t otherId,
                Incompatibility& why) {
    if (!(reference.chunkDuration == other.chunkDuration)) {
        why.message = text(
            "Low latency synchronizators : non-compatible chunk durations: [%s : sample duration = %llu ms, chunk "
            "duration = %llu ms] vs [id = %d : sample duration = %llu ms, chunk duration = %llu ms]",
            name.c_str(), static_cast<ull>(roundedMs(reference.sampleDuration)),
            static_cast<ull>(roundedMs(reference.chunkDuration)), static_cast<int>(otherId),
            static_cast<ull>(roundedMs(other.sampleDuration)), static_cast<ull>(roundedMs(other.chunkDuration)));
        why.failure = "low latency synchronizator: init failed: inconsistent chunk duration";
        return false;
    }
    if (reference.chunksPerSegment != other.chunksPerSegment) {
        why.message = text(
            "Low latency synchronizators : non-compatible segment durations: [%s : sample duration = %llu ms, seg. "
            "duration = %llu ms] vs [id = %d : sample duration = %llu ms, seg. duration = %llu ms]",
            name.c_str(), static_cast<ull>(roundedMs(reference.sampleDuration)),
            static_cast<ull>(roundedMs(reference.segmentDuration)), static_cast<int>(otherId),
            static_cast<ull>(roundedMs(other.sampleDuration)), static_cast<ull>(roundedMs(other.segmentDuration)));
        why.failure = "low latency synchronizator: init failed: inconsistent segment duration";
        return false;
    }
    return true;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator_lowlatency
