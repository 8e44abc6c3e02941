#pragma once
// Buffers for reassembled packets that come back when the packager has written what they held and are handed out
// again: a steady stream of packets then neither allocates nor faults in fresh memory for each packet, and the
// memory stays with the reading thread rather than going through the allocator of the thread that frees it.
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "filter/mux_fmp4_filter/media_sample.h"

namespace fmp4mux {

class BytePool final : public tvrn::encoding::filter::ByteRecycler {
public:
    // At most this many buffers, and this many bytes of capacity, wait in the pool; more are freed.
    static constexpr std::size_t kMaxKept = 512;
    static constexpr std::size_t kMaxBytes = 16u << 20;

    // An empty buffer with room for `size` bytes: a kept one whose capacity is at least that and at most four
    // times it (so that a key frame's buffer does not hold an audio frame), or else a new one.
    std::vector<std::uint8_t> take(std::size_t size);
    void recycle(std::vector<std::uint8_t>&& bytes) override;

    std::size_t keptBuffers() const;

private:
    // Kept buffers by the power of two below their capacity: a buffer for `size` bytes is looked for in the three
    // classes that may hold one not more than four times too large, not among all.
    static constexpr std::size_t kClasses = 64;
    mutable std::mutex m_mutex;
    std::vector<std::vector<std::uint8_t>> m_kept[kClasses];
    std::size_t m_keptCount = 0;
    std::size_t m_keptBytes = 0;
};

}  // namespace fmp4mux
