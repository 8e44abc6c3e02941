#include "apps/fmp4mux/inputs/kept_stream.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "apps/fmp4mux/inputs/adts.h"
#include "apps/fmp4mux/inputs/annex_b.h"

namespace fmp4mux {

bool liveSource(const std::string& source) {
    return source.rfind("udp://", 0) == 0 || source.rfind("srt://", 0) == 0 || source.rfind("rtp://", 0) == 0 ||
           source == "pipe:0";
}

// Only the NAL units ahead of the first slice are looked at (delimiter, parameter sets, SEI), so the cost does not
// grow with the picture. MPEG-TS is read without libavformat's parsers, so its packets carry no reliable key-frame
// flag of their own.
bool annexBRandomAccess(const std::uint8_t* data, std::size_t size, bool hevc) {
    // The first VCL unit decides: an IDR slice of H.264, an IRAP picture of HEVC.
    const int first = unitsBeforeFirstSlice(data, size, hevc, [](int, const std::uint8_t*, std::size_t) {});
    return hevc ? first >= 16 && first <= 21 : first == 5;
}

// The demuxer flags a PES as damaged when the transport packet after it broke the continuity count, which a
// splice of two recordings does too; a PES whose frame lengths add up exactly to its size lost nothing.
bool wholeAdtsFrames(const std::uint8_t* data, std::size_t size) {
    std::size_t at = 0;
    while (at + 7 <= size) {
        const std::size_t length = adtsFrameLength(data + at);
        if (length == 0) return false;
        at += length;
    }
    return at == size && size > 0;
}

Packet sectionPacket(std::size_t stream, std::int64_t clock, const std::uint8_t* section, std::size_t size) {
    Packet out;
    out.stream = stream;
    out.key = true;
    out.pts = (clock * 1000 + (clock >= 0 ? 4 : -4)) / 9;  // 90 kHz to 100 ns units, rounded
    out.dts = out.pts;
    out.owned.resize(8 + size);
    const auto value = static_cast<std::uint64_t>(clock) & ((std::uint64_t{1} << 33) - 1);
    for (int i = 0; i < 8; ++i) out.owned[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (56 - 8 * i));
    if (size > 0) std::memcpy(out.owned.data() + 8, section, size);
    out.data = out.owned.data();
    out.size = out.owned.size();
    return out;
}

// A stream whose rate neither it nor its container tells (a live or piped input) is measured on what was read, so
// that manifests announce a real rate and renditions rank as their media do.
void KeyFrameMeter::measureBitrates(std::vector<StreamInfo>& streams) const {
    for (std::size_t k = 0; k < m_seen.size() && k < streams.size(); ++k) {
        const Seen& s = m_seen[k];
        if (streams[k].bitrate > 0 || !s.first || *s.last - *s.first < 0.5) continue;
        streams[k].bitrate = std::llround(static_cast<double>(s.bytes) * 8 / (*s.last - *s.first));
    }
}

std::optional<double> KeyFrameMeter::interval() const {
    if (m_keys.size() < 2) return std::nullopt;
    std::vector<double> intervals;
    for (std::size_t i = 1; i < m_keys.size(); ++i) intervals.push_back(m_keys[i] - m_keys[i - 1]);
    std::sort(intervals.begin(), intervals.end());
    const double interval = intervals[intervals.size() / 2];
    if (interval <= 0) return std::nullopt;
    return interval;
}

std::optional<std::int64_t> KeyFrameMeter::pictureDuration() const {
    std::vector<std::int64_t> times = m_videoTimes;
    std::sort(times.begin(), times.end());
    std::vector<std::int64_t> steps;
    for (std::size_t i = 1; i < times.size(); ++i)
        if (times[i] > times[i - 1]) steps.push_back(times[i] - times[i - 1]);
    if (steps.size() < 4) return std::nullopt;
    std::sort(steps.begin(), steps.end());
    return steps[steps.size() / 2];
}

std::vector<std::uint8_t> makeRawAacPacket(const std::vector<std::uint8_t>& asc, std::uint32_t averageBitrate,
                                           const std::uint8_t* frame, std::size_t frameSize) {
    const std::size_t total = 20 + asc.size() + frameSize;
    std::vector<std::uint8_t> out(total);
    std::uint8_t* p = out.data();
    const auto put = [&p](std::uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8) *p++ = static_cast<std::uint8_t>(v >> shift);
    };
    put(0xFFFAFAFAu);
    put(static_cast<std::uint32_t>(total));
    put(averageBitrate);
    put(static_cast<std::uint32_t>(asc.size() * 8));
    p = std::copy(asc.begin(), asc.end(), p);
    put(static_cast<std::uint32_t>(frameSize));
    if (frameSize > 0) std::memcpy(p, frame, frameSize);
    return out;
}

}  // namespace fmp4mux
