#pragma once
// Viaccess's encoder key service: the key of a content and, per protection system asked for (PlayReady and VODRM),
// its specific information and pssh, over SOAP. No encryption mode uses it yet: it is a client library, ready for
// the day a mode does.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "packaging/kms_clients/soap_transport.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

struct ViaccessPlayReadyInformation {
    std::string keyId;
    std::string licenseAcquisitionUrl;
    std::string licenseAcquisitionUiUrl;
    std::string customData;
    std::string serviceId;
    std::string protectionSystemId;
};

struct ViaccessProtectionInfo {
    std::vector<std::uint8_t> key;
    std::optional<ViaccessPlayReadyInformation> playReady;
    std::vector<std::uint8_t> playReadyPssh;
    std::optional<std::string> vodrm;  // VODRM's data
    std::vector<std::uint8_t> vodrmPssh;
};

class ViaccessClient {
public:
    // `soapTimeout` in gSOAP's convention (seconds when positive, microseconds when negative).
    ViaccessClient(std::string serverUrl, encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                   int soapTimeout = kSoapTimeoutSeconds);

    // Asks for PLAYREADY and VODRM, protocol version "1"; `changeKey` asks the server for a new key. Throws
    // KmsException: "getProtectionInfo error; <fault>" for a failed call, "Returned Key is empty", "Invalid
    // returned protection list" (none), "Invalid returned PSSH" (an entry without one), "Invalid returned
    // Protection Specific Information" (an entry of neither system), "Invalid returned PlayReady cProtection
    // Specific Information" (PlayReady's without its key id or licence address).
    ViaccessProtectionInfo getProtectionInfo(const std::string& contentId, bool changeKey);

private:
    std::string m_serverUrl;
    encryption::TransportSecurity m_transportSecurity;
    int m_soapTimeout;
    SoapRequestDumper m_dumper;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
