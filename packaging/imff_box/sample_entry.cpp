#include "packaging/imff_box/sample_entry.h"

#include <algorithm>

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

std::uint64_t SampleEntry::getSize() const { return Box::getSize() + 8 + getPayloadSize() + getProtectionSize(); }

void SampleEntry::binarizeSampleEntryHeader(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(48, 0);
    writer.writeBits(16, m_dataReferenceIndex);
}

void SampleEntry::binarize(ImffBitWriter& writer) const {
    binarizeSampleEntryHeader(writer);
    binarizePayload(writer);
    if (m_protection) binarizeChecked(*m_protection, writer);
}

// ---------------------------------------------------------------------------------------------------------

void VisualSampleEntry::binarizeSpecific(ImffBitWriter& writer) const {
    writer.writeBits(16, 0);
    writer.writeBits(16, 0);
    writer.writeBits(96, 0);
    writer.writeBits(16, width);
    writer.writeBits(16, height);
    writer.writeBits(32, horizontalResolution);
    writer.writeBits(32, verticalResolution);
    writer.writeBits(32, 0);
    writer.writeBits(16, frameCount);
    // 32 bytes of name, zero-padded, without a length byte. A longer name is cut: the entry's size counts 32.
    const std::size_t nameBytes = std::min<std::size_t>(compressorName.size(), 32);
    writer.copyBuffer(reinterpret_cast<const std::uint8_t*>(compressorName.data()), nameBytes);
    for (std::size_t i = nameBytes; i < 32; ++i) writer.writeBits(8, 0);
    writer.writeBits(16, depth);
    writer.writeBits(16, 0xFFFF);
}

void VisualSampleEntry::binarizePayload(ImffBitWriter& writer) const {
    binarizeSpecific(writer);
    binarizeConfiguration(writer);
}

void VisualSampleEntry::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<VisualSampleEntry DataReferenceIndex=\"" << getDataReferenceIndex() << "\" Width=\"" << width
            << "\" Height=\"" << height << "\" XDPI=\"" << horizontalResolution << "\" YDPI=\""
            << verticalResolution << "\" BitDepth=\"" << depth << "\"/>" << std::endl;
}

void AudioSampleEntry::binarizeSpecific(ImffBitWriter& writer) const {
    writer.writeBits(64, 0);
    writer.writeBits(16, channelCount);
    writer.writeBits(16, sampleSize);
    writer.writeBits(16, 0);
    writer.writeBits(16, 0);
    writer.writeBits(16, sampleRate);
    writer.writeBits(16, 0);
}

void AudioSampleEntry::binarizePayload(ImffBitWriter& writer) const {
    binarizeSpecific(writer);
    binarizeConfiguration(writer);
}

void AudioSampleEntry::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<AudioSampleEntry DataReferenceIndex=\"" << getDataReferenceIndex() << "\" ChannelCount=\""
            << channelCount << "\" SampleSize=\"" << sampleSize << "\" SampleRate=\"" << sampleRate << "\"/>"
            << std::endl;
}

// ---------------------------------------------------------------------------------------------------------

void TextHoldingBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writeCString(writer, m_text);
}

std::uint64_t WVTTSampleEntry::getSize() const {
    std::uint64_t size = SampleEntry::getSize();  // includes the protection box once
    if (m_label) size += getProtectionSize();
    return size;
}

void WVTTSampleEntry::binarizePayload(ImffBitWriter& writer) const {
    binarizeChecked(m_config, writer);
    if (m_label) binarizeChecked(*m_label, writer);
}

std::uint64_t XMLSubtitleSampleEntry::getPayloadSize() const {
    return m_namespace.size() + m_schemaLocation.size() + m_auxiliaryMimeTypes.size() + 3;
}

void XMLSubtitleSampleEntry::binarizePayload(ImffBitWriter& writer) const {
    writeCString(writer, m_namespace);
    writeCString(writer, m_schemaLocation);
    writeCString(writer, m_auxiliaryMimeTypes);
}

std::uint64_t FontTableBox::getSize() const {
    std::uint64_t size = Box::getSize() + 2;
    for (const auto& font : m_fonts) size += 3 + font.name.size();
    return size;
}

void FontTableBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(16, m_fonts.size());
    for (const auto& font : m_fonts) {
        writer.writeBits(16, font.id);
        writer.writeBits(8, font.name.size());
        writer.copyBuffer(reinterpret_cast<const std::uint8_t*>(font.name.data()), font.name.size());
    }
}

void TextSampleEntry::binarizePayload(ImffBitWriter& writer) const {
    writer.writeBits(32, displayFlags);
    writer.writeBits(8, horizontalJustification);
    writer.writeBits(8, verticalJustification);
    for (std::uint8_t c : backgroundColour) writer.writeBits(8, c);
    writer.writeBits(16, boxTop);
    writer.writeBits(16, boxLeft);
    writer.writeBits(16, boxBottom);
    writer.writeBits(16, boxRight);
    writer.writeBits(16, startChar);
    writer.writeBits(16, endChar);
    writer.writeBits(16, fontId);
    writer.writeBits(8, styleFlags);
    writer.writeBits(8, fontSize);
    for (std::uint8_t c : textColour) writer.writeBits(8, c);
    binarizeChecked(fontTable, writer);
}

void MPEG4BitRateBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(32, m_bufferSize);
    writer.writeBits(32, m_maxBitrate);
    writer.writeBits(32, m_avgBitrate);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
