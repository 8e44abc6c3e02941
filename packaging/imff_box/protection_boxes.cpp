#include "packaging/imff_box/protection_boxes.h"

#include <algorithm>
#include <utility>

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

namespace {
// d08a4f18-10f3-4a82-b6c8-32d8aba183d3: the PIFF form of pssh.
constexpr Uuid kPiffPsshUuid = {0xd0, 0x8a, 0x4f, 0x18, 0x10, 0xf3, 0x4a, 0x82,
                                0xb6, 0xc8, 0x32, 0xd8, 0xab, 0xa1, 0x83, 0xd3};
constexpr FourCC kSeig = fourCC("seig");
constexpr FourCC kCencAuxInfo = fourCC("cenc");
constexpr FourCC kCbcsAuxInfo = fourCC("cbcs");
// The first entry of the fragment's own sgpd.
constexpr std::uint32_t kFirstFragmentLocalGroup = 0x10001;

// The layout tenc version 1 and the seig entry share after their headers. Without a pattern, that of tenc version 0.
void writeTrackDefaults(ImffBitWriter& writer, bool isEncrypted, std::uint8_t ivSize, const KeyId& keyId,
                        const std::optional<PatternEncryption>& pattern) {
    writer.writeBits(8, 0);
    writer.writeBits(4, pattern ? pattern->cryptByteBlock : 0u);
    writer.writeBits(4, pattern ? pattern->skipByteBlock : 0u);
    writer.writeBits(8, isEncrypted ? 1u : 0u);
    writer.writeBits(8, ivSize);
    writeKeyId(writer, keyId);
    if (pattern && isEncrypted && ivSize == 0) {
        writer.writeBits(8, pattern->constantIv.size());
        writer.copyBuffer(pattern->constantIv.data(), pattern->constantIv.size());
    }
}

std::uint64_t trackDefaultsSize(bool isEncrypted, std::uint8_t ivSize, const std::optional<PatternEncryption>& pattern) {
    return 20 + (pattern && isEncrypted && ivSize == 0 ? 1 + pattern->constantIv.size() : 0);
}

// Entries of a clear video sample: every byte clear, in runs that fit the 16-bit field.
SampleEncryptionInfo clearSample(std::size_t size, std::uint8_t ivSize, bool video) {
    SampleEncryptionInfo info;
    info.iv.assign(ivSize, 0);
    if (video) {
        for (std::size_t left = size; left > 0;) {
            const std::size_t run = std::min<std::size_t>(left, 0xFFFF);
            info.subsamples.emplace_back(static_cast<std::uint32_t>(run), 0u);
            left -= run;
        }
    }
    return info;
}
}  // namespace

const Uuid SampleEncryptionBox::kPiffExtendedType = {0xa2, 0x39, 0x4f, 0x52, 0x5a, 0x9b, 0x4f, 0x14,
                                                     0xa2, 0x44, 0x6c, 0x42, 0x7c, 0x64, 0x8d, 0xf4};

Uuid keyIdToUuid(const KeyId& keyId) {
    Uuid uuid = keyId;
    std::reverse(uuid.begin(), uuid.begin() + 4);
    std::reverse(uuid.begin() + 4, uuid.begin() + 6);
    std::reverse(uuid.begin() + 6, uuid.begin() + 8);
    return uuid;
}

void writeKeyId(ImffBitWriter& writer, const KeyId& keyId) { writeUuid(writer, keyIdToUuid(keyId)); }

// ---------------------------------------------------------------------------------------------------------

ProtectionSystemSpecificHeaderBox::ProtectionSystemSpecificHeaderBox(const Uuid& systemId, std::vector<std::uint8_t> data,
                                                                     bool cencForm)
    : FullBox(fourCC("pssh"), 0, 0), m_systemId(systemId), m_data(std::move(data)) {
    if (!cencForm) setExtendedType(kPiffPsshUuid);
}

std::uint64_t ProtectionSystemSpecificHeaderBox::getSize() const {
    const std::uint64_t keyIds = getVersion() >= 1 ? 4 + 16 * m_keyIds.size() : 0;
    return getFullBoxHeaderSize() + 16 + keyIds + 4 + m_data.size();
}

void ProtectionSystemSpecificHeaderBox::listKeyIds(std::vector<KeyId> keyIds) {
    m_keyIds = std::move(keyIds);
    setVersion(1);
}

void ProtectionSystemSpecificHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeUuid(writer, m_systemId);
    if (getVersion() >= 1) {
        writer.writeBits(32, m_keyIds.size());
        for (const KeyId& keyId : m_keyIds) writeKeyId(writer, keyId);
    }
    writer.writeBits(32, m_data.size());
    writer.copyBuffer(m_data.data(), m_data.size());
}

void OriginalFormatBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writeFourCC(writer, m_dataFormat);
}

void SchemeTypeBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeFourCC(writer, m_schemeType);
    writer.writeBits(32, m_schemeVersion);
}

PatternEncryption cbcsPattern(bool video, std::vector<std::uint8_t> constantIv) {
    PatternEncryption pattern;
    if (video) {
        pattern.cryptByteBlock = kCbcsVideoCryptByteBlock;
        pattern.skipByteBlock = kCbcsVideoSkipByteBlock;
    }
    pattern.constantIv = std::move(constantIv);
    return pattern;
}

std::uint64_t TrackEncryptionBox::getSize() const {
    return getFullBoxHeaderSize() + trackDefaultsSize(m_isEncrypted, m_ivSize, m_pattern);
}

void TrackEncryptionBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeTrackDefaults(writer, m_isEncrypted, m_ivSize, m_keyId, m_pattern);
}

// ---------------------------------------------------------------------------------------------------------

SampleEncryptionBox::SampleEncryptionBox(std::uint32_t flags, std::uint8_t ivSize, bool piffForm)
    : FullBox(fourCC("senc"), 0, flags), m_ivSize(ivSize) {
    if (piffForm) setExtendedType(kPiffExtendedType);
    if (flags & kOverrideTrackEncryption) m_algorithmId = 1;
}

void SampleEncryptionBox::setOverride(const KeyId& keyId, std::uint32_t algorithmId) {
    setFlags(getFlags() | kOverrideTrackEncryption);
    m_keyId = keyId;
    m_algorithmId = algorithmId;
}

std::uint64_t SampleEncryptionBox::getEntrySize(const SampleEncryptionInfo& entry) const {
    std::uint64_t size = m_ivSize;
    if (getFlags() & kSubsampleEncryption) size += 2 + 6 * static_cast<std::uint64_t>(entry.subsamples.size());
    return size;
}

void SampleEncryptionBox::writeEntry(ImffBitWriter& writer, const SampleEncryptionInfo& entry) const {
    const std::size_t kept = std::min<std::size_t>(entry.iv.size(), m_ivSize);
    writer.copyBuffer(entry.iv.data(), kept);
    for (std::size_t i = kept; i < m_ivSize; ++i) writer.writeBits(8, 0);
    if (getFlags() & kSubsampleEncryption) {
        writer.writeBits(16, entry.subsamples.size());
        for (const auto& [clear, protectedBytes] : entry.subsamples) {
            writer.writeBits(16, clear);
            writer.writeBits(32, protectedBytes);
        }
    }
}

std::uint64_t SampleEncryptionBox::getSize() const {
    std::uint64_t size = getFullBoxHeaderSize() + 4;
    if (getFlags() & kOverrideTrackEncryption) size += 20;
    for (const SampleEncryptionInfo& entry : m_entries) size += getEntrySize(entry);
    return size;
}

void SampleEncryptionBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getFlags() & kOverrideTrackEncryption) {
        writer.writeBits(24, m_algorithmId);
        writer.writeBits(8, m_ivSize);
        writeKeyId(writer, m_keyId);
    }
    writer.writeBits(32, m_entries.size());
    for (const SampleEncryptionInfo& entry : m_entries) writeEntry(writer, entry);
}

// ---------------------------------------------------------------------------------------------------------

SampleAuxiliaryInformationSizesBox::SampleAuxiliaryInformationSizesBox(FourCC auxInfoType, std::uint32_t auxInfoTypeParameter)
    : FullBox(fourCC("saiz"), 0, auxInfoType != 0 ? kAuxInfoTypePresent : 0),
      m_auxInfoType(auxInfoType),
      m_auxInfoTypeParameter(auxInfoTypeParameter) {}

void SampleAuxiliaryInformationSizesBox::addSampleSize(std::uint8_t size) {
    m_common = m_sizes.empty() || (m_common && m_sizes.front() == size);
    m_sizes.push_back(size);
}

std::uint64_t SampleAuxiliaryInformationSizesBox::getSize() const {
    std::uint64_t size = getFullBoxHeaderSize() + 1 + 4;
    if (getFlags() & kAuxInfoTypePresent) size += 8;
    if (getDefaultSampleInfoSize() == 0) size += m_sizes.size();
    return size;
}

void SampleAuxiliaryInformationSizesBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getFlags() & kAuxInfoTypePresent) {
        writeFourCC(writer, m_auxInfoType);
        writer.writeBits(32, m_auxInfoTypeParameter);
    }
    const std::uint8_t defaultSize = getDefaultSampleInfoSize();
    writer.writeBits(8, defaultSize);
    writer.writeBits(32, m_sizes.size());
    if (defaultSize == 0) writer.copyBuffer(m_sizes.data(), m_sizes.size());
}

