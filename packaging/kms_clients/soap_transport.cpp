#include "packaging/kms_clients/soap_transport.h"

#include <strings.h>

#include <cstdlib>

#include <mutex>

#include "packaging/kms_clients/secret_masking.h"

// gSOAP's runtime refers to one global namespace table. Each generated proxy installs its own table, so this one
// holds only the envelope's namespaces, for a context that no proxy set up.
SOAP_NMAC struct Namespace namespaces[] = {
    {"SOAP-ENV", "http://schemas.xmlsoap.org/soap/envelope/", "http://www.w3.org/*/soap-envelope", nullptr},
    {"SOAP-ENC", "http://schemas.xmlsoap.org/soap/encoding/", "http://www.w3.org/*/soap-encoding", nullptr},
    {"xsi", "http://www.w3.org/2001/XMLSchema-instance", "http://www.w3.org/*/XMLSchema-instance", nullptr},
    {"xsd", "http://www.w3.org/2001/XMLSchema", "http://www.w3.org/*/XMLSchema", nullptr},
    {nullptr, nullptr, nullptr, nullptr}};

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace {

void initialiseSslOnce() {
    static std::once_flag once;
    std::call_once(once, [] { soap_ssl_init(); });
}

// gSOAP's text of the context's last failure, secrets masked.
std::string faultText(struct soap* context) {
    soap_set_fault(context);
    const char* text = soap_fault_string(context);
    std::string result = text != nullptr && *text != '\0' ? text : "error " + std::to_string(context->error);
    const char* detail = soap_fault_detail(context);
    if (detail != nullptr && *detail != '\0') result += std::string(" (") + detail + ")";
    return maskSecrets(result);
}

// The traffic of one context, gathered by wrapping its send and receive functions.
constexpr const char* kPluginId = "tovrane-kms-traffic";

struct Traffic {
    IPluginLogger* logger = nullptr;
    int (*send)(struct soap*, const char*, std::size_t) = nullptr;
    std::size_t (*receive)(struct soap*, char*, std::size_t) = nullptr;
    std::string request;
    std::string response;
    bool requestLogged = false;
};

Traffic* trafficOf(struct soap* context) { return static_cast<Traffic*>(soap_lookup_plugin(context, kPluginId)); }

void logRequest(Traffic& traffic) {
    if (traffic.requestLogged) return;
    traffic.requestLogged = true;
    if (traffic.logger != nullptr) traffic.logger->onRequest(traffic.request);
}

int sendAndKeep(struct soap* context, const char* data, std::size_t size) {
    Traffic& traffic = *trafficOf(context);
    if (traffic.requestLogged) {  // a new exchange
        traffic.request.clear();
        traffic.response.clear();
        traffic.requestLogged = false;
    }
    traffic.request.append(data, size);
    return traffic.send(context, data, size);
}

std::size_t receiveAndKeep(struct soap* context, char* data, std::size_t size) {
    Traffic& traffic = *trafficOf(context);
    logRequest(traffic);
    const std::size_t received = traffic.receive(context, data, size);
    traffic.response.append(data, received);
    return received;
}

void deleteTraffic(struct soap*, struct soap_plugin* plugin) { delete static_cast<Traffic*>(plugin->data); }

int createTraffic(struct soap* context, struct soap_plugin* plugin, void*) {
    auto* traffic = new Traffic;
    traffic->send = context->fsend;
    traffic->receive = context->frecv;
    plugin->id = kPluginId;
    plugin->data = traffic;
    plugin->fcopy = nullptr;
    plugin->fdelete = &deleteTraffic;
    context->fsend = &sendAndKeep;
    context->frecv = &receiveAndKeep;
    return SOAP_OK;
}

}  // namespace

