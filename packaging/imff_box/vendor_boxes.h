#pragma once
// The full box holding one 64-bit number ("tnsb", "teoc", "teos") and the live server manifest box.
#include <cstdint>
#include <string>

#include "packaging/imff_box/box.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

class TovraneBoxWith64bitsNumber : public FullBox {
public:
    static constexpr FourCC kNumberSequenceStart = fourCC("tnsb");
    static constexpr FourCC kEndOfChunk = fourCC("teoc");
    static constexpr FourCC kEndOfSegment = fourCC("teos");

    TovraneBoxWith64bitsNumber(FourCC type, std::uint64_t value) : FullBox(type, 0, 0), m_value(value) {}
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + 8; }
    void binarize(ImffBitWriter& writer) const override;
    std::uint64_t getValue() const { return m_value; }

private:
    std::uint64_t m_value;
};

// The server manifest text, without a zero byte or a length: it ends with the box.
class LiveServerManifestBox : public FullBox {
public:
    explicit LiveServerManifestBox(std::string manifest);
    std::uint64_t getSize() const override { return getFullBoxHeaderSize() + m_manifest.size(); }
    void binarize(ImffBitWriter& writer) const override;
    const std::string& getManifest() const { return m_manifest; }

private:
    std::string m_manifest;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
