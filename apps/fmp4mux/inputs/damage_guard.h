#pragma once
// Keeps damaged media away from players. A packet the demuxer reports as damaged (lost or broken transport
// packets, routine on UDP) would reach a decoder as a valid access unit and break it: a damaged video frame is
// dropped and so is every frame after it up to the next key frame, since they refer to it; a damaged audio packet
// is dropped alone. What was dropped is counted, for the progress line and the summary. One guard per input.
//
// The demuxer flags a frame when the transport packet that follows it breaks the continuity count, so the last
// frame of a recording spliced onto another without a discontinuity indicator is flagged although it is whole.
// A damaged video frame is therefore held until the next frame of its stream: when that one is a key frame
// whose times jump (the splice), the held frame goes on; otherwise it is dropped.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "apps/fmp4mux/inputs/input.h"

namespace fmp4mux {

class DamageGuard {
public:
    using Forward = std::function<void(Packet&)>;

    // Passes the packet to `forward`, holds it, or drops it; a frame held before it may go first. `jumped`: the
    // packet's times were moved by a timestamp jump just taken out. Called from the input's reading thread only.
    void offer(Packet& packet, bool video, bool jumped, const Forward& forward);
    // The input ended: a frame still held is dropped.
    void finish();

    // Read from any thread.
    std::uint64_t damagedVideoFrames() const { return m_damagedVideo.load(std::memory_order_relaxed); }
    std::uint64_t videoFramesDropped() const { return m_videoDropped.load(std::memory_order_relaxed); }
    std::uint64_t audioPacketsDropped() const { return m_audioDropped.load(std::memory_order_relaxed); }

private:
    struct Stream {
        bool waitingForKey = false;
        std::optional<Packet> held;
    };
    void dropVideo(Stream& stream, bool damaged);

    std::vector<Stream> m_streams;
    std::atomic<std::uint64_t> m_damagedVideo{0}, m_videoDropped{0}, m_audioDropped{0};
};

}  // namespace fmp4mux
