#pragma once
// Reads one input with libavformat (file, udp://, srt://, or "-" for standard input) and hands out each packet of
// every supported elementary stream in the byte form the packager reads: Annex B for H.264 and HEVC, ADTS or
// LOAS/LATM as the input carries AAC, or the packager's raw AAC packets when the input holds raw AAC frames.
#include <functional>
#include <memory>
#include <string>

#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/libav/libav_streams.h"

namespace fmp4mux {

class LibavInput : public Input {
public:
    // Opens the input and reads its stream list. Raises std::runtime_error with a clear message on failure.
    // Streams that the packager cannot carry are reported through `skipped` and left out.
    // `interrupt`, when set, aborts a blocking open or read (a live input that sends nothing). An input of several
    // programs (an MPTS) gives the streams of one: `program` (its number), or else the first, and says which
    // through `notes`; a program it does not have raises ExitError (bad command line).
    LibavInput(const std::string& url, int inputIndex, std::vector<std::string>& skipped,
               const std::atomic<bool>* interrupt = nullptr, std::optional<int> program = std::nullopt,
               std::vector<std::string>* notes = nullptr);
    // Reads on with libavformat from an input already probed.
    LibavInput(std::unique_ptr<ProbedInput> probe, int inputIndex, std::vector<std::string>& skipped,
               std::optional<int> program = std::nullopt, std::vector<std::string>* notes = nullptr);
    ~LibavInput() override;
    LibavInput(const LibavInput&) = delete;
    LibavInput& operator=(const LibavInput&) = delete;

    const std::vector<StreamInfo>& streams() const override { return m_streams; }
    // libavformat discards the packets of a dropped stream.
    void drop(std::size_t index) override;
    bool isLive() const override { return m_live; }
    bool canWait() const override { return m_canWait; }
    bool run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) override;
    const std::string& error() const override { return m_error; }
    std::optional<double> keyFrameInterval(double maxSeconds) override;
    std::optional<std::int64_t> firstKeyFrameTime() const override { return m_firstKey; }
    std::optional<std::int64_t> pictureDuration() const override { return m_pictureDuration; }
    void setTextHandling(std::int64_t maxGap, std::function<void(const std::string&)> warn) override {
        m_maxTextGap = maxGap;
        m_warn = std::move(warn);
    }

private:
    void setUp(int inputIndex, std::vector<std::string>& skipped, std::optional<int> program,
               std::vector<std::string>* notes);
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    std::vector<StreamInfo> m_streams;
    bool m_live = false;
    bool m_canWait = true;
    std::string m_error;
    std::optional<std::int64_t> m_firstKey;
    std::optional<std::int64_t> m_pictureDuration;
    std::int64_t m_maxTextGap = 0;
    std::function<void(const std::string&)> m_warn;
};

// An MPEG-TS that libavformat opened and probed (`probe` is a plain one: ProbedInput::plainMpegTs), read on by
// fmp4mux's own reader: first the bytes the probe read, then the rest (a local file mapped, anything else through
// libavformat's I/O). The streams, the program chosen and what is said of them are LibavInput's.
std::unique_ptr<Input> openProbedTs(std::unique_ptr<ProbedInput> probe, int inputIndex, std::vector<std::string>& skipped,
                                    std::optional<int> program = std::nullopt, std::vector<std::string>* notes = nullptr);


}  // namespace fmp4mux
