#include "packaging/kms_clients/soap_request_dumper.h"

#include <string_view>
#include <utility>

#include "packaging/kms_clients/secret_masking.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace {
std::string resolveReferences(const std::string& text) {
    static const std::pair<std::string_view, char> references[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        bool resolved = false;
        if (text[i] == '&') {
            for (const auto& [reference, character] : references) {
                if (text.compare(i, reference.size(), reference) == 0) {
                    out += character;
                    i += reference.size();
                    resolved = true;
                    break;
                }
            }
        }
        if (!resolved) out += text[i++];
    }
    return out;
}
}  // namespace

SoapRequestDumper::SoapRequestDumper(log::ILogger* logger, std::string label, bool innerXml)
    : m_logger(logger), m_label(std::move(label)), m_innerXml(innerXml) {}

void SoapRequestDumper::onRequest(const std::string& text) { dump("request", text); }

void SoapRequestDumper::onResponse(const std::string& text) { dump("response", text); }

void SoapRequestDumper::dump(const char* what, const std::string& text) {
    if (m_logger == nullptr) return;
    if (text.empty()) {
        m_logger->WriteMsg(log::LOG_DEBUG, "%s empty %s", m_label.c_str(), what);
        return;
    }
    const std::string masked = maskSecrets(m_innerXml ? resolveReferences(text) : text);
    m_logger->WriteMsg(log::LOG_DEBUG, "%s %s: %s", m_label.c_str(), what, masked.c_str());
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
