#include "support/text/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace tvrn::encoding::files {
namespace {

constexpr const char* kTempName = "f0077324-7974-46c1-8f4d-c121507e30e6";

std::string withError(const char* format, const std::string& path, int error) {
    char text[1024];
    std::snprintf(text, sizeof text, format, path.c_str(), static_cast<unsigned long>(error));
    return text;
}

}  // namespace

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) throw FileException("could not read file: " + path);
    std::vector<std::uint8_t> bytes;
    std::uint8_t buffer[65536];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) throw FileException("could not read file: " + path);
    return bytes;
}

void writeFile(const std::string& path, const std::uint8_t* data, std::size_t size) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) throw FileException("cannot open for writing " + path);
    const std::size_t written = size > 0 ? std::fwrite(data, 1, size, file) : 0;
    const bool closed = std::fclose(file) == 0;
    if (written != size || !closed) throw FileException("cannot entirely write " + path);
}

void writeFile(const std::string& path, const std::string& text) {
    writeFile(path, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

void moveFile(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) throw FileException("Can't move file " + from + " to " + to);
}

void createDirectory(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error || !std::filesystem::is_directory(path))
        throw DriveException(withError("could not create directory [%s]: Win32 error %lu", path,
                                       error ? error.value() : ENOTDIR));
}

void removeFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0) throw FileException(withError("could not remove file [%s]: Win32 error %lu", path, errno));
}

void removeDirectory(const std::string& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) throw DriveException(withError("could not remove directory [%s]: Win32 error %lu", path, error.value()));
}

std::vector<std::string> enumerateDirectory(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr)
        throw DriveException(withError("could not enumerate the contents of [%s]: Win32 error %lu", path, errno));
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::string temporaryDirectory(const std::string& parent) {
    std::string dir = parent + "/" + kTempName;
    createDirectory(dir);
    return dir;
}

std::string makeTemporaryFile(const std::string& directory) {
    for (unsigned number = 0; number < 100000; ++number) {
        std::string name = directory + "/" + kTempName + "_" + std::to_string(number);
        // O_EXCL makes the test and the creation one step, so two callers never get one name.
        const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd >= 0) {
            ::close(fd);
            return name;
        }
        if (errno != EEXIST) break;
    }
    throw FileException("cannot generate temp file");
}

}  // namespace tvrn::encoding::files
