#pragma once
#include <memory>
#include <ostream>

#include "support/log/i_logger.h"

namespace tvrn::log::ostream_logger {
inline namespace v0 {

// One line per message: a seven-character level label, ": ", the text; flushed at once.
class Logger : public i_logger::ILogger {
public:
    explicit Logger(std::ostream& stream) : m_stream(stream) {}
    void WriteMsg(LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4)));

private:
    std::ostream& m_stream;
};

}  // namespace v0

// Fails with "cannot create ostream logger with null ostream" on a null stream.
std::unique_ptr<i_logger::ILogger> newOstreamLogger(std::ostream* stream);

}  // namespace tvrn::log::ostream_logger
