#pragma once
// The text streams' chunks as they go into mdat: WebVTT cues with repeats folded into one longer cue, and the TTML
// documents of a chunk merged into one.
#include <string>

#include "packaging/fmp4_types/sync_sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// Over the samples in order: one without times is removed; a sample whose payload equals the one before it is
// removed and its duration added to that one. So identical repeated cues become one sample.
void foldRepeatedWebVttCues(StreamChunk& chunk);

// Replaces the TTML documents of a chunk by one document for the whole chunk, a sample at the chunk's start that
// lasts the chunk. Each paragraph keeps its place: its times are rewritten on the timeline whose zero is `zero`
// (100 ns, on the samples' own timeline), and a paragraph without an end ends with its sample. Styles (first of
// each id), regions and namespace declarations are gathered; a document that does not parse adds nothing and is
// named in `skipped`. A chunk left without samples stays empty.
void mergeTtmlChunk(StreamChunk& chunk, std::int64_t zero, const std::string& language, std::string& skipped);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
