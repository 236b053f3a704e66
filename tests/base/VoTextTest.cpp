// Tests of null text arguments.
#include <base/VoDataParser.h>
#include <base/VoMultiThreading.h>
#include <base/VoText.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>
#include <win/VoWMIQuery.h>

#include <gtest/gtest.h>

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
} // namespace
