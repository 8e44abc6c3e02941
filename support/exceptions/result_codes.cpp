#include "support/exceptions/result_codes.h"

namespace tvrn::com {
namespace {
struct CodeText {
    HRESULT code;
    const char* text;
};

constexpr CodeText kCodeTexts[] = {
    {S_OK, "The operation completed successfully."},
    {S_FALSE, "The operation completed with a false result."},
    {E_NOTIMPL, "The operation is not implemented."},
    {E_NOINTERFACE, "The interface is not supported."},
    {E_POINTER, "A required pointer argument is null."},
    {E_FAIL, "The operation failed for an unspecified reason."},
    {E_UNEXPECTED, "An unexpected failure occurred."},
    {E_OUTOFMEMORY, "Not enough memory to complete the operation."},
    {E_INVALIDARG, "One or more arguments are not valid."},
    {VFW_E_NOT_CONNECTED, "The operation needs a connected pin."},
    {VFW_E_ALREADY_CONNECTED, "The pin is already connected."},
    {VFW_E_TYPE_NOT_ACCEPTED, "The media type is not accepted."},
    {VFW_E_WRONG_STATE, "The operation is not allowed in the filter's current state."},
    {VFW_E_SAMPLE_TIME_NOT_SET, "The sample carries no time."},
    {VFW_E_MEDIA_TIME_NOT_SET, "The sample carries no media time."},
    {VFW_E_BUFFER_OVERFLOW, "The buffer is not large enough."},
    {VFW_E_TIMEOUT, "The operation timed out."},
    {VFW_S_NO_STOP_TIME, "The sample has a start time but no stop time."},
};
}  // namespace

std::string resultCodeText(HRESULT hr) {
    for (const auto& entry : kCodeTexts) {
        if (entry.code == hr) {
            std::string text(entry.text);
            if (text.size() >= kErrorTextBufferSize) text.resize(kErrorTextBufferSize - 1);
            return text;
        }
    }
    return "Invalid error code";
}

}  // namespace tvrn::com
