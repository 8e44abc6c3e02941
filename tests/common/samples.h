#pragma once
// A listener that keeps every sample a sample builder delivers.
#include <memory>
#include <vector>

#include "packaging/imff_samples/sample.h"

namespace testkit {

namespace samples = tvrn::encoding::packaging::imff::imff_samples;

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

}  // namespace testkit
