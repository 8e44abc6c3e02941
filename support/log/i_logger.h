#pragma once
// The logger interface that every component writes to. The host supplies the implementation.
#include <cstdint>

namespace tvrn::log {

// 0 error, 1 warning, 2 information, 3 debug.
using LOGLEVEL = std::uint32_t;
inline constexpr LOGLEVEL LOG_ERROR = 0;
inline constexpr LOGLEVEL LOG_WARNING = 1;
inline constexpr LOGLEVEL LOG_INFO = 2;
inline constexpr LOGLEVEL LOG_DEBUG = 3;

namespace i_logger {
inline namespace v0 {

class ILogger {
public:
    // One message; the format is printf-style and carries no line end.
    virtual void WriteMsg(LOGLEVEL level, const char* format, ...) __attribute__((format(printf, 3, 4))) = 0;
    virtual ~ILogger() = default;
};

}  // namespace v0
}  // namespace i_logger

namespace i_buffer_full_notifier {
inline namespace v0 {

class IBufferFullNotifier {
public:
    virtual void AnnounceBuffer(const char* name) = 0;
    virtual void ReportBufferFull(const char* name) = 0;
    virtual ~IBufferFullNotifier() = default;
};

}  // namespace v0
}  // namespace i_buffer_full_notifier

namespace log_perf {
inline namespace v3 {

// A logger with the counters of a monitoring host. The engine only forwards the counters.
class ILogPerf : public i_logger::ILogger, public i_buffer_full_notifier::IBufferFullNotifier {
public:
    virtual void RegisterCounter(const char* name) = 0;
    virtual void UnregisterCounter(const char* name) = 0;
    virtual void IncrementCounter(const char* name) = 0;
    virtual void AddToCounter(const char* name, std::int64_t value) = 0;
    virtual void SetCounter(const char* name, std::int64_t value) = 0;
};

}  // namespace v3
}  // namespace log_perf

using i_logger::ILogger;

}  // namespace tvrn::log
