#pragma once
// One media chunk as bytes: [tnsb] styp emsg... sidx moof mdat [teoc] [teos] for DASH, moof mdat for Smooth
// Streaming.
// The size is computed first, the chunk is allocated once, and each payload byte is copied exactly once.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "packaging/fmp4/chunks/parental_rating.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/sync_sample.h"
#include "packaging/imff_box/box.h"
#include "packaging/imff_box/protection_boxes.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// One stream of the chunk.
struct ChunkTrack {
    std::uint32_t trackId = 1;
    ChunkContentType contentType = ChunkVideo;
    const StreamChunk* chunk = nullptr;
};

// What the encryption side gives for one chunk of a session that has an encryption provider.
struct FragmentEncryptionInfo {
    // The chunk's video and audio samples were encrypted and carry their SampleEncryptionInfo. False: the chunk
    // is clear and gets no encryption box (pssh boxes still go in, see below).
    bool encrypted = false;
    // Each senc says algorithm, IV size and key id itself (flag 0x1). Matters in the Smooth Streaming form only,
    // where senc is written; the DASH form names the key in its seig group instead.
    bool overrideTrackEncryption = false;
    // DASH: per track saiz, saio, sbgp and sgpd, and the samples' encryption data at the start of mdat, ahead of
    // the sample data, in track order. Smooth Streaming: the PIFF senc box in each traf. The DASH form needs a
    // DASH chunk (default-base-is-moof): in a Smooth Streaming chunk the Smooth Streaming form is used.
    bool dashForm = true;
    // pssh boxes: they open moof, ahead of mfhd, in a DASH chunk at a segment start when pssh boxes in fragments
    // are asked for (psshInFragments), and are left out otherwise.
    imff_box::BoxList fragmentProtectionBoxes;
    // The chunk's key, in GUID memory order (see imff_box::KeyId).
    imff_box::KeyId keyId{};
    // cbcs: the constant IV its seig entries carry with the pattern. Unset for cenc.
    std::optional<std::vector<std::uint8_t>> cbcsConstantIv{};
};

struct ChunkSerialisationParameters {
    std::vector<ChunkTrack> tracks;
    std::uint64_t segmentNumber = 1;
    std::uint64_t chunkNumber = 1;
    std::uint64_t chunkDuration = 0;  // 100 ns units
    bool atSegmentStart = false;
    bool lastOfSegment = false;
    bool dash = true;
    bool allVideoInInit = false;
    bool psshInFragments = false;
    // Sample flags, durations and sidx SAP types as players read them (see TrackFragmentParameters).
    bool playerCompatible = false;
    std::uint64_t timescale = 10000000;
    std::int64_t negatedOrigin = 0;  // at the timescale, added to DASH decode and presentation times
    // DASH: one emsg box each, ahead of sidx.
    std::vector<RatingMessage> events{};
    // Set when the session has an encryption provider, for every chunk, clear ones included; unset otherwise.
    std::optional<FragmentEncryptionInfo> encryption{};
};

struct ChunkBytes {
    std::unique_ptr<std::uint8_t[]> data;
    std::size_t size = 0;
    std::size_t capacity = 0;  // what `data` holds room for
    bool placed = false;       // the `size` bytes went to the memory `place` lent, not to `data`
    // Bytes of the chunk left unwritten in the lent memory, audio and video sample bytes kept where they lie (only
    // when the place said it takes such references): the chunk's bytes at each `at` are the reference's.
    tvrn::system::KeptBytesList references;
};

// Memory lent for a chunk by its output, and whether the output takes bytes of the chunk by reference there.
struct ChunkPlace {
    std::uint8_t* at = nullptr;
    bool referring = false;
};

// Sample bytes are referred to, not copied, in runs of at least this many bytes: below it the copy
// costs less than the output's work for one more piece.
constexpr std::size_t kLeastReferenced = 2048;

// Fails with "No Encryption Provider Specified" when DASH fragments must carry pssh boxes at a segment start and
// there is no encryption record to give them. With no encryption record the chunk is clear.
// `room`, the bytes of an earlier chunk that are no longer needed, is written over when it is large enough, so
// that a stream's chunks do not each take (and fault in) fresh memory.
// `place`, when given, is asked for memory of the chunk's size first, and the chunk is written there when it
// lends some (leaving the sample bytes it can refer to unwritten when it says so).
ChunkBytes serialiseChunk(const ChunkSerialisationParameters& parameters, ChunkBytes room = {},
                          const std::function<ChunkPlace(std::size_t)>& place = {});

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
