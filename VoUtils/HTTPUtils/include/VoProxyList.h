// Proxy lists and bypass lists, as the platform's Internet settings and its proxy discovery write them (the platform's
// documentation of WINHTTP_PROXY_INFO and WinHttpOpen). Pure functions; they throw std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace VoProxyList
{
// The proxy of a list for requests of one scheme, https or http, as "host:port"; empty when the list has none for it.
//
// A list is entries of the form [<scheme>"="][<prefix>"://"]<host>[":"<port>] between blanks or semicolons. The first entry of
// the right scheme is taken; one that names no scheme serves both. The prefix says how the proxy is spoken to and is "http" or
// "https"; a plain connection is made for either, as the platform does. Without a port it is 80. Entries of other schemes
// (ftp, socks) and malformed ones are passed over; so are those with user information, which the notation does not have.
[[nodiscard]] std::wstring ProxyForScheme(std::wstring_view list, bool secure);

// The proxy that a list names, in the same form, when it names no other for either scheme; otherwise empty.
[[nodiscard]] std::wstring OnlyProxy(std::wstring_view list);

// Whether a bypass list sends requests to `host` (a name or an address, without brackets) directly. Items stand between blanks,
// commas or semicolons and are compared without regard to case. "<local>" means every host name without a dot; any other item
// is a whole host name or address, of which "*" stands for any part.
[[nodiscard]] bool IsBypassed(std::wstring_view bypassList, std::wstring_view host) noexcept;
} // namespace VoProxyList
