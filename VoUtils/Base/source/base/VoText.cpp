// Text functions without reports (VoText.h).
#include <base/VoText.h>

#include <base/VoHResult.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cwchar>
#include <cwctype>
#include <initializer_list>
#include <iterator>

std::wstring VoFormat(const wchar_t* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    try
    {
        std::wstring text = VoFormatV(format, arguments);
        va_end(arguments);
        return text;
    }
    catch (...)
    {
        va_end(arguments);
        throw;
    }
}

std::wstring VoFormatV(const wchar_t* format, va_list arguments)
{
    // Most texts are short: one pass through a buffer on the stack.
    wchar_t buffer[256];
    va_list again;
    va_copy(again, arguments);
    const int shortLength = ::_vsnwprintf(buffer, std::size(buffer), format, arguments);
    if (shortLength >= 0)
    {
        va_end(again);
        return std::wstring(buffer, static_cast<size_t>(shortLength));
    }
    va_list measured;
    va_copy(measured, again);
    const int length = ::_vscwprintf(format, measured);
    va_end(measured);
    if (length < 0)
    {
        va_end(again);
        throw CVoHResultException(E_INVALIDARG);
    }
    std::wstring text;
    try
    {
        text.resize(static_cast<size_t>(length));
    }
    catch (...)
    {
        va_end(again);
        throw;
    }
    // The string has room for the terminator that this may write behind the text.
    ::_vsnwprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

bool VoIsAscii(CVoTextView text) noexcept
{
    return std::all_of(text.begin(), text.end(), [](wchar_t c) { return c < 0x80; });
}

bool VoIsAscii(CVoBytesView text) noexcept
{
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool VoEqualsNoCase(CVoTextView a, CVoTextView b) noexcept
{
    // The comparison folds each UTF-16 unit to one unit, so equal texts have equal lengths.
    if (a.size() != b.size() || a.size() > INT_MAX)
        return false;
    // Most texts are ASCII and need no call of the platform.
    for (size_t i = 0; i < a.size(); ++i)
    {
        if ((a[i] | b[i]) >= 0x80)
        {
            const auto length = static_cast<int>(a.size());
            return ::CompareStringOrdinal(a.data(), length, b.data(), length, TRUE) == CSTR_EQUAL;
        }
        if (VoToUpperAscii(a[i]) != VoToUpperAscii(b[i]))
            return false;
    }
    return true;
}

bool VoStartsWithNoCase(CVoTextView text, CVoTextView prefix) noexcept
{
    return text.size() >= prefix.size() && VoEqualsNoCase(text.substr(0, prefix.size()), prefix);
}

bool VoContainsNoCase(CVoTextView text, CVoTextView part) noexcept
{
    for (; text.size() >= part.size(); text.remove_prefix(1))
        if (VoStartsWithNoCase(text, part))
            return true;
    return false;
}

std::wstring_view VoTrim(CVoTextView text) noexcept
{
    // No visible character of ASCII is white space: most texts need no question to the C library.
    const auto isSpace = [](wchar_t c) { return (c <= L' ' || c > L'~') && std::iswspace(c); };
    std::wstring_view trimmed = text;
    while (!trimmed.empty() && isSpace(trimmed.front()))
        trimmed.remove_prefix(1);
    while (!trimmed.empty() && isSpace(trimmed.back()))
        trimmed.remove_suffix(1);
    return trimmed;
}

std::wstring_view VoTrimBlanks(CVoTextView text) noexcept
{
    const size_t begin = text.find_first_not_of(L" \t");
    if (begin == std::wstring_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(L" \t") - begin + 1);
}

std::optional<VoTextDetail::CDecimal> VoTextDetail::ReadDecimal(CVoTextView text) noexcept
{
    CDecimal result;
    result.isNegative = text.starts_with(L'-');
    if (result.isNegative)
        text.remove_prefix(1);
    if (text.empty() || text.find_first_not_of(L"0123456789") != std::wstring_view::npos)
        return std::nullopt;
    text.remove_prefix(std::min(text.find_first_not_of(L'0'), text.size() - 1));
    // UINT64_MAX has 20 digits.
    std::array<char, 20> digits{};
    if (text.size() <= digits.size())
    {
        std::transform(text.begin(), text.end(), digits.begin(), [](wchar_t digit) { return static_cast<char>(digit); });
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + text.size(), result.magnitude);
        if (error == std::errc())
            return result;
    }
    result.magnitude = UINT64_MAX;
    result.isAboveMaximum = true;
    return result;
}

std::optional<bool> VoParseBool(CVoTextView text) noexcept
{
    const auto isOneOf = [text](std::initializer_list<const wchar_t*> words)
    { return std::any_of(words.begin(), words.end(), [text](const wchar_t* word) { return VoEqualsNoCase(text, word); }); };
    if (isOneOf({ L"TRUE", L"1", L"YES", L"ON" }))
        return true;
    if (isOneOf({ L"FALSE", L"0", L"NO", L"OFF" }))
        return false;
    return std::nullopt;
}

std::wstring VoWithoutLongPathPrefix(CVoTextView path)
{
    constexpr std::wstring_view kPrefix = L"\\\\?\\";
    constexpr std::wstring_view kServerPrefix = L"\\\\?\\UNC\\";
    std::wstring result(path);
    if (VoStartsWithNoCase(path, kServerPrefix))
        result = L"\\\\" + result.substr(kServerPrefix.size());
    else if (path.starts_with(kPrefix) && path.size() > kPrefix.size() + 1 && path[kPrefix.size() + 1] == L':')
        result.erase(0, kPrefix.size());
    // Without its prefix a path of this length names nothing, and a volume's name has no other form.
    return result.size() < MAX_PATH ? result : std::wstring(path);
}

std::wstring VoWithoutLoneSurrogates(CVoTextView text)
{
    const auto isHigh = [](wchar_t c) { return (c & 0xFC00) == 0xD800; };
    const auto isLow = [](wchar_t c) { return (c & 0xFC00) == 0xDC00; };
    std::wstring result(text);
    for (size_t i = 0; i < result.size(); ++i)
    {
        if (isHigh(result[i]) && i + 1 < result.size() && isLow(result[i + 1]))
            ++i;
        else if (isHigh(result[i]) || isLow(result[i]))
            result[i] = L'\xFFFD';
    }
    return result;
}
