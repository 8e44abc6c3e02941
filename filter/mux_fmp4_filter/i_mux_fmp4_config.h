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

// The settings of the key-server configurations (slots 10 to 17) and of the connection to the key server
// (slot 18), field for field the records of the encryption configuration. A null string reads as empty; a field
// left out of an initialiser is zero.

// One protection system that a Harmonic key session is asked to signal.
struct HarmonicDrmSystemSettings {
    const char* drmSystemId = nullptr;  // UUID text
    const char* drmName = nullptr;
};

// Slot 10: Harmonic KMS.
struct HarmonicKmsEncryptionSettings {
    const char* resourceId = nullptr;  // at most 128 characters
    const char* requestorId = nullptr;
    std::int32_t keyPeriod = 0;  // seconds
    const char* keySessionUrl = nullptr;
    const char* backupKeySessionUrl = nullptr;  // tried when the session address does not connect; empty for none
    const char* keySessionSettings = nullptr;  // the opaque data of the session request
    std::uint32_t implementation = 0;  // 0 full, any other value minimal
    const char* keyProvisioningUrl = nullptr;
    std::int32_t drmCount = 0;
    const HarmonicDrmSystemSettings* drmList = nullptr;  // drmCount entries
};

// Slot 11: Irdeto. The periods and protection systems belong to key generation (variant 0) and are ignored
// under the PlayReady Scalable License (variant 1).
struct IrdetoEncryptionSettings {
    const char* serverUrl = nullptr;
    std::uint32_t variant = 0;  // 0 key generation, 1 PlayReady Scalable License
    std::int32_t keyRequestPeriod = 0;  // seconds; 0 for none
    std::int32_t keyChangePeriod = 0;  // seconds; 0 for none
    bool activeCloakPr = false;
    bool ca = false;
    bool clearKey = false;
    bool hlsChinaDrm = false;
    bool hlsPantos = false;
    bool irdetoProtection = false;
    bool marlin = false;
    bool playReady = false;
    bool primeTime = false;
    bool ske = false;
    bool fairPlayStreaming = false;
    bool widevine = false;
    const char* accountId = nullptr;
    const char* contentId = nullptr;
    const char* userName = nullptr;
    const char* password = nullptr;
    // The live event created at connection; none while `eventName` is empty.
    const char* eventName = nullptr;
    const char* description = nullptr;
    const char* url = nullptr;
    const char* subContentType = nullptr;
    const char* encryptionType = nullptr;
    std::int32_t policyGroupId = 0;
};

// Slot 12: BuyDRM.
struct BuyDrmEncryptionSettings {
    const char* keyId = nullptr;  // UUID text
    const char* userKey = nullptr;
    const char* serverKey = nullptr;
    const char* contentId = nullptr;
    const char* serverUrl = nullptr;
};

// Slot 13: Verimatrix.
struct VerimatrixEncryptionSettings {
    std::int32_t keyPeriod = 0;  // seconds
    const char* resourceId = nullptr;
    const char* serverUrl = nullptr;
};

// Slot 14: Inside Secure.
struct InsideSecureEncryptionSettings {
    const char* serverUrl = nullptr;
    const char* laUrl = nullptr;  // licence address for the PlayReady header
    const char* contentId = nullptr;
    std::int32_t keyPeriod = 0;  // seconds
};

// Slot 15: Widevine. The signing key and IV (base64) are read only when `signRequests` is set.
struct WidevineEncryptionSettings {
    const char* serverUrl = nullptr;
    const char* signer = nullptr;
    bool signRequests = false;
    const char* signingKey = nullptr;
    const char* signingIv = nullptr;
    std::int32_t keyPeriod = 0;  // seconds
    const char* contentId = nullptr;
};

// Slot 16: PlayReady with the operator's key, given as it is or through a key seed.
struct ManualPlayReadyEncryptionSettings {
    const char* keyId = nullptr;  // UUID text
    const char* keySeed = nullptr;  // base64; may be empty
    const char* contentKey = nullptr;  // base64; may be empty, and wins over the seed when set
    const char* laUrl = nullptr;
    const char* luiUrl = nullptr;
    const char* domainServiceId = nullptr;  // UUID text; may be empty
};

