#pragma once
// The codec strings that manifests announce, read from a stream's sample entry (RFC 6381 forms).
#include <string>

#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// H.264 "avc1.PPCCLL" / "avc3...", HEVC "hvc1.<profile>.<compat>.<tier+level>[.<constraint bytes>]" / "hev1...",
// "mp4v.0x20", "s263", "vc-1"; audio "mp4a.6b", "mp4a.40.2", "mp4a.40.5", "mp4a.40.29", "ac-3", "ec-3",
// "ac-4.VV.PP.MM". Other audio gives an empty text; a visual entry of another kind fails with
// "internal assertion failure".
std::string codecString(const imff_box::SampleEntry& entry);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
