#pragma once
// Reads an MPEG-TS with fmp4mux's own demultiplexer. libavformat opens the input (file, udp://, srt://, pipe) and
// finds its streams, so that the stream list, the program chosen and what is said about them are exactly
// LibavInput's; then the bytes it read, and everything after them, go through TsDemux (a local file mapped into
// memory a window at a time, anything else read through libavformat's I/O). Each PES payload is handed
// on where the demultiplexer gathered it, without another copy. Transport packets lost (continuity gaps) and PES
// dropped are counted; a live input goes on after them.
#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/inputs/libav_streams.h"
#include "apps/fmp4mux/inputs/mapped_file.h"
#include "apps/fmp4mux/inputs/ts_demux.h"

namespace fmp4mux {

class TsInput : public Input {
public:
    // `probe` must be a plain MPEG-TS (ProbedInput::plainMpegTs). As LibavInput: an input of several programs gives
    // the streams of one (`program`, or the first; said through `notes`), and streams it cannot carry are named in
    // `skipped`.
    TsInput(std::unique_ptr<ProbedInput> probe, int inputIndex, std::vector<std::string>& skipped,
            std::optional<int> program = std::nullopt, std::vector<std::string>* notes = nullptr);
    ~TsInput() override;
    TsInput(const TsInput&) = delete;
    TsInput& operator=(const TsInput&) = delete;

    const std::vector<StreamInfo>& streams() const override { return m_streams; }
    void drop(std::size_t index) override;
    bool isLive() const override { return m_probe->live(); }
    bool canWait() const override { return m_probe->canWait(); }
    bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) override;
    const std::string& error() const override { return m_error; }
    std::optional<double> keyFrameInterval(double maxSeconds) override;
    std::optional<std::int64_t> firstKeyFrameTime() const override { return m_firstKey; }
    std::uint64_t packetsLost() const override { return m_lost.load(std::memory_order_relaxed); }
    std::uint64_t pesDropped() const override { return m_pesDropped.load(std::memory_order_relaxed); }
    std::string transportReport() const override;

private:
    // One PES or section of a kept stream, as the demultiplexer gave it (90 kHz times).
    struct Unit {
        std::size_t stream = 0;
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        std::vector<std::uint8_t>* buffer = nullptr;  // holding exactly the bytes, which may be taken
        std::optional<std::int64_t> pts, dts, clock;
        bool damaged = false;
        bool discontinuity = false;
        bool ended = false;  // the stream's PID left the program
    };
    struct Held {  // a unit read ahead, with its bytes
        Unit unit;
        std::vector<std::uint8_t> bytes;
    };
    void take(const Unit& unit);
    void deliver(const Unit& unit);
    // Feeds the demultiplexer the next block: the recording first, then the source. False at the end of the input
    // or when reading failed (m_error says why) or stopped.
    bool feed(bool& failed);

    std::unique_ptr<ProbedInput> m_probe;
    std::vector<std::uint8_t> m_recorded;
    std::size_t m_recordedFed = 0;
    std::vector<std::uint8_t> m_block;
    std::unique_ptr<MappedFile> m_mapped;  // a local file, read where the page cache holds it
    TsDemux m_demux;
    std::vector<StreamInfo> m_streams;
    std::vector<KeptStream> m_kept;
    std::vector<bool> m_dropped;
    std::array<int, 8192> m_pidToStream{};  // kept stream by PID, -1 none
    std::deque<Held> m_readAhead;
    KeyFrameMeter* m_meter = nullptr;  // while reading ahead
    bool m_readingAhead = false;
    const std::function<void(Packet&)>* m_onPacket = nullptr;
    std::optional<std::int64_t> m_lastVideoPts;  // 90 kHz
    std::optional<std::int64_t> m_firstKey;
    std::atomic<std::uint64_t> m_lost{0}, m_pesDropped{0};
    std::string m_error;
};

}  // namespace fmp4mux
