// The Verimatrix key file provider and the REST client against key_servers.py's scripted servers on 127.0.0.1;
// HTTP time-outs cut to 0.5 s, and the connection's Unix time fixed at 1700000000 (0x6553f100), by injection.
#include <gtest/gtest.h>

#include <string>

#include "packaging/kms_clients/encryption_factory.h"
#include "packaging/kms_clients/kms_exception.h"
#include "packaging/kms_clients/verimatrix_kms_client.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {
using namespace kmstest;
using namespace tvrn::encoding::packaging::kms_clients;
using Provider = std::unique_ptr<VerimatrixEncryptionProvider>;
constexpr HttpTimeouts kShort{std::chrono::milliseconds(500), std::chrono::milliseconds(500)};

struct Vmx : Scripted {
    Provider make(const std::string& address, std::int32_t keyPeriod = 4) {
        enc::VerimatrixConfiguration record{keyPeriod, "res one", address.rfind("http", 0) == 0 ? address : url(address)};
        const auto clock = [] { return std::int64_t{1700000000}; };
        return buildVerimatrixProvider(record, {}, logger, {.timeouts = kShort, .unixSeconds = clock});
    }
    std::string calls() { return get("/calls-of/vmx"); }
};

TEST(VerimatrixProvider, TheQueryAndThePositionKeyIdAreBuiltAsTheServerReadsThem) {
    EXPECT_EQ(buildKeyFileQuery("res one", 1, 1700000000, 1, KeyFilePurpose::Connect),
              "?&e=DASH&c=0&r=res%20one&t=DTV&p=1700000000");
    EXPECT_EQ(buildKeyFileQuery("a+b/c&d", 0, 18446744073709551615u, 0, KeyFilePurpose::Key),
              "?&PROTECTION-TYPE=PLAYREADY&r=a+b/c&d&t=VOD&p=18446744073709551615");
    EXPECT_BYTES(makePositionKeyId(0x1122334455), hex("00000000 00000000 00000000 22334455"));
}

