#include "packaging/codec_box/audio_boxes.h"

#include <algorithm>

namespace tvrn::encoding::packaging::imff::codec_box {
inline namespace v0 {

void ESDescriptorBox::setDecoderSpecificInfo(std::vector<std::uint8_t> info) {
    decoderSpecificInfo = std::move(info);
    updateLengths();
}

void ESDescriptorBox::updateLengths() {
    // Decoder config: 13 bytes of fields, then the decoder specific info descriptor (tag, length, data).
    decoderConfigLength = static_cast<std::uint8_t>(13 + 2 + decoderSpecificInfo.size());
    // ES: id and flags, the decoder config descriptor, the SL config descriptor (tag, length, one byte).
    esLength = static_cast<std::uint8_t>(3 + 2 + decoderConfigLength + 3);
}

void ESDescriptorBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.writeBits(8, esDescriptorTag);
    writer.writeBits(8, esLength);
    writer.writeBits(16, esId);
    writer.writeBits(8, esFlags);
    writer.writeBits(8, decoderConfigTag);
    writer.writeBits(8, decoderConfigLength);
    writer.writeBits(8, objectType);
    writer.writeBits(8, streamTypeByte);
    writer.writeBits(24, bufferSize);
    writer.writeBits(32, maxBitrate);
    writer.writeBits(32, averageBitrate);
    writer.writeBits(8, decoderSpecificInfoTag);
    writer.writeBits(8, decoderSpecificInfo.size());
    writer.copyBuffer(decoderSpecificInfo.data(), decoderSpecificInfo.size());
    writer.writeBits(8, slConfigTag);
    writer.writeBits(8, slConfigLength);
    writer.writeBits(8, slPredefined);
}

void ESDescriptorBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    *stream << "<ESDBox>" << std::endl;
    FullBox::dump(stream);
    *stream << "</ESDBox>" << std::endl;
}

void AC3SpecificBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(2, fscod);
    writer.writeBits(5, bsid);
    writer.writeBits(3, bsmod);
    writer.writeBits(3, acmod);
    writer.writeBit(lfeon);
    writer.writeBits(5, bitRateCode);
    writer.writeBits(5, 0);
}

std::uint64_t EC3SpecificBox::getSize() const {
    std::uint64_t size = Box::getSize() + 2;
    for (const Substream& s : substreams) size += s.numDependentSubstreams > 0 ? 4 : 3;
    return size;
}

void EC3SpecificBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(13, dataRate);
    writer.writeBits(3, substreams.empty() ? 0 : substreams.size() - 1);
    for (const Substream& s : substreams) {
        writer.writeBits(2, s.fscod);
        writer.writeBits(5, s.bsid);
        writer.writeBits(5, s.reservedAsvcBsmod);
        writer.writeBits(3, s.acmod);
        writer.writeBit(s.lfeon);
        writer.writeBits(3, 0);
        writer.writeBits(4, s.numDependentSubstreams);
        if (s.numDependentSubstreams > 0) {
            writer.writeBits(9, s.channelLocation);
        } else {
            writer.writeBit(false);
        }
    }
}

void AC3AudioSampleEntry::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    AudioSampleEntry::dump(stream);
    dac3.dump(stream);
    dumpDolbyDownmix(*stream, downmix, dac3.acmod);
}

void EC3AudioSampleEntry::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    AudioSampleEntry::dump(stream);
    dec3.dump(stream);
    dumpDolbyDownmix(*stream, downmix, dec3.substreams.empty() ? 0u : dec3.substreams.front().acmod);
}

void AC4SpecificBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.copyBuffer(data.data(), data.size());
}

namespace {
void writeLE16(ImffBitWriter& writer, std::uint16_t v) {
    writer.writeBits(8, v & 0xFF);
    writer.writeBits(8, v >> 8);
}
void writeLE32(ImffBitWriter& writer, std::uint32_t v) {
    writeLE16(writer, static_cast<std::uint16_t>(v & 0xFFFF));
    writeLE16(writer, static_cast<std::uint16_t>(v >> 16));
}
std::size_t extraSize(const std::vector<std::uint8_t>& extra) { return std::min<std::size_t>(extra.size(), 0xFFFF); }
}  // namespace

std::uint64_t WaveformatexBox::getSize() const { return Box::getSize() + 18 + extraSize(extra); }

void WaveformatexBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writeLE16(writer, formatTag);
    writeLE16(writer, channels);
    writeLE32(writer, samplesPerSecond);
    writeLE32(writer, averageBytesPerSecond);
    writeLE16(writer, blockAlign);
    writeLE16(writer, bitsPerSample);
    const std::size_t count = extraSize(extra);
    writeLE16(writer, static_cast<std::uint16_t>(count));
    writer.copyBuffer(extra.data(), count);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::codec_box
