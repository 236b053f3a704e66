// Conversions of text: to a boolean, and between UTF-16 and bytes.
//
// Every function reports its failures under its own name and leaves its outputs untouched when it fails. Any thread may call.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>

// "TRUE", "1", "YES", "ON" and "FALSE", "0", "NO", "OFF" without regard to case; E_INVALIDARG for anything else.
[[nodiscard]] HRESULT VoStringToBool(CVoTextView text, bool& value) noexcept;

// UTF-16 to the system's ANSI code page. E_FAIL or the platform's error when it cannot be converted.
[[nodiscard]] HRESULT VoStringToASCII(CVoTextView text, std::string& bytes) noexcept;
// UTF-16 to UTF-8 and back. Text that is not well formed is an error (ERROR_NO_UNICODE_TRANSLATION).
[[nodiscard]] HRESULT VoStringToUTF8(CVoTextView text, std::string& bytes) noexcept;
[[nodiscard]] HRESULT VoUTF8ToString(CVoBytesView bytes, std::wstring& text) noexcept;
// The general form: `codePage` as for WideCharToMultiByte (CP_UTF8 refuses malformed text; other code pages replace what they
// do not have, as the platform does).
[[nodiscard]] HRESULT VoStringToCodePage(UINT codePage, CVoTextView text, std::string& bytes) noexcept;
[[nodiscard]] HRESULT VoCodePageToString(UINT codePage, CVoBytesView bytes, std::wstring& text) noexcept;
