// libFuzzer entry for fmp4mux's subtitle cutting: arbitrary bytes as a WebVTT, an SRT or a TTML file, or as a later
// part of a WebVTT or SRT file that grows (no header, lines counted on from 7). What comes out
// must be cues in order, apart, of positive length, and gap filling must cover the timeline without holes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "apps/fmp4mux/inputs/subtitle_cues.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const int kind = data[0] % 5;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    const fmp4mux::FilePart later{7, false};
    const fmp4mux::CueFile file = kind == 0   ? fmp4mux::cutWebVtt(text, "fuzz.vtt")
                                  : kind == 1 ? fmp4mux::cutSrt(text, "fuzz.srt")
                                  : kind == 2 ? fmp4mux::cutTtml(text, "fuzz.ttml")
                                  : kind == 3 ? fmp4mux::cutWebVtt(text, "fuzz.vtt", later)
                                              : fmp4mux::cutSrt(text, "fuzz.srt", later);
    std::int64_t last = 0;
    for (const auto& cue : file.cues) {
        if (cue.end <= cue.start || cue.start < last || (kind != 2 && cue.item.find('\n') == std::string_view::npos)) __builtin_trap();
        last = cue.end;
    }
    if (file.warnings.size() > 51) __builtin_trap();
    const auto items = fmp4mux::withGaps(file.cues, 0, 20000000);
    std::int64_t at = 0;
    for (const auto& item : items) {
        if (item.start != at || item.end <= item.start) __builtin_trap();
        if (item.item.empty() && item.end - item.start > 20000000) __builtin_trap();
        at = item.end;
    }
    return 0;
}
