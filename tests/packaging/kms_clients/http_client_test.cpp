// The HTTP transport against a loopback server: answers, time-outs, a server that is down, HTTP error codes,
// and TLS with the operator's CA, a self-signed certificate and a host-name mismatch.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>

#include "packaging/kms_clients/http_client.h"
#include "packaging/kms_clients/kms_exception.h"
#include "tests/common/bytes.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {

using namespace tvrn::encoding::packaging::kms_clients;
using tvrn::encoding::packaging::encryption::TlsSettings;
using tvrn::encoding::packaging::encryption::TransportSecurity;
using testkit::failureOf;
using namespace std::chrono_literals;

TEST(HttpClient, PostAndGetAreAnswered) {
    kmstest::LoopbackServer server;
    HttpClient client;
    std::string response;
    EXPECT_EQ(client.post(server.url("http", "/echo"), {"X-Test: one", "Content-Type: text/plain"}, "abc", &response),
              200);
    EXPECT_EQ(response, "posted:abc");
    EXPECT_EQ(client.get(server.url("http", "/hello"), &response), 200);
    EXPECT_EQ(response, "hello");
    client.rebuildHandle();
    EXPECT_EQ(client.get(server.url("http", "/hello"), &response), 200);
    EXPECT_EQ(response, "hello");
}

TEST(HttpClient, ASlowServerFailsAfterTheTimeOut) {
    kmstest::LoopbackServer server({"--delay", "3"});
    HttpClient client({}, HttpTimeouts{300ms, 300ms});
    std::string response;
    const auto start = std::chrono::steady_clock::now();
    const std::string text = failureOf<KmsConnectionException>([&] { client.get(server.url("http", "/slow"), &response); });
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(text.rfind("HTTP GET to " + server.url("http", "/slow") + " failed: ", 0), 0u) << text;
    EXPECT_NE(text.find("timed out"), std::string::npos) << text;
}

// A server that is down is a connection failure; a call without a destination for the answer fails before connecting.
TEST(HttpClient, AServerThatIsDownIsAConnectionFailureAndAMissingDestinationIsRefused) {
    const std::string url = "http://127.0.0.1:" + std::to_string(kmstest::closedPort()) + "/keys";
    HttpClient client({}, HttpTimeouts{1000ms, 1000ms});
    std::string response;
    EXPECT_EQ(failureOf<KmsException>([&] { client.post(url, {}, "", nullptr); }),
              "Destination buffer should not be NULL when posting a HTTP request.");
    EXPECT_EQ(failureOf<KmsException>([&] { client.get(url, nullptr); }),
              "Destination buffer should be given when sending a GET request");
    const std::string get = failureOf<KmsConnectionException>([&] { client.get(url, &response); });
    EXPECT_EQ(get.rfind("HTTP GET to " + url + " failed: ", 0), 0u) << get;
    const std::string post = failureOf<KmsConnectionException>([&] { client.post(url, {}, "x", &response); });
    EXPECT_EQ(post.rfind("HTTP POST to " + url + " failed: ", 0), 0u) << post;
}

TEST(HttpClient, HttpErrorCodesAreAnswersOrFailuresAsAsked) {
    kmstest::LoopbackServer server;
    std::string response;
    HttpClient answering;
    EXPECT_EQ(answering.get(server.url("http", "/status/404"), &response), 404);
    EXPECT_EQ(response, "status 404");

    HttpClient failing({}, {}, true);
    const std::string url = server.url("http", "/status/503");
    EXPECT_EQ(failureOf<KmsException>([&] { failing.get(url, &response); }),
              "HTTP GET to " + url + " failed with error code 503 : Service Unavailable");
    try {  // the server answered: not a connection failure
        failing.get(url, &response);
    } catch (const KmsConnectionException&) {
        ADD_FAILURE() << "an HTTP error status is not a connection failure";
    } catch (const KmsException&) {
    }
    const std::string missing = server.url("http", "/nowhere");
    EXPECT_EQ(failureOf<KmsException>([&] { failing.post(missing, {}, "x", &response); }),
              "HTTP POST to " + missing + " failed with error code 404 : Not Found");
    EXPECT_EQ(failing.get(server.url("http", "/hello"), &response), 200);
}

// Which TLS servers a client reaches: the certificate the server shows (and whether it asks for the client's), the
// client's settings, and whether the GET is answered. A client certificate's password never reaches the failure.
TEST(HttpClientTls, TheOperatorsCaHostCheckAndClientCertificate) {
    const kmstest::Certificates certificates;
    TlsSettings ca{true, true, certificates.file("ca.pem"), std::nullopt};
    TlsSettings noHostCheck = ca, withClient = ca, wrongPassword = ca;
    noHostCheck.verifyHost = false;
    withClient.clientCertificate = {certificates.file("client-bundle.pem"), kmstest::kClientPassword};
    wrongPassword.clientCertificate = {certificates.file("client-bundle.pem"), "wrong-password"};
    const struct { const char* certificate; bool asksClient; std::optional<TlsSettings> tls; bool answered; } rows[] = {
        {"server", false, ca, true},
        {"self", false, std::nullopt, false},  // no record: verified against the system's CA store
        {"self", false, ca, false},
        {"self", false, TlsSettings{false, false, "", std::nullopt}, true},  // verification turned off
        {"other", false, ca, false},                                          // signed for another host name
        {"other", false, noHostCheck, true},
        {"server", true, ca, false},
        {"server", true, withClient, true},
        {"server", true, wrongPassword, false},
    };
    for (const auto& row : rows) {
        const std::string name = row.certificate;
        SCOPED_TRACE(name + (row.asksClient ? " asking" : "") + (row.tls ? "" : " no record"));
        std::vector<std::string> args{"--cert", certificates.file(name + ".pem"), "--key", certificates.file(name + ".key")};
        if (row.asksClient) args.insert(args.end(), {"--client-ca", certificates.file("ca.pem")});
        kmstest::LoopbackServer server(args);
        HttpClient client(row.tls ? TransportSecurity{*row.tls} : TransportSecurity{});
        const std::string url = server.url("https", "/hello");
        std::string response;
        if (!row.answered) {
            const std::string text = failureOf<KmsConnectionException>([&] { client.get(url, &response); });
            EXPECT_EQ(text.rfind("HTTP GET to " + url + " failed: ", 0), 0u) << text;
            EXPECT_EQ(text.find("wrong-password"), std::string::npos) << text;
            continue;
        }
        EXPECT_EQ(client.get(url, &response), 200);
        EXPECT_EQ(response, "hello");
    }
    // The name the certificate is made out to reaches the same server.
    kmstest::LoopbackServer server({"--cert", certificates.file("server.pem"), "--key", certificates.file("server.key")});
    std::string response;
    EXPECT_EQ(HttpClient(ca).get(server.url("https", "/hello", "localhost"), &response), 200);
}

}  // namespace
