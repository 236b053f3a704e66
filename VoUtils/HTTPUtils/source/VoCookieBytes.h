// Converts cookies between the bytes of a header and the text that the cookie store keeps. The transports use it.
//
// A cookie is a sequence of bytes (RFC 6265, section 4.1.1), and the store keeps UTF-16 text. Bytes that are UTF-8 become the
// characters that they encode. Every other byte 80..FF becomes one character U+F780..U+F7FF of the private use area; so does
// each byte of a UTF-8 sequence for one of these characters. Every sequence of bytes comes back as it was.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// Throws std::bad_alloc.
[[nodiscard]] std::wstring VoCookieTextFromBytes(std::string_view bytes);
// `text` is well-formed UTF-16, as all text of the store is; a lone surrogate becomes U+FFFD. Throws std::bad_alloc.
[[nodiscard]] std::string VoCookieBytesFromText(std::wstring_view text);
// The number of bytes that VoCookieBytesFromText gives.
[[nodiscard]] size_t VoCookieByteLength(std::wstring_view text) noexcept;

// The bytes that a service has turned into text by the process's ANSI code page. nullopt where they cannot be told. Throws
// std::bad_alloc.
[[nodiscard]] std::optional<std::string> VoNarrowHeader(std::wstring_view text);

// Whether a service may turn the text into header bytes by itself, as UTF-8 or by the ANSI code page: the text stands for no
// byte that is not UTF-8, and no character beyond ASCII becomes an ASCII one, such as ";" or "=", as the code page's best fit.
[[nodiscard]] bool VoIsSafeHeaderText(std::wstring_view text) noexcept;
