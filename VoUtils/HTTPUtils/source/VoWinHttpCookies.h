// Cookies of a WinHTTP request and its response, byte for byte. The WinHTTP transport uses it.
#pragma once

#include <VoWinHttpInterface.h>

#include <string>

namespace VoHTTPMessageWinHTTP
{
// Adds a Cookie header with the store's text (VoCookieBytes.h), as bytes. Where the platform takes only text, a cookie whose
// text is not safe to convert (VoIsSafeHeaderText) is left out, and reported.
[[nodiscard]] HRESULT VoSetCookies(const VoWinHttpInterface::WinHttpRequestHandle& request, const std::wstring& cookies);

// The store's text of Set-Cookie header number `index`, from 0. False: there is none. Where the bytes cannot be told from the
// platform's text, the value is empty, which no store takes.
[[nodiscard]] bool VoReadSetCookie(const VoWinHttpInterface::WinHttpRequestHandle& request, DWORD index, std::wstring& value);
} // namespace VoHTTPMessageWinHTTP
