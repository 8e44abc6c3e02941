#include "support/log/ostream_logger.h"

#include <cstdarg>

#include "support/exceptions/corvane_exception.h"
#include "support/log/format.h"

namespace tvrn::log::ostream_logger {
inline namespace v0 {

namespace {
const char* levelLabel(LOGLEVEL level) {
    switch (level) {
        case LOG_ERROR: return "Error  ";
        case LOG_WARNING: return "Warning";
        case LOG_INFO: return "Info   ";
        case LOG_DEBUG: return "Debug  ";
        default: throw CorvaneException("invalid log level");
    }
}
}  // namespace

void Logger::WriteMsg(LOGLEVEL level, const char* format, ...) {
    const char* label = levelLabel(level);
    va_list args;
    va_start(args, format);
    std::string text = formatV(format, args);
    va_end(args);
    m_stream << label << ": " << text << std::endl;
}

}  // namespace v0

std::unique_ptr<i_logger::ILogger> newOstreamLogger(std::ostream* stream) {
    if (stream == nullptr) throw CorvaneException("cannot create ostream logger with null ostream");
    return std::make_unique<Logger>(*stream);
}

}  // namespace tvrn::log::ostream_logger
