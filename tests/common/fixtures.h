#pragma once
// The ffmpeg fixtures under tests/data with ffprobe's packets, input buffers, and a listener that keeps units.
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
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace testkit {

namespace es = tvrn::encoding::packaging::lib_parse_es;
using Bytes = std::vector<std::uint8_t>;

// ffprobe's comma-separated fields of each line of a fixture's packet list.
inline std::vector<std::vector<std::string>> csvRows(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream csv(path);
    std::string line;
    while (std::getline(csv, line)) {
        std::istringstream fields(line);
        std::vector<std::string> row;
        for (std::string field; std::getline(fields, field, ',');) row.push_back(field);
        if (row.size() >= 3) rows.push_back(row);
    }
    return rows;
}

inline Bytes readData(const std::string& name) {
    std::ifstream in(std::string(FMP4_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One packet of a video fixture's transport stream, times at 90 kHz.
struct Packet {
    std::int64_t pts = 0;
    std::int64_t dts = 0;
    std::int64_t duration = 0;
    std::size_t size = 0;
    bool key = false;
};

struct Fixture {
    Bytes bytes;                  // the Annex B elementary stream
    std::vector<Packet> packets;  // in decoding order; sizes add up to bytes.size()
};

// "<name>.es" and its packets.
inline Fixture loadFixture(const std::string& name) {
    Fixture fixture{readData(name + ".es"), {}};
    for (const auto& f : csvRows(std::string(FMP4_TEST_DATA_DIR) + "/" + name + ".packets.csv"))
        fixture.packets.push_back({std::stoll(f[0]), std::stoll(f[1]), std::stoll(f[2]),
                                   static_cast<std::size_t>(std::stoull(f[3])),
                                   f.size() > 4 && f[4].find('K') != std::string::npos});
    return fixture;
}

// ffprobe's packets of an audio fixture: times in its time base of 1/28224000 s.
inline constexpr std::int64_t kProbeTimeBase = 28224000;
inline std::int64_t probeTo100ns(std::int64_t pts) { return pts * 10000000 / kProbeTimeBase; }

struct AudioPacket { std::int64_t pts = 0; std::int64_t duration = 0; std::size_t size = 0; };

struct AudioFixture { Bytes bytes; std::vector<AudioPacket> packets; };

inline AudioFixture loadAudioFixture(const std::string& file) {
    AudioFixture fixture{readData(file), {}};
    for (const auto& f : csvRows(std::string(FMP4_TEST_DATA_DIR) + "/" + file + ".packets.csv"))
        fixture.packets.push_back({std::stoll(f[0]), std::stoll(f[1]), static_cast<std::size_t>(std::stoull(f[2]))});
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

// The raw AAC frames of an ADTS stream without CRC: each frame less its 7-byte header.
inline std::vector<Bytes> adtsPayloads(const AudioFixture& fixture) {
    std::vector<Bytes> out;
    for (const Bytes& frame : packetBytes(fixture)) out.emplace_back(frame.begin() + 7, frame.end());
    return out;
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

// The units of an Annex B stream as a plain walk over its start codes finds them: from each 00 00 01 (with
// one more leading zero when present) to the next.
inline std::vector<Bytes> referenceUnits(const Bytes& s) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i + 2 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            starts.push_back(i > 0 && s[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    }
    std::vector<Bytes> units;
    for (std::size_t k = 0; k < starts.size(); ++k)
        units.emplace_back(s.begin() + static_cast<std::ptrdiff_t>(starts[k]),
                           s.begin() + static_cast<std::ptrdiff_t>(k + 1 < starts.size() ? starts[k + 1] : s.size()));
    return units;
}

// The type of an H.264 or HEVC unit, read after its start code.
inline unsigned unitType(const Bytes& unit, bool hevc) {
    const std::size_t header = es::skipStartCode(unit.data(), unit.size());
    return hevc ? (unit[header] >> 1) & 0x3Fu : unit[header] & 0x1Fu;
}

// The first unit of `type` in an Annex B stream, with its start code; empty when there is none.
inline Bytes firstUnitOf(const Bytes& stream, unsigned type, bool hevc) {
    for (const Bytes& unit : referenceUnits(stream))
        if (unitType(unit, hevc) == type) return unit;
    return {};
}

// Keeps every unit a NAL builder delivers.
struct NalCollector : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override { nals.push_back(std::move(nal)); }
    void onEnd() override { ++ends; }
    Bytes bytesOf(std::size_t i) const { return Bytes(nals[i]->bytes(), nals[i]->bytes() + nals[i]->length); }
    std::vector<Bytes> all() const {
        std::vector<Bytes> out;
        for (std::size_t i = 0; i < nals.size(); ++i) out.push_back(bytesOf(i));
        return out;
    }
    std::vector<std::unique_ptr<es::NAL>> nals;
    int ends = 0;
};

// Pushes `size` bytes in pieces of 1 to `maxPiece` bytes (the first at least `minFirst`) drawn from `seed`, which
// moves on; the first piece has the presentation and decoding times given (100 ns).
inline void pushPieces(es::NALBuilder& builder, const std::uint8_t* bytes, std::size_t size, std::uint32_t& seed,
                       std::size_t maxPiece, std::optional<std::int64_t> time100ns,
                       std::optional<std::int64_t> mediaTime100ns = std::nullopt, std::size_t minFirst = 1) {
    for (std::size_t offset = 0; offset < size;) {
        seed = seed * 1103515245u + 12345u;
        std::size_t piece = 1 + (seed >> 16) % maxPiece;
        piece = std::min(size - offset, offset == 0 ? std::max(piece, minFirst) : piece);
        auto buffer = tvrn::encoding::packaging::imff::fmp4::SimpleMediaData::create(bytes + offset, piece);
        if (offset == 0 && time100ns) buffer->SetTime(&*time100ns, nullptr);
        if (offset == 0 && mediaTime100ns) buffer->SetMediaTime(&*mediaTime100ns, nullptr);
        builder.push(buffer.get());
        offset += piece;
    }
}
inline void pushPieces(es::NALBuilder& builder, const Bytes& stream, std::uint32_t seed, std::size_t maxPiece,
                       std::optional<std::int64_t> time100ns = std::int64_t{0}) {
    pushPieces(builder, stream.data(), stream.size(), seed, maxPiece, time100ns);
}

// The units the framing of `type` delivers from `stream` pushed in pieces (pushPieces), then flushed.
inline NalCollector framedInPieces(std::uint32_t type, const Bytes& stream, std::uint32_t seed, std::size_t maxPiece,
                                   std::optional<std::int64_t> time100ns = std::int64_t{0}) {
    NalCollector collector;
    auto builder = es::createNalBuilder(type);
    builder->setListener(&collector);
    pushPieces(*builder, stream, seed, maxPiece, time100ns);
    builder->flush();
    return collector;
}

}  // namespace testkit