// Slot 17: one key of the configuration signalled for several protection systems.
struct MultiDrmEncryptionSettings {
    const char* keyId = nullptr;  // UUID text
    std::int32_t keyPeriod = 0;  // not used: the key never changes
    const char* keySeed = nullptr;  // base64
    const char* contentKey = nullptr;  // base64
    bool playReadyEnabled = false;
    const char* laUrl = nullptr;
    bool marlinEnabled = false;
    const char* marlinText = nullptr;
    bool verimatrixEnabled = false;
    const char* verimatrixData = nullptr;
    bool widevineEnabled = false;
    const char* widevineProvider = nullptr;
    const char* widevineContentId = nullptr;  // UUID text
    bool customEnabled = false;
    const char* customSystemId = nullptr;  // UUID text
    const char* customPsshData = nullptr;  // base64
    const char* customElement = nullptr;
    // Beyond the slot's documented arguments: the custom system's pssh lists the key id (version 1), as W3C
    // ClearKey (1077efec-c0b2-4d02-ace3-3c1e52e2fb4b) has it. Off by default.
    bool customPsshListsKeyId = false;
};

// Slot 18, for kind 1 (TLS); kind 0 is a plain connection and reads none of it.
struct KeyServerConnectionOptions {
    bool verifyPeer = false;
    bool verifyHost = false;
    const char* caFile = nullptr;
    const char* clientKeyFile = nullptr;  // the client certificate's key file; null for no client certificate
    const char* clientKeyPassword = nullptr;  // null for none; needs a key file
};

// The Common Encryption schemes of slot 22.
enum EncryptionSchemeKind : std::uint32_t {
    EncryptionSchemeCenc = 0,
    EncryptionSchemeCbcs = 1,
};

// The kinds of key server connection of slot 18.
enum KeyServerConnectionKind : std::uint32_t {
    KeyServerPlain = 0,
    KeyServerTls = 1,
};

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
    // 10 to 17: the key-server configurations. Each replaces the encryption configuration with its mode and
    // settings. E_POINTER for null settings, E_INVALIDARG for settings that cannot be taken (a Harmonic resource
    // id above 128 characters or a DRM list that is missing or of negative count, an Irdeto variant other than 0
    // and 1). The settings are copied: the caller's memory is not kept.
    virtual HRESULT SetHarmonicKmsEncryption(const HarmonicKmsEncryptionSettings* settings) = 0;
    virtual HRESULT SetIrdetoEncryption(const IrdetoEncryptionSettings* settings) = 0;
    virtual HRESULT SetBuyDrmEncryption(const BuyDrmEncryptionSettings* settings) = 0;
    virtual HRESULT SetVerimatrixEncryption(const VerimatrixEncryptionSettings* settings) = 0;
    virtual HRESULT SetInsideSecureEncryption(const InsideSecureEncryptionSettings* settings) = 0;
    virtual HRESULT SetWidevineEncryption(const WidevineEncryptionSettings* settings) = 0;
    virtual HRESULT SetManualPlayReadyEncryption(const ManualPlayReadyEncryptionSettings* settings) = 0;
    virtual HRESULT SetMultiDrmEncryption(const MultiDrmEncryptionSettings* settings) = 0;
    // 18: how key servers are reached: KeyServerPlain, or KeyServerTls with `options`. With `enabled` false,
    // succeeds and changes nothing. E_INVALIDARG for another kind or a password without a key file, E_POINTER
    // for TLS without options.
    virtual HRESULT SetKeyServerConnection(bool enabled, std::uint32_t kind, const KeyServerConnectionOptions* options) = 0;
    // 19: the chunks delivered; `text` receives the empty string when it fits.
    virtual HRESULT GetStatus(std::uint32_t* chunksDelivered, char* text, std::uint32_t textSize) = 0;
    // 20: under the key-status lock.
    virtual HRESULT GetKeyServerStatus(std::uint32_t* status) = 0;
    // 21: no state check.
    virtual HRESULT SetOverheadPercent(std::uint32_t percent) = 0;
    // 22: the scheme samples are encrypted with, for whichever encryption configuration is set: EncryptionSchemeCenc
    // (the default) or EncryptionSchemeCbcs with `constantIv`, 16 bytes (the IV of every cbcs sample) or null for a
    // random IV drawn for each key. Kept when an encryption configuration is set. E_INVALIDARG for another scheme
    // or a cenc scheme with an IV. Smooth Streaming output has cenc only: a session with cbcs does not start.
    virtual HRESULT SetEncryptionScheme(std::uint32_t scheme, const std::uint8_t (*constantIv)[16]) = 0;

protected:
    virtual ~IMuxFmp4Config() = default;
};

}  // namespace tvrn::encoding::filter
