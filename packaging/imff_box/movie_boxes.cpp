#include "packaging/imff_box/movie_boxes.h"

#include <iostream>

#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

FourCC handlerTypeOf(std::uint32_t trackKind) {
    switch (trackKind) {
        case TRACK_VIDEO: return fourCC("vide");
        case TRACK_AUDIO: return fourCC("soun");
        case TRACK_HINT: return fourCC("hint");
        case TRACK_TEXT: return fourCC("text");
        case TRACK_SUBTITLE: return fourCC("subt");
        case TRACK_METADATA: return fourCC("meta");
        default: return 0;
    }
}

std::string handlerNameOf(std::uint32_t trackKind) {
    switch (trackKind) {
        case TRACK_VIDEO: return "video";
        case TRACK_AUDIO: return "audio";
        case TRACK_HINT: return "hint";
        case TRACK_TEXT: return "text";
        case TRACK_SUBTITLE: return "subt";
        case TRACK_METADATA: return "meta";
        default: return "";
    }
}

namespace {
void writeMatrix(ImffBitWriter& writer) {
    for (std::uint32_t value : kUnityMatrix) writer.writeBits(32, value);
}
// A time of 64 bits in version 1, else of 32.
void writeVersioned(ImffBitWriter& writer, bool wide, std::uint64_t value) {
    if (wide) {
        writer.write64(value);
    } else {
        writer.writeBits(32, value);
    }
}

// The times of a movie or media header: creation, modification, timescale, duration.
void writeHeaderTimes(ImffBitWriter& writer, bool wide, std::uint64_t creation, std::uint64_t modification,
                      std::uint32_t timescale, std::uint64_t duration) {
    writeVersioned(writer, wide, creation);
    writeVersioned(writer, wide, modification);
    writer.writeBits(32, timescale);
    writeVersioned(writer, wide, duration);
}
}  // namespace

// ---------------------------------------------------------------------------------------------------------

TypeBoxBase::TypeBoxBase(FourCC type, FourCC majorBrand, std::uint32_t minorVersion, std::vector<FourCC> brands)
    : Box(type), m_majorBrand(majorBrand), m_minorVersion(minorVersion), m_brands(std::move(brands)) {}

std::uint64_t TypeBoxBase::getSize() const { return Box::getSize() + 8 + 4 * m_brands.size(); }

void TypeBoxBase::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writeFourCC(writer, m_majorBrand);
    writer.writeBits(32, m_minorVersion);
    for (FourCC brand : m_brands) writeFourCC(writer, brand);
}

void TypeBoxBase::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<" << getName() << " MajorBrand=\"" << fourCCTextReversed(m_majorBrand) << "\" MinorVersion=\""
            << m_minorVersion << "\">" << std::endl;
    Box::dump(stream);
    for (FourCC brand : m_brands) {
        *stream << "<BrandEntry AlternateBrand=\"" << fourCCTextReversed(brand) << "\"/>" << std::endl;
    }
    *stream << "</" << getName() << ">" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

MovieHeaderBox::MovieHeaderBox(std::uint64_t creationTime, std::uint64_t modificationTime, std::uint8_t version)
    : FullBox(fourCC("mvhd"), version, 0), m_creationTime(creationTime), m_modificationTime(modificationTime) {}

std::uint64_t MovieHeaderBox::getSize() const {
    const std::uint64_t extra = getVersion() == 1 ? 24 : getVersion() == 0 ? 12 : 0;
    return Box::getSize() + 96 - 8 + extra;  // 96 counts the plain 8-byte header
}

void MovieHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeHeaderTimes(writer, getVersion() == 1, m_creationTime, m_modificationTime, m_timescale, m_duration);
    writer.writeBits(32, 0x10000);  // rate 1.0
    writer.writeBits(16, 256);      // volume 1.0
    writer.writeBits(16, 0);
    writer.writeBits(64, 0);
    writeMatrix(writer);
    writer.writeBits(192, 0);
    writer.writeBits(32, m_nextTrackId);
}

void MovieHeaderBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<MovieHeaderBox CreationTime=\"" << m_creationTime << "\" ModificationTime=\"" << m_modificationTime
            << "\" TimeScale=\"" << m_timescale << "\" Duration=\"" << m_duration << "\" NextTrackID=\""
            << m_nextTrackId << "\" >" << std::endl;
    FullBox::dump(stream);
    *stream << "</MovieHeaderBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

TrackHeaderBox::TrackHeaderBox(std::uint32_t trackId, std::uint64_t creationTime, std::uint64_t modificationTime,
                               std::uint8_t version, std::uint32_t flags)
    : FullBox(fourCC("tkhd"), version, flags),
      m_creationTime(creationTime),
      m_modificationTime(modificationTime),
      m_trackId(trackId) {}

std::uint64_t TrackHeaderBox::getSize() const {
    return getFullBoxHeaderSize() + (getVersion() == 1 ? 32 : 20) + 60;
}

void TrackHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    const bool wide = getVersion() == 1;
    writeVersioned(writer, wide, m_creationTime);
    writeVersioned(writer, wide, m_modificationTime);
    writer.writeBits(32, m_trackId);
    writer.writeBits(32, 0);
    writeVersioned(writer, wide, m_duration);
    writer.writeBits(64, 0);
    writer.writeBits(16, 0);  // layer
    writer.writeBits(16, 0);  // alternate group
    writer.writeBits(16, m_volume);
    writer.writeBits(16, 0);
    writeMatrix(writer);
    writer.writeBits(16, m_width);  // 16.16 fixed point, whole pixels only
    writer.writeBits(16, 0);
    writer.writeBits(16, m_height);
    writer.writeBits(16, 0);
}

void TrackHeaderBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<TrackHeaderBox CreationTime=\"" << m_creationTime << "\" ModificationTime=\"" << m_modificationTime
            << "\" TrackID=\"" << m_trackId << "\" Duration=\"" << m_duration << "\" m_uiVolume=\"" << m_volume
            << "\" Width=\"" << m_width << "\" Height=\"" << m_height << "\" >" << std::endl;
    FullBox::dump(stream);
    *stream << "</TrackHeaderBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

MediaHeaderBox::MediaHeaderBox(std::uint32_t timescale, std::uint64_t creationTime, std::uint64_t modificationTime,
                               std::uint8_t version)
    : FullBox(fourCC("mdhd"), version, 0),
      m_creationTime(creationTime),
      m_modificationTime(modificationTime),
      m_timescale(timescale) {}

std::uint64_t MediaHeaderBox::getSize() const { return getFullBoxHeaderSize() + 4 + (getVersion() == 1 ? 28 : 16); }

void MediaHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writeHeaderTimes(writer, getVersion() == 1, m_creationTime, m_modificationTime, m_timescale, m_duration);
    writer.writeBit(false);
    // ISO 639-2/T packed as three 5-bit letters: the low five bits of each character.
    for (char letter : m_language) writer.writeBits(5, static_cast<std::uint32_t>(letter) & 0x1F);
    writer.writeBits(16, 0);
}

void MediaHeaderBox::setLanguage(const std::string& language) {
    const std::size_t end = language.find('-');
    const std::string primary = language.substr(0, end);
    m_language = "und";
    if (primary.size() != 3) return;
    std::string code;
    for (char c : primary) {
        const char lower = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        if (lower < 'a' || lower > 'z') return;
        code += lower;
    }
    m_language = code;
}

void MediaHeaderBox::dump(std::ostream*) const {
    std::ostream& out = std::cout;
    out << "<MediaHeaderBox CreationTime=\"" << m_creationTime << "\" ModificationTime=\"" << m_modificationTime
        << "\" Timescale=\"" << m_timescale << "\" Duration=\"" << m_duration << "\" Language=\"todo\" >"
        << std::endl;
    FullBox::dump(&out);
    out << "</MediaHeaderBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

HandlerReferenceBox::HandlerReferenceBox(std::uint32_t trackKind)
    : HandlerReferenceBox(handlerTypeOf(trackKind), handlerNameOf(trackKind)) {}

HandlerReferenceBox::HandlerReferenceBox(FourCC handlerType, std::string name)
    : FullBox(fourCC("hdlr"), 0, 0), m_handlerType(handlerType), m_name(std::move(name)) {}

std::uint64_t HandlerReferenceBox::getSize() const { return getFullBoxHeaderSize() + 20 + m_name.size() + 1; }

void HandlerReferenceBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, 0);
    writeFourCC(writer, m_handlerType);
    writer.writeBits(96, 0);
    writeCString(writer, m_name);
}

void HandlerReferenceBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<HandlerReferenceBox HandlerType=\"" << fourCCTextReversed(m_handlerType) << "\" Name=\"" << m_name
            << "\" >" << std::endl;
    FullBox::dump(stream);
    *stream << "</HandlerReferenceBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

void VideoMediaHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(16, m_graphicsMode);
    for (std::uint16_t c : m_opColor) writer.writeBits(16, c);
}

void VideoMediaHeaderBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<VideoMediaHeaderBox graphicsmode=\"" << m_graphicsMode << "\" opcolor=\"" << m_opColor[0] << " "
            << m_opColor[1] << " " << m_opColor[2] << "\" >" << std::endl;
    FullBox::dump(stream);
    *stream << "</VideoMediaHeaderBox>" << std::endl;
}

void SoundMediaHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(16, m_balance);
    writer.writeBits(16, 0);
}

void SoundMediaHeaderBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<SoundMediaHeaderBox balance=\"" << m_balance << "\" >" << std::endl;
    FullBox::dump(stream);
    *stream << "</SoundMediaHeaderBox>" << std::endl;
}

HintMediaHeaderBox::HintMediaHeaderBox(std::uint16_t maxPduSize, std::uint16_t avgPduSize, std::uint16_t maxBitrate,
                                       std::uint16_t avgBitrate)
    : FullBox(fourCC("hmhd"), 0, 0),
      m_maxPduSize(maxPduSize),
      m_avgPduSize(avgPduSize),
      m_maxBitrate(maxBitrate),
      m_avgBitrate(avgBitrate) {}

void HintMediaHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(16, m_maxPduSize);
    writer.writeBits(16, m_avgPduSize);
    writer.writeBits(32, m_maxBitrate);
    writer.writeBits(32, m_avgBitrate);
    writer.writeBits(32, 0);  // reserved
}

void HintMediaHeaderBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<HintMediaHeaderBox maxPDUsize=\"" << m_maxPduSize << "\" avgPDUsize=\"" << m_avgPduSize
            << "\" maxbitrate=\"" << m_maxBitrate << "\" avgbitrate=\"" << m_avgBitrate << "\">" << std::endl;
    FullBox::dump(stream);
    *stream << "</HintMediaHeaderBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

DataEntryUrlBox::DataEntryUrlBox(std::uint32_t flags, std::string location)
    : FullBox(fourCC("url "), 0, flags), m_location(std::move(location)) {}

std::uint64_t DataEntryUrlBox::getSize() const {
    return getFullBoxHeaderSize() + (getFlags() == 1 ? 0 : m_location.size() + 1);
}

void DataEntryUrlBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getFlags() != 1) writeCString(writer, m_location);
}

void DataEntryUrlBox::dump(std::ostream*) const {
    std::ostream& out = std::cout;
    out << "<DataEntryUrlBox url=\"" << m_location << "\">" << std::endl;
    FullBox::dump(&out);
    out << "</DataEntryUrlBox>" << std::endl;
}

DataEntryUrnBox::DataEntryUrnBox(std::uint32_t flags, std::string name, std::string location)
    : FullBox(fourCC("urn "), 0, flags), m_name(std::move(name)), m_location(std::move(location)) {}

std::uint64_t DataEntryUrnBox::getSize() const {
    return getFullBoxHeaderSize() + (getFlags() == 1 ? 0 : m_name.size() + 1 + m_location.size() + 1);
}

void DataEntryUrnBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getFlags() != 1) {
        writeCString(writer, m_name);
        writeCString(writer, m_location);
    }
}

void DataEntryUrnBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<DataEntryUrnBox url=\"" << m_location << "\" name=\"" << m_name << "\">" << std::endl;
    FullBox::dump(stream);
    *stream << "</DataEntryUrnBox>" << std::endl;
}

DataReferenceBox::DataReferenceBox(std::uint32_t entryCount, std::shared_ptr<Box> entry)
    : FullBox(fourCC("dref"), 0, 0), m_entryCount(entryCount), m_entry(std::move(entry)) {}

std::uint64_t DataReferenceBox::getSize() const {
    return getFullBoxHeaderSize() + 4 + (m_entry ? m_entry->getSize() : 0);
}

void DataReferenceBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_entryCount);
    if (m_entry) binarizeChecked(*m_entry, writer);
}

void DataReferenceBox::dump(std::ostream*) const {
    std::ostream& out = std::cout;
    out << "<DataReferenceBox>" << std::endl;
    if (m_entry) m_entry->dump(&out);
    FullBox::dump(&out);
    out << "</DataReferenceBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

SampleDescriptionBox::SampleDescriptionBox(FourCC handlerType)
    : FullBox(fourCC("stsd"), 0, 0), m_handlerType(handlerType) {}

std::uint32_t SampleDescriptionBox::addEntry(std::shared_ptr<SampleEntry> entry) {
    m_entries.push_back(std::move(entry));
    return static_cast<std::uint32_t>(m_entries.size());
}

std::uint64_t SampleDescriptionBox::getSize() const {
    std::uint64_t size = getFullBoxHeaderSize() + 4;
    for (const auto& entry : m_entries) size += entry->getSize();
    return size;
}

void SampleDescriptionBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_entries.size());
    for (const auto& entry : m_entries) binarizeChecked(*entry, writer);
}

void SampleDescriptionBox::dump(std::ostream* stream) const {
    if (stream != nullptr) {
        *stream << "<SampleDescriptionBox HandlerType=\"" << fourCCTextReversed(m_handlerType) << "\">" << std::endl;
        for (const auto& entry : m_entries) entry->dump(stream);
        FullBox::dump(stream);
    }
    std::cout << "</SampleDescriptionBox>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

void TimeToSampleBox::addDelta(std::uint32_t delta) {
    if (!m_entries.empty() && m_entries.back().delta == delta) {
        ++m_entries.back().count;
    } else {
        m_entries.push_back({1, delta});
    }
}

void TimeToSampleBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_entries.size());
    for (const auto& entry : m_entries) {
        writer.writeBits(32, entry.count);
        writer.writeBits(32, entry.delta);
    }
}

namespace {
// The opening line of the table boxes; the closing line goes where the box says.
void dumpTable(std::ostream* stream, const FullBox& box, const char* name, std::size_t count, std::ostream& closing) {
    if (stream != nullptr) {
        *stream << "<" << name << " EntryCount =\"" << count << "\">" << std::endl;
        box.FullBox::dump(stream);
    }
    closing << "</" << name << ">" << std::endl;
}
}  // namespace

void TimeToSampleBox::dump(std::ostream* stream) const {
    // The composition box prints its closing line where it was given; the time-to-sample box on standard output.
    std::ostream* closing = getType() == fourCC("stts") ? &std::cout : stream;
    if (closing == nullptr) return;
    dumpTable(stream, *this, getName(), m_entries.size(), *closing);
}

void SyncSampleBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_numbers.size());
    for (std::uint32_t n : m_numbers) writer.writeBits(32, n);
}

void SyncSampleBox::dump(std::ostream* stream) const {
    dumpTable(stream, *this, "SyncSampleBox", m_numbers.size(), std::cout);
}

void SampleToChunkBox::addEntry(std::uint32_t firstChunk, std::uint32_t samplesPerChunk,
                                std::uint32_t descriptionIndex) {
    m_entries.push_back({firstChunk, samplesPerChunk, descriptionIndex});
}

void SampleToChunkBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_entries.size());
    for (const auto& e : m_entries) {
        writer.writeBits(32, e.firstChunk);
        writer.writeBits(32, e.samplesPerChunk);
        writer.writeBits(32, e.descriptionIndex);
    }
}

void SampleToChunkBox::dump(std::ostream* stream) const {
    dumpTable(stream, *this, "SampleToChunkBox", m_entries.size(), std::cout);
}

void SampleSizeBox::addSize(std::uint32_t size) {
    if (!m_entries.empty()) {
        m_entries.push_back(size);
        m_sampleCount = static_cast<std::uint32_t>(m_entries.size());
    } else if (m_sampleCount == 0) {
        m_sampleSize = size;
        m_sampleCount = 1;
    } else if (size == m_sampleSize) {
        ++m_sampleCount;
    } else {
        // Turn over to the table form.
        m_entries.assign(m_sampleCount, m_sampleSize);
        m_sampleSize = 0;
        m_entries.push_back(size);
        m_sampleCount = static_cast<std::uint32_t>(m_entries.size());
    }
}

void SampleSizeBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_sampleSize);
    writer.writeBits(32, m_sampleCount);
    for (std::uint32_t size : m_entries) writer.writeBits(32, size);
}

void SampleSizeBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<SampleSizeBox SampleSize=\"" << m_sampleSize << "\" SampleCount =\"" << m_sampleCount << "\">"
            << std::endl;
    FullBox::dump(stream);
    *stream << "</SampleSizeBox>" << std::endl;
}

void CompactSampleSizeBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(24, 0);
    writer.writeBits(8, m_fieldSize);
    writer.writeBits(32, m_sizes.size());
    for (std::uint32_t size : m_sizes) writer.writeBits(m_fieldSize, size);
}

void CompactSampleSizeBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<CompactSampleSizeBox FieldSize=\"" << static_cast<unsigned>(m_fieldSize) << "\" SampleCount =\""
            << m_sizes.size() << "\">" << std::endl;
    FullBox::dump(stream);
    *stream << "</CompactSampleSizeBox>" << std::endl;
}

void ChunkOffsetBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_offsets.size());
    for (std::uint32_t offset : m_offsets) writer.writeBits(32, offset);
}

void ChunkOffsetBox::dump(std::ostream*) const {
    dumpTable(&std::cout, *this, "ChunkOffsetBox", m_offsets.size(), std::cout);
}

void ChunkLargeOffsetBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_offsets.size());
    for (std::uint64_t offset : m_offsets) writer.write64(offset);
}

void ChunkLargeOffsetBox::dump(std::ostream*) const {
    dumpTable(&std::cout, *this, "ChunkLargeOffsetBox", m_offsets.size(), std::cout);
}

// ---------------------------------------------------------------------------------------------------------

void EditListBox::addEntry(std::uint32_t segmentDuration, std::uint32_t mediaTime, std::uint16_t rateInteger,
                           std::uint16_t rateFraction) {
    m_entries.push_back({segmentDuration, mediaTime, rateInteger, rateFraction});
}

void EditListBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_entries.size());
    for (const auto& e : m_entries) {
        writer.writeBits(32, e.segmentDuration);
        writer.writeBits(32, e.mediaTime);
        writer.writeBits(16, e.rateInteger);
        writer.writeBits(16, e.rateFraction);
    }
}

std::uint64_t MovieExtendsHeaderBox::getSize() const {
    return getFullBoxHeaderSize() + (getVersion() == 1 ? 8 : getVersion() == 0 ? 4 : 0);
}

void MovieExtendsHeaderBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    if (getVersion() == 1) {
        writer.write64(m_fragmentDuration);
    } else if (getVersion() == 0) {
        writer.writeBits(32, m_fragmentDuration);
    }
}

void TrackExtendsBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(32, m_trackId);
    writer.writeBits(32, m_defaultDescriptionIndex);
    writer.writeBits(32, m_defaultDuration);
    writer.writeBits(32, m_defaultSize);
    writer.writeBits(32, m_defaultFlags);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
