#pragma once
// The configuration interface of the filter, in slot order after the three of the reference-counted base.
// Result codes: 0 success, E_FAIL, E_INVALIDARG, VFW_E_WRONG_STATE. Unless a slot says otherwise, a setter
// answers E_FAIL while a session exists. Strings are narrow and null-terminated.
#include <cstdint>

#include "filter/mux_fmp4_filter/guid.h"
#include "packaging/synchronizator/i_sample_synchronizator.h"
#include "support/exceptions/result_codes.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::filter {

using tvrn::com::HRESULT;

// The settings records of the key-server configurations; each is defined with its provider.
struct HarmonicKmsEncryptionSettings;
struct IrdetoEncryptionSettings;
struct BuyDrmEncryptionSettings;
struct VerimatrixEncryptionSettings;
struct InsideSecureEncryptionSettings;
struct WidevineEncryptionSettings;
struct ManualPlayReadyEncryptionSettings;
struct MultiDrmEncryptionSettings;
struct KeyServerConnectionOptions;

// -1 unknown, 0 main server up, 1 backup server up, 2 down.
enum KeyServerStatus : std::uint32_t {
    KeyServerUnknown = 0xFFFFFFFFu,
    KeyServerMainUp = 0,
    KeyServerBackupUp = 1,
    KeyServerDown = 2,
};

class IMuxFmp4Config {
public:
    // Slots 0 to 2: the reference-counted base.
    virtual HRESULT QueryInterface(const GUID& iid, void** object) = 0;
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;

    // 3: the version of this interface: 1.
    virtual std::uint32_t GetVersion() = 0;
    // 4: configures the first input pin, by stream id, that is not connected yet. VFW_E_WRONG_STATE unless the
    // filter is stopped; E_FAIL without such a pin; E_INVALIDARG for a bitrate below 1.
    // `descriptors` holds `descriptorCount` triples of (element, schemeIdUri, value).
    virtual HRESULT ConfigureInputPin(std::uint32_t bitrate, const char* language, std::uint32_t flag, const char* name,
                                      const char* extraParameters, std::uint32_t group, std::int32_t descriptorCount,
                                      const char* const (*descriptors)[3]) = 0;
    // 5: no state check.
    virtual HRESULT SetChunkWarningNotifier(
        packaging::synchronizator::i_chunk_warning_notifier::IFmp4ChunkWarningNotifier* notifier) = 0;
    // 6: null restores the internal logger.
    virtual HRESULT SetLogger(tvrn::log::ILogger* logger) = 0;
    // 7: an unknown mode raises "Unknown Fmp4 MuxMode" out of the call.
    virtual HRESULT SetMuxMode(const char* streamName, std::uint32_t outputFormat, std::uint32_t mode,
                               std::int32_t gopDurationMs, std::uint32_t gopsPerSegment,
                               std::int32_t audioSegmentDurationMs, std::int32_t chunkDurationMs,
                               std::uint8_t inBandParameterSets, std::uint8_t psshInFragments,
                               std::uint8_t allVideoInInit, std::uint8_t driftDetection, std::uint8_t offline) = 0;
    // 8: below 0 gives E_INVALIDARG; no state check.
    virtual HRESULT SetFirstNumber(std::int32_t firstNumber) = 0;
    // 9: no state check.
    virtual HRESULT SetDefaultParentalRating(std::uint32_t age) = 0;
    // 10 to 17: the key-server configurations.
    virtual HRESULT SetHarmonicKmsEncryption(const HarmonicKmsEncryptionSettings* settings) = 0;
    virtual HRESULT SetIrdetoEncryption(const IrdetoEncryptionSettings* settings) = 0;
    virtual HRESULT SetBuyDrmEncryption(const BuyDrmEncryptionSettings* settings) = 0;
    virtual HRESULT SetVerimatrixEncryption(const VerimatrixEncryptionSettings* settings) = 0;
    virtual HRESULT SetInsideSecureEncryption(const InsideSecureEncryptionSettings* settings) = 0;
    virtual HRESULT SetWidevineEncryption(const WidevineEncryptionSettings* settings) = 0;
    virtual HRESULT SetManualPlayReadyEncryption(const ManualPlayReadyEncryptionSettings* settings) = 0;
    virtual HRESULT SetMultiDrmEncryption(const MultiDrmEncryptionSettings* settings) = 0;
    // 18: with `enabled` false, succeeds and changes nothing.
    virtual HRESULT SetKeyServerConnection(bool enabled, std::uint32_t kind, const KeyServerConnectionOptions* options) = 0;
    // 19: the chunks delivered; `text` receives the empty string when it fits.
    virtual HRESULT GetStatus(std::uint32_t* chunksDelivered, char* text, std::uint32_t textSize) = 0;
    // 20: under the key-status lock.
    virtual HRESULT GetKeyServerStatus(std::uint32_t* status) = 0;
    // 21: no state check.
    virtual HRESULT SetOverheadPercent(std::uint32_t percent) = 0;

protected:
    virtual ~IMuxFmp4Config() = default;
};

}  // namespace tvrn::encoding::filter
