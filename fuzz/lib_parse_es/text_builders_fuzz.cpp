// libFuzzer entry for timed text: the first bytes choose the stream type (TTML, WebVTT, SRT), the cuts, the sync
// flags and the times; the rest is the text. The text item builders run with their sample builders; every sample
// is read back, and a WebVTT sample must be a run of whole boxes.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

struct Sink : samples::ISampleListener {
    explicit Sink(bool boxes) : webVtt(boxes) {}
    void onStreamAdded(std::uint32_t, std::uint32_t) override {}
    void onSample(std::unique_ptr<samples::ISample>& sample) override {
        std::vector<std::uint8_t> bytes;
        sample->getBytes(bytes);
        if (bytes.size() != sample->getSize()) __builtin_trap();
        if (webVtt) {
            // Box sizes must add up to the sample exactly.
            std::size_t at = 0;
            while (at + 8 <= bytes.size()) {
                const std::size_t size = (std::size_t{bytes[at]} << 24) | (std::size_t{bytes[at + 1]} << 16) |
                                         (std::size_t{bytes[at + 2]} << 8) | bytes[at + 3];
                if (size < 8) __builtin_trap();
                at += size;
            }
            if (at != bytes.size()) __builtin_trap();
        }
        ++count;
    }
    void onEnd(std::uint32_t) override { ++ends; }
    bool webVtt;
    int count = 0;
    int ends = 0;
};

std::uint32_t nextRandom(std::uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    static constexpr std::uint32_t kTypes[3] = {es::StreamType::TTML, es::StreamType::WEBVTT, es::StreamType::SRT};
    const std::uint32_t type = kTypes[data[0] % 3];
    std::uint32_t seed = data[1] | (std::uint32_t{data[2]} << 8);
    data += 3;
    size -= 3;
    Sink sink(type == es::StreamType::WEBVTT);
    auto builder = es::createNalBuilder(type);
    auto sampleBuilder = samples::createSampleBuilder(type, false, &sink);
    if (!builder || !sampleBuilder) __builtin_trap();
    builder->setListener(sampleBuilder.get());
    std::size_t offset = 0;
    std::int64_t time = 0;
    do {
        const std::uint32_t r = nextRandom(seed);
        const std::size_t piece = std::min<std::size_t>(size - offset, r % 300);  // empty buffers too
        auto buffer = SimpleMediaData::create(data + offset, piece);
        if (r & 0x10000) {
            time += static_cast<std::int64_t>((r >> 4) % 200000) - 40000;
            const std::int64_t stop = time + static_cast<std::int64_t>(r % 50000) - 1000;
            buffer->SetTime(&time, (r & 0x20000) ? &stop : nullptr);
        }
        if (r & 0x40000) buffer->SetMediaTime(&time, &time);
        buffer->SetSyncPoint((r & 0x80000) != 0);
        builder->push(buffer.get());
        offset += piece;
    } while (offset < size && (nextRandom(seed) & 0xF) != 0);
    builder->flush();
    if (sink.ends != 1) __builtin_trap();
    return 0;
}
