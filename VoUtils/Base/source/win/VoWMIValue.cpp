// The text of WMI values (VoWMIValue.h).
#include <win/VoWMIValue.h>

#include <base/VoHResult.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoIUnknown.h>

#include <wbemidl.h>

#include <array>
#include <charconv>
#include <chrono>
#include <optional>

namespace VoWMIQuery
{
namespace
{
// Reads the fields of a CIM date-time from the front.
class CFieldReader
{
public:
    explicit CFieldReader(std::wstring_view text) noexcept : m_text(text) {}

    [[nodiscard]] wchar_t Next() noexcept { return Take(1).front(); }
    // A field of digits; nothing when it is made of asterisks. Any other text makes the whole bad.
    [[nodiscard]] std::optional<int> Number(size_t length) noexcept
    {
        const std::wstring_view field = Take(length);
        if (field.find_first_not_of(L'*') == std::wstring_view::npos)
            return std::nullopt;
        const std::optional<UINT32> number = VoParseDecimal<UINT32>(field);
        if (!number)
        {
            m_isBad = true;
            return std::nullopt;
        }
        return static_cast<int>(*number);
    }
    // The digits of the fraction of a second, without the zeros at their end and the asterisks behind them.
    [[nodiscard]] std::wstring_view Fraction() noexcept
    {
        const std::wstring_view field = Take(6);
        const std::wstring_view digits = field.substr(0, field.find(L'*'));
        if (digits.find_first_not_of(L"0123456789") != std::wstring_view::npos ||
            field.find_first_not_of(L'*', digits.size()) != std::wstring_view::npos)
            m_isBad = true;
        return digits.substr(0, digits.find_last_not_of(L'0') + 1);
    }
    [[nodiscard]] bool IsBad() const noexcept { return m_isBad; }

private:
    // The text's length has been checked.
    std::wstring_view Take(size_t length) noexcept
    {
        const std::wstring_view taken = m_text.substr(0, length);
        m_text.remove_prefix(length);
        return taken;
    }

