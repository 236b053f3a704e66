// The rules of redirects. The transport core follows redirects for WinHTTP and WinINet by them, and the libcurl transport holds
// libcurl to them.
#pragma once

#include <VoServerAddress.h>

#include <string_view>

// The longest chain of redirects. Later releases of libcurl have this limit by themselves.
inline constexpr int kVoMaximumRedirects = 30;

// Whether a status redirects a request (RFC 9110, section 15.4). Other statuses of the form 3xx mean something else.
[[nodiscard]] constexpr bool VoIsRedirect(UINT32 status) noexcept
{
    return (status >= 301 && status <= 303) || status == 307 || status == 308;
}

// Whether a redirect may lead from one address to another. What was sent over TLS stays off plain connections, as the
// platform's own policy has it (WINHTTP_OPTION_REDIRECT_POLICY_DISALLOW_HTTPS_TO_HTTP).
[[nodiscard]] constexpr bool VoMayRedirect(bool fromSecure, bool toSecure) noexcept
{
    return toSecure || !fromSecure;
}

// Resolves the value of a Location header against the address whose response carried it (RFC 3986, section 5.2; the fragment is
// dropped). The platform's own parsers disagree on the host of unusual texts. So a text that two readers could take for
// different hosts is refused with E_INVALIDARG: a scheme other than http and https, or one that "//" does not follow; an
// authority with user information, "%", blanks, control or non-ASCII characters; a backslash in front of the query; a control
// character anywhere; a relative path with ":" in its first segment; an empty text. `target` is untouched on failure.
[[nodiscard]] HRESULT VoResolveRedirect(const CServerAddressData& base, std::wstring_view location,
                                        CServerAddressData& target) noexcept;
