#pragma once
// The engine's neutral view of an input buffer: parsers never see the media graph's interfaces.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "support/exceptions/result_codes.h"
#include "support/system/ref_ptr.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using tvrn::com::HRESULT;
using REFERENCE_TIME = std::int64_t;  // 100 ns units

// The metadata items that input buffers carry. Their layouts pass through the engine unchanged.
struct CuePoint {
    std::uint8_t type = 0;
    std::uint8_t flags = 0;
    std::uint64_t value = 0;
    std::uint8_t extra1 = 0;
    std::uint8_t extra2 = 0;
    std::uint32_t duration = 0;
};
static_assert(sizeof(CuePoint) == 24);

struct SampleDate {
    std::uint64_t value = 0;
};
static_assert(sizeof(SampleDate) == 8);

struct DataId {
    std::uint64_t value = 0;
};
static_assert(sizeof(DataId) == 8);

#pragma pack(push, 2)
// Dolby metadata of an audio buffer; the default is the unset state.
struct DolbyMetadata {
    std::uint16_t header = 0xFFFF;
    std::int32_t values[18] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    std::uint16_t mode = 0;
    std::uint16_t extra[3] = {0xFFFF, 0xFFFF, 0xFFFF};
    std::uint8_t present = 0;
};
#pragma pack(pop)
static_assert(sizeof(DolbyMetadata) == 84);

// The parental rating event block of the upstream demultiplexer, copied whole.
struct ParentalRatingEventBlock {
    std::uint8_t bytes[5144] = {};
};
static_assert(sizeof(ParentalRatingEventBlock) == 5144);

struct RecordingEvent {
    std::uint8_t kind = 0;
    std::uint8_t state = 0;
};
static_assert(sizeof(RecordingEvent) == 2);

class IMediaData {
public:
    virtual ~IMediaData() = default;
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;
    // Called by Release when the last reference goes: destroys the object or returns it to its pool.
    virtual void DeleteThis() = 0;

    virtual HRESULT SetActualDataLength(long length) = 0;
    virtual long GetActualDataLength() = 0;
    // Negative on failure.
    virtual HRESULT GetPointer(std::uint8_t** buffer) = 0;
    virtual long GetSize() = 0;

    // Presentation time. A null start clears the time; a null stop leaves a start without stop.
    virtual HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) = 0;
    // S_OK with both, VFW_S_NO_STOP_TIME with a start only, VFW_E_SAMPLE_TIME_NOT_SET without time.
    virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
    // Decoding time: S_OK, or VFW_E_MEDIA_TIME_NOT_SET.
    virtual HRESULT GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
    virtual HRESULT SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) = 0;

    // The Is* calls answer S_OK for true and S_FALSE for false.
    virtual HRESULT SetSyncPoint(bool value) = 0;
    virtual HRESULT IsSyncPoint() = 0;
    virtual HRESULT SetDiscontinuity(bool value) = 0;
    virtual HRESULT IsDiscontinuity() = 0;
    virtual HRESULT SetPreroll(bool value) = 0;
    virtual HRESULT IsPreroll() = 0;

    // Each get answers whether the item is present.
    virtual HRESULT SetCuePoint(const CuePoint& value) = 0;
    virtual bool GetCuePoint(CuePoint& value) = 0;
    virtual HRESULT SetSampleDate(const SampleDate& value) = 0;
    virtual bool GetSampleDate(SampleDate& value) = 0;
    virtual HRESULT SetDataId(const DataId& value) = 0;
    virtual bool GetDataId(DataId& value) = 0;
    virtual HRESULT SetDolbyMetadata(const DolbyMetadata& value) = 0;
    virtual bool GetDolbyMetadata(DolbyMetadata& value) = 0;
    virtual HRESULT SetParentalRating(const ParentalRatingEventBlock& value) = 0;
    virtual bool GetParentalRating(ParentalRatingEventBlock& value) = 0;
    virtual HRESULT SetRecordingEvent(const RecordingEvent& value) = 0;
    virtual bool GetRecordingEvent(RecordingEvent& value) = 0;

    // The wrapped graph sample, or null for a buffer of the engine's own.
    virtual void* GetMediaSample() = 0;
};

// A counted reference to an IMediaData.
using MediaDataRef = RefPtr<IMediaData>;

// The presentation and decoding times of a buffer, with the answers of the media graph's sample calls.
class MediaTimes {
public:
    HRESULT setTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop);
    HRESULT getTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) const;
    HRESULT setMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop);
    HRESULT getMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) const;

private:
    std::optional<REFERENCE_TIME> m_start;
    std::optional<REFERENCE_TIME> m_stop;
    std::optional<REFERENCE_TIME> m_mediaStart;
    std::optional<REFERENCE_TIME> m_mediaStop;
};

// The times and flags of a buffer, with its metadata items.
class MediaDataProperties : public MediaTimes {
public:
    bool syncPoint = false;
    bool discontinuity = false;
    bool preroll = false;
    std::optional<CuePoint> cuePoint;
    std::optional<SampleDate> sampleDate;
    std::optional<DataId> dataId;
    std::optional<DolbyMetadata> dolbyMetadata;
    std::optional<ParentalRatingEventBlock> parentalRating;
    std::optional<RecordingEvent> recordingEvent;
};

// An IMediaData that owns a plain buffer. Created with one reference, which the creator holds.
class SimpleMediaData final : public IMediaData {
public:
    static MediaDataRef create(std::size_t size);
    static MediaDataRef create(const std::uint8_t* bytes, std::size_t length);

    unsigned long AddRef() override;
    unsigned long Release() override;
    void DeleteThis() override;
    HRESULT SetActualDataLength(long length) override;
    long GetActualDataLength() override;
    HRESULT GetPointer(std::uint8_t** buffer) override;
    long GetSize() override;
    HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) override;
    HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
    HRESULT GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
    HRESULT SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) override;
    HRESULT SetSyncPoint(bool value) override;
    HRESULT IsSyncPoint() override;
    HRESULT SetDiscontinuity(bool value) override;
    HRESULT IsDiscontinuity() override;
    HRESULT SetPreroll(bool value) override;
    HRESULT IsPreroll() override;
    HRESULT SetCuePoint(const CuePoint& value) override;
    bool GetCuePoint(CuePoint& value) override;
    HRESULT SetSampleDate(const SampleDate& value) override;
    bool GetSampleDate(SampleDate& value) override;
    HRESULT SetDataId(const DataId& value) override;
    bool GetDataId(DataId& value) override;
    HRESULT SetDolbyMetadata(const DolbyMetadata& value) override;
    bool GetDolbyMetadata(DolbyMetadata& value) override;
    HRESULT SetParentalRating(const ParentalRatingEventBlock& value) override;
    bool GetParentalRating(ParentalRatingEventBlock& value) override;
    HRESULT SetRecordingEvent(const RecordingEvent& value) override;
    bool GetRecordingEvent(RecordingEvent& value) override;
    void* GetMediaSample() override { return nullptr; }

    MediaDataProperties& properties() { return m_properties; }

private:
    explicit SimpleMediaData(std::size_t size) : m_buffer(size), m_actualLength(static_cast<long>(size)) {}

    RefCount m_refCount;
    std::vector<std::uint8_t> m_buffer;
    long m_actualLength;
    MediaDataProperties m_properties;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
