#pragma once
// Common Encryption ("cenc" AES-CTR, and its PIFF form for Smooth Streaming; "cbcs" AES-CBC with a pattern and a
// constant IV): the boxes that say how a track is
// protected (sinf in the sample entry, pssh), the boxes that carry a fragment's per-sample encryption data (senc,
// or saiz and saio pointing at the same data placed at the start of mdat) and the "seig" sample group that names
// the fragment's key.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "packaging/imff_box/box.h"
#include "packaging/imff_box/i_sample.h"
#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

// A key id as the encryption side holds it: in GUID memory order, where the first 4 bytes, the next 2 and the next
// 2 are each little-endian and the last 8 are as they read. Files hold the UUID form, every group big-endian, so the
// GUID 00112233-4455-6677-8899-aabbccddeeff is held as 33 22 11 00 55 44 77 66 88 99 ... and written 00 11 22 ...
using KeyId = std::array<std::uint8_t, 16>;

// The UUID byte order of a key id (the mapping is its own inverse).
Uuid keyIdToUuid(const KeyId& keyId);
// Writes the 16 bytes of the key id in UUID byte order.
void writeKeyId(ImffBitWriter& writer, const KeyId& keyId);

// "pssh": a DRM system's data for the player. System ids are held in writing order (Uuid). The PIFF form
// (cencForm false) is a "uuid" box d08a4f18-10f3-4a82-b6c8-32d8aba183d3 with the same content. Version 0 unless key
// ids are listed: version 1 (ISO/IEC 23001-7) writes their count and the key ids, in UUID byte order, between the
// system id and the data size.
class ProtectionSystemSpecificHeaderBox : public FullBox {
public:
    ProtectionSystemSpecificHeaderBox(const Uuid& systemId, std::vector<std::uint8_t> data, bool cencForm = true);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    const Uuid& getSystemId() const { return m_systemId; }
    const std::vector<std::uint8_t>& getData() const { return m_data; }
    // Makes the box version 1 with these key ids (an empty list gives a count of 0).
    void listKeyIds(std::vector<KeyId> keyIds);
    const std::vector<KeyId>& getKeyIds() const { return m_keyIds; }

private:
    Uuid m_systemId;
    std::vector<std::uint8_t> m_data;
    std::vector<KeyId> m_keyIds;
};

// "frma": the sample entry type a protected entry had before it became "encv" or "enca".
class OriginalFormatBox : public Box {
public:
    explicit OriginalFormatBox(FourCC dataFormat) : Box(fourCC("frma")), m_dataFormat(dataFormat) {}
    std::uint64_t getSize() const override { return Box::getSize() + 4; }
    void binarize(ImffBitWriter& writer) const override;

private:
    FourCC m_dataFormat;
};

// What "cbcs" adds to tenc (version 1) and to the seig entry: the pattern of encrypted and skipped 16-byte blocks
// and the constant IV that stands for per-sample IVs, whose size is then 0. Video takes the 1:9 pattern; other
// tracks 0:0, every whole block encrypted.
struct PatternEncryption {
    std::uint8_t cryptByteBlock = 0;  // 4 bits
    std::uint8_t skipByteBlock = 0;   // 4 bits
    std::vector<std::uint8_t> constantIv{};
};
constexpr std::uint8_t kCbcsVideoCryptByteBlock = 1;
constexpr std::uint8_t kCbcsVideoSkipByteBlock = 9;
PatternEncryption cbcsPattern(bool video, std::vector<std::uint8_t> constantIv);

// "schm", version 0, flags 0 (no URI).
class SchemeTypeBox : public FullBox {
public:
    SchemeTypeBox(FourCC schemeType, std::uint32_t schemeVersion)
        : FullBox(fourCC("schm"), 0, 0), m_schemeType(schemeType), m_schemeVersion(schemeVersion) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 8; }
    void binarize(ImffBitWriter& writer) const override;

private:
    FourCC m_schemeType;
    std::uint32_t m_schemeVersion;
};

