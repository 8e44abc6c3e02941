#include "packaging/kms_clients/buydrm_provider.h"

#include <openssl/crypto.h>
#include <tinyxml2.h>

#include <utility>

#include "BuyDrmSmoothPackager/BuyDrmSmoothPackagerSmoothPackagerProxy.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace kos = BuyDrmSmoothPackager;
namespace enc = encryption;

namespace {
constexpr const char* kEncoderVersion = "tovrane-fmp4 1";

// Text made safe for an XML element's content.
std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string element(const tinyxml2::XMLDocument& document, const char* name) {
    // Anywhere in the document: the answer's wrapping differs between server versions.
    const tinyxml2::XMLElement* found = nullptr;
    std::vector<const tinyxml2::XMLElement*> open{document.RootElement()};
    while (!open.empty() && found == nullptr) {
        const tinyxml2::XMLElement* at = open.back();
        open.pop_back();
        if (at == nullptr) continue;
        if (std::string(at->Name()) == name) found = at;
        for (const auto* child = at->FirstChildElement(); child != nullptr; child = child->NextSiblingElement())
            open.push_back(child);
    }
    return found != nullptr && found->GetText() != nullptr ? found->GetText() : "";
}
}  // namespace

std::string makeKeyOsRequest(const enc::BuyDrmConfiguration& c) {
    return "<KeyOSEncryptionInfoRequest><APIVersion>5.0.0.2</APIVersion><DRMType>smooth</DRMType><EncoderVersion>" +
           escaped(kEncoderVersion) + "</EncoderVersion><UserKey>" + escaped(c.userKey) + "</UserKey><KeyID>" +
           escaped(c.keyId) + "</KeyID><ContentID>" + escaped(c.contentId) +
           "</ContentID><fl_GeneratePRHeader>true</fl_GeneratePRHeader><MediaID>" + escaped(c.contentId) +
           "</MediaID></KeyOSEncryptionInfoRequest>";
}

KeyOsAnswer readKeyOsAnswer(const std::string& text) {
    tinyxml2::XMLDocument document;
    if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS || document.RootElement() == nullptr)
        throw KmsException("KeyOS soap response: invalid XML");
    const std::string status = element(document, "Status");
    if (!status.empty() && status != "OK" && status != "0") throw KmsException(status);
    KeyOsAnswer answer;
    answer.keyId = element(document, "KeyID");
    if (answer.keyId.empty()) throw KmsException("KeyOS soap response: KeyId is empty");
    const std::string key = element(document, "ContentKey");
    if (key.empty()) throw KmsException("KeyOS soap response: ContentKey is empty");
    answer.contentKey = enc::base64Decode(key);
    answer.laUrl = element(document, "LicAcqURL");
    if (answer.laUrl.empty()) throw KmsException("KeyOS soap response: LicAcqURL is empty");
    answer.luiUrl = element(document, "LicUIURL");
    answer.playReadyHeader = element(document, "PRHeader");
    if (answer.playReadyHeader.empty()) throw KmsException("KeyOS soap response: PRHeader is empty");
    return answer;
}

BuyDrmEncryptionProvider::BuyDrmEncryptionProvider(enc::BuyDrmConfiguration configuration,
                                                   enc::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                                                   int soapTimeout)
    : m_configuration(std::move(configuration)),
      m_transportSecurity(std::move(transportSecurity)),
      m_logger(logger),
      m_soapTimeout(soapTimeout),
      m_dumper(&logger, "BuyDRM SOAP") {}

BuyDrmEncryptionProvider::~BuyDrmEncryptionProvider() {
    OPENSSL_cleanse(m_answer.contentKey.data(), m_answer.contentKey.size());
}

bool BuyDrmEncryptionProvider::connect() {
    try {
        SoapService<kos::SmoothPackagerProxy> client;
        openSoapService(&client, m_configuration.serverUrl, m_transportSecurity, m_soapTimeout, &m_dumper);
        struct soap* context = client.context();
        std::string requestXml = makeKeyOsRequest(m_configuration);
        kos::_keyos__RequestEncryptionInfo request;
        request.requestXml = &requestXml;
        kos::_keyos__RequestEncryptionInfoResponse response;
        checkSoapResult(client.call([&](kos::SmoothPackagerProxy& p) { return p.RequestEncryptionInfo(&request, response); }),
                        context, "RequestEncryptionInfo");
        KeyOsAnswer answer = readKeyOsAnswer(response.RequestEncryptionInfoResult ? *response.RequestEncryptionInfoResult
                                                                                  : std::string());
        OPENSSL_cleanse(m_answer.contentKey.data(), m_answer.contentKey.size());
        m_answer = std::move(answer);
    } catch (const std::exception& e) {
        m_logger.WriteMsg(tvrn::log::LOG_ERROR, "BuyDRM KeyOS request failed: %s", e.what());
        return false;
    }
    if (m_answer.contentKey.size() != 16) {
        m_logger.WriteMsg(tvrn::log::LOG_ERROR, "BuyDRM KeyOS request failed: the content key is not 16 bytes");
        return false;
    }
    m_playReadyObject = enc::wrapWrmHeader(m_answer.playReadyHeader);
    return true;
}

void BuyDrmEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    boxes.push_back(enc::makeProtectionBox(enc::getProtectionSystemId(enc::ProtectionSystem::PlayReady),
                                           m_playReadyObject, cencForm));
}

void BuyDrmEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    enc::makePlayReadySignalling(text, m_playReadyObject, dashForm);
}

bool BuyDrmEncryptionProvider::getKeyId(enc::KeyId& keyId) {
    try {
        keyId = enc::parseGuidText(m_configuration.keyId);
        return !m_answer.contentKey.empty();
    } catch (const std::exception&) {
        return false;
    }
}

bool BuyDrmEncryptionProvider::getContentKey(enc::ContentKey& key) {
    if (m_answer.contentKey.size() != key.size()) return false;
    std::copy(m_answer.contentKey.begin(), m_answer.contentKey.end(), key.begin());
    return true;
}

void BuyDrmEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
