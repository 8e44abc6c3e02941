#pragma once
// The filter's pins: inputs that turn pushed samples into the session's two calls, and outputs that turn
// finished chunks into media samples of at most 8192 bytes for a downstream sink.
#include <cstdint>
#include <optional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "filter/mux_fmp4_filter/guid.h"
#include "filter/mux_fmp4_filter/media_data.h"
#include "filter/mux_fmp4_filter/media_sample.h"
#include "packaging/fmp4_types/stream_attributes.h"

namespace tvrn::encoding::filter {

class CMuxFmp4Filter;

inline constexpr HRESULT VFW_S_NO_MORE_ITEMS = 0x00040103;
inline constexpr HRESULT VFW_E_NOT_STOPPED = static_cast<HRESULT>(0x80040224u);
inline constexpr std::size_t kOutputBufferSize = 8192;
inline constexpr std::size_t kMaxInputPins = 100;

// The fourteen input types in enumeration order, with the stream type each one carries.
struct InputTypeEntry {
    GUID majortype;
    GUID subtype;
    std::uint32_t streamType;
    bool acceptedByCheck;
};
const std::vector<InputTypeEntry>& inputTypeTable();

// True when the engine analyses streams of this type through to samples, so that a pin of it delivers chunks; a
// host leaves other streams out rather than hold the session with them.
bool packagesStreamType(std::uint32_t streamType);

// The picture size (cropped) that the sequence parameter set ahead of the first slice of an Annex B access unit
// gives, for H.264 and HEVC stream types; false when the unit has none before its first slice.
bool pictureSize(std::uint32_t streamType, const std::uint8_t* accessUnit, std::size_t size, int& width, int& height);

// Told of the data id of samples as they cross a pin.
class IDelayCrossingPointCallback {
public:
    virtual void OnDelayCrossingPoint(std::uint64_t dataId) = 0;
    virtual ~IDelayCrossingPointCallback() = default;
};

class IDelayCrossingPointPin {
public:
    virtual HRESULT SetDelayCrossingPointCallback(IDelayCrossingPointCallback* callback) = 0;
    virtual ~IDelayCrossingPointPin() = default;
};

class IDataIdDroppingPin {
public:
    virtual HRESULT SetDropDataId(std::uint8_t drop) = 0;
    virtual ~IDataIdDroppingPin() = default;
};

// What an output pin delivers to: the downstream input.
class IMediaSampleSink {
public:
    virtual ~IMediaSampleSink() = default;
    virtual HRESULT Receive(IMediaSample3* sample) = 0;
    virtual HRESULT EndOfStream() = 0;
    virtual HRESULT NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) { return tvrn::com::S_OK; }
    virtual HRESULT BeginFlush() { return tvrn::com::S_OK; }
    virtual HRESULT EndFlush() { return tvrn::com::S_OK; }
    // The allocator the sink wants used, or null to let the pin bring its own; and the count it asks for.
    virtual MemAllocator* GetAllocator() { return nullptr; }
    virtual long RequestedBufferCount() { return 0; }
};

class MuxFmp4InputPin final : public IDelayCrossingPointPin, public IDataIdDroppingPin {
public:
    MuxFmp4InputPin(CMuxFmp4Filter& filter, std::int32_t streamId);

    std::string Name() const { return "Input" + std::to_string(m_streamId); }
    std::int32_t streamId() const { return m_streamId; }
    bool IsConnected() const;

    // Enumeration: VFW_S_NO_MORE_ITEMS past the last type.
    HRESULT GetMediaType(int index, MediaType* type) const;
    // Twelve of the fourteen enumerated types pass: raw AAC and LATM are enumerated but refused here.
    HRESULT CheckMediaType(const MediaType& type) const;
    // Known for all fourteen types.
    HRESULT SetMediaType(const MediaType& type);
    // Connection from upstream: checks, sets the type and completes the connection.
    HRESULT ReceiveConnection(const MediaType& type);
    HRESULT Disconnect();

    // On the streaming thread.
    HRESULT Receive(IMediaSample* sample);
    HRESULT EndOfStream();

    HRESULT SetDelayCrossingPointCallback(IDelayCrossingPointCallback* callback) override;
    HRESULT SetDropDataId(std::uint8_t drop) override;

    packaging::imff::fmp4::ElementaryStreamAttributes& attributes() { return m_attributes; }
    const packaging::imff::fmp4::ElementaryStreamAttributes& attributes() const { return m_attributes; }

private:
    HRESULT CompleteConnect(const MediaType& type);

    CMuxFmp4Filter& m_filter;
    std::int32_t m_streamId;
    packaging::imff::fmp4::ElementaryStreamAttributes m_attributes;
    int m_connections = 0;
    IDelayCrossingPointCallback* m_delayCallback = nullptr;
    bool m_dropDataId = true;
    MediaType m_type;
    mutable std::mutex m_pinLock;
};

class MuxFmp4OutputPin final : public IDelayCrossingPointPin {
public:
    MuxFmp4OutputPin(CMuxFmp4Filter& filter, int number);

