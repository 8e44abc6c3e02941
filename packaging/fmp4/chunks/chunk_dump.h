#pragma once
// A one-line description of a chunk about to be built, for debugging: its kind, numbers and, per track, the first
// sample's times, the sample count and the duration, in ms from the session's time origin.
#include <cstdint>
#include <string>
#include <vector>

#include "packaging/fmp4/chunks/chunk_serializer.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// `tracks` in track id order; `timeOrigin` in 100 ns units.
std::string chunkDumpText(const std::vector<ChunkTrack>& tracks, std::uint64_t chunkNumber, std::uint64_t segmentNumber,
                          std::int64_t timeOrigin);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
