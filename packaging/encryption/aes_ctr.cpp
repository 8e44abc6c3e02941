#include "packaging/encryption/aes_ctr.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>

#include "packaging/encryption/openssl_support.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

using openssl_support::kBlock;
using openssl_support::kMaxPiece;
constexpr auto openSslFailure = openssl_support::failure;

std::uint64_t loadBigEndian64(const std::uint8_t* bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = (value << 8) | bytes[i];
    return value;
}

void storeBigEndian64(std::uint8_t* bytes, std::uint64_t value) {
    for (int i = 7; i >= 0; --i) {
        bytes[i] = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
}

}  // namespace

void AesCtr64::ContextDeleter::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

AesCtr64::AesCtr64() = default;
AesCtr64::~AesCtr64() = default;
AesCtr64::AesCtr64(AesCtr64&&) noexcept = default;
AesCtr64& AesCtr64::operator=(AesCtr64&&) noexcept = default;

int AesCtr64::setKey(const ContentKey& key) {
    std::unique_ptr<evp_cipher_ctx_st, ContextDeleter> context(EVP_CIPHER_CTX_new());
    if (!context) return openSslFailure();
    const std::array<std::uint8_t, kBlock> zeroCounter{};
    if (EVP_EncryptInit_ex(context.get(), EVP_aes_128_ctr(), nullptr, key.data(), zeroCounter.data()) != 1) {
        return openSslFailure();
    }
    m_context = std::move(context);
    return 0;
}

int AesCtr64::encrypt(const std::uint8_t* source, std::uint8_t* destination, std::int64_t length,
                      std::span<std::uint8_t, 16> counter) {
    if (length < 0) return kNegativeLength;
    if (!m_context) return kNoKey;
    std::size_t remaining = static_cast<std::size_t>(length);
    std::array<std::uint8_t, kBlock> block;
    std::copy(counter.begin(), counter.end(), block.begin());
    std::uint64_t low = loadBigEndian64(block.data() + 8);
    while (remaining > 0) {
        // OpenSSL increments all 128 bits, so a run stops at the block whose low half is all ones and the next
        // run starts again from low half zero with the high half as it was.
        const std::uint64_t blocksToWrap = 0 - low;  // 0 stands for 2^64: no wrap within reach
        const std::size_t blocks = remaining / kBlock + (remaining % kBlock != 0 ? 1 : 0);
        std::size_t run = remaining;
        if (blocksToWrap != 0 && blocks > blocksToWrap) run = static_cast<std::size_t>(blocksToWrap) * kBlock;
        storeBigEndian64(block.data() + 8, low);
        // Only a new counter: the key schedule in the context is kept.
        if (EVP_EncryptInit_ex(m_context.get(), nullptr, nullptr, nullptr, block.data()) != 1) return openSslFailure();
        for (std::size_t done = 0; done < run;) {
            const std::size_t piece = std::min(run - done, kMaxPiece);
            int written = 0;
            if (EVP_EncryptUpdate(m_context.get(), destination + done, &written, source + done,
                                  static_cast<int>(piece)) != 1 ||
                written != static_cast<int>(piece)) {
                return openSslFailure();
            }
            done += piece;
        }
        source += run;
        destination += run;
        remaining -= run;
        low += run / kBlock + (run % kBlock != 0 ? 1 : 0);
    }
    storeBigEndian64(counter.data() + 8, low);
    return 0;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
