#include "filter/mux_fmp4_filter/pins.h"

#include <algorithm>
#include <cstring>

#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/h264_manager.h"
#include "packaging/lib_parse_es/hevc_sps.h"
#include "packaging/lib_parse_es/nal_builder.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::filter {

using namespace tvrn::com;
namespace fmp4 = packaging::imff::fmp4;

bool packagesStreamType(std::uint32_t streamType) {
    namespace es = packaging::lib_parse_es;
    namespace samples = packaging::imff::imff_samples;
    return es::createNalBuilder(streamType) != nullptr && samples::createSampleBuilder(streamType, false, nullptr) != nullptr;
}

bool pictureSize(std::uint32_t streamType, const std::uint8_t* data, std::size_t size, int& width, int& height) {
    namespace es = packaging::lib_parse_es;
    const bool hevc = streamType == fmp4::HEVC_VIDEO;
    if (!hevc && streamType != fmp4::H264_VIDEO) return false;
    const auto startAt = [&](std::size_t from) {
        for (std::size_t i = from; i + 3 <= size; ++i)
            if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
        return size;
    };
    for (std::size_t start = startAt(0); start + 3 < size;) {
        const std::size_t begin = start + 3;
        const unsigned type = hevc ? (data[begin] >> 1) & 0x3Fu : data[begin] & 0x1Fu;
        if (hevc ? type < 32 : type >= 1 && type <= 5) return false;  // a slice: no parameter set before it
        const std::size_t next = startAt(begin);
        if (type == (hevc ? 33u : 7u)) {
            // The parsers take the unit behind a start code, emulation prevention removed.
            std::vector<std::uint8_t> unit{0, 0, 0, 1};
            unit.insert(unit.end(), data + begin, data + next);
            const std::vector<std::uint8_t> rbsp = es::unescapeRbsp(unit.data(), unit.size());
            std::uint16_t w = 0, h = 0;
            if (hevc && rbsp.size() > 6) {
                const es::HevcPictureSize cropped = es::croppedSize(es::parseHevcSps(rbsp.data() + 6, rbsp.size() - 6));
                w = cropped.width;
                h = cropped.height;
            } else if (!hevc) {
                const es::PictureSize cropped = es::croppedSize(*es::parseH264Sps(rbsp.data(), rbsp.size()));
                w = cropped.width;
                h = cropped.height;
            }
            if (w == 0 || h == 0) return false;
            width = w;
            height = h;
            return true;
        }
        start = next;
    }
    return false;
}

const std::vector<InputTypeEntry>& inputTypeTable() {
    static const std::vector<InputTypeEntry> table = {
        {guids::MEDIATYPE_Video, guidFromString("{31435657-0000-0010-8000-00AA00389B71}"), fmp4::VC1_VIDEO, true},
        {guids::MEDIATYPE_Video, guidFromString("{8D2D71CB-243F-45E3-B2D8-5FD7967EC09B}"), fmp4::H264_VIDEO, true},
        {guids::MEDIATYPE_Video, guidFromString("{529CDDD1-B042-4DD5-8060-DACC21D7AAB9}"), fmp4::HEVC_VIDEO, true},
        {guids::MEDIATYPE_Audio, guidFromString("{C0E9C364-783D-4B50-ABF3-F34B801CEEC6}"), fmp4::AAC_RAW_AUDIO, false},
        {guids::MEDIATYPE_Audio, guidFromString("{E06D802C-DB46-11CF-B4D1-00805F6CBBEA}"), fmp4::AC3_AUDIO, true},
        {guids::MEDIATYPE_Audio, guidFromString("{A7FB87AF-2D02-42FB-A4D4-05CD93843BDD}"), fmp4::AC3_AUDIO, true},
        {guids::MEDIATYPE_Audio, guidFromString("{437D5E8E-689D-4605-9766-881A1EBF4AD2}"), fmp4::AC4_AUDIO, true},
        {guids::MEDIATYPE_Audio, guidFromString("{000001FF-0000-0010-8000-00AA00389B71}"), fmp4::AAC_LATM_AUDIO, false},
        {guids::MEDIATYPE_Audio, guidFromString("{000000FF-0000-0010-8000-00AA00389B71}"), fmp4::AAC_ADTS_AUDIO, true},
        {guids::MEDIATYPE_Audio, guidFromString("{E436EB87-524F-11CE-9F53-0020AF0BA770}"), fmp4::MPEG1_AUDIO, true},
        {guids::MEDIATYPE_Audio, guidFromString("{00000050-0000-0010-8000-00AA00389B71}"), fmp4::MPEG1_AUDIO, true},
        {guids::MEDIATYPE_Scte35, guidFromString("{BDA91D65-BF4F-406A-8523-FFC60B6FD2DA}"), fmp4::SCTE_35, true},
        {guids::MEDIATYPE_Text, guidFromString("{A7236CD6-ACDE-4109-A810-070C91A34A29}"), fmp4::TTML, true},
        {guids::MEDIATYPE_Text, guidFromString("{A37EB91B-C161-47A8-9FD8-58848E048029}"), fmp4::WEBVTT, true},
    };
    return table;
}

