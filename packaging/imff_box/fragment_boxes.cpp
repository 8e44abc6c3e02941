#include "packaging/imff_box/fragment_boxes.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

namespace {
// d4807ef2-ca39-4695-8e54-26cb9e46a79f
constexpr Uuid kTfrfUuid = {0xd4, 0x80, 0x7e, 0xf2, 0xca, 0x39, 0x46, 0x95,
                            0x8e, 0x54, 0x26, 0xcb, 0x9e, 0x46, 0xa7, 0x9f};
// 6d1d9b05-42d5-44e6-80e2-141daff757b2
constexpr Uuid kTfxdUuid = {0x6d, 0x1d, 0x9b, 0x05, 0x42, 0xd5, 0x44, 0xe6,
                            0x80, 0xe2, 0x14, 0x1d, 0xaf, 0xf7, 0x57, 0xb2};
}  // namespace

void MovieFragmentHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_sequenceNumber);
}

std::uint64_t TrackFragmentHeaderBox::getSize() const {
    const std::uint32_t flags = getFlags();
    std::uint64_t size = getFullBoxHeaderSize() + 4;
    if (flags & kBaseDataOffsetPresent) size += 8;
    if (flags & kSampleDescriptionIndexPresent) size += 4;
    if (flags & kDefaultSampleDurationPresent) size += 4;
    if (flags & kDefaultSampleSizePresent) size += 4;
    if (flags & kDefaultSampleFlagsPresent) size += 4;
    return size;
}

void TrackFragmentHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    const std::uint32_t flags = getFlags();
    writer.writeBits(32, m_trackId);
    if (flags & kBaseDataOffsetPresent) writer.write64(baseDataOffset);
    if (flags & kSampleDescriptionIndexPresent) writer.writeBits(32, sampleDescriptionIndex);
    if (flags & kDefaultSampleDurationPresent) writer.writeBits(32, defaultSampleDuration);
    if (flags & kDefaultSampleSizePresent) writer.writeBits(32, defaultSampleSize);
    if (flags & kDefaultSampleFlagsPresent) writer.writeBits(32, defaultSampleFlags);
}

void TrackFragmentDecodeTimeBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getVersion() == 1) {
        writer.write64(m_time);
    } else {
        writer.writeBits(32, m_time);
    }
}

std::uint32_t SampleFlags::toUInt32() const {
    return (static_cast<std::uint32_t>(dependsOn & 3) << 24) | (static_cast<std::uint32_t>(isDependedOn & 3) << 22) |
           (static_cast<std::uint32_t>(hasRedundancy & 3) << 20) |
           (static_cast<std::uint32_t>(paddingValue & 7) << 17) | (isNonSync ? 1u << 16 : 0u) | degradationPriority;
}

// ---------------------------------------------------------------------------------------------------------

std::uint64_t TrackRunBox::getSize() const {
    const std::uint32_t flags = getFlags();
    std::uint64_t size = getFullBoxHeaderSize() + 4;
    if (flags & kDataOffsetPresent) size += 4;
    if (flags & kFirstSampleFlagsPresent) size += 4;
    std::uint64_t perSample = 0;
    for (std::uint32_t bit : {kSampleDurationPresent, kSampleSizePresent, kSampleFlagsPresent, kCompositionOffsetPresent}) {
        if (flags & bit) perSample += 4;
    }
    return size + perSample * m_entries.size();
}

void TrackRunBox::addEntry(const Entry& entry) {
    const std::uint32_t flags = getFlags();
    Entry kept;
    if (flags & kSampleDurationPresent) kept.duration = entry.duration;
    if (flags & kSampleSizePresent) kept.size = entry.size;
    if (flags & kSampleFlagsPresent) kept.flags = entry.flags;
    if (flags & kCompositionOffsetPresent) kept.compositionOffset = entry.compositionOffset;
    m_entries.push_back(kept);
}

void TrackRunBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    const std::uint32_t flags = getFlags();
    writer.writeBits(32, m_entries.size());
    if (flags & kDataOffsetPresent) writer.writeBits(32, static_cast<std::uint32_t>(m_dataOffset));
    if (flags & kFirstSampleFlagsPresent) writer.writeBits(32, m_firstSampleFlags.toUInt32());
    for (const Entry& e : m_entries) {
        if (flags & kSampleDurationPresent) writer.writeBits(32, e.duration);
        if (flags & kSampleSizePresent) writer.writeBits(32, e.size);
        if (flags & kSampleFlagsPresent) writer.writeBits(32, e.flags.toUInt32());
        if (flags & kCompositionOffsetPresent) writer.writeBits(32, e.compositionOffset);
    }
}

void SampleDependencyTypeBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    for (const SampleFlags& s : m_samples) {
        writer.writeBits(8, (static_cast<std::uint32_t>(s.dependsOn & 3) << 4) |
                                (static_cast<std::uint32_t>(s.isDependedOn & 3) << 2) | (s.hasRedundancy & 3u));
    }
}

