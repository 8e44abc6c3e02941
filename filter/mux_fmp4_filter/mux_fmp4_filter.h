#pragma once
// The filter: a session holder with configure, pause (start), run, stop and push calls. It owns the pins,
// the configuration and one worker that builds a mux session when the filter pauses.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "filter/mux_fmp4_filter/i_mux_fmp4_config.h"
#include "filter/mux_fmp4_filter/pins.h"
#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/encryption_manager.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"
#include "packaging/fmp4/fmp4_mux/mux_worker.h"
#include "packaging/kms_clients/encryption_factory.h"
#include "support/log/log_perf.h"

namespace tvrn::encoding::filter {

namespace fmp4 = packaging::imff::fmp4;

inline constexpr const char* kFilterName = "Tovrane Mux Fmp4";
inline constexpr std::uint32_t kFilterMerit = 0x200000;

enum class FilterState { Stopped, Paused, Running };

namespace encryption = packaging::encryption;
using packaging::encryption::IEncryptionListener;

// How the filter reaches the key server of an encrypted session: the factory of the session's encryption manager,
// the time between two attempts while the server does not answer, and how long each stage of a key request may
// take. The defaults are the system's own: the factory of every mode, key-server clients included. The clients are
// told that an offline session is on-demand content.
struct KeyServerParts {
    std::function<void(std::unique_ptr<encryption::EncryptionManager>&, const encryption::EncryptionConfiguration&,
                       const encryption::TransportSecurity&, tvrn::log::ILogger&, IEncryptionListener*,
                       const packaging::kms_clients::KeyClientOptions&)>
        buildEncryptionManager = packaging::kms_clients::buildEncryptionManager;
    std::chrono::milliseconds retryInterval{3000};
    std::chrono::milliseconds requestTimeout{std::chrono::seconds(5)};
};

// The graph's event sink: told of errors that stop streaming, on the streaming thread.
inline constexpr long EC_ERRORABORT = 0x03;
class IMediaEventSink {
public:
    virtual HRESULT Notify(long eventCode, std::intptr_t param1, std::intptr_t param2) = 0;

protected:
    virtual ~IMediaEventSink() = default;
};

// The session parts with MPEG-1 audio inputs framed to take Layer III (MP3) frames as well as Layers I and II. The
// filter's default framing refuses Layer III; a host that feeds MP3 on an MPEG-1 audio pin chooses this.
fmp4::Fmp4MuxParts withMpeg1Layer3(fmp4::Fmp4MuxParts parts);

// The session parts with a chunk builder that does not wait for sparse streams (text, metadata, SCTE-35) to fix
// the time origin: an SCTE-35 input may send nothing for hours, and by default no media chunk leaves before every
// stream has delivered once. A host that connects such inputs chooses this.
fmp4::Fmp4MuxParts withoutWaitingForSparseStreams(fmp4::Fmp4MuxParts parts);

// The session parts with units that refer to the input samples they lie in rather than copying them
// (NALBuilder::setReferenceInputs): for a host whose samples are its own memory, not a bounded pool's.
fmp4::Fmp4MuxParts withInputsReferenced(fmp4::Fmp4MuxParts parts);

// The session parts with a chunk builder that describes each chunk it is about to build to `dump` (a debugging aid:
// kind, numbers, per track the first times, sample count and duration).
fmp4::Fmp4MuxParts withChunkDump(fmp4::Fmp4MuxParts parts, std::function<void(const std::string&)> dump);

class CMuxFmp4Filter final : public IMuxFmp4Config, public IEncryptionListener {
public:
    // Starts with one reference, held by the creator; the last Release destroys the filter.
    static CMuxFmp4Filter* Create(fmp4::Fmp4MuxParts parts = {}, KeyServerParts keyServer = {});

