#pragma once
// Sample entries, the children of stsd that describe one coding format, and the small boxes that the
// generic entries hold. The entries tied to one codec are in codec_box.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packaging/imff_box/box.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

// Layout of every entry: the Box header with any children, 6 reserved bytes, the data reference index,
// the fixed fields of the branch, the configuration boxes, and the protection box last.
class SampleEntry : public Box {
public:
    explicit SampleEntry(FourCC type, std::uint16_t dataReferenceIndex = 1) : Box(type), m_dataReferenceIndex(dataReferenceIndex) {}

    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    virtual void binarizeSampleEntryHeader(ImffBitWriter& writer) const;

    void setDataReferenceIndex(std::uint16_t index) { m_dataReferenceIndex = index; }
    std::uint16_t getDataReferenceIndex() const { return m_dataReferenceIndex; }
    // The protection box ("sinf"); may be null.
    void setProtection(std::shared_ptr<Box> sinf) { m_protection = std::move(sinf); }
    const std::shared_ptr<Box>& getProtection() const { return m_protection; }
    void setName(std::string name) { m_name = std::move(name); }  // not written
    const std::string& getName() const { return m_name; }

protected:
    // What an entry writes between the header and the protection box.
    virtual std::uint64_t getPayloadSize() const { return 0; }
    virtual void binarizePayload(ImffBitWriter&) const {}
    std::uint64_t getProtectionSize() const { return m_protection ? m_protection->getSize() : 0; }

private:
    std::uint16_t m_dataReferenceIndex;
    std::shared_ptr<Box> m_protection;
    std::string m_name;
};

// 70 bytes of fixed fields, then the codec's configuration.
class VisualSampleEntry : public SampleEntry {
public:
    explicit VisualSampleEntry(FourCC type) : SampleEntry(type) {}
    void dump(std::ostream* stream) const override;
    virtual void binarizeSpecific(ImffBitWriter& writer) const;

    std::uint16_t width = 1920;
    std::uint16_t height = 1080;
    std::uint32_t horizontalResolution = 0x480000;  // 72 dpi in 16.16
    std::uint32_t verticalResolution = 0x480000;
    std::uint16_t frameCount = 1;
    // At most 31 bytes: a longer name is written whole and overruns the announced size.
    std::string compressorName;
    std::uint16_t depth = 24;

protected:
    std::uint64_t getPayloadSize() const override { return 70 + getConfigurationSize(); }
    void binarizePayload(ImffBitWriter& writer) const override;
    virtual std::uint64_t getConfigurationSize() const { return 0; }
    virtual void binarizeConfiguration(ImffBitWriter&) const {}
};

// 20 bytes of fixed fields, then the codec's configuration.
class AudioSampleEntry : public SampleEntry {
public:
    explicit AudioSampleEntry(FourCC type, std::uint16_t channels = 6) : SampleEntry(type), channelCount(channels) {}
    void dump(std::ostream* stream) const override;
    virtual void binarizeSpecific(ImffBitWriter& writer) const;

    std::uint16_t channelCount;
    std::uint16_t sampleSize = 16;
    // The integer part of the 16.16 rate; a rate above 65535 is cut.
    std::uint32_t sampleRate = 48000;

protected:
    std::uint64_t getPayloadSize() const override { return 20 + getConfigurationSize(); }
    void binarizePayload(ImffBitWriter& writer) const override;
    virtual std::uint64_t getConfigurationSize() const { return 0; }
    virtual void binarizeConfiguration(ImffBitWriter&) const {}
};

class HintSampleEntry : public SampleEntry {
public:
    HintSampleEntry(FourCC type, std::vector<std::uint8_t> data) : SampleEntry(type), m_data(std::move(data)) {}

protected:
    std::uint64_t getPayloadSize() const override { return m_data.size(); }
    void binarizePayload(ImffBitWriter& writer) const override { writer.copyBuffer(m_data.data(), m_data.size()); }

private:
    std::vector<std::uint8_t> m_data;
};

class PlainTextSampleEntry : public SampleEntry {
public:
    explicit PlainTextSampleEntry(FourCC type) : SampleEntry(type, 0) {}
};

// A box holding one text and its zero byte.
class TextHoldingBox : public Box {
public:
    TextHoldingBox(FourCC type, std::string text) : Box(type), m_text(std::move(text)) {}
    std::uint64_t getSize() const override { return Box::getSize() + m_text.size() + 1; }
    void binarize(ImffBitWriter& writer) const override;
    const std::string& getText() const { return m_text; }

private:
    std::string m_text;
};

