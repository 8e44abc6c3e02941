#include "packaging/fmp4/chunks/text_chunks.h"

#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {

std::vector<std::uint8_t> payloadOf(const Sample& sample) {
    std::vector<std::uint8_t> bytes(sample.getSize());
    sample.getData(bytes.data());
    return bytes;
}

bool hasTimes(const Sample& sample) {
    std::int64_t value = 0;
    std::uint64_t timescale = 0;
    return sample.getPts(value) && sample.getDuration(value) && sample.getTimescale(timescale);
}

}  // namespace

void foldRepeatedWebVttCues(StreamChunk& chunk) {
    std::vector<std::shared_ptr<ISyncSample>> kept;
    kept.reserve(chunk.samples.size());
    Sample* previous = nullptr;
    std::vector<std::uint8_t> previousPayload;
    for (auto& entry : chunk.samples) {
        const auto* wrapped = dynamic_cast<const Fmp4Sample*>(entry.get());
        Sample* sample = wrapped ? wrapped->sample().get() : nullptr;
        if (sample == nullptr || !hasTimes(*sample)) continue;
        std::vector<std::uint8_t> payload = payloadOf(*sample);
        if (previous != nullptr && payload == previousPayload) {
            previous->duration += sample->duration;
            previous->hasDuration = true;
            continue;
        }
        previous = sample;
        previousPayload = std::move(payload);
        kept.push_back(std::move(entry));
    }
    chunk.samples = std::move(kept);
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
