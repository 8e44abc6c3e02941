#include "support/text/utf.h"

namespace tvrn::encoding::utf {
namespace {
bool isUnicode(char32_t cp) { return cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF); }
}  // namespace

std::vector<char32_t> TextParserUTF8::parse(const std::uint8_t* bytes, std::size_t size) const {
    std::vector<char32_t> out;
    out.reserve(size);
    std::size_t i = 0;
    while (i < size) {
        const std::uint8_t lead = bytes[i++];
        if (lead < 0x80) {
            out.push_back(lead);
            continue;
        }
        if (lead == 0xC0 || lead == 0xC1 || lead >= 0xF5) throw UtfException("invalid utf-8 sequence, invalid character");
        if ((lead & 0xC0) == 0x80) throw UtfException("invalid utf-8 sequence, unexpected continuation byte");
        int continuation;
        char32_t cp;
        if ((lead & 0xE0) == 0xC0) {
            continuation = 1;
            cp = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            continuation = 2;
            cp = lead & 0x0F;
        } else {
            continuation = 3;
            cp = lead & 0x07;
        }
        for (int k = 0; k < continuation; ++k) {
            if (i >= size) throw UtfException("unfinished utf-8 sequence");
            const std::uint8_t next = bytes[i++];
            if ((next & 0xC0) != 0x80) throw UtfException("invalid utf-8 sequence, expected a continuation byte");
            cp = (cp << 6) | (next & 0x3F);
        }
        out.push_back(cp);
    }
    return out;
}

std::vector<char32_t> TextParserUTF16LE::parse(const std::uint8_t* bytes, std::size_t size) const {
    if (size % 2 != 0) throw UtfException("unfinished utf-16 sequence");
    std::vector<char32_t> out;
    out.reserve(size / 2);
    for (std::size_t i = 0; i < size; i += 2) {
        const char32_t unit = static_cast<char32_t>(bytes[i] | (bytes[i + 1] << 8));
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (i + 3 >= size) throw UtfException("unfinished utf-16 sequence");
            const char32_t low = static_cast<char32_t>(bytes[i + 2] | (bytes[i + 3] << 8));
            if (low < 0xDC00 || low > 0xDFFF) throw UtfException("invalid utf-16 sequence, expected a low surrogate");
            out.push_back(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
            i += 2;
        } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
            throw UtfException("invalid utf-16 sequence, unexpected low surrogate");
        } else {
            out.push_back(unit);
        }
    }
    return out;
}

void TextEmitterUTF8::emit(char32_t cp, std::string& out) const {
    if (!isUnicode(cp)) throw UtfException("invalid Unicode codepoint");
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::string TextEmitterUTF8::emit(const std::vector<char32_t>& codePoints) const {
    std::string out;
    for (char32_t cp : codePoints) emit(cp, out);
    return out;
}

void TextEmitterUTF16LE::emit(char32_t cp, std::vector<std::uint8_t>& out) const {
    if (!isUnicode(cp)) throw UtfException("invalid Unicode codepoint");
    auto unit = [&out](char32_t u) {
        out.push_back(static_cast<std::uint8_t>(u & 0xFF));
        out.push_back(static_cast<std::uint8_t>(u >> 8));
    };
    if (cp < 0x10000) {
        unit(cp);
    } else {
        const char32_t v = cp - 0x10000;
        unit(0xD800 + (v >> 10));
        unit(0xDC00 + (v & 0x3FF));
    }
}

std::vector<std::uint8_t> TextEmitterUTF16LE::emit(const std::vector<char32_t>& codePoints) const {
    std::vector<std::uint8_t> out;
    for (char32_t cp : codePoints) emit(cp, out);
    return out;
}

}  // namespace tvrn::encoding::utf
