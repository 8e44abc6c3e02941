#include "support/exceptions/com_exception.h"

#include <cstdio>

COMException::COMException(std::string message, tvrn::com::HRESULT code, std::string operation, std::string place)
    : CorvaneException(std::move(message)), m_code(code), m_operation(std::move(operation)), m_place(std::move(place)) {}

COMException::COMException(std::string message, std::string operation, std::string place)
    : CorvaneException(std::move(message)), m_operation(std::move(operation)), m_place(std::move(place)) {}

std::string COMException::report() const {
    std::string out = m_code ? "COM Error" : "Corvane Error";
    out += ": operation [" + m_operation + "] failed at [" + m_place + "]";
    if (m_code) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(*m_code));
        out += " with ";
        out += hex;
        out += " (" + tvrn::com::resultCodeText(*m_code) + ")";
    }
    out += ": ";
    out += what();
    return out;
}