TEST(VerimatrixProvider, TheKeyOfConnectionWithItsSignallingThenAKeyPerPeriodNamedByItsPosition) {
    Vmx vmx;
    Provider provider = vmx.make("/vmx/ok");
    ASSERT_TRUE(provider->connect());
    EXPECT_TRUE(provider->isKeyRotationEnabled());
    expectKey(*provider, "0000000000000000000000006553f100", hex("00010203 04050607 08090a0b 0c0d0e0f"));
    std::vector<std::uint8_t> iv;
    provider->getInitialisationVector(iv);
    EXPECT_BYTES(iv, testkit::zeros(8));
    EXPECT_BYTES(protectionBoxesOf(*provider),
                 hex("00000023 'pssh' 00000000 9a27dd82 fde24725 8cbc4234 aa06ec09 00000003 564d58"));
    std::string text;
    provider->getContentProtectionText(text, true);
    EXPECT_NE(text.find("cenc:default_KID=\"0f0e0d0c-0b0a-0908-0706-050403020100\""), std::string::npos) << text;
    EXPECT_NE(text.find("<ContentProtection schemeIdUri=\"urn:uuid:9A27DD82-FDE2-4725-8CBC-4234AA06EC09\">"),
              std::string::npos) << text;
    EXPECT_EQ(provider->mpdText(), "mpd-text");
    EXPECT_EQ(provider->otherText(), "http://127.0.0.1/licence");

    // Key period 4 s: a request once more than 4 s have passed since the last key (connection's counts as 0).
    EXPECT_EQ(provider->updateKey(4 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(4 * kSecond + 1), KeyUpdateResult::Updated);
    expectKey(*provider, "00000000000000000000000002625a01", hex("44444444 44444444 44444444 44444444"));
    EXPECT_EQ(provider->updateKey(8 * kSecond + 1), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(8 * kSecond + 2), KeyUpdateResult::Updated);
    EXPECT_BYTES(keyOf(*provider), hex("48484848 48484848 48484848 48484848"));
    EXPECT_EQ(vmx.calls(), "/vmx/ok ?&e=DASH&c=0&r=res%20one&t=DTV&p=1700000000\n"
                           "/vmx/ok ?&r=res%20one&t=DTV&p=40000001\n/vmx/ok ?&r=res%20one&t=DTV&p=80000002\n");

    // Period 0: the key of the connection for the whole run.
    expectOneKeyForEver(*vmx.make("/vmx/ok", 0));
    // A server that names its key id every time: the key changes, the id does not (the manager keeps the old key).
    Provider named = vmx.make("/vmx/keyid-always");
    ASSERT_TRUE(named->connect());
    EXPECT_EQ(named->updateKey(5 * kSecond), KeyUpdateResult::Updated);
    expectKey(*named, "0000000000000000000000006553f100", hex("45454545 45454545 45454545 45454545"));
    EXPECT_TRUE(vmx.logger.contains("2 Verimatrix encryption parameters: Ressource Id = 'res one' : Key Change period = 4 sec."));
    vmx.expectNotLogged({"000102030405060708090a0b0c0d0e0f", "AAECAwQFBgcICQoLDA0ODw==", "DDDD", "HHHH"});
}

// The faults of the key file service: at connection the request's failure escapes (the filter waits and tries
// again); during the run the previous key stays.
TEST(VerimatrixProvider, EachFaultFailsTheConnectionOrKeepsThePreviousKey) {
    Vmx vmx;
    const std::string down = downUrl("/vmx/ok");
    const std::string prefix = "Could not retrieve key from key server: HTTP GET to ";
    const std::string query = "?&e=DASH&c=0&r=res%20one&t=DTV&p=1700000000 failed";
    const std::pair<std::string, std::string> rows[] = {
        {down, prefix + down + query + ": "},
        {"/vmx/status-404", prefix + vmx.url("/vmx/status-404") + query + " with error code 404 : Not Found"},
        {"/vmx/status-503", prefix + vmx.url("/vmx/status-503") + query + " with error code 503 : Service Unavailable"},
        {"/vmx/slow", prefix + vmx.url("/vmx/slow") + query + ": "},
        {"/vmx/short-body", "Incomplete key received from key server (8 bytes)"},
    };
    for (const auto& [path, text] : rows) {
        Provider provider = vmx.make(path);
        const std::string failure = testkit::failureOf<KmsException>([&] { provider->connect(); });
        EXPECT_EQ(failure.substr(0, text.size()), text) << path;
        EXPECT_TRUE(keyOf(*provider).empty());
    }
    // The server goes down after the connection: Failed at every segment, the first key and id stay.
    Provider provider = vmx.make("/vmx/fail-after-first");
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->updateKey(5 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(provider->updateKey(6 * kSecond), KeyUpdateResult::Failed);
    expectKey(*provider, "0000000000000000000000006553f100", hex("00010203 04050607 08090a0b 0c0d0e0f"));
    // Headers that are not base64: no DASH key id to signal, which the manifest text refuses.
    Provider garbled = vmx.make("/vmx/bad-headers");
    ASSERT_TRUE(garbled->connect());
    std::string text;
    EXPECT_EQ(testkit::failureOf<enc::IEncryptionProvider::Exception>([&] { garbled->getContentProtectionText(text, true); }),
              "invalid UUID");
}

TEST(VerimatrixKmsClient, RequestsAndAnswersOfTheRestInterface) {
    Vmx vmx;
    VerimatrixKmsClient client(vmx.url(""), "v1.1", {}, vmx.logger, kShort);
    VerimatrixStatus status;
    EXPECT_TRUE(client.createContent({.contentId = "ok", .siteId = 3, .contentType = "LIVE", .streamingProtocol = "DASH",
                                      .chainedLicense = true, .cryptoPeriod = 10},
                                     status));
    EXPECT_EQ(status.statusMessage, "created");
    EXPECT_TRUE(client.createContent({.contentId = "dup"}, status));
    EXPECT_FALSE(client.createContent({.contentId = "refused"}, status));
    VerimatrixKeyResponse keys;
    EXPECT_TRUE(client.getKey(7, {.contentId = "ok", .keyCount = 1, .contentKeyList = {"k1"}, .position = 7}, keys));
    ASSERT_EQ(keys.keyData.size(), 1u);
    EXPECT_BYTES(keys.keyData[0].key, hex("00010203 04050607 08090a0b 0c0d0e0f"));
    EXPECT_BYTES(keys.keyData[0].psshData, hex("08011210"));
    EXPECT_EQ(keys.keyData[0].position, "7");
    ASSERT_EQ(keys.drmList.size(), 1u);
    EXPECT_EQ(keys.drmList[0].drmName, VerimatrixDrmName::Widevine);
    EXPECT_TRUE(client.heartbeat());
    // The bodies as the server got them (jsoncpp writes members in name order).
    expectInOrder(vmx.get("/calls-of/cei"),
                  {"PUT /cei/v1.1/content/ok?siteId=3 {\"contentRequest\":{\"contentId\":\"ok\",\"contentType\":\"LIVE\","
          "\"encryptionAlgorithm\":\"AES_CTR\",\"keyRotation\":{\"chainedLicense\":\"TRUE\",\"cryptoPeriod\":10},"
          "\"siteId\":3,\"streamingProtocol\":\"DASH\"}}\n",
          "PUT /cei/v1.1/content/ok/position/7/key {\"keyRequest\":{\"contentInfo\":{\"contentId\":\"ok\","
          "\"contentKeyList\":[\"k1\"],\"keyCount\":1},\"position\":7}}\n"});
    vmx.expectNotLogged({"AAECAwQFBgcICQoLDA0ODw=="});

    // Answers the client refuses, each with its text.
    const std::pair<const char*, std::string> content[] = {
        {"no-root", "Failed to parse ContentResponse: missing contentResponse element"},
        {"bad-json", "Failed to parse ContentResponse: parsing exception("},
        {"empty", "PUT /cei/v1.1/content/empty response is empty"},
        {"status-500", "PUT /cei/v1.1/content/status-500 failed: HTTP PUT to " + vmx.url("") +
                           "/cei/v1.1/content/status-500 failed with error code 500 : Internal Server Error"},
    };
    for (const auto& [id, text] : content) {
        const std::string failure = testkit::failureOf<KmsException>([&] { client.createContent({.contentId = id}, status); });
        EXPECT_EQ(failure.substr(0, text.size()), text) << id;
    }
    const std::pair<const char*, std::string> key[] = {
        {"drm-not-array", "\"drmList\" element is not an array"},
        {"key-not-array", "\"keyData\" element is not an array"},
        {"bad-drm", "invalid \"drmName\" element"},
        {"bad-protocol", "invalid \"streamingProtocol\" element"},
        {"no-key", "Failed to parse KeyResponse : missing \"key\" element"},
        {"no-status", "Failed to parse KeyResponse : missing \"statusCode\" element"},
        {"no-root", "Failed to parse KeyResponse"},
        {"bad-json", "Failed to parse KeyResponse: parsing exception("},
    };
    for (const auto& [id, text] : key) {
        const std::string failure = testkit::failureOf<KmsException>([&] { client.getKey(1, {.contentId = id}, keys); });
        EXPECT_EQ(failure.substr(0, text.size()), text) << id;
    }
    EXPECT_EQ(testkit::failureOf<KmsException>([] { parseHeartbeatResponse("{\"statusCode\":\"X\"}"); }),
              "Failed to parse Heartbeat response : missing statusMessage element");
    EXPECT_EQ(testkit::failureOf<KmsException>([] { parseHeartbeatResponse(""); }), "empty buffer");
    // Nested deeper than the reader goes (found by fuzz_verimatrix_response: jsoncpp throws its own exception).
    EXPECT_EQ(testkit::failureOf<KmsException>([] { parseKeyResponse(std::string(100, '[')); }),
              "Failed to parse KeyResponse: parsing exception(Exceeded stackLimit in readValue().)");
}

}  // namespace
