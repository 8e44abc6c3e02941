#pragma once
#include <atomic>
#include <cstdarg>
#include <cstddef>

#include "support/log/i_logger.h"

namespace tvrn::log::log_perf {
inline namespace v3 {

// Messages are formatted into a buffer of this size on the stack: longer texts are cut.
inline constexpr std::size_t kLogBufferSize = 260;

// The platform's debug channel: on Linux, standard error.
void writeDebugOutput(const char* text);

// The built-in logger: formats into 260 bytes and writes the text and a line end to the debug output.
// The level is ignored; the counters do nothing.
class DummyLogPerf : public ILogPerf {
public:
    void WriteMsg(LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    void AnnounceBuffer(const char*) override {}
    void ReportBufferFull(const char*) override {}
    void RegisterCounter(const char*) override {}
    void UnregisterCounter(const char*) override {}
    void IncrementCounter(const char*) override {}
    void AddToCounter(const char*, std::int64_t) override {}
    void SetCounter(const char*, std::int64_t) override {}
};

// An ILogPerf whose target can be replaced while in use; by default its own member of type T.
// Messages are cut at 260 bytes here, so the logger chain has a fixed stack use.
// A target that is a plain ILogger receives the messages; the counters then go to the default.
template <typename T>
class SmartLogPerf : public ILogPerf {
public:
    SmartLogPerf() : m_target(&m_default), m_perfTarget(&m_default) {}

    // Null restores the default.
    void SetTarget(i_logger::ILogger* target) {
        if (target == nullptr) {
            m_target.store(&m_default);
            m_perfTarget.store(&m_default);
            return;
        }
        auto* perf = dynamic_cast<ILogPerf*>(target);
        m_perfTarget.store(perf != nullptr ? perf : &m_default);
        m_target.store(target);
    }
    i_logger::ILogger* GetTarget() const { return m_target.load(); }

    void WriteMsg(LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4))) {
        char buffer[kLogBufferSize];
        va_list args;
        va_start(args, format);
        formatIntoBuffer(buffer, format, args);
        va_end(args);
        m_target.load()->WriteMsg(level, "%s", buffer);
    }
    void AnnounceBuffer(const char* name) override { m_perfTarget.load()->AnnounceBuffer(name); }
    void ReportBufferFull(const char* name) override { m_perfTarget.load()->ReportBufferFull(name); }
    void RegisterCounter(const char* name) override { m_perfTarget.load()->RegisterCounter(name); }
    void UnregisterCounter(const char* name) override { m_perfTarget.load()->UnregisterCounter(name); }
    void IncrementCounter(const char* name) override { m_perfTarget.load()->IncrementCounter(name); }
    void AddToCounter(const char* name, std::int64_t v) override { m_perfTarget.load()->AddToCounter(name, v); }
    void SetCounter(const char* name, std::int64_t v) override { m_perfTarget.load()->SetCounter(name, v); }

private:
    static void formatIntoBuffer(char* buffer, const char* format, va_list args);

    T m_default;
    std::atomic<i_logger::ILogger*> m_target;
    std::atomic<ILogPerf*> m_perfTarget;
};

void formatLogBuffer(char* buffer, const char* format, va_list args);

template <typename T>
void SmartLogPerf<T>::formatIntoBuffer(char* buffer, const char* format, va_list args) {
    formatLogBuffer(buffer, format, args);
}

}  // namespace v3
}  // namespace tvrn::log::log_perf
