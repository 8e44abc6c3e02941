// libFuzzer entry for the sync-frame audio formats: the first bytes choose the path, the cuts and the timing; the
// rest is the stream. AC-3/E-AC-3 and MPEG-1 audio (with and without Layer III) run through their framing and
// sample builders; the header parsers also run on the bytes directly. Nothing may throw.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_audio_frames.h"
#include "packaging/lib_parse_es/nal_builder_audio_frames.h"

namespace {

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

std::uint32_t nextRandom(std::uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
}

void feed(es::NALBuilder& builder, const std::uint8_t* data, std::size_t size, std::uint32_t seed,
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const std::uint8_t mode = data[0];
    const std::uint32_t seed = data[1] | (std::uint32_t{data[2]} << 8);
    data += 3;
    size -= 3;
    const std::uint32_t maxPiece = (mode & 0x08) ? 5 : 700;
    switch (mode % 4) {
        case 0:
        case 1:
        case 2: {
            const std::uint32_t type = mode % 4 == 0 ? es::StreamType::AC3_AUDIO : es::StreamType::MPEG1_AUDIO;
            std::unique_ptr<es::NALBuilder> builder;
            if (mode % 4 == 2) builder = std::make_unique<es::NALBuilderMPEG1Audio>(true);
            else builder = es::createNalBuilder(type);
            Sink sink;
            auto sampleBuilder = samples::createSampleBuilder(type, false, &sink);
            builder->setListener(sampleBuilder.get());
            feed(*builder, data, size, seed, maxPiece);
            if (sink.ends != 1) __builtin_trap();
            break;
        }
        default: {
            const std::span<const std::uint8_t> bytes(data, size);
            es::Ac3StreamInfo info;
            es::parseAc3StreamInfo(bytes, info);
            es::Mpeg1AudioHeader header;
            es::parseMpeg1AudioHeader(bytes, header);
            if (size >= 7) {
                es::Ac3FrameParameters params;
                es::parseAc3FrameParameters(data, params);
                es::mpeg1FrameSize(data, true);
            }
            break;
        }
    }
    return 0;
}
