#pragma once
// What the stream fuzz targets share: the first bytes that choose the path and the cuts, a sink that reads every
// sample back and traps on a broken promise, and the feed that cuts the fuzzer's bytes into buffers of random sizes
// with random times and flags.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"

namespace audio_fuzz {

namespace es = tvrn::encoding::packaging::lib_parse_es;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

// Reads every sample back completely, as the box layer would, and checks what every audio sample promises.
struct Sink : samples::ISampleListener {
    void onStreamAdded(std::uint32_t, std::uint32_t) override {}
    void onSample(std::unique_ptr<samples::ISample>& sample) override {
        std::vector<std::uint8_t> bytes;
        sample->getBytes(bytes);
        std::int64_t pts = 0, dts = 0, duration = 0;
        std::uint64_t timescale = 0;
        const bool hasPts = sample->getPts(pts);
        sample->getDts(dts);
        sample->getDuration(duration);
        sample->getTimescale(timescale);
        if (hasPts && (pts != dts || timescale == 0 || duration <= 0)) __builtin_trap();
        checksum += bytes.size() + static_cast<std::uint64_t>(pts);
    }
    void onEnd(std::uint32_t) override { ++ends; }
    std::uint64_t checksum = 0;
    int ends = 0;
};

// The fuzzer's first three bytes: the path (bit 3 asks for pieces of at most `small` bytes rather than `large`) and
// the seed of the cuts; `data` and `size` are left at the stream. False when there is no stream.
struct Prologue {
    std::uint8_t mode = 0;
    std::uint32_t seed = 0, maxPiece = 0;
};
inline bool takePrologue(const std::uint8_t*& data, std::size_t& size, std::uint32_t small, std::uint32_t large,
                         Prologue& p) {
    if (size < 3) return false;
    p = {data[0], data[1] | (std::uint32_t{data[2]} << 8), (data[0] & 0x08) ? small : large};
    data += 3;
    size -= 3;
    return true;
}

inline std::uint32_t nextRandom(std::uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
}

inline void feed(es::NALBuilder& builder, const std::uint8_t* data, std::size_t size, std::uint32_t seed,
          std::uint32_t maxPiece) {
    std::size_t offset = 0;
    std::int64_t time = 0;
    while (offset < size) {
        const std::uint32_t r = nextRandom(seed);
        const std::size_t piece = std::min<std::size_t>(size - offset, 1 + r % maxPiece);
        auto buffer = SimpleMediaData::create(data + offset, piece);
        if (r & 0x10000) {
            time += static_cast<std::int64_t>((r >> 4) % 200000) - 40000;
            buffer->SetTime(&time, nullptr);
        }
        buffer->SetSyncPoint((r & 0x80000) != 0);
        buffer->SetDiscontinuity((r & 0x100000) != 0);
        builder.push(buffer.get());
        offset += piece;
    }
    builder.flush();
}

// The stream through `builder` into the sample builder of `type`, read back by a checking sink; it must end once.
inline void throughSamples(es::NALBuilder& builder, std::uint32_t type, const std::uint8_t* data, std::size_t size,
                           const Prologue& p) {
    Sink sink;
    auto sampleBuilder = samples::createSampleBuilder(type, false, &sink);
    builder.setListener(sampleBuilder.get());
    feed(builder, data, size, p.seed, p.maxPiece);
    if (sink.ends != 1) __builtin_trap();
}

}  // namespace audio_fuzz
