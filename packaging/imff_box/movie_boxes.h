#pragma once
// The boxes of an initialisation segment: file type, movie and track headers, the sample tables and
// the movie-extends boxes.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packaging/imff_box/box.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

class SampleEntry;

// The kinds of track, by the number the callers use.
enum TrackKind : std::uint32_t {
    TRACK_VIDEO = 0,
    TRACK_AUDIO = 1,
    TRACK_HINT = 2,
    TRACK_TEXT = 3,
    TRACK_SUBTITLE = 4,
    TRACK_METADATA = 5,
};
// Handler type and name of a kind; 0 and an empty name for an unknown kind.
FourCC handlerTypeOf(std::uint32_t trackKind);
std::string handlerNameOf(std::uint32_t trackKind);

// The unity matrix of movie and track headers.
inline constexpr std::uint32_t kUnityMatrix[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};

class TypeBoxBase : public Box {
public:
    TypeBoxBase(FourCC type, FourCC majorBrand, std::uint32_t minorVersion, std::vector<FourCC> brands);
    virtual std::string getName() const = 0;
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    void addCompatibleBrand(FourCC brand) { m_brands.push_back(brand); }
    FourCC getMajorBrand() const { return m_majorBrand; }
    const std::vector<FourCC>& getCompatibleBrands() const { return m_brands; }

private:
    FourCC m_majorBrand;
    std::uint32_t m_minorVersion;
    std::vector<FourCC> m_brands;
};

class FileTypeBox : public TypeBoxBase {
public:
    FileTypeBox(FourCC majorBrand, std::uint32_t minorVersion, std::vector<FourCC> brands)
        : TypeBoxBase(fourCC("ftyp"), majorBrand, minorVersion, std::move(brands)) {}
    std::string getName() const override { return "FileTypeBox"; }
};

class SegmentTypeBox : public TypeBoxBase {
public:
    SegmentTypeBox(FourCC majorBrand, std::uint32_t minorVersion, std::vector<FourCC> brands)
        : TypeBoxBase(fourCC("styp"), majorBrand, minorVersion, std::move(brands)) {}
    std::string getName() const override { return "SegmentTypeBox"; }
};

class MovieHeaderBox : public FullBox {
public:
    MovieHeaderBox(std::uint64_t creationTime = 0, std::uint64_t modificationTime = 0, std::uint8_t version = 0);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    void setDuration(std::uint64_t duration) { m_duration = duration; }
    void setNextTrackId(std::uint32_t id) { m_nextTrackId = id; }
    void setTimescale(std::uint32_t timescale) { m_timescale = timescale; }
    std::uint32_t getNextTrackId() const { return m_nextTrackId; }

private:
    std::uint64_t m_creationTime;
    std::uint64_t m_modificationTime;
    std::uint32_t m_timescale = 10000000;
    std::uint64_t m_duration = 0;
    std::uint32_t m_nextTrackId = 1;
};

class TrackHeaderBox : public FullBox {
public:
    TrackHeaderBox(std::uint32_t trackId, std::uint64_t creationTime = 0, std::uint64_t modificationTime = 0,
                   std::uint8_t version = 0, std::uint32_t flags = 7);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    void setDuration(std::uint64_t duration) { m_duration = duration; }
    void setVolume(std::uint16_t volume) { m_volume = volume; }
    void setWidth(std::uint32_t width) { m_width = width; }
    void setHeight(std::uint32_t height) { m_height = height; }
    std::uint32_t getWidth() const { return m_width; }
    std::uint32_t getHeight() const { return m_height; }

private:
    std::uint64_t m_creationTime;
    std::uint64_t m_modificationTime;
    std::uint32_t m_trackId;
    std::uint64_t m_duration = 0;
    std::uint16_t m_volume = 0;
    std::uint32_t m_width = 0;  // whole pixels
    std::uint32_t m_height = 0;
};

class MediaHeaderBox : public FullBox {
public:
    MediaHeaderBox(std::uint32_t timescale, std::uint64_t creationTime = 0, std::uint64_t modificationTime = 0,
                   std::uint8_t version = 1);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;  // prints on standard output
    // The ISO 639-2/T code of the track: the first subtag of `language` when it is three letters ("fra",
    // "deu-CH"), lower-cased; anything else leaves "und", which the box's packing cannot hold otherwise.
    void setLanguage(const std::string& language);
    const std::string& language() const { return m_language; }

private:
    std::uint64_t m_creationTime;
    std::uint64_t m_modificationTime;
    std::uint32_t m_timescale;
    std::uint64_t m_duration = 0;
    std::string m_language = "und";
};