std::uint64_t MediaDataBox::getSize() const {
    const std::uint64_t size = m_payloadSize + 8;
    return size > 0xFFFFFFFFull ? m_payloadSize + 16 : size;
}

// ---------------------------------------------------------------------------------------------------------

SegmentIndexBox::SegmentIndexBox(std::uint32_t referenceId, std::uint32_t timescale,
                                 std::uint64_t earliestPresentationTime, std::uint8_t version)
    : FullBox(fourCC("sidx"), version, 0),
      m_referenceId(referenceId),
      m_timescale(timescale),
      m_earliestPresentationTime(earliestPresentationTime) {}

std::uint64_t SegmentIndexBox::getSize() const {
    return getFullBoxHeaderSize() + 8 + (getVersion() == 1 ? 16 : 8) + 4 + 12 * m_references.size();
}

void SegmentIndexBox::addReference(std::uint32_t referencedSize, std::uint32_t subsegmentDuration,
                                   std::uint8_t sapType, bool startsWithSap) {
    m_references.push_back({referencedSize, subsegmentDuration, sapType, startsWithSap});
}

void SegmentIndexBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_referenceId);
    writer.writeBits(32, m_timescale);
    if (getVersion() == 1) {
        writer.write64(m_earliestPresentationTime);
        writer.write64(m_firstOffset);
    } else {
        writer.writeBits(32, m_earliestPresentationTime);
        writer.writeBits(32, m_firstOffset);
    }
    writer.writeBits(16, 0);
    writer.writeBits(16, m_references.size());
    for (const Reference& r : m_references) {
        writer.writeBit(false);  // a media reference
        writer.writeBits(31, r.size);
        writer.writeBits(32, r.duration);
        writer.writeBit(r.startsWithSap);
        writer.writeBits(3, r.sapType);
        writer.writeBits(28, 0);
    }
}

void MovieFragmentRandomAccessOffsetBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_mfraSize);
}

std::uint64_t TrackFragmentRandomAccessBox::getSize() const {
    return getFullBoxHeaderSize() + 12 + m_entries.size() * (getVersion() == 1 ? 19 : 11);
}

void TrackFragmentRandomAccessBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_trackId);
    writer.writeBits(26, 0);
    writer.writeBits(2, 0);  // traf numbers of 1 byte
    writer.writeBits(2, 0);  // trun numbers of 1 byte
    writer.writeBits(2, 0);  // sample numbers of 1 byte
    writer.writeBits(32, m_entries.size());
    for (const Entry& e : m_entries) {
        if (getVersion() == 1) {
            writer.write64(e.time);
            writer.write64(e.moofOffset);
        } else {
            writer.writeBits(32, e.time);
            writer.writeBits(32, e.moofOffset);
        }
        writer.writeBits(8, 1);
        writer.writeBits(8, 1);
        writer.writeBits(8, 1);
    }
}

// ---------------------------------------------------------------------------------------------------------

SmoothTfrfBox::SmoothTfrfBox(std::uint64_t nextAbsoluteTime, std::uint64_t nextDuration)
    : Box(kTfrfUuid), m_time(nextAbsoluteTime), m_duration(nextDuration) {}

void SmoothTfrfBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(8, 1);   // version
    writer.writeBits(24, 0);  // flags
    writer.writeBits(8, 1);   // fragment count
    writer.write64(m_time);
    writer.write64(m_duration);
}

TrackFragmentExtendedHeaderBox::TrackFragmentExtendedHeaderBox(std::uint64_t absoluteTime, std::uint64_t duration,
                                                               std::uint8_t version)
    : FullBox(kTfxdUuid, version, 0), m_time(absoluteTime), m_duration(duration) {}

void TrackFragmentExtendedHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getVersion() == 1) {
        writer.write64(m_time);
        writer.write64(m_duration);
    } else {
        writer.writeBits(32, m_time);
        writer.writeBits(32, m_duration);
    }
}

// ---------------------------------------------------------------------------------------------------------

EventMessageBox::EventMessageBox(std::string schemeIdUri, std::string value, std::uint32_t timescale,
                                 std::uint32_t presentationTimeDelta, std::uint32_t eventDuration, std::uint32_t id,
                                 std::vector<std::uint8_t> messageData)
    : FullBox(fourCC("emsg"), 0, 0),
      m_schemeIdUri(std::move(schemeIdUri)),
      m_value(std::move(value)),
      m_timescale(timescale),
      m_presentationTimeDelta(presentationTimeDelta),
      m_eventDuration(eventDuration),
      m_id(id),
      m_messageData(std::move(messageData)) {}

std::uint64_t EventMessageBox::getSize() const {
    return getFullBoxHeaderSize() + 2 + 16 + m_schemeIdUri.size() + m_value.size() + m_messageData.size();
}

void EventMessageBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeCString(writer, m_schemeIdUri);
    writeCString(writer, m_value);
    writer.writeBits(32, m_timescale);
    writer.writeBits(32, m_presentationTimeDelta);
    writer.writeBits(32, m_eventDuration);
    writer.writeBits(32, m_id);
    writer.copyBuffer(m_messageData.data(), m_messageData.size());
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
