#pragma once
// The factory of encryption managers for every mode, key-server clients included. The encryption library's own
// factory (encryption::buildEncryptionManager) cannot reach the clients, which depend on it; this one builds the
// providers of the key servers that this library has (Harmonic KMS, Irdeto's key generation, Verimatrix, Widevine,
// Inside Secure, BuyDRM) and hands every other mode to it (the Irdeto PlayReady Scalable License included, which
// has no provider).
#include <chrono>
#include <memory>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/encryption_manager.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/harmonic_provider.h"
#include "packaging/kms_clients/irdeto_provider.h"
#include "packaging/kms_clients/verimatrix_provider.h"
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

// Irdeto's key generation: "Irdeto encryption parameters: Content Id = '...' : Server Url = '...' : Key Change
// period = N sec." at info level, then the provider. Null for the PlayReady Scalable License variant.
std::unique_ptr<IrdetoEncryptionProvider> buildIrdetoProvider(const encryption::IrdetoConfiguration& record,
                                                              const encryption::TransportSecurity& transportSecurity,
                                                              tvrn::log::ILogger& logger, IrdetoOptions options = {});

// Verimatrix: "Verimatrix encryption parameters: Ressource Id = '...' : Key Change period = N sec." at info level,
// then the provider, signalling Verimatrix (a live channel unless the options say on-demand).
std::unique_ptr<VerimatrixEncryptionProvider> buildVerimatrixProvider(
    const encryption::VerimatrixConfiguration& record, const encryption::TransportSecurity& transportSecurity,
    tvrn::log::ILogger& logger, VerimatrixOptions options = {});

// encryption::buildEncryptionManager's contract, with the key servers' modes given their providers; each logs its
// parameters at info level, secrets masked.
void buildEncryptionManager(std::unique_ptr<encryption::EncryptionManager>& manager,
                            const encryption::EncryptionConfiguration& configuration,
                            const encryption::TransportSecurity& transportSecurity, tvrn::log::ILogger& logger,
                            encryption::IEncryptionListener* listener, const KeyClientOptions& options = {});

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
