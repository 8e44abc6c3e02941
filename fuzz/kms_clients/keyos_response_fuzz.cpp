// Arbitrary bytes as a BuyDRM KeyOS answer document, read by the client's reader (which may refuse with
// KmsException), and as an Inside Secure and a KeyOS SOAP answer read by the generated stubs from the fuzzer's
// bytes instead of a socket. Nothing may crash, hang or leak, and whatever is read is released.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "BuyDrmSmoothPackager/BuyDrmSmoothPackagerSmoothPackagerProxy.h"
#include "InsideSecureKeyProvisioning/InsideSecureKeyProvisioningKeyProvisioningProxy.h"
#include "packaging/kms_clients/buydrm_provider.h"
#include "packaging/kms_clients/kms_exception.h"
#include "fuzz/kms_clients/soap_answer_bytes.h"
#include "packaging/kms_clients/soap_transport.h"

namespace {
namespace kc = tvrn::encoding::packaging::kms_clients;


void refusedOrRead(int code, struct soap* soap, const char* operation) {
    try {
        kc::checkSoapResult(code, soap, operation);
    } catch (const kc::KmsException&) {
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        (void)kc::readKeyOsAnswer(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const kc::KmsException&) {
    }
    {
        fuzzkit::SoapAnswer answer{data, size};
        InsideSecureKeyProvisioning::KeyProvisioningProxy proxy;
        fuzzkit::answerFrom(proxy, answer);
        InsideSecureKeyProvisioning::insec__ExternalContentIdentifier content;
        content.contentID = "c";
        content.position = "0";
        InsideSecureKeyProvisioning::_insec__ProvisionKeyRequest request;
        request.protectionSystem = "PlayReady";
        request.externalContentIdentifier = &content;
        InsideSecureKeyProvisioning::_insec__PlayReadyProvisionKeyResponse response;
        refusedOrRead(proxy.ProvisionKey(&request, response), proxy.soap, "provisionKey");
        proxy.destroy();
    }
    {
        fuzzkit::SoapAnswer answer{data, size};
        BuyDrmSmoothPackager::SmoothPackagerProxy proxy;
        fuzzkit::answerFrom(proxy, answer);
        std::string xml = "<KeyOSEncryptionInfoRequest/>";
        BuyDrmSmoothPackager::_keyos__RequestEncryptionInfo request;
        request.requestXml = &xml;
        BuyDrmSmoothPackager::_keyos__RequestEncryptionInfoResponse response;
        refusedOrRead(proxy.RequestEncryptionInfo(&request, response), proxy.soap, "RequestEncryptionInfo");
        // What the stub read goes through the document reader, as the provider does.
        if (response.RequestEncryptionInfoResult != nullptr) {
            try {
                (void)kc::readKeyOsAnswer(*response.RequestEncryptionInfoResult);
            } catch (const kc::KmsException&) {
            }
        }
        proxy.destroy();
    }
    return 0;
}
