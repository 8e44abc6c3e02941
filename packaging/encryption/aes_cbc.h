#pragma once
// AES-128 in CBC mode with pattern encryption over one protected range: a repeating pattern of `crypt` encrypted
// 16-byte blocks then `skip` blocks left as they are. The encrypted blocks form one CBC chain that starts from the
// IV at the range's start and runs across the skipped blocks; a trailing partial block stays clear. One OpenSSL
// cipher context holds the expanded key; each range only loads the IV into it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "packaging/encryption/i_encryption_provider.h"

struct evp_cipher_ctx_st;

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

class AesCbcPattern {
public:
    // What encrypt answers besides success (0) and OpenSSL's reason codes.
    static constexpr int kNoKey = -2;

    AesCbcPattern();
    ~AesCbcPattern();
    AesCbcPattern(AesCbcPattern&&) noexcept;
    AesCbcPattern& operator=(AesCbcPattern&&) noexcept;

    // Expands `key` into a new context; the previous one stays in force when this fails. 0 or an error code.
    int setKey(const ContentKey& key);
    bool hasKey() const { return m_context != nullptr; }

    // Encrypts `length` bytes in place from the chain start `iv`. A pattern of 0 encrypted blocks (0:0) encrypts
    // every whole block. 0 on success, kNoKey before anything is written, or OpenSSL's reason code.
    int encrypt(std::uint8_t* data, std::size_t length, std::uint8_t crypt, std::uint8_t skip,
                std::span<const std::uint8_t, 16> iv);

private:
    struct ContextDeleter {
        void operator()(evp_cipher_ctx_st* context) const;
    };
    std::unique_ptr<evp_cipher_ctx_st, ContextDeleter> m_context;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
