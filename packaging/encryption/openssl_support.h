#pragma once
// What the AES modes share of OpenSSL's EVP interface: the block size, the longest run one update takes (its
// length is an int), and the error code a failed call reports.
#include <openssl/err.h>

#include <cstddef>

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {
namespace openssl_support {

inline constexpr std::size_t kBlock = 16;
// Longer runs go in pieces of whole blocks; the counter or the chain carries on between pieces.
inline constexpr std::size_t kMaxPiece = std::size_t{1} << 30;

// The reason of OpenSSL's oldest queued error (the queue is emptied), or 1 when it queued none.
inline int failure() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const int reason = code == 0 ? 0 : ERR_GET_REASON(code);
    return reason > 0 ? reason : 1;
}

}  // namespace openssl_support
}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
