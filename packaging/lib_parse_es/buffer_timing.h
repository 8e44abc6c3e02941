#pragma once
// Reading what an input buffer says about itself into the timing record of a unit.
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// The timing a unit takes from the buffer it starts in: when the buffer has a start time, the time, its three
// flags, cue point, sample date, data identifier and parental rating; independently, its media time. With
// `withDuration`, a stop time also gives the duration. Items the buffer lacks are left as they are.
void takeBufferTiming(IMediaData& buffer, NalTimingInfo& timing, bool withDuration);

// The byte view of a buffer, or false when it is empty or its pointer can't be had.
bool bufferBytes(IMediaData& buffer, const std::uint8_t*& bytes, std::uint32_t& size);

// A queued input buffer with the byte view taken when it was queued.
struct QueuedBuffer : PendingBuffer {
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
