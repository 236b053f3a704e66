// Tests of typed parameters in INI files.
#include <win/VoParamHandler.h>

#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"
#include "support/TestMain.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using testing::Contains;
using namespace TestSupport;

namespace
{
constexpr HRESULT kOverflow = static_cast<HRESULT>(0x80070216); // ERROR_ARITHMETIC_OVERFLOW

class ParamHandler : public testing::Test
{
protected:
    void SetUp() override { Reopen(); }
    void Reopen() { ASSERT_EQ(m_params.Open(m_path.wstring()), S_OK); }
    void Write(std::string_view bytes)
    {
        WriteTestFile(m_path, bytes);
        Reopen();
    }
    // Sets a value, and reads it from the file that was written.
    template <class Value, class Read = Value>
    Read Through(const Value& value)
    {
        EXPECT_EQ(m_params.Set(L"S", L"k", value), S_OK);
        EXPECT_TRUE(SUCCEEDED(m_params.Save()));
        Reopen();
        Read read{};
        bool isPresent = false;
        EXPECT_EQ(m_params.Get(L"s", L"K", read, &isPresent), S_OK);
        EXPECT_TRUE(isPresent);
        EXPECT_EQ(m_params.Set(L"S", L"k", value), S_OK);
        EXPECT_FALSE(m_params.IsChanged()) << "the same value again is no change";
        return read;
    }

    const std::filesystem::path m_path = MakeTestFolder(L"params") / L"params.ini";
    CVoParamHandler m_params;
};

TEST_F(ParamHandler, EveryTypeReadsBackUnchanged)
{
    for (const std::wstring_view text : { L"", L"plain = text; # [x]", L" in front", L"behind ", L"\"quoted\"", L"a\r\nb$n$$\"",
                                          L"$", L"C:\\new\\temp", L"\u00E4\u20AC\u3000", L"\n", L"x\ry" })
        EXPECT_EQ((Through<std::wstring_view, std::wstring>(text)), text);
    EXPECT_EQ(Through(std::numeric_limits<INT64>::min()), std::numeric_limits<INT64>::min());
    EXPECT_EQ(Through(std::numeric_limits<UINT64>::max()), std::numeric_limits<UINT64>::max());
    for (const double number : { 0.1 + 0.2, -5e-324 })
        EXPECT_EQ(Through(number), number);
    EXPECT_TRUE(Through(true));
    const SYSTEMTIME time{ 2024, 2, 4, 29, 23, 59, 58, 7 };
    const SYSTEMTIME read = Through(time);
    EXPECT_EQ(std::memcmp(&read, &time, sizeof time), 0);
    const std::vector<BYTE> bytes{ 0, 1, 0xAB, 0xFF };
    EXPECT_EQ((Through<std::span<const BYTE>, std::vector<BYTE>>(bytes)), bytes);
    EXPECT_THAT(ReadTestFile(m_path), testing::HasSubstr("k=0001ABFF\r\n"));
    CVo2DIDArray array;
    CVoVariant text;
    ASSERT_EQ(VoTypeToVariant(L" a=b&c\n", text.Get()), S_OK);
    ASSERT_EQ(array.SetSize(1, 1), S_OK);
    ASSERT_EQ(array.SetCell(0, 0, L"id & $\r\n", text.Get()), S_OK);
    EXPECT_EQ(Through(array).GetCell(0, 0)->id, L"id & $\r\n");
}

TEST_F(ParamHandler, ReadsValuesWrittenByHandAndKeepsTheDefaultForOthers)
{
    Write("[S]\nflag=yes \nnumber= 42 \nhuge=70000\nminus=-1\nword=abc\nreal=1e3\ncomma=1,5\n"
          "date=2024-01-02T03:04:05+02:00\nbytes=0a 1B\nodd=0a1\nhalf=\"x\nempty=\n");
    // What means the same stays as people wrote it.
    EXPECT_EQ(m_params.Set(L"S", L"flag", true), S_OK);
    EXPECT_EQ(m_params.Set(L"S", L"real", 1000.0), S_OK);
    EXPECT_EQ(m_params.Set(L"S", L"date", SYSTEMTIME{ 2024, 1, 0, 2, 1, 4, 5, 0 }), S_OK);
    EXPECT_FALSE(m_params.IsChanged());
    const auto gives = [&](const wchar_t* name, const auto& expected)
    {
        std::remove_cvref_t<decltype(expected)> value{};
        bool isPresent = false;
        EXPECT_EQ(m_params.Get(L"S", name, value, &isPresent), S_OK) << name;
        EXPECT_TRUE(isPresent);
        EXPECT_EQ(value, expected) << name;
    };
    gives(L"flag", true);
    gives(L"number", UINT16{ 42 });
    gives(L"half", std::wstring(L"\"x"));
    gives(L"bytes", std::vector<BYTE>{ 0x0A, 0x1B });
    SYSTEMTIME time{};
    EXPECT_EQ(m_params.Get(L"S", L"date", time), S_OK);
    EXPECT_EQ(time.wHour, 1);
    EXPECT_EQ(time.wDayOfWeek, 2);

    const auto keeps = [&](const wchar_t* name, auto value, HRESULT expected)
    {
        CLogCapture log;
        const auto before = value;
        bool isPresent = expected == S_OK;
        EXPECT_EQ(m_params.Get(L"S", name, value, &isPresent), expected) << name;
        EXPECT_EQ(isPresent, expected != S_OK);
        EXPECT_EQ(value, before) << name;
        // A parameter that is not set is no failure.
        EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"CVoParamHandler::Get", expected)).Times(expected == S_OK ? 0 : 1));
    };
    keeps(L"missing", 5, S_OK);
    keeps(L"word", true, E_INVALIDARG);
    keeps(L"empty", 5, E_INVALIDARG);
    keeps(L"huge", UINT16{ 5 }, kOverflow);
    keeps(L"minus", UINT64{ 5 }, kOverflow);
    keeps(L"comma", 2.5, E_INVALIDARG);
    keeps(L"odd", std::vector<BYTE>{ 1 }, E_INVALIDARG);
}

