#pragma once
// The keystream computed apart from the library: each counter block (two big-endian halves) through AES-128-ECB.
#include <openssl/evp.h>

#include <cstdint>
#include <vector>

#include "packaging/encryption/i_encryption_provider.h"

namespace testkit {

inline std::vector<std::uint8_t> counterBlock(std::uint64_t high, std::uint64_t low) {
    std::vector<std::uint8_t> b(16);
    for (std::size_t i = 0; i < 16; ++i) b[i] = static_cast<std::uint8_t>((i < 8 ? high : low) >> (56 - 8 * (i % 8)));
    return b;
}

inline std::vector<std::uint8_t> ecbEncrypt(const tvrn::encoding::packaging::encryption::ContentKey& key,
                                            const std::vector<std::uint8_t>& block) {
    std::vector<std::uint8_t> out(16);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int written = 0;
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ecb(), nullptr, key.data(), nullptr);
    EVP_EncryptUpdate(ctx, out.data(), &written, block.data(), 16);
    EVP_CIPHER_CTX_free(ctx);
    return out;
}

// `plain` XORed with the keystream of blocks (high, low), (high, low + 1), ...: the low half wraps by itself.
inline std::vector<std::uint8_t> referenceCtr(const tvrn::encoding::packaging::encryption::ContentKey& key,
                                              std::uint64_t high, std::uint64_t low, std::vector<std::uint8_t> data) {
    std::vector<std::uint8_t> keystream;
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (i % 16 == 0) keystream = ecbEncrypt(key, counterBlock(high, low + i / 16));
        data[i] ^= keystream[i % 16];
    }
    return data;
}

}  // namespace testkit