namespace {
constexpr ULONG64 kSoapMaxAnswerBytes = 4 * 1024 * 1024;

// gSOAP's own header parser, which every context starts with.
int (*g_parseHttpHeader)(struct soap*, const char*, const char*) = nullptr;

// The answer's HTTP header as gSOAP reads it, except a Content-Length above the largest answer taken: gSOAP would
// allocate that much to read the body of an HTTP error.
int parseHttpHeaderWithinLimits(struct soap* context, const char* key, const char* value) {
    if (key != nullptr && value != nullptr && strcasecmp(key, "Content-Length") == 0 &&
        std::strtoull(value, nullptr, 10) > kSoapMaxAnswerBytes)
        return SOAP_LENGTH;
    return g_parseHttpHeader(context, key, value);
}
}  // namespace

void limitSoapAnswers(struct soap* context) {
    context->recv_maxlength = kSoapMaxAnswerBytes;
    static const bool headerParserKept = [context] {
        g_parseHttpHeader = context->fparsehdr;
        return true;
    }();
    (void)headerParserKept;
    if (context->fparsehdr == g_parseHttpHeader) context->fparsehdr = parseHttpHeaderWithinLimits;
}

void initSoapContext(struct soap* context, const encryption::TransportSecurity& transportSecurity) {
    if (context == nullptr) throw KmsException("soap initialisation failed(empty service)");
    context->connect_timeout = kSoapTimeoutSeconds;
    context->send_timeout = kSoapTimeoutSeconds;
    context->recv_timeout = kSoapTimeoutSeconds;
    context->accept_timeout = kSoapTimeoutSeconds;
    // A key server's answer is a few kilobytes: a larger one (or a Content-Length that claims one) is refused
    // before anything is allocated for it.
    limitSoapAnswers(context);

    initialiseSslOnce();
    unsigned short flags = SOAP_SSL_REQUIRE_SERVER_AUTHENTICATION | SOAP_TLSv1_2 | SOAP_TLSv1_3;
    const char* keyFile = nullptr;
    const char* password = nullptr;
    const char* caFile = nullptr;
    if (const auto* tls = std::get_if<encryption::TlsSettings>(&transportSecurity)) {
        if (!tls->verifyPeer) flags = static_cast<unsigned short>(flags & ~SOAP_SSL_REQUIRE_SERVER_AUTHENTICATION);
        if (!tls->verifyHost) flags |= SOAP_SSL_SKIP_HOST_CHECK;
        if (!tls->caFile.empty()) caFile = tls->caFile.c_str();
        if (tls->clientCertificate) {
            keyFile = tls->clientCertificate->keyFile.c_str();
            if (tls->clientCertificate->password) password = tls->clientCertificate->password->c_str();
        }
    }
    if (soap_ssl_client_context(context, flags, keyFile, password, caFile, nullptr, "/dev/urandom") != SOAP_OK)
        throw KmsConnectionException("soap_ssl_client_context: " + faultText(context));
}

void checkSoapResult(int code, struct soap* context, const std::string& operationName) {
    if (code == SOAP_OK) return;
    if (context == nullptr) throw KmsConnectionException(operationName + " error; error " + std::to_string(code));
    throw KmsConnectionException(operationName + " error; " + faultText(context));
}

std::string soapErrorText(const std::string& text) { return "SOAP error: \"" + text + "\""; }

void attachPluginLogger(struct soap* context, IPluginLogger* logger) {
    if (context == nullptr) return;
    Traffic* traffic = trafficOf(context);
    if (traffic == nullptr) {
        if (logger == nullptr) return;
        if (soap_register_plugin_arg(context, &createTraffic, nullptr) != SOAP_OK)
            throw KmsException("soap initialisation failed(traffic logger)");
        traffic = trafficOf(context);
    }
    traffic->logger = logger;
}

void flushPluginLogger(struct soap* context) {
    if (context == nullptr) return;
    Traffic* traffic = trafficOf(context);
    if (traffic == nullptr) return;
    logRequest(*traffic);
    if (traffic->logger != nullptr) traffic->logger->onResponse(traffic->response);
    traffic->request.clear();
    traffic->response.clear();
    traffic->requestLogged = false;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