namespace {
const InputTypeEntry* findInputType(const MediaType& type) {
    for (const auto& entry : inputTypeTable())
        if (entry.majortype == type.majortype && entry.subtype == type.subtype) return &entry;
    return nullptr;
}
}  // namespace

MuxFmp4InputPin::MuxFmp4InputPin(CMuxFmp4Filter& filter, std::int32_t streamId) : m_filter(filter), m_streamId(streamId) {}

bool MuxFmp4InputPin::IsConnected() const {
    std::lock_guard lock(m_pinLock);
    return m_connections > 0;
}

HRESULT MuxFmp4InputPin::GetMediaType(int index, MediaType* type) const {
    if (type == nullptr) return E_POINTER;
    const auto& table = inputTypeTable();
    if (index < 0) return E_INVALIDARG;
    if (static_cast<std::size_t>(index) >= table.size()) return VFW_S_NO_MORE_ITEMS;
    *type = MediaType{};
    type->majortype = table[static_cast<std::size_t>(index)].majortype;
    type->subtype = table[static_cast<std::size_t>(index)].subtype;
    type->formattype = guids::FORMAT_None;
    type->fixedSizeSamples = false;
    type->temporalCompression = true;
    return S_OK;
}

HRESULT MuxFmp4InputPin::CheckMediaType(const MediaType& type) const {
    const InputTypeEntry* entry = findInputType(type);
    return entry != nullptr && entry->acceptedByCheck ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
}

HRESULT MuxFmp4InputPin::SetMediaType(const MediaType& type) {
    const InputTypeEntry* entry = findInputType(type);
    if (entry == nullptr) return VFW_E_TYPE_NOT_ACCEPTED;
    std::lock_guard lock(m_pinLock);
    m_type = type;
    m_attributes.type = entry->streamType;
    return S_OK;
}

HRESULT MuxFmp4InputPin::ReceiveConnection(const MediaType& type) {
    std::lock_guard filterLock(m_filter.m_lock);
    if (IsConnected()) return VFW_E_ALREADY_CONNECTED;
    if (m_filter.m_state != FilterState::Stopped) return VFW_E_NOT_STOPPED;
    if (CheckMediaType(type) != S_OK) return VFW_E_TYPE_NOT_ACCEPTED;
    const HRESULT set = SetMediaType(type);
    if (FAILED(set)) return set;
    return CompleteConnect(type);
}

HRESULT MuxFmp4InputPin::CompleteConnect(const MediaType& type) {
    if (m_filter.m_inputs.size() > kMaxInputPins) return E_FAIL;
    {
        std::lock_guard lock(m_pinLock);
        if (type.bitrate > 0) m_attributes.bitrate = static_cast<std::int32_t>(type.bitrate);
        const auto bitrate = static_cast<std::uint64_t>(std::max(m_attributes.bitrate, 0));
        m_attributes.bandwidth = type.majortype == guids::MEDIATYPE_Video
                                     ? static_cast<std::uint32_t>(bitrate * (m_filter.m_overheadPercent + 100) / 100)
                                     : static_cast<std::uint32_t>(bitrate);
        ++m_connections;
    }
    return m_filter.onInputConnected(*this, type);
}

HRESULT MuxFmp4InputPin::Disconnect() {
    std::lock_guard filterLock(m_filter.m_lock);
    if (m_filter.m_state != FilterState::Stopped) return VFW_E_NOT_STOPPED;
    {
        std::lock_guard lock(m_pinLock);
        if (m_connections == 0) return S_FALSE;
        m_connections = 0;
    }
    m_filter.onInputDisconnected(*this);
    return S_OK;
}

