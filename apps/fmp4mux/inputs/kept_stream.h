#pragma once
// What the readers of media inputs share, whichever opened the input: the streams fmp4mux packages and in which
// byte form, the key-frame test on Annex B, SCTE-35 sections as packets, and the read-ahead that measures the GOP
// and the bitrates.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/audio_frames.h"
#include "apps/fmp4mux/inputs/input.h"

namespace fmp4mux {

// A source that goes on at its own pace and has no end of its own: a network stream, or standard input ("pipe:0").
bool liveSource(const std::string& source);

// A stream of the input that fmp4mux packages, and how its packets become what the packager reads.
struct KeptStream {
    StreamInfo info;
    int sourceIndex = -1;
    int id = 0;                     // the container's id of it: the PID in MPEG-TS
    const char* toAnnexB = nullptr; // the bitstream filter that turns its packets into Annex B
    bool video = false, hevc = false;
    bool adts = false;
    bool rawAac = false;            // raw AAC frames, rewrapped with `asc`
    bool scte35 = false;
    bool webVtt = false, subRip = false;
    std::vector<std::uint8_t> asc;
    std::uint32_t bitrate = 0;
    Framing framing = Framing::None;  // how its packets hold their frames
    LatmTiming latm;                  // LATM: the timing of its last StreamMuxConfig
};

// Whether an Annex B access unit is a random access picture: its first slice is an IDR slice of H.264, an IRAP
// picture of HEVC.
bool annexBRandomAccess(const std::uint8_t* data, std::size_t size, bool hevc);
// Whether a PES of ADTS frames holds whole frames from its first byte to its last.
bool wholeAdtsFrames(const std::uint8_t* data, std::size_t size);
// One SCTE-35 section as the packager takes it, timed by `clock` (90 kHz): the 8-byte big-endian clock value
// (33 bits), then the section.
Packet sectionPacket(std::size_t stream, std::int64_t clock, const std::uint8_t* section, std::size_t size);

// The read-ahead's measures: the interval between the key frames of the first video stream, its first key frame,
// and the rate of each stream from the bytes and times read (over a few seconds when there is no video).
class KeyFrameMeter {
public:
    static constexpr double kRateSeconds = 4.0;
    KeyFrameMeter(std::size_t streams, std::optional<std::size_t> video, double maxSeconds)
        : m_seen(streams), m_video(video), m_maxSeconds(maxSeconds) {}
    // Whether to read another packet.
    bool wantsMore() const { return !m_done && m_keys.size() < 4 && m_bytes < (64u << 20); }
    // One packet read: of kept stream `stream` (none: a stream not packaged), with its decoding time (else its
    // presentation time) in seconds, its presentation time in 100 ns units, and whether it is a key frame
    // (asked of the video stream only).
    template <typename IsKey>
    void add(std::optional<std::size_t> stream, std::size_t bytes, std::optional<double> seconds,
             std::optional<std::int64_t> pts, IsKey isKey) {
        m_bytes += bytes;
        if (stream && seconds) {
            Seen& s = m_seen[*stream];
            s.bytes += bytes;
            if (!s.first) s.first = seconds;
            s.last = seconds;
            // Without video there are no key frames to wait for: a few seconds give the rates.
            if (!m_video && *s.last - *s.first > kRateSeconds) m_done = true;
        }
        if (!stream || stream != m_video || !seconds) return;
        if (!m_first) m_first = seconds;
        if (*seconds - *m_first > m_maxSeconds) {
            m_done = true;
            return;
        }
        if (pts && m_videoTimes.size() < 64) m_videoTimes.push_back(*pts);
        if (isKey()) {
            m_keys.push_back(*seconds);
            if (!m_firstKey && pts) m_firstKey = pts;
        }
    }
    // The rates of the streams whose bitrate is unknown, measured on what was read.
    void measureBitrates(std::vector<StreamInfo>& streams) const;
    std::optional<double> interval() const;
    std::optional<std::int64_t> firstKey() const { return m_firstKey; }
    // The video's picture duration (100 ns units): the median step between its first pictures' presentation
    // times, in presentation order.
    std::optional<std::int64_t> pictureDuration() const;

private:
    struct Seen {
        std::size_t bytes = 0;
        std::optional<double> first, last;
    };
    std::vector<Seen> m_seen;
    std::optional<std::size_t> m_video;
    double m_maxSeconds;
    std::vector<double> m_keys;
    std::optional<double> m_first;
    std::optional<std::int64_t> m_firstKey;
    std::vector<std::int64_t> m_videoTimes;  // presentation times of the first pictures
    std::size_t m_bytes = 0;
    bool m_done = false;
};

// The packager's raw AAC packet around one AAC frame: marker FF FA FA FA, packet size, average bit rate,
// configuration bit length, AudioSpecificConfig, payload length, payload.
std::vector<std::uint8_t> makeRawAacPacket(const std::vector<std::uint8_t>& audioSpecificConfig,
                                           std::uint32_t averageBitrate, const std::uint8_t* frame,
                                           std::size_t frameSize);

}  // namespace fmp4mux
