#pragma once
// Silent frames for an audio stream that stops delivering while the rest of its input goes on (an audio encoder
// that died for a while, a contribution link that lost its audio). Ending the stream lets the video be cut, but
// players then run out of audio and stall, and the stream could not come back. Filled with silence, its timeline
// goes on; when it comes back it takes over from the silence again.
//
// The silent frame matches the stream's first frame: AAC-LC in ADTS or LATM in a channel configuration of 1 (mono)
// to 7 (7.1), whose silence is a few bytes built here (in LATM, after the stream's own StreamMuxConfig); AC-3, E-AC-3 (one independent substream) and MPEG-1 Layer II,
// whose silence libavcodec's encoder makes once at the stream's rate, channels and bitrate, and which is used only
// when its header says what the stream's does (a frame of another size or channel layout would change the
// track's sample description).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/input.h"

namespace fmp4mux {

class AudioSilence {
public:
    // A stream of `codec`, as libavcodec names it.
    AudioSilence(std::size_t stream, std::string codec) : m_stream(stream), m_codec(std::move(codec)) {}
    // Whether streams of `codec` can be filled at all: "aac", "aac_latm", "ac3", "eac3" and "mp2".
    static bool fills(const std::string& codec);

    // A packet of the stream itself, its times placed (100 ns units): its first frame tells what silence to make,
    // and where the packet ends.
    void noteReal(const Packet& packet);
    // Silence can be made: a silent frame matches the stream, and where the stream stopped is known.
    bool canFill() const { return !m_frame.empty() && m_end.has_value(); }
    // Starts filling from where the stream stopped.
    void start();
    bool filling() const { return m_filling; }
    // While filling: the silent frames that end by `until`, with their times.
    std::vector<Packet> upTo(std::int64_t until);
    // While filling, whether the silence made so far already stands for a packet of the stream at `time` (then it
    // is dropped).
    bool covers(std::int64_t time) const;
    // The stream came back with a packet at `time`: the silent frames up to it, and filling stops.
    std::vector<Packet> handOver(std::int64_t time);

    // One frame at the start of `data`: its length, the samples it stands for and their rate; length 0 when no
    // frame of the codec starts there. A dependent E-AC-3 substream stands for no samples of its own.
    struct Frame {
        std::size_t length = 0;
        std::uint32_t samples = 0, rate = 0;
    };
    static Frame readFrame(const std::string& codec, const std::uint8_t* data, std::size_t size);

private:
    std::int64_t frameTime(std::uint64_t n) const;
    void makeFrame(const std::uint8_t* data, std::size_t size);

    std::size_t m_stream;
    std::string m_codec;
    bool m_looked = false;             // the first frame was looked at
    std::vector<std::uint8_t> m_frame; // the silent frame, repeated
    std::uint32_t m_samples = 0, m_rate = 0;  // what each silent frame stands for
    std::optional<std::int64_t> m_end; // where the last real packet ended
    bool m_filling = false;
    std::int64_t m_base = 0;   // the time of the first silent frame
    std::uint64_t m_made = 0;  // silent frames made since
};

}  // namespace fmp4mux