TEST_F(ParamHandler, VariantsAreWrittenAndReadByTheirType)
{
    Write("[S]\ntext=\" a \"\nnumber=-5\nflag=on\nreal=2.5\nmoney=12.3456\ndate=2024-01-02T03:04:05Z\nbytes=01FF\nword=x\n");
    const auto get = [&](const wchar_t* name, int type, HRESULT expected = S_OK)
    {
        CVoVariant value;
        V_VT(&value.Get()) = static_cast<VARTYPE>(type);
        V_UI8(&value.Get()) = 0;
        EXPECT_EQ(m_params.Get(L"S", name, value.Get()), expected) << name << type;
        return value;
    };
    EXPECT_EQ(CVoBstr::ViewOf(V_BSTR(&get(L"text", VT_EMPTY).Get())), L" a ");
    EXPECT_EQ(V_CY(&get(L"money", VT_CY).Get()).int64, 123456);
    EXPECT_NEAR(V_DATE(&get(L"date", VT_DATE).Get()), 45293.1278, 0.0001);
    EXPECT_EQ(V_I4(&get(L"missing", VT_I4).Get()), 0);
    get(L"word", VT_I4, E_INVALIDARG);
    get(L"number", VT_UI1, kOverflow);
    get(L"number", VT_BYREF | VT_I4, DISP_E_TYPEMISMATCH);
    // Writing back what was read changes nothing.
    const std::pair<const wchar_t*, int> cases[] = { { L"text", VT_BSTR }, { L"number", VT_I8 },
                                                     { L"flag", VT_BOOL }, { L"real", VT_R8 },
                                                     { L"money", VT_CY },  { L"real", VT_DECIMAL },
                                                     { L"date", VT_DATE }, { L"bytes", VT_ARRAY | VT_UI1 } };
    for (const auto& [name, type] : cases)
    {
        EXPECT_EQ(m_params.Set(L"S", name, get(name, type).Get()), S_OK) << name;
        EXPECT_FALSE(m_params.IsChanged()) << name;
    }
    EXPECT_EQ(m_params.Set(L"S", L"number", VARIANT{}), DISP_E_TYPEMISMATCH);
}

TEST_F(ParamHandler, SavesOnceAndOnlyChanges)
{
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(m_params.Set(L"S", L"k" + std::to_wstring(i % 3), i), S_OK);
    EXPECT_EQ(m_params.Remove(L"S", L"K2"), S_OK);
    EXPECT_EQ(m_params.Remove(L"S", L"K2"), S_FALSE);
    EXPECT_FALSE(std::filesystem::exists(m_path));
    EXPECT_EQ(m_params.Save(), S_OK);
    EXPECT_EQ(m_params.Save(), S_FALSE);
    const std::string before = "[S]\r\nk0=99\r\nk1=97\r\n";
    EXPECT_EQ(ReadTestFile(m_path), before);
    EXPECT_EQ(m_params.Set(L"S", L"bad", std::nan("")), E_INVALIDARG);
    EXPECT_EQ(m_params.Set(L"S", L"bad", SYSTEMTIME{ 2023, 2, 0, 29, 0, 0, 0, 0 }), E_INVALIDARG);
    EXPECT_EQ(m_params.Set(L"S", L"bad", L"\xDC00"), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_FALSE(m_params.IsChanged());
    EXPECT_EQ(m_params.Set(L"S", L"good", 1), S_OK);
    EXPECT_EQ(m_params.Save(), S_OK);
    EXPECT_EQ(ReadTestFile(m_path), before + "good=1\r\n");
}
} // namespace
