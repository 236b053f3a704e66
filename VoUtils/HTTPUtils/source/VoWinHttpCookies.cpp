// Cookies of a WinHTTP request and its response, byte for byte; see VoWinHttpCookies.h.
#include "VoWinHttpCookies.h"

#include "VoCookieBytes.h"

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <string_view>

namespace VoHTTPMessageWinHTTP
{
namespace
{
constexpr std::wstring_view kSeparator = L"; ";

// The cookies that WinHTTP may turn into bytes by itself.
std::wstring SafeCookies(std::wstring_view cookies)
{
    constexpr CVoReporter report{ L"..\\source\\VoHTTPMessageWinHTTP", L"CVoHTTPMessageWinHTTP::SetCookie" };
    std::wstring all;
    while (!cookies.empty())
    {
        const size_t end = cookies.find(kSeparator);
        if (const std::wstring_view cookie = cookies.substr(0, end); VoIsSafeHeaderText(cookie))
            all.append(all.empty() ? std::wstring_view() : kSeparator).append(cookie);
        else
            report(375, HRESULT_FROM_WIN32(ERROR_NO_UNICODE_TRANSLATION));
        cookies = end == std::wstring_view::npos ? std::wstring_view() : cookies.substr(end + kSeparator.size());
    }
    return all;
}
} // namespace

HRESULT VoSetCookies(const VoWinHttpInterface::WinHttpRequestHandle& request, const std::wstring& cookies)
{
    if (VoIsAscii(cookies))
        return request.SetCookieString(cookies);
    const HRESULT hr = request.AddHeaderBytes("Cookie", VoCookieBytesFromText(cookies).c_str(), WINHTTP_ADDREQ_FLAG_ADD);
    if (hr != S_FALSE)
        return hr;
    const std::wstring text = SafeCookies(cookies);
    return text.empty() ? S_OK : request.SetCookieString(text);
}

bool VoReadSetCookie(const VoWinHttpInterface::WinHttpRequestHandle& request, DWORD index, std::wstring& value)
{
    std::string bytes;
    if (SUCCEEDED(request.QueryCookieBytes(index, bytes)))
    {
        value = VoCookieTextFromBytes(bytes);
        return true;
    }
    DWORD position = index;
    std::wstring text;
    if (FAILED(request.QueryCookie(&text, &position)))
        return false;
    const auto narrow = VoNarrowHeader(text);
    value = narrow ? VoCookieTextFromBytes(*narrow) : std::wstring();
    return true;
}
} // namespace VoHTTPMessageWinHTTP
