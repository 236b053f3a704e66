// Reads proxy lists and bypass lists, as the Internet settings and the proxy discovery of the platform write them (platform
// documentation of WINHTTP_PROXY_INFO and WinHttpOpen). The proxy store uses it; so does an application that lets its user
// enter such lists. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VoProxyList
{
// A proxy list is entries between semicolons or white space. An entry is
//
//     [<scheme> "="] [<prefix> "://"] <host> [":" <port>] ["/"]
//
// White space may stand around the "=". <scheme> is the scheme of the requests that the proxy serves; an entry without one
// serves every scheme. <prefix> is the protocol that the proxy speaks; the library speaks to proxies by "http" only. Without a
// port it is 80.
//
// An entry for http or https requests is unusable when it is malformed or its prefix is not "http"; an entry with the scheme
// "socks" always is. Entries for other schemes (ftp) are not looked at, because the library sends no such requests.

// Why an entry is unusable.
struct CUnusableEntry
{
    size_t number;         // the entry's place in the list, from 1
    const wchar_t* reason; // English, for logs and error messages: "it is malformed"
};
// A list taken apart.
struct CContent
{
    std::wstring plain;                   // the first proxy for http requests, as "host:port"; empty for none
    std::wstring secure;                  // the first proxy for https requests
    std::vector<CUnusableEntry> unusable; // in the order of the list
    std::wstring usable;                  // the list without its unusable entries
};
// Throws std::bad_alloc.
[[nodiscard]] CContent Read(std::wstring_view list);

// The first usable proxy of a list for requests of one scheme, https or http, as "host:port"; empty for none. Throws
// std::bad_alloc.
[[nodiscard]] std::wstring ProxyForScheme(std::wstring_view list, bool secure);

// The proxy of a list in the same form, when the list has the same proxy for both schemes or a proxy for one scheme only; else
// empty. Throws std::bad_alloc.
[[nodiscard]] std::wstring OnlyProxy(std::wstring_view list);

// Why an application cannot use a list: its first unusable entry, or entry 0 for a list without a proxy for http and https.
// Nothing for a good list, and for an empty text, which means no proxy. Throws std::bad_alloc.
[[nodiscard]] std::optional<CUnusableEntry> FindProblem(std::wstring_view list);

// Whether a bypass list sends requests to `host` directly. `host` is a name or an address, without brackets. The list's items
// stand between white space, commas or semicolons and are compared without regard to case. Each is a whole host name or
// address, in which "*" stands for any characters. When the list contains "<local>", host names without a dot are bypassed too.
[[nodiscard]] bool IsBypassed(std::wstring_view bypassList, std::wstring_view host) noexcept;
// The item of the list that does so, as it stands there ("<local>" or a part of `bypassList`); empty when there is none.
[[nodiscard]] std::wstring_view FindBypass(std::wstring_view bypassList, std::wstring_view host) noexcept;
// Whether a bypass list is "*" alone: no request uses the proxy.
[[nodiscard]] bool BypassesAll(std::wstring_view bypassList) noexcept;
} // namespace VoProxyList
