// The HTTP transport against a loopback server: answers, time-outs, a server that is down, HTTP error codes,
// and TLS with the operator's CA, a self-signed certificate and a host-name mismatch.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "packaging/kms_clients/http_client.h"
#include "packaging/kms_clients/kms_exception.h"
#include "tests/common/bytes.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {

using namespace tvrn::encoding::packaging::kms_clients;
using tvrn::encoding::packaging::encryption::TlsSettings;
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

TEST(HttpClient, RefusesAMissingDestination) {
    HttpClient client;
    EXPECT_EQ(failureOf<KmsException>([&] { client.post("http://127.0.0.1:1/", {}, "", nullptr); }),
              "Destination buffer should not be NULL when posting a HTTP request.");
    EXPECT_EQ(failureOf<KmsException>([&] { client.get("http://127.0.0.1:1/", nullptr); }),
              "Destination buffer should be given when sending a GET request");
}

TEST(HttpClient, TimeOutsAreFiveSecondsUnlessATestShortensThem) {
    EXPECT_EQ(HttpTimeouts{}.total, 5000ms);
    EXPECT_EQ(HttpTimeouts{}.connect, 5000ms);
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

TEST(HttpClient, AServerThatIsDownIsAConnectionFailure) {
    const std::string url = "http://127.0.0.1:" + std::to_string(kmstest::closedPort()) + "/keys";
    HttpClient client({}, HttpTimeouts{1000ms, 1000ms});
    std::string response;
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

class HttpClientTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() { certificates = std::make_unique<kmstest::Certificates>(); }
    static void TearDownTestSuite() { certificates.reset(); }

    static kmstest::LoopbackServer serve(const std::string& name) {
        return kmstest::LoopbackServer({"--cert", certificates->file(name + ".pem"), "--key",
                                        certificates->file(name + ".key")});
    }
    static TlsSettings trustingOurCa(bool verifyHost = true) {
        TlsSettings tls;
        tls.verifyPeer = true;
        tls.verifyHost = verifyHost;
        tls.caFile = certificates->file("ca.pem");
        return tls;
    }
    static inline std::unique_ptr<kmstest::Certificates> certificates;
};

TEST_F(HttpClientTls, ACertificateFromTheOperatorsCaIsAccepted) {
    kmstest::LoopbackServer server = serve("server");
    HttpClient client(trustingOurCa());
    std::string response;
    EXPECT_EQ(client.get(server.url("https", "/hello"), &response), 200);
    EXPECT_EQ(response, "hello");
    EXPECT_EQ(client.get(server.url("https", "/hello", "localhost"), &response), 200);
}

TEST_F(HttpClientTls, ASelfSignedCertificateNobodyConfiguredIsRefused) {
    kmstest::LoopbackServer server = serve("self");
    std::string response;
    const std::string url = server.url("https", "/hello");
    HttpClient noRecord;  // verification stays on, against the system's CA store
    EXPECT_EQ(failureOf<KmsConnectionException>([&] { noRecord.get(url, &response); })
                  .rfind("HTTP GET to " + url + " failed: ", 0),
              0u);
    HttpClient otherCa(trustingOurCa());
    EXPECT_NE(failureOf<KmsConnectionException>([&] { otherCa.get(url, &response); }), "no failure");
    // Only an operator who turns verification off reaches it.
    HttpClient unverified(TlsSettings{false, false, "", std::nullopt});
    EXPECT_EQ(unverified.get(url, &response), 200);
}

TEST_F(HttpClientTls, AHostNameMismatchIsRefusedWhileVerifyHostIsOn) {
    kmstest::LoopbackServer server = serve("other");
    std::string response;
    const std::string url = server.url("https", "/hello");
    HttpClient checking(trustingOurCa(true));
    EXPECT_NE(failureOf<KmsConnectionException>([&] { checking.get(url, &response); }), "no failure");
    HttpClient notChecking(trustingOurCa(false));
    EXPECT_EQ(notChecking.get(url, &response), 200);
}

TEST_F(HttpClientTls, AServerThatAsksForAClientCertificateGetsTheOperatorsOne) {
    kmstest::LoopbackServer server({"--cert", certificates->file("server.pem"), "--key",
                                    certificates->file("server.key"), "--client-ca", certificates->file("ca.pem")});
    const std::string url = server.url("https", "/hello");
    std::string response;
    HttpClient without(trustingOurCa());
    EXPECT_NE(failureOf<KmsConnectionException>([&] { without.get(url, &response); }), "no failure");

    TlsSettings tls = trustingOurCa();
    tls.clientCertificate = {certificates->file("client-bundle.pem"), kmstest::kClientPassword};
    HttpClient with(tls);
    EXPECT_EQ(with.get(url, &response), 200);
    EXPECT_EQ(response, "hello");

    tls.clientCertificate->password = "wrong-password";
    HttpClient wrongPassword(tls);
    const std::string text = failureOf<KmsConnectionException>([&] { wrongPassword.get(url, &response); });
    EXPECT_NE(text, "no failure");
    EXPECT_EQ(text.find("wrong-password"), std::string::npos) << text;
}

}  // namespace
