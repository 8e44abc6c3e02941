// libFuzzer entry for fmp4mux's own probe of MPEG-TS inputs: arbitrary bytes pushed whole, then in the pieces the
// first bytes choose. Both ways must list the same streams, with the same codecs, sizes, rates and languages, and
// name the same streams left out; asking for a program the input does not have is refused, never a crash.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/inputs/ts_probe.h"

namespace {
using fmp4mux::TsProbe;

std::vector<std::string> probe(const std::uint8_t* data, std::size_t size, const std::uint8_t* cuts, std::size_t cutCount,
                               std::optional<int> program) {
    TsProbe p;
    std::size_t at = 0, k = 0;
    while (at < size) {
        const std::size_t piece = cutCount == 0 ? size : 1 + cuts[k++ % cutCount] * 3u;
        const std::size_t n = piece < size - at ? piece : size - at;
        const bool more = p.push(data + at, n);
        at += n;
        if (!more) break;
    }
    p.finish();
    std::vector<std::string> out{p.looksLikeTs() ? "ts" : "not ts"};
    std::vector<std::string> skipped, notes;
    try {
        const auto contents = p.contents(0, skipped, program, &notes);
        if (!contents) return out;
        for (const auto& kept : contents->kept) {
            const auto& i = kept.info;
            out.push_back(std::to_string(kept.id) + " " + i.codec + " " + i.kind + " " + i.language + " " +
                          std::to_string(i.width) + "x" + std::to_string(i.height) + " " + std::to_string(i.sampleRate) +
                          "/" + std::to_string(i.channels) + " " + std::to_string(i.streamType));
        }
        for (const auto pid : contents->ignored) out.push_back("ignored " + std::to_string(pid));
    } catch (const fmp4mux::ExitError& e) {
        out.push_back(std::string("refused: ") + e.what());
    }
    out.insert(out.end(), skipped.begin(), skipped.end());
    out.insert(out.end(), notes.begin(), notes.end());
    return out;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return 0;
    // Four bytes choose the pieces' sizes (1 to 766 bytes), one the program asked for (none, or 1 to 3); the rest
    // is the input.
    const std::optional<int> program = data[4] % 4 == 0 ? std::nullopt : std::optional<int>(data[4] % 4);
    const auto whole = probe(data + 5, size - 5, nullptr, 0, program);
    if (probe(data + 5, size - 5, data, 4, program) != whole) __builtin_trap();
    return 0;
}
