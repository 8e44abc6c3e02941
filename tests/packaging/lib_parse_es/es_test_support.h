#pragma once
// Helpers of the elementary-stream tests: fixtures from ffmpeg, input buffers, collecting listeners.
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "packaging/lib_parse_es/nal.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace es_test {

namespace es = tvrn::encoding::packaging::lib_parse_es;
using Bytes = std::vector<std::uint8_t>;

// One packet of ffprobe's view of the fixture's transport stream, times at 90 kHz.
struct Packet {
    std::int64_t pts = 0;
    std::int64_t dts = 0;
    std::int64_t duration = 0;
    std::size_t size = 0;
    bool key = false;
};

struct Fixture {
    Bytes bytes;                  // the Annex B elementary stream
    std::vector<Packet> packets;  // in stream (decoding) order; sizes add up to bytes.size()
};

inline Fixture loadFixture(const std::string& name) {
    Fixture fixture;
    const std::string base = std::string(FMP4_TEST_DATA_DIR) + "/" + name;
    std::ifstream es(base + ".es", std::ios::binary);
    fixture.bytes.assign(std::istreambuf_iterator<char>(es), std::istreambuf_iterator<char>());
    std::ifstream csv(base + ".packets.csv");
    std::string line;
    while (std::getline(csv, line)) {
        std::istringstream fields(line);
        std::string pts, dts, duration, size, flags;
        std::getline(fields, pts, ',');
        std::getline(fields, dts, ',');
        std::getline(fields, duration, ',');
        std::getline(fields, size, ',');
        std::getline(fields, flags, ',');
        if (size.empty()) continue;
        fixture.packets.push_back({std::stoll(pts), std::stoll(dts), std::stoll(duration),
                                   static_cast<std::size_t>(std::stoull(size)), flags.find('K') != std::string::npos});
    }
    return fixture;
}

// A buffer with optional presentation and decoding times given at 90 kHz.
inline es::MediaDataRef makeBuffer(const std::uint8_t* bytes, std::size_t size,
                                   std::optional<std::int64_t> pts90 = std::nullopt,
                                   std::optional<std::int64_t> dts90 = std::nullopt) {
    es::MediaDataRef buffer = tvrn::encoding::packaging::imff::fmp4::SimpleMediaData::create(bytes, size);
    if (pts90) {
        const std::int64_t start = es::from90kHz(*pts90);
        buffer->SetTime(&start, nullptr);
    }
    if (dts90) {
        const std::int64_t start = es::from90kHz(*dts90);
        buffer->SetMediaTime(&start, nullptr);
    }
    return buffer;
}
inline es::MediaDataRef makeBuffer(const Bytes& bytes, std::optional<std::int64_t> pts90 = std::nullopt,
                                   std::optional<std::int64_t> dts90 = std::nullopt) {
    return makeBuffer(bytes.data(), bytes.size(), pts90, dts90);
}

struct NalCollector : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override { nals.push_back(std::move(nal)); }
    void onEnd() override { ++ends; }
    Bytes bytesOf(std::size_t i) const { return Bytes(nals[i]->bytes(), nals[i]->bytes() + nals[i]->length); }
    std::vector<std::unique_ptr<es::NAL>> nals;
    int ends = 0;
};

// Pushes `stream` cut at the given ascending positions.
inline void pushCut(es::NALBuilder& builder, const Bytes& stream, const std::vector<std::size_t>& cuts) {
    std::size_t from = 0;
    for (std::size_t cut : cuts) {
        if (cut > from) builder.push(makeBuffer(stream.data() + from, cut - from).get());
        from = cut;
    }
    if (from < stream.size()) builder.push(makeBuffer(stream.data() + from, stream.size() - from).get());
}

