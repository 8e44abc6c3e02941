#pragma once
// The SOAP transport of the key-server clients: one generated gSOAP proxy per service, held with its address,
// set up with the time-outs and the TLS settings of the operator, its raw traffic dumped to an IPluginLogger,
// and the result of each call turned into an exception.
//
// TLS: with a TransportSecurity record, soap_ssl_client_context gets `caFile` (or, when empty, the system's CA
// store), the client certificate's `keyFile` (one PEM file with the key and its certificate) and its password
// when given, "/dev/urandom" as the random source, and the flags: `verifyPeer` requires the server to
// authenticate (SOAP_SSL_REQUIRE_SERVER_AUTHENTICATION, else SOAP_SSL_NO_AUTHENTICATION), `verifyHost` off skips
// the host-name check (SOAP_SSL_SKIP_HOST_CHECK); TLS 1.2 and 1.3 only. With no record, an https address is
// still verified against the system's CA store, host name included.
#include <stdsoap2.h>

#include <string>
#include <utility>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/kms_clients/kms_exception.h"
#include "packaging/kms_clients/soap_request_dumper.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// Each stage of a SOAP call (connect, send, receive, accept) may take this long, in seconds.
inline constexpr int kSoapTimeoutSeconds = 5;

// Sets a context's time-outs and TLS settings. KmsConnectionException "soap_ssl_client_context: <text>" when
// gSOAP refuses the TLS settings (a missing CA file, a key file that does not open with its password).
// Answers of at most 4 MiB: a larger one, or a Content-Length that claims one, is refused before anything is
// allocated for it. initSoapContext does it for every client.
void limitSoapAnswers(struct soap* context);
void initSoapContext(struct soap* context, const encryption::TransportSecurity& transportSecurity);

// Nothing for SOAP_OK; otherwise KmsConnectionException "<operationName> error; <fault string>" (the fault
// string of a SOAP fault, or gSOAP's text of a transport failure).
void checkSoapResult(int code, struct soap* context, const std::string& operationName);

// The display form of a SOAP failure text: "SOAP error: \"<text>\"".
std::string soapErrorText(const std::string& text);

// Hands the context's raw traffic to `logger` (not owned; null detaches): each request once it is sent whole,
// each response at `flushPluginLogger`, which SoapService::call runs after every call.
void attachPluginLogger(struct soap* context, IPluginLogger* logger);
void flushPluginLogger(struct soap* context);

// One generated proxy (soapcpp2 -j: a `soap` context pointer and a `soap_endpoint`) with the address it calls.
template <class Proxy>
class SoapService {
public:
    SoapService() = default;
    SoapService(const SoapService&) = delete;
    SoapService& operator=(const SoapService&) = delete;
    ~SoapService() { attachPluginLogger(m_proxy.soap, nullptr); }

    Proxy& proxy() { return m_proxy; }
    struct soap* context() { return m_proxy.soap; }
    const std::string& endpoint() const { return m_endpoint; }
    void setEndpoint(std::string url) {
        m_endpoint = std::move(url);
        m_proxy.soap_endpoint = m_endpoint.c_str();
    }
    void setPluginLogger(IPluginLogger* logger) { attachPluginLogger(m_proxy.soap, logger); }

    // Runs `call(proxy)` (a generated operation), dumps its traffic, and answers its code. The memory gSOAP
    // gave the previous call's response is released first.
    template <typename Call>
    int call(Call&& operation) {
        m_proxy.destroy();
        const int code = std::forward<Call>(operation)(m_proxy);
        flushPluginLogger(m_proxy.soap);
        return code;
    }

private:
    Proxy m_proxy;
    std::string m_endpoint;
};

// KmsException "soap initialisation failed(empty service)" for a null service, "empty server URL" for an
// empty address; then the address, the time-outs and the TLS settings.
template <class Proxy>
void initSoapService(SoapService<Proxy>* service, const std::string& serverUrl,
                     const encryption::TransportSecurity& transportSecurity) {
    if (service == nullptr) throw KmsException("soap initialisation failed(empty service)");
    if (serverUrl.empty()) throw KmsException("empty server URL");
    service->setEndpoint(serverUrl);
    initSoapContext(service->context(), transportSecurity);
}

// initSoapService, then every stage's time-out (`soapTimeout` in gSOAP's convention: seconds when positive,
// microseconds when negative) and the dump of the traffic to `dumper` (not owned).
template <class Proxy>
void openSoapService(SoapService<Proxy>* service, const std::string& serverUrl,
                     const encryption::TransportSecurity& transportSecurity, int soapTimeout, IPluginLogger* dumper) {
    initSoapService(service, serverUrl, transportSecurity);
    struct soap* context = service->context();
    context->connect_timeout = context->send_timeout = context->recv_timeout = context->accept_timeout = soapTimeout;
    service->setPluginLogger(dumper);
}

template <class Proxy>
void checkSoapResult(int code, SoapService<Proxy>& service, const std::string& operationName) {
    checkSoapResult(code, service.context(), operationName);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
