#pragma once
// A subtitle file as an input: WebVTT (.vtt), SRT (.srt) or TTML (.ttml, .dfxp), read whole and cut into cues when
// opened. WebVTT and SRT go out as one WebVTT stream, TTML as a TTML stream of one document per paragraph; the
// cues on a timeline that starts at 0 with empty items in the gaps.
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/inputs/subtitle_cues.h"

namespace fmp4mux {

class SubtitleFileInput : public Input {
public:
    // Reads and cuts the file; warnings about bad cues go to `warnings`. Raises std::runtime_error when the file
    // cannot be read.
    SubtitleFileInput(const std::string& path, int index, std::vector<std::string>& warnings);

    // Whether the path names a subtitle file this input reads, by its extension.
    static bool handles(const std::string& path);

    // Gaps are cut into empty items of at most this much (100 ns units): every segment gets a sample.
    void setMaxGap(std::int64_t maxGap) { m_maxGap = maxGap; }

    const std::vector<StreamInfo>& streams() const override { return m_streams; }
    void drop(std::size_t index) override { m_dropped = index == 0 || m_dropped; }
    bool isLive() const override { return false; }
    bool canWait() const override { return true; }
    bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) override;
    const std::string& error() const override { return m_error; }

private:
    std::vector<StreamInfo> m_streams;
    std::vector<TextCue> m_cues;
    std::int64_t m_maxGap = 0;
    bool m_dropped = false;
    bool m_ttml = false;
    std::string m_error;
};

}  // namespace fmp4mux
