#include "packaging/kms_clients/soap_request_dumper.h"

#include <utility>

#include "packaging/kms_clients/secret_masking.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

SoapRequestDumper::SoapRequestDumper(log::ILogger* logger, std::string label)
    : m_logger(logger), m_label(std::move(label)) {}

void SoapRequestDumper::onRequest(const std::string& text) { dump("request", text); }

void SoapRequestDumper::onResponse(const std::string& text) { dump("response", text); }

void SoapRequestDumper::dump(const char* what, const std::string& text) {
    if (m_logger == nullptr) return;
    if (text.empty()) {
        m_logger->WriteMsg(log::LOG_DEBUG, "%s empty %s", m_label.c_str(), what);
        return;
    }
    const std::string masked = maskSecrets(text);
    m_logger->WriteMsg(log::LOG_DEBUG, "%s %s: %s", m_label.c_str(), what, masked.c_str());
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
