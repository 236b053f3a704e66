// Conversions of variants (VoVariant.h).
#include <base/VoVariant.h>

#include <base/VoErrorHandler.h>
#include <base/com/VoComHelper.h>

#include <climits>

namespace
{
constexpr const wchar_t* kVariantSource = L"..\\..\\source\\base\\VoUtils";

// Text to a type that the platform reads by a function of its own; false where VariantChangeTypeEx has to do it.
bool ChangeFromText(VARIANT& result, BSTR text, VARTYPE type, LCID locale, HRESULT& hr)
{
    // A null BSTR is an empty text, which these functions do not take.
    OLECHAR empty[] = L"";
    OLECHAR* const characters = text ? text : empty;
    switch (type)
    {
    case VT_BOOL:
        hr = ::VarBoolFromStr(characters, locale, 0, &V_BOOL(&result));
        break;
    case VT_CY:
        hr = ::VarCyFromStr(characters, locale, 0, &V_CY(&result));
        break;
    case VT_DATE:
        hr = ::VarDateFromStr(characters, locale, 0, &V_DATE(&result));
        break;
    case VT_DECIMAL:
        hr = ::VarDecFromStr(characters, locale, 0, &V_DECIMAL(&result));
        break;
    default:
        return false;
    }
    // Last, because a decimal covers the type field.
    V_VT(&result) = SUCCEEDED(hr) ? type : VARTYPE{ VT_EMPTY };
    return true;
}

bool ChangeToText(VARIANT& result, const VARIANT& source, LCID locale, HRESULT& hr)
{
    BSTR text = nullptr;
    switch (V_VT(&source))
    {
    case VT_BOOL:
        hr = ::VarBstrFromBool(V_BOOL(&source), locale, 0, &text);
        break;
    case VT_CY:
        hr = ::VarBstrFromCy(V_CY(&source), locale, 0, &text);
        break;
    case VT_DATE:
        hr = ::VarBstrFromDate(V_DATE(&source), locale, 0, &text);
        break;
    case VT_DECIMAL:
    {
        DECIMAL decimal = V_DECIMAL(&source);
        hr = ::VarBstrFromDec(&decimal, locale, 0, &text);
        break;
    }
    default:
        return false;
    }
    if (SUCCEEDED(hr))
    {
        V_VT(&result) = VT_BSTR;
        V_BSTR(&result) = text;
    }
    return true;
}

// Changes a variant's type without a report. `destination` is replaced on success only.
HRESULT ChangeVariantType(VARIANT& destination, const VARIANT& source, VARTYPE type, LCID locale) noexcept
{
    // Of a reference, the referenced value is changed. Some of the platform's headers declare the source without const.
    CVoVariant referred;
    const bool isReference = (V_VT(&source) & VT_BYREF) != 0;
    if (isReference)
        if (const HRESULT hr = ::VariantCopyInd(&referred.Get(), const_cast<VARIANT*>(&source)); FAILED(hr))
            return hr;
    const VARIANT& value = isReference ? referred.Get() : source;
    CVoVariant result;
    HRESULT hr = S_OK;
    const bool done = (V_VT(&value) == VT_BSTR && ChangeFromText(result.Get(), V_BSTR(&value), type, locale, hr)) ||
                      (type == VT_BSTR && ChangeToText(result.Get(), value, locale, hr));
    if (!done)
        hr = ::VariantChangeTypeEx(&result.Get(), const_cast<VARIANT*>(&value), locale, 0, type);
    if (FAILED(hr))
        return hr;
    if (const HRESULT cleared = ::VariantClear(&destination); FAILED(cleared))
        return cleared;
    destination = result.Detach();
    return S_OK;
}
} // namespace

HRESULT VoChangeVariantType(VARIANT& destination, const VARIANT& source, VARTYPE type, LCID locale) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoChangeVariantType" };
    const HRESULT hr = ChangeVariantType(destination, source, type, locale);
    return FAILED(hr) ? report(213, hr) : S_OK;
}

HRESULT VoChangeVariantTypeNoLocale(VARIANT& destination, const VARIANT& source, VARTYPE type) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoChangeVariantTypeNoLocale" };
    const HRESULT hr = VoChangeVariantType(destination, source, type, LOCALE_INVARIANT);
    return FAILED(hr) ? report(224, hr) : S_OK;
}

HRESULT VoTypeToVariant(CVoTextView value, VARIANT& variant) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoTypeToVariant" };
    if (value.size() > UINT_MAX)
        return report(235, E_INVALIDARG);
    const BSTR text = ::SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
    if (!text)
        return report(238, E_OUTOFMEMORY);
    ::VariantInit(&variant);
    V_VT(&variant) = VT_BSTR;
    V_BSTR(&variant) = text;
    return S_OK;
}

HRESULT VoTypeToVariant(UINT32 value, VARIANT& variant) noexcept
{
    ::VariantInit(&variant);
    V_VT(&variant) = VT_I4;
    V_I4(&variant) = static_cast<LONG>(value);
    return S_OK;
}

HRESULT VoTypeToVariant(double value, VARIANT& variant) noexcept
{
    ::VariantInit(&variant);
    V_VT(&variant) = VT_R8;
    V_R8(&variant) = value;
    return S_OK;
}

HRESULT VoTypeToVariant(bool value, VARIANT& variant) noexcept
{
    ::VariantInit(&variant);
    V_VT(&variant) = VT_BOOL;
    V_BOOL(&variant) = value ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, std::wstring& value) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, VT_BSTR); FAILED(hr))
        return report(275, hr);
    const auto body = [&]() -> HRESULT
    {
        value = CVoBstr::ViewOf(V_BSTR(&result.Get()));
        return S_OK;
    };
    return report.Guard(283, body);
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, UINT32& value) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    const HRESULT direct = ChangeVariantType(result.Get(), variant, VT_I4, LOCALE_INVARIANT);
    if (FAILED(direct))
    {
        // Text may also hold a number of the upper half of the unsigned range.
        const VARTYPE type = direct == DISP_E_OVERFLOW ? VARTYPE{ VT_UI4 } : VARTYPE{ VT_I4 };
        if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, type); FAILED(hr))
            return report(301, hr);
    }
    value = V_UI4(&result.Get()); // both types have the same bits
    return S_OK;
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, double& value) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, VT_R8); FAILED(hr))
        return report(311, hr);
    value = V_R8(&result.Get());
    return S_OK;
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, bool& value) noexcept
{
    constexpr CVoReporter report{ kVariantSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, VT_BOOL); FAILED(hr))
        return report(321, hr);
    value = V_BOOL(&result.Get()) != VARIANT_FALSE;
    return S_OK;
}
