#include "packaging/kms_clients/secret_masking.h"

#include <algorithm>
#include <cctype>

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace {

constexpr std::string_view kMask = "***";

bool equalNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

bool isSecret(std::string_view name, const std::vector<std::string>& names) {
    return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return equalNoCase(name, n); });
}

bool isNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.' || c == ':';
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view localName(std::string_view qualified) {
    const std::size_t colon = qualified.rfind(':');
    return colon == std::string_view::npos ? qualified : qualified.substr(colon + 1);
}

// The end of a JSON value starting at `at`: past its closing quote or bracket, or at the next , } ] or line end.
std::size_t jsonValueEnd(std::string_view text, std::size_t at) {
    if (at >= text.size()) return at;
    if (text[at] == '"') {
        for (std::size_t i = at + 1; i < text.size(); ++i) {
            if (text[i] == '\\') ++i;
            else if (text[i] == '"') return i + 1;
        }
        return text.size();
    }
    if (text[at] == '{' || text[at] == '[') {
        int depth = 0;
        bool inString = false;
        for (std::size_t i = at; i < text.size(); ++i) {
            const char c = text[i];
            if (inString) {
                if (c == '\\') ++i;
                else if (c == '"') inString = false;
            } else if (c == '"') {
                inString = true;
            } else if (c == '{' || c == '[') {
                ++depth;
            } else if ((c == '}' || c == ']') && --depth == 0) {
                return i + 1;
            }
        }
        return text.size();
    }
    std::size_t i = at;
    while (i < text.size() && text[i] != ',' && text[i] != '}' && text[i] != ']' && text[i] != '\n') ++i;
    while (i > at && isSpace(text[i - 1])) --i;
    return i;
}

// A quoted name followed by a colon: a JSON field. Masks its value; answers where to go on.
std::size_t maskJsonField(std::string_view text, std::size_t quote, const std::vector<std::string>& names,
                          std::string& out) {
    const std::size_t close = text.find('"', quote + 1);
    if (close == std::string_view::npos) return quote;
    std::size_t colon = close + 1;
    while (colon < text.size() && isSpace(text[colon])) ++colon;
    if (colon >= text.size() || text[colon] != ':' || !isSecret(text.substr(quote + 1, close - quote - 1), names))
        return quote;
    std::size_t value = colon + 1;
    while (value < text.size() && isSpace(text[value])) ++value;
    out.append(text.substr(quote, value - quote));
    const bool quoted = value < text.size() && text[value] == '"';
    out.append(quoted ? "\"***\"" : kMask);
    return jsonValueEnd(text, value);
}

// An XML start tag at `open` ('<'): masks secret attributes, and the content of a secret element up to its
// closing tag. Answers where to go on, or `open` when this is not a start tag.
std::size_t maskXmlElement(std::string_view text, std::size_t open, const std::vector<std::string>& names,
                           std::string& out) {
    std::size_t i = open + 1;
    while (i < text.size() && isNameChar(text[i])) ++i;
    const std::string_view qualified = text.substr(open + 1, i - open - 1);
    if (qualified.empty() || (i < text.size() && !isSpace(text[i]) && text[i] != '>' && text[i] != '/')) return open;
    out.append(text.substr(open, i - open));
    // Attributes.
    while (i < text.size() && text[i] != '>') {
        if (text[i] == '"' || text[i] == '\'') {  // a value of an attribute that is not a secret
            const std::size_t end = text.find(text[i], i + 1);
            const std::size_t stop = end == std::string_view::npos ? text.size() : end + 1;
            out.append(text.substr(i, stop - i));
            i = stop;
            continue;
        }
        if (!isNameChar(text[i])) {
            out.push_back(text[i++]);
            continue;
        }
        const std::size_t nameAt = i;
        while (i < text.size() && isNameChar(text[i])) ++i;
        const std::string_view name = text.substr(nameAt, i - nameAt);
        std::size_t eq = i;
        while (eq < text.size() && isSpace(text[eq])) ++eq;
        std::size_t quote = eq + 1;
        while (quote < text.size() && isSpace(text[quote])) ++quote;
        if (eq < text.size() && text[eq] == '=' && quote < text.size() && (text[quote] == '"' || text[quote] == '\'') &&
            isSecret(localName(name), names)) {
            const std::size_t end = text.find(text[quote], quote + 1);
            out.append(text.substr(nameAt, quote + 1 - nameAt));
            out.append(kMask);
            if (end == std::string_view::npos) return text.size();
            out.push_back(text[quote]);
            i = end + 1;
        } else {
            out.append(name);
        }
    }
    if (i >= text.size()) return text.size();
    const bool selfClosing = text[i - 1] == '/';
    out.push_back('>');
    ++i;
    if (selfClosing || !isSecret(localName(qualified), names)) return i;
    const std::string closing = "</" + std::string(qualified);
    std::size_t end = text.find(closing, i);
    while (end != std::string_view::npos && end + closing.size() < text.size() &&
           isNameChar(text[end + closing.size()]))
        end = text.find(closing, end + 1);
    out.append(kMask);
    return end == std::string_view::npos ? text.size() : end;
}

