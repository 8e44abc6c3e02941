#include "apps/fmp4mux/inputs/subtitle_input.h"

#include <fstream>
#include <string_view>
#include <iterator>
#include <stdexcept>

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

}  // namespace

bool SubtitleFileInput::handles(const std::string& path) {
    const std::string extension = extensionOf(path);
    return extension == "vtt" || extension == "srt" || extension == "ttml" || extension == "dfxp";
}

SubtitleFileInput::SubtitleFileInput(const std::string& path, int index, std::vector<std::string>& warnings) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot open " + path);
    std::string data;
    data.resize(kMaxFileBytes + 1);
    file.read(data.data(), static_cast<std::streamsize>(data.size()));
    data.resize(static_cast<std::size_t>(file.gcount()));
    if (data.size() > kMaxFileBytes) throw std::runtime_error(path + ": a subtitle file of more than 64 MiB");
    const std::string extension = extensionOf(path);
    const bool srt = extension == "srt";
    m_ttml = extension == "ttml" || extension == "dfxp";
    CueFile cut = m_ttml ? cutTtml(data, path) : srt ? cutSrt(data, path) : cutWebVtt(data, path);
    for (auto& warning : cut.warnings) warnings.push_back(std::move(warning));
    m_cues = std::move(cut.cues);
    // A stream without a single sample would hold the whole presentation back: such a file offers no stream.
    if (m_cues.empty()) {
        warnings.push_back(path + ": no cue to package; the file is left out");
        return;
    }
    StreamInfo info;
    info.input = index;
    info.sourceIndex = 0;
    info.streamType = m_ttml ? kTtml : kWebVtt;
    info.codec = m_ttml ? "TTML" : srt ? "SRT (as WebVTT)" : "WebVTT";
    info.kind = "text";
    info.bitrate = 1000;
    m_streams.push_back(info);
}

bool SubtitleFileInput::run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) {
    if (m_dropped) return true;
    for (const TextCue& item : withGaps(m_cues, 0, m_maxGap)) {
        if (stop.load()) break;
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
    }
    return true;
}

}  // namespace fmp4mux