// "tenc", version 0: the track's defaults, 24 bits of is-encrypted, the IV size, the key id. With a pattern,
// version 1: a reserved byte, the pattern's two 4-bit counts, is-encrypted, the IV size (0), the key id, and the
// constant IV's size and bytes.
class TrackEncryptionBox : public FullBox {
public:
    TrackEncryptionBox(bool isEncrypted, std::uint8_t ivSize, const KeyId& keyId,
                       std::optional<PatternEncryption> pattern = std::nullopt)
        : FullBox(fourCC("tenc"), pattern ? 1 : 0, 0), m_isEncrypted(isEncrypted), m_ivSize(ivSize), m_keyId(keyId),
          m_pattern(std::move(pattern)) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

private:
    bool m_isEncrypted;
    std::uint8_t m_ivSize;
    KeyId m_keyId;
    std::optional<PatternEncryption> m_pattern;
};

// "senc", version 0, or its PIFF form, a "uuid" box a2394f52-5a9b-4f14-a244-6c427c648df4 with the same content.
// Flag 0x1: algorithm id, IV size and key id follow the flags (the fragment overrides tenc). Flag 0x2: each sample
// has a subsample map. Every entry is written with the box's IV size: a shorter IV is padded with zeros, a longer
// one cut, so that a reader that steps by that size stays in step.
class SampleEncryptionBox : public FullBox {
public:
    static constexpr std::uint32_t kOverrideTrackEncryption = 0x1;
    static constexpr std::uint32_t kSubsampleEncryption = 0x2;
    static const Uuid kPiffExtendedType;

    SampleEncryptionBox(std::uint32_t flags, std::uint8_t ivSize, bool piffForm = false);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    // Sets flag 0x1 with the algorithm id (1: AES-CTR) and the key id.
    void setOverride(const KeyId& keyId, std::uint32_t algorithmId = 1);
    void addEntry(SampleEncryptionInfo entry) { m_entries.push_back(std::move(entry)); }
    const std::vector<SampleEncryptionInfo>& getEntries() const { return m_entries; }
    std::uint8_t getIvSize() const { return m_ivSize; }

    // One entry's bytes: the IV, then with flag 0x2 the subsample count (16 bits) and per subsample the clear
    // bytes (16 bits, cut to them) and the protected bytes (32 bits). The same bytes serve as the sample's
    // auxiliary information in mdat.
    std::uint64_t getEntrySize(const SampleEncryptionInfo& entry) const;
    void writeEntry(ImffBitWriter& writer, const SampleEncryptionInfo& entry) const;

private:
    std::uint8_t m_ivSize;
    std::uint32_t m_algorithmId = 0;
    KeyId m_keyId{};
    std::vector<SampleEncryptionInfo> m_entries;
};

// "saiz", version 0. With an aux info type (flag 0x1) type and parameter are written. The default size is the
// common size of all samples, or 0 when they differ, and then the table of every sample's size follows.
class SampleAuxiliaryInformationSizesBox : public FullBox {
public:
    static constexpr std::uint32_t kAuxInfoTypePresent = 0x1;

    // An aux info type of 0 leaves type and parameter out.
    explicit SampleAuxiliaryInformationSizesBox(FourCC auxInfoType = 0, std::uint32_t auxInfoTypeParameter = 0);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    // One sample's size, at most 255: the field is 8 bits and larger sizes are cut.
    void addSampleSize(std::uint8_t size);
    std::uint8_t getDefaultSampleInfoSize() const { return m_common ? m_sizes.front() : 0; }
    const std::vector<std::uint8_t>& getSampleSizes() const { return m_sizes; }

private:
    FourCC m_auxInfoType;
    std::uint32_t m_auxInfoTypeParameter;
    std::vector<std::uint8_t> m_sizes;
    bool m_common = false;  // at least one size, and all the same
};

// "saio": where the samples' auxiliary information starts. In a traf the offsets count from the same base as the
// trun data offset (the start of moof with default-base-is-moof). Version 1 has 64-bit offsets, version 0 32-bit;
// setOffset changes no size, so the chunk writer patches offsets once the layout is known.
class SampleAuxiliaryInformationOffsetsBox : public FullBox {
public:
    static constexpr std::uint32_t kAuxInfoTypePresent = 0x1;

