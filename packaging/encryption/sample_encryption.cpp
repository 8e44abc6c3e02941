#include "packaging/encryption/sample_encryption.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "packaging/imff_box/protection_boxes.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

// The leading bytes of a NAL that stay clear: the length field and the first header byte, plus what makes the
// rest whole blocks. For n below 5 the value exceeds n (the low 4 bits of n - 5 in two's complement).
std::size_t clearBytesOf(std::size_t n) { return ((n - 5) & 15) + 5; }

constexpr std::size_t kLengthField = 4;
constexpr std::uint32_t kMaxClearRun = 0xFFFF;

bool isSlice(const NalBytes& nal, NalCodec codec) {
    if (nal.size() <= kLengthField) return false;
    const std::uint8_t header = nal[kLengthField];
    if (codec == NalCodec::H264) {
        const int type = header & 0x1F;
        return type >= 1 && type <= 5;
    }
    return ((header >> 1) & 0x3F) < 32;
}

// Adds a (clear, protected) run to the map: a previous entry without protected bytes is taken in, and clear bytes
// beyond the 16-bit field go in entries of their own.
void addRun(std::vector<std::pair<std::uint32_t, std::uint32_t>>& map, std::size_t clear, std::size_t protectedBytes) {
    if (!map.empty() && map.back().second == 0) {
        clear += map.back().first;
        map.pop_back();
    }
    for (; clear > kMaxClearRun; clear -= kMaxClearRun) map.emplace_back(kMaxClearRun, 0u);
    map.emplace_back(static_cast<std::uint32_t>(clear), static_cast<std::uint32_t>(protectedBytes));
}

}  // namespace

SampleProtection protectionForSampleKind(std::int32_t kind) {
    switch (kind) {
    case 0: case 2: case 3: case 4: case 5: return SampleProtection::Subsamples;
    case 1: case 6: return SampleProtection::WholeSample;
    default: return SampleProtection::Clear;
    }
}

void incrementIv(std::span<std::uint8_t> iv) {
    for (auto byte = iv.rbegin(); byte != iv.rend(); ++byte) {
        if (++*byte != 0) return;
    }
}

bool encryptSample(SampleNals nals, bool subsampleMode, EncryptionManager& manager,
                   std::vector<std::uint8_t>& streamIv, SampleEncryptionInfo& info) {
    if (nals.empty()) return false;
    info.iv = streamIv;
    info.subsamples.clear();
    const bool shortIv = streamIv.size() == 8;
    const bool longIv = streamIv.size() == 16;
    // With an 8-byte IV: the IV, then the block counter of this sample in the low 8 bytes.
    std::array<std::uint8_t, 16> counter{};
    if (shortIv) std::copy(streamIv.begin(), streamIv.end(), counter.begin());
    const std::span<std::uint8_t> counterBlock = longIv ? std::span<std::uint8_t>(streamIv) : std::span(counter);

    for (const NalBytes& nal : nals) {
        const std::size_t n = nal.size();
        if (subsampleMode) {
            const std::size_t clear = clearBytesOf(n);
            if (n < clear) {
                // No valid split: the primitive refuses the negative length with the manager's failure.
                manager.encryptCtr(nal.data(), nal.data(), static_cast<std::int64_t>(n) - static_cast<std::int64_t>(clear),
                                   std::span(counter));
            }
            const std::size_t protectedBytes = n - clear;
            if (protectedBytes != 0 && (shortIv || longIv)) {
                std::uint8_t* start = nal.data() + clear;
                manager.encryptCtr(start, start, static_cast<std::int64_t>(protectedBytes), counterBlock);
            }
            auto& map = info.subsamples;
            if (!map.empty() && map.back().second == 0) {
                map.back().first += static_cast<std::uint32_t>(clear);
                map.back().second += static_cast<std::uint32_t>(protectedBytes);
            } else {
                map.emplace_back(static_cast<std::uint32_t>(clear), static_cast<std::uint32_t>(protectedBytes));
            }
        } else if (n > 0 && (shortIv || longIv)) {
            if (shortIv) std::fill(counter.begin() + 8, counter.end(), std::uint8_t{0});
            manager.encryptCtr(nal.data(), nal.data(), static_cast<std::int64_t>(n), counterBlock);
        }
    }
    return true;
}

void encryptStreamSamples(std::span<const SampleNals> samples, bool subsampleMode, EncryptionManager& manager,
                          std::vector<std::uint8_t>& streamIv, std::vector<std::optional<SampleEncryptionInfo>>& infos) {
    infos.assign(samples.size(), std::nullopt);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SampleEncryptionInfo info;
        if (encryptSample(samples[i], subsampleMode, manager, streamIv, info)) infos[i] = std::move(info);
        if (streamIv.size() == 8) incrementIv(streamIv);
    }
}

bool encryptSampleCbcs(SampleNals nals, bool subsampleMode, NalCodec codec, EncryptionManager& manager,
                       SampleEncryptionInfo& info) {
    if (nals.empty()) return false;
    info.iv.clear();
    info.subsamples.clear();
    if (!subsampleMode) {
        if (nals.size() == 1) {
            manager.encryptCbc(nals[0].data(), nals[0].size(), 0, 0);
            return true;
        }
        // One chain over the NALs together: blocks may straddle two buffers.
        std::vector<std::uint8_t> joined;
        for (const NalBytes& nal : nals) joined.insert(joined.end(), nal.begin(), nal.end());
        manager.encryptCbc(joined.data(), joined.size(), 0, 0);
        auto from = joined.begin();
        for (const NalBytes& nal : nals) {
            std::copy_n(from, nal.size(), nal.begin());
            from += static_cast<std::ptrdiff_t>(nal.size());
        }
        return true;
    }
    for (const NalBytes& nal : nals) {
        const std::size_t n = nal.size();
        const std::size_t clear = isSlice(nal, codec) ? std::min(n, kLengthField + kCbcsSliceClearBytes) : n;
        const std::size_t protectedBytes = n - clear;
        if (protectedBytes != 0)
            manager.encryptCbc(nal.data() + clear, protectedBytes, imff::imff_box::kCbcsVideoCryptByteBlock,
                               imff::imff_box::kCbcsVideoSkipByteBlock);
        addRun(info.subsamples, clear, protectedBytes);
    }
    return true;
}

void encryptStreamSamplesCbcs(std::span<const SampleNals> samples, bool subsampleMode, NalCodec codec,
                              EncryptionManager& manager, std::vector<std::optional<SampleEncryptionInfo>>& infos) {
    infos.assign(samples.size(), std::nullopt);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SampleEncryptionInfo info;
        if (encryptSampleCbcs(samples[i], subsampleMode, codec, manager, info)) infos[i] = std::move(info);
    }
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
