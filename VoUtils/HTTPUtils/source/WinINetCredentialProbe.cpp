// Asks for credentials before the first request; see WinINetCredentialProbe.h.
#include "WinINetCredentialProbe.h"

#include "VoHTTPTransport.h"
#include "VoUrl.h"
#include "WinINetSupport.h"

#include <base/VoUtils.h>

namespace VoHTTPMessageWinINet
{
namespace
{
constexpr UINT32 kStatusServerError = 500;

constexpr size_t kMaximumProbeBody = size_t{ 64 } * 1024; // bytes of the probe's response that are read
constexpr DWORD kDialogFlags =
    FLAGS_ERROR_UI_FILTER_FOR_ERRORS | FLAGS_ERROR_UI_FLAGS_CHANGE_OPTIONS | FLAGS_ERROR_UI_FLAGS_GENERATE_DATA;

// The invisible owner of the system's dialog, which is not shown without one. The desktop would disable every window.
class CDialogOwner
{
public:
    CDialogOwner() noexcept
        : m_window(::CreateWindowExW(0, L"STATIC", nullptr, WS_POPUP, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr))
    {
    }
    ~CDialogOwner()
    {
        if (m_window)
            ::DestroyWindow(m_window);
    }
    CDialogOwner(const CDialogOwner&) = delete;
    CDialogOwner& operator=(const CDialogOwner&) = delete;

    // The thread's active window where it has one.
    [[nodiscard]] HWND Get() const noexcept
    {
        const HWND active = ::GetActiveWindow();
        return active ? active : m_window;
    }

private:
    HWND m_window;
};
} // namespace

HRESULT CCredentialProbe::SendOnce(UINT32& status) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendProbe" };
    const HINTERNET probe = m_request.Get();
    if (!::HttpSendRequestW(probe, nullptr, 0, nullptr, 0))
    {
        const DWORD error = ::GetLastError();
        if (const HRESULT hr = WidenSecurity(probe, m_switches, error); FAILED(hr))
            return report(450, hr);
        if (!::HttpSendRequestW(probe, nullptr, 0, nullptr, 0))
            return report.LastError(452, 453);
    }
    // Bounded in size and time: the rest of a long response is of no use here.
    const INT64 end = VoGetMicroseconds() + INT64{ m_timeout } * 1'000'000;
    for (size_t received = 0; received < kMaximumProbeBody && VoGetMicroseconds() < end; ++received)
    {
        BYTE byte = 0;
        DWORD read = 0;
        if (!::InternetReadFile(probe, &byte, 1, &read))
            return report.LastError(460, 461);
        if (read == 0)
            break;
    }
    return QueryStatus(probe, status, report, 465, 466);
}

HRESULT CCredentialProbe::Send(HINTERNET connection, bool& isChallenged) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::ProbeForCredentials" };
    std::wstring path;
    if (const HRESULT hr = VoEncodeUrl(m_server.Path(), path); FAILED(hr))
        return report(475, hr);
    const DWORD flags = kRequestFlags | (m_server.IsSecure() ? INTERNET_FLAG_SECURE : 0);
    m_request = CInternetHandle(::HttpOpenRequestW(connection, L"POST", path.c_str(), L"HTTP/1.0", nullptr, nullptr, flags, 0));
    if (!m_request)
        return report.LastError(480, 481);
    UINT32 status = 0;
    // Without a response nobody asks for credentials. The request will meet the same failure and return its code.
    if (const HRESULT hr = SendOnce(status); FAILED(hr))
        report(485, hr);
    isChallenged =
        status == CVoHTTPTransport::kStatusUnauthorized || status == CVoHTTPTransport::kStatusProxyAuthenticationRequired;
    return S_OK;
}

HRESULT CCredentialProbe::Ask(std::wstring& user, CVoSecret<wchar_t>& password)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::AskForCredentials" };
    const HINTERNET probe = m_request.Get();
    const CDialogOwner owner;
    const DWORD answer = ::InternetErrorDlg(owner.Get(), probe, ERROR_INTERNET_INCORRECT_PASSWORD, kDialogFlags, nullptr);
    if (answer == ERROR_CANCELLED)
        return S_OK;        // the request will meet the same challenge
    if (answer == MAXDWORD) // the system cannot show the dialog; this is no error number
        return report(508, HResultFromWin32(ERROR_INVALID_WINDOW_HANDLE));
    if (answer != ERROR_SUCCESS && answer != ERROR_INTERNET_FORCE_RETRY)
        return report.Win32(510, 511, answer);

    // Credentials typed for a server leave none for the proxy.
    if (!QueryOptionText(probe, INTERNET_OPTION_PROXY_USERNAME, user))
        report.LastError(513, 514);
    if (!QueryOptionText(probe, INTERNET_OPTION_PROXY_PASSWORD, password.Get()))
        report.LastError(516, 517);
    UINT32 status = 0;
    if (const HRESULT hr = SendOnce(status); FAILED(hr))
        return report(520, hr);
    if (status != CVoHTTPTransport::kStatusOk && status < kStatusServerError)
        return report(525, kResultUnexpectedStatus);
    return S_OK;
}
} // namespace VoHTTPMessageWinINet
