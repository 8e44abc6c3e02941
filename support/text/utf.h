#pragma once
// Strict conversion between Unicode code points and UTF-8 or UTF-16LE bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::utf {

class Text;
using UtfException = cpp_utils::exception_utils::ExceptionTemplate<Text>;

// Parsers turn bytes into code points; a malformed sequence raises UtfException with its reason.
class TextParserUTF8 {
public:
    std::vector<char32_t> parse(const std::uint8_t* bytes, std::size_t size) const;
    std::vector<char32_t> parse(const std::string& text) const {
        return parse(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }
};

class TextParserUTF16LE {
public:
    std::vector<char32_t> parse(const std::uint8_t* bytes, std::size_t size) const;
};

// Emitters append the bytes of code points; a value outside Unicode raises "invalid Unicode codepoint".
class TextEmitterUTF8 {
public:
    void emit(char32_t codePoint, std::string& out) const;
    std::string emit(const std::vector<char32_t>& codePoints) const;
};

class TextEmitterUTF16LE {
public:
    void emit(char32_t codePoint, std::vector<std::uint8_t>& out) const;
    std::vector<std::uint8_t> emit(const std::vector<char32_t>& codePoints) const;
};

}  // namespace tvrn::encoding::utf
