#pragma once
// The boxes of a media segment: moof and its track fragments, mdat, sidx, tfra, emsg and the two Smooth
// Streaming uuid boxes.
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "packaging/imff_box/box.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

class MovieFragmentHeaderBox : public FullBox {
public:
    explicit MovieFragmentHeaderBox(std::uint32_t sequenceNumber)
        : FullBox(fourCC("mfhd"), 0, 0), m_sequenceNumber(sequenceNumber) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4; }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint32_t m_sequenceNumber;
};

class TrackFragmentHeaderBox : public FullBox {
public:
    static constexpr std::uint32_t kBaseDataOffsetPresent = 0x000001;
    static constexpr std::uint32_t kSampleDescriptionIndexPresent = 0x000002;
    static constexpr std::uint32_t kDefaultSampleDurationPresent = 0x000008;
    static constexpr std::uint32_t kDefaultSampleSizePresent = 0x000010;
    static constexpr std::uint32_t kDefaultSampleFlagsPresent = 0x000020;
    static constexpr std::uint32_t kDefaultBaseIsMoof = 0x020000;

    TrackFragmentHeaderBox(std::uint32_t trackId, std::uint32_t flags) : FullBox(fourCC("tfhd"), 0, flags), m_trackId(trackId) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    std::uint64_t baseDataOffset = 0;
    std::uint32_t sampleDescriptionIndex = 1;
    std::uint32_t defaultSampleDuration = 0;
    std::uint32_t defaultSampleSize = 0;
    std::uint32_t defaultSampleFlags = 0;

private:
    std::uint32_t m_trackId;
};

class TrackFragmentDecodeTimeBox : public FullBox {
public:
    explicit TrackFragmentDecodeTimeBox(std::uint64_t baseMediaDecodeTime, std::uint8_t version = 1)
        : FullBox(fourCC("tfdt"), version, 0), m_time(baseMediaDecodeTime) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + (getVersion() == 1 ? 8 : 4); }
    void binarize(ImffBitWriter& writer) const override;
    std::uint64_t getBaseMediaDecodeTime() const { return m_time; }

private:
    std::uint64_t m_time;
};

// The sample flags of trun and trex, as a record.
struct SampleFlags {
    std::uint8_t dependsOn = 0;
    std::uint8_t isDependedOn = 0;
    std::uint8_t hasRedundancy = 0;
    std::uint8_t paddingValue = 0;
    bool isNonSync = false;
    std::uint16_t degradationPriority = 0;

    std::uint32_t toUInt32() const;
    bool operator==(const SampleFlags&) const = default;
};

class TrackRunBox : public FullBox {
public:
    static constexpr std::uint32_t kDataOffsetPresent = 0x000001;
    static constexpr std::uint32_t kFirstSampleFlagsPresent = 0x000004;
    static constexpr std::uint32_t kSampleDurationPresent = 0x000100;
    static constexpr std::uint32_t kSampleSizePresent = 0x000200;
    static constexpr std::uint32_t kSampleFlagsPresent = 0x000400;
    static constexpr std::uint32_t kCompositionOffsetPresent = 0x000800;

    struct Entry {
        std::uint32_t duration = 0;
        std::uint32_t size = 0;
        SampleFlags flags;
        std::uint32_t compositionOffset = 0;
    };

    explicit TrackRunBox(std::uint32_t flags) : FullBox(fourCC("trun"), 0, flags) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    // Keeps only the members for which the flags are set.
    void addEntry(const Entry& entry);
    const std::vector<Entry>& getEntries() const { return m_entries; }
    // Always 32 bits when present, so setting it changes no size.
    void setDataOffset(std::int32_t offset) { m_dataOffset = offset; }
    std::int32_t getDataOffset() const { return m_dataOffset; }
    void setFirstSampleFlags(const SampleFlags& flags) { m_firstSampleFlags = flags; }
    const SampleFlags& getFirstSampleFlags() const { return m_firstSampleFlags; }

private:
    std::int32_t m_dataOffset = 0;
    SampleFlags m_firstSampleFlags;
    std::vector<Entry> m_entries;
};

