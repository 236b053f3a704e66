// Encodes URLs for the wire and removes their user information. The transports and the cookie store use it.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <string_view>

// Gives the bytes of a URL: UTF-8, with every character percent-encoded that a URL cannot contain (RFC 3986, appendix A).
// Characters that are encoded already stay as they are. The platform's error for text that is not well-formed UTF-16.
[[nodiscard]] HRESULT VoUrlToBytes(std::wstring_view url, std::string& bytes) noexcept;
// The same as UTF-16 text.
[[nodiscard]] HRESULT VoEncodeUrl(std::wstring_view url, std::wstring& encoded) noexcept;
