// Small parts of INI files that their reader, their writer and signatures share: encodings, white space, entries.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <string_view>

enum class EVoTextEncoding
{
    Ansi,
    Utf8,
    Utf8WithMark,
    Utf16LittleEndian, // with a mark, like the next
    Utf16BigEndian
};

// Whether a character is white space: Unicode's property White_Space. The C run-time's own notion differs between run-times,
// and signatures of files depend on what is trimmed.
[[nodiscard]] constexpr bool VoIniIsSpace(wchar_t character) noexcept
{
    if (character < 0x80)
        return character == L' ' || (character >= L'\t' && character <= L'\r');
    return character == 0x85 || character == 0xA0 || character == 0x1680 || (character >= 0x2000 && character <= 0x200A) ||
           character == 0x2028 || character == 0x2029 || character == 0x202F || character == 0x205F || character == 0x3000;
}
// The text without the white space at both ends, or at its end.
[[nodiscard]] std::wstring_view VoIniTrim(std::wstring_view text) noexcept;
[[nodiscard]] std::wstring_view VoIniTrimRight(std::wstring_view text) noexcept;

// One entry of a section. The texts belong to the file that they come from and live until it changes.
struct CVoIniEntry
{
    std::wstring_view key;
    std::wstring_view value; // white space at its end belongs to it
};
