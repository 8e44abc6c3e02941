#pragma once
// What the H.264 and HEVC sample builders share: kept parameter sets and SEI, and the length-prefixed copies
// of NAL units that video samples hold.
#include <memory>

#include "packaging/imff_samples/sample_builder.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

inline constexpr std::uint64_t kVideoTimescale = 90000;

// A plain unit (type -1) with the bytes of `nal` from `from` on and its timing.
std::unique_ptr<NAL> copyNal(const NAL& nal, std::uint32_t from);
// A plain unit holding a 4-byte big-endian length and the bytes of `nal` from its header byte on.
std::unique_ptr<NAL> lengthPrefixedNal(const NAL& nal, std::uint32_t headerOffset);
// The same, taken from `holder`: a picture's slices are most of the bytes through the packager, so the unit is
// turned into its length-prefixed form in place where its storage allows, and copied only where it does not.
std::unique_ptr<NAL> takeLengthPrefixed(std::unique_ptr<NAL>& holder, std::uint32_t headerOffset);

class SampleBuilderVideo : public SampleBuilder {
public:
    using SampleBuilder::SampleBuilder;

    std::unique_ptr<NAL> lastSps;
    std::unique_ptr<NAL> lastPps;
    std::unique_ptr<NAL> lastVps;
    std::unique_ptr<NAL> lastSei;
    bool spsSent = false;
    bool ppsSent = false;
    bool vpsSent = false;

protected:
    // A video sample at 90 kHz. It takes the kept SEI and, with in-band parameter sets, the kept VPS, SPS and
    // PPS, in that order; each goes with this one sample only.
    std::unique_ptr<Sample> makeSample(std::int32_t kind, std::uint32_t inputType, std::int64_t pts,
                                       std::int64_t dts, std::int64_t duration);
    // Keeps `copy` in `slot`, and the first time (`sent` clear) also emits a configuration sample of `kind`
    // holding a second copy.
    void keepParameterSet(std::unique_ptr<NAL> copy, std::unique_ptr<NAL>& slot, bool& sent, std::int32_t kind,
                          std::uint32_t inputType);
};

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
