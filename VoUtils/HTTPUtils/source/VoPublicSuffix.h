// Knows the public suffixes: the domains below which anybody can register names, such as "co.uk" and "github.io". A cookie for
// such a domain would go to hosts of strangers, so the cookie store refuses it.
#pragma once

#include <string_view>

// Whether the whole domain is a public suffix, by the algorithm and the list of https://publicsuffix.org, with its private
// section. `domain` is canonical (VoCanonicalHost); one dot at its end is ignored. A single label is always a public suffix.
[[nodiscard]] bool VoIsPublicSuffix(std::wstring_view domain) noexcept;
