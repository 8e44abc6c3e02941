#pragma once
// A logger that keeps every message, with its level, its text and its format; safe from any thread.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "support/log/i_logger.h"

namespace testkit {

class RecordingLogger : public tvrn::log::ILogger {
public:
    void WriteMsg(tvrn::log::LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4))) {
        va_list args;
        va_start(args, format);
        char buffer[4096];
        std::vsnprintf(buffer, sizeof buffer, format, args);
        va_end(args);
        std::lock_guard lock(m_mutex);
        m_entries.push_back({level, buffer, format});
    }
    struct Entry { tvrn::log::LOGLEVEL level; std::string text, format; };
    std::vector<Entry> entries() const {
        std::lock_guard lock(m_mutex);
        return m_entries;
    }
    // Each message as "<level> <text>".
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (const Entry& e : entries()) out.push_back(std::to_string(e.level) + " " + e.text);
        return out;
    }
    bool contains(const std::string& line) const {
        const std::vector<std::string> all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
};

}  // namespace testkit