SampleAuxiliaryInformationOffsetsBox::SampleAuxiliaryInformationOffsetsBox(FourCC auxInfoType,
                                                                           std::uint32_t auxInfoTypeParameter,
                                                                           std::uint8_t version)
    : FullBox(fourCC("saio"), version, auxInfoType != 0 ? kAuxInfoTypePresent : 0),
      m_auxInfoType(auxInfoType),
      m_auxInfoTypeParameter(auxInfoTypeParameter) {}

std::uint64_t SampleAuxiliaryInformationOffsetsBox::getSize() const {
    std::uint64_t size = getFullBoxHeaderSize() + 4 + m_offsets.size() * (getVersion() == 1 ? 8u : 4u);
    if (getFlags() & kAuxInfoTypePresent) size += 8;
    return size;
}

void SampleAuxiliaryInformationOffsetsBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getFlags() & kAuxInfoTypePresent) {
        writeFourCC(writer, m_auxInfoType);
        writer.writeBits(32, m_auxInfoTypeParameter);
    }
    writer.writeBits(32, m_offsets.size());
    for (const std::uint64_t offset : m_offsets) {
        if (getVersion() == 1) {
            writer.write64(offset);
        } else {
            writer.writeBits(32, offset);
        }
    }
}

// ---------------------------------------------------------------------------------------------------------

std::uint64_t SampleToGroupBox::getSize() const {
    return getFullBoxHeaderSize() + 4 + (getVersion() == 1 ? 4 : 0) + 4 + 8 * m_entries.size();
}

void SampleToGroupBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeFourCC(writer, m_groupingType);
    if (getVersion() == 1) writer.writeBits(32, m_groupingTypeParameter);
    writer.writeBits(32, m_entries.size());
    for (const Entry& e : m_entries) {
        writer.writeBits(32, e.sampleCount);
        writer.writeBits(32, e.groupDescriptionIndex);
    }
}

std::uint64_t CencSampleEncryptionInformationVideoGroupEntry::getSize() const {
    return trackDefaultsSize(m_isEncrypted, m_ivSize, m_pattern);
}

void CencSampleEncryptionInformationVideoGroupEntry::binarize(ImffBitWriter& writer) const {
    writeTrackDefaults(writer, m_isEncrypted, m_ivSize, m_keyId, m_pattern);
}

std::uint64_t CencSampleEncryptionInformationAudioGroupEntry::getSize() const {
    return trackDefaultsSize(m_isEncrypted, m_ivSize, m_pattern);
}

void CencSampleEncryptionInformationAudioGroupEntry::binarize(ImffBitWriter& writer) const {
    writeTrackDefaults(writer, m_isEncrypted, m_ivSize, m_keyId, m_pattern);
}

std::uint64_t SampleGroupDescriptionBox::getSize() const {
    std::uint64_t size = getFullBoxHeaderSize() + 4 + (getVersion() >= 1 ? 4 : 0) + 4;
    for (const auto& entry : m_entries) size += entry->getSize() + (lengthPerEntry() ? 4 : 0);
    return size;
}

void SampleGroupDescriptionBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeFourCC(writer, m_groupingType);
    if (getVersion() >= 1) writer.writeBits(32, m_defaultLength);
    writer.writeBits(32, m_entries.size());
    for (const auto& entry : m_entries) {
        if (lengthPerEntry()) writer.writeBits(32, entry->getSize());
        entry->binarize(writer);
    }
}

// ---------------------------------------------------------------------------------------------------------

std::shared_ptr<Box> makeProtectionInfo(FourCC originalFormat, bool isEncrypted, const KeyId& keyId, std::uint8_t ivSize,
                                        bool dash, const BoxList& extra, const std::optional<PatternEncryption>& pattern) {
    auto sinf = std::make_shared<Box>(fourCC("sinf"));
    sinf->addChild(std::make_shared<OriginalFormatBox>(originalFormat));
    if (pattern)
        sinf->addChild(std::make_shared<SchemeTypeBox>(fourCC("cbcs"), 0x10000));
    else
        sinf->addChild(dash ? std::make_shared<SchemeTypeBox>(fourCC("cenc"), 0x10000)
                            : std::make_shared<SchemeTypeBox>(fourCC("piff"), 0x10001));
    auto schi = std::make_shared<Box>(fourCC("schi"));
    schi->addChild(std::make_shared<TrackEncryptionBox>(isEncrypted, ivSize, keyId, pattern));
    for (const auto& box : extra) schi->addChild(box);
    sinf->addChild(schi);
    return sinf;
}

