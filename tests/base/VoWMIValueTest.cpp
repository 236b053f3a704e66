#include <win/VoWMIValue.h>

#include <base/com/VoComHelper.h>

#include <gtest/gtest.h>
#include <wbemidl.h>

#include <limits>

namespace
{
using VoWMIQuery::WMIDateTimeToISO8601;
using VoWMIQuery::WMIValueToText;

template <class Set>
CVoVariant MakeVariant(VARTYPE type, Set set)
{
    CVoVariant variant;
    set(variant.Get());
    variant.Get().vt = type;
    return variant;
}
CVoVariant OfI4(LONG value)
{
    return MakeVariant(VT_I4, [=](VARIANT& v) { v.lVal = value; });
}
CVoVariant OfR8(double value)
{
    return MakeVariant(VT_R8, [=](VARIANT& v) { v.dblVal = value; });
}
CVoVariant OfText(std::wstring_view text)
{
    return MakeVariant(VT_BSTR, [=](VARIANT& v) { v.bstrVal = CVoBstr(text).Detach(); });
}
CVoVariant OfType(VARTYPE type)
{
    return MakeVariant(type, [](VARIANT& v) { v.llVal = 0; });
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
    return MakeVariant(VT_ARRAY | type, [&](VARIANT& v) { v.parray = array.Detach(); });
}

TEST(WmiValue, TextFollowsTheCimType)
{
    const LONG minusOne = -1;
    const LONG seven = 7;
    const VARIANT_BOOL yes = VARIANT_TRUE;
    const VARIANT_BOOL no = VARIANT_FALSE;
    const CVoBstr name(L"eth0");
    const CVoBstr date(L"20240229120000.000000+000");
    const CVoVariant number = OfI4(5);
    const CVoVariant null = OfType(VT_NULL);

    struct SCase
    {
        CVoVariant value;
        long type;
        std::wstring text;
    };
    std::vector<SCase> cases;
    const auto add = [&](CVoVariant value, long type, const wchar_t* text)
    { cases.push_back(SCase{ std::move(value), type, text }); };
    add(OfType(VT_NULL), CIM_STRING, L"");
    add(OfType(VT_EMPTY), CIM_EMPTY, L"");
    add(OfType(VT_ARRAY | VT_I4), CIM_SINT32 | CIM_FLAG_ARRAY, L"");
    add(MakeVariant(VT_BOOL, [](VARIANT& v) { v.boolVal = VARIANT_TRUE; }), CIM_BOOLEAN, L"TRUE");
    add(MakeVariant(VT_BOOL, [](VARIANT& v) { v.boolVal = VARIANT_FALSE; }), CIM_BOOLEAN, L"FALSE");
    // Only the CIM type tells that a number has no sign.
    add(OfI4(-1), CIM_SINT32, L"-1");
    add(OfI4(-1), CIM_UINT32, L"4294967295");
    add(OfI4(-1), CIM_EMPTY, L"-1");
    add(MakeVariant(VT_I2, [](VARIANT& v) { v.iVal = -128; }), CIM_SINT8, L"-128");
    add(MakeVariant(VT_I1, [](VARIANT& v) { v.cVal = static_cast<CHAR>(-5); }), CIM_SINT8, L"-5");
    add(MakeVariant(VT_UI1, [](VARIANT& v) { v.bVal = 255; }), CIM_UINT8, L"255");
    add(MakeVariant(VT_UI4, [](VARIANT& v) { v.ulVal = 4294967295U; }), CIM_EMPTY, L"4294967295");
    add(MakeVariant(VT_UI8, [](VARIANT& v) { v.ullVal = std::numeric_limits<UINT64>::max(); }), CIM_UINT64,
        L"18446744073709551615");
    add(MakeVariant(VT_I8, [](VARIANT& v) { v.llVal = std::numeric_limits<INT64>::min(); }), CIM_SINT64,
        L"-9223372036854775808");
    add(MakeVariant(VT_I2, [](VARIANT& v) { v.iVal = 0x20AC; }), CIM_CHAR16, L"\x20AC");
    add(MakeVariant(VT_R4, [](VARIANT& v) { v.fltVal = 0.1F; }), CIM_REAL32, L"0.1");
    add(OfR8(1e21), CIM_REAL64, L"1e+21");
    add(OfR8(-std::numeric_limits<double>::denorm_min()), CIM_REAL64, L"-5e-324");
    add(OfText(L" a, b\t"), CIM_STRING, L" a, b\t");
    add(OfText(L"20240229120000.000000+000"), CIM_DATETIME, L"2024-02-29T12:00:00Z");
    add(OfText(L"yesterday"), CIM_DATETIME, L"yesterday");
    add(OfArray(VT_I4, 0, { &minusOne, &seven }), CIM_UINT32 | CIM_FLAG_ARRAY, L"4294967295, 7");
    add(OfArray(VT_I4, 3, { &seven }), CIM_SINT32 | CIM_FLAG_ARRAY, L"7");
    add(OfArray(VT_I4, 0, {}), CIM_SINT32 | CIM_FLAG_ARRAY, L"");
    add(OfArray(VT_BOOL, 0, { &yes, &no }), CIM_BOOLEAN | CIM_FLAG_ARRAY, L"TRUE, FALSE");
    add(OfArray(VT_BSTR, 0, { name.Get(), nullptr, name.Get() }), CIM_STRING | CIM_FLAG_ARRAY, L"eth0, , eth0");
    add(OfArray(VT_BSTR, 0, { date.Get() }), CIM_DATETIME | CIM_FLAG_ARRAY, L"2024-02-29T12:00:00Z");
    add(OfArray(VT_VARIANT, 0, { &number.Get(), &null.Get() }), CIM_SINT32 | CIM_FLAG_ARRAY, L"5, ");
    for (size_t i = 0; i < cases.size(); ++i)
    {
        std::wstring text = L"before";
        EXPECT_EQ(WMIValueToText(cases[i].value.Get(), cases[i].type, text), S_OK) << "case " << i;
        EXPECT_EQ(text, cases[i].text) << "case " << i;
    }
}

TEST(WmiValue, AnUnknownKindOfValueIsAMismatchAndLeavesTheText)
{
    SAFEARRAYBOUND bounds[2] = { { 1, 0 }, { 1, 0 } };
    SAFEARRAY* const matrix = ::SafeArrayCreate(VT_I4, 2, bounds);
    const CVoVariant values[] = { OfType(VT_DATE), OfType(VT_BYREF | VT_I4),
                                  MakeVariant(VT_ARRAY | VT_I4, [=](VARIANT& v) { v.parray = matrix; }) };
    for (const CVoVariant& value : values)
    {
        std::wstring text = L"before";
        EXPECT_EQ(WMIValueToText(value.Get(), CIM_EMPTY, text), DISP_E_TYPEMISMATCH);
        EXPECT_EQ(text, L"before");
    }
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
        { L"20240229120000.12****+000", L"2024-02-29T12:00:00.12Z" },
        { L"202402291200**.******+060", L"2024-02-29T12:00+01:00" },
        { L"2024022912****.******+000", L"2024-02-29T12Z" },
        { L"20240229******.******+***", L"2024-02-29" },
        { L"2024**********.******+***", L"2024" },
        // Intervals.
        { L"00000008131211.123456:000", L"P8DT13H12M11.123456S" },
        { L"00000000000000.000000:000", L"PT0S" },
        { L"99999999000000.000000:000", L"P99999999D" },
        { L"00000000230059.000000:000", L"PT23H59S" },
    };
    for (const auto& [cim, iso] : cases)
    {
        std::wstring text;
        EXPECT_EQ(WMIDateTimeToISO8601(cim, text), S_OK) << cim;
        EXPECT_EQ(text, iso) << cim;
    }

    std::wstring text = L"before";
    for (const wchar_t* const cim : { L"",
                                      L"20240229120000.000000+00",
                                      L"20240229120000.000000+0000",
                                      L"20230229120000.000000+000",
                                      L"20241301120000.000000+000",
                                      L"20240229240000.000000+000",
                                      L"20240229126000.000000+000",
                                      L"20240229120060.000000+000",
                                      L"20240229120000,000000+000",
                                      L"20240229120000.000000 000",
                                      L"20240229120000.00000x+000",
                                      L"20240229120000.0*0000+000",
                                      L"20240229120000.000000+0*0",
                                      L"2024022912000\x0661.000000+000",
                                      L"2024**29120000.000000+000",
                                      L"202402291200**.100000+000",
                                      L"**************.******+***",
                                      L"-0240229120000.000000+000",
                                      L"00000008131211.123456:060",
                                      L"00000008241211.123456:000",
                                      L"000000081312**.******:000",
                                      L"0000000x131211.123456:000" })
        EXPECT_EQ(WMIDateTimeToISO8601(cim, text), E_INVALIDARG) << cim;
    EXPECT_EQ(text, L"before");
}
} // namespace
