#pragma once
// Expected bytes for the box tests, written field by field: hex digits, with 'abcd' for the ASCII bytes
// of a four-character code or a text. Spaces separate fields and are ignored.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "packaging/imff_box/box.h"

namespace box_test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes hex(const std::string& text) {
    Bytes bytes;
    int high = -1;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\'') {
            const std::size_t end = text.find('\'', i + 1);
            if (end == std::string::npos || high >= 0) throw std::invalid_argument("bad quoted text in hex");
            for (std::size_t k = i + 1; k < end; ++k) bytes.push_back(static_cast<std::uint8_t>(text[k]));
            i = end;
            continue;
        }
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
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + v));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hex digits");
    return bytes;
}

inline Bytes zeros(std::size_t count) { return Bytes(count, 0); }

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// One box written alone, through the two-pass write.
inline Bytes write(const std::shared_ptr<tvrn::encoding::packaging::imff::imff_box::Box>& box) {
    return tvrn::encoding::packaging::imff::imff_box::binarizeBoxes({box});
}

// Bytes printed 16 to a line, for failure messages.
inline std::string dumpHex(const Bytes& bytes) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i % 16 == 0) out += "\n";
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
        out += ' ';
    }
    return out;
}

}  // namespace box_test

#define EXPECT_BYTES(actual, expected)                                                           \
    do {                                                                                         \
        const ::box_test::Bytes a_ = (actual);                                                   \
        const ::box_test::Bytes e_ = (expected);                                                 \
        EXPECT_EQ(a_, e_) << "actual:" << ::box_test::dumpHex(a_) << "\nexpected:" << ::box_test::dumpHex(e_); \
    } while (0)
