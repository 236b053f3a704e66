// Tests of text conversions, dates, variants, paths and INI values.
#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/TestMain.h>

using namespace TestSupport;
using testing::ElementsAre;

namespace
{
constexpr const wchar_t* kUtilsSource = L"..\\..\\source\\base\\VoUtils";

SYSTEMTIME Time(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int milliseconds = 0)
{
    const auto word = [](int value) { return static_cast<WORD>(value); };
    return { word(year), word(month), 0, word(day), word(hour), word(minute), word(second), word(milliseconds) };
}
} // namespace

TEST(Text, UsesTheRequestedCodePageAndReturnsThePlatformsErrors)
{
    std::string bytes;
    EXPECT_EQ(VoStringToCodePage(1252, L"\u20AC\u00E4", bytes), S_OK);
    EXPECT_EQ(bytes, "\x80\xE4");
    std::wstring text;
    EXPECT_EQ(VoCodePageToString(1252, bytes, text), S_OK);
    EXPECT_EQ(text, L"\u20AC\u00E4");
    EXPECT_EQ(VoStringToCodePage(59999, L"plain", bytes), E_INVALIDARG) << "no such code page";
}

TEST(Text, FormatsWideNarrowAndLongArguments)
{
    // Lengths around the limit of the stack's buffer.
    for (const size_t length : { size_t{ 1 }, size_t{ 254 }, size_t{ 255 }, size_t{ 256 }, size_t{ 100000 } })
        EXPECT_EQ(VoFormat(L"%ls%hs", std::wstring(length, L'\u20AC').c_str(), "n"), std::wstring(length, L'\u20AC') + L"n");
}

TEST(ISO8601, WritesDatesAndTimes)
{
    const std::tuple<SYSTEMTIME, int, bool, bool, const wchar_t*> kCases[] = {
        { Time(2024, 2, 29, 1, 2, 3, 4), 0, true, true, L"2024-02-29T01:02:03.004Z" },
        { Time(2024, 2, 29, 1, 2, 3, 4), 0, true, false, L"2024-02-29T01:02:03Z" },
        { Time(2024, 2, 29, 1, 2, 3, 0), 0, true, true, L"2024-02-29T01:02:03Z" },
        { Time(2024, 2, 29, 1, 2, 3, 4), 90, true, true, L"2024-02-29T01:02:03.004+01:30" },
        { Time(1999, 12, 31, 23, 59, 59), -5, true, false, L"1999-12-31T23:59:59-00:05" },
        // The offset counts only where it is written.
        { Time(2001, 1, 1, 5, 6, 7, 8), 9999, false, true, L"2001-01-01" },
    };
    for (const auto& [time, offset, includeTime, includeMilliseconds, expected] : kCases)
    {
        std::wstring text;
        EXPECT_EQ(VoSystemTimeToISO8601DateTimeStr(time, offset, includeTime, includeMilliseconds, text), S_OK);
        EXPECT_EQ(text, expected);
    }
    std::wstring text = L"before";
    const CLogCapture log;
    EXPECT_EQ(VoSystemTimeToISO8601DateTimeStr(Time(2001, 1, 1), 1440, true, false, text), E_INVALIDARG);
    EXPECT_EQ(text, L"before");
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kUtilsSource, 151, L"VoSystemTimeToISO8601DateTimeStr", E_INVALIDARG)));
}

TEST(Variants, CurrencyDateAndBooleanGoThroughTextUnderALocale)
{
    const LCID german = MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT);
    for (const auto& [before, type, locale, after] :
         { std::tuple(L"12,5", VT_CY, german, L"12.5"),
           { L"2020-01-02 03:04:05", VT_DATE, LCID{ LOCALE_INVARIANT }, L"01/02/2020 03:04:05" },
           { L"True", VT_BOOL, LCID{ LOCALE_INVARIANT }, L"True" } })
    {
        CVoVariant value;
        std::wstring text;
        ASSERT_EQ(VoTypeToVariant(before, *value.Put()), S_OK);
        // In place: the source is the destination.
        ASSERT_EQ(VoChangeVariantType(value.Get(), value.Get(), static_cast<VARTYPE>(type), locale), S_OK) << before;
        VARIANT reference{}; // to the variant
        V_VT(&reference) = VT_BYREF | VT_VARIANT;
        V_VARIANTREF(&reference) = &value.Get();
        for (const VARIANT& from : { value.Get(), reference })
        {
            EXPECT_EQ(VoVariantToTypeNoLocale(from, text), S_OK);
            EXPECT_EQ(text, after);
        }
    }
}

