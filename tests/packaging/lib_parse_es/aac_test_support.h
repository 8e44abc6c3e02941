#pragma once
// Helpers of the AAC tests: the ffmpeg fixtures with ffprobe's packets, and writers of LOAS/LATM frames and
// raw packets around real AAC payloads.
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/packaging/lib_parse_es/es_test_support.h"

namespace es_test {

// ffprobe's packets of an audio elementary stream file, in its time base of 1/28224000 s.
inline constexpr std::int64_t kProbeTimeBase = 28224000;

struct AudioPacket {
    std::int64_t pts = 0;
    std::int64_t duration = 0;
    std::size_t size = 0;
};

struct AudioFixture {
    Bytes bytes;
    std::vector<AudioPacket> packets;  // sizes add up to bytes.size()
};

inline AudioFixture loadAudioFixture(const std::string& file) {
    AudioFixture fixture;
    const std::string path = std::string(FMP4_TEST_DATA_DIR) + "/" + file;
    std::ifstream in(path, std::ios::binary);
    fixture.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    std::ifstream csv(path + ".packets.csv");
    std::string line;
    while (std::getline(csv, line)) {
        std::istringstream fields(line);
        std::string pts, duration, size;
        std::getline(fields, pts, ',');
        std::getline(fields, duration, ',');
        std::getline(fields, size, ',');
        if (size.empty()) continue;
        fixture.packets.push_back({std::stoll(pts), std::stoll(duration), static_cast<std::size_t>(std::stoull(size))});
    }
    return fixture;
}

// The frames of a stream cut at its packets' sizes.
inline std::vector<Bytes> packetBytes(const AudioFixture& fixture) {
    std::vector<Bytes> out;
    std::size_t offset = 0;
    for (const AudioPacket& p : fixture.packets) {
        out.emplace_back(fixture.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                         fixture.bytes.begin() + static_cast<std::ptrdiff_t>(offset + p.size));
        offset += p.size;
    }
    return out;
}

// The raw AAC frames of an ADTS stream (headers without CRC stripped).
inline std::vector<Bytes> adtsPayloads(const AudioFixture& fixture) {
    std::vector<Bytes> out;
    for (const Bytes& frame : packetBytes(fixture)) out.emplace_back(frame.begin() + 7, frame.end());
    return out;
}

// The ADTS stream with a 2-byte CRC field in every header: protection_absent cleared, frame length + 2.
inline Bytes withCrc(const AudioFixture& fixture) {
    Bytes out;
    for (Bytes frame : packetBytes(fixture)) {
        const std::uint32_t length = static_cast<std::uint32_t>(frame.size()) + 2;
        frame[1] &= 0xFE;
        frame[3] = static_cast<std::uint8_t>((frame[3] & 0xFC) | (length >> 11));
        frame[4] = static_cast<std::uint8_t>(length >> 3);
        frame[5] = static_cast<std::uint8_t>((frame[5] & 0x1F) | ((length & 7) << 5));
        frame.insert(frame.begin() + 7, {0x5A, 0xA5});
        out.insert(out.end(), frame.begin(), frame.end());
    }
    return out;
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
inline Bytes rawPacket(const Bytes& payload, const Bytes& config, std::uint32_t configBits,
                       std::uint32_t bitRate = 64000) {
    Bytes out = {0xFF, 0xFA, 0xFA, 0xFA};
    putBE32(out, static_cast<std::uint32_t>(20 + config.size() + payload.size()));
    putBE32(out, bitRate);
    putBE32(out, configBits);
    out.insert(out.end(), config.begin(), config.end());
    putBE32(out, static_cast<std::uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// Pushes `stream` in pieces of 1 to `maxPiece` bytes; the first piece has the time `time100ns`.
inline void pushPieces(es::NALBuilder& builder, const Bytes& stream, std::uint32_t seed, std::size_t maxPiece,
                       std::optional<std::int64_t> time100ns = std::int64_t{0}) {
    std::size_t offset = 0;
    while (offset < stream.size()) {
        seed = seed * 1103515245u + 12345u;
        const std::size_t piece = std::min<std::size_t>(stream.size() - offset, 1 + (seed >> 16) % maxPiece);
        auto buffer = tvrn::encoding::packaging::imff::fmp4::SimpleMediaData::create(stream.data() + offset, piece);
        if (offset == 0 && time100ns) buffer->SetTime(&*time100ns, nullptr);
        builder.push(buffer.get());
        offset += piece;
    }
}

// ffprobe's pts in 100 ns units.
inline std::int64_t probeTo100ns(std::int64_t pts) { return pts * 10000000 / kProbeTimeBase; }

}  // namespace es_test
