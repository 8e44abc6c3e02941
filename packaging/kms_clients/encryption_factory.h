#pragma once
// The factory of encryption managers for every mode, key-server clients included. The encryption library's own
// factory (encryption::buildEncryptionManager) cannot reach the clients, which depend on it; this one builds the
// providers of the key servers that this library has (Harmonic KMS) and hands every other mode to it.
#include <chrono>
#include <memory>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/encryption_manager.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/harmonic_provider.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// Harmonic KMS: the info line of its parameters ("Harmonic KMS minimal impl.: ..." or "Harmonic KMS full impl.:
// ..."), then the provider. A resource id above 128 characters throws IEncryptionProvider::Exception "Invalid
// resource identifier.".
std::unique_ptr<HarmonicEncryptionProvider> buildHarmonicProvider(const encryption::HarmonicConfiguration& record,
                                                                  const encryption::TransportSecurity& transportSecurity,
                                                                  tvrn::log::ILogger& logger,
                                                                  HarmonicOptions options = {});

// What the session tells every key client beside its record.
struct KeyClientOptions {
    // On-demand content: Harmonic's distribution mode 1 instead of 0 (live).
    bool vod = false;
    // Each stage of a request (connect, send, receive).
    std::chrono::milliseconds timeout{std::chrono::seconds(kSoapTimeoutSeconds)};
};

// encryption::buildEncryptionManager's contract, with the Harmonic KMS mode given its provider.
void buildEncryptionManager(std::unique_ptr<encryption::EncryptionManager>& manager,
                            const encryption::EncryptionConfiguration& configuration,
                            const encryption::TransportSecurity& transportSecurity, tvrn::log::ILogger& logger,
                            encryption::IEncryptionListener* listener, const KeyClientOptions& options = {});

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
