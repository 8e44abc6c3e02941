#pragma once
// TTML time expressions (W3C TTML2, 10.3.1): clock time "hh:mm:ss", "hh:mm:ss.fff", "hh:mm:ss:ff" and offset time
// "Nh", "Nm", "Ns", "Nms", "Nf", "Nt" with an optional fraction. Times in 100 ns units.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// frameRate and tickRate are those of the document (ttp:frameRate, ttp:tickRate); none for an expression that
// does not parse or is out of range (more than a million hours).
std::optional<std::int64_t> parseTtmlTime(std::string_view text, double frameRate = 30, double tickRate = 1);

// "hh:mm:ss.fff", rounded to the millisecond; negative times give "00:00:00.000".
std::string formatTtmlTime(std::int64_t hundredNs);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