    explicit SampleAuxiliaryInformationOffsetsBox(FourCC auxInfoType = 0, std::uint32_t auxInfoTypeParameter = 0,
                                                  std::uint8_t version = 1);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    void addOffset(std::uint64_t offset) { m_offsets.push_back(offset); }
    void setOffset(std::size_t index, std::uint64_t offset) { m_offsets.at(index) = offset; }
    const std::vector<std::uint64_t>& getOffsets() const { return m_offsets; }

private:
    FourCC m_auxInfoType;
    std::uint32_t m_auxInfoTypeParameter;
    std::vector<std::uint64_t> m_offsets;
};

// "sbgp": runs of samples and the group description each belongs to. The grouping type parameter is written in
// version 1 only. An index above 0x10000 names an entry of the fragment's own sgpd.
class SampleToGroupBox : public FullBox {
public:
    explicit SampleToGroupBox(FourCC groupingType, std::uint8_t version = 0, std::uint32_t groupingTypeParameter = 0)
        : FullBox(fourCC("sbgp"), version, 0), m_groupingType(groupingType), m_groupingTypeParameter(groupingTypeParameter) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void addEntry(std::uint32_t sampleCount, std::uint32_t groupDescriptionIndex) {
        m_entries.push_back({sampleCount, groupDescriptionIndex});
    }

private:
    struct Entry {
        std::uint32_t sampleCount;
        std::uint32_t groupDescriptionIndex;
    };
    FourCC m_groupingType;
    std::uint32_t m_groupingTypeParameter;
    std::vector<Entry> m_entries;
};

// One entry of a sgpd: not a box, it has no header.
class SampleGroupDescriptionEntry {
public:
    virtual ~SampleGroupDescriptionEntry() = default;
    virtual std::uint64_t getSize() const = 0;
    virtual void binarize(ImffBitWriter& writer) const = 0;
};

class VisualSampleGroupEntry : public SampleGroupDescriptionEntry {};
class AudioSampleGroupEntry : public SampleGroupDescriptionEntry {};

// The "seig" entry, 20 bytes: 24 bits of is-encrypted, the IV size, the key id. With a pattern (cbcs) the first
// 16 of those bits hold a reserved byte and the pattern's two 4-bit counts, and the constant IV's size and bytes
// follow. Video and audio write the same.
class CencSampleEncryptionInformationVideoGroupEntry : public VisualSampleGroupEntry {
public:
    CencSampleEncryptionInformationVideoGroupEntry(bool isEncrypted, std::uint8_t ivSize, const KeyId& keyId,
                                                   std::optional<PatternEncryption> pattern = std::nullopt)
        : m_isEncrypted(isEncrypted), m_ivSize(ivSize), m_keyId(keyId), m_pattern(std::move(pattern)) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

private:
    bool m_isEncrypted;
    std::uint8_t m_ivSize;
    KeyId m_keyId;
    std::optional<PatternEncryption> m_pattern;
};

class CencSampleEncryptionInformationAudioGroupEntry : public AudioSampleGroupEntry {
public:
    CencSampleEncryptionInformationAudioGroupEntry(bool isEncrypted, std::uint8_t ivSize, const KeyId& keyId,
                                                   std::optional<PatternEncryption> pattern = std::nullopt)
        : m_isEncrypted(isEncrypted), m_ivSize(ivSize), m_keyId(keyId), m_pattern(std::move(pattern)) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

private:
    bool m_isEncrypted;
    std::uint8_t m_ivSize;
    KeyId m_keyId;
    std::optional<PatternEncryption> m_pattern;
};

