#pragma once
// Opening an input with libavformat and finding its streams, and which of them fmp4mux packages. LibavInput reads
// on with libavformat; TsInput reads an MPEG-TS with fmp4mux's own demultiplexer.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/kept_stream.h"
#include "apps/fmp4mux/inputs/udp_receiver.h"

struct AVDictionary;
struct AVFormatContext;
struct AVIOContext;

namespace fmp4mux {

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

// The streams of `format` (opened, its streams found) that fmp4mux packages, those of one program when it has
// several (`program`, or the first; said through `notes`; a program it does not have raises ExitError). Streams
// of other programs are discarded in `format`; streams it cannot carry are named in `skipped`.
std::vector<KeptStream> keptStreams(AVFormatContext* format, int inputIndex, std::vector<std::string>& skipped,
                                    std::optional<int> program, std::vector<std::string>* notes);

}  // namespace fmp4mux
