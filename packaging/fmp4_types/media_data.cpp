#include "packaging/fmp4_types/media_data.h"

#include <cstring>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using namespace tvrn::com;

namespace {
template <typename T>
bool readItem(const std::optional<T>& item, T& out) {
    if (!item) return false;
    out = *item;
    return true;
}
}  // namespace

HRESULT MediaTimes::setTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) {
    m_start.reset();
    m_stop.reset();
    if (start == nullptr) return S_OK;
    m_start = *start;
    if (stop != nullptr) m_stop = *stop;
    return S_OK;
}

HRESULT MediaTimes::getTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) const {
    if (!m_start) return VFW_E_SAMPLE_TIME_NOT_SET;
    if (start) *start = *m_start;
    if (!m_stop) {
        if (stop) *stop = *m_start + 1;
        return VFW_S_NO_STOP_TIME;
    }
    if (stop) *stop = *m_stop;
    return S_OK;
}

HRESULT MediaTimes::setMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) {
    m_mediaStart.reset();
    m_mediaStop.reset();
    if (start == nullptr) return S_OK;
    m_mediaStart = *start;
    m_mediaStop = stop != nullptr ? *stop : *start;
    return S_OK;
}

HRESULT MediaTimes::getMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) const {
    if (!m_mediaStart) return VFW_E_MEDIA_TIME_NOT_SET;
    if (start) *start = *m_mediaStart;
    if (stop) *stop = *m_mediaStop;
    return S_OK;
}

MediaDataRef SimpleMediaData::create(std::size_t size) { return MediaDataRef::adopt(new SimpleMediaData(size)); }

MediaDataRef SimpleMediaData::create(const std::uint8_t* bytes, std::size_t length) {
    auto* data = new SimpleMediaData(length);
    if (length > 0) std::memcpy(data->m_buffer.data(), bytes, length);
    return MediaDataRef::adopt(data);
}

unsigned long SimpleMediaData::AddRef() { return m_refCount.add(); }

unsigned long SimpleMediaData::Release() {
    const unsigned long left = m_refCount.release();
    if (left == 0) DeleteThis();
    return left;
}

void SimpleMediaData::DeleteThis() { delete this; }

HRESULT SimpleMediaData::SetActualDataLength(long length) {
    if (length < 0 || length > static_cast<long>(m_buffer.size())) return VFW_E_BUFFER_OVERFLOW;
    m_actualLength = length;
    return S_OK;
}

long SimpleMediaData::GetActualDataLength() { return m_actualLength; }

HRESULT SimpleMediaData::GetPointer(std::uint8_t** buffer) {
    if (buffer == nullptr) return E_POINTER;
    *buffer = m_buffer.data();
    return S_OK;
}

long SimpleMediaData::GetSize() { return static_cast<long>(m_buffer.size()); }

HRESULT SimpleMediaData::SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) {
    return m_properties.setTime(start, stop);
}
HRESULT SimpleMediaData::GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
    return m_properties.getTime(start, stop);
}
HRESULT SimpleMediaData::GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
    return m_properties.getMediaTime(start, stop);
}
HRESULT SimpleMediaData::SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) {
    return m_properties.setMediaTime(start, stop);
}
HRESULT SimpleMediaData::SetSyncPoint(bool value) {
    m_properties.syncPoint = value;
    return S_OK;
}
HRESULT SimpleMediaData::IsSyncPoint() { return m_properties.syncPoint ? S_OK : S_FALSE; }
HRESULT SimpleMediaData::SetDiscontinuity(bool value) {
    m_properties.discontinuity = value;
    return S_OK;
}
HRESULT SimpleMediaData::IsDiscontinuity() { return m_properties.discontinuity ? S_OK : S_FALSE; }
HRESULT SimpleMediaData::SetPreroll(bool value) {
    m_properties.preroll = value;
    return S_OK;
}
HRESULT SimpleMediaData::IsPreroll() { return m_properties.preroll ? S_OK : S_FALSE; }

HRESULT SimpleMediaData::SetCuePoint(const CuePoint& value) {
    m_properties.cuePoint = value;
    return S_OK;
}
bool SimpleMediaData::GetCuePoint(CuePoint& value) { return readItem(m_properties.cuePoint, value); }
HRESULT SimpleMediaData::SetSampleDate(const SampleDate& value) {
    m_properties.sampleDate = value;
    return S_OK;
}
bool SimpleMediaData::GetSampleDate(SampleDate& value) { return readItem(m_properties.sampleDate, value); }
HRESULT SimpleMediaData::SetDataId(const DataId& value) {
    m_properties.dataId = value;
    return S_OK;
}
bool SimpleMediaData::GetDataId(DataId& value) { return readItem(m_properties.dataId, value); }
HRESULT SimpleMediaData::SetDolbyMetadata(const DolbyMetadata& value) {
    m_properties.dolbyMetadata = value;
    return S_OK;
}
bool SimpleMediaData::GetDolbyMetadata(DolbyMetadata& value) { return readItem(m_properties.dolbyMetadata, value); }
HRESULT SimpleMediaData::SetParentalRating(const ParentalRatingEventBlock& value) {
    m_properties.parentalRating = value;
    return S_OK;
}
bool SimpleMediaData::GetParentalRating(ParentalRatingEventBlock& value) {
    return readItem(m_properties.parentalRating, value);
}
HRESULT SimpleMediaData::SetRecordingEvent(const RecordingEvent& value) {
    m_properties.recordingEvent = value;
    return S_OK;
}
bool SimpleMediaData::GetRecordingEvent(RecordingEvent& value) { return readItem(m_properties.recordingEvent, value); }

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
