#pragma once
// Reads one input with libavformat (file, udp://, srt://, or "-" for standard input) and hands out each packet of
// every supported elementary stream in the byte form the packager reads: Annex B for H.264 and HEVC, ADTS or
// LOAS/LATM as the input carries AAC, or the packager's raw AAC packets when the input holds raw AAC frames.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
    std::size_t stream = 0;  // index into Demuxer::streams()
    // The packet's bytes, valid during the callback only: they point into the demuxer's packet, or into
    // `owned` when the packet was rewrapped (raw AAC).
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> owned;
    std::optional<std::int64_t> pts;  // 100 ns units
    std::optional<std::int64_t> dts;
    std::int64_t duration = 0;        // 100 ns units, 0 when unknown
    bool key = false;
};

class Demuxer {
public:
    // Opens the input and reads its stream list. Raises std::runtime_error with a clear message on failure.
    // Streams that the packager cannot carry are reported through `skipped` and left out.
    // `interrupt`, when set, aborts a blocking open or read (a live input that sends nothing).
    Demuxer(const std::string& url, int inputIndex, std::vector<std::string>& skipped,
            const std::atomic<bool>* interrupt = nullptr);
    ~Demuxer();
    Demuxer(const Demuxer&) = delete;
    Demuxer& operator=(const Demuxer&) = delete;

    const std::vector<StreamInfo>& streams() const { return m_streams; }
    // Leaves streams()[index] out of reading, before run(): libavformat discards its packets. The stream keeps its
    // place in streams(), so Packet::stream of the others is unchanged.
    void drop(std::size_t index);
    bool isLive() const { return m_live; }
    // The source keeps its data until it is read (a file, standard input), so the reader may wait for the
    // packager without losing anything; a network input would drop what arrives meanwhile.
    bool canWait() const { return m_canWait; }
    // Reads to the end (or until `stop`), calling `onPacket` for each packet of a kept stream, with the times the
    // input gives. False when reading failed before the end.
    bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop);
    const std::string& error() const { return m_error; }

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    std::vector<StreamInfo> m_streams;
    bool m_live = false;
    bool m_canWait = true;
    std::string m_error;
};

// The packager's raw AAC packet around one AAC frame: marker FF FA FA FA, packet size, average bit rate,
// configuration bit length, AudioSpecificConfig, payload length, payload.
std::vector<std::uint8_t> makeRawAacPacket(const std::vector<std::uint8_t>& audioSpecificConfig,
                                           std::uint32_t averageBitrate, const std::uint8_t* frame,
                                           std::size_t frameSize);

}  // namespace fmp4mux
