#pragma once
// The HTTP transport of the key-server clients that speak HTTP (JSON and key-file services): one libcurl easy
// handle per client, a POST and a GET that block their caller for at most the time-outs, and the TLS settings of
// the operator.
//
// TLS: with no TransportSecurity record (std::monostate), an https peer is still verified, host name included,
// against the system's CA store: nothing is trusted that the operator did not configure or the system does not
// trust. With a record, `verifyPeer` maps to CURLOPT_SSL_VERIFYPEER (on/off), `verifyHost` to
// CURLOPT_SSL_VERIFYHOST (2, the host name must match the certificate; or 0), a non-empty `caFile` replaces the
// system's CA store, and a client certificate is read from `keyFile`, one PEM file holding the private key and
// its certificate, unlocked with `password` when one is given. Plain http addresses need no record.
#include <curl/curl.h>

#include <chrono>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// One libcurl easy handle, owned. Rebuilt on request, when a provider wants a fresh connection.
class LibCurlHandle {
public:
    // KmsException "Could not create CURL handle" when libcurl cannot make one.
    LibCurlHandle();
    ~LibCurlHandle();
    LibCurlHandle(const LibCurlHandle&) = delete;
    LibCurlHandle& operator=(const LibCurlHandle&) = delete;

    CURL* get() const { return m_handle; }
    // Drops the handle, with its connections, and makes a new one (the same failure as the constructor).
    void rebuild();

private:
    CURL* m_handle = nullptr;
};

// How long a request may take: `connect` to reach the server (CURLOPT_CONNECTTIMEOUT), `total` for the whole
// request (CURLOPT_TIMEOUT). Five seconds each in service; tests give shorter ones.
struct HttpTimeouts {
    std::chrono::milliseconds total{5000};
    std::chrono::milliseconds connect{5000};
};

// Request headers, each one whole line "Name: value".
using HttpHeaders = std::vector<std::string>;

// Not locked: one client belongs to one provider and is used by one thread at a time.
class HttpClient {
public:
    // `failOnError` (CURLOPT_FAILONERROR) turns an HTTP status of 400 or more into a failure instead of an answer.
    explicit HttpClient(encryption::TransportSecurity security = {}, HttpTimeouts timeouts = {},
                        bool failOnError = false);

    // Both answer the HTTP status and put the body of the answer in `*response` (emptied first); an answer
    // above 4 MiB is cut off as a failure.
    // A missing `response` raises KmsException "Destination buffer should not be NULL when posting a HTTP
    // request." (POST) or "Destination buffer should be given when sending a GET request" (GET).
    // No answer (unreachable, refused, time-out, TLS failure) raises KmsConnectionException
    // "HTTP <METHOD> to <url> failed: <libcurl's text>"; with `failOnError`, a status of 400 or more raises
    // KmsException "HTTP <METHOD> to <url> failed with error code <status> : <reason phrase>".
    long post(const std::string& url, const HttpHeaders& headers, const std::string& body, std::string* response);
    long get(const std::string& url, std::string* response);
    // As get, with the answer's header lines as they came (each with its line end), status lines included.
    long get(const std::string& url, std::string* response, std::vector<std::string>& responseHeaders);
    // As post, with the method PUT (the same failure texts, "HTTP PUT to ...", and KmsException "Destination
    // buffer should not be NULL when sending a HTTP PUT request." for a missing `response`).
    long put(const std::string& url, const HttpHeaders& headers, const std::string& body, std::string* response);

    // A new handle for the next request.
    void rebuildHandle() { m_handle.rebuild(); }

private:
    long perform(const char* method, const std::string& url, const HttpHeaders& headers, const std::string* body,
                 std::string& response, std::vector<std::string>* responseHeaders = nullptr);

    encryption::TransportSecurity m_security;
    HttpTimeouts m_timeouts;
    bool m_failOnError;
    LibCurlHandle m_handle;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
