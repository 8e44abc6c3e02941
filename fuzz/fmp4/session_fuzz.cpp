// A whole session fed with arbitrary bytes: the input is split into buffers of an H.264 stream and an AAC ADTS
// stream, each with times read from the input too. Nothing may crash, hang or leak, whatever the bytes, and every
// chunk the session writes must read back as whole boxes.
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"
#include "packaging/fmp4/output/chunk_reader.h"

namespace {
using namespace tvrn::encoding::packaging::imff::fmp4;

class NullLogger : public tvrn::log::ILogger {
public:
    void WriteMsg(tvrn::log::LOGLEVEL, const char*, ...) override {}
};

class CountingOutput : public IOutputFmp4 {
public:
    bool Write(const std::uint8_t* data, std::size_t size, const std::int64_t*, std::int64_t, bool, bool, bool,
               std::uint64_t) override {
        // Touch the bytes, so that a chunk claiming more than it holds shows under the address sanitizer.
        volatile std::uint8_t sum = 0;
        for (std::size_t i = 0; i < size; i += 4096) sum = static_cast<std::uint8_t>(sum + data[i]);
        if (size > 0) sum = static_cast<std::uint8_t>(sum + data[size - 1]);
        // Whatever the input, what is written reads back: an init chunk's container holds its movie part, and a
        // media chunk is whole boxes to its last byte.
        const ByteView chunk(data, size);
        if (size > 0 && moviePart(chunk).empty() && lastCompleteBox(chunk).empty()) __builtin_trap();
        return true;
    }
    void EndOfStream() override {
        std::lock_guard lock(m_mutex);
        m_ended = true;
        m_cv.notify_all();
    }
    void waitForEnd() {
        std::unique_lock lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::seconds(5), [this] { return m_ended; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_ended = false;
};

struct Reader {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
    std::uint32_t next(std::uint32_t bytes) {
        std::uint32_t v = 0;
        for (std::uint32_t i = 0; i < bytes && at < size; ++i) v = (v << 8) | data[at++];
        return v;
    }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    NullLogger logger;
    CountingOutput video, audio;
    Reader in{data, size};
    const std::uint32_t mode = in.next(1) % 3;
    const auto config = Fmp4MuxConfig::fromMode(mode == 0 ? GopSegments : mode == 1 ? SeparateAudioSegments : GopSegmentsAlt,
                                                1000, 1 + in.next(1) % 3, 1000, 0);
    const bool dash = (in.next(1) & 1) != 0;
    {
        Fmp4Mux mux(dash ? Dash : Smooth, config, nullptr, logger, false, false, false, false, true, Fmp4MuxParts{});
        ElementaryStreamAttributes v;
        v.type = H264_VIDEO;
        v.bitrate = 1000000;
        ElementaryStreamAttributes a;
        a.type = AAC_ADTS_AUDIO;
        a.bitrate = 128000;
        mux.AddStream(0, v);
        mux.AddStream(1, a);
        mux.SetOutputs({ChunkOutputSeed{"", {0}, &video, 1}, ChunkOutputSeed{"", {1}, &audio, 1}});
        std::int64_t clock[2] = {0, 0};
        while (in.at < in.size) {
            // A buffer: which stream, how long, how far its time moves (possibly back), whether it has one.
            const std::uint32_t header = in.next(1);
            const std::uint32_t stream = header & 1;
            const std::uint32_t wanted = in.next(2) % 4096;
            const auto step = static_cast<std::int16_t>(in.next(2));
            const std::size_t length = std::min<std::size_t>(wanted, in.size - in.at);
            clock[stream] += static_cast<std::int64_t>(step) * 1000;
            auto buffer = SimpleMediaData::create(in.data + in.at, length);
            in.at += length;
            if ((header & 2) == 0) {
                const std::int64_t pts = clock[stream] + ((header & 4) ? 800000 : 0);
                buffer->SetTime(&pts, nullptr);
                buffer->SetMediaTime(&clock[stream], &clock[stream]);
            }
            mux.ConsumeSample(stream, buffer.get());
        }
        mux.ConsumeEndOfStream(0);
        mux.ConsumeEndOfStream(1);
        video.waitForEnd();
    }
    return 0;
}
