#pragma once
// A generated SOAP proxy that sends its request nowhere and reads its answer (HTTP response and envelope) from a
// fuzzer's bytes instead of a socket, with the answer limit every client has.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "packaging/kms_clients/soap_transport.h"

namespace fuzzkit {

struct SoapAnswer {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
};

inline SOAP_SOCKET openNowhere(struct soap*, const char*, const char*, int) { return 3; }
inline int sendNowhere(struct soap*, const char*, std::size_t) { return SOAP_OK; }
inline int closeNothing(struct soap*) { return SOAP_OK; }
inline std::size_t receiveAnswer(struct soap* soap, char* buffer, std::size_t length) {
    auto* answer = static_cast<SoapAnswer*>(soap->user);
    const std::size_t n = std::min(length, answer->size - answer->at);
    std::memcpy(buffer, answer->data + answer->at, n);
    answer->at += n;
    return n;
}

template <class Proxy>
void answerFrom(Proxy& proxy, SoapAnswer& answer) {
    tvrn::encoding::packaging::kms_clients::limitSoapAnswers(proxy.soap);
    proxy.soap->user = &answer;
    proxy.soap->fopen = openNowhere;
    proxy.soap->fsend = sendNowhere;
    proxy.soap->frecv = receiveAnswer;
    proxy.soap->fclose = closeNothing;
    proxy.soap_endpoint = "http://127.0.0.1:9/key";
}

}  // namespace fuzzkit
