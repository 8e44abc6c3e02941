#pragma once
// HEVC access units from Annex B NAL units: one sample per presentation time.
#include <memory>

#include "packaging/imff_samples/sample_builder_video.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

class SampleBuilderHEVC : public SampleBuilderVideo {
public:
    using SampleBuilderVideo::SampleBuilderVideo;

    void onNal(std::unique_ptr<NAL>& nal) override;
    void onEnd() override;

    // At 90 kHz.
    std::int64_t lastTime = 0;
    std::int64_t lastMediaTime = 0;
    std::int64_t frameDuration = 0;

private:
    bool m_haveTime = false;
    bool m_haveMediaTime = false;
    bool m_pendingHasDataId = false;
    std::uint64_t m_pendingDataId = 0;
    std::unique_ptr<Sample> m_current;
};

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