HRESULT MuxFmp4InputPin::Receive(IMediaSample* sample) {
    if (sample == nullptr) return E_POINTER;
    if (!IsConnected()) return VFW_E_NOT_CONNECTED;
    // A sample may bring a new media type: one this pin does not take stops the stream, and the graph is told.
    MediaType changed;
    if (sample->GetMediaType(&changed) == S_OK) {
        if (CheckMediaType(changed) != S_OK) {
            m_filter.notifyEvent(EC_ERRORABORT, VFW_E_TYPE_NOT_ACCEPTED, 0);
            return VFW_E_TYPE_NOT_ACCEPTED;
        }
        SetMediaType(changed);
    }
    // Metadata is edited on a wrapper, never on the source sample.
    auto wrapper = CExternalMetaDataMediaSample::wrap(sample);
    IDelayCrossingPointCallback* callback;
    bool drop;
    {
        std::lock_guard lock(m_pinLock);
        callback = m_delayCallback;
        drop = m_dropDataId;
    }
    if (drop) wrapper->RemoveMetadata(MetadataDataId);
    if (callback != nullptr) {
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        if (wrapper->GetMetadata(MetadataDataId, &data, &size) == S_OK && size == sizeof(std::uint64_t)) {
            std::uint64_t dataId;
            std::memcpy(&dataId, data, sizeof dataId);
            callback->OnDelayCrossingPoint(dataId);
        }
    }
    auto data = MediaData::wrap(wrapper.get());
    m_filter.pushSample(m_streamId, data.get());
    return S_OK;
}

HRESULT MuxFmp4InputPin::EndOfStream() {
    if (!IsConnected()) return VFW_E_NOT_CONNECTED;
    m_filter.pushEndOfStream(m_streamId);
    return S_OK;
}

HRESULT MuxFmp4InputPin::SetDelayCrossingPointCallback(IDelayCrossingPointCallback* callback) {
    std::lock_guard lock(m_pinLock);
    m_delayCallback = callback;
    return S_OK;
}

HRESULT MuxFmp4InputPin::SetDropDataId(std::uint8_t drop) {
    std::lock_guard lock(m_pinLock);
    m_dropDataId = drop != 0;
    return S_OK;
}

MuxFmp4OutputPin::MuxFmp4OutputPin(CMuxFmp4Filter& filter, int number)
    : m_filter(filter), m_name("Mux Fmp4 Output " + std::to_string(number)) {}

MediaType MuxFmp4OutputPin::GetMediaType() const {
    MediaType type;
    type.majortype = guids::MEDIATYPE_Fmp4Output;
    switch (m_filter.m_outputFormat) {
        case fmp4::Smooth: type.subtype = guids::MEDIASUBTYPE_SmoothOutput; break;
        case fmp4::Dash: type.subtype = guids::MEDIASUBTYPE_DashOutput; break;
        default: type.subtype = GUID{}; break;
    }
    type.formattype = guids::FORMAT_OutputBitrate;
    type.format.assign(112, 0);
    const auto bitrate = static_cast<std::uint32_t>(m_bitrate);
    std::memcpy(type.format.data(), &bitrate, sizeof bitrate);
    type.bitrate = bitrate;
    return type;
}

HRESULT MuxFmp4OutputPin::Connect(IMediaSampleSink* sink) {
    if (sink == nullptr) return E_POINTER;
    std::lock_guard filterLock(m_filter.m_lock);
    if (m_filter.m_state != FilterState::Stopped) return VFW_E_NOT_STOPPED;
    std::lock_guard lock(m_pinLock);
    if (m_sink != nullptr) return VFW_E_ALREADY_CONNECTED;
    MemAllocator* allocator = sink->GetAllocator();
    std::unique_ptr<MemAllocator> own;
    if (allocator == nullptr) {
        own = std::make_unique<MemAllocator>();
        allocator = own.get();
    }
    // Enough 8192-byte buffers for three segments at the output's bitrate.
    const std::uint64_t bitrate = static_cast<std::uint64_t>(std::max(m_bitrate, 0));
    const auto needed = static_cast<long>((m_segmentDurationMs * 3 * bitrate / 8000 + kOutputBufferSize - 1) /
                                          kOutputBufferSize);
    MemAllocator::Properties request;
    request.count = std::max(sink->RequestedBufferCount(), needed);
    request.size = static_cast<long>(kOutputBufferSize);
    request.align = 1;
    request.prefix = 0;
    MemAllocator::Properties actual;
    const HRESULT hr = allocator->SetProperties(request, actual);
    if (FAILED(hr)) return hr;
    if (actual.size < request.size) return E_FAIL;
    m_sink = sink;
    m_allocator = allocator;
    m_ownAllocator = std::move(own);
    return S_OK;
}

