#include "packaging/imff_box/box.h"

#include <cstring>
#include <stdexcept>

#include "packaging/imff_box/fragment_boxes.h"
#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

namespace {
constexpr FourCC kUuid = fourCC("uuid");
constexpr std::uint64_t kMax32 = 0xFFFFFFFFull;

[[noreturn]] void outOfBounds() { throw std::runtime_error("ImffBitWriter: out of bounds"); }
}  // namespace

std::string fourCCText(FourCC code) {
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i) text[static_cast<std::size_t>(i)] = static_cast<char>((code >> (24 - 8 * i)) & 0xFF);
    return text;
}

std::string fourCCTextReversed(FourCC code) {
    std::string text = fourCCText(code);
    return std::string(text.rbegin(), text.rend());
}

// ---------------------------------------------------------------------------------------------------------
// ImffBitWriter

void ImffBitWriter::writeBitsSlow(std::uint32_t width, std::uint64_t value, std::uint32_t modulo) {
    for (std::uint32_t i = 0; i < width; ++i) {
        const std::uint32_t index = (width - 1 - i) % modulo;
        writeBit(((value >> index) & 1u) != 0);
    }
}

void ImffBitWriter::writeBit(bool flag) {
    const std::uint64_t byteIndex = m_position / 8;
    if (byteIndex >= m_size) outOfBounds();
    const unsigned shift = 7 - static_cast<unsigned>(m_position % 8);
    std::uint8_t byte = (m_position % 8 == 0) ? 0 : m_buffer[byteIndex];
    if (flag) {
        byte = static_cast<std::uint8_t>(byte | (1u << shift));
    } else {
        byte = static_cast<std::uint8_t>(byte & ~(1u << shift));
    }
    m_buffer[byteIndex] = byte;
    ++m_position;
}

void ImffBitWriter::writeBits(std::uint32_t width, std::uint64_t value) {
    if (width == 0) return;
    const std::uint32_t low = static_cast<std::uint32_t>(value);
    // Fast path: whole bytes at an aligned position that fit. The bytes are those that the bit-by-bit
    // path would give; anything else (including a write that would fail) takes that path.
    if ((m_position & 7) == 0 && (width & 7) == 0) {
        const std::uint64_t bytes = width / 8;
        const std::uint64_t at = m_position / 8;
        if (at < m_size && bytes <= m_size - at) {
            if (width <= 32) {
                for (std::uint64_t i = 0; i < bytes; ++i) {
                    m_buffer[at + i] = static_cast<std::uint8_t>(low >> (8 * (bytes - 1 - i)));
                }
                m_position += width;
                return;
            }
            if (low == 0 || low == 0xFFFFFFFFu) {
                std::memset(m_buffer + at, low == 0 ? 0 : 0xFF, bytes);
                m_position += width;
                return;
            }
        }
    }
    writeBitsSlow(width, low, 32);
}

void ImffBitWriter::writeBits64(std::uint32_t width, std::uint64_t value) {
    if (width == 0) return;
    if ((m_position & 7) == 0 && (width & 7) == 0 && width <= 64) {
        const std::uint64_t bytes = width / 8;
        const std::uint64_t at = m_position / 8;
        if (at < m_size && bytes <= m_size - at) {
            for (std::uint64_t i = 0; i < bytes; ++i) {
                m_buffer[at + i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
            }
            m_position += width;
            return;
        }
    }
    writeBitsSlow(width, value, 64);
}

void ImffBitWriter::alignWithStopBit() {
    writeBit(true);
    while (m_position % 8 != 0) writeBit(false);
}

std::uint8_t* ImffBitWriter::claimBytes(std::size_t count) {
    if (m_position % 8 != 0) throw std::runtime_error("ImffBitWriter: unaligned call to copy_buffer");
    const std::uint64_t at = m_position / 8;
    if (at > m_size || count > m_size - at) outOfBounds();
    m_position += 8 * static_cast<std::uint64_t>(count);
    return m_buffer + at;
}

void ImffBitWriter::copyBuffer(const std::uint8_t* bytes, std::size_t count) {
    std::uint8_t* place = claimBytes(count);
    if (count > 0) std::memcpy(place, bytes, count);
}

// ---------------------------------------------------------------------------------------------------------
// ImffBitReader

std::uint32_t ImffBitReader::readBits(std::uint32_t count) {
    if (!m_valid) return 0;
    const std::uint64_t end = m_size * 8;
    if (count > end - m_position) {
        // The read runs past the end: its bits are lost.
        m_position = end;
        m_valid = false;
        return 0;
    }
    std::uint32_t value = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t byte = m_data[m_position / 8];
        value = (value << 1) | ((byte >> (7 - m_position % 8)) & 1u);
        ++m_position;
    }
    if (m_position == end) m_valid = false;
    return value;
}

// ---------------------------------------------------------------------------------------------------------
// Helpers

void writeFourCC(ImffBitWriter& writer, FourCC code) { writer.writeBits(32, code); }

