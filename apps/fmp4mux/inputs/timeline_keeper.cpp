#include "apps/fmp4mux/inputs/timeline_keeper.h"

#include <cstdio>
#include <cstdlib>

namespace fmp4mux {

namespace {
std::string seconds(std::int64_t t, bool sign) {
    char text[48];
    std::snprintf(text, sizeof text, sign ? "%+.3f s" : "%.3f s", static_cast<double>(t) / 1e7);
    return text;
}
}  // namespace

std::optional<std::size_t> TimelineKeeper::adoptableEpoch(int input, const Stream& s, std::int64_t raw) const {
    // Newer epochs only, those of the stream's own input first: its streams jump together.
    for (int own = 1; own >= 0; --own)
        for (std::size_t e = m_epochs.size(); e-- > s.epoch + 1;)
            if ((m_epochs[e].input == input) == (own == 1) && std::llabs(raw + m_epochs[e].offset - s.due) <= m_bound)
                return e;
    return std::nullopt;
}

void TimelineKeeper::announce(int input, std::size_t epoch, std::int64_t jump, std::int64_t at) {
    if (!m_told.emplace(std::make_pair(input, epoch), true).second || !m_log) return;
    const Epoch& e = m_epochs[epoch];
    m_log("input " + std::to_string(input) + ": timestamps jump by " + seconds(jump, true) + " at " + seconds(at, false) +
          (e.input == input ? "" : ", as input " + std::to_string(e.input) + "'s do") +
          "; the times after it continue the running timeline");
}

bool TimelineKeeper::place(int input, int stream, bool video, bool key, std::optional<std::int64_t>& pts,
                           std::optional<std::int64_t>& dts, std::int64_t duration, bool discontinuity, int frames,
                           int* cut) {
    if (!dts && !pts) return true;  // nothing to move; the packager times it from its neighbours
    std::lock_guard lock(m_mutex);
    Stream& s = m_streams[{input, stream}];
    if (!dts && video) {
        // A picture with a presentation time only (Matroska leaves the decoding time of the first reordered
        // pictures unknown): presentation times go back and forth with reordering, so it decides no jump and
        // follows its stream's timeline.
        *pts += m_epochs[s.seen ? s.epoch : m_inputEpoch[input]].offset;
        return true;
    }
    const std::int64_t raw = dts ? *dts : *pts;
    const auto furthest = m_furthest.find(input);
    if (!s.seen) {
        s.epoch = m_inputEpoch[input];
    } else if (const std::int64_t placed = raw + m_epochs[s.epoch].offset;
               // A stream that comes back after a gap to where the rest of its input has got (an audio encoder
               // that stopped for a while) has a gap, not a jump: only a step beyond the whole input is one.
               !(placed > s.due + m_bound && furthest != m_furthest.end() && placed <= furthest->second + m_bound) &&
               (!fits(s, placed) || (discontinuity && std::llabs(placed - s.due) > std::max<std::int64_t>(s.step, 1)))) {
        const std::int64_t jump = raw + m_epochs[s.epoch].offset - s.due;
        if (const auto e = adoptableEpoch(input, s, raw)) {
            s.epoch = *e;
        } else {
            m_epochs.push_back({s.due - raw, input});
            s.epoch = m_epochs.size() - 1;
        }
        if (m_inputEpoch[input] < s.epoch) m_inputEpoch[input] = s.epoch;
        announce(input, s.epoch, jump, s.due);
    }

    std::int64_t offset = m_epochs[s.epoch].offset;
    std::int64_t t = raw + offset;
    if (cut != nullptr) *cut = 0;
    if (s.seen && frames > 0 && duration > 0 && s.due - t >= duration / frames / 2) {
        // The first frames overlap the last packet's end: those that do by half a frame or more go.
        const std::int64_t frame = duration / frames;
        const std::int64_t overlapping = (s.due - t + frame / 2) / frame;
        if (cut == nullptr || overlapping >= frames) {
            ++m_dropped;
            return false;
        }
        *cut = static_cast<int>(overlapping);
        offset += overlapping * frame;
        t += overlapping * frame;
        duration -= overlapping * frame;
    }
    if (s.seen && t <= s.last) {
        // Behind what this stream already gave: the packager cannot take it. Video waits for a fresh key frame.
        ++m_dropped;
        s.waitForKey = video;
        return false;
    }
    if (s.seen && t - s.last <= m_bound) s.step = t - s.last;
    s.last = t;
    if (const auto [far, fresh] = m_furthest.try_emplace(input, t); !fresh && t > far->second) far->second = t;
    s.due = t + (duration > 0 ? duration : s.step);
    s.seen = true;
    if (s.waitForKey && !key) {
        ++m_dropped;
        return false;
    }
    s.waitForKey = false;
    if (pts) *pts += offset;
    if (dts) *dts += offset;
    return true;
}

void TimelineKeeper::follow(int input, std::optional<std::int64_t>& pts, std::optional<std::int64_t>& dts) {
    std::lock_guard lock(m_mutex);
    const auto known = m_inputEpoch.find(input);
    const std::int64_t offset = m_epochs[known == m_inputEpoch.end() ? 0 : known->second].offset;
    if (pts) *pts += offset;
    if (dts) *dts += offset;
}

void TimelineKeeper::setInputOffset(int input, std::int64_t offset) {
    std::lock_guard lock(m_mutex);
    m_epochs.push_back({offset, input});
    m_inputEpoch[input] = m_epochs.size() - 1;
}

std::uint64_t TimelineKeeper::dropped() const {
    std::lock_guard lock(m_mutex);
    return m_dropped;
}

}  // namespace fmp4mux
