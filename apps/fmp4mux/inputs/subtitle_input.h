#pragma once
// A subtitle file as an input: WebVTT (.vtt), SRT (.srt) or TTML (.ttml, .dfxp). WebVTT and SRT go out as one
// WebVTT stream, TTML as a TTML stream of one document per paragraph; the cues on a timeline that starts at 0
// with empty items in the gaps. A whole file is read and cut when opened; a followed one (a named pipe, or a
// file that another program is still writing) is read as it grows, cue block by cue block, until the media ends.
#include <atomic>
#include <functional>
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

    // A followed file: read from run() on, until `until` is set (the media has ended) or run() is stopped, then to
    // what the file holds at that moment. Warnings go to `warn` as they come. WebVTT and SRT only: a TTML document
    // is whole only at its end. Raises std::runtime_error for TTML.
    struct Follow {
        const std::atomic<bool>* until = nullptr;
        std::function<void(const std::string&)> warn;
    };
    SubtitleFileInput(const std::string& path, int index, Follow follow);

    // Whether the path names a subtitle file this input reads, by its extension.
    static bool handles(const std::string& path);
    // Whether the path is a named pipe, which can only be followed.
    static bool isPipe(const std::string& path);

    // Gaps are cut into empty items of at most this much (100 ns units): every segment gets a sample.
    void setMaxGap(std::int64_t maxGap) { m_maxGap = maxGap; }

    const std::vector<StreamInfo>& streams() const override { return m_streams; }
    void drop(std::size_t index) override { m_dropped = index == 0 || m_dropped; }
    bool isLive() const override { return false; }
    bool canWait() const override { return true; }
    bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) override;
    const std::string& error() const override { return m_error; }

private:
    void describe(int index, bool srt);
    bool follow(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop);
    // Delivers cues (with the gaps before them) from m_covered on; cues that start before it are skipped.
    void deliver(const std::vector<TextCue>& cues, const std::function<void(Packet&)>& onPacket);

    std::string m_path;
    std::vector<StreamInfo> m_streams;
    std::vector<TextCue> m_cues;
    std::int64_t m_maxGap = 0;
    std::int64_t m_covered = 0;  // where the items delivered end
    bool m_dropped = false;
    bool m_ttml = false;
    bool m_srt = false;
    Follow m_follow;
    bool m_following = false;
    std::string m_error;
};

}  // namespace fmp4mux
