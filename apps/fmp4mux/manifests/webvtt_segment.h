#pragma once
// HLS carries subtitles as WebVTT text files, one a segment, where DASH carries them as WebVTT in ISO BMFF
// ('wvtt' samples of 'vttc' cue boxes). The text files are made from the ISO BMFF segments, so that both formats
// show the same cues at the same times.
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace fmp4mux {

// The WebVTT file of one 'wvtt' media segment: each cue box of a sample becomes a cue over the sample's span, on
// the media timeline (X-TIMESTAMP-MAP maps cue time 0 to media time 0). Empty samples (gaps) give nothing. No
// value when the segment cannot be read (no movie fragment, a sample outside its mdat).
std::optional<std::string> webVttOfSegment(std::span<const std::uint8_t> segment, std::uint64_t timescale);

// The name of a segment's WebVTT file: the media file's name with the extension ".vtt".
std::string webVttName(const std::string& mediaName);

}  // namespace fmp4mux
