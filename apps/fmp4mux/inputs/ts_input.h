#pragma once
// Reads an MPEG-TS with fmp4mux's own demultiplexer, from a source of bytes: a local file mapped into memory a
// window at a time (its streams found by TsProbe), or an input that libavformat opened and probed (udp://, srt://,
// pipes), whose recorded bytes come first. Each PES payload is handed on where the demultiplexer gathered it,
// without another copy. Transport packets lost (continuity gaps) and PES dropped are counted; a live input goes on
// after them.
#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/byte_pool.h"
#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/inputs/kept_stream.h"
#include "apps/fmp4mux/inputs/mapped_file.h"
#include "apps/fmp4mux/inputs/ts_demux.h"
#include "apps/fmp4mux/inputs/ts_probe.h"

namespace fmp4mux {

// Where a TsInput's bytes come from.
class TsSource {
public:
    virtual ~TsSource() = default;
    enum class Status { Data, Again, End, Failed };
    // The next bytes, valid until the next call: Data with some, Again with none yet (a live source), End, or
    // Failed with `error` saying why.
    virtual Status next(const std::uint8_t*& data, std::size_t& size, std::string& error) = 0;
    virtual bool live() const = 0;
    virtual bool canWait() const = 0;
    // What aborts a blocking read besides the run's interruption, while run() reads.
    virtual void setStop(const std::atomic<bool>* stop) { (void)stop; }
    // What the source's receiver dropped, for the summary ("" when nothing).
    virtual std::string receiverReport() const { return {}; }
};

// A local file, mapped from its start.
class MappedTsSource : public TsSource {
public:
    explicit MappedTsSource(std::unique_ptr<MappedFile> file) : m_file(std::move(file)) {}
    Status next(const std::uint8_t*& data, std::size_t& size, std::string& error) override;
    bool live() const override { return false; }
    bool canWait() const override { return true; }

private:
    std::unique_ptr<MappedFile> m_file;
};

class TsInput : public Input {
public:
    // The streams of `contents` from `source`, the others not gathered.
    TsInput(std::unique_ptr<TsSource> source, TsContents contents);
    ~TsInput() override;
    TsInput(const TsInput&) = delete;
    TsInput& operator=(const TsInput&) = delete;

    const std::vector<StreamInfo>& streams() const override { return m_streams; }
    void drop(std::size_t index) override;
    bool isLive() const override { return m_source->live(); }
    bool canWait() const override { return m_source->canWait(); }
    bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) override;
    const std::string& error() const override { return m_error; }
    std::optional<double> keyFrameInterval(double maxSeconds) override;
    std::optional<std::int64_t> firstKeyFrameTime() const override { return m_firstKey; }
    std::optional<std::int64_t> pictureDuration() const override { return m_pictureDuration; }
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
    // Feeds the demultiplexer the source's next bytes. False at the end of the input or when reading failed
    // (m_error says why) or stopped.
    bool feed(bool& failed);

    std::unique_ptr<TsSource> m_source;
    std::shared_ptr<BytePool> m_buffers = std::make_shared<BytePool>();  // the PES buffers, back from the packager
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
    std::optional<std::int64_t> m_pictureDuration;
    std::atomic<std::uint64_t> m_lost{0}, m_pesDropped{0};
    std::string m_error;
};

}  // namespace fmp4mux
