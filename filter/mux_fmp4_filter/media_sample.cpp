#include "filter/mux_fmp4_filter/media_sample.h"

#include <algorithm>
#include <cstring>

#include "support/exceptions/com_exception.h"

namespace tvrn::encoding::filter {

using namespace tvrn::com;

SampleRef<COOBMediaSample> COOBMediaSample::create(std::size_t size) {
    auto* sample = new COOBMediaSample(size);
    sample->m_actualLength = static_cast<long>(size);
    return SampleRef<COOBMediaSample>::adopt(sample);
}

SampleRef<COOBMediaSample> COOBMediaSample::createUninitialised(std::size_t size) {
    auto* sample = new COOBMediaSample(size, false);
    sample->m_actualLength = static_cast<long>(size);
    return SampleRef<COOBMediaSample>::adopt(sample);
}

COwnedMediaSample::COwnedMediaSample(std::vector<std::uint8_t>&& bytes, std::shared_ptr<ByteRecycler> recycler)
    : m_bytes(std::move(bytes)), m_recycler(std::move(recycler)) {
    m_size = m_bytes.size();
    m_actualLength = static_cast<long>(m_bytes.size());
}

COwnedMediaSample::~COwnedMediaSample() {
    if (m_recycler) m_recycler->recycle(std::move(m_bytes));
}

SampleRef<COOBMediaSample> COwnedMediaSample::adopt(std::vector<std::uint8_t>&& bytes,
                                                    std::shared_ptr<ByteRecycler> recycler) {
    return SampleRef<COOBMediaSample>::adopt(new COwnedMediaSample(std::move(bytes), std::move(recycler)));
}

HRESULT COwnedMediaSample::GetPointer(std::uint8_t** buffer) {
    if (buffer == nullptr) return E_POINTER;
    *buffer = m_bytes.data();
    return S_OK;
}

unsigned long COOBMediaSample::AddRef() { return m_refCount.add(); }

unsigned long COOBMediaSample::Release() {
    const unsigned long left = m_refCount.release();
    if (left == 0) onFinalRelease();
    return left;
}

HRESULT COOBMediaSample::GetPointer(std::uint8_t** buffer) {
    if (buffer == nullptr) return E_POINTER;
    *buffer = m_buffer.get();
    return S_OK;
}

long COOBMediaSample::GetSize() { return static_cast<long>(m_size); }

HRESULT COOBMediaSample::GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) { return m_times.getTime(start, stop); }

HRESULT COOBMediaSample::SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) {
    return m_times.setTime(start, stop);
}

HRESULT COOBMediaSample::SetSyncPoint(bool value) {
    m_sync = value;
    return S_OK;
}
HRESULT COOBMediaSample::SetPreroll(bool value) {
    m_preroll = value;
    return S_OK;
}
HRESULT COOBMediaSample::SetDiscontinuity(bool value) {
    m_discontinuity = value;
    return S_OK;
}

long COOBMediaSample::GetActualDataLength() { return m_actualLength; }

HRESULT COOBMediaSample::SetActualDataLength(long length) {
    if (length < 0 || length > static_cast<long>(m_size)) return VFW_E_BUFFER_OVERFLOW;
    m_actualLength = length;
    return S_OK;
}

HRESULT COOBMediaSample::GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
    return m_times.getMediaTime(start, stop);
}

HRESULT COOBMediaSample::SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) {
    return m_times.setMediaTime(start, stop);
}

HRESULT COOBMediaSample::GetMetadata(std::uint32_t type, const std::uint8_t** data, std::size_t* size) {
    const auto it = m_metadata.find(type);
    if (it == m_metadata.end()) return E_FAIL;
    if (data) *data = it->second.data();
    if (size) *size = it->second.size();
    return S_OK;
}

HRESULT COOBMediaSample::SetMetadata(std::uint32_t type, const std::uint8_t* data, std::size_t size) {
    if (data == nullptr && size > 0) return E_POINTER;
    m_metadata[type].assign(data, data + size);
    return S_OK;
}

HRESULT COOBMediaSample::GetMediaType(MediaType* type) {
    if (type == nullptr) return E_POINTER;
    if (!m_mediaType) return S_FALSE;
    *type = *m_mediaType;
    return S_OK;
}

HRESULT COOBMediaSample::SetMediaType(const MediaType* type) {
    if (type != nullptr)
        m_mediaType = *type;
    else
        m_mediaType.reset();
    return S_OK;
}

HRESULT COOBMediaSample::RemoveMetadata(std::uint32_t type) {
    m_metadata.erase(type);
    return S_OK;
}

