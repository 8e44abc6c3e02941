#include "support/log/format.h"

#include <cstdio>

namespace tvrn::log {

std::string formatV(const char* format, va_list args) {
    va_list sizing;
    va_copy(sizing, args);
    const int needed = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    if (needed <= 0) return {};
    std::string text(static_cast<std::size_t>(needed), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

void formatInto(char* buffer, std::size_t size, const char* format, va_list args) {
    if (size == 0) return;
    const int written = std::vsnprintf(buffer, size, format, args);
    if (written < 0) buffer[0] = '\0';
}

}  // namespace tvrn::log
