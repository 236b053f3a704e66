// Hands the cookies that a person's browsing has set to the library's cookie store.
#pragma once

#include "VoBrowserPolicy.h"

#include <VoHTTPStores.h>

#include <string>
#include <vector>

// The values of Set-Cookie that give a store the cookies that WinINet, the embedded browser's cookie jar, sends to `address`,
// HttpOnly ones included. WinINet tells names and values only. Therefore:
// - the path is the shortest one, beginning with that of the host's root, to which WinINet sends the cookie;
// - the cookie is for the address's host alone, and for the session;
// - over https the cookie becomes secure.
// So no cookie goes to a place to which the browser would not have sent it. Empty when there are none. Throws std::bad_alloc.
[[nodiscard]] std::vector<std::wstring> VoBrowserCookiesOf(const CVoBrowserAddress& address);

// Adds these cookies to `store`. One that the store refuses is left out. Returns how many it took. Throws std::bad_alloc.
size_t VoHandOverBrowserCookies(const CVoBrowserAddress& address, IVoHTTPCookieStore& store);
