#include "packaging/fmp4/chunks/chunk_serializer.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "packaging/imff_box/fragment_builder.h"
#include "packaging/imff_box/movie_boxes.h"
#include "packaging/imff_box/vendor_boxes.h"
#include "support/exceptions/corvane_exception.h"
#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using namespace imff_box;

namespace {

constexpr std::uint64_t kHundredNs = 10000000;
// The value of the rating events, the same as the Rating descriptor's that announces them.
constexpr char kRatingEventValue[] = "1";

std::vector<const ISample*> boxSamples(const StreamChunk& chunk) {
    std::vector<const ISample*> samples;
    samples.reserve(chunk.samples.size());
    for (const auto& s : chunk.samples)
        if (const auto* sample = dynamic_cast<const ISample*>(s.get())) samples.push_back(sample);
    return samples;
}

// The earliest presentation time of the fragments' samples at `timescale`; none when they hold no sample.
bool earliestPresentation(const std::vector<TrackFragment>& fragments, std::uint64_t timescale, std::int64_t& out) {
    bool found = false;
    for (const TrackFragment& fragment : fragments)
        for (const ISample* sample : fragment.samples) {
            std::int64_t pts = 0;
            std::uint64_t rate = 0;
            if (!sample->getPts(pts) || !sample->getTimescale(rate) || rate == 0) continue;
            const std::int64_t scaled = rescale(pts, rate, timescale);
            out = found ? std::min(out, scaled) : scaled;
            found = true;
        }
    return found;
}

// How long the chunk's pictures are shown, from the earliest start to the latest end, at `timescale`; 0 when no
// sample tells its times. The synchroniser measures a chunk from its first sample's time to the time after its
// last sample in decode order, which at the end of a stream with B frames falls short of the last picture shown.
std::uint64_t presentedSpan(const std::vector<ChunkTrack>& tracks, std::uint64_t timescale) {
    bool found = false;
    std::int64_t start = 0, end = 0;
    for (const ChunkTrack& track : tracks) {
        if (track.chunk == nullptr) continue;
        for (const ISample* sample : boxSamples(*track.chunk)) {
            std::int64_t pts = 0, length = 0;
            std::uint64_t rate = 0;
            if (!sample->getPts(pts) || !sample->getDuration(length) || !sample->getTimescale(rate) || rate == 0) continue;
            const std::int64_t from = rescale(pts, rate, timescale);
            const std::int64_t to = rescale(pts + std::max<std::int64_t>(length, 0), rate, timescale);
            start = found ? std::min(start, from) : from;
            end = found ? std::max(end, to) : to;
            found = true;
        }
    }
    return found && end > start ? static_cast<std::uint64_t>(end - start) : 0;
}

std::uint32_t clamp32(std::uint64_t value) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

ChunkBytes serialiseChunk(const ChunkSerialisationParameters& p, ChunkBytes room,
                          const std::function<ChunkPlace(std::size_t)>& place) {
    if (p.timescale == 0 || p.timescale > std::numeric_limits<std::uint32_t>::max())
        throw CorvaneException("invalid chunk timescale");
    // The pssh boxes of a segment start come from the encryption record: without one there is no provider to ask.
    const bool psshInMoof = p.dash && p.psshInFragments && p.atSegmentStart;
    if (psshInMoof && !p.encryption) throw CorvaneException("No Encryption Provider Specified");
    const FragmentEncryptionInfo* encryption = p.encryption ? &*p.encryption : nullptr;
    std::optional<SampleEncryptionContext> trackEncryption;
    if (encryption && encryption->encrypted)
        trackEncryption = SampleEncryptionContext{encryption->keyId, encryption->overrideTrackEncryption,
                                                  encryption->dashForm && p.dash, encryption->cbcsConstantIv};

    std::vector<ChunkTrack> tracks = p.tracks;
    std::stable_sort(tracks.begin(), tracks.end(),
                     [](const ChunkTrack& a, const ChunkTrack& b) { return a.trackId < b.trackId; });

    std::uint64_t duration =
        p.timescale == kHundredNs ? p.chunkDuration : mulDivU(p.chunkDuration, p.timescale, kHundredNs);
    // For players a chunk lasts at least as long as its pictures are shown: the last chunk of a stream with B
    // frames then ends with its last picture, in the manifest and in the last sample's duration.
    if (p.playerCompatible) duration = std::max(duration, presentedSpan(tracks, p.timescale));

    auto moof = std::make_shared<Box>(fourCC("moof"));
    // Players read pssh boxes ahead of mfhd.
    if (psshInMoof)
        for (const auto& pssh : encryption->fragmentProtectionBoxes) moof->addChild(pssh);
    moof->addChild(std::make_shared<MovieFragmentHeaderBox>(static_cast<std::uint32_t>(p.chunkNumber)));
    std::vector<TrackFragment> fragments;
    fragments.reserve(tracks.size());
    std::uint64_t payload = 0;
    std::uint64_t auxiliary = 0;
    for (const ChunkTrack& track : tracks) {
        TrackFragmentParameters t;
        t.trackId = track.trackId;
        t.video = track.contentType == ChunkVideo;
        t.sampleDescriptionIndex = track.chunk && track.chunk->sampleDescriptionIndex ? track.chunk->sampleDescriptionIndex : 1;
        t.segmentDuration = duration;
        t.trackTimescale = static_cast<std::uint32_t>(p.timescale);
        t.timestampOffset = p.negatedOrigin;
        t.dash = p.dash;
        t.writeSampleDescriptionIndex = p.allVideoInInit;
        t.playerCompatible = p.playerCompatible;
        t.audio = track.contentType == ChunkAudio;
        t.encryption = trackEncryption;
        fragments.push_back(TrackFragmentBuilder::build(t, track.chunk ? boxSamples(*track.chunk) : std::vector<const ISample*>{}));
        moof->addChild(fragments.back().traf);
        payload += fragments.back().payloadSize;
        auxiliary += fragments.back().encryption.auxiliaryData.size();
    }
    // mdat: the samples' encryption data of all tracks (DASH form), then the samples of all tracks.
    auto mdat = std::make_shared<MediaDataBox>(auxiliary + payload);
    const std::uint64_t moofSize = moof->getSize();
    const std::uint64_t mdatHeader = mdat->getSize() - auxiliary - payload;

    // Each saio points at its track's part of the encryption data, counted from the start of moof (the DASH form
    // is used in DASH chunks only, whose tfhd says default-base-is-moof).
    std::uint64_t auxiliaryBefore = 0;
    for (TrackFragment& fragment : fragments) {
        if (!fragment.encryption.saio) continue;
        fragment.encryption.saio->setOffset(0, moofSize + mdatHeader + auxiliaryBefore);
        auxiliaryBefore += fragment.encryption.auxiliaryData.size();
    }

    // Data offsets: DASH counts every run from the start of moof; without default-base-is-moof the first track
    // fragment counts from moof and each later one from the end of the data of the one before.
    std::uint64_t before = 0;
    for (std::size_t i = 0; i < fragments.size(); ++i) {
        const std::uint64_t offset = p.dash || i == 0 ? moofSize + mdatHeader + auxiliary + before : 0;
        if (offset > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()))
            throw CorvaneException("chunk too large for its data offsets");
        fragments[i].trun->setDataOffset(static_cast<std::int32_t>(offset));
        before += fragments[i].payloadSize;
    }