    // IMuxFmp4Config
    HRESULT QueryInterface(const GUID& iid, void** object) override;
    unsigned long AddRef() override;
    unsigned long Release() override;
    std::uint32_t GetVersion() override { return 1; }
    HRESULT ConfigureInputPin(std::uint32_t bitrate, const char* language, std::uint32_t flag, const char* name,
                              const char* extraParameters, std::uint32_t group, std::int32_t descriptorCount,
                              const char* const (*descriptors)[3]) override;
    HRESULT SetChunkWarningNotifier(
        packaging::synchronizator::i_chunk_warning_notifier::IFmp4ChunkWarningNotifier* notifier) override;
    HRESULT SetLogger(tvrn::log::ILogger* logger) override;
    HRESULT SetMuxMode(const char* streamName, std::uint32_t outputFormat, std::uint32_t mode, std::int32_t gopDurationMs,
                       std::uint32_t gopsPerSegment, std::int32_t audioSegmentDurationMs, std::int32_t chunkDurationMs,
                       std::uint8_t inBandParameterSets, std::uint8_t psshInFragments, std::uint8_t allVideoInInit,
                       std::uint8_t driftDetection, std::uint8_t offline) override;
    HRESULT SetFirstNumber(std::int32_t firstNumber) override;
    HRESULT SetDefaultParentalRating(std::uint32_t age) override;
    HRESULT SetHarmonicKmsEncryption(const HarmonicKmsEncryptionSettings* settings) override;
    HRESULT SetIrdetoEncryption(const IrdetoEncryptionSettings* settings) override;
    HRESULT SetBuyDrmEncryption(const BuyDrmEncryptionSettings* settings) override;
    HRESULT SetVerimatrixEncryption(const VerimatrixEncryptionSettings* settings) override;
    HRESULT SetInsideSecureEncryption(const InsideSecureEncryptionSettings* settings) override;
    HRESULT SetWidevineEncryption(const WidevineEncryptionSettings* settings) override;
    HRESULT SetManualPlayReadyEncryption(const ManualPlayReadyEncryptionSettings* settings) override;
    HRESULT SetMultiDrmEncryption(const MultiDrmEncryptionSettings* settings) override;
    HRESULT SetKeyServerConnection(bool enabled, std::uint32_t kind, const KeyServerConnectionOptions* options) override;
    HRESULT GetStatus(std::uint32_t* chunksDelivered, char* text, std::uint32_t textSize) override;
    HRESULT GetKeyServerStatus(std::uint32_t* status) override;
    HRESULT SetOverheadPercent(std::uint32_t percent) override;
    HRESULT SetEncryptionScheme(std::uint32_t scheme, const std::uint8_t (*constantIv)[16]) override;

    // Beyond the configuration interface: chunks as players read them (non-sync samples marked, sidx SAP types,
    // the last sample's own duration, the audio language in mdhd) instead of the bytes the downstream of this
    // filter is used to. Off by default; E_FAIL while a session runs.
    HRESULT SetPlayerCompatibleOutput(bool on);

    // Where errors of the streaming threads go; null for nowhere. Held, not owned.
    void SetEventSink(IMediaEventSink* sink);

    // IEncryptionListener
    void OnKeyServerStatus(bool up) override;

    // The transitions of the host. Pause starts a session, Stop ends it; neither waits for the worker.
    HRESULT Pause();
    HRESULT Run();
    HRESULT Stop();
    // VFW_S_STATE_INTERMEDIATE is never answered: state changes do not wait.
    FilterState GetState() const;

    // Pins, inputs first, then outputs.
    int GetPinCount() const;
    std::vector<MuxFmp4InputPin*> inputPins() const;
    std::vector<MuxFmp4OutputPin*> outputPins() const;
    // The output paired with an input stream, or null.
    MuxFmp4OutputPin* outputFor(std::int32_t streamId) const;

    fmp4::WorkerState workerState() const { return m_worker->state(); }
    bool waitForWorkerState(fmp4::WorkerState wanted, std::chrono::milliseconds timeout) const {
        return m_worker->waitForState(wanted, timeout);
    }
    fmp4::SessionStats& stats() { return m_worker->stats(); }
    tvrn::log::ILogger& logger() { return m_logger; }
    std::recursive_mutex& filterLock() { return m_lock; }

private:
    friend class MuxFmp4InputPin;
    friend class MuxFmp4OutputPin;
    friend class CIsomffListener;

