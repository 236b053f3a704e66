// Where a redirect leads: the one reader of Location for the transports whose redirects the transport core follows.
#pragma once

#include <VoServerAddress.h>

#include <string_view>

// Resolves the value of a Location header against the address whose response carried it (RFC 3986, section 5.2; the fragment is
// dropped). The platform's own parsers disagree on the host of unusual texts. So a text that two readers could take for
// different hosts is refused with E_INVALIDARG: a scheme other than http and https, or one that "//" does not follow; an
// authority with user information, "%", blanks, control or non-ASCII characters; a backslash in front of the query; a control
// character anywhere; a relative path with ":" in its first segment; an empty text. `target` is untouched on failure.
[[nodiscard]] HRESULT VoResolveRedirect(const CServerAddressData& base, std::wstring_view location,
                                        CServerAddressData& target) noexcept;
