#pragma once
// The PlayReady packaging server: the packaging data of a content (key id, content key, PlayReady header) for a key
// rotation and a licence duration, over SOAP. It serves the PlayReady Scalable License variant, which no encryption
// mode builds a provider for yet: it is a client library, ready for the day one does.
#include <cstdint>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "packaging/kms_clients/soap_transport.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// A duration as the server reads it: "P<days>DT<hours>H<minutes>M<seconds>S", from a number of seconds.
std::string packagingDuration(std::int64_t seconds);

struct PlayReadyPackagingData {
    std::string keyId;
    std::vector<std::uint8_t> contentKey;
    std::string playReadyHeader;
};

class PlayReadyPackagingClient {
public:
    PlayReadyPackagingClient(std::string serverUrl, encryption::TransportSecurity transportSecurity,
                             tvrn::log::ILogger& logger, int soapTimeout = kSoapTimeoutSeconds);

    // Throws KmsException "request failed <gSOAP error code>" for a failed call (the fault text is in the log's
    // dump), and "Failed to parse 'PackagingDataResult' : invalid response " for a result without its key id,
    // a 16-byte key or a header.
    PlayReadyPackagingData acquirePackagingData(const std::string& contentId, std::int64_t keyRotationSeconds,
                                                std::int64_t licenseSeconds);

private:
    std::string m_serverUrl;
    encryption::TransportSecurity m_transportSecurity;
    int m_soapTimeout;
    SoapRequestDumper m_dumper;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
