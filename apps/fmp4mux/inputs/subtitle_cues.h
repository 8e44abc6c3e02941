#pragma once
// Cutting subtitle files into the items the packager takes: WebVTT and SRT into cues (the settings on the first
// line, the cue text after it), times in 100 ns units. A cue that cannot be packaged (times that do not parse, go
// backwards or overlap the cue before, text that is not UTF-8, holds control bytes or leaves a tag open) is
// skipped with a warning that names the file and line; the rest is kept.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fmp4mux {

struct TextCue {
    std::int64_t start = 0;  // 100 ns units
    std::int64_t end = 0;
    std::string item;        // settings, a line feed, then the cue text; for TTML, a whole document
};

struct CueFile {
    std::vector<TextCue> cues;
    std::vector<std::string> warnings;  // "FILE:LINE: what", at most a few dozen
};

// A file read in parts as it grows: a part starts at `firstLine` (from 1), only the first has the WebVTT header,
// and a part without a cue is no fault.
struct FilePart {
    std::size_t firstLine = 1;
    bool whole = true;
};
CueFile cutWebVtt(std::string_view data, const std::string& fileName, FilePart part = {});
CueFile cutSrt(std::string_view data, const std::string& fileName, FilePart part = {});
// TTML: one document per paragraph, with the head of the file, the paragraph's div and the paragraph with its
// times resolved (begin and end, on the file's timeline); a file that is not well-formed XML gives no cue.
CueFile cutTtml(std::string_view data, const std::string& fileName);
// The document that stands for a gap in a TTML stream.
extern const char* const kEmptyTtmlDocument;

// The items to deliver for cues sorted and apart: each cue, and an empty item for each gap from `from` on, gaps cut
// into pieces of at most `maxGap` so that every segment holds a sample of the stream.
std::vector<TextCue> withGaps(const std::vector<TextCue>& cues, std::int64_t from, std::int64_t maxGap);

}  // namespace fmp4mux
