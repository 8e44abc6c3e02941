#pragma once
// The number of a stream kind, from the input pin down to the sample.
#include <cstdint>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

enum StreamType : std::uint32_t {
    MPEG2_VIDEO = 0,
    MPEG1_AUDIO = 1,
    H264_VIDEO = 2,
    AC3_AUDIO = 3,
    AAC_ADTS_AUDIO = 4,
    AAC_LATM_AUDIO = 5,
    TELETEXT = 6,
    H263_VIDEO = 7,
    UNKNOWN_8 = 8,
    MPEG4_VIDEO = 9,
    AAC_RAW_AUDIO = 10,
    DVB_SUBTITLE = 11,
    SCTE_35 = 12,
    FMP4_CHUNK = 13,
    MPEG2_TS = 14,
    VC1_VIDEO = 15,
    CORVANE_CC = 16,
    HEVC_VIDEO = 17,
    TTML = 18,
    KLV = 19,
    WEBVTT = 20,
    PRORES = 21,
    JPEG2000 = 22,
    DV_VIDEO = 23,
    SRT = 24,
    TX3G = 25,
    YOUTUBE_SRT = 26,
    AC4_AUDIO = 27,
    STREAM_TYPE_UNSET = 0xFFFFFFFFu,
};

// Bit n stands for stream type n; values of 64 or more are in no class.
inline constexpr std::uint64_t kVideoClassMask = 0xE28285;
inline constexpr std::uint64_t kAudioClassMask = 0x800043A;

constexpr bool isVideo(std::uint32_t type) { return type < 64 && ((kVideoClassMask >> type) & 1u) != 0; }
constexpr bool isAudio(std::uint32_t type) { return type < 64 && ((kAudioClassMask >> type) & 1u) != 0; }

// How a stream takes part in cutting: AC-4 cuts as video, having random access points of its own.
enum SyncStreamKind : std::uint32_t { SyncVideo = 0, SyncAudio = 1, SyncOther = 2 };

constexpr SyncStreamKind syncStreamKind(std::uint32_t type) {
    if (isVideo(type) || type == AC4_AUDIO) return SyncVideo;
    if (isAudio(type)) return SyncAudio;
    return SyncOther;
}

// The display text of logs and stream labels; "Unknown" for 8 and for anything above 27.
const char* streamTypeText(std::uint32_t type);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