// The units of a stream as a plain walk over its start codes finds them: from each 00 00 01 (with one more
// leading zero when present) to the next.
inline std::vector<Bytes> referenceUnits(const Bytes& s) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i + 2 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            starts.push_back(i > 0 && s[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    }
    std::vector<Bytes> units;
    for (std::size_t k = 0; k < starts.size(); ++k) {
        const std::size_t end = k + 1 < starts.size() ? starts[k + 1] : s.size();
        units.emplace_back(s.begin() + static_cast<std::ptrdiff_t>(starts[k]), s.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return units;
}

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

}  // namespace es_test

namespace es_test {

// Synthetic H.264 units with 4-byte start codes.
struct H264SpsOptions {
    std::uint32_t id = 0;
    std::uint8_t profile = 66;
    bool vui = true;
    bool timing = true;
    std::uint32_t unitsInTick = 1;
    std::uint32_t timeScale = 50;
    bool nalHrd = true;
    unsigned cpbRemovalDelayLengthMinus1 = 23;
    unsigned dpbOutputDelayLengthMinus1 = 23;
};

inline Bytes h264Sps(const H264SpsOptions& o) {
    BitWriter w;
    w.bits(o.profile, 8);
    w.bits(0, 8);   // constraint flags
    w.bits(30, 8);  // level_idc
    w.ue(o.id);
    w.ue(0);  // log2_max_frame_num_minus4
    w.ue(2);  // pic_order_cnt_type
    w.ue(1);  // max_num_ref_frames
    w.bit(false);
    w.ue(10);  // width in macroblocks - 1
    w.ue(8);   // height in map units - 1
    w.bit(true);   // frame_mbs_only_flag
    w.bit(true);   // direct_8x8_inference_flag
    w.bit(false);  // frame_cropping_flag
    w.bit(o.vui);
    if (o.vui) {
        w.bits(0, 4);  // aspect ratio, overscan, video signal, chroma location: absent
        w.bit(o.timing);
        if (o.timing) {
            w.bits(o.unitsInTick, 32);
            w.bits(o.timeScale, 32);
            w.bit(true);
        }
        w.bit(o.nalHrd);
        if (o.nalHrd) {
            w.ue(0);
            w.bits(4, 4);
            w.bits(3, 4);
            w.ue(1000);
            w.ue(1000);
            w.bit(true);
            w.bits(23, 5);
            w.bits(o.cpbRemovalDelayLengthMinus1, 5);
            w.bits(o.dpbOutputDelayLengthMinus1, 5);
            w.bits(24, 5);
        }
        w.bit(false);  // vcl_hrd_parameters_present_flag
        if (o.nalHrd) w.bit(false);  // low_delay_hrd_flag
        w.bit(false);  // pic_struct_present_flag
        w.bit(false);  // bitstream_restriction_flag
    }
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
    std::uint32_t spsId = 0;
    std::uint32_t initialDelay = 90000;
    bool pictureTiming = true;
    std::uint32_t cpbRemovalDelay = 0;
    std::uint32_t dpbOutputDelay = 0;
    unsigned cpbBits = 24;
    unsigned dpbBits = 24;
};

inline void seiMessage(Bytes& out, std::uint32_t type, const Bytes& payload) {
    out.push_back(static_cast<std::uint8_t>(type));
    out.push_back(static_cast<std::uint8_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
}

inline Bytes h264Sei(const H264SeiOptions& o) {
    Bytes messages;
    if (o.bufferingPeriod) {
        BitWriter w;
        w.ue(o.spsId);
        w.bits(o.initialDelay, 24);
        w.bits(0, 24);
        w.trailing();
        seiMessage(messages, 0, w.bytes());
    }
    if (o.pictureTiming) {
        BitWriter w;
        w.bits(o.cpbRemovalDelay, o.cpbBits);
        w.bits(o.dpbOutputDelay, o.dpbBits);
        w.trailing();
        seiMessage(messages, 1, w.bytes());
    }
    messages.push_back(0x80);
    return annexB({0x06}, messages);
}

// A slice header: nal type 5 (IDR) or 1, slice_type (2 = I, 0 = P, 1 = B).
inline Bytes h264Slice(std::uint8_t nalType, std::uint32_t sliceType, std::uint32_t ppsId = 0,
                       std::size_t padding = 8) {
    BitWriter w;
    w.ue(0);  // first_mb_in_slice
    w.ue(sliceType);
    w.ue(ppsId);
    w.bits(0, 4);  // frame_num
    for (std::size_t i = 0; i < padding; ++i) w.bits(0xA5, 8);
    w.trailing();
    return annexB({static_cast<std::uint8_t>(0x60 | nalType)}, w.bytes());
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}


}  // namespace es_test
