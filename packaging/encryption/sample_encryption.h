#pragma once
// Common Encryption of the samples of one stream of a segment, "cenc" (AES-128 CTR) or "cbcs" (AES-128 CBC with a
// pattern and a constant IV), in place on their NAL buffers, with the record of what was encrypted that goes into
// the fragment's sample encryption data.
// The sample model is not known here: a sample is the list of its NALs' bytes.
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "packaging/encryption/encryption_manager.h"
#include "packaging/imff_box/i_sample.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

using imff::imff_box::SampleEncryptionInfo;

// One NAL as the sample stores it: its 4-byte length field, then the unit. Its bytes are encrypted in place.
using NalBytes = std::span<std::uint8_t>;
// The NALs of one sample, in order.
using SampleNals = std::span<const NalBytes>;

// How the samples of a stream are protected, from the kind of the stream's first sample (the sample model's
// numbers): video and parameter sets by subsamples, audio and decoder configuration whole, the rest not at all.
enum class SampleProtection { Subsamples, WholeSample, Clear };
SampleProtection protectionForSampleKind(std::int32_t kind);

// Adds one to `iv` read as a big-endian number; all ones wrap to all zeros.
void incrementIv(std::span<std::uint8_t> iv);

// Encrypts one sample with the manager's key, starting from the stream IV, and fills `info` with that IV and,
// in subsample mode, the (clear, protected) map. A sample without NALs is left alone: false, `info` untouched.
//
// Subsample mode: each NAL keeps ((n - 5) mod 16) + 5 bytes in the clear (its length field, its first header
// byte and enough more for whole blocks) and the rest is encrypted; an entry whose protected part is 0 takes in
// the next NAL. Whole-sample mode: every byte of every NAL is encrypted and there is no map.
// With an 8-byte IV the counter block is IV then a block counter from 0: it runs on from NAL to NAL in subsample
// mode, and starts at 0 for every NAL in whole-sample mode. A 16-byte IV is the counter block itself and is left
// at the block after the last one used. With an IV of another length nothing is encrypted and the map is written
// all the same. A NAL shorter than 5 bytes in subsample mode has no valid split and throws the manager's
// "Rijndael 128 CTR encrypt : failed (error -1)"; other failures are those of EncryptionManager::encryptCtr.
bool encryptSample(SampleNals nals, bool subsampleMode, EncryptionManager& manager,
                   std::vector<std::uint8_t>& streamIv, SampleEncryptionInfo& info);

// The samples of one stream in a segment, in order: `infos[i]` is the record of sample i, empty for a sample
// without NALs. An 8-byte stream IV goes up by one after each sample; a 16-byte one carries on from where the
// previous sample left it.
void encryptStreamSamples(std::span<const SampleNals> samples, bool subsampleMode, EncryptionManager& manager,
                          std::vector<std::uint8_t>& streamIv, std::vector<std::optional<SampleEncryptionInfo>>& infos);

// cbcs. The codec a video stream's NAL headers are read with.
enum class NalCodec { H264, Hevc };

// The bytes of a slice NAL kept clear ahead of its protected range, after its length field: the NAL header and
// room for the slice header, which is not parsed. Decoders read the slice header before decryption, so it must
// stay clear; 64 bytes hold the slice headers of common streams.
constexpr std::size_t kCbcsSliceClearBytes = 64;

// Encrypts one sample with the manager's key and constant IV and fills `info`: no IV (the constant one stands for
// it) and, in subsample mode, the (clear, protected) map. A sample without NALs is left alone: false, `info`
// untouched.
//
// Subsample mode: a NAL that is not a slice (H.264 types 1 to 5, HEVC types 0 to 31) stays clear, and so do the
// length field and the first kCbcsSliceClearBytes bytes of a slice; the rest of a slice is its protected range,
// encrypted with the 1:9 pattern as one CBC chain from the constant IV, its trailing partial block clear. Entries
// without protected bytes take in the next NAL; a clear run beyond the 16-bit field is split.
// Whole-sample mode: the bytes of all NALs, in order, are one CBC chain from the constant IV with every whole
// block encrypted; a trailing partial block stays clear, and there is no map.
// Failures are those of EncryptionManager::encryptCbc.
bool encryptSampleCbcs(SampleNals nals, bool subsampleMode, NalCodec codec, EncryptionManager& manager,
                       SampleEncryptionInfo& info);

// The samples of one stream in a segment under cbcs, in order, as encryptStreamSamples.
void encryptStreamSamplesCbcs(std::span<const SampleNals> samples, bool subsampleMode, NalCodec codec,
                              EncryptionManager& manager, std::vector<std::optional<SampleEncryptionInfo>>& infos);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
