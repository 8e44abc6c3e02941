#include "packaging/kms_clients/http_client.h"

#include <memory>
#include <mutex>
#include <string_view>
#include <type_traits>

#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace {

void initialiseLibCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

CURL* newHandle() {
    initialiseLibCurlOnce();
    CURL* handle = curl_easy_init();
    if (handle == nullptr) throw KmsException("Could not create CURL handle");
    return handle;
}

// Answers of at most 4 MiB, as for SOAP: a longer one ends the transfer with a write error.
constexpr std::size_t kMaxAnswerBytes = 4u << 20;

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto& body = *static_cast<std::string*>(user);
    if (size * count > kMaxAnswerBytes - body.size()) return 0;
    body.append(data, size * count);
    return size * count;
}

struct HeaderSink {
    std::string reason;
    std::vector<std::string>* lines = nullptr;
};

// Keeps the reason phrase of the last status line ("HTTP/1.1 404 Not Found"), and every line when asked to.
std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* user) {
    const std::string line(data, size * count);
    auto& sink = *static_cast<HeaderSink*>(user);
    if (sink.lines != nullptr) sink.lines->push_back(line);
    if (line.rfind("HTTP/", 0) == 0) {
        auto& reason = sink.reason;
        reason.clear();
        const std::size_t codeAt = line.find(' ');
        const std::size_t reasonAt = codeAt == std::string::npos ? codeAt : line.find(' ', codeAt + 1);
        if (reasonAt != std::string::npos) {
            reason = line.substr(reasonAt + 1);
            while (!reason.empty() && (reason.back() == '\r' || reason.back() == '\n')) reason.pop_back();
        }
    }
    return size * count;
}

struct SlistFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

template <typename T>
void setOption(CURL* handle, CURLoption option, T value) {
    if (curl_easy_setopt(handle, option, value) != CURLE_OK)
        throw KmsException(std::string("HTTP client: libcurl refused option ") + std::to_string(option));
}

void setTlsOptions(CURL* handle, const encryption::TransportSecurity& security) {
    const auto* tls = std::get_if<encryption::TlsSettings>(&security);
    if (tls == nullptr) return;  // libcurl's defaults: peer and host verified against the system's CA store
    setOption(handle, CURLOPT_SSL_VERIFYPEER, tls->verifyPeer ? 1L : 0L);
    setOption(handle, CURLOPT_SSL_VERIFYHOST, tls->verifyHost ? 2L : 0L);
    if (!tls->caFile.empty()) setOption(handle, CURLOPT_CAINFO, tls->caFile.c_str());
    if (tls->clientCertificate) {
        const encryption::ClientCertificate& certificate = *tls->clientCertificate;
        setOption(handle, CURLOPT_SSLCERTTYPE, "PEM");
        setOption(handle, CURLOPT_SSLCERT, certificate.keyFile.c_str());
        setOption(handle, CURLOPT_SSLKEY, certificate.keyFile.c_str());
        if (certificate.password) setOption(handle, CURLOPT_KEYPASSWD, certificate.password->c_str());
    }
}

}  // namespace

LibCurlHandle::LibCurlHandle() : m_handle(newHandle()) {}

LibCurlHandle::~LibCurlHandle() { curl_easy_cleanup(m_handle); }

void LibCurlHandle::rebuild() {
    CURL* fresh = newHandle();
    curl_easy_cleanup(m_handle);
    m_handle = fresh;
}

HttpClient::HttpClient(encryption::TransportSecurity security, HttpTimeouts timeouts, bool failOnError)
    : m_security(std::move(security)), m_timeouts(timeouts), m_failOnError(failOnError) {}

long HttpClient::post(const std::string& url, const HttpHeaders& headers, const std::string& body,
                      std::string* response) {
    if (response == nullptr)
        throw KmsException("Destination buffer should not be NULL when posting a HTTP request.");
    return perform("POST", url, headers, &body, *response);
}

long HttpClient::get(const std::string& url, std::string* response) {
    if (response == nullptr) throw KmsException("Destination buffer should be given when sending a GET request");
    return perform("GET", url, {}, nullptr, *response);
}

long HttpClient::get(const std::string& url, std::string* response, std::vector<std::string>& responseHeaders) {
    if (response == nullptr) throw KmsException("Destination buffer should be given when sending a GET request");
    responseHeaders.clear();
    return perform("GET", url, {}, nullptr, *response, &responseHeaders);
}

long HttpClient::put(const std::string& url, const HttpHeaders& headers, const std::string& body,
                     std::string* response) {
    if (response == nullptr)
        throw KmsException("Destination buffer should not be NULL when sending a HTTP PUT request.");
    return perform("PUT", url, headers, &body, *response);
}

long HttpClient::perform(const char* method, const std::string& url, const HttpHeaders& headers,
                         const std::string* body, std::string& response, std::vector<std::string>* responseHeaders) {
    CURL* handle = m_handle.get();
    // Every request starts from libcurl's defaults; the handle keeps its open connections across a reset.
    curl_easy_reset(handle);
    response.clear();
    HeaderSink sink{{}, responseHeaders};
    const std::string& reason = sink.reason;
    char errorText[CURL_ERROR_SIZE] = {};

    setOption(handle, CURLOPT_URL, url.c_str());
    setOption(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    setOption(handle, CURLOPT_NOSIGNAL, 1L);
    setOption(handle, CURLOPT_ERRORBUFFER, errorText);
    setOption(handle, CURLOPT_WRITEFUNCTION, &appendBody);
    setOption(handle, CURLOPT_WRITEDATA, static_cast<void*>(&response));
    setOption(handle, CURLOPT_HEADERFUNCTION, &readHeader);
    setOption(handle, CURLOPT_HEADERDATA, static_cast<void*>(&sink));
    // CURLOPT_TIMEOUT and CURLOPT_CONNECTTIMEOUT, in milliseconds.
    setOption(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(m_timeouts.total.count()));
    setOption(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_timeouts.connect.count()));
    setOption(handle, CURLOPT_FAILONERROR, m_failOnError ? 1L : 0L);
    setTlsOptions(handle, m_security);

    std::unique_ptr<curl_slist, SlistFree> headerList;
    for (const std::string& header : headers) {
        curl_slist* extended = curl_slist_append(headerList.get(), header.c_str());
        if (extended == nullptr) throw KmsException("HTTP client: out of memory for the request headers");
        (void)headerList.release();
        headerList.reset(extended);
    }
    if (headerList) setOption(handle, CURLOPT_HTTPHEADER, headerList.get());
    if (body != nullptr) {
        setOption(handle, CURLOPT_POST, 1L);
        setOption(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        setOption(handle, CURLOPT_POSTFIELDS, body->data());
        if (std::string_view(method) != "POST") setOption(handle, CURLOPT_CUSTOMREQUEST, method);
    } else {
        setOption(handle, CURLOPT_HTTPGET, 1L);
    }

    const CURLcode result = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    // The handle must not keep pointers to this call's locals.
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));

    const std::string prefix = std::string("HTTP ") + method + " to " + url + " failed";
    if (result == CURLE_HTTP_RETURNED_ERROR || (m_failOnError && status >= 400))
        throw KmsException(prefix + " with error code " + std::to_string(status) + " : " +
                           (reason.empty() ? std::string(curl_easy_strerror(result)) : reason));
    if (result != CURLE_OK)
        throw KmsConnectionException(prefix + ": " +
                                     (errorText[0] != '\0' ? errorText : curl_easy_strerror(result)));
    return status;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
