// WinINet's handles, and what the WinINet transport asks of a response and of its connection. It reports under the transport's
// source name, so its trace points share the transport's numbers. Brings wininet.h in, which must not meet winhttp.h in one
// file.
#pragma once

#include "VoExchangeText.h"

#include <base/VoErrorHandler.h>
#include <base/VoPlatform.h>

#include <wininet.h>

#include <string>

namespace VoHTTPMessageWinINet
{
inline constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessageWinINet";

// The transport core follows redirects.
inline constexpr DWORD kRequestFlags = INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_KEEP_CONNECTION |
                                       INTERNET_FLAG_NO_COOKIES | INTERNET_FLAG_NO_AUTO_REDIRECT;

// Owns one WinINet handle.
class CInternetHandle
{
public:
    CInternetHandle() noexcept = default;
    explicit CInternetHandle(HINTERNET handle) noexcept : m_handle(handle) {}
    CInternetHandle(CInternetHandle&& other) noexcept;
    CInternetHandle& operator=(CInternetHandle&& other) noexcept;
    CInternetHandle(const CInternetHandle&) = delete;
    CInternetHandle& operator=(const CInternetHandle&) = delete;
    // Closes the handle; a failure is reported.
    ~CInternetHandle();

    // Closes the handle. It is dropped in any case. S_OK when there is none.
    [[nodiscard]] HRESULT Close() noexcept;
    [[nodiscard]] HINTERNET Get() const noexcept { return m_handle; }
    [[nodiscard]] explicit operator bool() const noexcept { return m_handle != nullptr; }

private:
    HINTERNET m_handle = nullptr;
};

// The text of an option. False when the query failed: the last error says why, and the text is empty. No other copy of the text
// is left in memory, because it may be a password.
[[nodiscard]] bool QueryOptionText(HINTERNET handle, DWORD option, std::wstring& text);

// The response header number `index` of a name, from 0, in the bytes that were received. False when there is none.
[[nodiscard]] bool QueryHeaderBytes(HINTERNET request, const char* name, DWORD index, std::string& value);

// Whether the session uses a proxy that the system's settings name.
[[nodiscard]] bool HasNamedProxy(HINTERNET session) noexcept;

// The status of the request's response. A failure is reported at `line`, one without an error number at `lineWhenZero`.
[[nodiscard]] HRESULT QueryStatus(HINTERNET request, UINT32& status, const CVoReporter& report, int line,
                                  int lineWhenZero) noexcept;

// What Connect asks of the certificate of a request's target.
struct CCertificateSwitches
{
    bool verifies = true;
    bool checksRevocation = true;
};
// Passes over a certificate error as far as the switches allow. S_OK: the request may be tried again. Otherwise the error,
// which is reported.
[[nodiscard]] HRESULT WidenSecurity(HINTERNET request, const CCertificateSwitches& switches, DWORD error) noexcept;

// Notes what WinINet notifies about a request in a trace while the object exists. WinINet may notify on any thread; the last
// notification has returned when the destructor returns.
class CStatusObservation
{
public:
    // `request` is the handle. Without memory nothing is noted.
    CStatusObservation(HINTERNET request, CVoConnectionTrace& trace, bool isSecure) noexcept;
    ~CStatusObservation();
    CStatusObservation(const CStatusObservation&) = delete;
    CStatusObservation& operator=(const CStatusObservation&) = delete;

    // The callback for InternetSetStatusCallbackW. It knows requests by their handle: a context value would have to be valid
    // also for a late notification.
    static void CALLBACK Callback(HINTERNET handle, DWORD_PTR context, DWORD status, void* information, DWORD length) noexcept;

private:
    const CVoConnectionTrace* m_trace;
};

// Traces the two ends of the request's connection and the size of its send buffer. Returns the client's address; empty where
// the platform shows no socket.
[[nodiscard]] std::wstring internalGetClientIPAddressAndSendBufferSize(HINTERNET request);
} // namespace VoHTTPMessageWinINet