// "Name: value" at the start of a line, for a secret name: the value is masked to the line's end.
std::size_t maskHeaderLine(std::string_view text, std::size_t lineStart, const std::vector<std::string>& names,
                           std::string& out) {
    std::size_t i = lineStart;
    while (i < text.size() && isNameChar(text[i]) && text[i] != ':') ++i;
    if (i == lineStart || i >= text.size() || text[i] != ':' || !isSecret(text.substr(lineStart, i - lineStart), names))
        return lineStart;
    std::size_t value = i + 1;
    while (value < text.size() && (text[value] == ' ' || text[value] == '\t')) ++value;
    std::size_t end = value;
    while (end < text.size() && text[end] != '\r' && text[end] != '\n') ++end;
    out.append(text.substr(lineStart, value - lineStart));
    out.append(kMask);
    return end;
}

// An element of an XML document carried escaped in another's text ("&lt;UserKey&gt;...&lt;/UserKey&gt;"), for a
// secret name: its content is masked up to its escaped closing tag.
std::size_t maskEscapedXmlElement(std::string_view text, std::size_t start, const std::vector<std::string>& names,
                                  std::string& out) {
    constexpr std::string_view open = "&lt;", close = "&gt;";
    if (text.substr(start, open.size()) != open) return start;
    std::size_t i = start + open.size();
    while (i < text.size() && isNameChar(text[i])) ++i;
    const std::string_view name = text.substr(start + open.size(), i - start - open.size());
    if (name.empty() || text.substr(i, close.size()) != close || !isSecret(localName(name), names)) return start;
    i += close.size();
    out.append(text.substr(start, i - start));
    out.append(kMask);
    const std::size_t end = text.find("&lt;/" + std::string(name) + "&gt;", i);
    return end == std::string_view::npos ? text.size() : end;
}

}  // namespace

const std::vector<std::string>& secretNames() {
    static const std::vector<std::string> names = {
        "key",      "contentKey", "keyValue",   "keySeed",   "PlayReadyKeySeed", "encryptionKey", "seed",
        "password", "passwd",     "userKey",    "serverKey", "signingKey",       "signingIv",     "secret", "token",
        "Authorization", "Proxy-Authorization", "Cookie", "Set-Cookie"};
    return names;
}

std::string maskSecrets(std::string_view text, const std::vector<std::string>& names) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t next = i;
        if (i == 0 || text[i - 1] == '\n') next = maskHeaderLine(text, i, names, out);
        if (next == i && text[i] == '<') next = maskXmlElement(text, i, names, out);
        if (next == i && text[i] == '&') next = maskEscapedXmlElement(text, i, names, out);
        if (next == i && text[i] == '"') next = maskJsonField(text, i, names, out);
        if (next == i) {
            out.push_back(text[i]);
            ++next;
        }
        i = next;
    }
    return out;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
