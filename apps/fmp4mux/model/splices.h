#pragma once
// SCTE-35 splices as players take them: the event a section makes, and its in-band form, an `emsg` box in the
// media segments.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "apps/fmp4mux/model/track.h"
#include "support/system/byte_buffer.h"

namespace fmp4mux {

// The scheme of SCTE-35 events whose message is the binary splice_info_section(), in the MPD and in `emsg`.
inline constexpr const char* kScte35Scheme = "urn:scte:scte35:2013:bin";

// The splice that a message of the packager's SCTE-35 input form (an 8-byte big-endian 33-bit 90 kHz clock value,
// then one splice_info_section()) makes, given the time of its clock value on the running timeline (`clockTime`,
// 100 ns units): that time of the splice, and the event without its id and media time. None when the message makes
// no event; `why` then says so when the section is not readable.
std::optional<std::pair<std::int64_t, SpliceEvent>> spliceOf(std::span<const std::uint8_t> message,
                                                             std::int64_t clockTime, std::string& why);

// A version 1 `emsg` (ISO/IEC 23009-1) of the SCTE-35 scheme: the event's media time on `timescale`, its break's
// duration (0 when it has none), its id, and the section as its message.
std::vector<std::uint8_t> spliceMessageBox(const SpliceEvent& event, std::uint64_t timescale);

// Puts `boxes` into a media chunk after its `styp` (at its start when it has none), ahead of `sidx` and `moof`,
// whose offsets count from their own positions and so stay right. Answers where they went.
std::size_t insertAfterSegmentType(tvrn::system::ByteBuffer& chunk, const std::vector<std::uint8_t>& boxes);

}  // namespace fmp4mux
