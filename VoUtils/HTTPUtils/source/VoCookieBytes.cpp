// Converts cookies between bytes and text (VoCookieBytes.h).
#include "VoCookieBytes.h"

#include <base/VoPlatform.h>
#include <base/VoTextConversion.h>

namespace
{
constexpr wchar_t kFirstBeyondAscii = 0x80;
constexpr wchar_t kFirstRawByte = 0xF780; // stands for the byte 80
constexpr wchar_t kLastRawByte = 0xF7FF;
constexpr char32_t kReplacement = 0xFFFD;

// The length of the UTF-8 sequence that begins with `first`; 0 where none does. C0 and C1 would begin an overlong sequence,
// F5..FF a character above U+10FFFF.
size_t LengthFromFirstByte(BYTE first) noexcept
{
    if (first < 0x80)
        return 1;
    if (first < 0xC2 || first > 0xF4)
        return 0;
    if (first < 0xE0)
        return 2;
    return first < 0xF0 ? 3 : 4;
}

// The number of bytes behind the first one in the UTF-8 sequence of a character.
int FollowingBytes(char32_t character) noexcept
{
    if (character < 0x80)
        return 0;
    if (character < 0x800)
        return 1;
    return character < 0x10000 ? 2 : 3;
}

// The length of the UTF-8 sequence at the front of `bytes`, and its character. 0 for bytes that are no UTF-8 (RFC 3629).
size_t ReadUtf8(std::string_view bytes, char32_t& character) noexcept
{
    const auto first = static_cast<BYTE>(bytes.front());
    const size_t length = LengthFromFirstByte(first);
    if (length == 0 || bytes.size() < length)
        return 0;
    character = length == 1 ? first : first & (0x7FU >> length);
    for (const char c : bytes.substr(1, length - 1))
    {
        if ((static_cast<BYTE>(c) & 0xC0) != 0x80)
            return 0;
        character = (character << 6) | (static_cast<BYTE>(c) & 0x3FU);
    }
    constexpr char32_t kSmallest[] = { 0, 0, 0x80, 0x800, 0x10000 };
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    return character < kSmallest[length] || character > 0x10FFFF || isSurrogate ? 0 : length;
}

// Calls `put` with every byte of the text.
template <class Put>
void ForEachByte(std::wstring_view text, const Put& put)
{
    for (size_t i = 0; i < text.size(); ++i)
    {
        char32_t character = text[i];
        if (character >= kFirstRawByte && character <= kLastRawByte)
        {
            put(character - kFirstRawByte + 0x80);
            continue;
        }
        if (IS_HIGH_SURROGATE(text[i]) && i + 1 < text.size() && IS_LOW_SURROGATE(text[i + 1]))
            character = 0x10000 + ((character - HIGH_SURROGATE_START) << 10) + (text[++i] - LOW_SURROGATE_START);
        else if (character >= HIGH_SURROGATE_START && character <= LOW_SURROGATE_END)
            character = kReplacement;
        const int following = FollowingBytes(character);
        constexpr char32_t kLead[] = { 0, 0xC0, 0xE0, 0xF0 };
        put(kLead[following] | (character >> (6 * following)));
        for (int shift = 6 * (following - 1); shift >= 0; shift -= 6)
            put(0x80 | ((character >> shift) & 0x3F));
    }
}
} // namespace

std::wstring VoCookieTextFromBytes(std::string_view bytes)
{
    std::wstring text;
    text.reserve(bytes.size());
    while (!bytes.empty())
    {
        char32_t character = 0;
        size_t length = ReadUtf8(bytes, character);
        if (length == 0 || (character >= kFirstRawByte && character <= kLastRawByte))
        {
            // The rest of such a sequence is no UTF-8 either.
            character = kFirstRawByte + (static_cast<BYTE>(bytes.front()) - 0x80U);
            length = 1;
        }
        if (character < 0x10000)
            text += static_cast<wchar_t>(character);
        else
        {
            text += static_cast<wchar_t>(HIGH_SURROGATE_START + ((character - 0x10000) >> 10));
            text += static_cast<wchar_t>(LOW_SURROGATE_START + ((character - 0x10000) & 0x3FF));
        }
        bytes.remove_prefix(length);
    }
    return text;
}

std::string VoCookieBytesFromText(std::wstring_view text)
{
    std::string bytes;
    bytes.reserve(text.size());
    ForEachByte(text, [&](char32_t value) { bytes += static_cast<char>(value); });
    return bytes;
}

size_t VoCookieByteLength(std::wstring_view text) noexcept
{
    size_t length = 0;
    ForEachByte(text, [&](char32_t) { ++length; });
    return length;
}

std::optional<std::string> VoNarrowHeader(std::wstring_view text)
{
    std::string bytes;
    std::wstring back;
    const bool isExact = SUCCEEDED(VoStringToCodePage(CP_ACP, text, bytes)) &&
                         SUCCEEDED(VoCodePageToString(CP_ACP, bytes, back)) && back == text;
    return isExact ? std::optional(std::move(bytes)) : std::nullopt;
}

bool VoIsSafeHeaderText(std::wstring_view text) noexcept
{
    for (const wchar_t character : text)
    {
        if (character >= kFirstRawByte && character <= kLastRawByte)
            return false;
        char bytes[2];
        const int length = character < kFirstBeyondAscii
                               ? 0
                               : ::WideCharToMultiByte(CP_ACP, 0, &character, 1, bytes, sizeof bytes, nullptr, nullptr);
        if (length == 1 && static_cast<BYTE>(bytes[0]) < kFirstBeyondAscii && bytes[0] != '?') // "?": it has no such character
            return false;
    }
    return true;
}
