// Conversions at the console's edge: UTF-8 outside, UTF-16 inside, Base64 for bytes in JSON, texts for result codes.
#pragma once

#include <base/VoPlatform.h>

#include <nlohmann/json.hpp>

#include <span>
#include <string>
#include <string_view>
#include <vector>

// Keys keep the order in which they were added.
using CJson = nlohmann::ordered_json;

// UTF-8 of any text. Malformed UTF-16 becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(std::wstring_view text);
// UTF-16 of well-formed UTF-8; throws CVoHResultException for anything else.
[[nodiscard]] std::wstring FromUtf8(std::string_view text);

// Standard Base64 on one line, and back. FromBase64 throws CVoHResultException for malformed text.
[[nodiscard]] std::string ToBase64(std::span<const BYTE> bytes);
[[nodiscard]] std::vector<BYTE> FromBase64(std::string_view text);

// UTF-8 text with escapes in place of what could command a terminal or change the order of the text beside it: control
// characters and invisible format characters become \uXXXX (two for a character above U+FFFF), a byte that is not UTF-8 becomes
// \xXX. `keepLines` leaves tabs and the ends of lines as they are.
[[nodiscard]] std::string EscapeControls(std::string_view text, bool keepLines);

// One line of JSON text, with EscapeControls. Never fails for the content of a text.
[[nodiscard]] std::string JsonLine(const CJson& value);

// "0x80070057".
[[nodiscard]] std::string ResultCode(HRESULT result);
// The library's text for a code on one line.
[[nodiscard]] std::string ErrorLine(HRESULT result);

// Throws CVoHResultException if the result of a call is a failure.
void Check(HRESULT result);
