#pragma once
// What a SOAP client sends and receives, handed to a logger of raw traffic.
#include <string>

#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// Takes the raw traffic of one SOAP client: the whole request as sent (HTTP headers and envelope), then the whole
// response as received.
class IPluginLogger {
public:
    virtual ~IPluginLogger() = default;
    virtual void onRequest(const std::string& text) = 0;
    virtual void onResponse(const std::string& text) = 0;
};

// Logs each request and response at debug level through the system's logger (not owned; may be null, then it
// logs nothing), as "<label> request: <text>" and "<label> response: <text>", or "<label> empty request" and
// "<label> empty response" for an empty text. Every value `maskSecrets` knows as secret is masked first. With
// `innerXml`, the text's character references (&lt; &gt; &quot; &apos; &amp;) are resolved before masking, so
// that XML carried as the text of an element (a result document) is masked too, and logged in that form.
class SoapRequestDumper : public IPluginLogger {
public:
    explicit SoapRequestDumper(log::ILogger* logger, std::string label = "SOAP", bool innerXml = false);
    void onRequest(const std::string& text) override;
    void onResponse(const std::string& text) override;

private:
    void dump(const char* what, const std::string& text);

    log::ILogger* m_logger;
    std::string m_label;
    bool m_innerXml;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
