#pragma once
// The sample-level boxes of WebVTT in ISO files: a cue ("vttc") with its optional parts and its payload, and the
// empty cue ("vtte") that fills the gaps between cues. The text boxes hold their text followed by a zero byte; for
// players the text is the ISO WebVTT boxstring that ends with the box (players show a zero byte as part of the cue).
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

class BoxStringBox : public Box {
public:
    BoxStringBox(FourCC type, std::string text, bool zeroTerminated = true)
        : Box(type), m_text(std::move(text)), m_zeroTerminated(zeroTerminated) {}
    std::uint64_t getSize() const override { return Box::getSize() + m_text.size() + (m_zeroTerminated ? 1 : 0); }
    void binarize(ImffBitWriter& writer) const override;
    const std::string& getText() const { return m_text; }

private:
    std::string m_text;
    bool m_zeroTerminated;
};

class CueSourceIDBox : public Box {
public:
    explicit CueSourceIDBox(std::uint32_t sourceId) : Box(fourCC("vsid")), m_sourceId(sourceId) {}
    std::uint64_t getSize() const override { return Box::getSize() + 4; }
    void binarize(ImffBitWriter& writer) const override;

private:
    std::uint32_t m_sourceId;
};

class CueTimeBox : public BoxStringBox {
public:
    explicit CueTimeBox(std::string text) : BoxStringBox(fourCC("ctim"), std::move(text)) {}
};

class CueIDBox : public BoxStringBox {
public:
    explicit CueIDBox(std::string text) : BoxStringBox(fourCC("iden"), std::move(text)) {}
};

class CueSettingsBox : public BoxStringBox {
public:
    explicit CueSettingsBox(std::string text, bool zeroTerminated = true)
        : BoxStringBox(fourCC("sttg"), std::move(text), zeroTerminated) {}
};

class CuePayloadBox : public BoxStringBox {
public:
    explicit CuePayloadBox(std::string text, bool zeroTerminated = true)
        : BoxStringBox(fourCC("payl"), std::move(text), zeroTerminated) {}
};

class VTTAdditionalTextBox : public BoxStringBox {
public:
    explicit VTTAdditionalTextBox(std::string text) : BoxStringBox(fourCC("vtta"), std::move(text)) {}
};

class VTTEmptyCueBox : public Box {
public:
    VTTEmptyCueBox() : Box(fourCC("vtte")) {}
};

// The optional boxes go out in the order they were added, and the payload always last.
class VTTCueBox : public Box {
public:
    explicit VTTCueBox(std::string cueText, bool zeroTerminated = true)
        : Box(fourCC("vttc")), m_payload(std::move(cueText), zeroTerminated) {}
    void addOptional(std::shared_ptr<Box> box) { m_optional.push_back(std::move(box)); }
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

private:
    std::vector<std::shared_ptr<Box>> m_optional;
    CuePayloadBox m_payload;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
