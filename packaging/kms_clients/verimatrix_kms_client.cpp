#include "packaging/kms_clients/verimatrix_kms_client.h"

#include <json/json.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <utility>

#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/kms_exception.h"
#include "packaging/kms_clients/secret_masking.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace {

constexpr const char* kSuccess = "OPERATION_SUCCESS";

// Parses `text` as one JSON value, nested at most 64 deep; false with jsoncpp's reasons in `errors`. (jsoncpp
// throws, rather than answers false, for a value nested deeper.)
bool parseJson(const std::string& text, Json::Value& root, std::string& errors) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 64;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    } catch (const Json::Exception& e) {
        errors = e.what();
        return false;
    }
}

std::string writeJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// A member's text: a string as it is, an integer in decimal; nothing for anything else or a missing member.
std::optional<std::string> textOf(const Json::Value& object, const char* name) {
    if (!object.isObject() || !object.isMember(name)) return std::nullopt;
    const Json::Value& v = object[name];
    if (v.isString()) return v.asString();
    if (v.isUInt64()) return std::to_string(v.asUInt64());
    if (v.isInt64()) return std::to_string(v.asInt64());
    return std::nullopt;
}

const Json::Value* memberObject(const Json::Value& object, const char* name) {
    if (!object.isObject() || !object.isMember(name) || !object[name].isObject()) return nullptr;
    return &object[name];
}

const char* algorithmText(VerimatrixEncryptionAlgorithm algorithm) {
    switch (algorithm) {
    case VerimatrixEncryptionAlgorithm::AesCtr: return "AES_CTR";
    case VerimatrixEncryptionAlgorithm::AesCbc: return "AES_CBC";
    default: return "Unknown";
    }
}

void addSiteId(Json::Value& object, const std::optional<std::int32_t>& siteId) {
    if (siteId) object["siteId"] = *siteId;
}

[[noreturn]] void keyResponseMissing(const std::string& name) {
    throw KmsException("Failed to parse KeyResponse : missing \"" + name + "\" element");
}

std::string required(const Json::Value& object, const char* name) {
    std::optional<std::string> text = textOf(object, name);
    if (!text) keyResponseMissing(name);
    return *text;
}

VerimatrixDrm readDrm(const Json::Value& entry) {
    static const std::pair<const char*, VerimatrixDrmName> names[] = {
        {"PLAYREADY", VerimatrixDrmName::PlayReady},
        {"WIDEVINE", VerimatrixDrmName::Widevine},
        {"ADOBE_PRIMETIME", VerimatrixDrmName::AdobePrimeTime},
        {"VERIMATRIX_ITV", VerimatrixDrmName::VerimatrixItv},
        {"FAIRPLAY_STREAMING", VerimatrixDrmName::FairPlayStreaming}};
    static const std::pair<const char*, VerimatrixStreamingProtocol> protocols[] = {
        {"DASH", VerimatrixStreamingProtocol::Dash},
        {"HLS", VerimatrixStreamingProtocol::Hls},
        {"SMOOTH_STREAMING", VerimatrixStreamingProtocol::SmoothStreaming}};
    VerimatrixDrm drm;
    const std::optional<std::string> name = textOf(entry, "drmName");
    bool found = false;
    for (const auto& [text, value] : names)
        if (name && *name == text) drm.drmName = value, found = true;
    if (!found) throw KmsException("invalid \"drmName\" element");
    const std::optional<std::string> protocol = textOf(entry, "streamingProtocol");
    found = false;
    for (const auto& [text, value] : protocols)
        if (protocol && *protocol == text) drm.streamingProtocol = value, found = true;
    if (!found) throw KmsException("invalid \"streamingProtocol\" element");
    return drm;
}

