#pragma once
// Turns the NAL units of one stream into samples for the session.
#include <memory>

#include "packaging/imff_samples/sample.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

class SampleBuilder : public lib_parse_es::NALListener {
public:
    SampleBuilder(ISampleListener* sampleListener, bool parameterSetsInBand)
        : listener(sampleListener), inBandParameterSets(parameterSetsInBand) {}
    ~SampleBuilder() override = default;

    void onEnd() override {
        ended = true;
        if (listener) listener->onEnd(streamId);
    }
    virtual void emit(std::unique_ptr<ISample> sample) {
        if (listener) listener->onSample(sample);
    }

    bool ended = false;
    std::uint32_t streamId = 0;  // set by the session right after construction
    ISampleListener* listener;
    bool inBandParameterSets;
};

// The builder of a stream type, or null for a type without one (such a stream parses but yields nothing).
std::unique_ptr<SampleBuilder> createSampleBuilder(std::uint32_t streamType, bool inBandParameterSets,
                                                   ISampleListener* listener);

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
