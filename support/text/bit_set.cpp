#include "support/text/bit_set.h"

#include <stdexcept>

namespace tvrn::encoding::bit_rw {

Bit_Set::Bit_Set(std::size_t size) : m_size(size), m_bytes((size + 7) / 8, 0) {}

Bit_Set::Bit_Set(const std::string& bits) : Bit_Set(bits.size()) {
    for (std::size_t i = 0; i < bits.size(); ++i) {
        if (bits[i] != '0' && bits[i] != '1') throw std::runtime_error("Bad Bit_Set input string");
        set(i, bits[i] == '1');
    }
}

bool Bit_Set::get(std::size_t index) const {
    if (index >= m_size) throw std::runtime_error("out of range");
    return (static_cast<unsigned>(m_bytes[index / 8]) >> (7 - index % 8)) & 1u;
}

void Bit_Set::set(std::size_t index, bool value) {
    if (index >= m_size) throw std::runtime_error("out of range");
    const std::uint8_t mask = static_cast<std::uint8_t>(0x80u >> (index % 8));
    if (value)
        m_bytes[index / 8] |= mask;
    else
        m_bytes[index / 8] &= static_cast<std::uint8_t>(~mask);
}

Bit_Set Bit_Set::sub_set(std::size_t position, std::size_t size) const {
    if (position > m_size || size > m_size - position) throw std::runtime_error("invalid sub_set Position or Size");
    Bit_Set out(size);
    for (std::size_t i = 0; i < size; ++i) out.set(i, get(position + i));
    return out;
}

std::string Bit_Set::toString() const {
    std::string text(m_size, '0');
    for (std::size_t i = 0; i < m_size; ++i)
        if (get(i)) text[i] = '1';
    return text;
}

void Bit_Set::requireSameSize(const Bit_Set& other, const char* op) const {
    if (other.m_size != m_size)
        throw std::runtime_error(std::string("Cannot compare 2 Bit_Set with different sizes (") + op + ")");
}

bool Bit_Set::operator==(const Bit_Set& other) const {
    requireSameSize(other, "==");
    return m_bytes == other.m_bytes;
}

Bit_Set& Bit_Set::operator^=(const Bit_Set& other) {
    requireSameSize(other, "^=");
    for (std::size_t i = 0; i < m_bytes.size(); ++i) m_bytes[i] ^= other.m_bytes[i];
    return *this;
}
Bit_Set Bit_Set::operator^(const Bit_Set& other) const {
    requireSameSize(other, "^");
    Bit_Set out(*this);
    for (std::size_t i = 0; i < m_bytes.size(); ++i) out.m_bytes[i] ^= other.m_bytes[i];
    return out;
}
Bit_Set& Bit_Set::operator&=(const Bit_Set& other) {
    requireSameSize(other, "&=");
    for (std::size_t i = 0; i < m_bytes.size(); ++i) m_bytes[i] &= other.m_bytes[i];
    return *this;
}
Bit_Set Bit_Set::operator&(const Bit_Set& other) const {
    requireSameSize(other, "&");
    Bit_Set out(*this);
    for (std::size_t i = 0; i < m_bytes.size(); ++i) out.m_bytes[i] &= other.m_bytes[i];
    return out;
}
Bit_Set& Bit_Set::operator|=(const Bit_Set& other) {
    requireSameSize(other, "|=");
    for (std::size_t i = 0; i < m_bytes.size(); ++i) m_bytes[i] |= other.m_bytes[i];
    return *this;
}
Bit_Set Bit_Set::operator|(const Bit_Set& other) const {
    requireSameSize(other, "|");
    Bit_Set out(*this);
    for (std::size_t i = 0; i < m_bytes.size(); ++i) out.m_bytes[i] |= other.m_bytes[i];
    return out;
}

}  // namespace tvrn::encoding::bit_rw
