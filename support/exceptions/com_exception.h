#pragma once
// A failure of a media-graph call: the message, the result code, the failed operation and where it failed.
#include <optional>
#include <string>

#include "support/exceptions/corvane_exception.h"
#include "support/exceptions/result_codes.h"

class COMException : public CorvaneException {
public:
    // A failure with a result code: reported in the category "COM Error".
    COMException(std::string message, tvrn::com::HRESULT code, std::string operation, std::string place);
    // A failure without a result code: reported in the category "Corvane Error".
    COMException(std::string message, std::string operation, std::string place);

    // One report text for logs: category, operation, place, the text of the result code, and the message.
    virtual std::string report() const;

    const std::optional<tvrn::com::HRESULT>& code() const { return m_code; }
    const std::string& operation() const { return m_operation; }
    const std::string& place() const { return m_place; }

private:
    std::optional<tvrn::com::HRESULT> m_code;
    std::string m_operation;
    std::string m_place;
};
