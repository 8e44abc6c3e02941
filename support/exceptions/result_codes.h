#pragma once
// Result codes of the filter boundary, with the numbers of the media-graph platform.
#include <cstdint>
#include <string>

namespace tvrn::com {

using HRESULT = std::int32_t;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
inline constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
inline constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
inline constexpr HRESULT VFW_E_NOT_CONNECTED = static_cast<HRESULT>(0x80040209u);
inline constexpr HRESULT VFW_E_ALREADY_CONNECTED = static_cast<HRESULT>(0x80040204u);
inline constexpr HRESULT VFW_E_TYPE_NOT_ACCEPTED = static_cast<HRESULT>(0x8004022Au);
inline constexpr HRESULT VFW_E_WRONG_STATE = static_cast<HRESULT>(0x80040227u);
inline constexpr HRESULT VFW_E_SAMPLE_TIME_NOT_SET = static_cast<HRESULT>(0x80040249u);
inline constexpr HRESULT VFW_E_MEDIA_TIME_NOT_SET = static_cast<HRESULT>(0x80040251u);
inline constexpr HRESULT VFW_E_BUFFER_OVERFLOW = static_cast<HRESULT>(0x8004020Du);
inline constexpr HRESULT VFW_E_TIMEOUT = static_cast<HRESULT>(0x8004022Eu);
inline constexpr HRESULT VFW_S_NO_STOP_TIME = static_cast<HRESULT>(0x00040270u);

inline constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
inline constexpr bool FAILED(HRESULT hr) { return hr < 0; }

// Size of the buffer that the platform's error-text lookup fills.
inline constexpr std::size_t kErrorTextBufferSize = 160;

// The text of a media-graph result code, cut to fit the lookup's buffer;
// "Invalid error code" for a code that the lookup does not know.
std::string resultCodeText(HRESULT hr);

}  // namespace tvrn::com
