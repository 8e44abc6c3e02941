// Arbitrary bytes as a Harmonic key server's answer to GetKeyAndSignalization: the HTTP response and the SOAP
// envelope are read by the generated stub from the fuzzer's bytes instead of a socket (the request is sent nowhere).
// Nothing may crash, hang or leak, whatever the answer, and whatever is read is released.
#include <cstdint>
#include <cstring>
#include <string>

#include "HarmonicKeyProvisioning/HarmonicKeyProvisioningKeyProvisioningProxy.h"
#include "packaging/kms_clients/kms_exception.h"
#include "fuzz/kms_clients/soap_answer_bytes.h"
#include "packaging/kms_clients/soap_transport.h"

namespace {
namespace hk = HarmonicKeyProvisioning;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzkit::SoapAnswer answer{data, size};
    hk::KeyProvisioningProxy proxy;
    fuzzkit::answerFrom(proxy, answer);
    std::string resource = "resource";
    hk::harmonic243__DrmContentType content;
    content.drmContentId = resource;
    hk::harmonic243__ScheduledKeyType scheduled;
    scheduled.time = 0;
    hk::_harmonic243__GetKeyAndSignalizationRequest request;
    request.drmContent = &content;
    request.scheduledKey.push_back(&scheduled);
    hk::_harmonic243__GetKeyAndSignalizationResponse response;
    const int code = proxy.GetKeyAndSignalization(&request, response);
    // A failed answer becomes the client's failure text, as the provider reports it.
    try {
        tvrn::encoding::packaging::kms_clients::checkSoapResult(code, proxy.soap, "GetKeyAndSignalization");
    } catch (const tvrn::encoding::packaging::kms_clients::KmsException&) {
    }
    proxy.destroy();
    return 0;
}
