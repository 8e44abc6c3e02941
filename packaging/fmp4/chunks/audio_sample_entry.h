#pragma once
// The sample entry of an AAC stream ("mp4a" with "esds"), made from the decoder configuration that the stream's
// configuration sample carries, and what the manifest says of the stream.
#include <memory>

#include "packaging/codec_box/audio_boxes.h"
#include "packaging/fmp4/manifest/live_server_manifest.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/sync_sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

struct AudioSampleEntryResult {
    std::shared_ptr<codec_box::MP4AudioSampleEntry> entry;
    AudioManifestInfo manifest;
};

// The channel count of an MPEG-4 audio channel configuration (ISO/IEC 14496-3 table 1.19, and 23003-3 for
// 11 to 14); 0 when the layout is given in a program config element, and 0 for reserved values.
std::uint32_t channelCountOf(std::uint32_t channelConfiguration);

// "mp4a" for AAC in ADTS, LOAS/LATM or raw packets. The entry's rate and channel count come from the
// configuration: the output rate of SBR for HE-AAC, stereo for parametric stereo. Null entry when the chunk
// holds no decoder configuration, the configuration can't be read, or the stream type is not AAC.
AudioSampleEntryResult makeAudioSampleEntry(std::uint32_t streamType, const StreamChunk& firstChunk,
                                            const ElementaryStreamAttributes& attributes);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
