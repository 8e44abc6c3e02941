#pragma once
// The sample entry of an AAC stream ("mp4a" with "esds"), made from the decoder configuration that the stream's
// configuration sample carries, and what the manifest says of the stream.
#include <memory>
#include <span>

#include "packaging/codec_box/audio_boxes.h"
#include "packaging/fmp4/manifest/live_server_manifest.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/sync_sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

struct AudioSampleEntryResult {
    std::shared_ptr<imff_box::AudioSampleEntry> entry;
    AudioManifestInfo manifest;
};

// The channel count of an MPEG-4 audio channel configuration (ISO/IEC 14496-3 table 1.19, and 23003-3 for
// 11 to 14); 0 when the layout is given in a program config element, and 0 for reserved values.
std::uint32_t channelCountOf(std::uint32_t channelConfiguration);

// "dec3" of an E-AC-3 access unit: its independent substreams, each with the dependent substreams that follow
// it. False, with no substreams, when the first frame is no independent E-AC-3 substream 0.
bool fillDec3(std::span<const std::uint8_t> accessUnit, codec_box::EC3SpecificBox& dec3);

// "mp4a" for AAC in ADTS, LOAS/LATM or raw packets and for MPEG-1 audio (object type 0x6B); "ac-3" with "dac3"
// and "ec-3" with "dec3" from the first sync frame or access unit. The entry's rate and channel count come from the
// configuration: the output rate of SBR for HE-AAC, stereo for parametric stereo. Null entry when the chunk
// holds no decoder configuration, the configuration can't be read, or the stream type is not AAC.
AudioSampleEntryResult makeAudioSampleEntry(std::uint32_t streamType, const StreamChunk& firstChunk,
                                            const ElementaryStreamAttributes& attributes);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
