#pragma once
// Media samples of the filter shell: the graph's sample interface in portable form, the extension that carries
// typed metadata blobs, the sample kinds that implement it and a buffer allocator.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "filter/mux_fmp4_filter/guid.h"
#include "support/system/ref_ptr.h"
#include "packaging/fmp4_types/media_data.h"
#include "support/exceptions/result_codes.h"
#include "support/system/kept_bytes.h"

namespace tvrn::encoding::filter {

using tvrn::com::HRESULT;
using REFERENCE_TIME = std::int64_t;

// The metadata types that samples carry, with their sizes in bytes.
enum MediaSampleMetadata : std::uint32_t {
    MetadataCuePoint = 0,         // 24
    MetadataSampleDate = 1,       // 8
    MetadataDataId = 2,           // 8
    MetadataDolby = 3,            // 84
    MetadataParentalRating = 4,   // 5144
    MetadataRecordingEvent = 5,   // 2
};

struct MediaType {
    GUID majortype;
    GUID subtype;
    bool fixedSizeSamples = false;
    bool temporalCompression = true;
    std::uint32_t sampleSize = 0;
    GUID formattype;
    std::vector<std::uint8_t> format;
    // Bits per second of the stream, as the format block of the upstream type tells it; 0 when unknown.
    std::uint32_t bitrate = 0;
};

// The flags of GetBuffer: do not wait for a free buffer.
inline constexpr std::uint32_t AM_GBF_NOWAIT = 4;

class IMediaSample {
public:
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;
    virtual HRESULT GetPointer(std::uint8_t** buffer) = 0;
    virtual long GetSize() = 0;
    virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
    virtual HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) = 0;
    virtual HRESULT IsSyncPoint() = 0;
    virtual HRESULT SetSyncPoint(bool value) = 0;
    virtual HRESULT IsPreroll() = 0;
    virtual HRESULT SetPreroll(bool value) = 0;
    virtual long GetActualDataLength() = 0;
    virtual HRESULT SetActualDataLength(long length) = 0;
    // S_OK with a copy of the type when the sample brings a new media type, S_FALSE when it keeps the one before.
    virtual HRESULT GetMediaType(MediaType* type) = 0;
    // Null clears the change.
    virtual HRESULT SetMediaType(const MediaType* type) = 0;
    virtual HRESULT IsDiscontinuity() = 0;
    virtual HRESULT SetDiscontinuity(bool value) = 0;
    virtual HRESULT GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
    virtual HRESULT SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) = 0;

protected:
    virtual ~IMediaSample() = default;
};

// A sample with typed metadata blobs.
class IMediaSample3 : public IMediaSample {
public:
    // E_FAIL when absent; the data stays owned by the sample.
    virtual HRESULT GetMetadata(std::uint32_t type, const std::uint8_t** data, std::size_t* size) = 0;
    // Copies the bytes, replacing an older value.
    virtual HRESULT SetMetadata(std::uint32_t type, const std::uint8_t* data, std::size_t size) = 0;
    // Succeeds also when the type is absent.
    virtual HRESULT RemoveMetadata(std::uint32_t type) = 0;
};

// A buffer that takes parts of its content by reference, offered by a downstream allocator that writes its
// buffers out itself: bytes of the content that lie in memory kept alive elsewhere (input buffers, samples) are left
// unwritten in the buffer and handed over as references, so they are never copied on the way out.
class IReferencedContent {
public:
    // The content's bytes at each reference's `at` (counted from the buffer's start) are the reference's.
    virtual void TakeReferences(tvrn::system::KeptBytesList&& references) = 0;

protected:
    virtual ~IReferencedContent() = default;
};

// A counted reference to a sample.
template <typename T>
using SampleRef = RefPtr<T>;

// A sample whose fields and metadata are its own. Its bytes are its own too unless a subclass says otherwise.
class COOBMediaSample : public IMediaSample3 {
public:
    // Starts with one reference, held by the creator.
    static SampleRef<COOBMediaSample> create(std::size_t size);
    // The same, with storage left as it comes, for a creator that fills it at once.
    static SampleRef<COOBMediaSample> createUninitialised(std::size_t size);

    unsigned long AddRef() override;
    unsigned long Release() override;
    HRESULT GetPointer(std::uint8_t** buffer) override;
    long GetSize() override;
    HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
    HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) override;
    HRESULT IsSyncPoint() override { return m_sync ? tvrn::com::S_OK : tvrn::com::S_FALSE; }
    HRESULT SetSyncPoint(bool value) override;
    HRESULT IsPreroll() override { return m_preroll ? tvrn::com::S_OK : tvrn::com::S_FALSE; }
    HRESULT SetPreroll(bool value) override;
    long GetActualDataLength() override;
    HRESULT SetActualDataLength(long length) override;
    HRESULT GetMediaType(MediaType* type) override;
    HRESULT SetMediaType(const MediaType* type) override;
    HRESULT IsDiscontinuity() override { return m_discontinuity ? tvrn::com::S_OK : tvrn::com::S_FALSE; }
    HRESULT SetDiscontinuity(bool value) override;
    HRESULT GetMediaTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
    HRESULT SetMediaTime(const REFERENCE_TIME* start, const REFERENCE_TIME* stop) override;
    HRESULT GetMetadata(std::uint32_t type, const std::uint8_t** data, std::size_t* size) override;
    HRESULT SetMetadata(std::uint32_t type, const std::uint8_t* data, std::size_t size) override;
    HRESULT RemoveMetadata(std::uint32_t type) override;

