#pragma once
// The audio formats that travel as whole sync frames (AAC in ADTS or LOAS/LATM, AC-3, E-AC-3, MPEG-1 Layer II):
// what their frame headers say, and the frames a packet holds, so that readers can tell how long a packet of several
// lasts and cut frames off its front.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace fmp4mux {

// Bits read most significant first; reading past the end gives zeros and marks the reader spent.
class Bits {
public:
    Bits(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    std::uint32_t read(unsigned count) {
        std::uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i, ++m_at) {
            const bool inside = m_at / 8 < m_size;
            const bool bit = inside && ((static_cast<unsigned>(m_data[m_at / 8]) >> (7 - m_at % 8)) & 1u) != 0;
            if (!inside) m_spent = true;
            value = value << 1 | (bit ? 1u : 0u);
        }
        return value;
    }
    bool spent() const { return m_spent; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_at = 0;
    bool m_spent = false;
};

// The length of the LOAS AudioSyncStream frame at `p` (ISO/IEC 14496-3, 1.7.2: sync word 0x2B7 and 13 bits of
// audioMuxLengthBytes), or 0.
inline std::size_t loasFrameLength(const std::uint8_t* p, std::size_t size) {
    if (size < 3 || p[0] != 0x56 || (p[1] & 0xE0) != 0xE0) return 0;
    return 3 + ((static_cast<std::size_t>(p[1] & 0x1F) << 8) | p[2]);
}

// What the StreamMuxConfig of a LOAS frame says (ISO/IEC 14496-3, 1.7.3, its AudioSpecificConfig 1.6.2.1), when it
// is one of version 0 for one program of one layer of an AAC object type with a GASpecificConfig (main, LC, SSR,
// LTP; SBR may be signalled before it); none for another. `carriesConfig` tells a frame that carries a
// configuration from one that refers to an earlier one (useSameStreamMux).
struct LatmConfig {
    bool sameTimeFraming = false;
    unsigned subFrames = 1;
    bool sbr = false;              // object type 5 or 29: SBR doubles the rate played
    std::uint32_t objectType = 0;  // of the AAC core
    unsigned rateIndex = 0;        // 15: the rate written out
    std::uint32_t rate = 0;        // of the AAC core, 0 when the index is reserved
    unsigned channels = 0;
    bool frameLength960 = false, dependsOnCoreCoder = false;
    unsigned frameLengthType = 0;  // 0: payload lengths in bytes, then the fields below
    bool otherData = false, crc = false;
    bool whole = false;  // every field up to crcCheckPresent was there
};
std::optional<LatmConfig> readLatmConfig(const std::uint8_t* p, std::size_t size, bool* carriesConfig = nullptr);

// How long each frame of a LOAS frame that carries its StreamMuxConfig lasts: its audio samples (1024 or 960,
// times its subframes) at the rate of the AAC core (of HE-AAC too); none for a frame that refers to an earlier
// configuration.
struct LatmTiming {
    std::uint32_t samples = 0, rate = 0;
};
std::optional<LatmTiming> latmTiming(const std::uint8_t* p, std::size_t size);

// MPEG-1 Layer II bitrates in kbit/s by index (ISO/IEC 11172-3, 2.4.2.3).
inline constexpr std::uint32_t kLayer2Kbps[15] = {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};

// What the header of an MPEG-1 Layer II frame says: its size, rate, channels and bitrate index.
struct Layer2Frame {
    std::size_t size = 0;
    std::uint32_t rate = 0, channels = 0, bitrateIndex = 0;
};
std::optional<Layer2Frame> readLayer2Frame(const std::uint8_t* p, std::size_t size);

// What the header of an AC-3 or E-AC-3 sync frame says (ETSI TS 102 366, 4.4.1 and E.1.2).
struct DolbyFrame {
    std::size_t size = 0;
    bool eac3 = false;
    unsigned strmtyp = 0, substreamId = 0;  // E-AC-3: 0 independent, 1 dependent
    unsigned fscod = 0, blocks = 6, acmod = 0;
    bool lfeon = false;
    std::uint32_t rate = 0;  // audio samples a second
};
std::optional<DolbyFrame> readDolbyFrame(const std::uint8_t* p, std::size_t size);

// How a stream of codec `codec` (as libavformat names it) is framed in its packets; raw AAC is not.
enum class Framing { None, Adts, Latm, Dolby, Layer2 };
Framing framingOf(const std::string& codec, bool adts);

// The frames of a packet of whole frames, from its first byte to its last, all of one length, and how long they
// last (100 ns units); none for other bytes. An E-AC-3 frame counts with the dependent substream frames after it:
// they play at the same time. LOAS frames are timed by a StreamMuxConfig among them, or else by `latmSeen`, the
// timing of the stream's last one, which the call brings up to date. With `bytesOf`, the bytes of the first
// `bytesOf` frames go to `bytes`, timed or not.
struct FrameRun {
    int frames = 0;
    std::int64_t duration = 0;
};
FrameRun frameRun(Framing framing, const std::uint8_t* data, std::size_t size, LatmTiming* latmSeen = nullptr,
                  int bytesOf = 0, std::size_t* bytes = nullptr);

}  // namespace fmp4mux
