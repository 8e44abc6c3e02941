#pragma once
// One media chunk as bytes: [tnsb] styp sidx moof mdat [teoc] [teos] for DASH, moof mdat for Smooth Streaming.
// The size is computed first, the chunk is allocated once, and each payload byte is copied exactly once.
#include <cstdint>
#include <memory>
#include <vector>

#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/sync_sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// One stream of the chunk.
struct ChunkTrack {
    std::uint32_t trackId = 1;
    ChunkContentType contentType = ChunkVideo;
    const StreamChunk* chunk = nullptr;
};

struct ChunkSerialisationParameters {
    std::vector<ChunkTrack> tracks;
    std::uint64_t segmentNumber = 1;
    std::uint64_t chunkNumber = 1;
    std::uint64_t chunkDuration = 0;  // 100 ns units
    bool atSegmentStart = false;
    bool lastOfSegment = false;
    bool dash = true;
    bool allVideoInInit = false;
    bool psshInFragments = false;
    // Sample flags, durations and sidx SAP types as players read them (see TrackFragmentParameters).
    bool playerCompatible = false;
    std::uint64_t timescale = 10000000;
    std::int64_t negatedOrigin = 0;  // at the timescale, added to DASH decode and presentation times
};

struct ChunkBytes {
    std::unique_ptr<std::uint8_t[]> data;
    std::size_t size = 0;
};

// Fails with "No Encryption Provider Specified" when DASH fragments must carry pssh boxes at a segment start,
// since the session has no encryption provider to give them.
ChunkBytes serialiseChunk(const ChunkSerialisationParameters& parameters);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
