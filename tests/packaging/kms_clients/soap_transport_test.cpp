// The SOAP transport through the stubs soapcpp2 generated from services/harmonic_key_provisioning.h, against a
// loopback server that answers hand-written envelopes.
#include <gtest/gtest.h>

#include <memory>

#include "HarmonicKeyProvisioning/HarmonicKeyProvisioningKeyProvisioningProxy.h"
#include "packaging/kms_clients/soap_transport.h"
#include "tests/common/bytes.h"
#include "tests/common/loggers.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {

using namespace tvrn::encoding::packaging::kms_clients;
using tvrn::encoding::packaging::encryption::TlsSettings;
using tvrn::encoding::packaging::encryption::TransportSecurity;
using testkit::failureOf;
namespace hk = HarmonicKeyProvisioning;
using KeyService = SoapService<hk::KeyProvisioningProxy>;

// One GetKeyAndSignalization call for `time` on `contentId`.
struct KeyCall {
    hk::harmonic243__SecurityProfileType profile;
    hk::harmonic243__DrmContentType content;
    hk::harmonic243__ScheduledKeyType scheduled;
    hk::_harmonic243__GetKeyAndSignalizationRequest request;
    hk::_harmonic243__GetKeyAndSignalizationResponse response;

    KeyCall(const std::string& contentId, ULONG64 time) {
        profile.emi = 16420;
        content.drmContentId = contentId;
        content.profile = &profile;
        scheduled.time = time;
        request.drmContent = &content;
        request.scheduledKey.push_back(&scheduled);
    }
    int run(KeyService& service) {
        return service.call([&](hk::KeyProvisioningProxy& proxy) { return proxy.GetKeyAndSignalization(&request, response); });
    }
    // Runs the call, failing as checkSoapResult does; the time of the one key answered, or -1.
    std::int64_t keyTime(KeyService& service) {
        checkSoapResult(run(service), service, "GetKeyAndSignalization");
        return response.scheduledKey.size() == 1 ? static_cast<std::int64_t>(response.scheduledKey[0]->time) : -1;
    }
};

// A service at `url` whose traffic its dumper logs.
struct Dumped {
    explicit Dumped(const std::string& url, const TransportSecurity& tls = {}) {
        initSoapService(&service, url, tls);
        service.setPluginLogger(&dumper);
    }
    KeyService service;
    testkit::RecordingLogger logger;
    SoapRequestDumper dumper{&logger};
};

TEST(SoapTransport, RefusesANullServiceAndAnEmptyAddress) {
    EXPECT_EQ(failureOf<KmsException>([] { initSoapService<hk::KeyProvisioningProxy>(nullptr, "http://x/", {}); }),
              "soap initialisation failed(empty service)");
    KeyService service;
    EXPECT_EQ(failureOf<KmsException>([&] { initSoapService(&service, "", {}); }), "empty server URL");
    initSoapService(&service, "http://127.0.0.1:1/", {});
    EXPECT_EQ(service.endpoint(), "http://127.0.0.1:1/");
    EXPECT_EQ(service.context()->connect_timeout, 5);
    EXPECT_EQ(service.context()->send_timeout, 5);
    EXPECT_EQ(service.context()->recv_timeout, 5);
    EXPECT_EQ(service.context()->accept_timeout, 5);
}

TEST(SoapTransport, ARoundTripThroughTheGeneratedStub) {
    kmstest::LoopbackServer server;
    Dumped d(server.url("http", "/soap"));
    KeyCall call("resource-1", 123456789);
    ASSERT_EQ(call.keyTime(d.service), 123456789);
    EXPECT_EQ(call.response.returnCode, 0);
    const hk::harmonic243__ContentKeyType* key = call.response.scheduledKey[0]->contentKey;
    ASSERT_TRUE(key && key->keyId && key->key);
    EXPECT_EQ(*key->keyId, "0a0b0c0d-0102-0304-0506-0708090a0b0c");
    EXPECT_BYTES(testkit::Bytes(key->key->__ptr, key->key->__ptr + key->key->__size),
                 testkit::hex("abcdef0123456789abcdef0123456789"));
    ASSERT_TRUE(call.response.signalization);
    ASSERT_EQ(call.response.signalization->dash.size(), 1u);
    EXPECT_EQ(call.response.signalization->dash[0]->drmSystemId, "edef8ba9-79d6-4ace-a3c8-27dcd51d21ed");

    const std::vector<std::string> lines = d.logger.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("3 SOAP request: POST /soap", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("resource-1"), std::string::npos);
    EXPECT_NE(lines[0].find("<harmonic243:GetKeyAndSignalizationRequest>"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1].rfind("3 SOAP response: HTTP/1.", 0), 0u) << lines[1];
    EXPECT_NE(lines[1].find("<h:contentKey>***</h:contentKey>"), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find("edef8ba9-79d6-4ace-a3c8-27dcd51d21ed"), std::string::npos);
    EXPECT_EQ(lines[1].find("q83vASNFZ4mrze8BI0VniQ=="), std::string::npos) << "the content key reached the log";
}