    BoxList head;
    BoxList tail;
    if (p.dash) {
        if (p.atSegmentStart)
            head.push_back(std::make_shared<TovraneBoxWith64bitsNumber>(TovraneBoxWith64bitsNumber::kNumberSequenceStart,
                                                                        p.segmentNumber));
        head.push_back(std::make_shared<SegmentTypeBox>(fourCC("msdh"), 0,
                                                        std::vector<FourCC>{fourCC("msdh"), fourCC("msix")}));
        for (const RatingMessage& event : p.events) {
            if (event.document.empty()) continue;
            // Times in ms; the event applies from the chunk's start.
            head.push_back(std::make_shared<EventMessageBox>(
                kParentalRatingEventScheme, kRatingEventValue, 1000, 0, event.durationMs, event.id,
                std::vector<std::uint8_t>(event.document.begin(), event.document.end())));
        }
        std::int64_t earliest = 0;
        const bool any = earliestPresentation(fragments, p.timescale, earliest);
        const std::int64_t ept = any ? earliest + p.negatedOrigin : 0;
        auto sidx = std::make_shared<SegmentIndexBox>(tracks.empty() ? 1 : tracks.front().trackId,
                                                      static_cast<std::uint32_t>(p.timescale),
                                                      static_cast<std::uint64_t>(std::max<std::int64_t>(ept, 0)));
        std::uint8_t sap = 0;
        bool startsWithSap = true;
        for (std::size_t i = 0; i < fragments.size(); ++i) {
            if (fragments[i].samples.empty()) continue;
            const ISample& first = *fragments[i].samples.front();
            sap = static_cast<std::uint8_t>(std::min<std::uint32_t>(first.getSapType(), 7));
            if (p.playerCompatible) {
                // Every audio frame is a SAP of type 1; a video chunk starts with one only at a sync sample
                // (a low-latency chunk inside a segment does not).
                startsWithSap = tracks[i].contentType != ChunkVideo || first.isSync();
                sap = startsWithSap ? std::max<std::uint8_t>(sap, 1) : 0;
            }
            break;
        }
        sidx->addReference(clamp32(moofSize + mdat->getSize()), clamp32(duration), sap, startsWithSap);
        head.push_back(sidx);
        tail.push_back(std::make_shared<TovraneBoxWith64bitsNumber>(TovraneBoxWith64bitsNumber::kEndOfChunk, p.chunkNumber));
        if (p.lastOfSegment)
            tail.push_back(std::make_shared<TovraneBoxWith64bitsNumber>(TovraneBoxWith64bitsNumber::kEndOfSegment,
                                                                        p.segmentNumber));
    }
    head.push_back(moof);
    head.push_back(mdat);