protected:
    COOBMediaSample() = default;
    // Zeroed storage, or storage left as it comes from the allocator (`zeroed` false): a pool's buffers are only
    // touched once they are written.
    explicit COOBMediaSample(std::size_t size, bool zeroed = true)
        : m_buffer(zeroed ? new std::uint8_t[size]() : new std::uint8_t[size]), m_size(size) {}
    ~COOBMediaSample() override = default;
    // Called when the last reference goes.
    virtual void onFinalRelease() { delete this; }
    // Clears times, flags and metadata, for reuse of the object.
    void resetProperties();

    RefCount m_refCount;
    std::unique_ptr<std::uint8_t[]> m_buffer;
    std::size_t m_size = 0;
    long m_actualLength = 0;
    packaging::imff::fmp4::MediaTimes m_times;  // presentation and decoding times
    bool m_sync = false;
    bool m_preroll = false;
    bool m_discontinuity = false;
    std::optional<MediaType> m_mediaType;
    std::map<std::uint32_t, std::vector<std::uint8_t>> m_metadata;
};

// Takes back the bytes of an owned sample when the sample goes, to hand them out again.
class ByteRecycler {
public:
    virtual ~ByteRecycler() = default;
    // Called from whichever thread releases the sample last.
    virtual void recycle(std::vector<std::uint8_t>&& bytes) = 0;
};

// A sample over bytes its creator hands over (a demultiplexer's reassembled packet), taken as they are: no copy.
// With a recycler, the bytes go back to it when the sample goes.
class COwnedMediaSample final : public COOBMediaSample {
public:
    static SampleRef<COOBMediaSample> adopt(std::vector<std::uint8_t>&& bytes,
                                            std::shared_ptr<ByteRecycler> recycler = {});
    ~COwnedMediaSample() override;
    HRESULT GetPointer(std::uint8_t** buffer) override;

private:
    COwnedMediaSample(std::vector<std::uint8_t>&& bytes, std::shared_ptr<ByteRecycler> recycler);
    std::vector<std::uint8_t> m_bytes;
    std::shared_ptr<ByteRecycler> m_recycler;
};

class MemAllocator;

// A sample from an allocator's pool: the last release gives it back to the pool.
class CMediaSample final : public COOBMediaSample {
public:
    CMediaSample(MemAllocator& allocator, std::size_t size) : COOBMediaSample(size, false), m_allocator(allocator) {}
    void prepareForUse();

protected:
    void onFinalRelease() override;

private:
    friend class MemAllocator;
    MemAllocator& m_allocator;
};

// A pool of buffers of one size, made as they are first needed. Buffers live as long as the allocator and the
// samples out of it. A sink with buffers of its own (memory a chunk is written straight into) overrides the two
// calls the output pin makes.
class MemAllocator {
public:
    struct Properties {
        long count = 0;
        long size = 0;
        long align = 1;
        long prefix = 0;
    };
    // A cap on what the allocator gives, as a sink with limited memory would; and a floor on the size of its
    // buffers, as a sink that takes whole chunks would: buffers smaller than `minSize` are asked for, buffers of
    // `minSize` are given, and fewer of them, so that they hold no more bytes in all than were asked for.
    explicit MemAllocator(long maxCount = 0x7FFFFFFF, long maxSize = 0x7FFFFFFF, long minSize = 0)
        : m_maxCount(maxCount), m_maxSize(maxSize), m_minSize(minSize) {}
    virtual ~MemAllocator();

    // Asks for properties; `actual` receives what was granted.
    virtual HRESULT SetProperties(const Properties& request, Properties& actual);
    // Start and stop timing are ignored; flags AM_GBF_NOWAIT answers VFW_E_TIMEOUT instead of waiting. A buffer
    // may be larger than the properties' size (never smaller): the output fills what GetSize() says.
    virtual HRESULT GetBuffer(IMediaSample3** sample, const REFERENCE_TIME* start, const REFERENCE_TIME* stop,
                      std::uint32_t flags);
    long freeCount() const;
    Properties properties() const;

private:
    friend class CMediaSample;
    void giveBack(CMediaSample* sample);

    long m_maxCount;
    long m_maxSize;
    long m_minSize;
    mutable std::mutex m_mutex;
    std::condition_variable m_available;
    Properties m_properties;
    std::vector<std::unique_ptr<CMediaSample>> m_all;
    std::vector<CMediaSample*> m_free;
};

// Wraps a foreign sample, keeping a reference: its bytes and lengths are the foreign sample's, while the times,
// flags and metadata are copies, so editing them here never touches the source.
class CExternalMetaDataMediaSample final : public COOBMediaSample {
public:
    static SampleRef<CExternalMetaDataMediaSample> wrap(IMediaSample* foreign);

    HRESULT GetPointer(std::uint8_t** buffer) override { return m_foreign->GetPointer(buffer); }
    long GetSize() override { return m_foreign->GetSize(); }
    long GetActualDataLength() override { return m_foreign->GetActualDataLength(); }
    HRESULT SetActualDataLength(long length) override { return m_foreign->SetActualDataLength(length); }

private:
    explicit CExternalMetaDataMediaSample(IMediaSample* foreign) : m_foreign(foreign) {}
    SampleRef<IMediaSample> m_foreign;
};

}  // namespace tvrn::encoding::filter
