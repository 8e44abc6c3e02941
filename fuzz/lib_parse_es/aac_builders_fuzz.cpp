// libFuzzer entry for AAC: the first bytes choose the path, the cuts and the timing; the rest is the stream.
// The three AAC builders run with their sample builders; the configuration and header parsers also run on the
// bytes directly. Only "not implemented" configurations may throw, and only from the direct parses.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/mpeg4_audio.h"
#include "packaging/lib_parse_es/nal_aac.h"

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

template <typename T>
void parseUnit(const std::uint8_t* data, std::size_t size) {
    T nal(static_cast<std::int32_t>(size));
    nal.append(data, size);
    try {
        nal.parse();
    } catch (const std::runtime_error&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const std::uint8_t mode = data[0];
    const std::uint32_t seed = data[1] | (std::uint32_t{data[2]} << 8);
    data += 3;
    size -= 3;
    const std::uint32_t maxPiece = (mode & 0x08) ? 5 : 700;
    static constexpr std::uint32_t kTypes[3] = {es::StreamType::AAC_ADTS_AUDIO, es::StreamType::AAC_LATM_AUDIO,
                                                es::StreamType::AAC_RAW_AUDIO};
    switch (mode % 4) {
        case 0:
        case 1:
        case 2: {
            const std::uint32_t type = kTypes[mode % 4];
            Sink sink;
            auto builder = es::createNalBuilder(type);
            auto sampleBuilder = samples::createSampleBuilder(type, false, &sink);
            builder->setListener(sampleBuilder.get());
            feed(*builder, data, size, seed, maxPiece);
            if (sink.ends != 1) __builtin_trap();
            break;
        }
        default: {
            es::BitReader reader(data, size);
            es::mpeg4_audio::AudioSpecificConfig config;
            es::mpeg4_audio::StreamMuxConfig mux;
            try {
                es::mpeg4_audio::parseAudioSpecificConfig(reader, config);
            } catch (const std::runtime_error&) {
            }
            es::BitReader reader2(data, size);
            try {
                es::mpeg4_audio::parseStreamMuxConfig(reader2, mux);
            } catch (const std::runtime_error&) {
            }
            if (size == 0) break;
            parseUnit<es::NALAACADTS>(data, size);
            parseUnit<es::NALAACLATMLOAS>(data, size);
            es::NALAACRaw raw(static_cast<std::int32_t>(size));
            raw.append(data, size);
            es::AACRawHeader header;
            try {
                es::parseAACRawPacket(raw, header);
            } catch (const std::runtime_error&) {
            }
            break;
        }
    }
    return 0;
}