HRESULT MuxFmp4OutputPin::Disconnect() {
    std::lock_guard filterLock(m_filter.m_lock);
    if (m_filter.m_state != FilterState::Stopped) return VFW_E_NOT_STOPPED;
    std::lock_guard lock(m_pinLock);
    m_sink = nullptr;
    m_allocator = nullptr;
    m_ownAllocator.reset();
    return S_OK;
}

bool MuxFmp4OutputPin::IsConnected() const {
    std::lock_guard lock(m_pinLock);
    return m_sink != nullptr;
}

HRESULT MuxFmp4OutputPin::GetDeliveryBuffer(IMediaSample3** sample, const REFERENCE_TIME* start,
                                            const REFERENCE_TIME* stop) {
    MemAllocator* allocator;
    {
        std::lock_guard lock(m_pinLock);
        allocator = m_allocator;
    }
    if (allocator == nullptr) return VFW_E_NOT_CONNECTED;
    const HRESULT hr = allocator->GetBuffer(sample, start, stop, AM_GBF_NOWAIT);
    if (hr == VFW_E_TIMEOUT)
        m_filter.logger().WriteMsg(tvrn::log::LOG_WARNING, "smooth streamer (%d kbps): dropping segment",
                                   static_cast<int>(m_bitrate / 1000));
    return hr;
}

HRESULT MuxFmp4OutputPin::Deliver(IMediaSample3* sample) {
    IMediaSampleSink* sink;
    IDelayCrossingPointCallback* callback;
    {
        std::lock_guard lock(m_pinLock);
        // The filter state is read without waiting; a stopped filter delivers nothing.
        if (m_filter.GetState() == FilterState::Stopped) return S_OK;
        sink = m_sink;
        callback = m_delayCallback;
    }
    if (sink == nullptr) return VFW_E_NOT_CONNECTED;
    if (callback != nullptr) {
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        if (sample->GetMetadata(MetadataDataId, &data, &size) == S_OK && size == sizeof(std::uint64_t)) {
            std::uint64_t dataId;
            std::memcpy(&dataId, data, sizeof dataId);
            callback->OnDelayCrossingPoint(dataId);
        }
    }
    return sink->Receive(sample);
}

HRESULT MuxFmp4OutputPin::DeliverEndOfStream() {
    std::lock_guard lock(m_pinLock);
    return m_sink ? m_sink->EndOfStream() : VFW_E_NOT_CONNECTED;
}

HRESULT MuxFmp4OutputPin::DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) {
    std::lock_guard lock(m_pinLock);
    return m_sink ? m_sink->NewSegment(start, stop, rate) : VFW_E_NOT_CONNECTED;
}

HRESULT MuxFmp4OutputPin::DeliverBeginFlush() {
    std::lock_guard lock(m_pinLock);
    return m_sink ? m_sink->BeginFlush() : VFW_E_NOT_CONNECTED;
}

HRESULT MuxFmp4OutputPin::DeliverEndFlush() {
    std::lock_guard lock(m_pinLock);
    return m_sink ? m_sink->EndFlush() : VFW_E_NOT_CONNECTED;
}

HRESULT MuxFmp4OutputPin::SetDelayCrossingPointCallback(IDelayCrossingPointCallback* callback) {
    std::lock_guard lock(m_pinLock);
    m_delayCallback = callback;
    return S_OK;
}

HRESULT UpStreamPin::Deliver(fmp4::IMediaData* data) {
    if (data == nullptr) return E_POINTER;
    auto* sample = static_cast<IMediaSample*>(data->GetMediaSample());
    auto* with3 = dynamic_cast<IMediaSample3*>(sample);
    if (with3 == nullptr) return E_NOINTERFACE;
    return m_pin.Deliver(with3);
}

HRESULT UpStreamPin::GetBuffer(fmp4::MediaDataRef& data, const REFERENCE_TIME* start, const REFERENCE_TIME* stop,
                               std::uint32_t) {
    IMediaSample3* buffer = nullptr;
    const HRESULT hr = m_pin.GetDeliveryBuffer(&buffer, start, stop);
    if (FAILED(hr)) return hr;
    data = MediaData2::adopt(buffer);
    return S_OK;
}

namespace {
// The marks of one buffer of a chunk: its length and time on every buffer, the discontinuity and data id on the
// first only.
void markBuffer(fmp4::IMediaData& buffer, std::size_t length, bool first, const std::int64_t* startTime,
                std::int64_t stopTime, bool init, bool discontinuity, bool dataIdPresent, std::uint64_t dataId) {
    buffer.SetActualDataLength(static_cast<long>(length));
    buffer.SetSyncPoint(init);
    if (first && discontinuity) buffer.SetDiscontinuity(true);
    if (startTime != nullptr)
        buffer.SetTime(startTime, &stopTime);
    else
        buffer.SetTime(nullptr, nullptr);
    if (first && dataIdPresent) buffer.SetDataId(fmp4::DataId{dataId});
}
}  // namespace