class WebVTTConfigurationBox : public TextHoldingBox {
public:
    explicit WebVTTConfigurationBox(std::string config = "WEBVTT") : TextHoldingBox(fourCC("vttC"), std::move(config)) {}
};

class WebVTTSourceLabelBox : public TextHoldingBox {
public:
    explicit WebVTTSourceLabelBox(std::string label) : TextHoldingBox(fourCC("vlab"), std::move(label)) {}
};

class WVTTSampleEntry : public PlainTextSampleEntry {
public:
    explicit WVTTSampleEntry(std::string config = "WEBVTT")
        : PlainTextSampleEntry(fourCC("wvtt")), m_config(std::move(config)) {}
    // With a label set, the size counts the protection box in the label's place and the protection box
    // once more; the two agree only when the label and the protection box have the same size, so callers
    // leave the label unset (an unprotected entry with a label fails its write as out of bounds).
    std::uint64_t getSize() const override;
    void setLabel(std::shared_ptr<WebVTTSourceLabelBox> label) { m_label = std::move(label); }

protected:
    std::uint64_t getPayloadSize() const override { return m_config.getSize(); }
    void binarizePayload(ImffBitWriter& writer) const override;

private:
    WebVTTConfigurationBox m_config;
    std::shared_ptr<WebVTTSourceLabelBox> m_label;
};

// "stpp": namespace, schema location and auxiliary MIME types, each a text with its zero byte.
class XMLSubtitleSampleEntry : public SampleEntry {
public:
    XMLSubtitleSampleEntry(std::string nameSpace, std::string schemaLocation = {}, std::string auxiliaryMimeTypes = {})
        : SampleEntry(fourCC("stpp")),
          m_namespace(std::move(nameSpace)),
          m_schemaLocation(std::move(schemaLocation)),
          m_auxiliaryMimeTypes(std::move(auxiliaryMimeTypes)) {}

protected:
    std::uint64_t getPayloadSize() const override;
    void binarizePayload(ImffBitWriter& writer) const override;

private:
    std::string m_namespace, m_schemaLocation, m_auxiliaryMimeTypes;
};

class DfxpSampleEntry : public SampleEntry {
public:
    DfxpSampleEntry() : SampleEntry(fourCC("dfxp")) {}
};

class FontTableBox : public Box {
public:
    FontTableBox() : Box(fourCC("ftab")) { addFont(1, "Serif"); }
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void clear() { m_fonts.clear(); }
    void addFont(std::uint16_t id, std::string name) { m_fonts.push_back({id, std::move(name)}); }

private:
    struct Font {
        std::uint16_t id;
        std::string name;  // at most 255 bytes: the length is one byte
    };
    std::vector<Font> m_fonts;
};

// "tx3g": 30 bytes of display settings, then the font table.
class TextSampleEntry : public SampleEntry {
public:
    TextSampleEntry() : SampleEntry(fourCC("tx3g")) {}

    std::uint32_t displayFlags = 0;
    std::uint8_t horizontalJustification = 1;
    std::uint8_t verticalJustification = 0xFF;
    std::uint8_t backgroundColour[4] = {0, 0, 0, 0};
    std::uint16_t boxTop = 0, boxLeft = 0, boxBottom = 0, boxRight = 0;
    std::uint16_t startChar = 0, endChar = 0, fontId = 1;
    std::uint8_t styleFlags = 0;
    std::uint8_t fontSize = 18;
    std::uint8_t textColour[4] = {255, 255, 255, 255};
    FontTableBox fontTable;

protected:
    std::uint64_t getPayloadSize() const override { return 30 + fontTable.getSize(); }
    void binarizePayload(ImffBitWriter& writer) const override;
};

class MPEG4BitRateBox : public Box {
public:
    MPEG4BitRateBox(std::uint32_t bufferSize, std::uint32_t maxBitrate, std::uint32_t avgBitrate)
        : Box(fourCC("btrt")), m_bufferSize(bufferSize), m_maxBitrate(maxBitrate), m_avgBitrate(avgBitrate) {}
    std::uint64_t getSize() const override { return Box::getSize() + 12; }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint32_t m_bufferSize, m_maxBitrate, m_avgBitrate;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
