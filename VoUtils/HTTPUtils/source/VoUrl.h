// URLs as they travel.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <string_view>

// The characters of a URL as bytes that may travel: UTF-8, with everything that is not printable ASCII percent-encoded (RFC
// 3986, section 2.1). What is encoded already stays as it is. An error of the platform for text that is not well-formed UTF-16.
[[nodiscard]] HRESULT VoUrlToBytes(std::wstring_view url, std::string& bytes) noexcept;
// The same as UTF-16 text.
[[nodiscard]] HRESULT VoEncodeUrl(std::wstring_view url, std::wstring& encoded) noexcept;
