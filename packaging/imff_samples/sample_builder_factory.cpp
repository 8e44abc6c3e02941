#include "packaging/imff_samples/sample_builder.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

std::unique_ptr<SampleBuilder> createSampleBuilder(std::uint32_t streamType, bool, ISampleListener*) {
    switch (streamType) {
        // Each codec's sample builder adds its case here.
        default: return nullptr;
    }
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
