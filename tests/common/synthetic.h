#pragma once
// Streams made bit by bit for the parsing tests: an Exp-Golomb bit writer, H.264 parameter sets, SEI and
// slices, and AAC configurations, LOAS frames and raw packets around real payloads.
#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "tests/common/bytes.h"
#include "tests/common/fixtures.h"

namespace testkit {

// MSB-first bit writer with Exp-Golomb codes, for building parameter sets and SEI in tests.
class BitWriter {
public:
    void bits(std::uint64_t value, unsigned count) {
        for (unsigned i = count; i-- > 0;) bit((value >> i) & 1u);
    }
    void bit(bool b) {
        if (m_used == 0) m_bytes.push_back(0);
        if (b) m_bytes.back() |= static_cast<std::uint8_t>(0x80u >> m_used);
        m_used = (m_used + 1) % 8;
    }
    void ue(std::uint32_t value) {
        const std::uint64_t code = std::uint64_t{value} + 1;
        unsigned length = 0;
        while ((code >> length) > 1) ++length;
        bits(0, length);
        bits(code, length + 1);
    }
    void se(std::int32_t value) { ue(value > 0 ? static_cast<std::uint32_t>(2 * value - 1) : static_cast<std::uint32_t>(-2 * value)); }
    // rbsp_trailing_bits
    void trailing() {
        bit(true);
        while (m_used != 0) bit(false);
    }
    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes;
    unsigned m_used = 0;
};

// A unit with a 4-byte start code: header byte(s), then the payload with emulation prevention inserted.
inline Bytes annexB(const Bytes& header, const Bytes& payload) {
    Bytes out;
    out.reserve(4 + header.size() + payload.size() + payload.size() / 2);
    out.resize(4);
    out[3] = 1;
    for (std::uint8_t b : header) out.push_back(b);
    unsigned zeros = 0;
    for (std::uint8_t b : payload) {
        if (zeros >= 2 && b <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

// Synthetic H.264 units with 4-byte start codes. An SPS of 176 x 144 with VUI and NAL HRD parameters, and timing
// information unless `timing` is false.
struct H264SpsOptions {
    std::uint32_t id = 0;
    std::uint8_t profile = 66;
    bool timing = true;
    std::uint32_t unitsInTick = 1;
    std::uint32_t timeScale = 50;
    unsigned cpbRemovalDelayLengthMinus1 = 23;
};

// The profiles whose SPS carries the chroma format, the bit depths and the scaling lists.
inline bool carriesChromaFormat(unsigned profile) {
    for (unsigned p : {100u, 110u, 122u, 244u, 44u, 83u, 86u, 118u, 128u, 138u, 139u, 134u, 135u})
        if (p == profile) return true;
    return false;
}

inline Bytes h264Sps(const H264SpsOptions& o) {
    BitWriter w;
    w.bits(o.profile, 8);
    w.bits(0, 8);   // constraint flags
    w.bits(30, 8);  // level_idc
    w.ue(o.id);
    if (carriesChromaFormat(o.profile)) {
        w.ue(1);       // chroma_format_idc 4:2:0
        w.ue(0);       // bit_depth_luma_minus8
        w.ue(0);       // bit_depth_chroma_minus8
        w.bits(0, 2);  // qpprime_y_zero_transform_bypass_flag, seq_scaling_matrix_present_flag
    }
    w.ue(0);  // log2_max_frame_num_minus4
    w.ue(2);  // pic_order_cnt_type
    w.ue(1);  // max_num_ref_frames
    w.bit(false);
    w.ue(10);  // width in macroblocks - 1
    w.ue(8);   // height in map units - 1
    w.bit(true);   // frame_mbs_only_flag
    w.bit(true);   // direct_8x8_inference_flag
    w.bit(false);  // frame_cropping_flag
    w.bit(true);   // vui_parameters_present_flag
    w.bits(0, 4);  // aspect ratio, overscan, video signal, chroma location: absent
    w.bit(o.timing);
    if (o.timing) {
        w.bits(o.unitsInTick, 32);
        w.bits(o.timeScale, 32);
        w.bit(true);  // fixed_frame_rate_flag
    }
    w.bit(true);  // nal_hrd_parameters_present_flag: one CPB, then the delay field lengths
    w.ue(0);
    w.bits(4, 4);
    w.bits(3, 4);
    w.ue(1000);
    w.ue(1000);
    w.bit(true);
    w.bits(23, 5);
    w.bits(o.cpbRemovalDelayLengthMinus1, 5);
    w.bits(23, 5);  // dpb_output_delay_length_minus1
    w.bits(24, 5);
    w.bit(false);  // vcl_hrd_parameters_present_flag
    w.bit(false);  // low_delay_hrd_flag
    w.bit(false);  // pic_struct_present_flag
    w.bit(false);  // bitstream_restriction_flag
    w.trailing();
    return annexB({0x67}, w.bytes());
}

inline Bytes h264Pps(std::uint32_t ppsId, std::uint32_t spsId) {
    BitWriter w;
    w.ue(ppsId);
    w.ue(spsId);
    w.bits(0, 2);
    w.ue(0);  // num_slice_groups_minus1
    w.trailing();
    return annexB({0x68}, w.bytes());
}

// One SEI unit with an optional buffering period and an optional picture timing (24-bit delays by default).
struct H264SeiOptions {
    bool bufferingPeriod = false;
    bool pictureTiming = true;
    std::uint32_t cpbRemovalDelay = 0;
    std::uint32_t dpbOutputDelay = 0;
    unsigned cpbBits = 24;
};

inline Bytes h264Sei(const H264SeiOptions& o) {
    Bytes messages;
    const auto add = [&](std::uint8_t type, const BitWriter& w) {
        messages.insert(messages.end(), {type, static_cast<std::uint8_t>(w.bytes().size())});
        messages.insert(messages.end(), w.bytes().begin(), w.bytes().end());
    };
    if (o.bufferingPeriod) {
        BitWriter w;
        w.ue(0);              // seq_parameter_set_id
        w.bits(90000, 24);    // initial_cpb_removal_delay
        w.bits(0, 24);        // initial_cpb_removal_delay_offset
        w.trailing();
        add(0, w);
    }
    if (o.pictureTiming) {
        BitWriter w;
        w.bits(o.cpbRemovalDelay, o.cpbBits);
        w.bits(o.dpbOutputDelay, 24);
        w.trailing();
        add(1, w);
    }
    messages.push_back(0x80);
    return annexB({0x06}, messages);
}

// A slice header: nal type 5 (IDR) or 1, slice_type (2 = I, 0 = P, 1 = B), and 8 bytes of slice data.
inline Bytes h264Slice(std::uint8_t nalType, std::uint32_t sliceType, std::uint32_t ppsId = 0) {
    BitWriter w;
    w.ue(0);  // first_mb_in_slice
    w.ue(sliceType);
    w.ue(ppsId);
    w.bits(0, 4);  // frame_num
    for (int i = 0; i < 8; ++i) w.bits(0xA5, 8);
    w.trailing();
    return annexB({static_cast<std::uint8_t>(0x60 | nalType)}, w.bytes());
}

// The ADTS frames with a 2-byte CRC field in every header: protection_absent cleared, frame length + 2.
inline std::vector<Bytes> framesWithCrc(const AudioFixture& fixture) {
    std::vector<Bytes> frames = packetBytes(fixture);
    for (Bytes& frame : frames) {
        const std::uint32_t length = static_cast<std::uint32_t>(frame.size()) + 2;
        frame[1] &= 0xFE;
        frame[3] = static_cast<std::uint8_t>((frame[3] & 0xFC) | (length >> 11));
        frame[4] = static_cast<std::uint8_t>(length >> 3);
        frame[5] = static_cast<std::uint8_t>((frame[5] & 0x1F) | ((length & 7) << 5));
        frame.insert(frame.begin() + 7, {0x5A, 0xA5});
    }
    return frames;
}

// An AudioSpecificConfig; object types 5 and 29 signal SBR (and PS) explicitly around an AAC-LC core.
struct AscOptions {
    unsigned objectType = 2;
    unsigned samplingIndex = 3;
    unsigned channels = 2;
    unsigned extensionIndex = 3;  // for 5 and 29
};

inline void writeAsc(BitWriter& w, const AscOptions& o) {
    w.bits(o.objectType, 5);
    w.bits(o.samplingIndex, 4);
    w.bits(o.channels, 4);
    if (o.objectType == 5 || o.objectType == 29) {
        w.bits(o.extensionIndex, 4);
        w.bits(2, 5);  // core: AAC-LC
    }
    w.bits(0, 3);  // GASpecificConfig: frameLengthFlag, dependsOnCoreCoder, extensionFlag
}

inline Bytes ascBytes(const AscOptions& o) {
    BitWriter w;
    writeAsc(w, o);
    return w.bytes();  // padded with zeros to a whole byte
}

inline unsigned ascBits(const AscOptions& o) { return (o.objectType == 5 || o.objectType == 29) ? 25 : 16; }

// One LOAS frame around `payload`: with `config`, a StreamMuxConfig holding that AudioSpecificConfig,
// otherwise useSameStreamMux.
inline Bytes latmFrame(const Bytes& payload, const AscOptions* config) {
    BitWriter w;
    w.bit(config == nullptr);  // useSameStreamMux
    if (config != nullptr) {
        w.bit(false);       // audioMuxVersion
        w.bit(true);        // allStreamsSameTimeFraming
        w.bits(0, 6);       // numSubFrames
        w.bits(0, 4);       // numProgram
        w.bits(0, 3);       // numLayer
        writeAsc(w, *config);
        w.bits(0, 3);       // frameLengthType
        w.bits(0xFF, 8);    // latmBufferFullness
        w.bit(false);       // otherDataPresent
        w.bit(false);       // crcCheckPresent
    }
    std::size_t left = payload.size();
    while (left >= 255) {
        w.bits(255, 8);
        left -= 255;
    }
    w.bits(left, 8);
    for (std::uint8_t b : payload) w.bits(b, 8);
    const Bytes& element = w.bytes();  // the writer pads its last byte with zeros
    Bytes frame(3 + element.size());
    frame[0] = 0x56;
    frame[1] = static_cast<std::uint8_t>(0xE0 | (element.size() >> 8));
    frame[2] = static_cast<std::uint8_t>(element.size());
    std::copy(element.begin(), element.end(), frame.begin() + 3);
    return frame;
}

inline void putBE32(Bytes& out, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

// One raw packet: marker, size, bit rate, configuration bit length and bytes, payload length, payload.
inline Bytes rawPacket(const Bytes& payload, const Bytes& config, std::uint32_t configBits) {
    Bytes out = {0xFF, 0xFA, 0xFA, 0xFA};
    putBE32(out, static_cast<std::uint32_t>(20 + config.size() + payload.size()));
    putBE32(out, 64000);
    putBE32(out, configBits);
    out.insert(out.end(), config.begin(), config.end());
    putBE32(out, static_cast<std::uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// Pushes the frames three to a buffer, each buffer with the time (100 ns) `timeOf` gives for its first frame's index.
template <typename TimeOf>
void pushInThrees(es::NALBuilder& builder, const std::vector<Bytes>& frames, TimeOf timeOf) {
    for (std::size_t i = 0; i < frames.size(); i += 3) {
        const auto from = frames.begin() + static_cast<std::ptrdiff_t>(i);
        const auto to = from + std::min<std::ptrdiff_t>(3, frames.end() - from);
        auto buffer = makeBuffer(cat(std::vector<Bytes>(from, to)));
        const std::int64_t t = timeOf(i);
        buffer->SetTime(&t, nullptr);
        builder.push(buffer.get());
    }
}

}  // namespace testkit
