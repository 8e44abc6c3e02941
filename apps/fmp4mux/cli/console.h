#pragma once
// What fmp4mux says on the terminal: the engine's log lines up to the chosen level, the progress line, and the
// summary at the end. Everything goes to standard error; a line that interrupts the progress line clears it.
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>

#include "support/log/i_logger.h"

namespace fmp4mux {

class StderrLogger : public tvrn::log::ILogger {
public:
    explicit StderrLogger(int verbosity) : m_verbosity(verbosity) {}
    void WriteMsg(tvrn::log::LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    // Outputs of sparse streams (subtitles, SCTE-35), and of streams that have ended before the others: a segment
    // without a sample of theirs is their normal state, so the engine's "missing chunk detected" warning of
    // theirs is a debug line here.
    void quietMissingChunks(int output) {
        std::lock_guard lock(m_mutex);
        m_sparse.insert(output);
    }
    // How many errors the engine has reported, whatever the verbosity, and the text of the first after the
    // `seen`th (of the last few kept: the oldest kept when it has gone).
    std::uint64_t errors() const {
        std::lock_guard lock(m_mutex);
        return m_errors;
    }
    std::string errorAfter(std::uint64_t seen) const {
        std::lock_guard lock(m_mutex);
        if (m_lastErrors.empty() || seen >= m_errors) return {};
        const std::uint64_t kept = m_lastErrors.size(), first = m_errors - kept;
        return m_lastErrors[seen > first ? seen - first : 0];
    }

private:
    bool sparseMissingChunk(const std::string& text) const;

    int m_verbosity;
    std::set<int> m_sparse;
    std::uint64_t m_errors = 0;
    std::deque<std::string> m_lastErrors;  // the last few
    mutable std::mutex m_mutex;
};

// One line of the host's own, on a line of its own: "fmp4mux: <text>".
void say(const std::string& text);
// A warning: "fmp4mux: warning: <text>".
void warn(const std::string& text);

// The progress line, rewritten in place; `damagedDropped` counts the frames and packets dropped as damaged,
// `packetsLost` the transport packets the inputs lost.
void showProgress(double mediaSeconds, std::uint64_t chunks, double wallSeconds, std::uint64_t damagedDropped,
                  bool keyServerDown = false, std::uint64_t packetsLost = 0);
void clearProgress();

// Where the result is and how to play it.
void showSummary(double mediaSeconds, std::uint64_t chunks, std::uint64_t files, double wallSeconds,
                 const std::string& outputDirectory, const std::string& manifestName, bool dash,
                 const std::string& keyId = "");

}  // namespace fmp4mux
