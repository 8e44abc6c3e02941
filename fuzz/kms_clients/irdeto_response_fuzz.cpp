// Arbitrary bytes as an Irdeto service's answer to GenerateKeys: the HTTP response and the SOAP 1.2 envelope are
// read by the generated stub from the fuzzer's bytes instead of a socket (the request is sent nowhere), and the
// result document it yields is read as the provider reads it. The same bytes are also read as a result document
// directly, so that the key reader sees arbitrary XML without the envelope around it. Nothing may crash, hang or
// leak.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

// The envelope's types (the service header) before the stubs.
#include "soapEnv/soapEnvH.h"
// Then the stubs.
#include "IrdetoLiveDrm/IrdetoLiveDrmLiveDrmServicesSoap12Proxy.h"
#include "packaging/kms_clients/irdeto_provider.h"
#include "fuzz/kms_clients/soap_answer_bytes.h"
#include "packaging/kms_clients/soap_transport.h"

namespace {
namespace ir = IrdetoLiveDrm;
using tvrn::encoding::packaging::kms_clients::IrdetoKeyEntry;
using tvrn::encoding::packaging::kms_clients::parseIrdetoKeys;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<IrdetoKeyEntry> entries;
    (void)parseIrdetoKeys(std::string(reinterpret_cast<const char*>(data), size), entries);

    fuzzkit::SoapAnswer answer{data, size};
    ir::LiveDrmServicesSoap12Proxy proxy;
    fuzzkit::answerFrom(proxy, answer);
    std::string account = "account", content = "content", period = "1000";
    ir::irdeto__ArrayOfString systems;
    systems.string = {"PlayReady", "Widevine"};
    ir::_irdeto__GenerateKeys request;
    request.accountId = &account;
    request.contentId = &content;
    request.protectionSystem = &systems;
    request.cryptoPeriod = &period;
    ir::_irdeto__GenerateKeysResponse response;
    if (proxy.GenerateKeys(&request, response) == SOAP_OK && response.GenerateKeysResult != nullptr)
        (void)parseIrdetoKeys(*response.GenerateKeysResult, entries);
    (void)::soap_fault_string(proxy.soap);
    proxy.destroy();
    return 0;
}