bool protectSampleEntry(SampleEntry& entry, bool isEncrypted, const KeyId& keyId, std::uint8_t ivSize, bool dash,
                        const BoxList& extra, const std::optional<std::vector<std::uint8_t>>& cbcsConstantIv) {
    FourCC protectedType;
    const bool video = dynamic_cast<const VisualSampleEntry*>(&entry) != nullptr;
    if (video) {
        protectedType = fourCC("encv");
    } else if (dynamic_cast<const AudioSampleEntry*>(&entry) != nullptr) {
        protectedType = fourCC("enca");
    } else {
        return false;
    }
    std::optional<PatternEncryption> pattern;
    if (cbcsConstantIv) {
        pattern = cbcsPattern(video, *cbcsConstantIv);
        ivSize = 0;
    }
    entry.setProtection(makeProtectionInfo(entry.getType(), isEncrypted, keyId, ivSize, dash, extra, pattern));
    entry.setType(protectedType);
    return true;
}

// ---------------------------------------------------------------------------------------------------------

EncryptionBoxes makeEncryptionBoxes(const std::vector<const ISample*>& samples, const SampleEncryptionContext& context,
                                    bool video) {
    EncryptionBoxes boxes;
    std::vector<SampleEncryptionInfo> infos(samples.size());
    std::vector<bool> known(samples.size(), false);
    std::size_t first = samples.size();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        known[i] = samples[i] != nullptr && samples[i]->getEncryptionInfo(infos[i]);
        if (known[i] && first == samples.size()) first = i;
    }
    if (first == samples.size()) return boxes;

    const auto ivSize = static_cast<std::uint8_t>(std::min<std::size_t>(infos[first].iv.size(), 0xFF));
    const std::uint32_t flags = video ? SampleEncryptionBox::kSubsampleEncryption : 0;
    boxes.senc = std::make_shared<SampleEncryptionBox>(flags, ivSize, !context.dashForm);
    if (context.overrideTrackEncryption) boxes.senc->setOverride(context.keyId);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        boxes.senc->addEntry(known[i] ? std::move(infos[i])
                                      : clearSample(samples[i] ? samples[i]->getSize() : 0, ivSize, video));
    }
    if (!context.dashForm) return boxes;

    // The entries' bytes, for mdat, and their sizes.
    const SampleEncryptionBox& senc = *boxes.senc;
    std::uint64_t total = 0;
    // The auxiliary information type is the scheme's own.
    const FourCC auxInfoType = context.cbcsConstantIv ? kCbcsAuxInfo : kCencAuxInfo;
    boxes.saiz = std::make_shared<SampleAuxiliaryInformationSizesBox>(auxInfoType, 0);
    for (const SampleEncryptionInfo& entry : senc.getEntries()) {
        const std::uint64_t size = senc.getEntrySize(entry);
        boxes.saiz->addSampleSize(static_cast<std::uint8_t>(size));
        total += size;
    }
    boxes.auxiliaryData.resize(total);
    ImffBitWriter writer(boxes.auxiliaryData.data(), boxes.auxiliaryData.size());
    for (const SampleEncryptionInfo& entry : senc.getEntries()) senc.writeEntry(writer, entry);

    boxes.saio = std::make_shared<SampleAuxiliaryInformationOffsetsBox>(auxInfoType, 0, 1);
    boxes.saio->addOffset(0);
    boxes.sbgp = std::make_shared<SampleToGroupBox>(kSeig, 0);
    boxes.sbgp->addEntry(static_cast<std::uint32_t>(samples.size()), kFirstFragmentLocalGroup);
    std::shared_ptr<SampleGroupDescriptionEntry> seig;
    std::optional<PatternEncryption> pattern;
    if (context.cbcsConstantIv) pattern = cbcsPattern(video, *context.cbcsConstantIv);
    if (video) {
        seig = std::make_shared<CencSampleEncryptionInformationVideoGroupEntry>(true, ivSize, context.keyId, pattern);
    } else {
        seig = std::make_shared<CencSampleEncryptionInformationAudioGroupEntry>(true, ivSize, context.keyId, pattern);
    }
    boxes.sgpd = std::make_shared<SampleGroupDescriptionBox>(kSeig, 1, static_cast<std::uint32_t>(seig->getSize()));
    boxes.sgpd->addEntry(std::move(seig));
    return boxes;
}

void addEncryptionBoxes(Box& traf, const EncryptionBoxes& boxes) {
    if (!boxes.senc) return;
    if (!boxes.saiz) {
        traf.addChild(boxes.senc);
        return;
    }
    traf.addChild(boxes.saiz);
    traf.addChild(boxes.saio);
    traf.addChild(boxes.sbgp);
    traf.addChild(boxes.sgpd);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
