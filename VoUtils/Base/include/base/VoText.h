// Text functions without reports: format, compare, trim, read numbers. The log is built on them; everything else may use them.
#pragma once

#include <base/VoPlatform.h>

#include <cstdarg>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

// Formats text as printf does from a wide format. Write %ls for wide and %hs for narrow text: they mean the same in every C
// library. Throws std::bad_alloc, or CVoHResultException (E_INVALIDARG) for a narrow text that has no wide form.
[[nodiscard]] std::wstring VoFormat(const wchar_t* format, ...);
[[nodiscard]] std::wstring VoFormatV(const wchar_t* format, va_list arguments);

// Compare without regard to case, ordinal and independent of the locale (CompareStringOrdinal).
[[nodiscard]] bool VoEqualsNoCase(std::wstring_view a, std::wstring_view b) noexcept;
[[nodiscard]] bool VoStartsWithNoCase(std::wstring_view text, std::wstring_view prefix) noexcept;
// The text without white space (iswspace) at both ends.
[[nodiscard]] std::wstring_view VoTrim(std::wstring_view text) noexcept;

// "TRUE", "1", "YES", "ON" and "FALSE", "0", "NO", "OFF" without regard to case; nothing for any other text.
[[nodiscard]] std::optional<bool> VoParseBool(std::wstring_view text) noexcept;

// A path without the prefix that lifts its length limit: "\\?\C:\x" becomes "C:\x", "\\?\UNC\server\share"
// "\\server\share". A path that needs its prefix (MAX_PATH characters or more, or a volume's name) keeps it. Throws
// std::bad_alloc.
[[nodiscard]] std::wstring VoWithoutLongPathPrefix(std::wstring_view path);

// The text with each unpaired surrogate replaced by U+FFFD, so that every encoding of Unicode can hold it. Throws
// std::bad_alloc.
[[nodiscard]] std::wstring VoWithoutLoneSurrogates(std::wstring_view text);

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
[[nodiscard]] std::optional<CDecimal> ReadDecimal(std::wstring_view text) noexcept;
} // namespace VoTextDetail

// Reads the whole text as a decimal number: ASCII digits, with an optional "-" in front for signed types. Leading zeros are
// allowed. A number outside the range of `Integer` becomes the nearest limit. Nothing for any other text: an empty text, "+",
// white space, digits of other scripts. Callers that allow a "+" or white space remove it first.
template <class Integer>
[[nodiscard]] std::optional<Integer> VoParseDecimalClamped(std::wstring_view text, bool* isOutOfRange = nullptr) noexcept
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
[[nodiscard]] std::optional<Integer> VoParseDecimal(std::wstring_view text) noexcept
{
    bool isOutOfRange = false;
    const std::optional<Integer> value = VoParseDecimalClamped<Integer>(text, &isOutOfRange);
    return isOutOfRange ? std::nullopt : value;
}
