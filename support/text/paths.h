#pragma once
// Parsed path values, freely copied. Both '/' and '\' separate components on input; '/' is written.
#include <string>
#include <variant>
#include <vector>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::paths {

class Path;
using PathException = cpp_utils::exception_utils::ExceptionTemplate<Path>;

struct WindowsDrive {
    std::string letter;
    bool operator==(const WindowsDrive&) const = default;
};
struct SmbShare {
    std::string server;
    bool operator==(const SmbShare&) const = default;
};
// The root of a POSIX file system: "/".
struct PosixRoot {
    bool operator==(const PosixRoot&) const = default;
};

struct DirectoryPath {
    std::vector<std::string> components;
    bool operator==(const DirectoryPath&) const = default;
};

struct RelativePath {
    RelativePath() = default;
    // Parsed from a text such as "a/b" or "..".
    explicit RelativePath(const std::string& text);
    std::vector<std::string> components;
    bool operator==(const RelativePath&) const = default;
};

struct AbsolutePath {
    AbsolutePath() = default;
    AbsolutePath(std::variant<WindowsDrive, SmbShare, PosixRoot> rootPart, DirectoryPath directoryPart)
        : root(std::move(rootPart)), directory(std::move(directoryPart)) {}
    std::variant<WindowsDrive, SmbShare, PosixRoot> root{PosixRoot{}};
    DirectoryPath directory;
    bool operator==(const AbsolutePath&) const = default;
};

// "D:", "D:\", "//server/...", "c:/a/b", "/a/b". Anything else: "invalid absolute path:" with the text.
AbsolutePath parseAbsolutePath(const std::string& text);

std::string toString(const AbsolutePath& path);
std::string toString(const RelativePath& path);

// Without components: "cannot get parent of empty directory path".
AbsolutePath parent(const AbsolutePath& path);
// parent(RelativePath()) is "..".
RelativePath parent(const RelativePath& path);

// Of an empty path: "cannot exctract file name from empty path".
std::string fileName(const AbsolutePath& path);
std::string fileName(const RelativePath& path);

// ".." removes a component; going past the root fails.
AbsolutePath operator+(const AbsolutePath& base, const RelativePath& relative);

}  // namespace tvrn::encoding::paths
