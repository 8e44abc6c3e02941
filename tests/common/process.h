#pragma once
// Running a command and reading what it prints, and a temporary folder for the files it reads.
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace testkit {

// Standard output of a shell command; its exit status in `status` when given.
inline std::string run(const std::string& command, int* status = nullptr) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    const int rc = pclose(pipe);
    if (status) *status = rc;
    return output;
}

// The non-empty lines of a text.
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}

template <typename ByteRange>
void writeFile(const std::string& path, const ByteRange& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A folder under /tmp removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/fmp4_test_XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("no temporary folder");
        path = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string path;
};

}  // namespace testkit
