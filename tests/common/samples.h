#pragma once
// Samples made by hand, a listener that keeps every sample a sample builder delivers, and a stream type's NAL
// builder feeding its sample builder.
#include <memory>
#include <stdexcept>
#include <vector>

#include "packaging/imff_samples/sample.h"
#include "packaging/imff_samples/sample_builder.h"
#include "tests/common/fixtures.h"

namespace testkit {

namespace samples = tvrn::encoding::packaging::imff::imff_samples;

// A sample of `kind` holding `payload` as one unit, with no times.
inline std::unique_ptr<samples::Sample> sampleHolding(std::int32_t kind, const std::vector<std::uint8_t>& payload) {
    auto sample = std::make_unique<samples::Sample>();
    sample->kind = kind;
    auto nal = std::make_unique<samples::NAL>(-1, static_cast<std::int32_t>(payload.size()));
    if (!payload.empty()) nal->append(payload.data(), static_cast<std::uint32_t>(payload.size()));
    sample->addNal(std::move(nal));
    return sample;
}

// A sample of stream `streamId` with presentation and decoding times and a duration at `timescale`.
inline std::unique_ptr<samples::Sample> timedSample(std::uint32_t streamId, std::int32_t kind, std::uint32_t type,
                                                    std::int64_t dts, std::int64_t pts, std::int64_t duration,
                                                    const std::vector<std::uint8_t>& payload = {},
                                                    std::uint64_t timescale = 90000) {
    auto sample = sampleHolding(kind, payload);
    sample->streamId = streamId;
    sample->inputType = type;
    sample->hasTimescale = sample->hasPts = sample->hasDts = sample->hasDuration = true;
    sample->timescale = timescale;
    sample->dts = dts;
    sample->pts = pts;
    sample->duration = duration;
    return sample;
}

struct SampleCollector : samples::ISampleListener {
    void onStreamAdded(std::uint32_t, std::uint32_t) override {}
    void onSample(std::unique_ptr<samples::ISample>& sample) override {
        all.emplace_back(static_cast<samples::Sample*>(sample.release()));
    }
    void onEnd(std::uint32_t streamId) override {
        ++ends;
        endedStream = streamId;
    }
    std::vector<const samples::Sample*> ofKind(std::int32_t kind) const {
        std::vector<const samples::Sample*> out;
        for (const auto& s : all)
            if (s->kind == kind) out.push_back(s.get());
        return out;
    }
    std::vector<std::unique_ptr<samples::Sample>> all;
    int ends = 0;
    std::uint32_t endedStream = 0;
};

// The bytes a sample holds.
inline std::vector<std::uint8_t> bytesOf(const samples::Sample& sample) {
    std::vector<std::uint8_t> bytes;
    sample.getBytes(bytes);
    return bytes;
}

// The NAL builder of a stream type feeding its sample builder, for stream 3; every sample kept.
struct SampleChain {
    explicit SampleChain(std::uint32_t type, bool inBand = false)
        : builder(es::createNalBuilder(type)), sampleBuilder(samples::createSampleBuilder(type, inBand, &collector)) {
        if (!builder || !sampleBuilder) throw std::runtime_error("no builders for stream type " + std::to_string(type));
        sampleBuilder->streamId = 3;
        builder->setListener(sampleBuilder.get());
    }
    // `bytes` in one buffer, with times at 90 kHz when given.
    void push(const std::vector<std::uint8_t>& bytes, std::optional<std::int64_t> pts90 = std::nullopt,
              std::optional<std::int64_t> dts90 = std::nullopt) {
        builder->push(makeBuffer(bytes, pts90, dts90).get());
    }
    SampleCollector collector;
    std::unique_ptr<es::NALBuilder> builder;
    std::unique_ptr<samples::SampleBuilder> sampleBuilder;
};

}  // namespace testkit