class SampleDependencyTypeBox : public FullBox {
public:
    SampleDependencyTypeBox() : FullBox(fourCC("sdtp"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + m_samples.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void addSample(const SampleFlags& flags) { m_samples.push_back(flags); }

private:
    std::vector<SampleFlags> m_samples;
};

// Holds the byte count of its payload only; the payload is copied in behind its header.
class MediaDataBox : public Box {
public:
    explicit MediaDataBox(std::uint64_t payloadSize = 0) : Box(fourCC("mdat")), m_payloadSize(payloadSize) {}
    std::uint64_t getSize() const override;
    void setPayloadSize(std::uint64_t size) { m_payloadSize = size; }
    std::uint64_t getPayloadSize() const { return m_payloadSize; }

private:
    std::uint64_t m_payloadSize;
};

class SegmentIndexBox : public FullBox {
public:
    SegmentIndexBox(std::uint32_t referenceId, std::uint32_t timescale, std::uint64_t earliestPresentationTime,
                    std::uint8_t version = 1);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    // A media reference that starts with a SAP of the given type, SAP delta 0.
    void addReference(std::uint32_t referencedSize, std::uint32_t subsegmentDuration, std::uint8_t sapType,
                      bool startsWithSap = true);

private:
    struct Reference {
        std::uint32_t size;
        std::uint32_t duration;
        std::uint8_t sapType;
        bool startsWithSap;
    };
    std::uint32_t m_referenceId;
    std::uint32_t m_timescale;
    std::uint64_t m_earliestPresentationTime;
    std::uint64_t m_firstOffset = 0;
    std::vector<Reference> m_references;
};

// Not produced by the builders: holds the size of the enclosing mfra.
class MovieFragmentRandomAccessOffsetBox : public FullBox {
public:
    explicit MovieFragmentRandomAccessOffsetBox(std::uint32_t mfraSize = 0) : FullBox(fourCC("mfro"), 0, 0), m_mfraSize(mfraSize) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4; }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint32_t m_mfraSize;
};

class TrackFragmentRandomAccessBox : public FullBox {
public:
    TrackFragmentRandomAccessBox(std::uint32_t trackId, std::uint8_t version)
        : FullBox(fourCC("tfra"), version, 0), m_trackId(trackId) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    // Entries keep their insertion order; traf, trun and sample numbers are 1.
    void addEntry(std::uint64_t time, std::uint64_t moofOffset) { m_entries.push_back({time, moofOffset}); }

private:
    struct Entry {
        std::uint64_t time;
        std::uint64_t moofOffset;
    };
    std::uint32_t m_trackId;
    std::list<Entry> m_entries;
};

// The Smooth Streaming announcement of the next fragment (uuid d4807ef2-...). A plain box that writes
// version and flags by hand.
class SmoothTfrfBox : public Box {
public:
    SmoothTfrfBox(std::uint64_t nextAbsoluteTime, std::uint64_t nextDuration);
    std::uint64_t getSize() const override { return Box::getSize() + 21; }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint64_t m_time;
    std::uint64_t m_duration;
};

// The Smooth Streaming time of this fragment (uuid 6d1d9b05-...).
class TrackFragmentExtendedHeaderBox : public FullBox {
public:
    TrackFragmentExtendedHeaderBox(std::uint64_t absoluteTime, std::uint64_t duration, std::uint8_t version = 1);
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + (getVersion() == 1 ? 16 : 8); }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint64_t m_time;
    std::uint64_t m_duration;
};

class EventMessageBox : public FullBox {
public:
    EventMessageBox(std::string schemeIdUri, std::string value, std::uint32_t timescale,
                    std::uint32_t presentationTimeDelta, std::uint32_t eventDuration, std::uint32_t id,
                    std::vector<std::uint8_t> messageData);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

private:
    std::string m_schemeIdUri;
    std::string m_value;
    std::uint32_t m_timescale;
    std::uint32_t m_presentationTimeDelta;
    std::uint32_t m_eventDuration;
    std::uint32_t m_id;
    std::vector<std::uint8_t> m_messageData;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
