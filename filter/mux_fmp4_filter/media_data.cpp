#include "filter/mux_fmp4_filter/media_data.h"

#include <cstring>

#include "support/exceptions/com_exception.h"

namespace tvrn::encoding::filter {

using namespace tvrn::com;

fmp4::MediaDataRef MediaData::wrap(IMediaSample* sample) {
    return fmp4::MediaDataRef::adopt(new MediaData(SampleRef<IMediaSample>(sample)));
}

fmp4::MediaDataRef MediaData2::adopt(IMediaSample3* buffer) {
    return fmp4::MediaDataRef::adopt(new MediaData2(SampleRef<IMediaSample>::adopt(buffer)));
}

unsigned long MediaData::AddRef() { return m_refCount.add(); }

unsigned long MediaData::Release() {
    const unsigned long left = m_refCount.release();
    if (left == 0) DeleteThis();
    return left;
}

IMediaSample3& MediaData::withMetadata(std::uint32_t type) {
    static constexpr const char* kMissing[] = {
        "Cue Point management needs IMediaSample3 interface",
        "Sample Date management needs IMediaSample3 interface",
        "DataId management needs IMediaSample3 interface",
        "DolbyMetadata management needs IMediaSample3 interface",
        "\"Parental Rating\" management needs IMediaSample3 interface",
        "recording event management needs IMediaSample3 interface",
    };
    if (m_sample3 == nullptr) throw COMException(kMissing[type], E_NOINTERFACE, "QueryInterface(IMediaSample3)", "MediaData");
    return *m_sample3;
}

template <typename T>
HRESULT MediaData::setItem(std::uint32_t type, const T& value) {
    return withMetadata(type).SetMetadata(type, reinterpret_cast<const std::uint8_t*>(&value), sizeof(T));
}

template <typename T>
bool MediaData::getItem(std::uint32_t type, T& value) {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    if (withMetadata(type).GetMetadata(type, &data, &size) != S_OK || size != sizeof(T)) return false;
    std::memcpy(&value, data, sizeof(T));
    return true;
}

HRESULT MediaData::SetCuePoint(const fmp4::CuePoint& v) { return setItem(MetadataCuePoint, v); }
bool MediaData::GetCuePoint(fmp4::CuePoint& v) { return getItem(MetadataCuePoint, v); }
HRESULT MediaData::SetSampleDate(const fmp4::SampleDate& v) { return setItem(MetadataSampleDate, v); }
bool MediaData::GetSampleDate(fmp4::SampleDate& v) { return getItem(MetadataSampleDate, v); }
HRESULT MediaData::SetDataId(const fmp4::DataId& v) { return setItem(MetadataDataId, v); }
bool MediaData::GetDataId(fmp4::DataId& v) { return getItem(MetadataDataId, v); }
HRESULT MediaData::SetDolbyMetadata(const fmp4::DolbyMetadata& v) { return setItem(MetadataDolby, v); }
bool MediaData::GetDolbyMetadata(fmp4::DolbyMetadata& v) { return getItem(MetadataDolby, v); }
HRESULT MediaData::SetParentalRating(const fmp4::ParentalRatingEventBlock& v) {
    return setItem(MetadataParentalRating, v);
}
bool MediaData::GetParentalRating(fmp4::ParentalRatingEventBlock& v) { return getItem(MetadataParentalRating, v); }
HRESULT MediaData::SetRecordingEvent(const fmp4::RecordingEvent& v) { return setItem(MetadataRecordingEvent, v); }
bool MediaData::GetRecordingEvent(fmp4::RecordingEvent& v) { return getItem(MetadataRecordingEvent, v); }

}  // namespace tvrn::encoding::filter
