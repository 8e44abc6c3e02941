#pragma once
// The initialisation segment of one chunk stream: ftyp, an optional box (the server manifest), and moov
// with mvhd, mvex and one trak per track id.
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "packaging/imff_box/box.h"
#include "packaging/imff_box/movie_boxes.h"
#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

class FileHeader {
public:
    // dash: the MPEG-DASH brands; else the Smooth Streaming ones.
    explicit FileHeader(bool dash);
    virtual ~FileHeader() = default;

    // Adds a track, or one more sample entry to a known track. Returns the entry count of the track's
    // stsd, which is the sample description index of this entry. A new track's mdhd gets `language` (see
    // MediaHeaderBox::setLanguage).
    std::uint32_t addTrack(std::uint32_t trackId, std::uint32_t timescale, std::uint32_t trackKind,
                           std::shared_ptr<SampleEntry> sampleEntry, std::uint32_t width, std::uint32_t height,
                           const std::string& language = "und");
    // The box written between ftyp and moov.
    void addBox(std::shared_ptr<Box> box) { m_extraBox = std::move(box); }

    std::vector<std::uint8_t> binarize() const;
    BoxList getBoxes() const;

    const std::shared_ptr<FileTypeBox>& getFileTypeBox() const { return m_fileType; }
    const std::shared_ptr<Box>& getMovieBox() const { return m_moov; }

private:
    struct Track {
        std::shared_ptr<Box> trak;
        std::shared_ptr<SampleDescriptionBox> stsd;
        std::shared_ptr<TrackHeaderBox> tkhd;
    };

    std::uint64_t m_creationTime = 0;
    std::uint64_t m_modificationTime = 0;
    bool m_dash;
    std::uint32_t m_nextTrackId = 0;
    std::map<std::uint32_t, Track> m_tracks;
    std::shared_ptr<FileTypeBox> m_fileType;
    std::shared_ptr<Box> m_extraBox;
    std::shared_ptr<Box> m_moov;
    std::shared_ptr<MovieHeaderBox> m_mvhd;
    std::shared_ptr<Box> m_mvex;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
