#pragma once
// Fills the track fragment (traf) of one stream from its samples: tfhd, then tfdt (DASH) or the two
// Smooth Streaming time boxes, then trun, then sdtp (Smooth Streaming), then the encryption boxes of an
// encrypted video or audio track.
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "packaging/imff_box/box.h"
#include "packaging/imff_box/fragment_boxes.h"
#include "packaging/imff_box/i_sample.h"
#include "packaging/imff_box/protection_boxes.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

struct TrackFragmentParameters {
    std::uint32_t trackId = 1;
    bool video = false;                        // video streams get composition offsets and first sample flags
    std::uint32_t sampleDescriptionIndex = 1;  // written only with writeSampleDescriptionIndex
    std::uint64_t segmentDuration = 0;         // in track timescale units
    std::uint32_t trackTimescale = 1;
    std::int64_t timestampOffset = 0;  // added to the DASH decode time, in track timescale units
    bool dash = true;
    bool writeSampleDescriptionIndex = false;
    // Sample flags and durations as players read them: non-sync video samples say so (by the tfhd default, or
    // per sample when a run holds a second sync sample), and a last sample the run's duration leaves (almost)
    // nothing for keeps its own duration. Off, every sample after the first takes the trex default of 0.
    bool playerCompatible = false;
    // An audio track (with video false). Only video and audio tracks are encrypted.
    bool audio = false;
    // Set for a chunk under encryption: the samples' encryption info (ISample::getEncryptionInfo) goes into the
    // boxes of makeEncryptionBoxes, after trun. Unset, or no sample with info: no encryption box.
    std::optional<SampleEncryptionContext> encryption{};
};

struct TrackFragment {
    std::shared_ptr<Box> traf;
    std::shared_ptr<TrackFragmentHeaderBox> tfhd;
    std::shared_ptr<TrackRunBox> trun;
    // The samples that have a trun entry, in order: exactly these go to mdat.
    std::vector<const ISample*> samples;
    std::uint64_t payloadSize = 0;
    // The first sample's decode time in track units (without the timestamp offset).
    std::int64_t firstDecodeTime = 0;
    // The encryption boxes, null when none. In the DASH form the chunk writer puts encryption.auxiliaryData at
    // the start of mdat (ahead of all samples) and sets the one offset of encryption.saio to it.
    EncryptionBoxes encryption;
};

// Exact rescaling of a time from one rate to another, truncated, without overflow (128-bit products).
std::int64_t rescaleTime(std::int64_t time, std::uint64_t fromRate, std::uint64_t toRate);

// The dependency record of a sample for trun first sample flags and sdtp.
SampleFlags sampleDependencyFlags(bool sync, bool video);

class TrackFragmentBuilder {
public:
    static constexpr std::uint32_t kVideoTrunFlags = 0x000B05;
    static constexpr std::uint32_t kOtherTrunFlags = 0x000301;
    // Video when a sync sample follows the first one, for players: per-sample flags instead of first sample flags.
    static constexpr std::uint32_t kVideoPerSampleFlags = 0x000F01;

    // Samples with an unknown PTS, DTS, rate or duration are skipped. Their rate must not be 0.
    static TrackFragment build(const TrackFragmentParameters& parameters, const std::vector<const ISample*>& samples);

    // Copies the payload of the fragment's samples at the writer's position. With `references`, runs of at least
    // `least` bytes that the samples keep alive are left unwritten and added there instead (ISample::getDataReferring),
    // `at` counted from the writer's buffer.
    static void writePayload(const TrackFragment& fragment, ImffBitWriter& writer,
                             tvrn::system::KeptBytesList* references = nullptr, std::size_t least = 0);
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
