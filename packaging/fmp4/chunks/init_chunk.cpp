#include "packaging/fmp4/chunks/init_chunk.h"

#include "packaging/fmp4/chunks/audio_sample_entry.h"
#include "packaging/fmp4/chunks/video_sample_entry.h"
#include "packaging/imff_box/movie_boxes.h"
#include "packaging/imff_box/protection_boxes.h"
#include "packaging/imff_box/vendor_boxes.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {
void putBigEndian32(std::uint8_t* at, std::uint32_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 24);
    at[1] = static_cast<std::uint8_t>(value >> 16);
    at[2] = static_cast<std::uint8_t>(value >> 8);
    at[3] = static_cast<std::uint8_t>(value);
}
std::uint32_t getBigEndian32(const std::uint8_t* at) {
    return (std::uint32_t{at[0]} << 24) | (std::uint32_t{at[1]} << 16) | (std::uint32_t{at[2]} << 8) | at[3];
}
constexpr const char* kTtmlNamespace = "http://www.w3.org/ns/ttml";
constexpr std::uint8_t kEmptyMfra[8] = {0, 0, 0, 8, 'm', 'f', 'r', 'a'};
}  // namespace

InitChunk::InitChunk(std::string name, bool dash, bool languageInMediaHeader,
                     encryption::EncryptionManager* encryption)
    : m_dash(dash), m_encryption(encryption != nullptr && encryption->hasProvider() ? encryption : nullptr),
      m_languageInMediaHeader(languageInMediaHeader), m_manifest(std::move(name), dash), m_movie(dash) {
    if (!m_encryption) return;
    imff_box::BoxList boxes;
    m_encryption->getProtectionBoxes(boxes, dash);
    for (auto& box : boxes) m_movie.getMovieBox()->addChild(std::move(box));
}

void InitChunk::protect(imff_box::SampleEntry& entry) const {
    encryption::KeyId keyId{};
    if (!m_encryption || !m_encryption->getKeyId(keyId)) return;
    std::optional<std::vector<std::uint8_t>> cbcsConstantIv;
    if (m_encryption->scheme() == encryption::EncryptionScheme::Cbcs) {
        const auto& iv = m_encryption->constantIv();
        cbcsConstantIv.emplace(iv.begin(), iv.end());
    }
    imff_box::protectSampleEntry(entry, true, keyId,
                                 static_cast<std::uint8_t>(m_encryption->getInitialisationVectorSize()), m_dash, {},
                                 cbcsConstantIv);
}

InitChunk::~InitChunk() = default;

std::int32_t InitChunk::AddStream(std::uint32_t trackId, std::uint32_t timescale, const ManifestDurations& durations,
                                  std::uint32_t streamType, const ElementaryStreamAttributes& attributes,
                                  bool inBandParameterSets, const StreamChunk& firstChunk, bool isMain) {
    if (streamType == AAC_ADTS_AUDIO || streamType == AAC_LATM_AUDIO || streamType == AAC_RAW_AUDIO ||
        streamType == AC3_AUDIO || streamType == MPEG1_AUDIO || streamType == AC4_AUDIO) {
        // The audio entry from the stream's decoder configuration; the track's timescale is the output's, not the rate.
        AudioSampleEntryResult audio = makeAudioSampleEntry(streamType, firstChunk, attributes);
        if (!audio.entry) return 0;
        protect(*audio.entry);
        const std::uint32_t index = m_movie.addTrack(trackId, timescale, imff_box::TRACK_AUDIO, audio.entry, 0, 0,
                                                     m_languageInMediaHeader ? attributes.language : "und");
        if (isMain) m_manifest.AddAudio(trackId, audio.manifest, attributes, durations);
        return static_cast<std::int32_t>(index);
    }
    if (streamType == TTML || streamType == WEBVTT) {
        // DASH players read "stpp" and "wvtt" in a subtitle track; Smooth Streaming clients TTML as "dfxp".
        std::shared_ptr<imff_box::SampleEntry> entry;
        if (streamType == WEBVTT)
            entry = std::make_shared<imff_box::WVTTSampleEntry>();
        else if (m_dash)
            entry = std::make_shared<imff_box::XMLSubtitleSampleEntry>(kTtmlNamespace);
        else
            entry = std::make_shared<imff_box::DfxpSampleEntry>();
        const std::uint32_t index =
            m_movie.addTrack(trackId, timescale, m_dash ? imff_box::TRACK_SUBTITLE : imff_box::TRACK_TEXT, entry, 0, 0,
                             m_languageInMediaHeader ? attributes.language : "und");
        if (isMain) m_manifest.AddText(trackId, imff_box::fourCCText(entry->getType()), attributes);
        return static_cast<std::int32_t>(index);
    }
    if (streamType == SCTE_35) {
        // Ad markers get no track: the manifest names them, and their sections travel in the media chunks.
        if (isMain) m_manifest.AddScte35(trackId, attributes);
        return -1;
    }
    if (streamType != H264_VIDEO && streamType != HEVC_VIDEO) return 0;
    // The in-band entries ("avc3", "hev1") are a DASH matter; Smooth Streaming clients know "avc1" and "hvc1".
    VideoSampleEntryResult video = makeVideoSampleEntry(streamType, firstChunk, m_dash && inBandParameterSets);
    if (!video.entry) return 0;
    protect(*video.entry);
    const std::uint32_t width = video.entry->width;
    const std::uint32_t height = video.entry->height;
    const std::uint32_t index =
        m_movie.addTrack(trackId, timescale, imff_box::TRACK_VIDEO, video.entry, width, height);
    if (isMain) m_manifest.AddVideo(trackId, video.manifest, attributes, durations);
    return static_cast<std::int32_t>(index);
}

std::vector<std::uint8_t> InitChunk::Serialise() {
    m_movie.addBox(std::make_shared<imff_box::LiveServerManifestBox>(m_manifest.ToXml()));
    const imff_box::BoxList boxes = m_movie.getBoxes();
    const std::uint64_t movieSize = imff_box::getBoxesSize(boxes);
    std::vector<std::uint8_t> bytes(8 + movieSize + sizeof kEmptyMfra);
    imff_box::ImffBitWriter writer(bytes.data() + 8, movieSize);
    for (const auto& box : boxes) imff_box::binarizeChecked(*box, writer);
    putBigEndian32(bytes.data(), static_cast<std::uint32_t>(movieSize));
    putBigEndian32(bytes.data() + 4, sizeof kEmptyMfra);
    std::copy(std::begin(kEmptyMfra), std::end(kEmptyMfra), bytes.begin() + 8 + static_cast<std::ptrdiff_t>(movieSize));
    return bytes;
}

std::vector<std::uint8_t> initChunkMoviePart(const std::uint8_t* data, std::size_t size) {
    if (size < 8) return {};
    const std::uint64_t movie = getBigEndian32(data);
    const std::uint64_t index = getBigEndian32(data + 4);
    if (8 + movie + index != size) return {};
    return std::vector<std::uint8_t>(data + 8, data + 8 + movie);
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
