#include "packaging/fmp4/chunks/chunks_builder.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>

#include "packaging/encryption/sample_encryption.h"
#include "packaging/fmp4/chunks/chunk_dump.h"
#include "packaging/fmp4/chunks/chunk_serializer.h"
#include "packaging/fmp4/chunks/init_chunk.h"
#include "packaging/fmp4/chunks/text_chunks.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using tvrn::log::LOG_ERROR;
using tvrn::log::LOG_WARNING;

namespace {

constexpr std::uint64_t kHundredNs = 10000000;
constexpr std::int64_t kUnitsPerMs = 10000;
constexpr std::int64_t kAllStartsTolerance = 150 * kUnitsPerMs;
constexpr std::int64_t kVideoStartsTolerance = 50 * kUnitsPerMs;

using ull = unsigned long long;
using ll = long long;

std::string format(const char* fmt, auto... args) {
    char text[512];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

}  // namespace

std::int64_t systemUtcMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::unique_ptr<IChunksBuilder> makeChunksBuilder(const ChunksBuilderParams& params) {
    return std::make_unique<ChunksBuilder>(params);
}

std::optional<std::string> syncPointFailure(const SegmentChunks& segments, std::uint64_t segmentDurationMs) {
    if (segments.chunks.empty()) return std::string("Empty segment");
    std::int64_t minimum = std::numeric_limits<std::int64_t>::max();
    std::int64_t maximum = std::numeric_limits<std::int64_t>::min();
    std::int64_t minimumVideo = minimum;
    std::int64_t maximumVideo = maximum;
    std::string starts = "pts(ms) ";
    for (const auto& [id, chunk] : segments.chunks) {
        if (!chunk) continue;
        const std::uint64_t durationMs = chunk->duration / kUnitsPerMs;
        // At most 1.25 times the segment duration, in integers: 4 d <= 5 D.
        if (static_cast<unsigned __int128>(durationMs) * 4 > static_cast<unsigned __int128>(segmentDurationMs) * 5)
            return format("Invalid duration %llu ms", static_cast<ull>(durationMs));
        const bool video = chunkIsVideo(*chunk);
        const bool audio = chunkIsAudio(*chunk);
        if (!video && !audio) continue;  // text and metadata do not take part in the alignment
        const std::int64_t start = chunkStartTime(*chunk, kHundredNs);
        minimum = std::min(minimum, start);
        maximum = std::max(maximum, start);
        if (video) {
            minimumVideo = std::min(minimumVideo, start);
            maximumVideo = std::max(maximumVideo, start);
        }
        starts += format(video ? "V%d=%llu " : "A%d=%llu ", static_cast<int>(id), static_cast<ull>(start / kUnitsPerMs));
    }
    if (maximum != std::numeric_limits<std::int64_t>::min() && maximum - minimum > kAllStartsTolerance)
        return format("Mis-aligned segments start times: delta = %llu ms : %s",
                      static_cast<ull>((maximum - minimum) / kUnitsPerMs), starts.c_str());
    if (maximumVideo != std::numeric_limits<std::int64_t>::min() && maximumVideo - minimumVideo > kVideoStartsTolerance)
        return format("Mis-aligned video segments start times: min = %llu ms, max = %llu ms",
                      static_cast<ull>(maximumVideo / kUnitsPerMs), static_cast<ull>(minimumVideo / kUnitsPerMs));
    return std::nullopt;
}

ChunksBuilder::ChunksBuilder(const ChunksBuilderParams& params)
    : m_dash(params.outputFormat != Smooth),
      m_playerCompatible(params.playerCompatible),
      m_sparseStreamsHoldOrigin(params.sparseStreamsHoldOrigin),
      m_chunkDump(params.chunkDump),
      m_config(*params.config),
      m_driftDetection(params.driftDetection),
      m_clock(params.utcClockMs ? params.utcClockMs : std::function<std::int64_t()>(systemUtcMs)),
      m_logger(*params.logger) {}

ChunksBuilder::~ChunksBuilder() = default;

void ChunksBuilder::AddStream(std::uint32_t streamId, std::uint32_t trackId,
                              const ElementaryStreamAttributes& attributes) {
    ChunkStreamRecord record;
    record.attributes = attributes;
    record.trackId = trackId;
    if (encrypting()) m_encryption->fillInitialisationVector(record.initialisationVector);
    m_streams[streamId] = std::move(record);
    m_attributes[streamId] = attributes;
}

void ChunksBuilder::SetEncryptionManager(std::unique_ptr<encryption::EncryptionManager> manager) {
    m_encryption = std::move(manager);
    for (auto& [id, record] : m_streams) {
        record.initialisationVector.clear();
        if (encrypting()) m_encryption->fillInitialisationVector(record.initialisationVector);
    }
}

void ChunksBuilder::updateKeyAndEncrypt(const SegmentChunks& segments) {
    for (auto& [id, record] : m_streams)
        if (record.initialisationVector.empty()) m_encryption->fillInitialisationVector(record.initialisationVector);
    // The key asked for is the key of the middle of the chunk, from the first stream that has one.
    const auto first = std::find_if(segments.chunks.begin(), segments.chunks.end(),
                                    [](const auto& entry) { return entry.second && !entry.second->samples.empty(); });
    if (first != segments.chunks.end()) {
        const std::int64_t start = chunkStartTime(*first->second, kHundredNs);
        const std::uint64_t time =
            static_cast<std::uint64_t>(std::max<std::int64_t>(start, 0)) + first->second->duration / 2;
        std::vector<std::uint8_t> iv;
        if (m_encryption->updateKey(time, iv) && !iv.empty())
            for (auto& [id, record] : m_streams) record.initialisationVector = iv;
    }
    const bool keyReady = m_encryption->hasKey();
    for (const auto& [id, chunk] : segments.chunks) {
        const auto record = m_streams.find(id);
        if (!chunk || chunk->samples.empty() || record == m_streams.end()) continue;
        const auto* firstSample = dynamic_cast<const Fmp4Sample*>(chunk->samples.front().get());
        if (!firstSample) continue;
        const encryption::SampleProtection protection = encryption::protectionForSampleKind(firstSample->kind());
        if (protection == encryption::SampleProtection::Clear) continue;
        if (!keyReady) {
            m_logger.WriteMsg(LOG_ERROR, "segment not encrypted (encryption key not available)");
            continue;
        }
        // Each sample as the list of its NALs' bytes, encrypted in place; its record goes with it.
        std::vector<Sample*> samples;
        std::vector<std::vector<encryption::NalBytes>> nals;
        for (const auto& entry : chunk->samples) {
            const auto* sample = dynamic_cast<const Fmp4Sample*>(entry.get());
            if (!sample) continue;
            samples.push_back(sample->sample().get());
            nals.emplace_back();
            for (const auto& nal : samples.back()->nals)
                if (nal->capacity > 0 && nal->length > 0) nals.back().emplace_back(nal->writableBytes(), nal->length);
        }
        const std::vector<encryption::SampleNals> lists(nals.begin(), nals.end());
        std::vector<std::optional<imff_box::SampleEncryptionInfo>> infos;
        const bool subsamples = protection == encryption::SampleProtection::Subsamples;
        if (m_encryption->scheme() == encryption::EncryptionScheme::Cbcs) {
            const auto codec = firstSample->sample()->inputType == HEVC_VIDEO ? encryption::NalCodec::Hevc
                                                                               : encryption::NalCodec::H264;
            encryption::encryptStreamSamplesCbcs(lists, subsamples, codec, *m_encryption, infos);
        } else {
            encryption::encryptStreamSamples(lists, subsamples, *m_encryption, record->second.initialisationVector,
                                             infos);
        }
        for (std::size_t i = 0; i < samples.size() && i < infos.size(); ++i)
            if (infos[i]) samples[i]->encryptionInfo = std::make_unique<imff_box::SampleEncryptionInfo>(std::move(*infos[i]));
    }
}

void ChunksBuilder::SetOutputs(const std::vector<ChunkOutputSeed>& outputs, bool inBandParameterSets,
                               bool psshInFragments, bool allVideoInInit) {
    // The three flags are a DASH matter.
    m_inBandParameterSets = m_dash && inBandParameterSets;
    m_psshInFragments = m_dash && psshInFragments;
    m_allVideoInInit = m_dash && allVideoInInit;
    m_outputs.clear();
    int index = 0;
    for (const ChunkOutputSeed& seed : outputs) {
        ChunkOutput output;
        output.name = seed.name;
        output.streamIds = seed.streamIds;
        output.output = seed.output;
        output.firstNumber = seed.firstNumber;
        // The first number applies to chunks; segments always count from 1.
        output.chunkNumber = seed.firstNumber;
        output.segmentNumber = 1;
        m_outputs[index++] = std::move(output);
    }
}

void ChunksBuilder::SetDefaultParentalRating(std::uint32_t age) { m_ratings.setDefaultAge(age); }

std::optional<std::int64_t> ChunksBuilder::updateParentalRatings(const SegmentChunks& segments) {
    for (const auto& [id, chunk] : segments.chunks) {
        const auto record = m_streams.find(id);
        if (!chunk || chunk->samples.empty() || record == m_streams.end() || !isVideo(record->second.attributes.type))
            continue;
        std::vector<const ParentalRatingEventBlock*> blocks;
        for (const auto& entry : chunk->samples) {
            const auto* sample = dynamic_cast<const Fmp4Sample*>(entry.get());
            if (sample && sample->sample()->hasParentalRating && sample->sample()->parentalRating)
                blocks.push_back(sample->sample()->parentalRating.get());
        }
        const std::int64_t start = chunkStartTime(*chunk, kHundredNs);
        m_ratings.update(blocks, start);
        return start;
    }
    return std::nullopt;
}

std::string ChunksBuilder::labelOf(int index, const ChunkOutput& output) const {
    return outputLabel(index, output.streamIds, m_attributes);
}

std::uint64_t ChunksBuilder::segmentMs(const ChunkOutput& output) const {
    if (output.timebaseDenominator == 0) return 0;
    return mulDivU(output.segmentDuration, 1000, output.timebaseDenominator);
}

void ChunksBuilder::OnFirstSegments(const SegmentChunks& first, std::uint64_t timebase, std::uint64_t chunkDuration,
                                    std::uint64_t segmentDuration) {
    const ManifestDurations durations{timebase, segmentDuration, chunkDuration};
    for (auto& [index, output] : m_outputs) {
        // Timed-text outputs get an init chunk without encryption context; they have no sample entry yet.
        // Timed text init chunks are never encrypted.
        const auto only = output.streamIds.size() == 1 ? m_streams.find(static_cast<std::uint32_t>(output.streamIds[0]))
                                                       : m_streams.end();
        const bool text = only != m_streams.end() &&
                          (only->second.attributes.type == TTML || only->second.attributes.type == WEBVTT);
        InitChunk init(output.name, m_dash, m_playerCompatible, text ? nullptr : m_encryption.get());
        bool added = false;
        for (const std::int32_t id : output.streamIds) {
            const auto stream = m_streams.find(static_cast<std::uint32_t>(id));
            const auto present = first.chunks.find(static_cast<std::uint32_t>(id));
            if (stream == m_streams.end() || present == first.chunks.end() || !present->second) continue;
            const ElementaryStreamAttributes& attributes = stream->second.attributes;
            output.timebaseDenominator = timebase;
            output.chunkDuration = chunkDuration;
            output.segmentDuration = segmentDuration;
            output.timescale = kHundredNs;
            if (m_dash && isAudio(attributes.type) && output.streamIds.size() == 1 &&
                (m_config.tag() == 2 || m_config.tag() == 3))
                output.timescale = timebase;

            if (isVideo(attributes.type) && m_allVideoInInit) {
                // Every video stream as one more sample entry of track 1, all described by this output's stream.
                for (auto& [otherId, other] : m_streams) {
                    const auto otherChunk = first.chunks.find(otherId);
                    if (!isVideo(other.attributes.type) || otherChunk == first.chunks.end() || !otherChunk->second)
                        continue;
                    const std::int32_t entry = init.AddStream(
                        other.trackId, static_cast<std::uint32_t>(output.timescale), durations, other.attributes.type,
                        attributes, m_inBandParameterSets, *otherChunk->second, otherId == stream->first);
                    if (entry > 0) other.sampleDescriptionIndex = static_cast<std::uint32_t>(entry);
                    added = added || entry != 0;
                }
            } else {
                const std::int32_t entry =
                    init.AddStream(stream->second.trackId, static_cast<std::uint32_t>(output.timescale), durations,
                                   attributes.type, attributes, m_inBandParameterSets, *present->second, true);
                if (entry > 0) stream->second.sampleDescriptionIndex = static_cast<std::uint32_t>(entry);
                added = added || entry != 0;
            }
        }
        output.atSegmentStart = true;
        if (!added || output.output == nullptr) continue;
        const std::vector<std::uint8_t> bytes = init.Serialise();
        output.output->Write(bytes.data(), bytes.size(), nullptr, 0, true, false, false, 0);
    }
}

void ChunksBuilder::OnChunks(const SegmentChunks& segments, bool last) {
    if (m_outputs.empty() || segments.empty()) return;
    if (!m_sessionStartMs) {
        m_sessionStartMs = m_clock();
    } else if (m_driftDetection) {
        checkDrift(segments);
    }
    if (m_aligned) {
        buildChunk(segments, last);
        return;
    }
    // Hold until every registered stream has delivered, so that the time origin is the earliest of them all.
    for (const auto& [id, chunk] : segments.chunks) {
        if (!chunk || chunk->samples.empty()) continue;
        const std::int64_t start = chunkStartTime(*chunk, kHundredNs);
        const auto known = m_earliest.find(id);
        if (known == m_earliest.end())
            m_earliest[id] = start;
        else
            known->second = std::min(known->second, start);
    }
    m_held.push_back({segments, last});
    const auto awaited = [this](const auto& stream) {
        return m_sparseStreamsHoldOrigin || syncStreamKind(stream.second.attributes.type) != SyncOther;
    };
    const auto waitedFor = static_cast<std::size_t>(std::count_if(m_streams.begin(), m_streams.end(), awaited));
    std::size_t delivered = 0;
    for (const auto& stream : m_streams) delivered += awaited(stream) && m_earliest.count(stream.first) ? 1U : 0U;
    if (delivered < waitedFor || m_earliest.empty()) return;
    m_timeOrigin = std::numeric_limits<std::int64_t>::max();
    for (const auto& [id, time] : m_earliest) m_timeOrigin = std::min(m_timeOrigin, time);
    m_earliest.clear();
    m_aligned = true;
    std::deque<HeldChunks> held;
    held.swap(m_held);
    for (const HeldChunks& entry : held) buildChunk(entry.segments, entry.last);
}

void ChunksBuilder::checkDrift(const SegmentChunks& segments) {
    const std::int64_t elapsed = m_clock() - *m_sessionStartMs;
    for (auto& [index, output] : m_outputs) {
        if (!output.atSegmentStart) continue;
        const std::uint64_t ms = segmentMs(output);
        if (ms == 0) continue;
        const std::uint64_t expected = static_cast<std::uint64_t>(std::max<std::int64_t>(elapsed, 0)) / ms + 1;
        const std::uint64_t current = output.segmentNumber;
        if (segmentNumberWithinTolerance(current, expected)) continue;
        const std::string noted = format("segment %llu is expected (drift of %lld ms)", static_cast<ull>(expected),
                                         static_cast<ll>(elapsed - static_cast<std::int64_t>((current - 1) * ms)));
        if (const auto reason = syncPointFailure(segments, ms)) {
            m_logger.WriteMsg(LOG_WARNING, "drift detected but segments do not comply whith sync. point (%s).",
                              reason->c_str());
            continue;
        }
        // A new numbering and a new time origin start at this chunk, marked as a discontinuity.
        m_aligned = false;
        m_earliest.clear();
        for (const std::int32_t id : output.streamIds) {
            const auto chunk = segments.chunks.find(static_cast<std::uint32_t>(id));
            if (chunk != segments.chunks.end() && chunk->second) chunk->second->discontinuity = 1;
        }
        m_logger.WriteMsg(LOG_WARNING, "%s : segment #%llu : drift detected : %s : new sequence number is %llu",
                          labelOf(index, output).c_str(), static_cast<ull>(current), noted.c_str(),
                          static_cast<ull>(expected));
        output.segmentNumber = expected;
    }
}

void ChunksBuilder::buildChunk(const SegmentChunks& segments, bool last) {
    // A sparse stream that the time origin did not wait for may have spoken before it: that is dropped.
    if (!m_sparseStreamsHoldOrigin)
        for (const auto& [id, chunk] : segments.chunks) {
            const auto stream = m_streams.find(id);
            if (!chunk || stream == m_streams.end() || syncStreamKind(stream->second.attributes.type) != SyncOther) continue;
            std::erase_if(chunk->samples, [this](const auto& sample) { return sample->getTime() < m_timeOrigin; });
        }
    const std::optional<std::int64_t> videoStart = updateParentalRatings(segments);
    // Text chunks take their mdat form first; encryption never touches them.
    for (const auto& [id, chunk] : segments.chunks) {
        const auto record = m_streams.find(id);
        if (!chunk || record == m_streams.end()) continue;
        if (record->second.attributes.type == WEBVTT) foldRepeatedWebVttCues(*chunk);
        if (record->second.attributes.type == TTML) {
            // DASH times count from the chunk's start; players read them on the track's timeline, which starts
            // at the time origin. Smooth Streaming clients take them absolute.
            const std::int64_t chunkStart = chunk->samples.empty() ? m_timeOrigin : chunk->samples.front()->getTime();
            std::string skipped;
            mergeTtmlChunk(*chunk, !m_dash ? 0 : m_playerCompatible ? m_timeOrigin : chunkStart,
                           record->second.attributes.language, skipped);
            if (!skipped.empty())
                m_logger.WriteMsg(LOG_WARNING, "stream %u : TTML documents that are not XML left out at %s", id,
                                  skipped.c_str());
        }
    }
    if (encrypting()) updateKeyAndEncrypt(segments);
    // The chunk is encrypted when the provider knows a key id: its samples then carry their encryption records.
    std::optional<FragmentEncryptionInfo> encryption;
    if (encrypting()) {
        encryption.emplace();
        encryption->dashForm = m_dash;
        encryption->overrideTrackEncryption = m_encryption->overridesTrackEncryption();
        encryption->encrypted = m_encryption->getKeyId(encryption->keyId);
        if (m_encryption->scheme() == encryption::EncryptionScheme::Cbcs) {
            const auto& iv = m_encryption->constantIv();
            encryption->cbcsConstantIv.emplace(iv.begin(), iv.end());
        }
    }
    for (auto& [index, output] : m_outputs) {
        std::vector<ChunkTrack> tracks;
        bool discontinuity = false;
        bool dataIdPresent = false;
        std::uint64_t dataId = 0;
        std::int64_t chunkTime = 0;
        std::uint64_t chunkDuration = 0;
        for (const std::int32_t id : output.streamIds) {
            const auto record = m_streams.find(static_cast<std::uint32_t>(id));
            const auto found = segments.chunks.find(static_cast<std::uint32_t>(id));
            if (record == m_streams.end() || found == segments.chunks.end() || !found->second ||
                found->second->samples.empty())
                continue;
            StreamChunk& chunk = *found->second;
            chunk.sampleDescriptionIndex = record->second.sampleDescriptionIndex;
            discontinuity = discontinuity || chunk.discontinuity != 0;
            if (!dataIdPresent && chunk.dataIdPresent) {
                dataIdPresent = true;
                dataId = chunk.dataId;
            }
            const bool video = chunkIsVideo(chunk);
            // The first chunk gives time and duration; a later video chunk overrides them, a later other chunk
            // only fills a duration still missing.
            if (tracks.empty() || video || chunkDuration == 0) {
                chunkTime = chunkStartTime(chunk, kHundredNs);
                chunkDuration = chunk.duration;
            }
            tracks.push_back({record->second.trackId, chunkContentType(chunkFirstKind(chunk)), &chunk});
        }
        const std::string label = labelOf(index, output);
        if (tracks.empty()) {
            if (!m_dash) continue;
            if (m_config.tag() >= 2) continue;
            m_logger.WriteMsg(LOG_WARNING, "%s : missing chunk detected %llu : incr seq. num. anyway", label.c_str(),
                              static_cast<ull>(output.chunkNumber));
        }

        ChunkSerialisationParameters p;
        p.tracks = std::move(tracks);
        p.segmentNumber = output.segmentNumber;
        p.chunkNumber = output.chunkNumber;
        p.chunkDuration = chunkDuration;
        p.atSegmentStart = output.atSegmentStart;
        p.lastOfSegment = last;
        p.dash = m_dash;
        p.allVideoInInit = m_allVideoInInit;
        p.psshInFragments = m_psshInFragments;
        p.playerCompatible = m_playerCompatible;
        p.timescale = output.timescale;
        // Rating events open each segment, at the video's time (the output's own when there is no video).
        if (output.atSegmentStart)
            p.events = m_ratings.messagesAt(videoStart.value_or(chunkTime), output.segmentNumber, m_logger);
        p.negatedOrigin = -rescale(m_timeOrigin, kHundredNs, output.timescale);
        if (encryption) {
            p.encryption = encryption;
            if (m_psshInFragments && output.atSegmentStart)
                m_encryption->getProtectionBoxes(p.encryption->fragmentProtectionBoxes, true);
        }
        if (m_chunkDump) m_chunkDump(chunkDumpText(p.tracks, p.chunkNumber, p.segmentNumber, m_timeOrigin));
        // An output that lends memory gets the chunk written there; any other copies the bytes before Write
        // returns, and the room is kept for the next chunk.
        auto* placement = dynamic_cast<IOutputFmp4Placement*>(output.output);
        std::function<ChunkPlace(std::size_t)> place;
        if (placement != nullptr)
            place = [&](std::size_t size) {
                std::uint8_t* at = placement->Place(size, &chunkTime, 0);
                return ChunkPlace{at, at != nullptr && placement->TakesReferences()};
            };
        m_room = serialiseChunk(p, std::move(m_room), place);
        ChunkBytes& bytes = m_room;

        bool written = false;
        if (bytes.placed)
            written = placement->Commit(false, discontinuity, dataIdPresent, dataId, std::move(bytes.references));
        else if (output.output != nullptr)
            written = output.output->Write(bytes.data.get(), bytes.size, &chunkTime, 0, false, discontinuity,
                                           dataIdPresent, dataId);
        if (!written)
            m_logger.WriteMsg(LOG_WARNING, "%s : drop segment %llu buffer (%llu kbytes) ", label.c_str(),
                              static_cast<ull>(output.segmentNumber), static_cast<ull>(bytes.size / 1000));
        ++output.chunkNumber;
        if (last) ++output.segmentNumber;
        output.atSegmentStart = last;
    }
}

void ChunksBuilder::OnEndOfStream() {
    for (auto& [index, output] : m_outputs)
        if (output.output != nullptr) output.output->EndOfStream();
}

void ChunksBuilder::OnRestart() {
    if (m_sessionStartMs) {
        const std::int64_t elapsed = std::max<std::int64_t>(m_clock() - *m_sessionStartMs, 0);
        for (auto& [index, output] : m_outputs) {
            const std::uint64_t ms = segmentMs(output);
            if (ms == 0) continue;
            const std::uint64_t number = static_cast<std::uint64_t>(elapsed) / ms + output.firstNumber;
            if (number == output.segmentNumber) continue;
            m_logger.WriteMsg(LOG_WARNING, "%s : resynchronize: segment number changes from %llu to %llu",
                              labelOf(index, output).c_str(), static_cast<ull>(output.segmentNumber),
                              static_cast<ull>(number));
            output.segmentNumber = number;
        }
    }
    m_aligned = false;
    m_earliest.clear();
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
