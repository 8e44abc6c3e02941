#pragma once
// Bytes written field by field for expected values: hex digits, with 'abcd' for the ASCII bytes of a
// four-character code or a text; spaces separate fields and are ignored. Big-endian reads, and a hex dump
// for failure messages; text found in order.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace testkit {

using Bytes = std::vector<std::uint8_t>;

// The message of the exception of type E that `f` throws, or "no failure"; another type goes through.
template <typename E = std::exception, typename F>
std::string failureOf(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "no failure";
}

inline Bytes hex(const std::string& text) {
    Bytes bytes;
    int high = -1;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\'') {
            const std::size_t end = text.find('\'', i + 1);
            if (end == std::string::npos || high >= 0) throw std::invalid_argument("bad quoted text in hex");
            bytes.insert(bytes.end(), text.begin() + static_cast<std::ptrdiff_t>(i + 1),
                         text.begin() + static_cast<std::ptrdiff_t>(end));
            i = end;
            continue;
        }
        int v = -1;
        if (c >= '0' && c <= '9') v = c - '0';
        if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
        if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
        if (v < 0) continue;
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

// The parts one after the other.
inline Bytes cat(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// Bytes [from, from + size) of `bytes`.
inline Bytes slice(const Bytes& bytes, std::size_t from, std::size_t size) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(from + size));
}

inline std::uint32_t be16(const std::uint8_t* p) { return static_cast<std::uint32_t>(p[0] << 8 | p[1]); }
inline std::uint32_t be32(const std::uint8_t* p) { return be16(p) << 16 | be16(p + 2); }
inline std::uint64_t be64(const std::uint8_t* p) { return std::uint64_t{be32(p)} << 32 | be32(p + 4); }

// Bytes as lower-case hexadecimal text; with `line`, a space after each byte and `line` bytes to a line.
inline std::string hexText(const Bytes& bytes, std::size_t line = 0) {
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (line != 0 && i % line == 0) out += "\n";
        out += "0123456789abcdef"[bytes[i] >> 4];
        out += "0123456789abcdef"[bytes[i] & 15];
        if (line != 0) out += ' ';
    }
    return out;
}
// Each of `parts` in `text`, one after the other.
inline void expectInOrder(const std::string& text, const std::vector<std::string>& parts) {
    std::size_t at = 0;
    for (const std::string& part : parts) {
        const std::size_t found = text.find(part, at);
        EXPECT_NE(found, std::string::npos) << "missing after byte " << at << ": " << part << "\nin\n" << text;
        if (found != std::string::npos) at = found + part.size();
    }
}

// Bytes printed 16 to a line, for failure messages.
inline std::string dumpHex(const Bytes& bytes) { return hexText(bytes, 16); }

}  // namespace testkit

#define EXPECT_BYTES(actual, expected)                                                                      \
    do {                                                                                                    \
        const ::testkit::Bytes a_ = (actual);                                                               \
        const ::testkit::Bytes e_ = (expected);                                                             \
        EXPECT_EQ(a_, e_) << "actual:" << ::testkit::dumpHex(a_) << "\nexpected:" << ::testkit::dumpHex(e_); \
    } while (0)
