// Owners for the values that cross COM edges.
#pragma once

#include <base/VoPlatform.h>

#include <new>
#include <string_view>
#include <utility>

// Owns one BSTR. A null BSTR is an empty text, as COM has it.
class CVoBstr
{
public:
    CVoBstr() noexcept = default;
    // Throws std::bad_alloc. Embedded zeros are kept.
    explicit CVoBstr(std::wstring_view text) : m_text(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size())))
    {
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
    // For out arguments; a text held is freed first.
    [[nodiscard]] BSTR* Put() noexcept
    {
        ::SysFreeString(std::exchange(m_text, nullptr));
        return &m_text;
    }
    // Gives the text to the caller.
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
    // For out arguments; a value held is cleared first.
    [[nodiscard]] VARIANT* Put() noexcept
    {
        ::VariantClear(&m_value);
        return &m_value;
    }
    // Gives the value to the caller.
    [[nodiscard]] VARIANT Detach() noexcept
    {
        const VARIANT value = m_value;
        ::VariantInit(&m_value);
        return value;
    }

private:
    VARIANT m_value;
};
