// Owners of BSTRs, variants and safe arrays; bytes and texts to and from safe arrays. Used at COM interfaces only.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <limits>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Owns one BSTR. A null BSTR is an empty text, as COM has it.
class CVoBstr
{
public:
    CVoBstr() noexcept = default;
    // Throws std::bad_alloc, or std::length_error for a text that no BSTR can hold. Embedded zeros are kept.
    explicit CVoBstr(CVoTextView text)
    {
        // The platform keeps the length in bytes in 32 bits.
        if (text.size() > std::numeric_limits<INT32>::max() / sizeof(wchar_t))
            throw std::length_error("BSTR");
        m_text = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        if (!m_text)
            throw std::bad_alloc();
    }
    CVoBstr(CVoBstr&& other) noexcept : m_text(std::exchange(other.m_text, nullptr)) {}
    CVoBstr& operator=(CVoBstr&& other) noexcept
    {
        std::swap(m_text, other.m_text);
        return *this;
    }
    CVoBstr(const CVoBstr&) = delete;
    CVoBstr& operator=(const CVoBstr&) = delete;
    ~CVoBstr() { ::SysFreeString(m_text); }

    [[nodiscard]] BSTR Get() const noexcept { return m_text; }
    // For out arguments. The text that it owns is freed first.
    [[nodiscard]] BSTR* Put() noexcept
    {
        ::SysFreeString(std::exchange(m_text, nullptr));
        return &m_text;
    }
    // Returns the text and no longer owns it.
    [[nodiscard]] BSTR Detach() noexcept { return std::exchange(m_text, nullptr); }
    [[nodiscard]] bool IsEmpty() const noexcept { return ::SysStringLen(m_text) == 0; }
    [[nodiscard]] std::wstring_view View() const noexcept { return ViewOf(m_text); }
    // The text of a BSTR that somebody else owns; empty for null.
    [[nodiscard]] static std::wstring_view ViewOf(BSTR text) noexcept
    {
        return text ? std::wstring_view(text, ::SysStringLen(text)) : std::wstring_view();
    }

private:
    BSTR m_text = nullptr;
};

// Owns one VARIANT.
class CVoVariant
{
public:
    CVoVariant() noexcept { ::VariantInit(&m_value); }
    ~CVoVariant() { ::VariantClear(&m_value); }
    CVoVariant(CVoVariant&& other) noexcept : m_value(other.Detach()) {}
    CVoVariant& operator=(CVoVariant&& other) noexcept
    {
        std::swap(m_value, other.m_value);
        return *this;
    }
    CVoVariant(const CVoVariant&) = delete;
    CVoVariant& operator=(const CVoVariant&) = delete;

    [[nodiscard]] const VARIANT& Get() const noexcept { return m_value; }
    [[nodiscard]] VARIANT& Get() noexcept { return m_value; }
    // For out arguments. The value that it owns is cleared first.
    [[nodiscard]] VARIANT* Put() noexcept
    {
        ::VariantClear(&m_value);
        return &m_value;
    }
    // Returns the value and no longer owns it.
    [[nodiscard]] VARIANT Detach() noexcept
    {
        const VARIANT value = m_value;
        ::VariantInit(&m_value);
        return value;
    }

private:
    VARIANT m_value;
};

// Owns one SAFEARRAY.
class CVoSafeArray
{
public:
    CVoSafeArray() noexcept = default;
    // Takes over an array that the caller owns; null is allowed.
    explicit CVoSafeArray(SAFEARRAY* array) noexcept : m_array(array) {}
    CVoSafeArray(CVoSafeArray&& other) noexcept : m_array(std::exchange(other.m_array, nullptr)) {}
    CVoSafeArray& operator=(CVoSafeArray&& other) noexcept
    {
        std::swap(m_array, other.m_array);
        return *this;
    }
    CVoSafeArray(const CVoSafeArray&) = delete;
    CVoSafeArray& operator=(const CVoSafeArray&) = delete;
    ~CVoSafeArray() { Reset(); }

    void Reset() noexcept
    {
        if (SAFEARRAY* const array = std::exchange(m_array, nullptr))
            ::SafeArrayDestroy(array);
    }
    [[nodiscard]] SAFEARRAY* Get() const noexcept { return m_array; }
    // For out arguments. The array that it owns is destroyed first.
    [[nodiscard]] SAFEARRAY** Put() noexcept
    {
        Reset();
        return &m_array;
    }
    // Returns the array and no longer owns it.
    [[nodiscard]] SAFEARRAY* Detach() noexcept { return std::exchange(m_array, nullptr); }

private:
    SAFEARRAY* m_array = nullptr;
};

// The type of a variant that holds bytes.
inline constexpr VARTYPE kVoByteArray = VT_ARRAY | VT_UI1;
// Bytes as a variant of that type: one dimension, counted from 0. What `value` held is cleared first.
// E_OUTOFMEMORY when there is no room; `value` is untouched then.
[[nodiscard]] HRESULT VoBytesToVariant(std::span<const BYTE> bytes, VARIANT& value) noexcept;
// The bytes of a variant that holds such an array, or a reference to one, whatever its lower bound. DISP_E_TYPEMISMATCH for
// any other variant.
[[nodiscard]] HRESULT VoVariantToBytes(const VARIANT& value, std::vector<BYTE>& bytes) noexcept;

// Texts as a safe array of BSTRs that counts from 0: of one dimension, or, with `columns`, of two, row by row. E_INVALIDARG for
// texts that leave a row unfilled, E_OUTOFMEMORY when there is no room; `array` is untouched then.
[[nodiscard]] HRESULT VoStringsToSafeArray(std::span<const std::wstring_view> texts, CVoSafeArray& array,
                                           UINT32 columns = 0) noexcept;
// The texts of a safe array of BSTRs of one dimension, or of two, row by row, whatever the lower bounds. DISP_E_TYPEMISMATCH
// for any other array, and for null.
[[nodiscard]] HRESULT VoSafeArrayToStrings(SAFEARRAY* array, std::vector<std::wstring>& texts) noexcept;
