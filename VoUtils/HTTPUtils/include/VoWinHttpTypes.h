// The types that the owner of a WinHTTP exchange and the exchange itself share: the exception that carries a failure, and the
// functions that the exchange calls. Callers get them through VoWinHttpRequest.h.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <array>
#include <charconv>
#include <functional>
#include <string>
#include <string_view>

namespace VoWinHttpRequest
{
// Carries the failure of an exchange from WinHTTP's threads to the waiting caller.
class HRESULTexc : public CVoHResultException
{
public:
    explicit HRESULTexc(HRESULT result) noexcept : CVoHResultException(result)
    {
        std::to_chars(m_message.data() + kPrefix.copy(m_message.data(), kPrefix.size()),
                      m_message.data() + m_message.size() - 1, result);
    }
    ~HRESULTexc() override = default;

    // "HRESULT " and the code as a decimal number.
    [[nodiscard]] const char* what() const noexcept override { return m_message.data(); }

private:
    static constexpr std::string_view kPrefix = "HRESULT ";
    std::array<char, kPrefix.size() + sizeof("-2147483648")> m_message{};
};

// The functions that an exchange calls. Each runs on one of WinHTTP's threads and may block that thread. It may clear or
// destroy the exchange and everything that the exchange uses. It must not wait for the exchange's status or body, nor for
// another thread that clears or destroys the exchange. A failure code, or an exception, ends the exchange with that failure.

// Called when a server or proxy demands credentials (401, 407). `authTarget`: WINHTTP_AUTH_TARGET_SERVER or _PROXY. The schemes
// are WINHTTP_AUTH_SCHEME_... values. `url`: the name that WinHTTP resolved last, or the URL that it was redirected to last;
// empty when WinHTTP reported neither, as on a connection that was open already. `context`: the value that Init was given.
// When the chosen scheme is not among the supported ones, the challenge stays without a reply and the exchange waits until it
// is closed; a function that has no credentials returns a failure instead. Each further challenge calls the function again,
// without a limit. But the same scheme, user and password for two challenges of the same target in a row end the exchange with
// 0x800704C7 (HRESULT_FROM_WIN32(ERROR_CANCELLED)), because the target has just rejected them.
using AuthenticationFunction =
    std::function<HRESULT(DWORD authTarget, DWORD supportedSchemes, DWORD firstScheme, const std::wstring& url,
                          DWORD& chosenScheme, std::wstring& user, std::wstring& password, void* context)>;

// Called when the request has been sent, with the arguments of WinHTTP's notification.
using SendCompleteHandler = std::function<HRESULT(DWORD status, void* information, DWORD length)>;

// Called for each notification of WinHTTP that the exchange serves, before the exchange acts on it. It must not block.
using NotificationHandler = std::function<void(DWORD status, const void* information, DWORD length)>;

// Called for each piece of the response body that has arrived. `length` in bytes.
using ReceiveHandler = std::function<HRESULT(DWORD length)>;
} // namespace VoWinHttpRequest
