// Conversions of variants, with and without the user's regional settings.
//
// Every function reports its failures under its own name and leaves its outputs untouched when it fails. Any thread may call.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>
#include <type_traits>

// An integer of 32 bits other than UINT32, such as DWORD, ULONG, long or INT32: it is written and read with the same bits.
template <class T>
concept CVoOther32BitInteger =
    std::is_integral_v<T> && sizeof(T) == sizeof(UINT32) && !std::is_same_v<T, UINT32> && !std::is_same_v<T, char32_t>;

// Changes a variant's type under a locale; text to and from bool, currency, date and decimal goes through the platform's Var...
// functions for that locale. `destination` and `source` may be the same.
[[nodiscard]] HRESULT VoChangeVariantType(VARIANT& destination, const VARIANT& source, VARTYPE type, LCID locale) noexcept;
// The same independent of the user's regional settings (LOCALE_INVARIANT): numbers with ".", booleans as the platform's
// VarBstrFromBool writes them, "True" and "False".
[[nodiscard]] HRESULT VoChangeVariantTypeNoLocale(VARIANT& destination, const VARIANT& source, VARTYPE type) noexcept;

// Typed values to a variant and back, by the rules of VoChangeVariantTypeNoLocale. What `variant` held before is not freed; the
// caller clears it. An unsigned number is read from -2147483648 (bit for bit) to 4294967295.
[[nodiscard]] HRESULT VoTypeToVariant(CVoTextView value, VARIANT& variant) noexcept;
// Without it a pointer would be taken for a boolean. A null pointer is an empty text.
[[nodiscard]] inline HRESULT VoTypeToVariant(const wchar_t* value, VARIANT& variant) noexcept
{
    return VoTypeToVariant(value ? std::wstring_view(value) : std::wstring_view(), variant);
}
[[nodiscard]] HRESULT VoTypeToVariant(UINT32 value, VARIANT& variant) noexcept; // VT_I4, bit for bit
template <CVoOther32BitInteger T>
[[nodiscard]] HRESULT VoTypeToVariant(T value, VARIANT& variant) noexcept
{
    return VoTypeToVariant(static_cast<UINT32>(value), variant);
}
[[nodiscard]] HRESULT VoTypeToVariant(double value, VARIANT& variant) noexcept;
[[nodiscard]] HRESULT VoTypeToVariant(bool value, VARIANT& variant) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, std::wstring& value) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, UINT32& value) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, double& value) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, bool& value) noexcept;
template <CVoOther32BitInteger T>
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, T& value) noexcept
{
    UINT32 number = 0;
    const HRESULT hr = VoVariantToTypeNoLocale(variant, number);
    if (SUCCEEDED(hr))
        value = static_cast<T>(number);
    return hr;
}
