#pragma once
// Keys from an Inside Secure key server: the PlayReady key of the content at a position (the wall-clock Unix time,
// in seconds) over SOAP, asked at connect time and again once the key period has passed in media time. The
// PlayReady header is made here from the licence address, the key and its key id. A failure at connect time
// escapes to the filter, which keeps waiting; during the run it keeps the last key.
// Not locked: connect on the filter's thread, everything else on the segment-building thread.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "packaging/kms_clients/soap_transport.h"
#include "support/log/i_logger.h"

namespace InsideSecureKeyProvisioning {
class KeyProvisioningProxy;
}

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

class InsideSecureEncryptionProvider : public encryption::IEncryptionProvider {
public:
    // `soapTimeout` in gSOAP's convention (seconds when positive, microseconds when negative); `unixTime` gives
    // the request's position (the system clock unless a test gives another).
    InsideSecureEncryptionProvider(encryption::InsideSecureConfiguration configuration,
                                   encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                                   int soapTimeout = kSoapTimeoutSeconds,
                                   std::function<std::uint64_t()> unixTime = nullptr);
    ~InsideSecureEncryptionProvider() override;

    // Throws KmsException on any failure: "Invalid configuration : 'Content Id' is empty", "provisionKey error;
    // <fault>", "Invalid encryption key size from Inside Secure", "Invalid Key Id received from Inside Secure".
    bool connect() override;
    encryption::KeyUpdateResult updateKey(std::uint64_t time) override;
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(encryption::KeyId& keyId) override;
    bool getContentKey(encryption::ContentKey& key) override;
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void*, const void*, const void*) override { return true; }
    bool isKeyRotationEnabled() const { return m_configuration.keyPeriod > 0; }

private:
    using Service = SoapService<InsideSecureKeyProvisioning::KeyProvisioningProxy>;
    void provisionKey();

    encryption::InsideSecureConfiguration m_configuration;
    encryption::TransportSecurity m_transportSecurity;
    tvrn::log::ILogger& m_logger;
    int m_soapTimeout;
    std::function<std::uint64_t()> m_unixTime;
    SoapRequestDumper m_dumper;
    std::unique_ptr<Service> m_client;
    std::vector<std::uint8_t> m_contentKey;
    std::vector<std::uint8_t> m_keyId;  // GUID memory order
    std::uint64_t m_lastKeyTime = 0;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
