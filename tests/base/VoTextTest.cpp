// Tests of the text functions without reports, and of null text arguments.
#include <base/VoDataParser.h>
#include <base/VoMultiThreading.h>
#include <base/VoText.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>
#include <win/VoWMIQuery.h>

#include <gtest/gtest.h>

#include <tuple>

namespace
{
TEST(Text, ANullPointerIsAnEmptyTextInPublicFunctions)
{
    EXPECT_TRUE(VoTrim(nullptr).empty() && VoEqualsNoCase(nullptr, L""));
    EXPECT_EQ(VoParseDecimal<INT32>(nullptr), std::nullopt);
    UINT32 length = 1;
    EXPECT_EQ(VoDataConversion::HexToBin(nullptr, nullptr, &length), S_OK);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(OrvDigSign::CreateHashByName(nullptr), nullptr);
    CVoDataParser parser;
    EXPECT_EQ(parser.AddParam(nullptr, L"x"), S_OK);
    EXPECT_TRUE(parser.ParamExists(nullptr));
    bool valid = true;
    OrvSignedIniFileHandler::CVoSignedIniFileHandler2 handler;
    EXPECT_EQ(handler.Verify(nullptr, valid), E_INVALIDARG);
    EXPECT_LT(handler.Open(nullptr), 0);
    VoWMIQuery::CVoWMIQueryStringFields wmi(nullptr);
    EXPECT_EQ(wmi.QueryWMI(nullptr, [](IWbemClassObject*, void*) { return S_OK; }, nullptr), E_INVALIDARG);
}

TEST(Text, DecimalParserReadsDigitsAndOneMinusOnly)
{
    constexpr INT32 kLow = INT32_MIN;
    constexpr INT32 kHigh = INT32_MAX;
    // The text, its number, and the nearest number of the type.
    const std::tuple<const wchar_t*, std::optional<INT32>, INT32> numbers[] = {
        { L"0", 0, 0 },
        { L"-0", 0, 0 },
        { L"007", 7, 7 },
        { L"000000000000000000000000000005", 5, 5 },
        { L"2147483647", kHigh, kHigh },
        { L"-2147483648", kLow, kLow },
        { L"2147483648", {}, kHigh },
        { L"-2147483649", {}, kLow },
        { L"18446744073709551616", {}, kHigh },
        { L"-99999999999999999999999", {}, kLow },
    };
    for (const auto& [text, exact, clamped] : numbers)
    {
        EXPECT_EQ(VoParseDecimal<INT32>(text), exact) << text;
        EXPECT_EQ(VoParseDecimalClamped<INT32>(text), clamped) << text;
    }
    for (const wchar_t* const text : { L"", L"-", L"+1", L"--1", L" 1", L"1 ", L"1x", L"\u0661", L"\u0131" })
        EXPECT_EQ(VoParseDecimalClamped<INT32>(text), std::nullopt) << text;
    EXPECT_EQ(VoParseDecimal<UINT16>(L"65535"), UINT16_MAX);
    EXPECT_EQ(VoParseDecimal<UINT16>(L"65536"), std::nullopt);
    EXPECT_EQ(VoParseDecimal<UINT16>(L"-0"), std::nullopt);
    EXPECT_EQ(VoParseDecimal<UINT64>(L"18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(VoParseDecimal<INT64>(L"-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(VoParseDecimal<INT64>(std::wstring_view(L"1\0", 2)), std::nullopt);
}
} // namespace
