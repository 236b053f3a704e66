// Text functions without reports: format, compare, trim, read numbers. The log is built on them; everything else may use them.
#pragma once

#include <base/VoPlatform.h>

#include <cstdarg>
#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

// Text that a public function takes: any string, literal or view. A null pointer is an empty text. The text is not owned.
template <class Character>
class CVoBasicTextView : public std::basic_string_view<Character>
{
    using CView = std::basic_string_view<Character>;

public:
    constexpr CVoBasicTextView() noexcept = default;
    constexpr CVoBasicTextView(std::nullptr_t) noexcept {}
    constexpr CVoBasicTextView(const Character* text) noexcept : CView(text ? CView(text) : CView()) {}
    constexpr CVoBasicTextView(const Character* text, size_t length) noexcept : CView(text, length) {}
    constexpr CVoBasicTextView(CView text) noexcept : CView(text) {}
    CVoBasicTextView(const std::basic_string<Character>& text) noexcept : CView(text) {}
};
using CVoTextView = CVoBasicTextView<wchar_t>;
using CVoBytesView = CVoBasicTextView<char>;

// The bytes of a text, which is not owned.
[[nodiscard]] inline std::span<const BYTE> VoBytesOf(CVoBytesView text) noexcept
{
    return { reinterpret_cast<const BYTE*>(text.data()), text.size() };
}

// Formats text as printf does from a wide format. Write %ls for wide and %hs for narrow text: they mean the same in every C
// library. Throws std::bad_alloc, or CVoHResultException (E_INVALIDARG) for a narrow text that has no wide form.
[[nodiscard]] std::wstring VoFormat(const wchar_t* format, ...);
[[nodiscard]] std::wstring VoFormatV(const wchar_t* format, va_list arguments);

// Whether the text has ASCII characters only. They are the same in UTF-16, in UTF-8 and in the ANSI code pages of Windows.
[[nodiscard]] bool VoIsAscii(CVoTextView text) noexcept;
[[nodiscard]] bool VoIsAscii(CVoBytesView text) noexcept;
// The other case of an ASCII letter; any other character stays as it is.
[[nodiscard]] constexpr wchar_t VoToUpperAscii(wchar_t character) noexcept
{
    return character >= L'a' && character <= L'z' ? static_cast<wchar_t>(character - L'a' + L'A') : character;
}
[[nodiscard]] constexpr wchar_t VoToLowerAscii(wchar_t character) noexcept
{
    return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a') : character;
}

// Compare without regard to case, ordinal and independent of the locale (CompareStringOrdinal).
[[nodiscard]] bool VoEqualsNoCase(CVoTextView a, CVoTextView b) noexcept;
[[nodiscard]] bool VoStartsWithNoCase(CVoTextView text, CVoTextView prefix) noexcept;
[[nodiscard]] bool VoContainsNoCase(CVoTextView text, CVoTextView part) noexcept;
// The text without white space (iswspace) at both ends.
[[nodiscard]] std::wstring_view VoTrim(CVoTextView text) noexcept;
// The text without blanks and tabs at both ends: the white space around a header's value (RFC 9110, section 5.6.3; for cookies
// RFC 6265, section 5.2).
[[nodiscard]] std::wstring_view VoTrimBlanks(CVoTextView text) noexcept;

// "TRUE", "1", "YES", "ON" and "FALSE", "0", "NO", "OFF" without regard to case; nothing for any other text.
[[nodiscard]] std::optional<bool> VoParseBool(CVoTextView text) noexcept;

// A path without the prefix that lifts its length limit: "\\?\C:\x" becomes "C:\x", "\\?\UNC\server\share"
// "\\server\share". A path that needs its prefix (MAX_PATH characters or more, or a volume's name) keeps it. Throws
// std::bad_alloc.
[[nodiscard]] std::wstring VoWithoutLongPathPrefix(CVoTextView path);

// The text with each unpaired surrogate replaced by U+FFFD, so that every encoding of Unicode can hold it. Throws
// std::bad_alloc.
[[nodiscard]] std::wstring VoWithoutLoneSurrogates(CVoTextView text);

namespace VoTextDetail
{
// A decimal number as it is written. A magnitude above UINT64_MAX is clamped to it and sets `isAboveMaximum`.
struct CDecimal
{
    UINT64 magnitude = 0;
    bool isNegative = false;
    bool isAboveMaximum = false;
};
// Reads an optional "-" and ASCII digits; nothing for any other text.
[[nodiscard]] std::optional<CDecimal> ReadDecimal(CVoTextView text) noexcept;
} // namespace VoTextDetail

// Reads the whole text as a decimal number: ASCII digits, with an optional "-" in front for signed types. Leading zeros are
// allowed. A number outside the range of `Integer` becomes the nearest limit. Nothing for any other text: an empty text, "+",
// white space, digits of other scripts. Callers that allow a "+" or white space remove it first.
template <class Integer>
[[nodiscard]] std::optional<Integer> VoParseDecimalClamped(CVoTextView text, bool* isOutOfRange = nullptr) noexcept
{
    static_assert(std::is_integral_v<Integer> && !std::is_same_v<Integer, bool> && sizeof(Integer) <= sizeof(UINT64));
    using Limits = std::numeric_limits<Integer>;
    const std::optional<VoTextDetail::CDecimal> decimal = VoTextDetail::ReadDecimal(text);
    if (!decimal || (decimal->isNegative && !Limits::is_signed))
        return std::nullopt;
    // The magnitude of the lowest number of a signed type is one more than that of its highest.
    const UINT64 maximum = static_cast<UINT64>(Limits::max()) + (decimal->isNegative ? 1 : 0);
    const bool isOutside = decimal->isAboveMaximum || decimal->magnitude > maximum;
    if (isOutOfRange)
        *isOutOfRange = isOutside;
    if (isOutside)
        return decimal->isNegative ? Limits::min() : Limits::max();
    return static_cast<Integer>(decimal->isNegative ? UINT64{ 0 } - decimal->magnitude : decimal->magnitude);
}

// The same without clamping: nothing for a number outside the range of `Integer`.
template <class Integer>
[[nodiscard]] std::optional<Integer> VoParseDecimal(CVoTextView text) noexcept
{
    bool isOutOfRange = false;
    const std::optional<Integer> value = VoParseDecimalClamped<Integer>(text, &isOutOfRange);
    return isOutOfRange ? std::nullopt : value;
}
