#include "packaging/imff_box/file_header.h"

#include <algorithm>

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

namespace {
constexpr std::uint64_t kSmoothUnknownDuration = 0xFFFFFFFF;
}

FileHeader::FileHeader(bool dash) : m_dash(dash) {
    m_moov = std::make_shared<Box>(fourCC("moov"));
    m_mvhd = std::make_shared<MovieHeaderBox>(m_creationTime, m_modificationTime, 0);
    m_mvex = std::make_shared<Box>(fourCC("mvex"));
    if (dash) {
        m_fileType = std::make_shared<FileTypeBox>(fourCC("dash"), 1,
                                                   std::vector<FourCC>{fourCC("isom"), fourCC("avc1"), fourCC("dash")});
    } else {
        m_fileType = std::make_shared<FileTypeBox>(
            fourCC("isml"), 0, std::vector<FourCC>{fourCC("isom"), fourCC("iso2"), fourCC("piff"), fourCC("avc1")});
    }
    m_mvhd->setDuration(dash ? 0 : kSmoothUnknownDuration);
    m_mvhd->setNextTrackId(m_nextTrackId);
    // mvex goes before every trak.
    m_moov->addChild(m_mvhd);
    m_moov->addChild(m_mvex);
}

std::uint32_t FileHeader::addTrack(std::uint32_t trackId, std::uint32_t timescale, std::uint32_t trackKind,
                                   std::shared_ptr<SampleEntry> sampleEntry, std::uint32_t width,
                                   std::uint32_t height, const std::string& language) {
    auto known = m_tracks.find(trackId);
    if (known != m_tracks.end()) {
        Track& track = known->second;
        track.tkhd->setWidth(std::max(track.tkhd->getWidth(), width));
        track.tkhd->setHeight(std::max(track.tkhd->getHeight(), height));
        return track.stsd->addEntry(std::move(sampleEntry));
    }

    auto trak = std::make_shared<Box>(fourCC("trak"));
    auto tkhd = std::make_shared<TrackHeaderBox>(trackId, m_creationTime, m_modificationTime, 0, 7);
    tkhd->setDuration(m_dash ? 0 : kSmoothUnknownDuration);
    tkhd->setVolume(trackKind == TRACK_AUDIO ? 256 : 0);
    tkhd->setWidth(width);
    tkhd->setHeight(height);
    trak->addChild(tkhd);

    auto mdia = std::make_shared<Box>(fourCC("mdia"));
    trak->addChild(mdia);
    auto mdhd = std::make_shared<MediaHeaderBox>(timescale, m_creationTime, m_modificationTime, 1);
    mdhd->setLanguage(language);
    mdia->addChild(mdhd);
    mdia->addChild(std::make_shared<HandlerReferenceBox>(trackKind));

    auto minf = std::make_shared<Box>(fourCC("minf"));
    mdia->addChild(minf);
    switch (trackKind) {
        case TRACK_VIDEO: minf->addChild(std::make_shared<VideoMediaHeaderBox>()); break;
        case TRACK_AUDIO: minf->addChild(std::make_shared<SoundMediaHeaderBox>()); break;
        case TRACK_SUBTITLE:
            if (m_dash) {
                minf->addChild(std::make_shared<SubtitleMediaHeaderBox>());
            } else {
                minf->addChild(std::make_shared<NullMediaHeaderBox>());
            }
            break;
        default: minf->addChild(std::make_shared<NullMediaHeaderBox>()); break;
    }
    auto dinf = std::make_shared<Box>(fourCC("dinf"));
    dinf->addChild(std::make_shared<DataReferenceBox>(1, std::make_shared<DataEntryUrlBox>(1)));
    minf->addChild(dinf);

    auto stbl = std::make_shared<Box>(fourCC("stbl"));
    auto stsd = std::make_shared<SampleDescriptionBox>(handlerTypeOf(trackKind));
    const std::uint32_t index = stsd->addEntry(std::move(sampleEntry));
    stbl->addChild(stsd);
    stbl->addChild(std::make_shared<TimeToSampleBox>());
    stbl->addChild(std::make_shared<ChunkOffsetBox>());  // stco before stsc and stsz
    stbl->addChild(std::make_shared<SampleToChunkBox>());
    stbl->addChild(std::make_shared<SampleSizeBox>());
    minf->addChild(stbl);
    m_moov->addChild(trak);

    m_nextTrackId = std::max(m_nextTrackId, trackId + 1);
    m_mvhd->setNextTrackId(m_nextTrackId);
    m_mvex->addChild(std::make_shared<TrackExtendsBox>(trackId));

    m_tracks.emplace(trackId, Track{trak, stsd, tkhd});
    return index;
}

BoxList FileHeader::getBoxes() const {
    BoxList boxes{m_fileType};
    if (m_extraBox) boxes.push_back(m_extraBox);
    boxes.push_back(m_moov);
    return boxes;
}

std::vector<std::uint8_t> FileHeader::binarize() const { return binarizeBoxes(getBoxes()); }

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