    ChunkBytes out = std::move(room);
    out.size = getBoxesSize(head) + getBoxesSize(tail);
    const ChunkPlace lent = place ? place(out.size) : ChunkPlace{};
    std::uint8_t* target = lent.at;
    out.placed = target != nullptr;
    out.references.clear();
    tvrn::system::KeptBytesList* references = out.placed && lent.referring ? &out.references : nullptr;
    if (!out.placed && out.capacity < out.size) {
        // A quarter more than asked: the chunks of a stream vary in size around the same value.
        out.capacity = out.size + out.size / 4;
        out.data.reset(new std::uint8_t[out.capacity]);  // every byte is written below: no zero fill
    }
    if (!out.placed) target = out.data.get();
    ImffBitWriter writer(target, out.size);
    for (const auto& box : head) binarizeChecked(*box, writer);
    for (const TrackFragment& fragment : fragments)
        writer.copyBuffer(fragment.encryption.auxiliaryData.data(), fragment.encryption.auxiliaryData.size());
    // Only the bytes of audio and video samples are referred to: the host may read text and metadata samples back
    // out of the chunk (cues into WebVTT files), so those are always in it.
    for (std::size_t i = 0; i < fragments.size(); ++i) {
        const bool media = tracks[i].contentType == ChunkVideo || tracks[i].contentType == ChunkAudio;
        TrackFragmentBuilder::writePayload(fragments[i], writer, media ? references : nullptr, kLeastReferenced);
    }
    for (const auto& box : tail) binarizeChecked(*box, writer);
    if (writer.getBytePosition() != out.size) throw CorvaneException("chunk size mismatch");
    return out;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
