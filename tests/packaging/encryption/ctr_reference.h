#pragma once
// The keystream computed independently of the library: each counter block through plain AES-128-ECB.
#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <vector>

#include "packaging/encryption/i_encryption_provider.h"

namespace testkit {

using Block = std::array<std::uint8_t, 16>;

inline Block ecbEncrypt(const tvrn::encoding::packaging::encryption::ContentKey& key, const Block& in) {
    Block out{};
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int written = 0;
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ecb(), nullptr, key.data(), nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_EncryptUpdate(ctx, out.data(), &written, in.data(), 16);
    EVP_CIPHER_CTX_free(ctx);
    return out;
}

// A counter block from its two big-endian halves.
inline Block counterBlock(std::uint64_t high, std::uint64_t low) {
    Block b{};
    for (int i = 0; i < 8; ++i) {
        b[static_cast<std::size_t>(7 - i)] = static_cast<std::uint8_t>(high >> (8 * i));
        b[static_cast<std::size_t>(15 - i)] = static_cast<std::uint8_t>(low >> (8 * i));
    }
    return b;
}

// `plain` XORed with the keystream of blocks (high, low), (high, low + 1), ...: the low half wraps by itself.
inline std::vector<std::uint8_t> referenceCtr(const tvrn::encoding::packaging::encryption::ContentKey& key,
                                              std::uint64_t high, std::uint64_t low,
                                              const std::vector<std::uint8_t>& plain) {
    std::vector<std::uint8_t> out = plain;
    Block keystream{};
    for (std::size_t i = 0; i < out.size(); ++i) {
        if (i % 16 == 0) keystream = ecbEncrypt(key, counterBlock(high, low + i / 16));
        out[i] ^= keystream[i % 16];
    }
    return out;
}

}  // namespace testkit
