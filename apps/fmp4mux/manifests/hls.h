#pragma once
// HLS playlists (RFC 8216) of the same CMAF files the DASH MPD lists: a multivariant playlist that names every
// rendition, and one media playlist per track with its init file (EXT-X-MAP) and its segments.
#include <string>
#include <vector>

#include "apps/fmp4mux/manifests/manifests.h"
#include "apps/fmp4mux/model/track.h"

namespace fmp4mux {

// The multivariant playlist: an EXT-X-STREAM-INF per video track (or per audio track when there is no video),
// the audio tracks as EXT-X-MEDIA renditions of one group.
std::string buildMultivariantPlaylist(const std::vector<Track>& tracks, const ManifestTiming& timing);

// The media playlist of one track: the segments of the time-shift window while live, every one once finished.
// Live in low latency, the chunks of the last segments and of the one growing as partial segments (byte ranges of
// the segment's file), with a hint of the next, for players that block on reload.
std::string buildMediaPlaylist(const Track& track, const ManifestTiming& timing);

// "video0.m3u8": next to the multivariant playlist, so that both name the media files by the same paths.
std::string mediaPlaylistName(const Track& track);

class HlsManifestWriter : public ManifestWriter {
public:
    std::string fileName() const override { return "master.m3u8"; }
    std::string build(const std::vector<Track>& tracks, const ManifestTiming& timing) const override {
        return buildMultivariantPlaylist(tracks, timing);
    }
    std::vector<ManifestFile> files(const std::vector<Track>& tracks, const ManifestTiming& timing) const override;
};

}  // namespace fmp4mux
