#include "packaging/fmp4/chunks/chunk_dump.h"

#include <cstdio>

#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {
constexpr std::uint64_t kHundredNs = 10000000;
using ull = unsigned long long;
using ll = long long;

const char* kindWord(ChunkContentType type) {
    switch (type) {
        case ChunkVideo: return "Video ";
        case ChunkAudio: return "Audio ";
        case ChunkTimedText: return "Ttml ";
        default: return "Unknown Content";
    }
}

const char* chunkWord(ChunkContentType type) {
    switch (type) {
        case ChunkVideo: return "Video Chunk";
        case ChunkAudio: return "Audio Chunk";
        case ChunkTimedText: return "Ttml Chunk";
        default: return "Unknown Content Chunk.";
    }
}

// The first timed sample's presentation and decoding times in 100 ns units.
bool firstTimes(const StreamChunk& chunk, std::int64_t& pts, std::int64_t& dts) {
    for (const auto& s : chunk.samples) {
        const auto* sample = dynamic_cast<const Fmp4Sample*>(s.get());
        if (sample == nullptr || !sample->sample()->hasPts || sample->sample()->timescale == 0) continue;
        const std::uint64_t timescale = sample->sample()->timescale;
        pts = rescale(sample->sample()->pts, timescale, kHundredNs);
        dts = rescale(sample->sample()->hasDts ? sample->sample()->dts : sample->sample()->pts, timescale, kHundredNs);
        return true;
    }
    return false;
}
}  // namespace

std::string chunkDumpText(const std::vector<ChunkTrack>& tracks, std::uint64_t chunkNumber, std::uint64_t segmentNumber,
                          std::int64_t timeOrigin) {
    char text[256];
    if (tracks.empty()) {
        std::snprintf(text, sizeof text, "Invalid empty chunk %llu of segment %llu", static_cast<ull>(chunkNumber),
                      static_cast<ull>(segmentNumber));
        return text;
    }
    std::string out = tracks.size() > 1 ? "Multi Chunk" : chunkWord(tracks.front().contentType);
    std::snprintf(text, sizeof text, " #%llu of Segment #%llu : ", static_cast<ull>(chunkNumber),
                  static_cast<ull>(segmentNumber));
    out += text;
    for (const ChunkTrack& track : tracks) {
        out += " [";
        out += kindWord(track.contentType);
        std::snprintf(text, sizeof text, "track #%d : ", static_cast<int>(track.trackId));
        out += text;
        std::int64_t pts = 0;
        std::int64_t dts = 0;
        if (track.chunk == nullptr || track.chunk->samples.empty() || !firstTimes(*track.chunk, pts, dts)) {
            out += "Invalid Empty Chunk";
            continue;
        }
        std::snprintf(text, sizeof text, "pts = %lld | dts = %lld | %d samples | dur %lld ms",
                      static_cast<ll>((pts - timeOrigin) / 10000), static_cast<ll>((dts - timeOrigin) / 10000),
                      static_cast<int>(track.chunk->samples.size()), static_cast<ll>(track.chunk->duration / 10000));
        out += text;
    }
    return out;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
