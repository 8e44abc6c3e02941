#include "packaging/kms_clients/kms_exception.h"

#include <utility>

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

KmsException::KmsException(std::string message) : CorvaneException(std::move(message)) {}
KmsException::~KmsException() = default;

KmsConnectionException::KmsConnectionException(std::string message) : KmsException(std::move(message)) {}
KmsConnectionException::~KmsConnectionException() = default;

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
