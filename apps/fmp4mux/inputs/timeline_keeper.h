#pragma once
// Keeps the times of every input on one running timeline across timestamp jumps.
//
// Broadcast inputs jump: two recordings spliced, an encoder restarted, a multiplexer that reset its clock. The
// packager downstream needs times that keep going forward at the pace of the media, so a jump is taken out here,
// before anything is timed, paced or packaged.
//
// A jump is a step of a stream's decode time (presentation time where there is none) backwards by a frame or more,
// or forwards by more than `bound` beyond where its next packet was due. The first stream of an input to see a jump opens an
// "epoch": one offset that moves the times after the jump onto the running timeline, so that this stream's packet
// lands where its next one was due. The other streams of that input adopt the same offset when they reach the
// jump, so audio and video stay in sync; the streams of another input that jumps alike at the same moment (a
// rendition of the same encoder) adopt it too, so renditions stay aligned. A packet that the common offset would
// put behind its stream's last one (a splice whose audio starts before its video) is dropped, and video then waits
// for its next key frame; so is a packet a little behind its stream's last one. Of a packet of audio frames of known
// length that starts before the one before it ended (a loop or splice of the source), the frames that overlap it by
// half a frame or more are cut (all of them: the packet is dropped), so that no two frames take the same time. Gaps smaller than the bound are kept as they are: media that is missing stays missing.
// So are the gaps of one stream that comes back to where the other streams of its input have got: a step forward
// is a jump only when it goes beyond the whole input.
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fmp4mux {

class TimelineKeeper {
public:
    using Log = std::function<void(const std::string&)>;

    // `bound` in 100 ns units; `log` receives one line for each jump an input takes.
    TimelineKeeper(std::int64_t bound, Log log) : m_bound(bound), m_log(std::move(log)) {}

    // Moves the times of one packet (100 ns units) onto the running timeline. False when the packet must be
    // dropped. Safe to call from the reading threads of several inputs. After a `discontinuity` the source
    // signalled, a step of more than a packet from where the packet was due is a jump, however small.
    // `frames`: the audio frames of equal length that the packet's `duration` holds (a PES of several), when known.
    // Those of them that overlap the stream's last packet by half a frame or more are to be cut off its front: their
    // number goes to `cut`, and the times returned are those of the first frame kept (with no `cut`, such a packet
    // is dropped).
    bool place(int input, int stream, bool video, bool key, std::optional<std::int64_t>& pts,
               std::optional<std::int64_t>& dts, std::int64_t duration, bool discontinuity = false, int frames = 0,
               int* cut = nullptr);

    // Moves the times of a sparse stream's packet (SCTE-35 sections, seconds apart) by the offset the input's
    // media currently takes, without judging its steps: a gap between two sections is no jump.
    void follow(int input, std::optional<std::int64_t>& pts, std::optional<std::int64_t>& dts);

    std::uint64_t dropped() const;

    // Moves every time of `input` by `offset` (100 ns units) from its start: renditions of one source whose
    // clocks differ by a little are brought onto the same key-frame times. Before any packet of the input.
    void setInputOffset(int input, std::int64_t offset);

private:
    struct Epoch {
        std::int64_t offset;
        int input;  // the input that opened it
    };
    struct Stream {
        std::size_t epoch = 0;
        std::int64_t last = 0;  // time of the last packet placed, on the running timeline
        std::int64_t step = 0;  // the last forward step between two packets: the expected distance to the next
        std::int64_t due = 0;   // where the next packet is expected
        bool seen = false;
        bool waitForKey = false;
    };

    bool fits(const Stream& s, std::int64_t t) const { return t > s.last - s.step && t <= s.due + m_bound; }
    std::optional<std::size_t> adoptableEpoch(int input, const Stream& s, std::int64_t raw) const;
    void announce(int input, std::size_t epoch, std::int64_t jump, std::int64_t at);

    const std::int64_t m_bound;
    const Log m_log;
    mutable std::mutex m_mutex;
    std::vector<Epoch> m_epochs{{0, -1}};
    std::map<int, std::size_t> m_inputEpoch;             // the epoch an input's new streams start in
    std::map<std::pair<int, int>, Stream> m_streams;
    std::map<int, std::int64_t> m_furthest;              // by input, the latest time placed of any of its streams
    std::map<std::pair<int, std::size_t>, bool> m_told;  // (input, epoch) already logged
    std::uint64_t m_dropped = 0;
};

}  // namespace fmp4mux
