// Secrets are masked before a request or a response reaches the log.
#include <gtest/gtest.h>

#include "packaging/kms_clients/secret_masking.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "tests/common/loggers.h"

namespace {

using namespace tvrn::encoding::packaging::kms_clients;

// XML elements and attributes by local name, JSON fields of every kind, HTTP header lines; a secret without its
// end is masked to the end of the text.
TEST(MaskSecrets, XmlJsonAndHeaderSecretsAreMasked) {
    const std::pair<std::string, std::string> table[] = {
        {"<h:contentKey><h:keyId>id-1</h:keyId><h:key>c2VjcmV0</h:key></h:contentKey><h:keyId>id-2</h:keyId>",
         "<h:contentKey>***</h:contentKey><h:keyId>id-2</h:keyId>"},
        {"<Password Type=\"text\">hunter2</Password><user name='u' password='pw1'/>",
         "<Password Type=\"text\">***</Password><user name='u' password='***'/>"},
        {"<key/><keys>kept</keys>", "<key/><keys>kept</keys>"},
        {R"({"content_id":"c1","signingKey" : "abc\"def","token":12345,"key":{"a":[1,"}"]},"n":1})",
         R"({"content_id":"c1","signingKey" : "***","token":***,"key":***,"n":1})"},
        {"POST /k HTTP/1.1\r\nauthorization: Basic dXNlcjpwdw==\r\nHost: h\r\n\r\nkey: not a header",
         "POST /k HTTP/1.1\r\nauthorization: ***\r\nHost: h\r\n\r\nkey: ***"},
        {"<key>abcdef", "<key>***"},
        {R"({"password":"abc)", R"({"password":"***")"},
    };
    for (const auto& [text, masked] : table) EXPECT_EQ(maskSecrets(text), masked) << text;
}

TEST(SoapRequestDumper, LogsRequestsAndResponsesWithoutTheirSecrets) {
    testkit::RecordingLogger logger;
    SoapRequestDumper dumper(&logger);
    dumper.onRequest("");
    dumper.onResponse("");
    dumper.onRequest("Authorization: Bearer tok-SECRET-1\r\n\r\n<x><password>pw-SECRET-2</password><keyId>kid</keyId></x>");
    dumper.onResponse(R"({"signingIv":"iv-SECRET-3","key":"key-SECRET-4","status":"OK"})");
    const std::vector<std::string> lines = logger.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "3 SOAP empty request");
    EXPECT_EQ(lines[1], "3 SOAP empty response");
    EXPECT_EQ(lines[2].rfind("3 SOAP request: ", 0), 0u);
    EXPECT_EQ(lines[3].rfind("3 SOAP response: ", 0), 0u);
    for (const std::string& line : lines) EXPECT_EQ(line.find("SECRET"), std::string::npos) << line;
    EXPECT_NE(lines[2].find("<keyId>kid</keyId>"), std::string::npos);
    EXPECT_NE(lines[3].find(R"("status":"OK")"), std::string::npos);
    // A percent sign in the traffic is text, not a format.
    dumper.onRequest("100%s");
    EXPECT_EQ(logger.lines().back(), "3 SOAP request: 100%s");
}

}  // namespace