// "sgpd", version 0 or 1 (flags 0). Version 1 writes the default length, and when that is 0 a length before each
// entry.
class SampleGroupDescriptionBox : public FullBox {
public:
    explicit SampleGroupDescriptionBox(FourCC groupingType, std::uint8_t version = 1, std::uint32_t defaultLength = 0)
        : FullBox(fourCC("sgpd"), version, 0), m_groupingType(groupingType), m_defaultLength(defaultLength) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void addEntry(std::shared_ptr<SampleGroupDescriptionEntry> entry) { m_entries.push_back(std::move(entry)); }

private:
    bool lengthPerEntry() const { return getVersion() >= 1 && m_defaultLength == 0; }
    FourCC m_groupingType;
    std::uint32_t m_defaultLength;
    std::vector<std::shared_ptr<SampleGroupDescriptionEntry>> m_entries;
};

// ---------------------------------------------------------------------------------------------------------
// Protected sample entries (init chunk)

// "sinf": "frma" with the original format; "schm" with "cenc" version 0x10000 (dash) or "piff" version 0x10001
// (Smooth Streaming), or with a pattern "cbcs" version 0x10000 and a version 1 tenc; "schi" holding "tenc" and then
// the `extra` boxes, if any.
std::shared_ptr<Box> makeProtectionInfo(FourCC originalFormat, bool isEncrypted, const KeyId& keyId, std::uint8_t ivSize,
                                        bool dash, const BoxList& extra = {},
                                        const std::optional<PatternEncryption>& pattern = std::nullopt);

// Makes a visual entry "encv" and an audio entry "enca", with its old type in the "sinf" it then holds. Any other
// entry is left as it is, and the answer is false. With a cbcs constant IV the scheme is cbcs, with the pattern of
// the entry's kind, and the IV size is 0.
bool protectSampleEntry(SampleEntry& entry, bool isEncrypted, const KeyId& keyId, std::uint8_t ivSize, bool dash,
                        const BoxList& extra = {}, const std::optional<std::vector<std::uint8_t>>& cbcsConstantIv = std::nullopt);

// ---------------------------------------------------------------------------------------------------------
// Per fragment

// How one track fragment is encrypted: the chunk's key and how its per-sample data is carried.
struct SampleEncryptionContext {
    KeyId keyId{};
    // The fragment's senc says algorithm, IV size and key itself instead of leaving them to tenc.
    bool overrideTrackEncryption = false;
    // DASH: saiz, saio, sbgp and sgpd in traf, the per-sample data at the start of mdat and no senc. Smooth
    // Streaming: the PIFF senc alone, last in traf.
    bool dashForm = true;
    // Set for cbcs: the seig entry then has the track kind's pattern and this constant IV.
    std::optional<std::vector<std::uint8_t>> cbcsConstantIv{};
};

// The encryption boxes of one track fragment. `senc` is null when the fragment gets none.
struct EncryptionBoxes {
    // Every sample's entry. Part of the traf in the Smooth Streaming form only.
    std::shared_ptr<SampleEncryptionBox> senc;
    // DASH form only: the traf boxes, and the senc entries' bytes, which go at the start of mdat, where the one
    // offset of saio must point (the chunk writer sets it).
    std::shared_ptr<SampleAuxiliaryInformationSizesBox> saiz;
    std::shared_ptr<SampleAuxiliaryInformationOffsetsBox> saio;
    std::shared_ptr<SampleToGroupBox> sbgp;
    std::shared_ptr<SampleGroupDescriptionBox> sgpd;
    std::vector<std::uint8_t> auxiliaryData;
};

// The boxes for the samples of one track fragment, in trun order. Nothing (null senc) when the list is empty or no
// sample has encryption info, as in a chunk left in the clear. The IV size is that of the first sample with info;
// video samples have subsample maps (flag 0x2), audio samples not. A sample without info among encrypted ones gets
// a zero IV and, in video, a map that leaves all its bytes clear.
EncryptionBoxes makeEncryptionBoxes(const std::vector<const ISample*>& samples, const SampleEncryptionContext& context,
                                    bool video);

// Appends the boxes to a traf (after its trun): saiz, saio, sbgp, sgpd in the DASH form, senc in the Smooth
// Streaming form. Nothing when `boxes.senc` is null.
void addEncryptionBoxes(Box& traf, const EncryptionBoxes& boxes);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
