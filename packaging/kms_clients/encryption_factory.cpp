#include "packaging/kms_clients/encryption_factory.h"

#include <utility>

#include "packaging/kms_clients/buydrm_provider.h"
#include "packaging/kms_clients/inside_secure_provider.h"
#include "packaging/kms_clients/widevine_provider.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace {
constexpr std::size_t kMaxResourceIdLength = 128;
}

std::unique_ptr<HarmonicEncryptionProvider> buildHarmonicProvider(const encryption::HarmonicConfiguration& record,
                                                                  const encryption::TransportSecurity& transportSecurity,
                                                                  tvrn::log::ILogger& logger,
                                                                  HarmonicOptions options) {
    if (record.resourceId.size() > kMaxResourceIdLength)
        throw encryption::IEncryptionProvider::Exception("Invalid resource identifier.");
    if (record.implementation != 0) {
        logger.WriteMsg(tvrn::log::LOG_INFO,
                        "Harmonic KMS minimal impl.: resourceId='%s', KeyPeriod= %d sec., KeyProvisioningUrl='%s'",
                        record.resourceId.c_str(), record.keyPeriod, record.keyProvisioningUrl.c_str());
    } else {
        logger.WriteMsg(tvrn::log::LOG_INFO,
                        "Harmonic KMS full impl.: resourceId='%s' , requestorId='%s' : KeyPeriod = %d sec., "
                        "KeySessionUrl='%s'",
                        record.resourceId.c_str(), record.requestorId.c_str(), record.keyPeriod,
                        record.keySessionUrl.c_str());
    }
    return std::make_unique<HarmonicEncryptionProvider>(record, transportSecurity, logger, options);
}

void buildEncryptionManager(std::unique_ptr<encryption::EncryptionManager>& manager,
                            const encryption::EncryptionConfiguration& configuration,
                            const encryption::TransportSecurity& transportSecurity, tvrn::log::ILogger& logger,
                            encryption::IEncryptionListener* listener, const KeyClientOptions& options) {
    using encryption::EncryptionMode;
    std::unique_ptr<encryption::IEncryptionProvider> provider;
    const HttpTimeouts http{options.timeout, options.timeout};
    // gSOAP counts whole seconds when positive, microseconds when negative.
    const int soapTimeout = -static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(options.timeout).count());
    switch (configuration.mode()) {
    case EncryptionMode::HarmonicKms: {
        HarmonicOptions harmonic{options.vod, soapTimeout};
        provider = buildHarmonicProvider(configuration.record<encryption::HarmonicConfiguration>(), transportSecurity,
                                         logger, harmonic);
        break;
    }
    case EncryptionMode::Widevine: {
        const auto& record = configuration.record<encryption::WidevineConfiguration>();
        logger.WriteMsg(tvrn::log::LOG_INFO,
                        "Widevine encryption parameters: Content Id = '%s' : Server Url = '%s' : Key Change period = %d sec.",
                        record.contentId.c_str(), record.serverUrl.c_str(), record.keyPeriod);
        provider = std::make_unique<WidevineEncryptionProvider>(record, transportSecurity, logger, http);
        break;
    }
    case EncryptionMode::InsideSecure: {
        const auto& record = configuration.record<encryption::InsideSecureConfiguration>();
        logger.WriteMsg(tvrn::log::LOG_INFO,
                        "Inside Secure encryption parameters: Content Id = '%s' : LaUrl = '%s' : Key Change period = %d sec.",
                        record.contentId.c_str(), record.laUrl.c_str(), record.keyPeriod);
        provider = std::make_unique<InsideSecureEncryptionProvider>(record, transportSecurity, logger, soapTimeout);
        break;
    }
    case EncryptionMode::BuyDrm: {
        const auto& record = configuration.record<encryption::BuyDrmConfiguration>();
        logger.WriteMsg(tvrn::log::LOG_INFO,
                        "BuyDrm encryption parameters : KeyId = '%s' : User Key = '%s' : Server Key = '%s' : Content ID = '%s'",
                        record.keyId.c_str(), encryption::maskSecret(record.userKey).c_str(),
                        encryption::maskSecret(record.serverKey).c_str(), record.contentId.c_str());
        provider = std::make_unique<BuyDrmEncryptionProvider>(record, transportSecurity, logger, soapTimeout);
        break;
    }
    default:
        encryption::buildEncryptionManager(manager, configuration, transportSecurity, logger, listener);
        return;
    }
    manager.reset();
    manager = std::make_unique<encryption::EncryptionManager>(std::move(provider), listener);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
