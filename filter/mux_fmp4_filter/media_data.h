#pragma once
// The engine's view (IMediaData) of a filter sample. MediaData takes a new reference on the sample it wraps;
// MediaData2 adopts the reference of a buffer just taken from an allocator. Metadata goes through the sample's
// IMediaSample3, and a sample without it refuses metadata with a COMException.
#include "filter/mux_fmp4_filter/media_sample.h"
#include "packaging/fmp4_types/media_data.h"

namespace tvrn::encoding::filter {

namespace fmp4 = packaging::imff::fmp4;

class MediaData : public fmp4::IMediaData {
public:
    static fmp4::MediaDataRef wrap(IMediaSample* sample);

    unsigned long AddRef() override;
    unsigned long Release() override;
    void DeleteThis() override { delete this; }
    HRESULT SetActualDataLength(long length) override { return m_sample->SetActualDataLength(length); }
    long GetActualDataLength() override { return m_sample->GetActualDataLength(); }
    HRESULT GetPointer(std::uint8_t** buffer) override { return m_sample->GetPointer(buffer); }
    long GetSize() override { return m_sample->GetSize(); }
    HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) override {
        return m_sample->SetTime(start, stop);
    }
    HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override { return m_sample->GetTime(start, stop); }
    HRESULT GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
        return m_sample->GetMediaTime(start, stop);
    }
    HRESULT SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) override {
        return m_sample->SetMediaTime(start, stop);
    }
    HRESULT SetSyncPoint(bool value) override { return m_sample->SetSyncPoint(value); }
    HRESULT IsSyncPoint() override { return m_sample->IsSyncPoint(); }
    HRESULT SetDiscontinuity(bool value) override { return m_sample->SetDiscontinuity(value); }
    HRESULT IsDiscontinuity() override { return m_sample->IsDiscontinuity(); }
    HRESULT SetPreroll(bool value) override { return m_sample->SetPreroll(value); }
    HRESULT IsPreroll() override { return m_sample->IsPreroll(); }

    HRESULT SetCuePoint(const fmp4::CuePoint& value) override;
    bool GetCuePoint(fmp4::CuePoint& value) override;
    HRESULT SetSampleDate(const fmp4::SampleDate& value) override;
    bool GetSampleDate(fmp4::SampleDate& value) override;
    HRESULT SetDataId(const fmp4::DataId& value) override;
    bool GetDataId(fmp4::DataId& value) override;
    HRESULT SetDolbyMetadata(const fmp4::DolbyMetadata& value) override;
    bool GetDolbyMetadata(fmp4::DolbyMetadata& value) override;
    HRESULT SetParentalRating(const fmp4::ParentalRatingEventBlock& value) override;
    bool GetParentalRating(fmp4::ParentalRatingEventBlock& value) override;
    HRESULT SetRecordingEvent(const fmp4::RecordingEvent& value) override;
    bool GetRecordingEvent(fmp4::RecordingEvent& value) override;

    void* GetMediaSample() override { return m_sample.get(); }

protected:
    // The metadata interface is looked up once: every sample is asked for its metadata items several times.
    explicit MediaData(SampleRef<IMediaSample> sample)
        : m_sample(std::move(sample)), m_sample3(dynamic_cast<IMediaSample3*>(m_sample.get())) {}
    ~MediaData() override = default;

private:
    IMediaSample3& withMetadata(std::uint32_t type);
    template <typename T>
    HRESULT setItem(std::uint32_t type, const T& value);
    template <typename T>
    bool getItem(std::uint32_t type, T& value);

    RefCount m_refCount;
    SampleRef<IMediaSample> m_sample;
    IMediaSample3* const m_sample3;  // m_sample's metadata interface, null when it has none
};

class MediaData2 final : public MediaData {
public:
    // Takes over the reference that the caller holds on `buffer`.
    static fmp4::MediaDataRef adopt(IMediaSample3* buffer);

private:
    using MediaData::MediaData;
};

}  // namespace tvrn::encoding::filter
