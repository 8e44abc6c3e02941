#pragma once
// Thin file helpers for configuration and logs. Failures raise FileException or DriveException
// with the platform's error number where there is one.
#include <cstdint>
#include <string>
#include <vector>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::files {

class File;
class Drive;
using FileException = cpp_utils::exception_utils::ExceptionTemplate<File>;
using DriveException = cpp_utils::exception_utils::ExceptionTemplate<Drive>;

std::vector<std::uint8_t> readFile(const std::string& path);
void writeFile(const std::string& path, const std::uint8_t* data, std::size_t size);
void writeFile(const std::string& path, const std::string& text);
// Replaces the destination in one step when both are on one file system.
void moveFile(const std::string& from, const std::string& to);
// Creates the directory and its missing parents; an existing directory is fine.
void createDirectory(const std::string& path);
void removeFile(const std::string& path);
// Removes a directory and everything in it.
void removeDirectory(const std::string& path);
// The names in a directory, without "." and "..", sorted.
std::vector<std::string> enumerateDirectory(const std::string& path);

// The folder "f0077324-7974-46c1-8f4d-c121507e30e6" under `parent`, created when missing.
std::string temporaryDirectory(const std::string& parent);
// A new empty file "f0077324-7974-46c1-8f4d-c121507e30e6_N" in `directory`, N the first free number.
// No free name: "cannot generate temp file".
std::string makeTemporaryFile(const std::string& directory);

}  // namespace tvrn::encoding::files
