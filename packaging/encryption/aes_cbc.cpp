#include "packaging/encryption/aes_cbc.h"

#include <openssl/evp.h>

#include <algorithm>

#include "packaging/encryption/openssl_support.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

using openssl_support::kBlock;
using openssl_support::kMaxPiece;
constexpr auto openSslFailure = openssl_support::failure;

}  // namespace

void AesCbcPattern::ContextDeleter::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

AesCbcPattern::AesCbcPattern() = default;
AesCbcPattern::~AesCbcPattern() = default;
AesCbcPattern::AesCbcPattern(AesCbcPattern&&) noexcept = default;
AesCbcPattern& AesCbcPattern::operator=(AesCbcPattern&&) noexcept = default;

int AesCbcPattern::setKey(const ContentKey& key) {
    std::unique_ptr<evp_cipher_ctx_st, ContextDeleter> context(EVP_CIPHER_CTX_new());
    if (!context) return openSslFailure();
    const std::uint8_t zeroIv[kBlock] = {};
    if (EVP_EncryptInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, key.data(), zeroIv) != 1) return openSslFailure();
    // Whole blocks only: the caller never hands a partial block over, and nothing is added at the end.
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    m_context = std::move(context);
    return 0;
}

int AesCbcPattern::encrypt(std::uint8_t* data, std::size_t length, std::uint8_t crypt, std::uint8_t skip,
                           std::span<const std::uint8_t, 16> iv) {
    if (!m_context) return kNoKey;
    // The context keeps the last ciphertext block between updates: that is what chains across skipped blocks.
    if (EVP_EncryptInit_ex(m_context.get(), nullptr, nullptr, nullptr, iv.data()) != 1) return openSslFailure();
    const std::size_t blocks = length / kBlock;
    const bool everyBlock = crypt == 0;
    const std::size_t cryptRun = everyBlock ? blocks : crypt;
    const std::size_t period = everyBlock ? blocks : std::size_t{crypt} + skip;
    for (std::size_t block = 0; block < blocks; block += period) {
        const std::size_t run = std::min(cryptRun, blocks - block) * kBlock;
        std::uint8_t* start = data + block * kBlock;
        for (std::size_t done = 0; done < run;) {
            const std::size_t piece = std::min(run - done, kMaxPiece);
            int written = 0;
            if (EVP_EncryptUpdate(m_context.get(), start + done, &written, start + done, static_cast<int>(piece)) != 1 ||
                written != static_cast<int>(piece))
                return openSslFailure();
            done += piece;
        }
    }
    return 0;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
