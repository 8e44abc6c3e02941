#include "apps/fmp4mux/cli/console.h"

#include <cstdio>
#include <filesystem>
#include <optional>

#include <unistd.h>

#include "support/log/format.h"

namespace fmp4mux {

namespace {
// On a terminal a line first wipes the progress line it may be written over; into a file or a pipe it adds no
// control characters.
const char* lineStart() {
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    return terminal ? "\r\033[K" : "";
}
constexpr double kProgressLogSeconds = 30;
}  // namespace

bool StderrLogger::sparseMissingChunk(const std::string& text) const {
    const auto at = text.find("output#");
    if (at == std::string::npos || text.find(" : missing chunk detected ") == std::string::npos) return false;
    int output = 0;
    std::size_t i = at + 7;
    for (; i < text.size() && i < at + 12 && text[i] >= '0' && text[i] <= '9'; ++i) output = output * 10 + (text[i] - '0');
    return i > at + 7 && m_sparse.count(output) != 0;
}

void StderrLogger::WriteMsg(tvrn::log::LOGLEVEL level, const char* format, ...) {
    // Only a warning can become a debug line: anything else below the verbosity is not even formatted, but errors,
    // which the run's end may have to name.
    if (static_cast<int>(level) > m_verbosity && level != tvrn::log::LOG_ERROR) return;
    va_list args;
    va_start(args, format);
    const std::string text = tvrn::log::formatV(format, args);
    va_end(args);
    std::lock_guard lock(m_mutex);
    if (level == tvrn::log::LOG_ERROR) {
        ++m_errors;
        m_lastErrors.push_back(text);
        if (m_lastErrors.size() > 8) m_lastErrors.pop_front();
    }
    if (level == tvrn::log::LOG_WARNING && sparseMissingChunk(text)) level = tvrn::log::LOG_DEBUG;
    if (static_cast<int>(level) > m_verbosity) return;
    static constexpr const char* kLabels[] = {"error", "warning", "info", "debug"};
    std::fprintf(stderr, "%sfmp4mux: %s: %s\n", lineStart(), level < 4 ? kLabels[level] : "log", text.c_str());
}

void say(const std::string& text) { std::fprintf(stderr, "fmp4mux: %s\n", text.c_str()); }

void warn(const std::string& text) { std::fprintf(stderr, "%sfmp4mux: warning: %s\n", lineStart(), text.c_str()); }

void showProgress(double mediaSeconds, std::uint64_t chunks, double wallSeconds, std::uint64_t damagedDropped,
                  bool keyServerDown, std::uint64_t packetsLost) {
    // A terminal shows one line, rewritten each time; a log file gets a line of its own when the first chunk is
    // out, then every half minute.
    static std::optional<double> lastLogged;
    const bool terminal = *lineStart() != '\0';
    if (!terminal) {
        if (lastLogged ? wallSeconds - *lastLogged < kProgressLogSeconds : chunks == 0) return;
        lastLogged = wallSeconds;
    }
    std::fprintf(stderr, "%sfmp4mux: %.1f s packaged | %llu chunks | %.1fx real time", lineStart(), mediaSeconds,
                 static_cast<unsigned long long>(chunks), wallSeconds > 0 ? mediaSeconds / wallSeconds : 0.0);
    if (damagedDropped > 0)
        std::fprintf(stderr, " | %llu damaged dropped", static_cast<unsigned long long>(damagedDropped));
    if (packetsLost > 0) std::fprintf(stderr, " | %llu TS packets lost", static_cast<unsigned long long>(packetsLost));
    if (keyServerDown) std::fprintf(stderr, " | key server down, last key kept");
    if (!terminal) std::fputc('\n', stderr);
}

void clearProgress() { std::fputs(lineStart(), stderr); }

namespace {
// A path as a shell reads it back: as it is when it holds only safe characters, else in single quotes.
std::string shellQuoted(const std::string& path) {
    if (!path.empty() && path.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:+@%,") == std::string::npos)
        return path;
    std::string out = "'";
    for (const char c : path) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}
}  // namespace

void showSummary(double mediaSeconds, std::uint64_t chunks, std::uint64_t files, double wallSeconds,
                 const std::string& outputDirectory, const std::string& manifestName, bool dash,
                 const std::string& keyId) {
    const std::string manifest = outputDirectory + "/" + manifestName;
    const char* player = manifestName.ends_with(".m3u8") ? "an HLS player such as hls.js" : "a DASH player such as dash.js";
    std::fprintf(stderr, "fmp4mux: %.1f s of media in %llu chunks (%llu files) in %.2f s, %.1fx real time\n",
                 mediaSeconds, static_cast<unsigned long long>(chunks), static_cast<unsigned long long>(files),
                 wallSeconds, wallSeconds > 0 ? mediaSeconds / wallSeconds : 0.0);
    std::fprintf(stderr, "fmp4mux: the result is in %s; its manifest is %s\n", outputDirectory.c_str(), manifest.c_str());
    if (!keyId.empty())
        std::fprintf(stderr,
                     "fmp4mux: the media is encrypted (key id %s): a player needs its key (for ClearKey, hand\n"
                     "         it to the player, as dash.js's setProtectionData or shaka-player's drm.clearKeys)\n",
                     keyId.c_str());
    if (dash && keyId.empty())
        std::fprintf(stderr,
                     "fmp4mux: play it with: ffplay %s\n"
                     "         or serve the folder (python3 -m http.server -d %s 8000) and open\n"
                     "         http://localhost:8000/%s in %s\n",
                     shellQuoted(std::filesystem::absolute(manifest).lexically_normal().string()).c_str(),
                     shellQuoted(outputDirectory).c_str(), manifestName.c_str(), player);
    else if (dash)
        std::fprintf(stderr,
                     "fmp4mux: serve the folder (python3 -m http.server -d %s 8000) and open\n"
                     "         http://localhost:8000/%s in %s\n",
                     shellQuoted(outputDirectory).c_str(), manifestName.c_str(), player);
    else
        std::fprintf(stderr,
                     "fmp4mux: serve the folder (python3 -m http.server -d %s 8000) and open\n"
                     "         http://localhost:8000/Manifest in a Smooth Streaming player (dash.js with its MSS module)\n",
                     shellQuoted(outputDirectory).c_str());
}

}  // namespace fmp4mux
