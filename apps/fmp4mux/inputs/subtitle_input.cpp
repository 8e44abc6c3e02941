#include "apps/fmp4mux/inputs/subtitle_input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string_view>

namespace fmp4mux {

namespace {

constexpr std::uint32_t kTtml = 18;
constexpr std::uint32_t kWebVtt = 20;
constexpr std::size_t kMaxFileBytes = 64u << 20;

std::string extensionOf(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return {};
    std::string extension = path.substr(dot + 1);
    for (char& c : extension) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return extension;
}

// Where the cue blocks of `text` that are known to be complete end: just past its last blank line (a block ends
// at a blank line; the last block may still grow). 0 when there is none.
std::size_t completeBlocks(std::string_view text) {
    std::size_t end = 0, lineStart = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\n') continue;
        const std::string_view line = text.substr(lineStart, i - lineStart);
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) end = i + 1;
        lineStart = i + 1;
    }
    return end;
}

std::string clock(std::int64_t hundredNs) {
    const std::int64_t ms = hundredNs / 10000;
    char text[48];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%03lld", static_cast<long long>(ms / 3600000),
                  static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60),
                  static_cast<long long>(ms % 1000));
    return text;
}

}  // namespace

bool SubtitleFileInput::handles(const std::string& path) {
    const std::string extension = extensionOf(path);
    return extension == "vtt" || extension == "srt" || extension == "ttml" || extension == "dfxp";
}

bool SubtitleFileInput::isPipe(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
}

SubtitleFileInput::SubtitleFileInput(const std::string& path, int index, std::vector<std::string>& warnings) : m_path(path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot open " + path);
    std::string data;
    data.resize(kMaxFileBytes + 1);
    file.read(data.data(), static_cast<std::streamsize>(data.size()));
    data.resize(static_cast<std::size_t>(file.gcount()));
    if (data.size() > kMaxFileBytes) throw std::runtime_error(path + ": a subtitle file of more than 64 MiB");
    const std::string extension = extensionOf(path);
    m_srt = extension == "srt";
    m_ttml = extension == "ttml" || extension == "dfxp";
    CueFile cut = m_ttml ? cutTtml(data, path) : m_srt ? cutSrt(data, path) : cutWebVtt(data, path);
    for (auto& warning : cut.warnings) warnings.push_back(std::move(warning));
    m_cues = std::move(cut.cues);
    // A stream without a single sample would hold the whole presentation back: such a file offers no stream.
    if (m_cues.empty()) {
        warnings.push_back(path + ": no cue to package; the file is left out");
        return;
    }
    describe(index, m_srt);
}

SubtitleFileInput::SubtitleFileInput(const std::string& path, int index, Follow follow)
    : m_path(path), m_follow(std::move(follow)), m_following(true) {
    const std::string extension = extensionOf(path);
    if (extension == "ttml" || extension == "dfxp")
        throw std::runtime_error(path + ": a TTML file can only be read whole, not followed as it grows");
    if (::access(path.c_str(), R_OK) != 0) throw std::runtime_error("cannot open " + path);
    m_srt = extension == "srt";
    describe(index, m_srt);
}

void SubtitleFileInput::describe(int index, bool srt) {
    StreamInfo info;
    info.input = index;
    info.sourceIndex = 0;
    info.streamType = m_ttml ? kTtml : kWebVtt;
    info.codec = m_ttml ? "TTML" : srt ? "SRT (as WebVTT)" : "WebVTT";
    info.kind = "text";
    info.bitrate = 1000;
    m_streams.push_back(info);
}

void SubtitleFileInput::deliver(const std::vector<TextCue>& cues, const std::function<void(Packet&)>& onPacket) {
    std::vector<TextCue> kept;
    for (const TextCue& cue : cues) {
        const std::int64_t covered = kept.empty() ? m_covered : kept.back().end;
        if (cue.start >= covered) {
            kept.push_back(cue);
        } else if (cue.end > covered && kept.empty()) {
            // Begun before what is packaged ends: shown for the rest of its time.
            kept.push_back(cue);
            kept.back().start = covered;
        } else if (m_follow.warn) {
            m_follow.warn(m_path + ": a cue at " + clock(cue.start) + " starts before the cues already packaged end (" +
                          clock(covered) + "); the cue is skipped");
        }
    }
    for (const TextCue& item : withGaps(kept, m_covered, m_maxGap)) {
        Packet packet;
        packet.stream = 0;
        // A gap is an empty cue in WebVTT, a document without paragraphs in TTML.
        const std::string_view bytes = m_ttml && item.item.empty() ? std::string_view(kEmptyTtmlDocument) : item.item;
        packet.data = reinterpret_cast<const std::uint8_t*>(bytes.data());
        packet.size = bytes.size();
        packet.pts = item.start;
        packet.dts = item.start;
        packet.duration = item.end - item.start;
        packet.key = true;  // each item is one cue
        onPacket(packet);
        m_covered = item.end;
    }
}

bool SubtitleFileInput::run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) {
    if (m_dropped) return true;
    if (m_following) return follow(onPacket, stop);
    for (const TextCue& cue : m_cues) {
        if (stop.load()) break;
        deliver({cue}, onPacket);
    }
    return true;
}

bool SubtitleFileInput::follow(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) {
    // Not blocking: a pipe with no writer yet, or a file at its current end, is simply looked at again later.
    const int fd = ::open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        m_error = "cannot open " + m_path;
        return false;
    }
    const bool pipe = isPipe(m_path);
    std::string pending;
    std::size_t nextLine = 1;
    char buffer[65536];
    bool ok = true;
    for (;;) {
        // Taken before reading: what was written before the media ended is read.
        const bool last = stop.load() || (m_follow.until != nullptr && m_follow.until->load());
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n > 0) {
                pending.append(buffer, static_cast<std::size_t>(n));
                if (pending.size() > kMaxFileBytes) break;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            break;  // the end for now, or nothing yet
        }
        if (pending.size() > kMaxFileBytes) {
            m_error = m_path + ": more than 64 MiB without a blank line";
            ok = false;
            break;
        }
        const std::size_t complete = last ? pending.size() : completeBlocks(pending);
        if (complete > 0) {
            const std::string_view part(pending.data(), complete);
            const FilePart where{nextLine, false};
            CueFile cut = m_srt ? cutSrt(part, m_path, where) : cutWebVtt(part, m_path, where);
            for (const auto& warning : cut.warnings)
                if (m_follow.warn) m_follow.warn(warning);
            deliver(cut.cues, onPacket);
            for (const char c : part) nextLine += c == '\n' ? 1 : 0;
            pending.erase(0, complete);
        }
        if (last) break;
        // A pipe wakes this up when written to; a file at its end reads as readable, so it is looked at every
        // 100 ms, as is a pipe whose writer has left (it reads as hung up until the next writer comes).
        pollfd wait{fd, POLLIN, 0};
        if (!pipe || (::poll(&wait, 1, 100) > 0 && (wait.revents & POLLIN) == 0)) ::usleep(100000);
    }
    ::close(fd);
    return ok;
}

}  // namespace fmp4mux
