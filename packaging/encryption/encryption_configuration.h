#pragma once
// The encryption configuration as the filter holds it: a mode and the record of that mode, the transport
// security of key server connections, and the rules a configuration front end checks before it hands a
// configuration over. Each record holds what this library reads of it; its provider adds the rest.
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

// Stored as a number; a value outside this list is refused where the mode is dispatched on.
enum class EncryptionMode : std::uint32_t {
    None = 0,
    Manual = 1,
    ManualPlayReady = 2,
    AutoGen = 3,
    BuyDrm = 4,
    HarmonicKms = 5,
    Verimatrix = 6,
    SecureMedia = 7,
    InsideSecure = 8,
    Widevine = 9,
    MultiDrm = 10,
    Irdeto = 11,
};

// The Common Encryption scheme samples are encrypted with. Stored as a number, like the mode.
enum class EncryptionScheme : std::uint32_t {
    // AES-128 CTR, per-sample IVs, subsample encryption of every NAL.
    Cenc = 0,
    // AES-128 CBC with a constant IV: video by subsamples with the 1:9 block pattern, audio whole blocks.
    Cbcs = 1,
};

// The scheme and, for cbcs, the constant IV. Without one, the encryption manager draws a random IV of 16 bytes when it
// is built and a new one at each key change after the first key, so that no two keys share an IV.
struct SchemeSettings {
    EncryptionScheme scheme = EncryptionScheme::Cenc;
    std::optional<std::array<std::uint8_t, 16>> constantIv{};
};

// One key from the operator, given as it is or through a PlayReady key seed, signalled with a PlayReady header.
struct ManualPlayReadyConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::ManualPlayReady;
    std::string keyId{};            // UUID text
    std::string keySeed{};          // base64; the operator's secret, masked in the log; may be empty
    std::string contentKey{};       // base64; never logged; wins over the seed when not empty
    std::string laUrl{};            // licence acquisition address
    std::string luiUrl{};           // licence user interface address
    std::string domainServiceId{};  // UUID text; may be empty
};

struct BuyDrmConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::BuyDrm;
    std::string keyId{};      // UUID text
    std::string userKey{};    // the operator's secret: masked in logs
    std::string serverKey{};  // the operator's secret: masked in logs
    std::string contentId{};
    std::string serverUrl{};
};

// One protection system a Harmonic key session is asked to signal.
struct HarmonicDrmSystem {
    std::string drmSystemId{};  // UUID text
    std::string drmName{};
};

struct HarmonicConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::HarmonicKms;
    std::string resourceId{};  // at most 128 characters
    std::string requestorId{};
    std::int32_t keyPeriod = 0;  // seconds
    std::string keySessionUrl{};
    // Tried when the session address does not connect; empty for none.
    std::string backupKeySessionUrl{};
    std::string keySessionSettings{};  // the opaque data of the session request
    std::uint32_t implementation = 0;  // 0 full, any other value minimal
    std::string keyProvisioningUrl{};
    std::vector<HarmonicDrmSystem> drmList{};
};

struct VerimatrixConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::Verimatrix;
    std::int32_t keyPeriod = 0;  // seconds
    std::string resourceId{};
    std::string serverUrl{};  // base address of the key file service
};

struct SecureMediaConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::SecureMedia;
    std::string serverUrl{};
};

struct InsideSecureConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::InsideSecure;
    std::string serverUrl{};
    std::string laUrl{};  // licence address for the PlayReady header
    std::string contentId{};
    std::int32_t keyPeriod = 0;  // seconds
};

// Widevine requests signed with the operator's key and IV, both base64: secrets, never logged.
struct WidevineSigningKey {
    std::string signingKey{};
    std::string signingIv{};
};

struct WidevineConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::Widevine;
    std::string serverUrl{};
    std::string signer{};  // may be empty
    std::variant<std::monostate, WidevineSigningKey> signing{};  // unsigned, or signed
    std::int32_t keyPeriod = 0;  // seconds
    std::string contentId{};
};

// One key from the operator signalled for several DRM systems, each switched on by its flag; no key server.
struct MultiDrmConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::MultiDrm;
    // UUID text; the manifest's cenc:default_KID is this text as it is.
    std::string keyId{};
    // Not used: the key never changes.
    std::int32_t keyPeriod = 0;
    // Base64. The content key wins over the seed when not empty. Operator's secrets: never logged.
    std::string keySeed{};
    std::string contentKey{};
    bool playReadyEnabled = false;
    std::string laUrl{};
    // Marlin has a manifest element only, no pssh. Its text is not used.
    bool marlinEnabled = false;
    std::string marlinText{};
    // Verimatrix's pssh data holds this text.
    bool verimatrixEnabled = false;
    std::string verimatrixData{};
    // The content id is UUID text, or empty for none.
    bool widevineEnabled = false;
    std::string widevineProvider{};
    std::string widevineContentId{};
    // A system of the host's choice: its id (UUID text), its pssh data (base64) and its manifest element (when
    // empty, a bare ContentProtection element of the system id).
    bool customEnabled = false;
    std::string customSystemId{};
    std::string customPsshData{};
    std::string customElement{};
    // Makes the custom system's pssh version 1, listing the key id, as the W3C common system 1077efec-c0b2-4d02-
    // ace3-3c1e52e2fb4b (ClearKey) has it. The PIFF form of Smooth Streaming has no version 1 and stays version 0.
    bool customPsshListsKeyId = false;
};

