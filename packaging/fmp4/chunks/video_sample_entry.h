#pragma once
// The sample entry of an H.264 or HEVC stream, made from the parameter sets that the stream's configuration
// samples carry, and what the manifest says of the stream.
#include <memory>

#include "packaging/fmp4/manifest/live_server_manifest.h"
#include "packaging/fmp4_types/sync_sample.h"
#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

struct VideoSampleEntryResult {
    std::shared_ptr<imff_box::VisualSampleEntry> entry;
    VideoManifestInfo manifest;
};

// "avc1"/"hvc1", or "avc3"/"hev1" with `inBandEntry`. Null entry when the chunk holds no sequence parameter set
// (and for HEVC no video parameter set) or the stream type is neither H.264 nor HEVC.
VideoSampleEntryResult makeVideoSampleEntry(std::uint32_t streamType, const StreamChunk& firstChunk, bool inBandEntry);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
