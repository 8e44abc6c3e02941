#pragma once
// Builders of the streams that carry no audio or video: SCTE-35 messages, and a transport stream re-aligned to
// its packets. (Teletext, DVB subtitles and KLV accumulate between sync points: NalBuilderSyncPointBased.)
#include "packaging/lib_parse_es/nal_builder.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// One SCTE-35 message: the 8-byte reference clock prefix and the whole splice_info_section(), with the splice
// time at 90 kHz on the buffers' clock when the command gives one.
class NALSCTE35 : public NAL {
public:
    explicit NALSCTE35(std::int32_t size) : NAL(StreamType::SCTE_35, size) {}
    bool hasSpliceTime = false;
    std::int64_t spliceTime = 0;
    bool hasMediaTime90k = false;
    std::int64_t mediaTime90k = 0;
    std::uint8_t latch = 0;
};

// Each buffer is one message: a big-endian 64-bit value of the 33-bit 90 kHz clock the section refers to, then
// the section. A message the parser refuses is dropped: nothing reaches the listener, and the reason goes to the
// logger when one is set, at debug level (splice_null() heartbeats are refused every few seconds).
class NALBuilderSCTE35 : public NALBuilder {
public:
    void push(IMediaData* data) override;
    void flush() override { signalEnd(); }
    void setLogger(tvrn::log::ILogger* logger) { m_logger = logger; }

private:
    tvrn::log::ILogger* m_logger = nullptr;
};

// Skips to the first 0x47 byte, then delivers every 188 bytes as a packet, filled across buffers, with the
// timing of the buffer it began in.
class NALBuilderMpeg2ts : public NALBuilder {
public:
    void push(IMediaData* data) override;
    void flush() override { signalEnd(); }

private:
    bool m_aligned = false;
    std::unique_ptr<NAL> m_packet;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