// Irdeto's key generation: the protection systems asked for, in the order the service lists them.
struct IrdetoGenerateKeysSettings {
    std::int32_t keyRequestPeriod = 0;  // seconds; 0 for none
    std::int32_t keyChangePeriod = 0;   // seconds; 0 for none
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
};

// Irdeto's PlayReady Scalable License: no settings, and no provider yet.
struct IrdetoPlayReadyScalableLicense {};

struct IrdetoConfiguration {
    static constexpr EncryptionMode kMode = EncryptionMode::Irdeto;
    std::string serverUrl{};
    std::variant<IrdetoGenerateKeysSettings, IrdetoPlayReadyScalableLicense> variant{};
    // The service's identity, sent in the header of each request.
    std::string accountId{};
    std::string contentId{};
    std::string userName{};
    std::string password{};  // the operator's secret: never logged
    // The live event created at connection; none while `eventName` is empty.
    std::string eventName{};
    std::string description{};
    std::string url{};
    std::string subContentType{};
    std::string encryptionType{};
    std::int32_t policyGroupId = 0;
};

// How key server connections are secured: nothing (plain), or TLS with these settings. Copied whole into each
// client.
struct ClientCertificate {
    std::string keyFile{};
    std::optional<std::string> password{};  // the operator's secret: never logged
};
struct TlsSettings {
    bool verifyPeer = true;
    bool verifyHost = true;
    std::string caFile{};
    std::optional<ClientCertificate> clientCertificate{};
};
using TransportSecurity = std::variant<std::monostate, TlsSettings>;

class EncryptionConfiguration {
public:
    using Record = std::variant<std::monostate, ManualPlayReadyConfiguration, BuyDrmConfiguration,
                                HarmonicConfiguration, VerimatrixConfiguration, SecureMediaConfiguration,
                                InsideSecureConfiguration, WidevineConfiguration, MultiDrmConfiguration,
                                IrdetoConfiguration>;

    // Mode None.
    EncryptionConfiguration() = default;
    // A mode given without its record: None, Manual and AutoGen have none; for the others the record reads as
    // missing. A number outside the modes is kept as it is.
    explicit EncryptionConfiguration(EncryptionMode mode) : m_mode(mode) {}
    // A mode with its record.
    template <typename R>
        requires(!std::is_same_v<std::decay_t<R>, EncryptionConfiguration> &&
                 requires { std::decay_t<R>::kMode; })
    EncryptionConfiguration(R&& record)  // NOLINT: a record converts to its configuration
        : m_mode(std::decay_t<R>::kMode), m_record(std::forward<R>(record)) {}

    EncryptionMode mode() const { return m_mode; }
    // Held apart from the records: a configuration made from a record has the default, cenc.
    const SchemeSettings& scheme() const { return m_scheme; }
    void setScheme(const SchemeSettings& scheme) { m_scheme = scheme; }
    // The record of mode R::kMode; std::logic_error "cannot convert union to given type" under another mode.
    template <typename R>
    const R& record() const {
        const R* held = std::get_if<R>(&m_record);
        if (held == nullptr || m_mode != R::kMode) throw std::logic_error("cannot convert union to given type");
        return *held;
    }

private:
    EncryptionMode m_mode = EncryptionMode::None;
    Record m_record;
    SchemeSettings m_scheme;
};

// The key server address for the "Connection Established to %s" line: empty for None, Manual, Manual PlayReady,
// AutoGen and Multi-DRM; the record's address for the others (Harmonic: the key session address, or with
// `backup` its backup address; `backup` gives the empty string in every other mode).
std::string getServerUrl(const EncryptionConfiguration& configuration, bool backup = false);

// The rules a configuration front end applies; the packaging path takes whatever it is given. Each answers true,
// or false with the reason in `error`, which is left alone on true.

// Output format 0 (Smooth Streaming) has no key rotation; 1 and 2 allow up to an hour; other formats anything.
bool isValidKeyChangePeriod(int period, std::uint32_t outputFormat, std::string& error);
// Which protection systems Irdeto may be asked for together.
bool isValidIrdetoProtectionList(const IrdetoGenerateKeysSettings& settings, std::string& error);
// What an Irdeto configuration may carry into MPEG-DASH output, and into HLS output.
bool isValidForDash(const IrdetoConfiguration& configuration, std::string& error);
bool isValidForHls(const IrdetoConfiguration& configuration, std::string& error);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
