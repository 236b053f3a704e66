// Conversions of texts, Base64 and result codes.
#include "Text.h"

#include <base/VoCArray.h>
#include <base/VoErrorHandler.h>
#include <base/VoErrorText.h>
#include <base/VoHResult.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

namespace
{
constexpr INT32 kMaxLine = std::numeric_limits<INT32>::max();
constexpr size_t kMaxText = kMaxLine;

// Characters that show nothing themselves: controls, marks of the writing direction, zero-width characters, tags.
constexpr std::pair<char32_t, char32_t> kUnsafe[] = { { 0x00, 0x1F },      { 0x7F, 0x9F },     { 0xAD, 0xAD },
                                                      { 0x61C, 0x61C },    { 0x200B, 0x200F }, { 0x2028, 0x202E },
                                                      { 0x2060, 0x206F },  { 0xFEFF, 0xFEFF }, { 0xFFF9, 0xFFFB },
                                                      { 0xE0000, 0xE007F } };

bool IsUnsafe(char32_t character) noexcept
{
    return std::ranges::any_of(kUnsafe,
                               [=](const auto& range) { return character >= range.first && character <= range.second; });
}

bool IsPlain(char c) noexcept
{
    return c >= ' ' && c <= '~';
}

// Takes the first character off a text that is not empty; nothing if its first byte begins no UTF-8 (RFC 3629, section 4).
std::optional<char32_t> TakeCharacter(std::string_view& text) noexcept
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(0);
    const size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (length == 0 || length > text.size())
        return std::nullopt;
    char32_t character = length == 1 ? first : first & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i)
    {
        if ((byte(i) & 0xC0) != 0x80)
            return std::nullopt;
        character = character << 6 | (byte(i) & 0x3FU);
    }
    constexpr char32_t kLowest[] = { 0, 0, 0x80, 0x800, 0x10000 };
    if (character < kLowest[length] || character > 0x10FFFF || (character >= 0xD800 && character <= 0xDFFF))
        return std::nullopt;
    text.remove_prefix(length);
    return character;
}

void AppendEscape(std::string& escaped, char32_t character)
{
    const auto append = [&](unsigned unit)
    {
        constexpr char kDigits[] = "0123456789ABCDEF";
        escaped += "\\u";
        for (int shift = 12; shift >= 0; shift -= 4)
            escaped += kDigits[unit >> shift & 0xF];
    };
    if (character < 0x10000)
        return append(character);
    append(0xD800 + ((character - 0x10000) >> 10));
    append(0xDC00 + (character & 0x3FF));
}

int CheckedLength(size_t length)
{
    if (length > kMaxText)
        throw CVoHResultException(E_INVALIDARG);
    return static_cast<int>(length);
}
} // namespace

void Check(HRESULT result)
{
    if (FAILED(result))
        throw CVoHResultException(result);
}

std::string ToUtf8(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int length = CheckedLength(text.size());
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (size <= 0)
        throw CVoHResultException(HResultFromLastError());
    std::string bytes(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring FromUtf8(std::string_view text)
{
    std::wstring result;
    if (!text.empty())
        Check(VoUTF8ToString(text, result));
    return result;
}

std::string ToBase64(std::span<const BYTE> bytes)
{
    std::wstring text;
    // With the largest line length: without one the library adds a line break to the text of a single byte.
    if (!bytes.empty())
        Check(VoDataConversion::BinToBase64(bytes.data(), CheckedLength(bytes.size()), false, text, kMaxLine));
    return std::string(text.begin(), text.end());
}

std::vector<BYTE> FromBase64(std::string_view text)
{
    CVoByteBuffer bytes;
    if (!text.empty())
        Check(VoDataConversion::Base64ToBin(FromUtf8(text), bytes.PutBytes(), bytes.PutLength()));
    return { bytes.Data(), bytes.Data() + bytes.Length() };
}

std::string EscapeControls(std::string_view text, bool keepLines)
{
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty())
    {
        const auto plain = static_cast<size_t>(std::ranges::find_if_not(text, IsPlain) - text.begin());
        escaped.append(text, 0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            break;
        const std::string_view rest = text;
        const std::optional<char32_t> character = TakeCharacter(text);
        const bool endsLine = rest.front() == '\n' || rest.front() == '\t' || rest.starts_with("\r\n");
        if (!character)
        {
            escaped += ToUtf8(VoFormat(L"\\x%02X", static_cast<unsigned char>(rest.front())));
            text.remove_prefix(1);
        }
        else if (IsUnsafe(*character) && !(keepLines && endsLine))
            AppendEscape(escaped, *character);
        else
            escaped.append(rest, 0, rest.size() - text.size());
    }
    return escaped;
}

std::string JsonLine(const CJson& value)
{
    return EscapeControls(value.dump(-1, ' ', false, CJson::error_handler_t::replace), true) + '\n';
}

std::string ResultCode(HRESULT result)
{
    return ToUtf8(VoFormat(L"0x%08X", static_cast<unsigned>(result)));
}

std::string ErrorLine(HRESULT result)
{
    std::wstring text;
    if (FAILED(VoGetErrorText(result, true, &text)))
        return {};
    // Texts of the system end with a line break, and some contain others.
    std::wstring line;
    for (const wchar_t c : VoTrim(text))
        if (c != L'\r')
            line += c == L'\n' ? L' ' : c;
    return ToUtf8(line);
}
