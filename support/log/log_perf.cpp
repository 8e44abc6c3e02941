#include "support/log/log_perf.h"

#include <cstdarg>
#include <cstdio>

#include "support/log/format.h"

namespace tvrn::log::log_perf {
inline namespace v3 {

void writeDebugOutput(const char* text) { std::fputs(text, stderr); }

void formatLogBuffer(char* buffer, const char* format, va_list args) {
    formatInto(buffer, kLogBufferSize, format, args);
}

void DummyLogPerf::WriteMsg(LOGLEVEL, const char* format, ...) {
    char buffer[kLogBufferSize];
    va_list args;
    va_start(args, format);
    formatLogBuffer(buffer, format, args);
    va_end(args);
    writeDebugOutput(buffer);
    writeDebugOutput("\n");
}

}  // namespace v3
}  // namespace tvrn::log::log_perf
