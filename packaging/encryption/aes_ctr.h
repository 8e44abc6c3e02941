#pragma once
// AES-128 in counter mode over 16-byte counter blocks whose low 64 bits count blocks big-endian and wrap to zero
// without carrying into the high 64 bits. One OpenSSL cipher context holds the expanded key; it is made when a
// key is installed and reused for every call, which only loads a new counter into it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "packaging/encryption/i_encryption_provider.h"

struct evp_cipher_ctx_st;

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

class AesCtr64 {
public:
    // What encrypt answers besides success (0); any other value is OpenSSL's reason code of the failure.
    static constexpr int kNegativeLength = -1;
    static constexpr int kNoKey = -2;

    AesCtr64();
    ~AesCtr64();
    AesCtr64(AesCtr64&&) noexcept;
    AesCtr64& operator=(AesCtr64&&) noexcept;

    // Expands `key` into a new context; the previous one stays in force when this fails. 0 or an error code.
    int setKey(const ContentKey& key);
    bool hasKey() const { return m_context != nullptr; }

    // Encrypts `length` bytes from `source` into `destination` (the same pointer for in place) with the keystream
    // starting at `counter`, and leaves in `counter` the block that would come next: a partial last block counts
    // whole. 0 on success; kNegativeLength and kNoKey before anything is written; an OpenSSL reason code when
    // the cipher fails, the destination then partly written and the counter unchanged.
    int encrypt(const std::uint8_t* source, std::uint8_t* destination, std::int64_t length,
                std::span<std::uint8_t, 16> counter);

private:
    struct ContextDeleter {
        void operator()(evp_cipher_ctx_st* context) const;
    };
    std::unique_ptr<evp_cipher_ctx_st, ContextDeleter> m_context;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
