#pragma once
// A fixed number of addressable bits, for codec headers.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tvrn::encoding::bit_rw {

class Bit_Set {
public:
    explicit Bit_Set(std::size_t size);
    // From a text of '0' and '1', first character first; anything else fails with "Bad Bit_Set input string".
    explicit Bit_Set(const std::string& bits);
    virtual ~Bit_Set() = default;

    std::size_t size() const { return m_size; }
    // Index outside the set: "out of range".
    bool get(std::size_t index) const;
    void set(std::size_t index, bool value);
    // Outside the set: "invalid sub_set Position or Size".
    Bit_Set sub_set(std::size_t position, std::size_t size) const;
    std::string toString() const;

    bool operator==(const Bit_Set& other) const;
    Bit_Set operator^(const Bit_Set& other) const;
    Bit_Set& operator^=(const Bit_Set& other);
    Bit_Set operator&(const Bit_Set& other) const;
    Bit_Set& operator&=(const Bit_Set& other);
    Bit_Set operator|(const Bit_Set& other) const;
    Bit_Set& operator|=(const Bit_Set& other);

private:
    void requireSameSize(const Bit_Set& other, const char* op) const;

    std::size_t m_size;
    std::vector<std::uint8_t> m_bytes;
};

}  // namespace tvrn::encoding::bit_rw
