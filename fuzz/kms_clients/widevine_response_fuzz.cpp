// Arbitrary bytes as a Widevine key server's answer: the outer JSON, the base64 inner document and its tracks are
// read by the client's reader, which may refuse with KmsException; nothing else may escape, crash, hang or leak.
// The bytes also go through base64 first, so that the inner document's reader sees arbitrary JSON too.
#include <cstdint>
#include <string>

#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/kms_exception.h"
#include "packaging/kms_clients/widevine_provider.h"

namespace kc = tvrn::encoding::packaging::kms_clients;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string wrapped = "{\"response\":\"" + tvrn::encoding::packaging::encryption::base64Encode({data, size}) + "\"}";
    for (const std::string* answer : {&text, &wrapped}) {
        try {
            (void)kc::readWidevineResponse(*answer);
        } catch (const kc::KmsException&) {
        }
    }
    return 0;
}