    CMuxFmp4Filter(fmp4::Fmp4MuxParts parts, KeyServerParts keyServer);
    ~CMuxFmp4Filter() override;

    bool isIdle() const { return m_worker->state() == fmp4::Idle; }
    std::unique_ptr<fmp4::IMuxSession> buildSession();
    // Replaces the encryption configuration while the worker is idle.
    HRESULT setEncryption(encryption::EncryptionConfiguration configuration);
    // On the worker, after a session build under encryption: connects to the key server, pass after pass, and
    // gives the session its encryption manager. Answers Running, Idle (stopped) or Exiting.
    fmp4::WorkerState waitForKeyServer(fmp4::MuxWorker& worker, fmp4::IMuxSession& session);
    // One attempt with a new manager; true when it connected and the session holds it.
    bool connectKeyServer(const encryption::EncryptionConfiguration& configuration,
                          const encryption::TransportSecurity& transportSecurity, fmp4::IMuxSession& session,
                          bool backup);
    // Called by an input pin as it completes its connection; under the filter lock.
    HRESULT onInputConnected(MuxFmp4InputPin& pin, const MediaType& type);
    void onInputDisconnected(MuxFmp4InputPin& pin);
    void addInputPin();
    std::int32_t lowestFreeStreamId() const;
    void pushSample(std::int32_t streamId, fmp4::IMediaData* data);
    void pushEndOfStream(std::int32_t streamId);
    void countChunk();
    void notifyEvent(long eventCode, std::intptr_t param1, std::intptr_t param2);

    RefCount m_refCount;
    mutable std::recursive_mutex m_lock;
    std::atomic<FilterState> m_state{FilterState::Stopped};
    std::vector<std::unique_ptr<MuxFmp4InputPin>> m_inputs;
    std::vector<std::unique_ptr<MuxFmp4OutputPin>> m_outputs;
    std::map<int, std::vector<std::int32_t>> m_pairings;  // output index -> stream ids
    std::map<int, std::unique_ptr<CIsomffListener>> m_listeners;
    std::vector<std::int32_t> m_videoInputs;
    std::vector<std::int32_t> m_otherInputs;
    std::uint32_t m_muxedTopology = 0;

    tvrn::log::log_perf::SmartLogPerf<tvrn::log::log_perf::DummyLogPerf> m_logger;
    fmp4::Fmp4MuxParts m_parts;
    fmp4::OutputFormat m_outputFormat = fmp4::Smooth;
    fmp4::Fmp4MuxConfig m_config;
    bool m_inBandParameterSets = false;
    bool m_psshInFragments = false;
    bool m_allVideoInInit = false;
    bool m_driftDetection = false;
    bool m_offline = false;
    bool m_playerCompatible = false;
    std::string m_streamName = "streamname";
    std::int32_t m_firstNumber = 1;
    std::optional<std::uint32_t> m_defaultParentalRating;
    packaging::synchronizator::i_chunk_warning_notifier::IFmp4ChunkWarningNotifier* m_notifier = nullptr;
    std::uint32_t m_overheadPercent = 0;
    encryption::EncryptionConfiguration m_encryption;
    encryption::SchemeSettings m_scheme;
    encryption::TransportSecurity m_transportSecurity;
    KeyServerParts m_keyServer;

    std::mutex m_eventLock;
    IMediaEventSink* m_eventSink = nullptr;
    mutable std::mutex m_keyStatusLock;
    std::uint32_t m_keyServerStatus = KeyServerUnknown;

    std::unique_ptr<fmp4::MuxWorker> m_worker;  // last: its thread starts when everything else exists
};

// Creates a filter, as the class factory would.
IMuxFmp4Config* CreateMuxFmp4Filter();

}  // namespace tvrn::encoding::filter
