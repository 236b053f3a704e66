// What WinHTTP tells about the connection of a request; see VoWinHttpTrace.h.
#include "VoWinHttpTrace.h"

#include <VoNetworkUtils.h>

#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

namespace VoHTTPMessageWinHTTP
{
HRESULT VoReadLocalAddress(const VoWinHttpInterface::WinHttpRequestHandle& request, std::wstring& text)
{
    constexpr CVoReporter report{ L"..\\source\\VoHTTPMessageWinHTTP",
                                  L"CVoHTTPMessageWinHTTP::CHTTPRequestDataWinHTTP::FillLocalIPAddress" };
    WINHTTP_CONNECTION_INFO info{};
    info.cbSize = sizeof info;
    DWORD length = sizeof info;
    if (const HRESULT hr = request.QueryOption(WINHTTP_OPTION_CONNECTION_INFO, &info, length); FAILED(hr))
        return report(120, hr);
    // Only the family IPv4 is known here. Another one is no fault, so it is not reported.
    if (info.LocalAddress.ss_family != AF_INET)
        return E_INVALIDARG;
    VoNetworkUtils::CVoIPAddress address;
    bool taken = false;
    if (const HRESULT hr = address.InitFromIPAddress(reinterpret_cast<const SOCKADDR&>(info.LocalAddress), false, taken);
        FAILED(hr))
        return report(128, hr);
    text = address.Text();
    return S_OK;
}

void VoNoteNotification(CVoConnectionTrace& trace, bool isSecure, DWORD status, const void* information, DWORD length) noexcept
try
{
    switch (status)
    {
    case WINHTTP_CALLBACK_STATUS_RESOLVING_NAME:
        if (information)
            trace.resolved = static_cast<const wchar_t*>(information);
        break;
    case WINHTTP_CALLBACK_STATUS_NAME_RESOLVED:
        trace.OnNameResolved();
        break;
    case WINHTTP_CALLBACK_STATUS_CONNECTING_TO_SERVER:
        if (information)
            trace.addresses.emplace_back(static_cast<const wchar_t*>(information));
        break;
    case WINHTTP_CALLBACK_STATUS_CONNECTED_TO_SERVER:
        trace.OnConnected();
        if (information)
            trace.remoteAddress = static_cast<const wchar_t*>(information);
        break;
    case WINHTTP_CALLBACK_STATUS_SENDING_REQUEST:
        trace.OnSending(isSecure);
        break;
    case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
        trace.sent = VoGetMicroseconds();
        break;
    case WINHTTP_CALLBACK_STATUS_RESPONSE_RECEIVED:
    case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
        trace.OnResponse();
        break;
    case WINHTTP_CALLBACK_STATUS_SECURE_FAILURE:
        if (information && length >= sizeof(DWORD))
            trace.secureFailure = *static_cast<const DWORD*>(information);
        break;
    default:
        break;
    }
}
catch (...)
{
    // No memory for an address: the request goes on, its record lacks it.
}
} // namespace VoHTTPMessageWinHTTP
