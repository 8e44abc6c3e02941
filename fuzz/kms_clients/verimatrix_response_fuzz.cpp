// Arbitrary bytes as a Verimatrix server's answers: as the header lines of a key file answer (split at line ends,
// as libcurl hands them over), and as the JSON of the REST answers (content, keys, heartbeat). The readers may
// refuse with KmsException; nothing else may escape, crash, hang or leak.
#include <cstdint>
#include <string>
#include <vector>

#include "packaging/kms_clients/kms_exception.h"
#include "packaging/kms_clients/verimatrix_kms_client.h"
#include "packaging/kms_clients/verimatrix_provider.h"

namespace kc = tvrn::encoding::packaging::kms_clients;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    kc::KeyFileResponse response;
    kc::readKeyFileHeaders(lines, response);

    const auto refusedOrRead = [](auto&& read) {
        try {
            read();
        } catch (const kc::KmsException&) {
        }
    };
    refusedOrRead([&] { (void)kc::parseContentResponse(text); });
    refusedOrRead([&] { (void)kc::parseKeyResponse(text); });
    refusedOrRead([&] { (void)kc::parseHeartbeatResponse(text); });
    return 0;
}
