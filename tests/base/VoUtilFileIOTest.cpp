// Tests of INI files: reading, changing, saving.
#include <win/VoFile.h>
#include <win/VoUtilFileIO.h>

#include <base/VoUtils.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"
#include "support/TestMain.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;

namespace
{
CVoIniFileIO Parsed(std::string_view bytes)
{
    CVoIniFileIO file;
    EXPECT_EQ(file.Parse(bytes), S_OK);
    return file;
}

std::string BytesOf(const CVoIniFileIO& file)
{
    std::string bytes;
    EXPECT_EQ(file.GetBytes(bytes), S_OK);
    return bytes;
}

// With calls that no test of this file makes fail.
std::vector<std::wstring> NamesIn(const std::filesystem::path& folder)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found{};
    const HANDLE search = ::FindFirstFileW((folder / L"*").c_str(), &found);
    do
        if (found.cFileName[0] != L'.')
            names.emplace_back(found.cFileName);
    while (::FindNextFileW(search, &found));
    ::FindClose(search);
    return names;
}

TEST(IniFile, FindsNamesWithoutRegardToCaseAndTheFirstOfDuplicates)
{
    const CVoIniFileIO file = Parsed("[Stra\xC3\x9F]\nGr\xC3\xB6\xC3\x9F=1\nGR\xC3\x96\xC3\x9F=2\n[\xD0\x9C]\n\xD1\x91=3\n");
    EXPECT_EQ(file.FindValue(L"STRA\u00DF", L"gr\u00F6\u00DF"), L"1");
    EXPECT_EQ(file.FindValue(L"\u043C", L"\u0401"), L"3");
    EXPECT_EQ(file.FindValue(L"STRASS", L"gr\u00F6\u00DF"), std::nullopt);
    EXPECT_EQ(file.FindValue(L"stra\u00DF", L"x"), std::nullopt);
    std::vector<CVoIniEntry> entries(3);
    EXPECT_EQ(file.GetSection(L"x", entries), HResultFromWin32(ERROR_NOT_FOUND));
    EXPECT_EQ(entries.size(), 3u);
}

TEST(IniFile, ReadsBytesThatAreNotUtf8InTheAnsiCodePage)
{
    if (::GetACP() != 1252)
        GTEST_SKIP() << "the table is for code page 1252";
    CVoIniFileIO file = Parsed("[A]\nx=\xE4\x80\n");
    EXPECT_EQ(file.Encoding(), EVoTextEncoding::Ansi);
    // What the code page does not have is refused, and nothing is written in its place.
    EXPECT_EQ(file.SetValue(L"A", L"x", L"\u0436"), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(file.FindValue(L"A", L"x"), L"\u00E4\u20AC");
    EXPECT_EQ(file.SetValue(L"A", L"y", L"\u00DF"), S_OK);
    EXPECT_EQ(BytesOf(file), "[A]\nx=\xE4\x80\ny=\xDF\n");
    // ANSI text that would be read back as UTF-8.
    EXPECT_EQ(file.RemoveValue(L"A", L"x"), S_OK);
    EXPECT_EQ(file.SetValue(L"A", L"y", L"\u00C3\u00A4"), S_OK);
    std::string bytes = "untouched";
    EXPECT_EQ(file.GetBytes(bytes), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(bytes, "untouched");
}

TEST(IniFile, ChangesOnlyTheLinesThatChange)
{
    using CChange = std::function<HRESULT(CVoIniFileIO&)>;
    const auto set = [](const wchar_t* section, const wchar_t* key, const wchar_t* value)
    { return [=](CVoIniFileIO& file) { return file.SetValue(section, key, value); }; };
    const auto add = [](const wchar_t* section, const wchar_t* key, const wchar_t* value)
    { return [=](CVoIniFileIO& file) { return file.AddValue(section, key, value); }; };
    const std::tuple<const char*, CChange, const char*> cases[] = {
        { "", set(L"A", L"x", L"1"), "[A]\r\nx=1\r\n" },
        { "[A]\n\n ; c\n  X \t=  1  \r\ny=2\n", set(L"a", L"x", L"9"), "[A]\n\n ; c\n  X \t=  9\r\ny=2\n" },
        { "[A]\nx=1", set(L"A", L"x", L""), "[A]\nx=" },
        { "[A]\nx=1", set(L"A", L"y", L"2"), "[A]\nx=1\ny=2\n" },
        { "[A]\rx=1\r\r; about B\r[B]\r", set(L"A", L"y", L"2"), "[A]\rx=1\ry=2\r\r; about B\r[B]\r" },
        { "[A]\n; about A\n\n; about B\n[B]\n", set(L"A", L"y", L"2"), "[A]\n; about A\ny=2\n\n; about B\n[B]\n" },
        { "[A]\nx=1\n[B]\n[a]\n\n[C]\n", add(L"A", L"x", L"2"), "[A]\nx=1\n[B]\n[a]\nx=2\n\n[C]\n" },
        { "[A]\nx=1\n; c\nX=2\ny=3\n[a]\nx=4\n", [](CVoIniFileIO& file) { return file.RemoveValue(L"A", L"x"); },
          "[A]\n; c\ny=3\n[a]\n" },
        { "[A]\n",
          [](CVoIniFileIO& file)
    {
        for (const wchar_t* const value : { L"1", L"2", L"3" })
            EXPECT_EQ(file.AddValue(L"A", L"a key that has its own memory", value), S_OK);
        std::vector<CVoIniEntry> entries;
        EXPECT_EQ(file.GetSection(L"A", entries), S_OK);
        return file.RemoveValue(L"A", entries.at(0).key);
    }, "[A]\n" },
        { "[A]\n; c\nx=1\n\ny=2\n[B]\nz=3\n", [](CVoIniFileIO& file) { return file.ClearSection(L"A"); },
          "[A]\n; c\n\n[B]\nz=3\n" },
        { "; top\n[A]\n; c\nx=1\n\n; about B\n[B]\nz=3\n[A]\ny=2\n",
          [](CVoIniFileIO& file) { return file.RemoveSection(L"a"); }, "; top\n\n; about B\n[B]\nz=3\n" },
    };
    for (const auto& [before, change, after] : cases)
    {
        CVoIniFileIO file = Parsed(before);
        EXPECT_EQ(change(file), S_OK);
        EXPECT_EQ(BytesOf(file), after);
    }
}

TEST(IniFile, RefusesNamesAndValuesThatWouldNotReadBack)
{
    CVoIniFileIO file = Parsed("[A]\nx=0\n");
    const auto refuses = [&file](const std::wstring& section, const std::wstring& key, const std::wstring& value)
    {
        CLogCapture log;
        EXPECT_EQ(file.SetValue(section, key, value), E_INVALIDARG) << section << key << value;
        EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"CVoIniFileIO::SetValue", E_INVALIDARG)));
    };
    for (const wchar_t* key : { L"", L" x", L"x ", L"x=y", L";x", L"#x", L"[x", L"x\ny" })
        refuses(L"A", key, L"1");
    for (const wchar_t* value : { L" 1", L"1\r2", L"1\n", L"\u00A01" })
        refuses(L"A", L"y", value);
    for (const wchar_t* section : { L"", L"B]", L" B", L"B\n" })
        refuses(section, L"x", L"1");
    EXPECT_EQ(file.SetValue(L"A", L"x", L"\xD800"), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    for (const int encoding : { -1, 5 })
        EXPECT_EQ(file.SetEncoding(static_cast<EVoTextEncoding>(encoding)), E_INVALIDARG);
    EXPECT_EQ(file.Encoding(), EVoTextEncoding::Utf8);
    EXPECT_EQ(BytesOf(file), "[A]\nx=0\n");
}

