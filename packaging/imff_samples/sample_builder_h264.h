#pragma once
// H.264 access units from Annex B NAL units: one sample per decoding time, slices as length-prefixed units.
#include <memory>

#include "packaging/imff_samples/sample_builder_video.h"
#include "packaging/lib_parse_es/h264_manager.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

class SampleBuilderH264 : public SampleBuilderVideo {
public:
    using SampleBuilderVideo::SampleBuilderVideo;

    void onNal(std::unique_ptr<NAL>& nal) override;
    void onEnd() override;

    lib_parse_es::NALH264Manager manager;

private:
    // The last value of each timing item seen on any unit; once present, an item stays present.
    struct TimingLatch {
        bool hasTime = false;
        std::int64_t time = 0;
        std::uint8_t syncPoint = 0;
        std::uint8_t preroll = 0;
        lib_parse_es::CuePoint cuePoint{};
        bool hasMediaTime = false;
        std::int64_t mediaTime = 0;
        bool hasDataId = false;
        std::uint64_t dataId = 0;
        bool hasParentalRating = false;
        std::shared_ptr<const lib_parse_es::ParentalRatingEventBlock> parentalRating;
    };

    void mergeTiming(lib_parse_es::NalTimingInfo& timing);
    void onSlice(std::unique_ptr<NAL>& holder, lib_parse_es::NALH264_HEVC& nal, std::uint8_t nalUnitType,
                 std::uint32_t headerOffset);

    TimingLatch m_latch;
    std::unique_ptr<Sample> m_current;
};

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
