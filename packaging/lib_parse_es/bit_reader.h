#pragma once
// A bounds-checked MSB-first bit reader for parameter sets, SEI and slice headers.
// Reading past the end never throws: the reader turns bad and every further read yields 0.
#include <cstddef>
#include <cstdint>

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

class BitReader {
public:
    BitReader(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    bool good() const { return m_good; }
    std::size_t bitPosition() const { return m_bit; }
    std::size_t bytePosition() const { return m_bit >> 3; }
    std::size_t bitsLeft() const { return m_good && m_bit < m_size * 8 ? m_size * 8 - m_bit : 0; }

    // Up to 32 bits.
    std::uint32_t readBits(unsigned count) {
        if (count == 0) return 0;
        if (!m_good || count > 32 || count > bitsLeft()) {
            m_good = false;
            return 0;
        }
        std::uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i) {
            const std::uint8_t byte = m_data[m_bit >> 3];
            value = (value << 1) | ((byte >> (7 - (m_bit & 7))) & 1u);
            ++m_bit;
        }
        return value;
    }
    bool readFlag() { return readBits(1) != 0; }
    std::uint32_t readByte() { return readBits(8); }

    void skipBits(std::size_t count) {
        if (!m_good || count > bitsLeft()) {
            m_good = false;
            return;
        }
        m_bit += count;
    }
    // Moves to a byte position; a position past the end turns the reader bad.
    void seekByte(std::size_t byte) {
        if (!m_good || byte > m_size) {
            m_good = false;
            return;
        }
        m_bit = byte * 8;
    }

    // Unsigned Exp-Golomb. More than 31 leading zeros cannot encode a 32-bit value: the reader turns bad.
    std::uint32_t readUe() {
        unsigned zeros = 0;
        while (m_good && readBits(1) == 0) {
            if (!m_good) return 0;
            if (++zeros > 31) {
                m_good = false;
                return 0;
            }
        }
        if (!m_good) return 0;
        if (zeros == 0) return 0;
        const std::uint64_t value = (std::uint64_t{1} << zeros) - 1 + readBits(zeros);
        if (!m_good || value > 0xFFFFFFFFu) {
            m_good = false;
            return 0;
        }
        return static_cast<std::uint32_t>(value);
    }
    // Signed Exp-Golomb.
    std::int32_t readSe() {
        const std::uint32_t code = readUe();
        const std::int64_t magnitude = (static_cast<std::int64_t>(code) + 1) / 2;
        return static_cast<std::int32_t>((code & 1u) ? magnitude : -magnitude);
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_bit = 0;
    bool m_good = true;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
