#pragma once
// Audio sample entries (AAC, AC-3, E-AC-3, AC-4) and their configuration boxes, and the WAVEFORMATEX box.
#include <cstdint>
#include <vector>

#include "packaging/codec_box/dolby_labels.h"
#include "packaging/imff_box/box.h"
#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::codec_box {
inline namespace v0 {

using imff_box::Box;
using imff_box::FullBox;
using imff_box::ImffBitWriter;
using imff_box::fourCC;

// "esds": the ES descriptor of an MPEG-4 audio stream. The lengths of the ES and decoder config
// descriptors are fields: updateLengths sets them from the decoder specific info.
class ESDescriptorBox : public FullBox {
public:
    ESDescriptorBox() : FullBox(fourCC("esds"), 0, 0) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 25 + decoderSpecificInfo.size(); }
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    // Sets the decoder specific info (the AudioSpecificConfig) and both outer lengths to match it.
    void setDecoderSpecificInfo(std::vector<std::uint8_t> info);
    void updateLengths();

    std::uint8_t esDescriptorTag = 3;
    std::uint8_t esLength = 23;
    std::uint16_t esId = 0;
    std::uint8_t esFlags = 0;
    std::uint8_t decoderConfigTag = 4;
    std::uint8_t decoderConfigLength = 15;
    std::uint8_t objectType = 0x40;  // MPEG-4 audio
    std::uint8_t streamTypeByte = 21;  // audio stream, reserved bit set
    std::uint32_t bufferSize = 606;  // 24 bits
    std::uint32_t maxBitrate = 161152;
    std::uint32_t averageBitrate = 157368;
    std::uint8_t decoderSpecificInfoTag = 5;
    std::vector<std::uint8_t> decoderSpecificInfo;  // its length is written as one byte
    std::uint8_t slConfigTag = 6;
    std::uint8_t slConfigLength = 1;
    std::uint8_t slPredefined = 2;
};

// "dac3" (ETSI TS 102 366 F.4).
class AC3SpecificBox : public Box {
public:
    AC3SpecificBox() : Box(fourCC("dac3")) {}
    std::uint64_t getSize() const override { return Box::getSize() + 3; }
    void binarize(ImffBitWriter& writer) const override;

    std::uint8_t fscod = 0;
    std::uint8_t bsid = 8;
    std::uint8_t bsmod = 0;
    std::uint8_t acmod = 0;
    bool lfeon = false;
    std::uint8_t bitRateCode = 0;
};

// "dec3" (ETSI TS 102 366 F.6).
class EC3SpecificBox : public Box {
public:
    struct Substream {
        std::uint8_t fscod = 0;
        std::uint8_t bsid = 16;
        std::uint8_t reservedAsvcBsmod = 0;  // reserved bit, asvc and bsmod as one 5-bit value
        std::uint8_t acmod = 0;
        bool lfeon = false;
        std::uint8_t numDependentSubstreams = 0;
        std::uint16_t channelLocation = 0;  // 9 bits, written when there are dependent substreams
    };

    EC3SpecificBox() : Box(fourCC("dec3")) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    std::uint16_t dataRate = 0;  // 13 bits, kbit/s
    std::vector<Substream> substreams;  // 1 to 8 independent substreams
};

// "dac4": the AC-4 decoder specific information as made by the stream analysis.
class AC4SpecificBox : public Box {
public:
    AC4SpecificBox() : Box(fourCC("dac4")) {}
    std::uint64_t getSize() const override { return Box::getSize() + data.size(); }
    void binarize(ImffBitWriter& writer) const override;

    std::vector<std::uint8_t> data;
};

// "wfex": a Windows WAVEFORMATEX, little-endian. Every field starts as all ones.
class WaveformatexBox : public Box {
public:
    WaveformatexBox() : Box(fourCC("wfex")) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    std::uint16_t formatTag = 0xFFFF;
    std::uint16_t channels = 0xFFFF;
    std::uint32_t samplesPerSecond = 0xFFFFFFFF;
    std::uint32_t averageBytesPerSecond = 0xFFFFFFFF;
    std::uint16_t blockAlign = 0xFFFF;
    std::uint16_t bitsPerSample = 0xFFFF;
    std::vector<std::uint8_t> extra;  // at most 65535 bytes are written
};

class MP4AudioSampleEntry : public imff_box::AudioSampleEntry {
public:
    MP4AudioSampleEntry() : AudioSampleEntry(fourCC("mp4a"), 2) {}
    ESDescriptorBox esds;

protected:
    std::uint64_t getConfigurationSize() const override { return esds.getSize(); }
    void binarizeConfiguration(ImffBitWriter& writer) const override { imff_box::binarizeChecked(esds, writer); }
};

class AC3AudioSampleEntry : public imff_box::AudioSampleEntry {
public:
    AC3AudioSampleEntry() : AudioSampleEntry(fourCC("ac-3"), 2) {}
    // The audio line, the "dac3" box, and the downmix metadata of the stream with its labels.
    void dump(std::ostream* stream) const override;
    AC3SpecificBox dac3;
    DolbyDownmix downmix;  // not written: "dac3" has no room for it

protected:
    std::uint64_t getConfigurationSize() const override { return dac3.getSize(); }
    void binarizeConfiguration(ImffBitWriter& writer) const override { imff_box::binarizeChecked(dac3, writer); }
};

class EC3AudioSampleEntry : public imff_box::AudioSampleEntry {
public:
    EC3AudioSampleEntry() : AudioSampleEntry(fourCC("ec-3"), 2) {}
    // The audio line, the "dec3" box, and the downmix metadata of the first independent substream.
    void dump(std::ostream* stream) const override;
    EC3SpecificBox dec3;
    DolbyDownmix downmix;  // not written

protected:
    std::uint64_t getConfigurationSize() const override { return dec3.getSize(); }
    void binarizeConfiguration(ImffBitWriter& writer) const override { imff_box::binarizeChecked(dec3, writer); }
};

class AC4AudioSampleEntry : public imff_box::AudioSampleEntry {
public:
    AC4AudioSampleEntry() : AudioSampleEntry(fourCC("ac-4"), 2) {}
    AC4SpecificBox dac4;

protected:
    std::uint64_t getConfigurationSize() const override { return dac4.getSize(); }
    void binarizeConfiguration(ImffBitWriter& writer) const override { imff_box::binarizeChecked(dac4, writer); }
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::codec_box
