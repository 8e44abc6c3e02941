#include "packaging/kms_clients/playready_packaging_client.h"

#include <cstdio>
#include <utility>

#include "PlayReadyPackaging/PlayReadyPackagingPackagingProxy.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace prp = PlayReadyPackaging;

std::string packagingDuration(std::int64_t seconds) {
    if (seconds < 0) seconds = 0;
    char text[64];
    std::snprintf(text, sizeof text, "P%dDT%dH%dM%dS", static_cast<int>(seconds / 86400),
                  static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    return text;
}

PlayReadyPackagingClient::PlayReadyPackagingClient(std::string serverUrl, encryption::TransportSecurity transportSecurity,
                                                   tvrn::log::ILogger& logger, int soapTimeout)
    : m_serverUrl(std::move(serverUrl)),
      m_transportSecurity(std::move(transportSecurity)),
      m_soapTimeout(soapTimeout),
      m_dumper(&logger, "PlayReady packaging SOAP") {}

PlayReadyPackagingData PlayReadyPackagingClient::acquirePackagingData(const std::string& contentId,
                                                                      std::int64_t keyRotationSeconds,
                                                                      std::int64_t licenseSeconds) {
    SoapService<prp::PackagingProxy> service;
    openSoapService(&service, m_serverUrl, m_transportSecurity, m_soapTimeout, &m_dumper);
    prp::_prp__AcquirePackagingData request;
    request.ContentId = contentId;
    request.KeyRotationDuration = packagingDuration(keyRotationSeconds);
    request.LicenseDuration = packagingDuration(licenseSeconds);
    prp::_prp__AcquirePackagingDataResponse response;
    const int code = service.call([&](prp::PackagingProxy& p) { return p.AcquirePackagingData(&request, response); });
    if (code != SOAP_OK) throw KmsException("request failed " + std::to_string(code));
    const prp::prp__PackagingDataType* result = response.PackagingDataResult;
    if (result == nullptr || result->KeyId == nullptr || result->KeyId->empty() || result->ContentKey == nullptr ||
        result->ContentKey->__ptr == nullptr || result->ContentKey->__size != 16 || result->PlayReadyHeader == nullptr ||
        result->PlayReadyHeader->empty())
        throw KmsException("Failed to parse 'PackagingDataResult' : invalid response ");
    return {*result->KeyId, {result->ContentKey->__ptr, result->ContentKey->__ptr + 16}, *result->PlayReadyHeader};
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
