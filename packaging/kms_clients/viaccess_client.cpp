#include "packaging/kms_clients/viaccess_client.h"

#include <utility>

#include "ViaccessKmsEncoder/ViaccessKmsEncoderkms_encoder_dlProxy.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace via = ViaccessKmsEncoder;

namespace {
std::vector<std::uint8_t> bytesOf(const via::xsd__base64Binary* b) {
    if (b == nullptr || b->__ptr == nullptr || b->__size <= 0) return {};
    return {b->__ptr, b->__ptr + b->__size};
}
std::string textOf(const std::string* text) { return text != nullptr ? *text : std::string(); }
}  // namespace

ViaccessClient::ViaccessClient(std::string serverUrl, encryption::TransportSecurity transportSecurity,
                               tvrn::log::ILogger& logger, int soapTimeout)
    : m_serverUrl(std::move(serverUrl)),
      m_transportSecurity(std::move(transportSecurity)),
      m_soapTimeout(soapTimeout),
      m_dumper(&logger, "Viaccess SOAP") {}

ViaccessProtectionInfo ViaccessClient::getProtectionInfo(const std::string& contentId, bool changeKey) {
    SoapService<via::kms_encoder_dlProxy> service;
    openSoapService(&service, m_serverUrl, m_transportSecurity, m_soapTimeout, &m_dumper);
    struct soap* context = service.context();
    via::via__ProtectionListType systems;
    systems.ProtectionSystem = {"PLAYREADY", "VODRM"};
    via::_via__getProtectionInfo request;
    request.ProtocolVersion = "1";
    request.ContentId = contentId;
    request.InputProtectionListInformation = &systems;
    request.ChangeKey = changeKey;
    via::_via__getProtectionInfoResponse response;
    checkSoapResult(service.call([&](auto& proxy) { return proxy.getProtectionInfo(&request, response); }), context,
                    "getProtectionInfo");
    const via::via__OutputProtectionListType* list = response.OutputProtectionListInformation;
    ViaccessProtectionInfo info;
    info.key = list != nullptr ? bytesOf(list->Key) : std::vector<std::uint8_t>();
    if (info.key.empty()) throw KmsException("Returned Key is empty");
    if (list->ProtectionSpecificInformation.empty()) throw KmsException("Invalid returned protection list");
    for (const via::via__ProtectionSpecificInformationType* entry : list->ProtectionSpecificInformation) {
        if (entry == nullptr) throw KmsException("Invalid returned protection list");
        std::vector<std::uint8_t> pssh = bytesOf(entry->Pssh);
        if (pssh.empty()) throw KmsException("Invalid returned PSSH");
        if (const auto* pr = entry->PlayReadySpecificInformation) {
            if (textOf(pr->KeyId).empty() || textOf(pr->LicenseAcquisitionUrl).empty())
                throw KmsException("Invalid returned PlayReady cProtection Specific Information");
            info.playReady = ViaccessPlayReadyInformation{*pr->KeyId, *pr->LicenseAcquisitionUrl,
                                                         textOf(pr->LicenseAcquisitionUiUrl), textOf(pr->CustomData),
                                                         textOf(pr->ServiceId), textOf(pr->ProtectionSystemId)};
            info.playReadyPssh = std::move(pssh);
        } else if (const auto* vodrm = entry->VODRMSpecificInformation) {
            info.vodrm = textOf(vodrm->Data);
            info.vodrmPssh = std::move(pssh);
        } else {
            throw KmsException("Invalid returned Protection Specific Information");
        }
    }
    return info;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
