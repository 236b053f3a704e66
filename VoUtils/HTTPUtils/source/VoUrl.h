// URLs as they travel.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <string_view>

// The characters of a URL as bytes that may travel: UTF-8, with everything percent-encoded that no URL may hold as it is (RFC
// 3986, appendix A). What is encoded already stays as it is. An error of the platform for text that is not well-formed UTF-16.
[[nodiscard]] HRESULT VoUrlToBytes(std::wstring_view url, std::string& bytes) noexcept;
// The same as UTF-16 text.
[[nodiscard]] HRESULT VoEncodeUrl(std::wstring_view url, std::wstring& encoded) noexcept;

// The URL without a user and a password in front of its host (RFC 3986, section 3.2.1): a redirect may name them, and they are
// not used. Text without a scheme and an authority stays as it is. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoWithoutUserInfo(std::wstring_view url);
