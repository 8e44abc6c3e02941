#include "packaging/kms_clients/encryption_factory.h"

#include <chrono>
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

std::unique_ptr<IrdetoEncryptionProvider> buildIrdetoProvider(const encryption::IrdetoConfiguration& record,
                                                              const encryption::TransportSecurity& transportSecurity,
                                                              tvrn::log::ILogger& logger, IrdetoOptions options) {
    const auto* keys = std::get_if<encryption::IrdetoGenerateKeysSettings>(&record.variant);
    if (keys == nullptr) return nullptr;
    logger.WriteMsg(tvrn::log::LOG_INFO,
                    "Irdeto encryption parameters: Content Id = '%s' : Server Url = '%s' : Key Change period = %d sec.",
                    record.contentId.c_str(), record.serverUrl.c_str(), keys->keyChangePeriod);
    return std::make_unique<IrdetoEncryptionProvider>(record, transportSecurity, logger, std::move(options));
}

std::unique_ptr<VerimatrixEncryptionProvider> buildVerimatrixProvider(
    const encryption::VerimatrixConfiguration& record, const encryption::TransportSecurity& transportSecurity,
    tvrn::log::ILogger& logger, VerimatrixOptions options) {
    logger.WriteMsg(tvrn::log::LOG_INFO, "Verimatrix encryption parameters: Ressource Id = '%s' : Key Change period = %d sec.",
                    record.resourceId.c_str(), record.keyPeriod);
    options.mode = 1;
    return std::make_unique<VerimatrixEncryptionProvider>(record, transportSecurity, logger, options);
}

void buildEncryptionManager(std::unique_ptr<encryption::EncryptionManager>& manager,
                            const encryption::EncryptionConfiguration& configuration,
                            const encryption::TransportSecurity& transportSecurity, tvrn::log::ILogger& logger,
                            encryption::IEncryptionListener* listener, const KeyClientOptions& options) {
    using encryption::EncryptionMode;
    // gSOAP counts whole seconds when positive, microseconds when negative.
    const int soapTimeout = -static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(options.timeout).count());
    const HttpTimeouts http{options.timeout, options.timeout};
    std::unique_ptr<encryption::IEncryptionProvider> provider;
    switch (configuration.mode()) {
    case EncryptionMode::HarmonicKms:
        provider = buildHarmonicProvider(configuration.record<encryption::HarmonicConfiguration>(), transportSecurity,
                                         logger, HarmonicOptions{options.vod, soapTimeout});
        break;
    case EncryptionMode::Irdeto: {
        const auto& record = configuration.record<encryption::IrdetoConfiguration>();
        if (!std::holds_alternative<encryption::IrdetoGenerateKeysSettings>(record.variant)) break;
        IrdetoOptions irdeto;
        irdeto.soapTimeout = soapTimeout;
        provider = buildIrdetoProvider(record, transportSecurity, logger, irdeto);
        break;
    }
    case EncryptionMode::Verimatrix: {
        VerimatrixOptions verimatrix;
        verimatrix.channel = options.vod ? 0 : 1;
        verimatrix.timeouts = http;
        provider = buildVerimatrixProvider(configuration.record<encryption::VerimatrixConfiguration>(),
                                           transportSecurity, logger, verimatrix);
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
    default: break;
    }
    if (!provider) {
        encryption::buildEncryptionManager(manager, configuration, transportSecurity, logger, listener);
        return;
    }
    manager.reset();
    manager = std::make_unique<encryption::EncryptionManager>(std::move(provider), listener);
    manager->setScheme(configuration.scheme());
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