VerimatrixKeyData readKeyData(const Json::Value& entry) {
    VerimatrixKeyData data;
    const Json::Value* contentKey = memberObject(entry, "contentKey");
    if (contentKey == nullptr) keyResponseMissing("contentKey");
    data.keyId = required(*contentKey, "keyId");
    std::string key = required(*contentKey, "key");
    data.key = encryption::base64Decode(key);
    OPENSSL_cleanse(key.data(), key.size());
    data.iv = encryption::base64Decode(textOf(*contentKey, "iv").value_or(""));
    data.position = textOf(*contentKey, "position").value_or("");
    if (const Json::Value* drmData = memberObject(entry, "drmData")) {
        data.drmSystemId = textOf(*drmData, "drmSystemId").value_or("");
        data.manifestHeader = textOf(*drmData, "manifestHeader").value_or("");
        data.licenseServerUrl = textOf(*drmData, "licenseServerUrl").value_or("");
        data.keyUri = textOf(*drmData, "keyUri").value_or("");
        if (const Json::Value* pssh = memberObject(*drmData, "pssh"))
            data.psshData = encryption::base64Decode(textOf(*pssh, "data").value_or(""));
    }
    return data;
}

}  // namespace

std::string writeContentRequest(const VerimatrixContentRequest& r) {
    Json::Value content(Json::objectValue);
    content["contentId"] = r.contentId;
    addSiteId(content, r.siteId);
    content["contentType"] = r.contentType;
    content["streamingProtocol"] = r.streamingProtocol;
    content["encryptionAlgorithm"] = algorithmText(r.encryptionAlgorithm);
    content["keyRotation"]["chainedLicense"] = r.chainedLicense ? "TRUE" : "FALSE";
    content["keyRotation"]["cryptoPeriod"] = r.cryptoPeriod;
    Json::Value root(Json::objectValue);
    root["contentRequest"] = content;
    return writeJson(root);
}

std::string writeKeyRequest(const VerimatrixKeyRequest& r) {
    Json::Value info(Json::objectValue);
    info["contentId"] = r.contentId;
    addSiteId(info, r.siteId);
    info["keyCount"] = r.keyCount;
    info["contentKeyList"] = Json::Value(Json::arrayValue);
    for (const std::string& id : r.contentKeyList) info["contentKeyList"].append(id);
    Json::Value root(Json::objectValue);
    root["keyRequest"]["contentInfo"] = info;
    root["keyRequest"]["position"] = Json::Value::UInt64(r.position);
    return writeJson(root);
}

VerimatrixStatus parseContentResponse(const std::string& json) {
    Json::Value root;
    std::string errors;
    if (!parseJson(json, root, errors))
        throw KmsException("Failed to parse ContentResponse: parsing exception(" + errors + ")");
    const Json::Value* response = memberObject(root, "contentResponse");
    if (response == nullptr) throw KmsException("Failed to parse ContentResponse: missing contentResponse element");
    const std::optional<std::string> code = textOf(*response, "statusCode");
    if (!code) throw KmsException("Failed to parse ContentResponse: parsing exception(missing statusCode)");
    return {*code, textOf(*response, "statusMessage").value_or("")};
}

VerimatrixKeyResponse parseKeyResponse(const std::string& json) {
    Json::Value root;
    std::string errors;
    if (!parseJson(json, root, errors))
        throw KmsException("Failed to parse KeyResponse: parsing exception(" + errors + ")");
    if (!root.isObject()) throw KmsException("Failed to parse KeyResponse");
    const Json::Value* response = memberObject(root, "keyResponse");
    if (response == nullptr) keyResponseMissing("keyResponse");
    VerimatrixKeyResponse out;
    out.status.statusCode = required(*response, "statusCode");
    out.status.statusMessage = textOf(*response, "statusMessage").value_or("");
    if (response->isMember("drmList")) {
        const Json::Value& list = (*response)["drmList"];
        if (!list.isArray()) throw KmsException("\"drmList\" element is not an array");
        for (const Json::Value& entry : list) out.drmList.push_back(readDrm(entry));
    }
    if (response->isMember("keyData")) {
        const Json::Value& list = (*response)["keyData"];
        if (!list.isArray()) throw KmsException("\"keyData\" element is not an array");
        for (const Json::Value& entry : list) out.keyData.push_back(readKeyData(entry));
    }
    return out;
}

