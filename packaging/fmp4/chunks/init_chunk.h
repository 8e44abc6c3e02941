#pragma once
// The initialisation data of one output: ftyp, the server manifest box and moov, behind a small container
// that lets the reader cut it without parsing boxes:
//   A (4 bytes, big-endian): length of the movie part; B (4 bytes): length of the index part, always 8;
//   the movie part; the index part, an empty mfra box.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_manager.h"
#include "packaging/fmp4/manifest/live_server_manifest.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/fmp4_types/sync_sample.h"
#include "packaging/imff_box/file_header.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

class InitChunk {
public:
    // With `languageInMediaHeader` an audio track's mdhd carries the stream's language instead of "und", as
    // players and MP4 tools read it there. With an `encryption` manager that has a provider, the provider's
    // protection system boxes go into moov here, and audio and video entries are protected ("encv", "enca")
    // while the provider knows a key id. Timed text outputs get no manager.
    InitChunk(std::string name, bool dash, bool languageInMediaHeader = false,
              encryption::EncryptionManager* encryption = nullptr);
    virtual ~InitChunk();

    // Adds one stream: its sample entry comes from the parameter sets (video) or the decoder configuration
    // (AAC) of `firstChunk`. With `isMain` the stream also gets its manifest entry. Returns the sample
    // description index of the entry, or 0 when nothing was added (a stream type without a sample entry here,
    // or no configuration).
    std::int32_t AddStream(std::uint32_t trackId, std::uint32_t timescale, const ManifestDurations& durations,
                           std::uint32_t streamType, const ElementaryStreamAttributes& attributes,
                           bool inBandParameterSets, const StreamChunk& firstChunk, bool isMain);

    // The container above. The manifest box is always there, empty of entries or not.
    std::vector<std::uint8_t> Serialise();

    const LiveServerManifest& manifest() const { return m_manifest; }

private:
    // Wraps an audio or video entry in its protection information when the session encrypts.
    void protect(imff_box::SampleEntry& entry) const;

    bool m_dash;
    encryption::EncryptionManager* m_encryption;
    bool m_languageInMediaHeader;
    LiveServerManifest m_manifest;
    imff_box::FileHeader m_movie;
};

// The movie part of a serialised init chunk (ftyp, manifest box, moov); empty when the container is malformed.
std::vector<std::uint8_t> initChunkMoviePart(const std::uint8_t* data, std::size_t size);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
