// Arbitrary bytes as a Harmonic key server's answer to GetKeyAndSignalization: the HTTP response and the SOAP
// envelope are read by the generated stub from the fuzzer's bytes instead of a socket (the request is sent nowhere).
// Nothing may crash, hang or leak, whatever the answer, and whatever is read is released.
#include <cstdint>
#include <cstring>
#include <string>

#include "HarmonicKeyProvisioning/HarmonicKeyProvisioningKeyProvisioningProxy.h"
#include "packaging/kms_clients/kms_exception.h"
#include "packaging/kms_clients/soap_transport.h"

namespace {
namespace hk = HarmonicKeyProvisioning;

struct Answer {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
};

SOAP_SOCKET openNowhere(struct soap*, const char*, const char*, int) { return 3; }
int sendNowhere(struct soap*, const char*, std::size_t) { return SOAP_OK; }
int closeNothing(struct soap*) { return SOAP_OK; }
std::size_t receiveAnswer(struct soap* soap, char* buffer, std::size_t length) {
    auto* answer = static_cast<Answer*>(soap->user);
    const std::size_t n = std::min(length, answer->size - answer->at);
    std::memcpy(buffer, answer->data + answer->at, n);
    answer->at += n;
    return n;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Answer answer{data, size};
    hk::KeyProvisioningProxy proxy;
    // The largest answer every client takes, then reading from the bytes (no TLS set-up: nothing is connected).
    tvrn::encoding::packaging::kms_clients::limitSoapAnswers(proxy.soap);
    proxy.soap->user = &answer;
    proxy.soap->fopen = openNowhere;
    proxy.soap->fsend = sendNowhere;
    proxy.soap->frecv = receiveAnswer;
    proxy.soap->fclose = closeNothing;
    proxy.soap_endpoint = "http://127.0.0.1:9/keys";
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