class HandlerReferenceBox : public FullBox {
public:
    explicit HandlerReferenceBox(std::uint32_t trackKind);
    HandlerReferenceBox(FourCC handlerType, std::string name);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;
    FourCC getHandlerType() const { return m_handlerType; }

private:
    FourCC m_handlerType;
    std::string m_name;
};

class VideoMediaHeaderBox : public FullBox {
public:
    VideoMediaHeaderBox() : FullBox(fourCC("vmhd"), 0, 1) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 8; }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

private:
    std::uint16_t m_graphicsMode = 0;
    std::uint16_t m_opColor[3] = {0, 0, 0};
};

class SoundMediaHeaderBox : public FullBox {
public:
    SoundMediaHeaderBox() : FullBox(fourCC("smhd"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4; }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

private:
    std::uint16_t m_balance = 0;
};

class HintMediaHeaderBox : public FullBox {
public:
    HintMediaHeaderBox(std::uint16_t maxPduSize, std::uint16_t avgPduSize, std::uint16_t maxBitrate,
                       std::uint16_t avgBitrate);
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 16; }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

private:
    std::uint16_t m_maxPduSize, m_avgPduSize, m_maxBitrate, m_avgBitrate;
};

class NullMediaHeaderBox : public FullBox {
public:
    NullMediaHeaderBox() : FullBox(fourCC("nmhd"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize(); }
    void binarize(ImffBitWriter& writer) const override { binarizeFullBoxHeader(writer); }
};

class SubtitleMediaHeaderBox : public FullBox {
public:
    SubtitleMediaHeaderBox() : FullBox(fourCC("sthd"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize(); }
    void binarize(ImffBitWriter& writer) const override { binarizeFullBoxHeader(writer); }
};

class DataEntryUrlBox : public FullBox {
public:
    explicit DataEntryUrlBox(std::uint32_t flags = 1, std::string location = {});
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;  // prints on standard output

private:
    std::string m_location;
};

class DataEntryUrnBox : public FullBox {
public:
    DataEntryUrnBox(std::uint32_t flags, std::string name, std::string location);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

private:
    std::string m_name;
    std::string m_location;
};

// Holds one data entry whatever the count says.
class DataReferenceBox : public FullBox {
public:
    DataReferenceBox(std::uint32_t entryCount, std::shared_ptr<Box> entry);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;  // prints on standard output

private:
    std::uint32_t m_entryCount;
    std::shared_ptr<Box> m_entry;
};

class SampleDescriptionBox : public FullBox {
public:
    explicit SampleDescriptionBox(FourCC handlerType);
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    // Returns the entry count, which is the sample description index of the new entry.
    std::uint32_t addEntry(std::shared_ptr<SampleEntry> entry);
    const std::vector<std::shared_ptr<SampleEntry>>& getEntries() const { return m_entries; }

private:
    FourCC m_handlerType;
    std::vector<std::shared_ptr<SampleEntry>> m_entries;
};

// Entries of two 32-bit numbers: stts (count, delta) and ctts (count, offset).
class TimeToSampleBox : public FullBox {
public:
    TimeToSampleBox() : TimeToSampleBox(fourCC("stts")) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4 + 8 * m_entries.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    // A delta equal to the last entry's adds a sample to it; another delta opens an entry.
    void addDelta(std::uint32_t delta);
    struct Entry {
        std::uint32_t count;
        std::uint32_t delta;
    };
    const std::vector<Entry>& getEntries() const { return m_entries; }

protected:
    explicit TimeToSampleBox(FourCC type) : FullBox(type, 0, 0) {}
    virtual const char* getName() const { return "TimeToSampleBox"; }
    std::vector<Entry> m_entries;
};

class CompositionOffsetBox : public TimeToSampleBox {
public:
    CompositionOffsetBox() : TimeToSampleBox(fourCC("ctts")) {}
    void addOffset(std::uint32_t offset) { addDelta(offset); }
    // Always opens an entry.
    void addEntry(std::uint32_t count, std::uint32_t offset) { m_entries.push_back({count, offset}); }

protected:
    const char* getName() const override { return "CompositionOffsetBox"; }
};

class SyncSampleBox : public FullBox {
public:
    SyncSampleBox() : FullBox(fourCC("stss"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4 + 4 * m_numbers.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;
    void addSampleNumber(std::uint32_t number) { m_numbers.push_back(number); }

private:
    std::vector<std::uint32_t> m_numbers;
};

class SampleToChunkBox : public FullBox {
public:
    SampleToChunkBox() : FullBox(fourCC("stsc"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4 + 12 * m_entries.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    void addEntry(std::uint32_t firstChunk, std::uint32_t samplesPerChunk, std::uint32_t descriptionIndex);
    // The builder's chunk counter; starts at 1.
    std::uint32_t currentChunk = 1;

private:
    struct Entry {
        std::uint32_t firstChunk, samplesPerChunk, descriptionIndex;
    };
    std::vector<Entry> m_entries;
};

class SampleSizeBox : public FullBox {
public:
    SampleSizeBox() : FullBox(fourCC("stsz"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 8 + 4 * m_entries.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    // Keeps the constant form while all sizes are equal and turns over to a table at the first different one.
    void addSize(std::uint32_t size);
    std::uint32_t getSampleSize() const { return m_sampleSize; }
    std::uint32_t getSampleCount() const { return m_sampleCount; }

private:
    std::uint32_t m_sampleSize = 0;
    std::uint32_t m_sampleCount = 0;
    std::vector<std::uint32_t> m_entries;
};

// Not used by the builders; its size holds only for a field size of 8.
class CompactSampleSizeBox : public FullBox {
public:
    explicit CompactSampleSizeBox(std::uint8_t fieldSize) : FullBox(fourCC("stz2"), 0, 0), m_fieldSize(fieldSize) {}
    std::uint64_t getSize() const override { return m_sizes.size() * m_fieldSize + 20; }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;
    void addSize(std::uint32_t size) { m_sizes.push_back(size); }

private:
    std::uint8_t m_fieldSize;
    std::vector<std::uint32_t> m_sizes;
};

class ChunkOffsetBox : public FullBox {
public:
    ChunkOffsetBox() : FullBox(fourCC("stco"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4 + 4 * m_offsets.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;  // prints on standard output
    void addOffset(std::uint32_t offset) { m_offsets.push_back(offset); }

private:
    std::vector<std::uint32_t> m_offsets;
};

class ChunkLargeOffsetBox : public FullBox {
public:
    ChunkLargeOffsetBox() : FullBox(fourCC("co64"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4 + 8 * m_offsets.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;  // prints on standard output
    void addOffset(std::uint64_t offset) { m_offsets.push_back(offset); }

private:
    std::vector<std::uint64_t> m_offsets;
};

// Only the version-0 entry layout exists, whatever the version.
class EditListBox : public FullBox {
public:
    explicit EditListBox(std::uint8_t version = 0) : FullBox(fourCC("elst"), version, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 4 + 12 * m_entries.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void addEntry(std::uint32_t segmentDuration, std::uint32_t mediaTime, std::uint16_t rateInteger = 1,
                  std::uint16_t rateFraction = 0);

private:
    struct Entry {
        std::uint32_t segmentDuration, mediaTime;
        std::uint16_t rateInteger, rateFraction;
    };
    std::vector<Entry> m_entries;
};

class MovieExtendsHeaderBox : public FullBox {
public:
    MovieExtendsHeaderBox(std::uint64_t fragmentDuration, std::uint8_t version = 0)
        : FullBox(fourCC("mehd"), version, 0), m_fragmentDuration(fragmentDuration) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint64_t m_fragmentDuration;
};

class TrackExtendsBox : public FullBox {
public:
    explicit TrackExtendsBox(std::uint32_t trackId) : FullBox(fourCC("trex"), 0, 0), m_trackId(trackId) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 20; }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint32_t m_trackId;
    std::uint32_t m_defaultDescriptionIndex = 1;
    std::uint32_t m_defaultDuration = 0;
    std::uint32_t m_defaultSize = 0;
    std::uint32_t m_defaultFlags = 0;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
