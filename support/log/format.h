#pragma once
#include <cstdarg>
#include <cstddef>
#include <string>

namespace tvrn::log {

// Formats completely: sized by a first pass with no buffer, so the text is never cut.
std::string formatV(const char* format, va_list args);

// Formats into a fixed buffer of `size` bytes, cutting the text at size - 1 characters.
void formatInto(char* buffer, std::size_t size, const char* format, va_list args);

}  // namespace tvrn::log
