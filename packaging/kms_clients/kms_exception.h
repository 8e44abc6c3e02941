#pragma once
// The failures of the key-server clients. `KmsConnectionException` is a failure of the connection stage (the
// server could not be reached, the TLS handshake failed, a call timed out, a SOAP fault came back); its base
// `KmsException` is any other failure, such as a bad address or an answer the client refuses. Both carry one
// text, which never holds a secret of the operator.
#include <string>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

class KmsException : public cpp_utils::exception_utils::CorvaneException {
public:
    explicit KmsException(std::string message);
    ~KmsException() override;
};

class KmsConnectionException : public KmsException {
public:
    explicit KmsConnectionException(std::string message);
    ~KmsConnectionException() override;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
