#pragma once
// A logger that keeps every message, with its level, its text and its format; safe from any thread, and waited on
// for a line that another thread logs.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "support/log/i_logger.h"
#include "tests/common/waiting.h"

namespace testkit {

class RecordingLogger : public tvrn::log::ILogger {
public:
    void WriteMsg(tvrn::log::LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4))) {
        va_list args;
        va_start(args, format);
        char buffer[4096];
        std::vsnprintf(buffer, sizeof buffer, format, args);
        va_end(args);
        m_entries.update([&](std::vector<Entry>& all) { all.push_back({level, buffer, format}); });
    }
    struct Entry { tvrn::log::LOGLEVEL level; std::string text, format; };
    std::vector<Entry> entries() const { return m_entries.get(); }
    // Each message as "<level> <text>".
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (const Entry& e : entries()) out.push_back(std::to_string(e.level) + " " + e.text);
        return out;
    }
    // Whether the text of a message holds `part`.
    bool mentions(const std::string& part) const {
        const std::vector<Entry> all = entries();
        return std::any_of(all.begin(), all.end(),
                           [&](const Entry& e) { return e.text.find(part) != std::string::npos; });
    }
    bool contains(const std::string& line) const {
        const std::vector<std::string> all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
    // Waits until "<level> <text>" has been logged; false if it never is.
    bool waitFor(const std::string& line) {
        return m_entries.waitFor([&](const std::vector<Entry>& all) {
            return std::any_of(all.begin(), all.end(), [&](const Entry& e) { return std::to_string(e.level) + " " + e.text == line; });
        });
    }

private:
    Guarded<std::vector<Entry>> m_entries;
};

}  // namespace testkit
