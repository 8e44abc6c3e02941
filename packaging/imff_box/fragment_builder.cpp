#include "packaging/imff_box/fragment_builder.h"

#include <algorithm>
#include <cstdint>

#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

std::int64_t rescaleTime(std::int64_t time, std::uint64_t fromRate, std::uint64_t toRate) {
    return tvrn::encoding::rescale(time, fromRate, toRate);
}

SampleFlags sampleDependencyFlags(bool sync, bool video) {
    SampleFlags flags;
    if (sync) {
        flags.dependsOn = 2;
        flags.isDependedOn = 1;
    } else if (video) {
        flags.dependsOn = 1;
        flags.isDependedOn = 1;
    } else {
        flags.dependsOn = 2;
        flags.isDependedOn = 2;
    }
    return flags;
}

namespace {
// (later - earlier) at `fromRate`, rescaled to `toRate`, at least 0 and at most what 32-bit fields and the
// 64-bit sums can take: the difference is taken in 128 bits, so that no time overflows it.
std::int64_t rescaledGap(std::int64_t later, std::int64_t earlier, std::uint64_t fromRate, std::uint64_t toRate) {
    const __int128 gap = static_cast<__int128>(later) - earlier;
    if (gap <= 0) return 0;
    const __int128 scaled = gap * static_cast<__int128>(toRate) / static_cast<__int128>(fromRate);
    return scaled > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<std::int64_t>(scaled);
}

struct Timed {
    const ISample* sample;
    std::int64_t pts;
    std::int64_t dts;
    std::uint64_t rate;
    std::int64_t duration;
};

SampleFlags playerFlags(bool sync) {
    SampleFlags flags = sampleDependencyFlags(sync, true);
    flags.isNonSync = !sync;
    return flags;
}
}  // namespace

