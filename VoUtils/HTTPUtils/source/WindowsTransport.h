// What the two transports on the platform's own HTTP services have in common. It includes neither service's header, which do
// not go together in one source file.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <cerrno>
#include <cwchar>
#include <optional>
#include <string>

namespace WindowsTransport
{
inline constexpr UINT32 kStatusOk = 200;

// A time-out as the services take it.
[[nodiscard]] constexpr DWORD Milliseconds(UINT32 seconds) noexcept
{
    constexpr UINT32 kPerSecond = 1000;
    return seconds <= MAXDWORD / kPerSecond ? seconds * kPerSecond : MAXDWORD;
}

// The value of a Content-Length header (RFC 9110, section 8.6); nothing where it is no number.
[[nodiscard]] inline std::optional<UINT64> ParseLength(const std::wstring& text) noexcept
{
    if (text.empty() || text.find_first_not_of(L"0123456789") != std::wstring::npos)
        return std::nullopt;
    errno = 0;
    const unsigned long long value = std::wcstoull(text.c_str(), nullptr, 10);
    return errno == 0 ? std::optional<UINT64>(value) : std::nullopt;
}

// Error numbers of both services (the platform's "Error messages" pages of WinHTTP and WinINet agree on them).
inline constexpr DWORD kErrorInvalidOption = 12009;    // no such option
inline constexpr DWORD kErrorInvalidOperation = 12016; // not with this handle

// Whether a failed SetOption merely refused a tuning: a limit, say. A request works without it, so a transport passes over it
// (the failure has been traced); any other failure counts, and so does every failure of an option that the request's meaning or
// safety depends on, for which this is not to be asked.
[[nodiscard]] constexpr bool IsRefusedTuning(DWORD error) noexcept
{
    return error == kErrorInvalidOption || error == kErrorInvalidOperation;
}

// The same for an option that may switch a feature off. `value` is what the option was to become: what is to be off needs no
// service that could refuse it, so that an "invalid parameter" for the value 0 is passed over too.
[[nodiscard]] constexpr bool IsRefusedTuning(DWORD error, DWORD value) noexcept
{
    return IsRefusedTuning(error) || (error == ERROR_INVALID_PARAMETER && value == 0);
}

// The same for the code that an option's wrapper gave.
[[nodiscard]] constexpr bool IsRefusedTuning(HRESULT result, DWORD value) noexcept
{
    return FAILED(result) && HRESULT_FACILITY(result) == FACILITY_WIN32 &&
           IsRefusedTuning(static_cast<DWORD>(HRESULT_CODE(result)), value);
}
} // namespace WindowsTransport