    const std::string& Name() const { return m_name; }
    MediaType GetMediaType() const;
    // Connects to a sink and sizes the buffers: 8192 bytes each, enough for three segments at the bitrate.
    // E_FAIL when the sink's allocator gives smaller buffers.
    HRESULT Connect(IMediaSampleSink* sink);
    HRESULT Disconnect();
    bool IsConnected() const;

    // Never waits: VFW_E_TIMEOUT, logged, when no buffer is free.
    HRESULT GetDeliveryBuffer(IMediaSample3** sample, const REFERENCE_TIME* start, const REFERENCE_TIME* stop);
    // Delivers only while the filter is not stopped; otherwise succeeds without delivering.
    HRESULT Deliver(IMediaSample3* sample);
    HRESULT DeliverEndOfStream();
    HRESULT DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate);
    HRESULT DeliverBeginFlush();
    HRESULT DeliverEndFlush();

    HRESULT SetDelayCrossingPointCallback(IDelayCrossingPointCallback* callback) override;

    std::int32_t bitrate() const { return m_bitrate; }
    void setBitrate(std::int32_t bitrate) { m_bitrate = bitrate; }
    void setSegmentDurationMs(std::uint64_t ms) { m_segmentDurationMs = ms; }
    MemAllocator* allocator() const { return m_allocator; }

private:
    CMuxFmp4Filter& m_filter;
    std::string m_name;
    std::int32_t m_bitrate = 0;
    std::uint64_t m_segmentDurationMs = 2000;
    IDelayCrossingPointCallback* m_delayCallback = nullptr;
    IMediaSampleSink* m_sink = nullptr;
    MemAllocator* m_allocator = nullptr;
    std::unique_ptr<MemAllocator> m_ownAllocator;
    mutable std::mutex m_pinLock;
};

// The engine-side view of an output pin.
class IOutputPin {
public:
    virtual ~IOutputPin() = default;
    virtual HRESULT Deliver(packaging::imff::fmp4::IMediaData* data) = 0;
    virtual HRESULT DeliverEndOfStream() = 0;
    virtual HRESULT GetBuffer(packaging::imff::fmp4::MediaDataRef& data, const REFERENCE_TIME* start,
                              const REFERENCE_TIME* stop, std::uint32_t flags) = 0;
    virtual HRESULT DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) = 0;
    virtual HRESULT BeginFlush() = 0;
    virtual HRESULT EndFlush() = 0;
};

class UpStreamPin final : public IOutputPin {
public:
    explicit UpStreamPin(MuxFmp4OutputPin& pin) : m_pin(pin) {}
    HRESULT Deliver(packaging::imff::fmp4::IMediaData* data) override;
    HRESULT DeliverEndOfStream() override { return m_pin.DeliverEndOfStream(); }
    HRESULT GetBuffer(packaging::imff::fmp4::MediaDataRef& data, const REFERENCE_TIME* start,
                      const REFERENCE_TIME* stop, std::uint32_t flags) override;
    HRESULT DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) override {
        return m_pin.DeliverNewSegment(start, stop, rate);
    }
    HRESULT BeginFlush() override { return m_pin.DeliverBeginFlush(); }
    HRESULT EndFlush() override { return m_pin.DeliverEndFlush(); }

private:
    MuxFmp4OutputPin& m_pin;
};

// Writes each chunk into the output pin's buffers, whole or not at all. A chunk that fits in the pin's next buffer
// is serialised straight into it (Place, then Commit); others are copied in by Write.
class CIsomffListener final : public packaging::imff::fmp4::IOutputFmp4,
                              public packaging::imff::fmp4::IOutputFmp4Placement {
public:
    CIsomffListener(MuxFmp4OutputPin& pin, CMuxFmp4Filter& filter) : m_pin(pin), m_upstream(pin), m_filter(filter) {}
    bool Write(const std::uint8_t* data, std::size_t size, const std::int64_t* startTime, std::int64_t stopTime,
               bool init, bool discontinuity, bool dataIdPresent, std::uint64_t dataId) override;
    void EndOfStream() override;
    std::uint8_t* Place(std::size_t size, const std::int64_t* startTime, std::int64_t stopTime) override;
    bool TakesReferences() const override;
    bool Commit(bool init, bool discontinuity, bool dataIdPresent, std::uint64_t dataId,
                tvrn::system::KeptBytesList&& references) override;

private:
    MuxFmp4OutputPin& m_pin;
    UpStreamPin m_upstream;
    CMuxFmp4Filter& m_filter;
    // The buffer lent by Place, until Commit, with the chunk's size and times; or one Place took that was too
    // small for the chunk, the first buffer of the Write that follows.
    packaging::imff::fmp4::MediaDataRef m_lent, m_spare;
    std::size_t m_lentSize = 0;
    std::optional<std::int64_t> m_lentStart;
    std::int64_t m_lentStop = 0;
    // The pin refused a buffer for the chunk starting then: its Write fails without asking (and logging) again.
    std::optional<std::int64_t> m_refusedStart;
};

}  // namespace tvrn::encoding::filter
