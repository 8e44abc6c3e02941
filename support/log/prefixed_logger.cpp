#include "support/log/prefixed_logger.h"

#include <cstdarg>

#include "support/log/format.h"

namespace tvrn::log::prefixed_logger {
inline namespace v0 {

void PrefixedLogger::WriteMsg(LOGLEVEL level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = formatV(format, args);
    va_end(args);
    // The text travels as an argument, so a per cent sign in it is safe at the next stage.
    m_logger->WriteMsg(level, "%s%s", m_prefix.c_str(), text.c_str());
}

}  // namespace v0
}  // namespace tvrn::log::prefixed_logger