class IniFileOnDisk : public testing::Test
{
protected:
    static constexpr const char* kOld = "[A]\nx=1\n";
    static constexpr const char* kNew = "[A]\nx=2\n";

    void SetUp() override { WriteTestFile(m_path, kOld); }

    const std::filesystem::path m_folder = MakeTestFolder(L"ini");
    const std::filesystem::path m_path = m_folder / L"file \u00E4\u0436.ini";
};

TEST_F(IniFileOnDisk, SaveWritesChangesAndNothingElse)
{
    CVoIniFileIO file;
    ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
    EXPECT_EQ(file.SetValue(L"A", L"x", L"1"), S_OK);
    EXPECT_EQ(file.Save(), S_FALSE);
    EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    ASSERT_TRUE(::SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_READONLY));
    const CLogCapture log;
    EXPECT_EQ(file.Save(), HResultFromWin32(ERROR_ACCESS_DENIED));
    EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"CVoIniFileIO::Save", HResultFromWin32(ERROR_ACCESS_DENIED))));
    EXPECT_EQ(ReadTestFile(m_path), kOld);
    ASSERT_TRUE(::SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(file.Save(), S_OK);
    EXPECT_EQ(ReadTestFile(m_path), kNew);
    EXPECT_TRUE(::GetFileAttributesW(m_path.c_str()) & FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(file.SaveAs((m_folder / L"other.ini").wstring()), S_OK);
    EXPECT_EQ(ReadTestFile(m_folder / L"other.ini"), kNew);
    EXPECT_THAT(NamesIn(m_folder), testing::UnorderedElementsAre(m_path.filename().wstring(), L"other.ini"));
}

TEST_F(IniFileOnDisk, AReplacementInPiecesIsWholeOrNothing)
{
    {
        CVoFileReplacement file;
        EXPECT_EQ(file.Append("x"), E_UNEXPECTED);
        ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
        EXPECT_EQ(file.Append("wrong"), S_OK);
        EXPECT_EQ(file.Restart(), S_OK);
        EXPECT_EQ(file.Append("[A]\n"), S_OK);
        EXPECT_EQ(file.Append("x=2\n"), S_OK);
        EXPECT_EQ(ReadTestFile(m_path), kOld);
        EXPECT_EQ(file.Commit(), S_OK);
        EXPECT_EQ(file.Append("x"), E_UNEXPECTED);
    }
    EXPECT_EQ(ReadTestFile(m_path), kNew);
    const auto fails = [](auto&&...) { return ::SetLastError(ERROR_DISK_FULL), FALSE; };
    constexpr HRESULT kDiskFull = HResultFromWin32(ERROR_DISK_FULL);
    {
        CVoFileReplacement file;
        ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
        EXPECT_EQ(file.Append("x"), S_OK);
        const CCallHook<decltype(&::SetFileInformationByHandle)> keep("kernel32.dll", "SetFileInformationByHandle", fails);
        EXPECT_EQ(file.Commit(), kDiskFull) << "the system would delete it";
    }
    {
        CVoFileReplacement file;
        ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
        const CCallHook<decltype(&::WriteFile)> write("kernel32.dll", "WriteFile", fails);
        EXPECT_EQ(file.Append("x"), kDiskFull);
        EXPECT_EQ(file.Commit(), E_UNEXPECTED) << "what is not whole must not be committed";
    }
    EXPECT_EQ(ReadTestFile(m_path), kNew);
    EXPECT_EQ(NamesIn(m_folder).size(), 1U);
}

TEST_F(IniFileOnDisk, AMissingFileIsAnEmptyOneOnlyWhenAllowed)
{
    const std::wstring path = (m_folder / L"new.ini").wstring();
    CLogCapture log;
    CVoIniFileIO file;
    EXPECT_EQ(file.Open(path, true), S_OK);
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(file.Save(), S_FALSE);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(file.Open(path), HResultFromWin32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    EXPECT_EQ(file.Save(), S_OK) << "a file that could not be opened leaves the one before";
    EXPECT_EQ(ReadTestFile(path), "[A]\r\nx=2\r\n");
    EXPECT_EQ(Parsed("").Save(), HResultFromWin32(ERROR_INVALID_NAME));
}

TEST_F(IniFileOnDisk, EveryFailureOfThePlatformLeavesTheOldFile)
{
    CLogCapture log;
    const auto run = [&]
    {
        WriteTestFile(m_path, kOld);
        CVoIniFileIO file;
        if (const HRESULT hr = file.Open(m_path.wstring()); FAILED(hr))
            return hr;
        EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
        const HRESULT hr = file.Save();
        EXPECT_EQ(ReadTestFile(m_path), SUCCEEDED(hr) ? kNew : kOld);
        EXPECT_EQ(file.IsModified(), FAILED(hr));
        EXPECT_THAT(NamesIn(m_folder), ElementsAre(m_path.filename().wstring()));
        return hr;
    };
    ExpectEveryFailureIsHandled(
        {
            VO_FAULT("kernel32.dll", GetFullPathNameW, 0U, ERROR_NOT_ENOUGH_MEMORY),
            VO_FAULT("kernel32.dll", CreateFileW, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED),
            VO_FAULT("kernel32.dll", GetFileSizeEx, FALSE, ERROR_IO_DEVICE),
            VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT),
            VO_FAULT("kernel32.dll", GetFileAttributesW, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED),
            VO_FAULT("advapi32.dll", GetFileSecurityW, FALSE, ERROR_ACCESS_DENIED),
            VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_DISK_FULL),
            VO_FAULT("kernel32.dll", FlushFileBuffers, FALSE, ERROR_IO_DEVICE),
            VO_FAULT("kernel32.dll", MoveFileExW, FALSE, ERROR_SHARING_VIOLATION),
        },
        run, [&](HRESULT code) { return TakeReport(log, code); });
}

// A process that is killed at any of these calls leaves what is seen there.
TEST_F(IniFileOnDisk, AtEveryCallOfASaveTheOldFileOrTheNewFileIsComplete)
{
    std::vector<std::string> seen;
    const auto look = [&](auto original, auto... args)
    {
        seen.push_back(ReadTestFile(m_path));
        const auto result = original(args...);
        seen.push_back(ReadTestFile(m_path));
        return result;
    };
    CVoIniFileIO file;
    ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
    ASSERT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    {
        const CCallHook<decltype(&::CreateFileW)> open("kernel32.dll", "CreateFileW", look);
        const CCallHook<decltype(&::WriteFile)> write("kernel32.dll", "WriteFile", look);
        const CCallHook<decltype(&::CloseHandle)> close("kernel32.dll", "CloseHandle", look);
        const CCallHook<decltype(&::MoveFileExW)> rename("kernel32.dll", "MoveFileExW", look);
        EXPECT_EQ(file.Save(), S_OK);
    }
    EXPECT_THAT(seen, testing::Each(testing::AnyOf(kOld, kNew)));
    EXPECT_THAT(seen, testing::AllOf(Contains(kOld), Contains(kNew)));
}
} // namespace
