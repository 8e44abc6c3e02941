#include "support/text/paths.h"

#include <cctype>

namespace tvrn::encoding::paths {
namespace {

std::vector<std::string> splitComponents(const std::string& text, std::size_t from) {
    std::vector<std::string> parts;
    std::string current;
    for (std::size_t i = from; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '/' || c == '\\') {
            if (!current.empty()) parts.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(c);
        }
    }
    if (!current.empty()) parts.push_back(std::move(current));
    return parts;
}

bool isSeparator(char c) { return c == '/' || c == '\\'; }

std::string joinComponents(const std::vector<std::string>& components) {
    std::string out;
    for (const auto& c : components) {
        out += '/';
        out += c;
    }
    return out;
}

}  // namespace

RelativePath::RelativePath(const std::string& text) : components(splitComponents(text, 0)) {}

AbsolutePath parseAbsolutePath(const std::string& text) {
    if (text.size() >= 2 && std::isalpha(static_cast<unsigned char>(text[0])) && text[1] == ':' &&
        (text.size() == 2 || isSeparator(text[2]))) {
        return AbsolutePath(WindowsDrive{text.substr(0, 1)}, DirectoryPath{splitComponents(text, 2)});
    }
    if (text.size() >= 3 && isSeparator(text[0]) && isSeparator(text[1]) && !isSeparator(text[2])) {
        std::size_t end = 2;
        while (end < text.size() && !isSeparator(text[end])) ++end;
        return AbsolutePath(SmbShare{text.substr(2, end - 2)}, DirectoryPath{splitComponents(text, end)});
    }
    if (!text.empty() && isSeparator(text[0]) && !(text.size() >= 2 && isSeparator(text[1]))) {
        return AbsolutePath(PosixRoot{}, DirectoryPath{splitComponents(text, 1)});
    }
    throw PathException("invalid absolute path:" + text);
}

std::string toString(const AbsolutePath& path) {
    std::string out;
    if (const auto* drive = std::get_if<WindowsDrive>(&path.root)) {
        out = drive->letter + ":";
    } else if (const auto* share = std::get_if<SmbShare>(&path.root)) {
        out = "//" + share->server;
    } else if (path.directory.components.empty()) {
        return "/";
    }
    return out + joinComponents(path.directory.components);
}

std::string toString(const RelativePath& path) {
    std::string out;
    for (const auto& c : path.components) {
        if (!out.empty()) out += '/';
        out += c;
    }
    return out;
}

AbsolutePath parent(const AbsolutePath& path) {
    if (path.directory.components.empty()) throw PathException("cannot get parent of empty directory path");
    AbsolutePath out = path;
    out.directory.components.pop_back();
    return out;
}

RelativePath parent(const RelativePath& path) {
    RelativePath out = path;
    if (out.components.empty() || out.components.back() == "..")
        out.components.push_back("..");
    else
        out.components.pop_back();
    return out;
}

std::string fileName(const AbsolutePath& path) {
    if (path.directory.components.empty()) throw PathException("cannot exctract file name from empty path");
    return path.directory.components.back();
}

std::string fileName(const RelativePath& path) {
    if (path.components.empty()) throw PathException("cannot exctract file name from empty path");
    return path.components.back();
}

AbsolutePath operator+(const AbsolutePath& base, const RelativePath& relative) {
    AbsolutePath out = base;
    for (const auto& c : relative.components) {
        if (c == ".") continue;
        if (c == "..") {
            if (out.directory.components.empty())
                throw PathException("invalid path [" + toString(base) + "/" + toString(relative) + "]");
            out.directory.components.pop_back();
        } else {
            out.directory.components.push_back(c);
        }
    }
    return out;
}

}  // namespace tvrn::encoding::paths
