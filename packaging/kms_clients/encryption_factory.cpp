#include "packaging/kms_clients/encryption_factory.h"

#include <utility>

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
    if (configuration.mode() != encryption::EncryptionMode::HarmonicKms) {
        encryption::buildEncryptionManager(manager, configuration, transportSecurity, logger, listener);
        return;
    }
    manager.reset();
    // gSOAP counts whole seconds when positive, microseconds when negative.
    HarmonicOptions harmonic{options.vod, -static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(options.timeout).count())};
    auto provider = buildHarmonicProvider(configuration.record<encryption::HarmonicConfiguration>(),
                                          transportSecurity, logger, harmonic);
    manager = std::make_unique<encryption::EncryptionManager>(std::move(provider), listener);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