TrackFragment TrackFragmentBuilder::build(const TrackFragmentParameters& p, const std::vector<const ISample*>& samples) {
    // Only samples whose times are all known take part.
    std::vector<Timed> timed;
    timed.reserve(samples.size());
    for (const ISample* sample : samples) {
        if (sample == nullptr) continue;
        Timed t{sample, 0, 0, 0, 0};
        if (!sample->getPts(t.pts) || !sample->getDts(t.dts) || !sample->getTimescale(t.rate) ||
            !sample->getDuration(t.duration) || t.rate == 0) {
            continue;
        }
        timed.push_back(t);
    }

    TrackFragment fragment;
    fragment.traf = std::make_shared<Box>(fourCC("traf"));
    std::uint32_t tfhdFlags = p.dash ? TrackFragmentHeaderBox::kDefaultBaseIsMoof : 0;
    if (p.writeSampleDescriptionIndex) tfhdFlags |= TrackFragmentHeaderBox::kSampleDescriptionIndexPresent;
    fragment.tfhd = std::make_shared<TrackFragmentHeaderBox>(p.trackId, tfhdFlags);
    fragment.tfhd->sampleDescriptionIndex = p.sampleDescriptionIndex;
    fragment.traf->addChild(fragment.tfhd);

    const std::uint64_t T = p.trackTimescale;
    if (!timed.empty()) fragment.firstDecodeTime = rescaleTime(timed.front().dts, timed.front().rate, T);
    if (p.dash) {
        // Unsigned sum: wraps like the 64-bit field instead of overflowing.
        fragment.traf->addChild(std::make_shared<TrackFragmentDecodeTimeBox>(
            static_cast<std::uint64_t>(p.timestampOffset) + static_cast<std::uint64_t>(fragment.firstDecodeTime), 1));
    } else {
        const auto time = static_cast<std::uint64_t>(fragment.firstDecodeTime);
        fragment.traf->addChild(std::make_shared<TrackFragmentExtendedHeaderBox>(time, p.segmentDuration, 1));
        // Announces the next fragment, taken to be of the same duration.
        fragment.traf->addChild(std::make_shared<SmoothTfrfBox>(time + p.segmentDuration, p.segmentDuration));
    }

    const bool playerFlagged = p.playerCompatible && p.video;
    std::uint32_t trunFlags = p.video ? kVideoTrunFlags : kOtherTrunFlags;
    if (playerFlagged) {
        const bool laterSync =
            std::any_of(timed.begin() + (timed.empty() ? 0 : 1), timed.end(), [](const Timed& t) { return t.sample->isSync(); });
        if (laterSync) {
            trunFlags = kVideoPerSampleFlags;
        } else {
            fragment.tfhd->setFlags(fragment.tfhd->getFlags() | TrackFragmentHeaderBox::kDefaultSampleFlagsPresent);
            fragment.tfhd->defaultSampleFlags = playerFlags(false).toUInt32();
        }
    }
    fragment.trun = std::make_shared<TrackRunBox>(trunFlags);
    std::shared_ptr<SampleDependencyTypeBox> sdtp;
    if (!p.dash) sdtp = std::make_shared<SampleDependencyTypeBox>();

    std::int64_t durationSoFar = 0;  // at most 2^32 per sample: no overflow for any real count of samples
    const auto segmentDuration = static_cast<std::int64_t>(std::min<std::uint64_t>(p.segmentDuration, INT64_MAX));
    fragment.samples.reserve(timed.size());
    for (std::size_t i = 0; i < timed.size(); ++i) {
        const Timed& t = timed[i];
        TrackRunBox::Entry entry;
        // Only non-negative offsets: trun version 0 holds them unsigned.
        entry.compositionOffset = static_cast<std::uint32_t>(rescaledGap(t.pts, t.dts, t.rate, T));
        std::int64_t duration;
        if (i + 1 < timed.size()) {
            // The difference of the two times rescaled, not the rescaled difference: when the track's timescale
            // is coarser than the samples' (audio at 48 kHz in a 1 ms track), rounding then stays within one
            // unit of the true time instead of adding up over the run.
            if (timed[i + 1].rate == t.rate) {
                const std::int64_t end = rescaleTime(timed[i + 1].dts, t.rate, T);
                const std::int64_t start = rescaleTime(t.dts, t.rate, T);
                duration = rescaledGap(end, start, 1, 1);
            } else {
                duration = rescaledGap(timed[i + 1].dts, t.dts, t.rate, T);
            }
        } else {
            // The last sample absorbs every rounding error, so that the run adds up to the segment.
            duration = std::max<std::int64_t>(segmentDuration - durationSoFar, 0);
            // At the end of a stream the run's duration, measured on presentation times, can leave the last
            // sample in decode order nothing: players then see a frame of no duration.
            if (p.playerCompatible) {
                const std::int64_t own = rescaledGap(t.duration, 0, t.rate, T);
                if (2 * duration < own) duration = own;
            }
        }
        durationSoFar += duration;
        entry.duration = static_cast<std::uint32_t>(duration);
        entry.size = static_cast<std::uint32_t>(t.sample->getSize());
        const SampleFlags flags =
            playerFlagged ? playerFlags(t.sample->isSync()) : sampleDependencyFlags(t.sample->isSync(), p.video);
        entry.flags = flags;
        if (i == 0) fragment.trun->setFirstSampleFlags(flags);
        fragment.trun->addEntry(entry);
        if (sdtp) sdtp->addSample(flags);
        fragment.samples.push_back(t.sample);
        fragment.payloadSize += t.sample->getSize();
    }
    fragment.traf->addChild(fragment.trun);
    if (sdtp) fragment.traf->addChild(sdtp);
    if (p.encryption && (p.video || p.audio)) {
        fragment.encryption = makeEncryptionBoxes(fragment.samples, *p.encryption, p.video);
        addEncryptionBoxes(*fragment.traf, fragment.encryption);
    }
    return fragment;
}

void TrackFragmentBuilder::writePayload(const TrackFragment& fragment, ImffBitWriter& writer,
                                        tvrn::system::KeptBytesList* references, std::size_t least) {
    for (const ISample* sample : fragment.samples) {
        const std::size_t size = sample->getSize();
        const std::size_t at = writer.getBytePosition();
        std::uint8_t* place = writer.claimBytes(size);
        if (size == 0) continue;
        if (references != nullptr)
            sample->getDataReferring(place, at, least, *references);
        else
            sample->getData(place);
    }
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