bool CIsomffListener::Write(const std::uint8_t* data, std::size_t size, const std::int64_t* startTime,
                            std::int64_t stopTime, bool init, bool discontinuity, bool dataIdPresent,
                            std::uint64_t dataId) {
    if (m_refusedStart && startTime != nullptr && *m_refusedStart == *startTime) {
        m_refusedStart.reset();
        return false;
    }
    m_refusedStart.reset();
    m_lent = {};
    // A buffer taken by Place for this chunk, too small to hold it, is the first.
    fmp4::MediaDataRef held = std::move(m_spare);
    m_spare = {};
    std::vector<fmp4::MediaDataRef> buffers;
    std::size_t placed = 0;
    // Every buffer of the chunk is taken before any is delivered: the chunk leaves whole or not at all.
    while (placed < size) {
        fmp4::MediaDataRef buffer = std::move(held);
        if (!buffer && FAILED(m_upstream.GetBuffer(buffer, startTime, &stopTime, AM_GBF_NOWAIT))) return false;
        std::uint8_t* target = nullptr;
        if (FAILED(buffer->GetPointer(&target))) return false;
        const std::size_t count = std::min(static_cast<std::size_t>(std::max(buffer->GetSize(), 0L)), size - placed);
        if (count == 0) return false;
        std::memcpy(target, data + placed, count);
        markBuffer(*buffer, count, buffers.empty(), startTime, stopTime, init, discontinuity, dataIdPresent, dataId);
        placed += count;
        buffers.push_back(std::move(buffer));
    }
    for (auto& buffer : buffers) m_upstream.Deliver(buffer.get());
    m_filter.countChunk();
    return true;
}

std::uint8_t* CIsomffListener::Place(std::size_t size, const std::int64_t* startTime, std::int64_t stopTime) {
    m_lent = {};
    m_spare = {};
    m_refusedStart.reset();
    if (size == 0) return nullptr;  // an empty chunk takes no buffer
    fmp4::MediaDataRef buffer;
    if (FAILED(m_upstream.GetBuffer(buffer, startTime, &stopTime, AM_GBF_NOWAIT))) {
        if (startTime != nullptr) m_refusedStart = *startTime;
        return nullptr;
    }
    std::uint8_t* target = nullptr;
    if (FAILED(buffer->GetPointer(&target)) || target == nullptr) return nullptr;
    if (static_cast<std::size_t>(std::max(buffer->GetSize(), 0L)) < size) {
        m_spare = std::move(buffer);
        return nullptr;
    }
    m_lent = std::move(buffer);
    m_lentSize = size;
    m_lentStart = startTime != nullptr ? std::optional<std::int64_t>(*startTime) : std::nullopt;
    m_lentStop = stopTime;
    return target;
}

namespace {
// The downstream sample under a buffer, when it takes content by reference.
IReferencedContent* referencedContent(fmp4::IMediaData& buffer) {
    return dynamic_cast<IReferencedContent*>(static_cast<IMediaSample*>(buffer.GetMediaSample()));
}
}  // namespace

bool CIsomffListener::TakesReferences() const { return m_lent && referencedContent(*m_lent) != nullptr; }

bool CIsomffListener::Commit(bool init, bool discontinuity, bool dataIdPresent, std::uint64_t dataId,
                             tvrn::system::KeptBytesList&& references) {
    if (!m_lent) return false;
    fmp4::MediaDataRef buffer = std::move(m_lent);
    m_lent = {};
    if (!references.empty()) {
        IReferencedContent* content = referencedContent(*buffer);
        if (content == nullptr) return false;
        content->TakeReferences(std::move(references));
    }
    markBuffer(*buffer, m_lentSize, true, m_lentStart ? &*m_lentStart : nullptr, m_lentStop, init, discontinuity,
               dataIdPresent, dataId);
    m_upstream.Deliver(buffer.get());
    m_filter.countChunk();
    return true;
}

void CIsomffListener::EndOfStream() {
    // Buffers lent for a chunk that was not written go back.
    m_lent = {};
    m_spare = {};
    m_upstream.DeliverEndOfStream();
}

}  // namespace tvrn::encoding::filter
