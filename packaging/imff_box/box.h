#pragma once
// The box tree of ISO base media files: every box knows its size, writes itself through an
// ImffBitWriter into one buffer sized beforehand, and prints itself as pseudo-XML for debugging.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

// A four-character code as a big-endian number: the first character is the most significant byte, so
// writing it as 32 bits gives the characters in reading order.
using FourCC = std::uint32_t;
constexpr FourCC fourCC(const char (&code)[5]) {
    return (static_cast<FourCC>(static_cast<std::uint8_t>(code[0])) << 24) |
           (static_cast<FourCC>(static_cast<std::uint8_t>(code[1])) << 16) |
           (static_cast<FourCC>(static_cast<std::uint8_t>(code[2])) << 8) |
           static_cast<FourCC>(static_cast<std::uint8_t>(code[3]));
}
// The four characters in reading order, and last character first (the order some dumps use).
std::string fourCCText(FourCC code);
std::string fourCCTextReversed(FourCC code);

// A UUID as its 16 bytes in writing order.
using Uuid = std::array<std::uint8_t, 16>;

// Writes bits most significant first into a buffer it doesn't own and never grows. Every bit is checked
// against the capacity; bytes entered at an aligned position are cleared first, so a dirty buffer gives
// the same bytes as a zeroed one.
class ImffBitWriter {
public:
    ImffBitWriter(std::uint8_t* buffer, std::uint64_t size) : m_buffer(buffer), m_size(size) {}

    // `width` bits taken from the low 32 bits of `value`, bit index modulo 32: widths above 32 serve to
    // write runs of zeros (or of ones with -1). Width 0 writes nothing.
    void writeBits(std::uint32_t width, std::uint64_t value);
    // The same with all 64 bits of `value` (bit index modulo 64).
    void writeBits64(std::uint32_t width, std::uint64_t value);
    void write64(std::uint64_t value) { writeBits64(64, value); }
    void writeBit(bool flag);
    // A 1 bit, then 0 bits up to the next byte boundary.
    void alignWithStopBit();
    // A plain byte copy; the position must be byte-aligned and the bytes must fit.
    void copyBuffer(const std::uint8_t* bytes, std::size_t count);
    // The place of the next `count` bytes, for a producer that writes them itself; the same checks and the
    // same advance as copyBuffer.
    std::uint8_t* claimBytes(std::size_t count);

    std::uint64_t getPosition() const { return m_position; }  // in bits
    std::uint64_t getBytePosition() const { return m_position / 8; }
    std::uint64_t getCapacity() const { return m_size; }
    std::uint8_t* getBuffer() const { return m_buffer; }

private:
    void writeBitsSlow(std::uint32_t width, std::uint64_t value, std::uint32_t modulo);

    std::uint64_t m_position = 0;
    std::uint8_t* m_buffer;
    std::uint64_t m_size;
};

// Reads bits most significant first. A read that runs past the end returns 0 and leaves the reader
// invalid for good.
class ImffBitReader {
public:
    ImffBitReader(const std::uint8_t* data, std::uint64_t size) : m_valid(size != 0), m_data(data), m_size(size) {}

    std::uint32_t readBits(std::uint32_t count);  // count at most 32
    bool isValid() const { return m_valid; }
    std::uint64_t bitsLeft() const { return m_size * 8 - m_position; }

private:
    bool m_valid;
    const std::uint8_t* m_data;
    std::uint64_t m_size;
    std::uint64_t m_position = 0;
};

void writeFourCC(ImffBitWriter& writer, FourCC code);
// The bytes of the text and one zero byte.
void writeCString(ImffBitWriter& writer, const std::string& text);
void writeUuid(ImffBitWriter& writer, const Uuid& uuid);
// A UUID from its text form "d4807ef2-ca39-4695-8e54-26cb9e46a79f" (hyphens optional).
Uuid uuidFromString(const std::string& text);

class Box {
public:
    explicit Box(FourCC type);
    explicit Box(const Uuid& extendedType);
    // Copies type and extended type only: the copy starts without children.
    Box(const Box& other);
    Box& operator=(const Box&) = delete;

    virtual ~Box() = default;
    // The whole size in bytes, header included. Recomputed on every call.
    virtual std::uint64_t getSize() const;
    virtual void binarize(ImffBitWriter& writer) const;
    // Pseudo-XML for people; a null stream prints nothing.
    virtual void dump(std::ostream* stream) const;

    void addChild(std::shared_ptr<Box> child) { m_children.push_back(std::move(child)); }
    const std::vector<std::shared_ptr<Box>>& getChildren() const { return m_children; }
    FourCC getType() const { return m_type; }
    void setType(FourCC type) { m_type = type; }
    const Uuid& getExtendedType() const { return m_extendedType; }
    // Makes the box a "uuid" box of that extended type.
    void setExtendedType(const Uuid& extendedType);
    bool isUuid() const;

protected:
    // The header written by binarize: size (with the 64-bit form when needed), type, extended type, and
    // then the children.
    void binarizeBoxHeader(ImffBitWriter& writer) const;

private:
    FourCC m_type;
    Uuid m_extendedType{};
    std::vector<std::shared_ptr<Box>> m_children;
};

class FullBox : public Box {
public:
    FullBox(FourCC type, std::uint8_t version, std::uint32_t flags);
    FullBox(const Uuid& extendedType, std::uint8_t version, std::uint32_t flags);

    std::uint64_t getSize() const override = 0;
    void binarize(ImffBitWriter& writer) const override = 0;
    void dump(std::ostream* stream) const override;

    std::uint8_t getVersion() const { return m_version; }
    std::uint32_t getFlags() const { return m_flags; }
    void setVersion(std::uint8_t version) { m_version = version; }
    void setFlags(std::uint32_t flags) { m_flags = flags & 0xFFFFFFu; }

protected:
    // The size of the Box header and children, plus version and flags.
    std::uint64_t getFullBoxHeaderSize() const { return Box::getSize() + 4; }
    // The Box header with its children, then version (8 bits) and flags (24 bits).
    void binarizeFullBoxHeader(ImffBitWriter& writer) const;

private:
    std::uint8_t m_version;
    std::uint32_t m_flags;
};

using BoxList = std::vector<std::shared_ptr<Box>>;

// The two-pass write: sums the sizes, allocates exactly that, writes each box in order.
std::vector<std::uint8_t> binarizeBoxes(const BoxList& boxes);
// The total size of a list of boxes.
std::uint64_t getBoxesSize(const BoxList& boxes);
// Writes one box and, in a debug build, checks the bytes written against getSize, naming the box on a
// mismatch.
void binarizeChecked(const Box& box, ImffBitWriter& writer);

// Reads back the full box that holds one 64-bit number; fails with CorvaneException on a short buffer.
std::uint64_t readBoxWith64bitsNumber(const std::vector<std::uint8_t>& bytes, FourCC* type = nullptr);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