VerimatrixStatus parseHeartbeatResponse(const std::string& json) {
    if (json.empty()) throw KmsException("empty buffer");
    Json::Value root;
    std::string errors;
    if (!parseJson(json, root, errors))
        throw KmsException("Failed to parse Heartbeat response : parsing exception(" + errors + ")");
    const std::optional<std::string> code = textOf(root, "statusCode");
    if (!code) throw KmsException("Failed to parse Heartbeat response : missing statusCode element");
    const std::optional<std::string> message = textOf(root, "statusMessage");
    if (!message) throw KmsException("Failed to parse Heartbeat response : missing statusMessage element");
    return {*code, *message};
}

VerimatrixKmsClient::VerimatrixKmsClient(std::string serverUrl, std::string version,
                                         encryption::TransportSecurity security, tvrn::log::ILogger& logger,
                                         HttpTimeouts timeouts)
    : m_serverUrl(std::move(serverUrl)), m_version(std::move(version)), m_logger(logger),
      m_http(std::move(security), timeouts, true) {}

std::string VerimatrixKmsClient::query(const std::optional<std::int32_t>& siteId) const {
    return siteId ? "?siteId=" + std::to_string(*siteId) : std::string();
}

std::string VerimatrixKmsClient::put(const std::string& path, const std::string& body) {
    m_logger.WriteMsg(log::LOG_DEBUG, "REQUEST : %s", maskSecrets(body).c_str());
    std::string answer;
    try {
        m_http.put(m_serverUrl + path, {"Content-Type: application/json", "Accept: application / json"}, body,
                   &answer);
    } catch (const KmsException& e) {
        throw KmsException("PUT " + path + " failed: " + e.what());
    }
    if (answer.empty()) throw KmsException("PUT " + path + " response is empty");
    m_logger.WriteMsg(log::LOG_DEBUG, "RESPONSE : %s", maskSecrets(answer).c_str());
    return answer;
}

bool VerimatrixKmsClient::createContent(const VerimatrixContentRequest& request, VerimatrixStatus& response) {
    const std::string path = "/cei/" + m_version + "/content/" + request.contentId + query(request.siteId);
    response = parseContentResponse(put(path, writeContentRequest(request)));
    m_logger.WriteMsg(log::LOG_DEBUG, "MSG : %s", response.statusMessage.c_str());
    return response.statusCode == kSuccess || response.statusCode == "DUPLICATE_CONTENT";
}

bool VerimatrixKmsClient::getKey(std::uint64_t position, const VerimatrixKeyRequest& request,
                                 VerimatrixKeyResponse& response) {
    const std::string path = "/cei/" + m_version + "/content/" + request.contentId + "/position/" +
                             std::to_string(position) + "/key" + query(request.siteId);
    std::string answer = put(path, writeKeyRequest(request));
    response = parseKeyResponse(answer);
    OPENSSL_cleanse(answer.data(), answer.size());
    m_logger.WriteMsg(log::LOG_DEBUG, "MSG : %s", response.status.statusMessage.c_str());
    return response.status.statusCode == kSuccess;
}

bool VerimatrixKmsClient::heartbeat() {
    const std::string path = "/cei/v1.1/heartbeat";
    std::string answer;
    m_logger.WriteMsg(log::LOG_DEBUG, "REQUEST : GET %s", path.c_str());
    m_http.get(m_serverUrl + path, &answer);
    if (answer.empty()) throw KmsException("Get " + path + " response is empty");
    m_logger.WriteMsg(log::LOG_DEBUG, "RESPONSE : %s", maskSecrets(answer).c_str());
    const VerimatrixStatus status = parseHeartbeatResponse(answer);
    m_logger.WriteMsg(log::LOG_DEBUG, "MSG : %s", status.statusMessage.c_str());
    return status.statusCode == kSuccess;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