TEST(Variants, AFailedChangeIsReportedAndLeavesTheDestination)
{
    const CLogCapture log;
    CVoVariant source;
    CVoVariant destination;
    ASSERT_EQ(VoTypeToVariant(L"no number", *source.Put()), S_OK);
    ASSERT_EQ(VoTypeToVariant(L"before", *destination.Put()), S_OK);
    EXPECT_EQ(VoChangeVariantTypeNoLocale(destination.Get(), source.Get(), VT_I4), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(CVoBstr::ViewOf(V_BSTR(&destination.Get())), L"before");
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kUtilsSource, 213, L"VoChangeVariantType", DISP_E_TYPEMISMATCH),
                                         IsReport(kUtilsSource, 224, L"VoChangeVariantTypeNoLocale", DISP_E_TYPEMISMATCH)));
}

TEST(Paths, LongPathPrefixesAreRemovedWhereThePathDoesNotNeedThem)
{
    EXPECT_EQ(VoWithoutLongPathPrefix(L"\\\\?\\C:\\folder\\x.exe"), L"C:\\folder\\x.exe");
    EXPECT_EQ(VoWithoutLongPathPrefix(L"\\\\?\\unc\\server\\share"), L"\\\\server\\share");
    for (const std::wstring& same :
         { L"\\\\?\\C:\\" + std::wstring(300, L'd'), std::wstring(L"\\\\?\\Volume{0}\\x.exe"), std::wstring(L"C:\\x.exe"),
           std::wstring(L"\\\\server\\share"), std::wstring(L"\\\\?\\"), std::wstring() })
        EXPECT_EQ(VoWithoutLongPathPrefix(same), same);
}

TEST(Paths, TheModulesPathIsReadWhateverItsLength)
{
    std::wstring directory;
    std::wstring file;
    ASSERT_EQ(GetModuleDirAndFileName(nullptr, &directory, &file), S_OK);
    EXPECT_NE(::GetFileAttributesW((directory + L'\\' + file).c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(file.find(L'\\'), std::wstring::npos);

    const std::wstring longPath = L"\\\\?\\UNC\\server\\" + std::wstring(1000, L'd') + L"\\x.dll";
    const CCallHook<decltype(&::GetModuleFileNameW)> hook("kernel32.dll", "GetModuleFileNameW",
                                                          [&longPath](auto, HMODULE, LPWSTR buffer, DWORD size) -> DWORD
    {
        const size_t length = longPath.copy(buffer, size);
        return static_cast<DWORD>(length);
    });
    ASSERT_EQ(GetModuleDirAndFileName(nullptr, &directory, &file), S_OK);
    EXPECT_EQ(directory + L'\\' + file, longPath);

    const CFailOnCall<decltype(&::GetModuleFileNameW)> fail("kernel32.dll", "GetModuleFileNameW", 1, 0, ERROR_SUCCESS);
    const CLogCapture log;
    EXPECT_EQ(GetModuleDirAndFileName(nullptr, &directory, &file), E_FAIL) << "a failure without an error number";
    EXPECT_EQ(directory + L'\\' + file, longPath);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"GetModuleDirAndFileName", E_FAIL)));
}

TEST(Paths, TheTemporaryFolderHasNoBackslashAtItsEnd)
{
    std::wstring path;
    EXPECT_EQ(VoGetTempPath(path), S_OK);
    EXPECT_FALSE(path.ends_with(L'\\'));
}

TEST(IniValues, AreTypedHaveDefaultsAndTellWhetherTheKeyWasPresent)
{
    const std::wstring file = (MakeTestFolder(L"ini") / L"Values.ini").wstring();
    WriteTestFile(file, "[S]\r\nodd=perhaps\r\nempty=\r\nnumber= -42 \r\nplus=+7\r\nbig=2147483648\r\nhex=0x10\r\npart=12x\r\n"
                        "long=" +
                            std::string(400, 'v') + "\r\n");
    bool present = false;
    for (const auto& [key, value] : { std::pair(L"number", -42),
                                      { L"plus", 7 },
                                      { L"big", 5 },
                                      { L"hex", 5 },
                                      { L"part", 5 },
                                      { L"empty", 5 },
                                      { L"none", 5 } })
    {
        EXPECT_EQ(VoGetIniInt(file, L"S", key, 5, &present), value) << key;
        EXPECT_EQ(present, std::wstring_view(key) != L"none") << key;
    }
    for (const bool standard : { false, true })
        EXPECT_EQ(VoGetIniBool(file, L"S", L"odd", standard), standard);
    EXPECT_EQ(VoGetIniString(file, L"S", L"none", L"default ", &present), L"default ");
    EXPECT_FALSE(present);
    EXPECT_EQ(VoGetIniString(file, L"S", L"empty", L"default", &present), L"");
    EXPECT_TRUE(present);
    EXPECT_EQ(VoGetIniString(file, L"S", L"long", L""), std::wstring(260, L'v'));
}
