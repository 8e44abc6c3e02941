#pragma once
// What the two readers of media inputs share: opening an input with libavformat and finding its streams, which of
// them fmp4mux packages and in which byte form, the key-frame test on Annex B, and the read-ahead that measures
// the GOP and unknown bitrates. LibavInput reads on with libavformat; TsInput reads MPEG-TS with its own demuxer.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/audio_frames.h"
#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/inputs/udp_receiver.h"

struct AVDictionary;
struct AVFormatContext;
struct AVIOContext;

namespace fmp4mux {

// A source that goes on at its own pace and has no end of its own: a network stream, or standard input ("pipe:0").
bool liveSource(const std::string& source);
// The options a live source is opened with: the size of libavformat's receiving ring of a network stream, and what
// happens when it overflows.
void addLiveOptions(AVDictionary*& options);

// What aborts a blocking open or read: the interruption of the run, or the reader's own stop.
struct InterruptFlags {
    const std::atomic<bool>* interrupt = nullptr;
    const std::atomic<bool>* stop = nullptr;
    static int check(void* self);
};

// An input opened with libavformat through an I/O layer of its own that records the bytes read from the start,
// and its streams found. A reader of our own takes the recording and the source and reads on from there; or
// libavformat reads on (the recording stops).
class ProbedInput {
public:
    // Raises std::runtime_error with a clear message when the input cannot be opened or read.
    ProbedInput(const std::string& url, const std::atomic<bool>* interrupt);
    ~ProbedInput();
    ProbedInput(const ProbedInput&) = delete;
    ProbedInput& operator=(const ProbedInput&) = delete;

    AVFormatContext* format() const { return m_format; }
    // An MPEG-TS of 188-byte packets (not 192 or 204).
    bool plainMpegTs() const;
    bool live() const { return m_live; }
    const std::string& url() const { return m_url; }
    bool canWait() const { return m_canWait; }
    InterruptFlags& flags() { return m_flags; }
    // For a reader of our own: closes the format context, hands over the bytes read so far and leaves the source
    // where they end.
    std::vector<std::uint8_t> takeRecording();
    AVIOContext* source() const { return m_source; }
    // What the UDP receiver dropped, said for the summary ("" when nothing, or not ours).
    std::string receiverReport() const;
    // libavformat reads on: nothing more is recorded.
    void stopRecording();

private:
    void open(const std::string& url, const std::atomic<bool>* interrupt);
    void close();
    static int read(void* self, std::uint8_t* buffer, int size);
    static int readUdp(void* self, std::uint8_t* buffer, int size);
    static std::int64_t seek(void* self, std::int64_t offset, int whence);

    std::string m_url;
    InterruptFlags m_flags;
    std::unique_ptr<UdpReceiver> m_udp;  // a udp:// source received by fmp4mux itself
    AVIOContext* m_source = nullptr;  // the URL's own I/O, or I/O over m_udp
    AVIOContext* m_layer = nullptr;   // what libavformat reads through
    AVFormatContext* m_format = nullptr;
    std::vector<std::uint8_t> m_recorded;
    std::int64_t m_position = 0;
    bool m_recording = true;
    bool m_live = false, m_canWait = true;
};

// A stream of the input that fmp4mux packages, and how its packets become what the packager reads.
struct KeptStream {
    StreamInfo info;
    int sourceIndex = -1;
    int id = 0;                     // the container's id of it: the PID in MPEG-TS
    const char* toAnnexB = nullptr; // the bitstream filter that turns its packets into Annex B
    bool video = false, hevc = false;
    bool adts = false;
    bool rawAac = false;            // raw AAC frames, rewrapped with `asc`
    bool scte35 = false;
    bool webVtt = false, subRip = false;
    std::vector<std::uint8_t> asc;
    std::uint32_t bitrate = 0;
    Framing framing = Framing::None;  // how its packets hold their frames
    LatmTiming latm;                  // LATM: the timing of its last StreamMuxConfig
};

// The streams of `format` (opened, its streams found) that fmp4mux packages, those of one program when it has
// several (`program`, or the first; said through `notes`; a program it does not have raises ExitError). Streams
// of other programs are discarded in `format`; streams it cannot carry are named in `skipped`.
std::vector<KeptStream> keptStreams(AVFormatContext* format, int inputIndex, std::vector<std::string>& skipped,
                                    std::optional<int> program, std::vector<std::string>* notes);

// Whether an Annex B access unit is a random access picture: its first slice is an IDR slice of H.264, an IRAP
// picture of HEVC.
bool annexBRandomAccess(const std::uint8_t* data, std::size_t size, bool hevc);
// Whether a PES of ADTS frames holds whole frames from its first byte to its last.
bool wholeAdtsFrames(const std::uint8_t* data, std::size_t size);
// One SCTE-35 section as the packager takes it, timed by `clock` (90 kHz): the 8-byte big-endian clock value
// (33 bits), then the section.
Packet sectionPacket(std::size_t stream, std::int64_t clock, const std::uint8_t* section, std::size_t size);

// The read-ahead's measures: the interval between the key frames of the first video stream, its first key frame,
// and the rate of each stream from the bytes and times read.
class KeyFrameMeter {
public:
    KeyFrameMeter(std::size_t streams, std::optional<std::size_t> video, double maxSeconds)
        : m_seen(streams), m_video(video), m_maxSeconds(maxSeconds) {}
    // Whether to read another packet.
    bool wantsMore() const { return !m_done && m_keys.size() < 4 && m_bytes < (64u << 20); }
    // One packet read: of kept stream `stream` (none: a stream not packaged), with its decoding time (else its
    // presentation time) in seconds, its presentation time in 100 ns units, and whether it is a key frame
    // (asked of the video stream only).
    template <typename IsKey>
    void add(std::optional<std::size_t> stream, std::size_t bytes, std::optional<double> seconds,
             std::optional<std::int64_t> pts, IsKey isKey) {
        m_bytes += bytes;
        if (stream && seconds) {
            Seen& s = m_seen[*stream];
            s.bytes += bytes;
            if (!s.first) s.first = seconds;
            s.last = seconds;
        }
        if (!stream || stream != m_video || !seconds) return;
        if (!m_first) m_first = seconds;
        if (*seconds - *m_first > m_maxSeconds) {
            m_done = true;
            return;
        }
        if (isKey()) {
            m_keys.push_back(*seconds);
            if (!m_firstKey && pts) m_firstKey = pts;
        }
    }
    // The rates of the streams whose bitrate is unknown, measured on what was read.
    void measureBitrates(std::vector<StreamInfo>& streams) const;
    std::optional<double> interval() const;
    std::optional<std::int64_t> firstKey() const { return m_firstKey; }

private:
    struct Seen {
        std::size_t bytes = 0;
        std::optional<double> first, last;
    };
    std::vector<Seen> m_seen;
    std::optional<std::size_t> m_video;
    double m_maxSeconds;
    std::vector<double> m_keys;
    std::optional<double> m_first;
    std::optional<std::int64_t> m_firstKey;
    std::size_t m_bytes = 0;
    bool m_done = false;
};

}  // namespace fmp4mux
