// Tests of the text of WMI values.
#include <win/VoWMIValue.h>

#include <base/com/VoComHelper.h>

#include <gtest/gtest.h>
#include <wbemidl.h>

#include <bit>

namespace
{
using VoWMIQuery::WMIDateTimeToISO8601;
using VoWMIQuery::WMIValueToText;

// The bits of a value of any plain type, the lowest first.
CVoVariant Of(int type, UINT64 bits = 0)
{
    CVoVariant variant;
    variant.Get().ullVal = bits;
    variant.Get().vt = static_cast<VARTYPE>(type);
    return variant;
}
CVoVariant OfText(std::wstring_view text)
{
    return Of(VT_BSTR, reinterpret_cast<UINT64>(CVoBstr(text).Detach()));
}
// An array with elements at `first`, `first` + 1, ...
CVoVariant OfArray(VARTYPE type, LONG first, const std::vector<const void*>& elements)
{
    CVoSafeArray array(::SafeArrayCreateVector(type, first, static_cast<ULONG>(elements.size())));
    for (size_t i = 0; i < elements.size(); ++i)
    {
        LONG index = first + static_cast<LONG>(i);
        EXPECT_EQ(::SafeArrayPutElement(array.Get(), &index, const_cast<void*>(elements[i])), S_OK);
    }
    return Of(VT_ARRAY | type, reinterpret_cast<UINT64>(array.Detach()));
}

TEST(WmiValue, TextFollowsTheCimType)
{
    const LONG minusOne = -1;
    const LONG seven = 7;
    const VARIANT_BOOL yes = VARIANT_TRUE;
    const VARIANT_BOOL no = VARIANT_FALSE;
    const CVoBstr name(L"eth0");
    const CVoBstr date(L"20240229120000.000000+000");
    const CVoVariant number = Of(VT_I4, 5);
    const CVoVariant null = Of(VT_NULL);
    constexpr UINT64 kMinus = ~UINT64{ 0 };
    std::wstring text;
    const auto check = [&](const CVoVariant& value, long type, const wchar_t* expected)
    {
        EXPECT_EQ(WMIValueToText(value.Get(), type, text), S_OK) << expected;
        EXPECT_EQ(text, expected);
    };
    check(Of(VT_BOOL, 0xFFFF), CIM_BOOLEAN, L"TRUE");
    check(Of(VT_EMPTY), CIM_EMPTY, L"");
    // Only the CIM type tells that a number has no sign.
    check(Of(VT_I4, kMinus), CIM_SINT32, L"-1");
    check(Of(VT_I4, kMinus), CIM_UINT32, L"4294967295");
    check(Of(VT_I2, 0xFF80), CIM_SINT8, L"-128");
    check(Of(VT_I2, 0x20AC), CIM_CHAR16, L"\x20AC");
    check(Of(VT_UI8, kMinus), CIM_UINT64, L"18446744073709551615");
    check(Of(VT_I8, UINT64{ 1 } << 63), CIM_SINT64, L"-9223372036854775808");
    check(Of(VT_R4, std::bit_cast<UINT32>(0.1F)), CIM_REAL32, L"0.1");
    check(Of(VT_R8, std::bit_cast<UINT64>(1e21)), CIM_REAL64, L"1e+21");
    check(OfText(L" a, b\t"), CIM_STRING, L" a, b\t");
    check(OfText(date.View()), CIM_DATETIME, L"2024-02-29T12:00:00Z");
    check(OfText(L"yesterday"), CIM_DATETIME, L"yesterday");
    check(OfArray(VT_I4, 3, { &minusOne, &seven }), CIM_UINT32 | CIM_FLAG_ARRAY, L"4294967295, 7");
    check(OfArray(VT_BOOL, 0, { &yes, &no }), CIM_BOOLEAN | CIM_FLAG_ARRAY, L"TRUE, FALSE");
    check(OfArray(VT_BSTR, 0, { name.Get(), nullptr, name.Get() }), CIM_STRING | CIM_FLAG_ARRAY, L"eth0, , eth0");
    check(OfArray(VT_BSTR, 0, { date.Get() }), CIM_DATETIME | CIM_FLAG_ARRAY, L"2024-02-29T12:00:00Z");
    check(OfArray(VT_VARIANT, 0, { &number.Get(), &null.Get() }), CIM_SINT32 | CIM_FLAG_ARRAY, L"5, ");

    // An unknown kind of value leaves the text.
    SAFEARRAYBOUND bounds[2] = { { 1, 0 }, { 1, 0 } };
    const CVoVariant matrix = Of(VT_ARRAY | VT_I4, reinterpret_cast<UINT64>(::SafeArrayCreate(VT_I4, 2, bounds)));
    for (const VARIANT& value : { Of(VT_DATE).Get(), Of(VT_BYREF | VT_I4).Get(), matrix.Get() })
        EXPECT_EQ(WMIValueToText(value, CIM_EMPTY, text), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(text, L"5, ");
}

TEST(WmiValue, CimDateTimesAreIso8601)
{
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        { L"20240229120000.000000+000", L"2024-02-29T12:00:00Z" },
        { L"20240229235959.999999+060", L"2024-02-29T23:59:59.999999+01:00" },
        { L"20231231000001.250000-210", L"2023-12-31T00:00:01.25-03:30" },
        { L"16010101000000.000001-999", L"1601-01-01T00:00:00.000001-16:39" },
        // Digits that are not known.
        { L"20240229120000.000000+***", L"2024-02-29T12:00:00" },
        { L"202402291200**.******+060", L"2024-02-29T12:00+01:00" },
        { L"20240229******.******+***", L"2024-02-29" },
        { L"2024**********.******+***", L"2024" },
        // Intervals.
        { L"00000008131211.123456:000", L"P8DT13H12M11.123456S" },
        { L"00000000000000.000000:000", L"PT0S" },
    };
    for (const auto& [cim, iso] : cases)
    {
        std::wstring text;
        EXPECT_EQ(WMIDateTimeToISO8601(cim, text), S_OK) << cim;
        EXPECT_EQ(text, iso) << cim;
    }

    // Too short, too long, days and times that are not, and characters in the wrong place.
    std::wstring text = L"before";
    for (const std::wstring cim :
         { L"", L"20240229120000.000000+00", L"20240229120000.000000+0000", L"20230229120000.000000+000",
           L"20240229240000.000000+000", L"20240229120000,000000+000", L"20240229120000.0*0000+000",
           L"2024022912000\x0661.000000+000", L"2024**29120000.000000+000", L"**************.******+***",
           L"00000008131211.123456:060", L"00000008241211.123456:000" })
        EXPECT_EQ(WMIDateTimeToISO8601(cim, text), E_INVALIDARG) << cim;
    EXPECT_EQ(text, L"before");
}
} // namespace