    std::wstring_view m_text;
    bool m_isBad = false;
};

constexpr size_t kDateTimeLength = 25;
constexpr size_t kSignPosition = 21; // of the offset's sign, or of the colon that marks an interval

void AppendNumber(std::wstring& text, int number, size_t digits)
{
    const std::wstring plain = std::to_wstring(number);
    if (plain.size() < digits)
        text.append(digits - plain.size(), L'0');
    text += plain;
}

// Empty when the value is no time stamp.
std::wstring TimeStampText(CVoTextView value)
{
    struct SField
    {
        size_t length;
        const wchar_t* separator; // in front of it
        int lowest;
        int highest;
    };
    static constexpr std::array kFields{ SField{ 4, L"", 0, 9999 }, SField{ 2, L"-", 1, 12 }, SField{ 2, L"-", 1, 31 },
                                         SField{ 2, L"T", 0, 23 },  SField{ 2, L":", 0, 59 }, SField{ 2, L":", 0, 59 } };
    CFieldReader reader(value);
    std::array<int, kFields.size()> numbers{};
    size_t known = 0; // fields before the first that is not
    for (size_t i = 0; i < kFields.size(); ++i)
    {
        const std::optional<int> number = reader.Number(kFields[i].length);
        if (!number)
            continue;
        // Behind a field that is not known there is nothing to know.
        if (known != i || *number < kFields[i].lowest || *number > kFields[i].highest)
            return {};
        numbers[i] = *number;
        ++known;
    }
    const wchar_t point = reader.Next();
    const std::wstring_view fraction = reader.Fraction();
    const wchar_t sign = reader.Next();
    const std::optional<int> offset = reader.Number(3);
    const bool hasWholeDate = known >= 3;
    const bool hasWholeTime = known == kFields.size();
    if (reader.IsBad() || point != L'.' || (sign != L'+' && sign != L'-') || known == 0 || (!fraction.empty() && !hasWholeTime))
        return {};
    if (hasWholeDate &&
        !std::chrono::year_month_day(std::chrono::year(numbers[0]), std::chrono::month(static_cast<UINT>(numbers[1])),
                                     std::chrono::day(static_cast<UINT>(numbers[2])))
             .ok())
        return {};

    std::wstring text;
    for (size_t i = 0; i < known; ++i)
    {
        text += kFields[i].separator;
        AppendNumber(text, numbers[i], kFields[i].length);
    }
    if (!fraction.empty())
        (text += L'.') += fraction;
    if (!offset || known <= 3)
        return text;
    if (*offset == 0)
        return text += L'Z';
    text += sign;
    AppendNumber(text, *offset / 60, 2);
    text += L':';
    AppendNumber(text, *offset % 60, 2);
    return text;
}

// Empty when the value is no interval.
std::wstring IntervalText(CVoTextView value)
{
    CFieldReader reader(value);
    const std::optional<int> days = reader.Number(8);
    const std::optional<int> hours = reader.Number(2);
    const std::optional<int> minutes = reader.Number(2);
    const std::optional<int> seconds = reader.Number(2);
    const wchar_t point = reader.Next();
    const std::wstring_view fraction = reader.Fraction();
    if (reader.IsBad() || !days || !hours || !minutes || !seconds || *hours > 23 || *minutes > 59 || *seconds > 59 ||
        point != L'.' || !value.ends_with(L":000"))
        return {};

    std::wstring text = L"P";
    if (*days != 0)
        (text += std::to_wstring(*days)) += L'D';
    std::wstring time;
    if (*hours != 0)
        (time += std::to_wstring(*hours)) += L'H';
    if (*minutes != 0)
        (time += std::to_wstring(*minutes)) += L'M';
    if (*seconds != 0 || !fraction.empty())
    {
        time += std::to_wstring(*seconds);
        if (!fraction.empty())
            (time += L'.') += fraction;
        time += L'S';
    }
    if (time.empty() && *days == 0)
        time = L"0S";
    if (!time.empty())
        (text += L'T') += time;
    return text;
}

std::wstring IntegerText(INT64 value, long type)
{
    // The platform hands unsigned numbers over in signed variants of the same or the next size.
    switch (type)
    {
    case CIM_UINT8:
        return std::to_wstring(static_cast<UINT8>(value));
    case CIM_UINT16:
        return std::to_wstring(static_cast<UINT16>(value));
    case CIM_UINT32:
        return std::to_wstring(static_cast<UINT32>(value));
    case CIM_UINT64:
        return std::to_wstring(static_cast<UINT64>(value));
    case CIM_CHAR16:
        return std::wstring(1, static_cast<wchar_t>(value));
    default:
        return std::to_wstring(value);
    }
}

template <class Real>
std::wstring RealText(Real value)
{
    std::array<char, 32> buffer; // the longest shortest text of a double has 24 characters
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
    return { buffer.data(), end };
}

std::wstring StringText(BSTR value, long type)
{
    const std::wstring_view view = CVoBstr::ViewOf(value);
    std::wstring text;
    if (type == CIM_DATETIME && SUCCEEDED(WMIDateTimeToISO8601(view, text)))
        return text;
    return std::wstring(view);
}

void Check(HRESULT hr)
{
    if (FAILED(hr))
        throw CVoHResultException(hr);
}

std::wstring ObjectText(IUnknown* value)
{
    if (!value)
        return {};
    CVoComPtr<IWbemClassObject> object;
    Check(value->QueryInterface(IID_IWbemClassObject, object.PutVoid()));
    CVoBstr text;
    Check(object->GetObjectText(0, text.Put()));
    return std::wstring(text.View());
}

std::wstring ScalarText(const VARIANT& value, long type)
{
    switch (value.vt)
    {
    case VT_EMPTY:
    case VT_NULL:
        return {};
    case VT_BOOL:
        return value.boolVal != VARIANT_FALSE ? L"TRUE" : L"FALSE";
    case VT_I1:
        return IntegerText(static_cast<signed char>(value.cVal), type);
    case VT_UI1:
        return IntegerText(value.bVal, type);
    case VT_I2:
        return IntegerText(value.iVal, type);
    case VT_UI2:
        return IntegerText(value.uiVal, type);
    case VT_I4:
    case VT_INT:
        return IntegerText(value.lVal, type);
    case VT_UI4:
    case VT_UINT:
        return IntegerText(static_cast<INT64>(value.ulVal), type);
    case VT_I8:
        return IntegerText(value.llVal, type);
    case VT_UI8:
        return std::to_wstring(value.ullVal);
    case VT_R4:
        return RealText(value.fltVal);
    case VT_R8:
        return RealText(value.dblVal);
    case VT_BSTR:
        return StringText(value.bstrVal, type);
    case VT_UNKNOWN:
    case VT_DISPATCH:
        return ObjectText(value.punkVal);
    default:
        throw CVoHResultException(DISP_E_TYPEMISMATCH);
    }
}
std::wstring ArrayText(SAFEARRAY* array, VARTYPE elementType, long type)
{
    if (!array)
        return {};
    if (::SafeArrayGetDim(array) != 1)
        throw CVoHResultException(DISP_E_TYPEMISMATCH);
    LONG first = 0;
    LONG last = 0;
    Check(::SafeArrayGetLBound(array, 1, &first));
    Check(::SafeArrayGetUBound(array, 1, &last));
    std::wstring text;
    for (LONG i = first; i <= last; ++i)
    {
        // A copy of the element that the variant owns; all members of the variant's union begin at one place.
        CVoVariant element;
        VARIANT& target = element.Get();
        if (elementType == VT_VARIANT)
        {
            Check(::SafeArrayGetElement(array, &i, &target));
        }
        else
        {
            Check(::SafeArrayGetElement(array, &i, static_cast<void*>(&target.byref)));
            target.vt = elementType;
        }
        if (i != first)
            text += L", ";
        text += ScalarText(target, type);
    }
    return text;
}

std::wstring ValueText(const VARIANT& value, long type)
{
    if ((value.vt & VT_ARRAY) != 0 && (value.vt & VT_BYREF) == 0)
        return ArrayText(value.parray, value.vt & VT_TYPEMASK, type & ~CIM_FLAG_ARRAY);
    return ScalarText(value, type);
}
} // namespace

HRESULT WMIValueToText(const VARIANT& value, long type, std::wstring& text) noexcept
{
    try
    {
        text = ValueText(value, type);
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }
}

HRESULT WMIDateTimeToISO8601(CVoTextView value, std::wstring& text) noexcept
{
    try
    {
        if (value.size() != kDateTimeLength)
            return E_INVALIDARG;
        std::wstring iso = value[kSignPosition] == L':' ? IntervalText(value) : TimeStampText(value);
        if (iso.empty())
            return E_INVALIDARG;
        text = std::move(iso);
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }
}
} // namespace VoWMIQuery