void writeCString(ImffBitWriter& writer, const std::string& text) {
    writer.copyBuffer(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    writer.writeBits(8, 0);
}

void writeUuid(ImffBitWriter& writer, const Uuid& uuid) { writer.copyBuffer(uuid.data(), uuid.size()); }

Uuid uuidFromString(const std::string& text) {
    Uuid uuid{};
    std::size_t n = 0;
    int high = -1;
    for (char c : text) {
        int v;
        if (c >= '0' && c <= '9') {
            v = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            v = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            v = c - 'A' + 10;
        } else {
            continue;
        }
        if (high < 0) {
            high = v;
        } else {
            if (n >= uuid.size()) throw CorvaneException("invalid uuid text");
            uuid[n++] = static_cast<std::uint8_t>(high * 16 + v);
            high = -1;
        }
    }
    if (n != uuid.size() || high >= 0) throw CorvaneException("invalid uuid text");
    return uuid;
}

// ---------------------------------------------------------------------------------------------------------
// Box

Box::Box(FourCC type) : m_type(type) {}
Box::Box(const Uuid& extendedType) : m_type(kUuid), m_extendedType(extendedType) {}
Box::Box(const Box& other) : m_type(other.m_type), m_extendedType(other.m_extendedType) {}

bool Box::isUuid() const { return m_type == kUuid; }

void Box::setExtendedType(const Uuid& extendedType) {
    m_type = kUuid;
    m_extendedType = extendedType;
}

std::uint64_t Box::getSize() const {
    std::uint64_t size = isUuid() ? 24 : 8;
    if (!m_children.empty()) {
        for (const auto& child : m_children) size += child->getSize();
        // Only header and children decide on the 64-bit size field.
        if (size > kMax32) size += 8;
    }
    return size;
}

void Box::binarizeBoxHeader(ImffBitWriter& writer) const {
    const std::uint64_t size = getSize();
    const bool large = size > kMax32;
    writer.writeBits(32, large ? 1u : size);
    writeFourCC(writer, m_type);
    if (large) writer.write64(size);
    if (isUuid()) writeUuid(writer, m_extendedType);
    for (const auto& child : m_children) binarizeChecked(*child, writer);
}

void Box::binarize(ImffBitWriter& writer) const { binarizeBoxHeader(writer); }

void Box::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    const std::string type = fourCCText(m_type);
    *stream << "<" << type << "_Box Size=\"" << getSize() << " Type=\"" << type << "\">" << std::endl;
    for (const auto& child : m_children) child->dump(stream);
    *stream << "</" << type << "_Box>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------
// FullBox

FullBox::FullBox(FourCC type, std::uint8_t version, std::uint32_t flags)
    : Box(type), m_version(version), m_flags(flags & 0xFFFFFFu) {}
FullBox::FullBox(const Uuid& extendedType, std::uint8_t version, std::uint32_t flags)
    : Box(extendedType), m_version(version), m_flags(flags & 0xFFFFFFu) {}

void FullBox::binarizeFullBoxHeader(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(8, m_version);
    writer.writeBits(24, m_flags);
}

void FullBox::dump(std::ostream* stream) const {
    if (stream == nullptr) return;
    const std::string type = fourCCText(getType());
    *stream << "<" << type << "_FullBox Size=\"" << getSize() << " Type=\"" << type << "\" Version=\""
            << static_cast<unsigned>(m_version) << "\" Flags=\"" << m_flags << "\"/>" << std::endl;
}

// ---------------------------------------------------------------------------------------------------------
// Writing and reading

void binarizeChecked(const Box& box, ImffBitWriter& writer) {
#ifndef NDEBUG
    const std::uint64_t start = writer.getPosition();
    box.binarize(writer);
    const std::uint64_t written = writer.getPosition() - start;
    std::uint64_t expected = box.getSize() * 8;
    // mdat counts its payload but writes only its header: the payload is copied in behind it.
    if (const auto* mdat = dynamic_cast<const MediaDataBox*>(&box)) expected -= mdat->getPayloadSize() * 8;
    if (written != expected) {
        throw std::logic_error("box " + fourCCText(box.getType()) + " wrote " + std::to_string(written / 8) +
                               " bytes but announced " + std::to_string(expected / 8));
    }
#else
    box.binarize(writer);
#endif
}

std::uint64_t getBoxesSize(const BoxList& boxes) {
    std::uint64_t size = 0;
    for (const auto& box : boxes) size += box->getSize();
    return size;
}

std::vector<std::uint8_t> binarizeBoxes(const BoxList& boxes) {
    std::vector<std::uint8_t> bytes(getBoxesSize(boxes));
    ImffBitWriter writer(bytes.data(), bytes.size());
    for (const auto& box : boxes) binarizeChecked(*box, writer);
    return bytes;
}

std::uint64_t readBoxWith64bitsNumber(const std::vector<std::uint8_t>& bytes, FourCC* type) {
    if (bytes.size() < 20) throw CorvaneException("invalid box size");
    ImffBitReader reader(bytes.data(), bytes.size());
    if (reader.bitsLeft() < 64) throw CorvaneException("full box buffer size is lower than 64 bits");
    reader.readBits(32);  // size: the 64-bit form is not understood
    const FourCC boxType = reader.readBits(32);
    if (type != nullptr) *type = boxType;
    if (boxType == kUuid) {
        if (reader.bitsLeft() < 128) throw CorvaneException("full box buffer (extended) is too small");
        for (int i = 0; i < 4; ++i) reader.readBits(32);
    }
    if (reader.bitsLeft() < 32) throw CorvaneException("full box buffer is too small");
    reader.readBits(8);   // version
    reader.readBits(24);  // flags
    if (reader.bitsLeft() < 64) return 0;
    const std::uint64_t high = reader.readBits(32);
    const std::uint64_t low = reader.readBits(32);
    return (high << 32) | low;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
