// What the two transports on the platform's own HTTP services share. It includes neither service's header, because the two must
// not meet in one file.
#pragma once

#include "VoExchangeText.h"

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <string>

namespace WindowsTransport
{
inline constexpr DWORD kMaximumConnections = 128; // that a service may have to one server or proxy

// Whether a body comes too slowly. The services' time-out is for each piece, so a server that sends a byte now and then would
// keep the caller for ever. A body may take the request time-out and one second more for each KiB that has come. Times: from
// its first piece on, in microseconds; a time-out of 0 seconds is none.
[[nodiscard]] constexpr bool IsTooSlow(INT64 elapsed, UINT64 received, UINT32 requestTimeout) noexcept
{
    constexpr UINT64 kLeastBytesPerSecond = 1024;
    constexpr INT64 kMicroseconds = 1'000'000;
    return requestTimeout != 0 &&
           elapsed / kMicroseconds > static_cast<INT64>(requestTimeout + received / kLeastBytesPerSecond);
}

// Error numbers of both services (the platform's "Error messages" pages of WinHTTP and WinINet agree on them).
inline constexpr DWORD kErrorTimeout = 12002;
inline constexpr DWORD kErrorInvalidOption = 12009;    // no such option
inline constexpr DWORD kErrorInvalidOperation = 12016; // not with this handle

// Whether a failed SetOption refused a limit, which a request works without: the service does not know it, or not for this
// handle. Any other failure counts. Do not ask this for an option that a request's meaning or safety needs.
[[nodiscard]] constexpr bool IsRefusedLimit(DWORD error) noexcept
{
    return error == kErrorInvalidOption || error == kErrorInvalidOperation;
}

// Whether a failed SetOption refused no more than to disable a feature: the service does not know the feature, or takes no
// empty set of features (ERROR_INVALID_PARAMETER). Both are harmless.
[[nodiscard]] constexpr bool IsRefusedSwitchOff(HRESULT result) noexcept
{
    return result == HResultFromWin32(kErrorInvalidOption) || result == HResultFromWin32(kErrorInvalidOperation) ||
           result == HResultFromWin32(ERROR_INVALID_PARAMETER);
}

// Why a call of a service failed. `isSending`: the request had begun to leave. `secureFailure`: the flags of WinHTTP's
// WINHTTP_CALLBACK_STATUS_SECURE_FAILURE, 0 where there were none.
[[nodiscard]] CVoFailure ExplainError(HRESULT result, bool isConnected, bool isSending, bool usesProxy, DWORD secureFailure);

// Takes a response's header as text when it has `maximum` bytes at most. `query` is called with a buffer and its size in bytes.
// It writes the header with its end and sets the size without the end. When the buffer is too small, it sets the size with the
// end and returns false. Returns the length of the header in bytes as received; 0 where there is none. Keeps the last error.
template <class Query>
[[nodiscard]] size_t ReadHeader(Query query, size_t maximum, std::wstring& header)
{
    constexpr size_t kUsualHeader = 1024; // characters
    const CVoLastErrorKeeper keeper;
    header.resize(kUsualHeader);
    for (;;)
    {
        auto bytes = static_cast<DWORD>(header.size() * sizeof(wchar_t));
        const DWORD room = bytes;
        const bool isThere = query(header.data(), bytes);
        const size_t length = bytes / sizeof(wchar_t);
        if (isThere && length <= maximum)
        {
            header.resize(length);
            return length;
        }
        const bool isLarger = !isThere && ::GetLastError() == ERROR_INSUFFICIENT_BUFFER && bytes > room;
        if (!isLarger || length - 1 > maximum)
        {
            header.clear();
            if (isThere)
                return length;
            return isLarger ? length - 1 : 0;
        }
        header.resize(length);
    }
}
} // namespace WindowsTransport