void COOBMediaSample::resetProperties() {
    m_times = {};
    m_sync = m_preroll = m_discontinuity = false;
    m_mediaType.reset();
    m_metadata.clear();
}

void CMediaSample::prepareForUse() {
    resetProperties();
    m_actualLength = 0;
    m_refCount.restart();
}

void CMediaSample::onFinalRelease() { m_allocator.giveBack(this); }

MemAllocator::~MemAllocator() = default;

HRESULT MemAllocator::SetProperties(const Properties& request, Properties& actual) {
    std::lock_guard lock(m_mutex);
    if (m_free.size() != m_all.size()) return VFW_E_WRONG_STATE;  // buffers are out
    long count = request.count;
    long size = std::min(request.size, m_maxSize);
    if (size < m_minSize && count > 0 && size > 0) {
        const std::int64_t bytes = static_cast<std::int64_t>(count) * size;
        count = static_cast<long>(std::max<std::int64_t>(1, (bytes + m_minSize - 1) / m_minSize));
        size = m_minSize;
    }
    m_properties.count = std::min(count, m_maxCount);
    m_properties.size = size;
    m_properties.align = request.align;
    m_properties.prefix = request.prefix;
    // Buffers are made as they are first asked for, up to the count: the count sized for three segments at the
    // stream's bitrate (or more, for long segments) then bounds the memory without taking it up front.
    m_all.clear();
    m_free.clear();
    actual = m_properties;
    return S_OK;
}

HRESULT MemAllocator::GetBuffer(IMediaSample3** sample, const REFERENCE_TIME*, const REFERENCE_TIME*,
                                std::uint32_t flags) {
    if (sample == nullptr) return E_POINTER;
    std::unique_lock lock(m_mutex);
    if (m_properties.count <= 0) return VFW_E_NOT_CONNECTED;
    if (m_free.empty() && static_cast<long>(m_all.size()) < m_properties.count) {
        m_all.push_back(std::make_unique<CMediaSample>(*this, static_cast<std::size_t>(m_properties.size)));
        m_free.push_back(m_all.back().get());
    }
    if (m_free.empty()) {
        if (flags & AM_GBF_NOWAIT) return VFW_E_TIMEOUT;
        m_available.wait(lock, [this] { return !m_free.empty(); });
    }
    CMediaSample* buffer = m_free.back();
    m_free.pop_back();
    buffer->prepareForUse();
    *sample = buffer;
    return S_OK;
}

void MemAllocator::giveBack(CMediaSample* sample) {
    {
        std::lock_guard lock(m_mutex);
        m_free.push_back(sample);
    }
    m_available.notify_one();
}

long MemAllocator::freeCount() const {
    std::lock_guard lock(m_mutex);
    return static_cast<long>(m_free.size()) + m_properties.count - static_cast<long>(m_all.size());
}

MemAllocator::Properties MemAllocator::properties() const {
    std::lock_guard lock(m_mutex);
    return m_properties;
}

SampleRef<CExternalMetaDataMediaSample> CExternalMetaDataMediaSample::wrap(IMediaSample* foreign) {
    if (foreign == nullptr) throw COMException("no sample to wrap", E_POINTER, "wrap", "CExternalMetaDataMediaSample");
    auto* wrapper = new CExternalMetaDataMediaSample(foreign);
    REFERENCE_TIME start = 0, stop = 0;
    const HRESULT time = foreign->GetTime(&start, &stop);
    if (time == S_OK)
        wrapper->SetTime(&start, &stop);
    else if (time == VFW_S_NO_STOP_TIME)
        wrapper->SetTime(&start, nullptr);
    if (foreign->GetMediaTime(&start, &stop) == S_OK) wrapper->SetMediaTime(&start, &stop);
    wrapper->m_sync = foreign->IsSyncPoint() == S_OK;
    wrapper->m_preroll = foreign->IsPreroll() == S_OK;
    wrapper->m_discontinuity = foreign->IsDiscontinuity() == S_OK;
    MediaType changed;
    if (foreign->GetMediaType(&changed) == S_OK) wrapper->m_mediaType = std::move(changed);
    if (auto* with3 = dynamic_cast<IMediaSample3*>(foreign)) {
        for (std::uint32_t type = MetadataCuePoint; type <= MetadataRecordingEvent; ++type) {
            const std::uint8_t* data = nullptr;
            std::size_t size = 0;
            if (with3->GetMetadata(type, &data, &size) == S_OK) wrapper->m_metadata[type].assign(data, data + size);
        }
    }
    return SampleRef<CExternalMetaDataMediaSample>::adopt(wrapper);
}

}  // namespace tvrn::encoding::filter
