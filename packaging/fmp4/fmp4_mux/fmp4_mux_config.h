#pragma once
// The cutting mode of a session and the options fixed when it is built.
#include <cstdint>
#include <memory>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// The public cutting mode. Its value differs from the index of its record in Fmp4MuxConfig for 1 and 2.
enum Fmp4MuxMode : std::uint32_t {
    GopSegments = 0,
    SeparateAudioSegments = 1,
    GopSegmentsAlt = 2,
    LowLatency = 3,
};

enum OutputFormat : std::uint32_t { Smooth = 0, Dash = 1 };

struct GopSegmentsConfig {  // variant 0
    std::int64_t gopDurationMs = 0;
    std::uint32_t gopsPerSegment = 0;
};
struct GopSegmentsAltConfig {  // variant 1
    std::int64_t gopDurationMs = 0;
    std::uint32_t gopsPerSegment = 0;
};
struct SeparateAudioSegmentsConfig {  // variant 2
    std::int64_t gopDurationMs = 0;
    std::uint32_t gopsPerSegment = 0;
    std::uint32_t audioSegmentDurationMs = 0;
};
struct LowLatencyConfig {  // variant 3
    std::uint64_t chunkDurationMs = 0;
    std::uint64_t segmentDurationMs = 0;
};

// A tagged union holding one heap record for the active variant. Copying copies the record; swapping swaps
// the tags and the pointers only. Reading under the wrong tag fails with "cannot convert union to given type".
class Fmp4MuxConfig {
public:
    Fmp4MuxConfig();  // GopSegments with a zero record
    explicit Fmp4MuxConfig(const GopSegmentsConfig& record);
    explicit Fmp4MuxConfig(const GopSegmentsAltConfig& record);
    explicit Fmp4MuxConfig(const SeparateAudioSegmentsConfig& record);
    explicit Fmp4MuxConfig(const LowLatencyConfig& record);
    Fmp4MuxConfig(const Fmp4MuxConfig& other);
    Fmp4MuxConfig(Fmp4MuxConfig&& other) noexcept;
    Fmp4MuxConfig& operator=(Fmp4MuxConfig other) noexcept;
    ~Fmp4MuxConfig();

    // Built from the public mode; a value outside 0 to 3 fails with "Unknown Fmp4 MuxMode".
    // Low latency takes segment = gop duration x gops per segment and the chunk duration given.
    static Fmp4MuxConfig fromMode(std::uint32_t mode, std::int64_t gopDurationMs, std::uint32_t gopsPerSegment,
                                  std::uint32_t audioSegmentDurationMs, std::uint64_t chunkDurationMs);

    void swap(Fmp4MuxConfig& other) noexcept;

    // The index of the active record (0 to 3).
    std::uint32_t tag() const { return m_tag; }
    Fmp4MuxMode mode() const;

    const GopSegmentsConfig& gopSegments() const;
    const GopSegmentsAltConfig& gopSegmentsAlt() const;
    const SeparateAudioSegmentsConfig& separateAudioSegments() const;
    const LowLatencyConfig& lowLatency() const;

    // gop duration x gops per segment for variants 0 to 2, the segment duration field for variant 3.
    std::uint64_t segmentDurationMs() const;
    // The field for variants 0 to 2, 0 for variant 3.
    std::uint32_t gopsPerSegment() const;

private:
    void destroy() noexcept;
    void copyFrom(const Fmp4MuxConfig& other);

    std::uint32_t m_tag = 0;
    void* m_record = nullptr;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
