// Typed parameters of a program, kept in an INI file.
//
//     CVoParamHandler params;
//     hr = params.Open(path);                                // a missing file has no parameters
//     UINT32 port = 8080;                                    // the default
//     bool isSet = false;
//     hr = params.Get(L"Server", L"Port", port, &isSet);
//     hr = params.Set(L"Server", L"Port", port + 1);
//     hr = params.Save();                                    // writes once, and only if something has changed
//
// How values stand in the file, each on the line of its key:
//   text         as it is; in quotation marks when it begins or ends with white space, begins with a quotation mark or has line
//                breaks. In quotation marks "$r" is CR, "$n" is LF and "$$" is "$"; any other "$" stands for itself. On
//                reading, white space outside the marks is dropped
//   integer      decimal digits, with "-" when negative
//   double       the shortest decimal form that reads back as the same number, with "."; an exponent is allowed
//   boolean      TRUE or FALSE; on reading also the other words of VoStringToBool
//   date-time    ISO 8601 in UTC, with milliseconds unless they are zero; on reading with any zone, converted to UTC
//   bytes        upper-case hexadecimal; blanks between are ignored on reading
//   CVo2DIDArray the parameter text of CVoDataParser for an array of the empty name, as a text
#pragma once

#include <base/Vo2DIDArray.h>
#include <base/VoMultiThreading.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>
#include <win/VoUtilFileIO.h>

#include <concepts>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Integers of up to 64 bits; booleans and characters are none.
template <class T>
concept CVoParamInteger = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, wchar_t> &&
                          !std::same_as<T, char8_t> && !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

// Any thread may call; each call is one step for the others. Failures are reported and leave the object and all outputs
// untouched. What names may look like is described in VoUtilFileIO.h.
class CVoParamHandler
{
public:
    // Reads a file; one that is missing is made by the first Save. Changes that were not saved are dropped. The codes of
    // CVoIniFileIO::Open.
    [[nodiscard]] HRESULT Open(CVoTextView path) noexcept;
    // Writes the changes, all at once and so that a crash leaves the old file or the new one. S_FALSE when nothing has changed:
    // the file is not touched then. What other programs have written into it since Open is lost. The codes of
    // CVoIniFileIO::Save.
    [[nodiscard]] HRESULT Save() noexcept;
    // Whether Save has something to write.
    [[nodiscard]] bool IsChanged() const noexcept;

    // Read a parameter. `value` holds the default on entry, and keeps it when there is no such parameter (S_OK) or when its
    // text is none of the type asked for (E_INVALIDARG; ERROR_ARITHMETIC_OVERFLOW for a number out of range; for an array
    // also the codes of CVoDataParser). `present` (may be null) tells whether it is in the file, whatever its text.
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, std::wstring& value,
                              bool* present = nullptr) const noexcept;
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, double& value, bool* present = nullptr) const noexcept;
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, bool& value, bool* present = nullptr) const noexcept;
    // In UTC, from the year 1601 on.
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, SYSTEMTIME& value, bool* present = nullptr) const noexcept;
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, std::vector<BYTE>& value,
                              bool* present = nullptr) const noexcept;
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, CVo2DIDArray& value,
                              bool* present = nullptr) const noexcept;
    // As the type that the variant holds on entry, text for VT_EMPTY: VT_BSTR, an integer, real or boolean type, VT_DATE (UTC,
    // whole seconds), VT_CY, VT_DECIMAL, or VT_ARRAY|VT_UI1 for bytes. DISP_E_TYPEMISMATCH for any other. What the variant held
    // is cleared when it is replaced.
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, VARIANT& value, bool* present = nullptr) const noexcept;
    template <CVoParamInteger T>
    [[nodiscard]] HRESULT Get(CVoTextView section, CVoTextView name, T& value, bool* present = nullptr) const noexcept
    {
        SInteger integer = ToInteger(value);
        const HRESULT hr = GetInteger(section, name, integer, ToInteger(std::numeric_limits<T>::min()),
                                      ToInteger(std::numeric_limits<T>::max()), present);
        if (SUCCEEDED(hr))
            value = static_cast<T>(integer.bits);
        return hr;
    }

    // Set a parameter. One whose text means the same value already is left as it is written, and is no change. E_INVALIDARG for
    // a double that is no number, an impossible date-time, and for names that cannot be; ERROR_NO_UNICODE_TRANSLATION for text
    // that is not well formed or that the file's encoding does not have.
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, CVoTextView value) noexcept;
    // A null pointer is an empty text.
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, const wchar_t* value) noexcept
    {
        return Set(section, name, value ? std::wstring_view(value) : std::wstring_view());
    }
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, double value) noexcept;
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, bool value) noexcept;
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, const SYSTEMTIME& value) noexcept;
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, std::span<const BYTE> value) noexcept;
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, const CVo2DIDArray& value) noexcept;
    // By the variant's type, see Get; a value held by reference is read through it. DISP_E_TYPEMISMATCH for any other type.
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, const VARIANT& value) noexcept;
    template <CVoParamInteger T>
    [[nodiscard]] HRESULT Set(CVoTextView section, CVoTextView name, T value) noexcept
    {
        return SetInteger(section, name, ToInteger(value));
    }

    // Removes a parameter. S_FALSE when there is none.
    [[nodiscard]] HRESULT Remove(CVoTextView section, CVoTextView name) noexcept;

private:
    // Any integer of 64 bits.
    struct SInteger
    {
        UINT64 bits = 0; // in two's complement
        bool isNegative = false;
    };
    template <CVoParamInteger T>
    [[nodiscard]] static constexpr SInteger ToInteger(T value) noexcept
    {
        return { static_cast<UINT64>(value), value < T{ 0 } };
    }
    [[nodiscard]] HRESULT GetInteger(CVoTextView section, CVoTextView name, SInteger& value, SInteger minimum, SInteger maximum,
                                     bool* present) const noexcept;
    [[nodiscard]] HRESULT SetInteger(CVoTextView section, CVoTextView name, SInteger value) noexcept;

    friend struct CVoParamText;
    template <class Value>
    [[nodiscard]] HRESULT Read(CVoTextView section, CVoTextView name, Value& value, bool* present) const noexcept;
    template <class Value>
    [[nodiscard]] HRESULT Write(CVoTextView section, CVoTextView name, const Value& value) noexcept;

    CVoIniFileIO m_file;
    mutable CCriticalSection m_lock;
};