TEST(SoapTransport, ASoapFaultNamesTheOperationAndTheFaultString) {
    kmstest::LoopbackServer server;
    KeyService service;
    initSoapService(&service, server.url("http", "/soap"), {});
    KeyCall call("fault-me", 0);
    const int code = call.run(service);
    EXPECT_NE(code, SOAP_OK);
    EXPECT_EQ(failureOf<KmsConnectionException>([&] { checkSoapResult(code, service, "GetKeyAndSignalization"); }),
              "GetKeyAndSignalization error; resource unknown");
    EXPECT_EQ(soapErrorText("GetKeyAndSignalization error; resource unknown"),
              "SOAP error: \"GetKeyAndSignalization error; resource unknown\"");
}

TEST(SoapTransport, AServerThatIsDownFailsTheCall) {
    Dumped d("http://127.0.0.1:" + std::to_string(kmstest::closedPort()) + "/soap");
    KeyCall call("resource-1", 0);
    const std::string text = failureOf<KmsConnectionException>([&] { call.keyTime(d.service); });
    EXPECT_EQ(text.rfind("GetKeyAndSignalization error; ", 0), 0u) << text;
    EXPECT_TRUE(d.logger.contains("3 SOAP empty response"));
}

TEST(SoapTransport, TlsWithTheOperatorsCaAndItsFailures) {
    kmstest::Certificates certificates;
    kmstest::LoopbackServer server({"--cert", certificates.file("server.pem"), "--key", certificates.file("server.key")});
    TlsSettings tls;
    tls.caFile = certificates.file("ca.pem");
    {
        Dumped d(server.url("https", "/soap"), tls);
        d.service.context()->http_extra_header = "Authorization: Bearer tok-SECRET-bearer";
        EXPECT_EQ(KeyCall("resource-1", 7).keyTime(d.service), 7);
        ASSERT_FALSE(d.logger.lines().empty());
        EXPECT_NE(d.logger.lines()[0].find("Authorization: ***"), std::string::npos) << d.logger.lines()[0];
        EXPECT_EQ(d.logger.lines()[0].find("SECRET"), std::string::npos);
    }
    {  // no record: the system's CA store does not know the test CA
        KeyService service;
        initSoapService(&service, server.url("https", "/soap"), {});
        KeyCall call("resource-1", 7);
        EXPECT_NE(failureOf<KmsConnectionException>([&] { call.keyTime(service); }), "no failure");
    }
    {  // a server that asks for a client certificate: none, then the operator's with its password
        kmstest::LoopbackServer asking({"--cert", certificates.file("server.pem"), "--key",
                                        certificates.file("server.key"), "--client-ca", certificates.file("ca.pem")});
        KeyService without;
        initSoapService(&without, asking.url("https", "/soap"), tls);
        KeyCall refused("resource-1", 8);
        EXPECT_NE(failureOf<KmsConnectionException>([&] { refused.keyTime(without); }), "no failure");
        TlsSettings withCertificate = tls;
        withCertificate.clientCertificate = {certificates.file("client-bundle.pem"), kmstest::kClientPassword};
        KeyService with;
        initSoapService(&with, asking.url("https", "/soap"), withCertificate);
        EXPECT_EQ(KeyCall("resource-1", 8).keyTime(with), 8);
    }
    {
        TlsSettings missing;
        missing.caFile = certificates.file("no-such-ca.pem");
        KeyService service;
        const std::string text = failureOf<KmsConnectionException>(
            [&] { initSoapService(&service, server.url("https", "/soap"), TransportSecurity{missing}); });
        EXPECT_EQ(text.rfind("soap_ssl_client_context", 0), 0u) << text;
    }
}

}  // namespace
