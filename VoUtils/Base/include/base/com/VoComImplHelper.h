// The property bag of the stores: named properties with descriptions, implemented once from a table.
#pragma once

#include <base/VoErrorHandler.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoIUnknown.h>

#include <span>
#include <string_view>
#include <vector>

// One named property of `Object`. The functions lock for themselves; the getter gets an empty variant and fills it on success
// only, the setter gets a value without references (VT_BYREF) and returns DISP_E_TYPEMISMATCH for a type that it does not take.
template <class Object>
struct CVoProperty
{
    const wchar_t* name;
    const wchar_t* description;
    HRESULT (Object::*get)(VARIANT& value) noexcept;
    HRESULT (Object::*put)(const VARIANT& value) noexcept;
};

// GetPropertyTags, get_Properties and put_Properties of an interface, from one table. Derive: class CStore : public
// CVoPropertyBagImpl<CStore, IStore>, and give it `static std::span<const CVoProperty<CStore>> PropertyTable() noexcept`.
// Names are compared without regard to case.
template <class Object, class Interface>
class CVoPropertyBagImpl : public CVoIUnknownImplWithFreeThreadedMarshaller<Interface>
{
public:
    // A two-dimensional array of BSTRs, one row {name, description} a property, counted from 0; the caller destroys it.
    STDMETHODIMP GetPropertyTags(SAFEARRAY** tags) noexcept override
    {
        constexpr CVoReporter report{ kHeader, L"CVoPropertyBagImpl::GetPropertyTags" };
        if (!tags)
            return report(34, E_POINTER);
        const auto body = [&]() -> HRESULT
        {
            std::vector<std::wstring_view> texts;
            for (const CVoProperty<Object>& property : Object::PropertyTable())
            {
                texts.emplace_back(property.name);
                texts.emplace_back(property.description);
            }
            CVoSafeArray array;
            if (const HRESULT hr = VoStringsToSafeArray(texts, array, 2); FAILED(hr))
                return report(46, hr);
            *tags = array.Detach();
            return S_OK;
        };
        return report.Guard(59, body);
    }

    // E_INVALIDARG for an unknown name. The caller clears the value; what `value` holds on entry is not looked at.
    STDMETHODIMP get_Properties(BSTR name, VARIANT* value) noexcept override
    {
        constexpr CVoReporter report{ kHeader, L"CVoPropertyBagImpl::get_Properties" };
        if (!value)
            return report(68, E_POINTER);
        const CVoProperty<Object>* const property = Find(name);
        if (!property)
            return report(71, E_INVALIDARG);
        CVoVariant result;
        if (const HRESULT hr = (static_cast<Object*>(this)->*property->get)(result.Get()); FAILED(hr))
            return report(74, hr);
        *value = result.Detach();
        return S_OK;
    }

    // E_INVALIDARG for an unknown name, DISP_E_TYPEMISMATCH for a value of the wrong type; the object is unchanged then.
    STDMETHODIMP put_Properties(BSTR name, VARIANT value) noexcept override
    {
        constexpr CVoReporter report{ kHeader, L"CVoPropertyBagImpl::put_Properties" };
        const CVoProperty<Object>* const property = Find(name);
        if (!property)
            return report(85, E_INVALIDARG);
        CVoVariant plain;
        if (const HRESULT hr = ::VariantCopyInd(plain.Put(), &value); FAILED(hr))
            return report(88, hr);
        if (const HRESULT hr = (static_cast<Object*>(this)->*property->put)(plain.Get()); FAILED(hr))
            return report(90, hr);
        return S_OK;
    }

private:
    static constexpr const wchar_t* kHeader = L"VoComImplHelper.h";

    static const CVoProperty<Object>* Find(BSTR name) noexcept
    {
        for (const CVoProperty<Object>& property : Object::PropertyTable())
            if (VoEqualsNoCase(CVoBstr::ViewOf(name), property.name))
                return &property;
        return nullptr;
    }
};
