#pragma once
// Irdeto's live DRM service as a key source: GenerateKeys over SOAP 1.2 answers, for one crypto period, one key
// with its key id and 16-byte IV, and for each protection system asked for its pssh data and manifest element.
// At connection the live event may be created first. Two periods drive the requests, by media time:
//   keyRequestPeriod  asks again for the key of the same crypto period;
//   keyChangePeriod   moves to the next crypto period (the key rotates).
// A failed request keeps the previous key, key id, IV and systems and answers Failed. Not locked: connect runs on
// the filter's thread, everything else on the segment-building thread.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "packaging/kms_clients/soap_transport.h"
#include "support/log/i_logger.h"

namespace IrdetoLiveDrm {
class LiveDrmServicesSoap12Proxy;
}

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// The protection systems Irdeto knows, by their number, and the text each is asked for by.
enum class IrdetoProtectionSystem : int {
    PlayReady = 0,
    Widevine = 2,
    Marlin = 3,
    ActiveCloakPr = 4,
    HlsPantos = 5,
    Ske = 6,
    Ca = 7,
    ClearKey = 8,
    HlsChinaDrm = 9,
    IrdetoProtection = 10,
    PrimeTime = 11,
    FairPlayStreaming = 12,
};
const char* irdetoProtectionSystemText(IrdetoProtectionSystem system);
// The texts of the flags set, in ascending order of their number.
std::vector<std::string> irdetoProtectionSystems(const encryption::IrdetoGenerateKeysSettings& settings);

// One Key element of GenerateKeys' result: each field an attribute of that name or, failing that, the text of a
// child element of that name.
struct IrdetoKeyEntry {
    std::string version;
    std::string accountId, contentId, keyId, contentKey, iv, systemId;
    std::string playReadyKeySeed, playReadyLicenseUrl, pssh, contentProtectionElement;
    std::string hlsMethod, hlsUri, hlsKeyFormat, hlsKeyFormatVersions, hlsExtXKey, ekf;
};
// Reads the result text: a Keys element with one Key element per protection system. False (and `entries`
// unspecified) for text that is not XML, has no Keys element, or holds a Key without AccountId, ContentId, KeyId,
// ContentKey or IV.
bool parseIrdetoKeys(const std::string& xml, std::vector<IrdetoKeyEntry>& entries);

// What the record does not carry.
struct IrdetoOptions {
    // Each stage of a SOAP call, in gSOAP's convention: seconds when positive, microseconds when negative.
    int soapTimeout = kSoapTimeoutSeconds;
    // The first crypto period; by default the Unix time in seconds at construction.
    std::optional<std::int64_t> firstCryptoPeriod;
    // The track types sent with each request, in the vendor's words; none by default.
    std::vector<std::string> trackTypes;
};

class IrdetoEncryptionProvider : public encryption::IEncryptionProvider {
public:
    // Logs the address at info level.
    IrdetoEncryptionProvider(encryption::IrdetoConfiguration configuration,
                             encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                             IrdetoOptions options = {});
    ~IrdetoEncryptionProvider() override;
    IrdetoEncryptionProvider(const IrdetoEncryptionProvider&) = delete;
    IrdetoEncryptionProvider& operator=(const IrdetoEncryptionProvider&) = delete;

    // One pssh box per system of the latest answer, in the order of their system ids.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    // The Common Encryption element (DASH), then each system's manifest element as the server gave it, or a bare
    // element of its system id.
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(encryption::KeyId& keyId) override;
    bool getContentKey(encryption::ContentKey& key) override;
    // The server's 16 bytes, as they came.
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void*, const void*, const void*) override { return true; }
    encryption::KeyUpdateResult updateKey(std::uint64_t time) override;
    bool connect() override;
    bool isKeyRotationEnabled() const;

    std::int64_t cryptoPeriod() const { return m_cryptoPeriod; }

private:
    struct SystemData {
        std::string contentProtectionElement;
        std::vector<std::uint8_t> pssh;
    };
    using Service = SoapService<IrdetoLiveDrm::LiveDrmServicesSoap12Proxy>;
    struct Header;  // the service header block, sent with every call

    bool ensureClient(std::string& text);
    void setHeader();
    bool createLiveEvent(std::string& text);
    bool generateKeys(std::int64_t period, std::string& text);
    std::string faultText(int code);

    encryption::IrdetoConfiguration m_configuration;
    encryption::TransportSecurity m_transportSecurity;
    tvrn::log::ILogger& m_logger;
    IrdetoOptions m_options;
    SoapRequestDumper m_dumper;
    std::unique_ptr<Service> m_client;
    std::unique_ptr<Header> m_header;
    std::vector<std::uint8_t> m_contentKey;
    std::vector<std::uint8_t> m_initialisationVector;
    std::vector<std::uint8_t> m_keyId;  // GUID memory order
    std::map<std::string, SystemData> m_systems;
    std::set<std::string> m_knownSystemIds;
    std::optional<std::uint64_t> m_lastRequestTimeMs;
    std::optional<std::uint64_t> m_lastChangeTimeMs;
    std::int64_t m_cryptoPeriod;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
