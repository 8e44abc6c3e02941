#pragma once
// The REST client of Verimatrix's key server family: JSON over HTTP on /cei/... paths, for creating content and
// asking for the keys of a position, and a heartbeat. A library for key and content requests: no provider calls
// it. Requests and answers are logged at debug level with their secrets masked.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/kms_clients/http_client.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

enum class VerimatrixEncryptionAlgorithm { AesCtr, AesCbc, Unknown };

struct VerimatrixContentRequest {
    std::string contentId{};
    std::optional<std::int32_t> siteId{};
    std::string contentType{};
    std::string streamingProtocol{};
    VerimatrixEncryptionAlgorithm encryptionAlgorithm = VerimatrixEncryptionAlgorithm::AesCtr;
    bool chainedLicense = false;
    std::int32_t cryptoPeriod = 0;
};

struct VerimatrixStatus {
    std::string statusCode{};
    std::string statusMessage{};
};

struct VerimatrixKeyRequest {
    std::string contentId{};
    std::optional<std::int32_t> siteId{};
    std::int32_t keyCount = 1;
    std::vector<std::string> contentKeyList{};  // key ids asked for, if any
    std::uint64_t position = 0;
};

enum class VerimatrixDrmName { PlayReady, Widevine, AdobePrimeTime, VerimatrixItv, FairPlayStreaming };
enum class VerimatrixStreamingProtocol { Dash, Hls, SmoothStreaming };

struct VerimatrixDrm {
    VerimatrixDrmName drmName = VerimatrixDrmName::PlayReady;
    VerimatrixStreamingProtocol streamingProtocol = VerimatrixStreamingProtocol::Dash;
};

struct VerimatrixKeyData {
    std::string keyId{};
    std::vector<std::uint8_t> key{};
    std::vector<std::uint8_t> iv{};  // empty when not given
    std::string position{};
    std::string drmSystemId{};
    std::string manifestHeader{};
    std::string licenseServerUrl{};
    std::string keyUri{};
    std::vector<std::uint8_t> psshData{};
};

struct VerimatrixKeyResponse {
    VerimatrixStatus status{};
    std::vector<VerimatrixDrm> drmList{};
    std::vector<VerimatrixKeyData> keyData{};
};

// The request bodies.
std::string writeContentRequest(const VerimatrixContentRequest& request);
std::string writeKeyRequest(const VerimatrixKeyRequest& request);
// The answer readers; KmsException with the reason on anything they cannot read.
VerimatrixStatus parseContentResponse(const std::string& json);
VerimatrixKeyResponse parseKeyResponse(const std::string& json);
VerimatrixStatus parseHeartbeatResponse(const std::string& json);

class VerimatrixKmsClient {
public:
    // `serverUrl` without a trailing '/'; `version` such as "v1.1".
    VerimatrixKmsClient(std::string serverUrl, std::string version, encryption::TransportSecurity security,
                        tvrn::log::ILogger& logger, HttpTimeouts timeouts = {});

    // True when the content exists now ("OPERATION_SUCCESS" or "DUPLICATE_CONTENT"). Failures of the request
    // raise KmsException "PUT <path> failed: <text>", an empty answer "PUT <path> response is empty".
    bool createContent(const VerimatrixContentRequest& request, VerimatrixStatus& response);
    // True when the server answers "OPERATION_SUCCESS"; the same failures (an HTTP status of 400 or more is one).
    bool getKey(std::uint64_t position, const VerimatrixKeyRequest& request, VerimatrixKeyResponse& response);
    // True when the server answers "OPERATION_SUCCESS"; "Get <path> response is empty" for an empty answer.
    bool heartbeat();

private:
    std::string put(const std::string& path, const std::string& body);
    std::string query(const std::optional<std::int32_t>& siteId) const;

    std::string m_serverUrl;
    std::string m_version;
    tvrn::log::ILogger& m_logger;
    HttpClient m_http;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
