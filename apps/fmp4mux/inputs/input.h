#pragma once
// An input of fmp4mux: a source of elementary streams, each packet in the byte form the packager reads, with its
// times in 100 ns units. Readers (libavformat, fmp4mux's own MPEG-TS reader, subtitle files) implement it.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tvrn::encoding::filter {
class ByteRecycler;
}

namespace fmp4mux {

struct StreamInfo {
    int input = 0;          // index of the input on the command line
    int sourceIndex = 0;    // index of the stream in its input
    std::uint32_t streamType = 0xFFFFFFFFu;
    std::string codec;      // codec name, for messages
    std::string kind;       // "video", "audio" or "other"
    std::int64_t bitrate = 0;
    std::string language;
    int width = 0, height = 0;
    int sampleRate = 0, channels = 0;
};

struct Packet {
    std::size_t stream = 0;  // index into Input::streams()
    // The packet's bytes, valid during the callback only: they point into the demuxer's packet, or into
    // `owned` when the packet was rewrapped (raw AAC).
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> owned;
    // Where `owned` goes back once the packager is done with it (optional).
    std::shared_ptr<tvrn::encoding::filter::ByteRecycler> recycler;
    std::optional<std::int64_t> pts;  // 100 ns units
    std::optional<std::int64_t> dts;
    std::int64_t duration = 0;        // 100 ns units, 0 when unknown
    // With `duration`: the audio frames of equal length it holds, when known (sync frames, or a raw AAC frame).
    int frames = 0;
    bool key = false;      // a video access unit a decoder can start at
    bool damaged = false;  // the source lost or broke part of it (a transport continuity error)
    // The source marked its time base as broken since the stream's last packet (the MPEG-TS discontinuity
    // indicator): these times need not follow on from the ones before.
    bool discontinuity = false;
    // No data: the stream ended here, before the input did (its PID left the program). Nothing more of it follows.
    bool ended = false;
    // With `ended`: the stream did not leave, it stopped delivering while the others of its input went on.
    bool silent = false;
};

class Input {
public:
    virtual ~Input() = default;
    virtual const std::vector<StreamInfo>& streams() const = 0;
    // Leaves streams()[index] out of reading, before run(). The stream keeps its place in streams(), so
    // Packet::stream of the others is unchanged.
    virtual void drop(std::size_t index) = 0;
    // A live source: it goes on at its own pace and has no end of its own.
    virtual bool isLive() const = 0;
    // The source keeps its data until it is read (a file, standard input), so the reader may wait for the
    // packager without losing anything; a network input would drop what arrives meanwhile.
    virtual bool canWait() const = 0;
    // Reads to the end (or until `stop`), calling `onPacket` for each packet of a kept stream, with the times the
    // input gives. False when reading failed before the end; error() says why.
    virtual bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) = 0;
    virtual const std::string& error() const = 0;
    // The interval between the key frames of the first video stream, in seconds, measured on what the input
    // holds before run() (at most `maxSeconds` of it, kept to be read again by run()); none when there is no
    // video or fewer than two key frames. Streams whose bitrate was unknown get the one measured on that read.
    virtual std::optional<double> keyFrameInterval(double maxSeconds) {
        (void)maxSeconds;
        return std::nullopt;
    }
    // The presentation time (100 ns units) of that stream's first key frame, once keyFrameInterval() has looked.
    virtual std::optional<std::int64_t> firstKeyFrameTime() const { return std::nullopt; }
    // That stream's picture duration (100 ns units), once keyFrameInterval() has looked.
    virtual std::optional<std::int64_t> pictureDuration() const { return std::nullopt; }
    // Transport packets found missing, and PES left out, so far (an MPEG-TS read by fmp4mux's own reader); read from
    // any thread.
    virtual std::uint64_t packetsLost() const { return 0; }
    virtual std::uint64_t pesDropped() const { return 0; }
    // Subtitle streams in the input: gaps between cues become empty items of at most `maxGap` (100 ns units), and a
    // cue that cannot be packaged is named through `warn`. Inputs without subtitle streams ignore it.
    virtual void setTextHandling(std::int64_t maxGap, std::function<void(const std::string&)> warn) {
        (void)maxGap;
        (void)warn;
    }
    // What else the reader met on the way, for the end of the run ("" when nothing): read after run() returned.
    virtual std::string transportReport() const { return {}; }
};

}  // namespace fmp4mux
