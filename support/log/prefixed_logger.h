#pragma once
#include <string>

#include "support/log/i_logger.h"

namespace tvrn::log::prefixed_logger {
inline namespace v0 {

// Puts a prefix before every message and passes it on with its level. The wrapped logger is not owned.
class PrefixedLogger : public i_logger::ILogger {
public:
    PrefixedLogger(i_logger::ILogger& logger, std::string prefix) : m_logger(&logger), m_prefix(std::move(prefix)) {}
    void WriteMsg(LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4)));

private:
    i_logger::ILogger* m_logger;
    std::string m_prefix;
};

}  // namespace v0
}  // namespace tvrn::log::prefixed_logger
