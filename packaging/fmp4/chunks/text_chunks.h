#pragma once
// The text streams' chunks as they go into mdat: WebVTT cues with repeats folded into one longer cue.
#include "packaging/fmp4_types/sync_sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// Over the samples in order: one without times is removed; a sample whose payload equals the one before it is
// removed and its duration added to that one. So identical repeated cues become one sample.
void foldRepeatedWebVttCues(StreamChunk& chunk);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
