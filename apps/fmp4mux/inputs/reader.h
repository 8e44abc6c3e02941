#pragma once
// Reads one input on a thread of its own, as a live source would deliver: each packet's times are put on the
// running timeline (timestamp jumps taken out), paced by its time when the input is to be read in real time,
// held back when the input can wait and is too far ahead of what has been packaged, and handed on.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/fmp4mux/inputs/damage_guard.h"
#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/inputs/timeline_keeper.h"

namespace fmp4mux {

// Where a reader hands its packets.
struct PacketDestination {
    std::function<bool(std::size_t stream)> wants;  // the stream is packaged
    // May take the bytes the packet owns (Packet::owned).
    std::function<void(std::size_t stream, Packet& packet)> deliver;
    std::function<void()> endOfStream;  // every stream of the input has ended
    std::function<void(const std::string&)> warn;  // a line for the operator (optional)
};

// How far packaging has got, for a reader that must not run too far ahead of it.
struct PackagingProgress {
    std::function<double()> packagedSeconds;
    // Waits until the chunk count differs from `seen`, or a timeout; the chunk count then.
    std::function<std::uint64_t(std::uint64_t seen, std::chrono::milliseconds timeout)> waitForChunk;
};

struct ReaderSettings {
    bool realtime = false;           // pace by the packets' times
    bool throttle = false;           // wait while too far ahead of the media packaged
    double aheadLimitSeconds = 10;   // how far ahead is too far
    // An audio or video stream that delivers nothing for this long in media time while another of the input
    // goes on is ended (0: never), since the packager would otherwise wait for it for ever and cut nothing more.
    double silenceLimitSeconds = 0;
    // Parameter sets travel in the samples: a video stream whose parameter sets change is followed by players.
    bool inBandParameterSets = false;
};

// The sequence parameter sets of a video stream's key frames (Annex B, H.264 or HEVC), against those of its first:
// an encoder restarted with other settings sends others, which a track that keeps the first ones in its sample
// description cannot follow.
class ParameterSetWatch {
public:
    explicit ParameterSetWatch(bool hevc) : m_hevc(hevc) {}
    // Notes a key frame; true when it carries a sequence parameter set that the first key frame did not, the
    // first time it does (for the first eight such sets).
    bool changed(const std::uint8_t* data, std::size_t size);

private:
    bool m_hevc;
    std::optional<std::vector<std::vector<std::uint8_t>>> m_first;
    std::vector<std::vector<std::uint8_t>> m_told;
};

// The configuration that the ADTS headers of an AAC stream carry (object type, sampling rate, channels) against
// its first frame's: the track's decoder is set up once, from the first, so frames of another (a programme in 5.1
// after one in stereo, an encoder restarted) decode wrongly.
class AdtsFormatWatch {
public:
    // Notes a packet of ADTS frames; the new configuration, as "<channels> channels at <rate> Hz" with the object
    // type when it is not AAC-LC, when its first frame's differs from the first packet's, the first time it does.
    std::optional<std::string> changed(const std::uint8_t* data, std::size_t size);

private:
    std::optional<std::uint32_t> m_first;
    std::vector<std::uint32_t> m_told;
};

// The audio and video streams of one input that fall silent while another goes on. Times are placed times,
// 100 ns units; a stream that has delivered nothing yet counts from the input's first time.
class SilenceWatch {
public:
    SilenceWatch(std::vector<bool> media, std::int64_t limit);
    // Notes a time of `stream`; answers the streams that now lag it by more than the limit, each once until it
    // delivers again.
    std::vector<std::size_t> note(std::size_t stream, std::int64_t time);
    // The stream ended by itself: it is not watched any more.
    void forget(std::size_t stream);

private:
    std::vector<bool> m_media;
    std::vector<bool> m_watched;
    std::vector<std::optional<std::int64_t>> m_last;
    std::optional<std::int64_t> m_first;
    std::int64_t m_limit;
};

class InputReader {
public:
    InputReader(Input& input, int index, TimelineKeeper& timeline, PacketDestination destination,
                PackagingProgress progress, ReaderSettings settings, const std::atomic<bool>& stop);
    ~InputReader();
    InputReader(const InputReader&) = delete;
    InputReader& operator=(const InputReader&) = delete;

    void join();
    // Why reading stopped before the end, if it did; valid after join().
    const std::string& error() const { return m_error; }
    // What was dropped as damaged; readable while the reader runs.
    const DamageGuard& damage() const { return m_damage; }
    // When the reader last handed on a packet (or started), and whether it is still reading: a watchdog can tell
    // an input that has fallen silent.
    std::chrono::steady_clock::time_point lastDelivery() const {
        return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(m_lastDelivery.load()));
    }
    bool reading() const { return m_reading.load(); }

private:
    void run();

    Input& m_input;
    const int m_index;
    TimelineKeeper& m_timeline;
    const PacketDestination m_destination;
    const PackagingProgress m_progress;
    const ReaderSettings m_settings;
    const std::atomic<bool>& m_stop;
    std::string m_error;
    DamageGuard m_damage;
    std::atomic<std::chrono::steady_clock::rep> m_lastDelivery{std::chrono::steady_clock::now().time_since_epoch().count()};
    std::atomic<bool> m_reading{true};
    std::thread m_thread;  // last: starts once everything above exists
};

}  // namespace fmp4mux
