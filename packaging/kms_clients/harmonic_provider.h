#pragma once
// The Harmonic key management server (KMS protocol 2.4) as a key source. Two implementations, chosen by the
// record's `implementation` field:
//   minimal (non-zero)  keys are asked of the configured key provisioning address;
//   full (0)            a key session is opened on the session server (its backup when the first is down or in
//                       standby), and the session tells the key provisioning address.
// Keys rotate by media time: one request per key period, the period's arithmetic alone deciding when. A failed
// request keeps the previous key, key id and signalling and answers Failed, so the next segment asks again.
// Not locked: connect runs on the filter's thread, everything else on the segment-building thread.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "packaging/kms_clients/soap_transport.h"
#include "support/log/i_logger.h"

namespace HarmonicKeyProvisioning {
class KeyProvisioningProxy;
}
namespace HarmonicKeySession {
class KeySessionProxy;
}

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// What the record does not carry.
struct HarmonicOptions {
    // Video on demand: the key requests' distribution mode 1 instead of 0 (live).
    bool vod = false;
    // Each stage of a SOAP call, in gSOAP's convention: seconds when positive, microseconds when negative.
    int soapTimeout = kSoapTimeoutSeconds;
};

class HarmonicEncryptionProvider : public encryption::IEncryptionProvider {
public:
    // Logs the address it starts from at info level. A resource id above 128 characters is refused by
    // buildHarmonicProvider, not here.
    HarmonicEncryptionProvider(encryption::HarmonicConfiguration configuration,
                               encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                               HarmonicOptions options = {});
    ~HarmonicEncryptionProvider() override;
    HarmonicEncryptionProvider(const HarmonicEncryptionProvider&) = delete;
    HarmonicEncryptionProvider& operator=(const HarmonicEncryptionProvider&) = delete;

    // One pssh box per system of the latest signalling list, with the server's data.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    // The Common Encryption element, then one ContentProtection element per system around the server's manifest
    // header; the same text for both forms.
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(encryption::KeyId& keyId) override;
    bool getContentKey(encryption::ContentKey& key) override;
    // Eight zero bytes: the server's IV is kept but not used.
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void*, const void*, const void*) override { return true; }
    // `time` in 100 ns units: Unchanged until a key period has passed since the last key, then one request.
    encryption::KeyUpdateResult updateKey(std::uint64_t time) override;
    // Opens the key session (full), then asks for the key of time 0.
    bool connect() override;
    // Destroys the key session (full); failures are logged and passed over.
    void disconnect() override;
    bool isKeyRotationEnabled() const { return m_configuration.keyPeriod > 0; }

    // The address key requests go to, configured or given by the session; the session address in use.
    const std::string& keyProvisioningUrl() const { return m_keyProvisioningUrl; }
    const std::string& currentSessionUrl() const { return m_currentSessionUrl; }

private:
    struct ScheduledKey {
        std::string keyId;  // UUID text
        std::vector<std::uint8_t> key;
        std::vector<std::uint8_t> iv;
    };
    struct DrmSignalization {
        std::string drmSystemId;  // UUID text
        std::string drmName;
        std::string manifestHeader;
        std::vector<std::uint8_t> psshData;
    };
    using KeyService = SoapService<HarmonicKeyProvisioning::KeyProvisioningProxy>;
    using SessionService = SoapService<HarmonicKeySession::KeySessionProxy>;

    bool openKeySession();
    bool invalidKeySession();
    bool requestKey(std::uint64_t time);
    template <class Proxy>
    void initService(SoapService<Proxy>& service, const std::string& url);

    encryption::HarmonicConfiguration m_configuration;
    encryption::TransportSecurity m_transportSecurity;
    tvrn::log::ILogger& m_logger;
    HarmonicOptions m_options;
    SoapRequestDumper m_dumper;
    bool m_isMinimal;
    std::string m_currentSessionUrl;
    std::string m_keyProvisioningUrl;
    std::unique_ptr<KeyService> m_keyClient;
    std::unique_ptr<SessionService> m_sessionClient;
    std::vector<DrmSignalization> m_signalization;  // the DASH list
    std::vector<DrmSignalization> m_hlsSignalization;
    std::vector<DrmSignalization> m_ssSignalization;
    std::optional<ScheduledKey> m_currentKey;
    std::uint64_t m_lastKeyTime = 0;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
