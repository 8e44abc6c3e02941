#pragma once
// Samples of text items: TTML documents (90 kHz, the document as it came), WebVTT cues (100 ns, as ISO WebVTT
// boxes) and SRT subtitles (100 ns, 3GPP text samples with empty samples in the gaps). Every sample is a sync
// sample.
#include <cstdint>
#include <string_view>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

// TTML documents (and, by the same rule, metadata sections): one sample per item, at once.
class SampleBuilderMetadata : public SampleBuilder {
public:
    using SampleBuilder::SampleBuilder;
    void onNal(std::unique_ptr<NAL>& nal) override;
};

class SampleBuilderWebVtt : public SampleBuilder {
public:
    using SampleBuilder::SampleBuilder;
    void onNal(std::unique_ptr<NAL>& nal) override;
    // Cue texts end with a zero byte, unless the chunks are made for players.
    bool zeroTerminated = true;
};

class SampleBuilderTimedText : public SampleBuilder {
public:
    using SampleBuilder::SampleBuilder;
    void onNal(std::unique_ptr<NAL>& nal) override;
    // Closes the last cue with an empty sample of one tick.
    void onEnd() override;

private:
    void emitGap(std::int64_t at, std::int64_t duration);
    std::int64_t m_lastEnd = 0;  // end of the last cue, 100 ns
};

// The ISO boxes of one WebVTT cue item: "vtte" for an empty item; otherwise "vttc" with the first line as its
// settings ("sttg", left out when empty) and the other lines as its payload.
std::vector<std::uint8_t> webVttCueBoxes(std::string_view item, bool zeroTerminated = true);

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
