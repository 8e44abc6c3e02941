#pragma once
// Silent frames for an AAC stream that stops delivering while the rest of its input goes on (an audio encoder that
// died for a while). Ending the stream lets the video be cut, but players then run out of audio and stall, and the
// stream could not come back. Filled with silence, its timeline goes on; when it comes back it takes over from the
// silence again. Only AAC-LC in ADTS, mono or stereo: their silent frame is a handful of fixed bytes.
#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "apps/fmp4mux/inputs/input.h"

namespace fmp4mux {

class AacSilence {
public:
    explicit AacSilence(std::size_t stream) : m_stream(stream) {}

    // A packet of the stream itself, its times placed (100 ns units): its first ADTS header is kept if it is one
    // that silence can be made for, and where it ends.
    void noteReal(const Packet& packet);
    // Silence can be made: an AAC-LC mono or stereo header has been seen, and where the stream stopped is known.
    bool canFill() const { return m_header.has_value() && m_end.has_value(); }
    // Starts filling from where the stream stopped.
    void start();
    bool filling() const { return m_filling; }
    // While filling: the silent frames that end by `until`, with their times.
    std::vector<Packet> upTo(std::int64_t until);
    // While filling, whether the silence made so far already stands for a packet of the stream at `time` (then it is
    // dropped).
    bool covers(std::int64_t time) const;
    // The stream came back with a packet at `time`: the silent frames up to it, and filling stops.
    std::vector<Packet> handOver(std::int64_t time);

private:
    std::int64_t frameTime(std::uint64_t n) const;
    void keepHeader(const std::uint8_t* adts);

    std::size_t m_stream;
    std::optional<std::array<std::uint8_t, 7>> m_header;  // the ADTS header without CRC, frame length aside
    std::uint32_t m_rate = 0;
    std::optional<std::int64_t> m_end;  // where the last real packet ended
    bool m_filling = false;
    std::int64_t m_base = 0;  // the time of the first silent frame
    std::uint64_t m_made = 0; // silent frames made since
};

}  // namespace fmp4mux
