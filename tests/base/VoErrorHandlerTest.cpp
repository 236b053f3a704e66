#include <base/VoErrorHandler.h>
#include <base/VoLogSetup.h>
#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/TestMain.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <regex>
#include <stdexcept>
#include <thread>

using namespace TestSupport;
using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\Example";
constexpr const wchar_t* kLogSource = L"..\\..\\source\\base\\VoErrorHandler";
constexpr size_t kKiB = 1024;
constexpr size_t kMiB = 1024 * kKiB;

HRESULT Inner() noexcept
{
    constexpr CVoReporter report{ kSource, L"Example::Inner" };
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return report.LastError(11, 12);
}

HRESULT Outer() noexcept
{
    constexpr CVoReporter report{ kSource, L"Example::Outer" };
    if (const HRESULT hr = Inner(); FAILED(hr))
        return report(21, hr);
    return S_OK;
}

void WriteBytes(const std::filesystem::path& path, const std::string& bytes)
{
    FILE* file = ::_wfopen(path.c_str(), L"wb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    std::fclose(file);
}

// Settings of a log of its own, switched on, in a fresh folder.
CVoModuleSettings OwnLog()
{
    CVoModuleSettings settings;
    settings.applicationLog = true;
    settings.directory = MakeTestFolder(L"log").wstring();
    return settings;
}

size_t CountHeaders(const std::string& bytes)
{
    size_t count = 0;
    for (size_t at = bytes.find("NEW RUN\r\n"); at != std::string::npos; at = bytes.find("NEW RUN\r\n", at + 1))
        ++count;
    return count;
}
} // namespace

TEST(ErrorLog, EachCallerOfAFailureLeavesItsLineAndTheCodeComesThrough)
{
    const CLogCapture log;
    constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070002);
    EXPECT_EQ(Outer(), kNotFound);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 11, L"Example::Inner", kNotFound),
                                         IsReport(kSource, 21, L"Example::Outer", kNotFound)));
}

TEST(ErrorLog, MessagesCarryTheirTextAndNoFunction)
{
    const CLogCapture log;
    VoReportMessage(kSource, 5, L"%ls and %hs: %d", L"\u20AC", "narrow", 7);
    VoReportMessage("narrow.h", 6, L"%ls", std::wstring(5000, L'x').c_str());
    EXPECT_THAT(log.Lines(), ElementsAre(IsMessage(kSource, 5, std::wstring(L"\u20AC and narrow: 7")),
                                         IsMessage(L"narrow.h", 6, std::wstring(5000, L'x'))));
    EXPECT_EQ(log.Lines()[0].threadId, static_cast<int>(::GetCurrentThreadId()));
    EXPECT_EQ(log.Lines()[0].module, VoErrorLog().ModuleName());
}

TEST(ErrorLog, TheSwitchOfTheProcessesLogHoldsForEveryReport)
{
    CLogCapture log;
    VoErrorLog().SetApplicationLog(false);
    Outer();
    VoReportMessage(kSource, 5, L"unseen");
    EXPECT_THAT(log.Lines(), SizeIs(0));
    VoErrorLog().SetApplicationLog(true);
    Outer();
    EXPECT_THAT(log.Lines(), SizeIs(2));
}

TEST(ErrorLog, ReportingKeepsTheLastError)
{
    for (const bool on : { false, true })
    {
        const CLogCapture log;
        VoErrorLog().SetApplicationLog(on);
        ::SetLastError(4711);
        VoReportCode(kSource, 1, L"f", E_FAIL);
        VoReportMessage(kSource, 2, L"%d", 1);
        VoReportMessage("x.h", 3, L"%d", 1);
        EXPECT_EQ(::GetLastError(), 4711u);
    }
}

TEST(ErrorLog, AReportWithTheLogOffAllocatesNothing)
{
    CLogCapture log;
    const auto allocations = [](bool on)
    {
        VoErrorLog().SetApplicationLog(on);
        // Counts only; none fails.
        const CFailOnCall<void*(WINAPI*)(size_t)> counter("msvcrt.dll", "malloc", 0, nullptr, 0);
        Outer();
        VoReportMessage(kSource, 5, L"%ls", L"text");
        return counter.Calls();
    };
    EXPECT_EQ(allocations(false), 0);
    EXPECT_GT(allocations(true), 0) << "the counter sees what the log allocates";
}

TEST(ErrorLog, ExceptionsBecomeTheirCodes)
{
    const auto code = [](auto exception)
    {
        try
        {
            throw exception;
        }
        catch (...)
        {
            return HResultFromCurrentException();
        }
    };
    EXPECT_EQ(code(CVoHResultException(DISP_E_OVERFLOW)), DISP_E_OVERFLOW);
    EXPECT_EQ(code(std::bad_alloc()), E_OUTOFMEMORY);
    EXPECT_EQ(code(std::length_error("")), E_INVALIDARG);
    EXPECT_EQ(code(std::out_of_range("")), E_INVALIDARG);
    EXPECT_EQ(code(std::runtime_error("")), E_FAIL);
    EXPECT_EQ(code(1), E_FAIL);
    EXPECT_EQ(HResultFromWin32(0), E_FAIL);
    EXPECT_EQ(HResultFromWin32(5), E_ACCESSDENIED);
    EXPECT_EQ(HResultFromWin32(0x80004001), E_NOTIMPL);
    EXPECT_EQ(HResultFromWin32(0x12345), static_cast<HRESULT>(0x80072345));
}

TEST(LogFormat, LinesHaveThePartsThatAreGiven)
{
    SYSTEMTIME t{};
    t.wYear = 2024;
    t.wMonth = 2;
    t.wDay = 9;
    t.wHour = 3;
    t.wMinute = 4;
    t.wSecond = 5;
    t.wMilliseconds = 6;
    const struct
    {
        const wchar_t* source;
        int line;
        const wchar_t* function;
        const wchar_t* expected;
    } kCases[] = {
        { L"..\\s\\X", 12, L"X::f", L" Module=m File=..\\s\\X Line=12 Function=X::f ThreadID=77 text\r\n" },
        { L"..\\s\\X", 0, nullptr, L" Module=m File=..\\s\\X Line=0 ThreadID=77 text\r\n" },
        { L"X", -1, L"f", L" Module=m File=X Function=f ThreadID=77 text\r\n" },
        { nullptr, 12, L"f", L" Line=12 Function=f ThreadID=77 text\r\n" },
        { nullptr, -1, nullptr, L" ThreadID=77 text\r\n" },
        { L"", INT_MIN, L"", L" Module=m File= Function= ThreadID=77 text\r\n" },
    };
    for (const auto& c : kCases)
        EXPECT_EQ(VoLogSetup::Line(t, L" Module=m File=", c.source, c.line, c.function, 77, L"text"),
                  std::wstring(L"2024.02.09 03:04:05.006") + c.expected);
}

TEST(LogFormat, RunHeaderIsExact)
{
    const std::wstring rule = std::wstring(144, L'*') + L"\r\n";
    VoLogSetup::CRunFacts facts{ L"mod", L"proc.exe", {}, L"Jan  1 2024", L"01:02:03", L"1,2,3,4", L"main" };
    EXPECT_EQ(VoLogSetup::RunHeader(facts),
              rule +
                  L"NEW RUN\r\nModule: (mod) \r\nProcess: (proc.exe)\r\nProcess created at unknown time\r\n"
                  L"Module compiled at:Jan  1 2024  01:02:03   Version:1,2,3,4 Branch:main\r\n" +
                  rule);
    SYSTEMTIME created{};
    created.wYear = 2024;
    created.wMonth = 12;
    created.wDay = 31;
    created.wMilliseconds = 7;
    facts = { L"mod", L"proc.exe", created, L"", L"", L"", L"" };
    EXPECT_EQ(VoLogSetup::RunHeader(facts),
              rule +
                  L"NEW RUN\r\nModule: (mod) \r\nProcess: (proc.exe)\r\nProcess created at:2024.12.31  00:00:00.007\r\n"
                  L"Module compiled at:UNKNOWN  UNKNOWN   Version:UNKNOWN Branch:UNKNOWN\r\n" +
                  rule);
}

TEST(LogSetup, TheApplicationNameIsSearchedOnTheCommandLine)
{
    const std::pair<const wchar_t*, const wchar_t*> kCases[] = {
        { L"x.exe", L"" },
        { L"x.exe -ap Scanner", L"Scanner" },
        { L"x.exe /ap \t Scanner -v", L"Scanner" },
        { L"x.exe -ap \"My Scanner\"", L"My Scanner" },
        { L"x.exe -ap \"\" /ap second", L"second" },
        { L"x.exe -ap \"open", L"" },
        { L"x.exe -ap one\"two", L"one" },
        { L"x.exe -map name", L"" },
        { L"x.exe snap-ap name", L"name" }, // part of a longer word: intended
        { L"x.exe -AP Scanner", L"" },
        { L"x.exe -apple", L"" },
        { L"x.exe -ap", L"" },
        { L"x.exe -ap -ap", L"-ap" },
    };
    for (const auto& [commandLine, expected] : kCases)
        EXPECT_EQ(VoLogSetup::FindApplicationName(commandLine), expected) << commandLine;

    // The expression itself is the reference.
    const std::wregex expression(L"[-/]ap\\s+(\"[^\"]+\"|[^\\s\"]+)");
    std::mt19937 random(1);
    constexpr std::wstring_view kAlphabet = L"-/aapp  \"x";
    for (int i = 0; i < 20000; ++i)
    {
        std::wstring text;
        for (unsigned length = random() % 14; length > 0; --length)
            text += kAlphabet[random() % kAlphabet.size()];
        std::wsmatch match;
        std::wstring expected = std::regex_search(text, match, expression) ? match[1].str() : std::wstring();
        expected.erase(std::remove(expected.begin(), expected.end(), L'"'), expected.end());
        ASSERT_EQ(VoLogSetup::FindApplicationName(text), expected) << text;
    }
}

TEST(LogSetup, TheLogIsNamedAfterTheApplicationTheModuleOrTheProcess)
{
    EXPECT_EQ(VoLogSetup::LogName(L"App", L"prog.exe", L"mod.dll"), L"App");
    EXPECT_EQ(VoLogSetup::LogName(L"", L"prog.v2.exe", L"mod.dll"), L"prog.v2");
    for (const wchar_t* host : { L"DLLHOST.EXE", L"regsvr32.exe", L"MsiExec.exe", L"INETINFO.EXE", L"w3wp.exe", L"DOTNET.EXE",
                                 L"iisexpress.exe", L"php-cgi.exe" })
        EXPECT_EQ(VoLogSetup::LogName(L"", host, L"mod.dll"), L"mod") << host;
    EXPECT_EQ(VoLogSetup::LogName(L"", L"dllhost.exe.exe", L"mod.dll"), L"dllhost.exe");
    EXPECT_EQ(VoLogSetup::LogName(L"", L"", L""), L"Application");
    EXPECT_EQ(VoLogSetup::LogName(L"", L"dllhost.exe", L""), L"Application");
}

TEST(LogSetup, TheDirectoryIsTheFirstThatIsKnown)
{
    const auto choose = [](const wchar_t* directory, bool useTemp, const wchar_t* temp, const wchar_t* module)
    {
        CVoModuleSettings settings;
        settings.directory = directory;
        settings.useTempDirectory = useTemp;
        return VoLogSetup::ChooseDirectory(settings, temp, module, L"current");
    };
    EXPECT_EQ(choose(L"C:\\logs\\\\", true, L"temp", L"module"), L"C:\\logs");
    EXPECT_EQ(choose(L"\\", true, L"temp", L"module"), L"temp");
    EXPECT_EQ(choose(L"", false, L"temp", L"module"), L"module");
    EXPECT_EQ(choose(L"", true, L"", L"module"), L"module");
    EXPECT_EQ(choose(L"", true, L"", L""), L"current");
}

TEST(LogSetup, DirectoryIsExpandedAndMayCarryTheVersion)
{
    ASSERT_TRUE(::SetEnvironmentVariableW(L"VO_TEST_LOGS", L"C:\\some\\logs"));
    ASSERT_TRUE(::SetEnvironmentVariableW(L"VO_TEST_LONG", std::wstring(300, L'x').c_str()));
    const auto pathOf = [](const wchar_t* directory, const wchar_t* version, bool append)
    {
        CVoModuleSettings settings;
        settings.directory = directory;
        settings.versionString = version;
        settings.appendVersionToDirectory = append;
        CVoErrorLogFile log;
        log.Init(settings);
        return log.LogFilePath().substr(0, log.LogFilePath().rfind(L'\\'));
    };
    EXPECT_EQ(pathOf(L"%VO_TEST_LOGS%\\a\\", L"1.2", true), L"C:\\some\\logs\\a\\1.2");
    EXPECT_EQ(pathOf(L"%VO_TEST_LOGS%", L"1.2", false), L"C:\\some\\logs");
    EXPECT_EQ(pathOf(L"%VO_TEST_LOGS%", L"", true), L"C:\\some\\logs");
    EXPECT_EQ(pathOf(L"%VO_TEST_LONG%", L"", true), L"%VO_TEST_LONG%");
}

TEST(Settings, AreReadWithDefaultsAndLimits)
{
    const std::filesystem::path folder = MakeTestFolder(L"settings");
    const auto read = [&folder](const std::string& content)
    {
        WriteBytes(folder / L"ModuleSettings.ini", content);
        return VoReadModuleSettings(folder.wstring());
    };
    const auto expectDefaults = [](const CVoModuleSettings& s)
    {
        EXPECT_FALSE(s.applicationLog);
        EXPECT_FALSE(s.otherLog);
        EXPECT_TRUE(s.cutOff);
        EXPECT_EQ(s.cutOffSizeKiB, 8192);
        EXPECT_TRUE(s.useTempDirectory);
        EXPECT_EQ(s.directory, L"");
        EXPECT_EQ(s.versionString, L"");
        EXPECT_FALSE(s.appendVersionToDirectory);
        EXPECT_FALSE(s.localizerGenerate);
        EXPECT_TRUE(s.needWatchdog);
        EXPECT_EQ(s.httpEngine, 0u);
        EXPECT_TRUE(s.checkServerCertificate);
        EXPECT_FALSE(s.checkCertificateRevocation);
    };
    expectDefaults(VoReadModuleSettings(folder.wstring() + L"\\missing"));
    expectDefaults(
        read("[DEBUG]\r\nAPPLOG=maybe\r\nOTHERLOG=\r\nAPPLOGCUTOFF=2\r\nUseTempDirectory=x\r\nAPPLOGCUTOFFSIZEINKBYTE=8 MB\r\n"
             "AppendSoftwareVersionToLogDir=ja\r\n[OrvLocalizer]\r\nGenerate=-1\r\n[WatchDogSettings]\r\nNeedWatchDog=n\r\n"
             "[SETTINGS]\r\nHTTPEngine=two\r\nHTTPCheckServerCert=?\r\nHTTPCheckServerCertRevocation=11\r\n"));

    const CVoModuleSettings s = read(
        "[DEBUG]\r\nAPPLOG=TRUE\r\nOTHERLOG=1\r\nAPPLOGCUTOFF=no\r\nUseTempDirectory=off\r\nAPPLOGCUTOFFSIZEINKBYTE=10000\r\n"
        "Directory=C:\\logs\r\nVersionString=1.2\r\nAppendSoftwareVersionToLogDir=yes\r\n[OrvLocalizer]\r\nGenerate=on\r\n"
        "[WatchDogSettings]\r\nNeedWatchDog=0\r\n[SETTINGS]\r\nHTTPEngine=2\r\nHTTPCheckServerCert=FALSE\r\n"
        "HTTPCheckServerCertRevocation=YES\r\n");
    EXPECT_TRUE(s.applicationLog);
    EXPECT_TRUE(s.otherLog);
    EXPECT_FALSE(s.cutOff);
    EXPECT_FALSE(s.useTempDirectory);
    EXPECT_EQ(s.cutOffSizeKiB, 10000);
    EXPECT_EQ(s.directory, L"C:\\logs");
    EXPECT_EQ(s.versionString, L"1.2");
    EXPECT_TRUE(s.appendVersionToDirectory);
    EXPECT_TRUE(s.localizerGenerate);
    EXPECT_FALSE(s.needWatchdog);
    EXPECT_EQ(s.httpEngine, 2u);
    EXPECT_FALSE(s.checkServerCertificate);
    EXPECT_TRUE(s.checkCertificateRevocation);

    const std::pair<const char*, INT32> kSizes[] = { { "100", 8192 },       { "-1", 8192 },         { "8191", 8192 },
                                                     { "8193", 8193 },      { "1048576", 1048576 }, { "2000000", 1048576 },
                                                     { "1048575", 1048575 } };
    for (const auto& [text, size] : kSizes)
        EXPECT_EQ(read(std::string("[DEBUG]\r\nAPPLOGCUTOFFSIZEINKBYTE=") + text + "\r\n").cutOffSizeKiB, size) << text;
    const std::pair<const char*, UINT32> kEngines[] = {
        { "0", 0 }, { "1", 1 }, { "3", 3 }, { "4", 0 }, { "5", 0 }, { "-1", 0 }
    };
    for (const auto& [text, engine] : kEngines)
        EXPECT_EQ(read(std::string("[SETTINGS]\r\nHTTPEngine=") + text + "\r\n").httpEngine, engine) << text;
}

TEST(Settings, TheFolderIsFixedOnceTheLogIsThere)
{
    const CLogCapture log;
    EXPECT_EQ(VoSetModuleSettingsDirectory(L"C:\\"), HResultFromWin32(ERROR_ALREADY_INITIALIZED));
    EXPECT_THAT(log.Lines(),
                ElementsAre(IsReportBy(L"VoSetModuleSettingsDirectory", HResultFromWin32(ERROR_ALREADY_INITIALIZED))));
    EXPECT_EQ(VoErrorLog().Settings().directory, TestFolder().wstring());
}

TEST(Settings, TheModuleRecordKnowsNameAndVersion)
{
    const CVoModuleInformation& record = CVoModuleInformation::Get();
    EXPECT_EQ(record.TargetName(), VoErrorLog().ModuleName());
    EXPECT_TRUE(std::regex_match(record.Version(), std::wregex(L"\\d+(,\\d+){3}"))) << "FileVersion of the test program";
    EXPECT_FALSE(record.IsDebug());
    EXPECT_EQ(record.HTTPEngine(), 0u);
    EXPECT_TRUE(record.CheckServerCertificate());
    EXPECT_FALSE(record.CheckCertificateRevocation());
}

TEST(LogFile, EveryRunBeginsWithItsHeaderAndTheStartLine)
{
    const CVoModuleSettings settings = OwnLog();
    std::wstring path;
    for (int run = 1; run <= 2; ++run)
    {
        CVoErrorLogFile log;
        log.Init(settings);
        path = log.LogFilePath();
        log.WriteCode(kSource, run, L"f", E_FAIL);
        EXPECT_EQ(CountHeaders(ReadLogFile(path)), static_cast<size_t>(run));
    }
    const std::string bytes = ReadLogFile(path);
    EXPECT_THAT(bytes, StartsWith(std::string(144, '*') + "\r\nNEW RUN\r\nModule: ("));
    std::wstring start = L"Module: " + VoErrorLog().ModuleName() + L",Logging started, logging switched on";
    const std::vector<CLogLine> lines = ParseLog(bytes);
    ASSERT_THAT(lines, SizeIs(4));
    for (const size_t i : { size_t{ 0 }, size_t{ 2 } })
    {
        EXPECT_EQ(lines[i].source, kLogSource);
        EXPECT_EQ(lines[i].line, 484);
        EXPECT_EQ(lines[i].function, L"CVoErrorLogFile::Init");
        EXPECT_EQ(lines[i].message, start);
    }
    EXPECT_THAT(lines[3], IsReport(kSource, 2, L"f", E_FAIL));
}

TEST(LogFile, WithTheLogOffThereIsNoFileAndNoWait)
{
    CVoModuleSettings settings = OwnLog();
    settings.applicationLog = false;
    const CFailOnCall<decltype(&::WaitForSingleObject)> waits("kernel32.dll", "WaitForSingleObject", 0, WAIT_FAILED, 0);
    CVoErrorLogFile log;
    log.Init(settings);
    log.WriteCode(kSource, 1, L"f", E_FAIL);
    EXPECT_EQ(::GetFileAttributesW(log.LogFilePath().c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(waits.Calls(), 0);
    log.SetApplicationLog(true);
    log.WriteCode(kSource, 1, L"f", E_FAIL);
    EXPECT_EQ(waits.Calls(), 1);
    EXPECT_EQ(CountHeaders(ReadLogFile(log.LogFilePath())), 1u);
}

TEST(LogFile, TextThatIsNotUTF16IsReplacedByNoData)
{
    CVoErrorLogFile log;
    log.Init(OwnLog());
    const std::string before = ReadLogFile(log.LogFilePath());
    log.WriteLine(kSource, 1, L"f", L"lone \xD800 surrogate");
    EXPECT_EQ(ReadLogFile(log.LogFilePath()), before + "NO DATA");
}

TEST(LogFile, ALineThatCannotBeWrittenIsDroppedAndLeavesTheHeaderPending)
{
    // Each fault hits the first line only; the next carries the header.
    const CFault kFaults[] = {
        VO_FAULT("kernel32.dll", CreateFileW, INVALID_HANDLE_VALUE, ERROR_SHARING_VIOLATION),
        VO_FAULT("kernel32.dll", SetFilePointerEx, FALSE, ERROR_SEEK),
        VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_DISK_FULL),
    };
    for (const CFault& fault : kFaults)
    {
        CVoModuleSettings settings = OwnLog();
        settings.applicationLog = false;
        CVoErrorLogFile log;
        log.Init(settings);
        log.SetApplicationLog(true);
        const DWORD handles = CountProcessHandles();
        {
            const auto failing = fault.inject(1);
            ::SetLastError(4711);
            log.WriteCode(kSource, 1, L"f", E_FAIL);
            EXPECT_EQ(::GetLastError(), 4711u) << fault.function;
            EXPECT_EQ(failing->Calls(), 1) << fault.function;
        }
        EXPECT_EQ(ReadLogFile(log.LogFilePath()), "") << fault.function;
        EXPECT_EQ(CountProcessHandles(), handles) << fault.function;
        log.WriteCode(kSource, 2, L"f", E_FAIL);
        const std::string bytes = ReadLogFile(log.LogFilePath());
        EXPECT_EQ(CountHeaders(bytes), 1u) << fault.function;
        EXPECT_THAT(ParseLog(bytes), ElementsAre(IsReport(kSource, 2, L"f", E_FAIL))) << fault.function;
    }
}

TEST(LogFile, WorksWithoutItsMutexAndWithoutTheProcessTime)
{
    const CFailOnCall<decltype(&::CreateMutexW)> mutex("kernel32.dll", "CreateMutexW", 1, nullptr, ERROR_ACCESS_DENIED);
    const CFailOnCall<decltype(&::GetProcessTimes)> times("kernel32.dll", "GetProcessTimes", 1, FALSE, ERROR_ACCESS_DENIED);
    CVoErrorLogFile log;
    log.Init(OwnLog());
    EXPECT_EQ(mutex.Calls(), 1);
    const std::string bytes = ReadLogFile(log.LogFilePath());
    EXPECT_THAT(ParseLog(bytes), SizeIs(1));
    EXPECT_NE(bytes.find(")\r\nProcess created at unknown time\r\nModule compiled at:"), std::string::npos);
}

TEST(LogFile, AFailedTemporaryFolderGivesTheModulesFolder)
{
    const CFailOnCall<decltype(&::GetTempPathW)> fail("kernel32.dll", "GetTempPathW", 1, 0, ERROR_ACCESS_DENIED);
    CVoErrorLogFile log;
    log.Init(CVoModuleSettings{});
    std::wstring directory;
    ASSERT_EQ(GetModuleDirAndFileName(nullptr, &directory, nullptr), S_OK);
    EXPECT_THAT(log.LogFilePath(), StartsWith(directory + L"\\"));
}

namespace
{
// A log whose next line finds a file of `size` bytes: each eight hold their own number.
struct CLargeLog
{
    CLargeLog(size_t size, bool cutOff)
    {
        CVoModuleSettings settings = OwnLog();
        settings.cutOff = cutOff;
        log.Init(settings);
        for (size_t i = 0; content.size() < size; ++i)
        {
            char number[16];
            std::snprintf(number, sizeof number, "%08zu", i);
            content.append(number, std::min<size_t>(8, size - content.size()));
        }
        WriteBytes(log.LogFilePath(), content);
    }
    // Writes a line and gives what stands in the file in front of it; "?" when the line is not at the end.
    std::string BeforeTheNextLine()
    {
        log.WriteCode(kSource, 7, L"f", E_FAIL);
        const std::string bytes = ReadLogFile(log.LogFilePath());
        constexpr std::string_view kEnd = " Line=7 Function=f ThreadID=";
        const size_t at = bytes.rfind(kEnd);
        const size_t start = at == std::string::npos ? at : bytes.rfind(" Module=", at);
        if (start == std::string::npos || start < 23 || bytes.find("\r\n", at) != bytes.size() - 2)
            return "?";
        return bytes.substr(0, start - 23);
    }

    CVoErrorLogFile log;
    std::string content;
};
} // namespace

TEST(LogFile, IsCutToItsNewestHalfOnceItExceedsTheLimit)
{
    const struct
    {
        size_t size;
        bool cutOff;
        size_t kept;
    } kCases[] = {
        { 9 * kMiB, true, 4 * kMiB },
        { 8 * kMiB + 1, true, 4 * kMiB },
        { 8 * kMiB, true, 8 * kMiB },
        { 9 * kMiB, false, 9 * kMiB },
    };
    for (const auto& c : kCases)
    {
        CLargeLog large(c.size, c.cutOff);
        const std::string before = large.BeforeTheNextLine();
        // Not EXPECT_EQ, which would print megabytes.
        EXPECT_EQ(before.size(), c.kept);
        EXPECT_TRUE(before == large.content.substr(c.size - c.kept)) << c.size << " cut off " << c.cutOff;
    }
}

TEST(LogFile, ALineIsWrittenBehindTheFileAlsoWhenTheCutFails)
{
    // The first seek finds the file's end; the later ones, and all reads, are the cut's.
    const std::pair<CFault, int> kFaults[] = {
        { VO_FAULT("kernel32.dll", SetFilePointerEx, FALSE, ERROR_SEEK), 2 },
        { VO_FAULT("kernel32.dll", SetFilePointerEx, FALSE, ERROR_SEEK), 3 },
        { VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT), 1 },
        { VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT), 5 },
        { VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_WRITE_FAULT), 2 },
        { VO_FAULT("kernel32.dll", SetEndOfFile, FALSE, ERROR_DISK_FULL), 1 },
    };
    for (const auto& [fault, call] : kFaults)
    {
        CLargeLog large(9 * kMiB, true);
        const auto failing = fault.inject(call);
        const std::string before = large.BeforeTheNextLine();
        EXPECT_GE(failing->Calls(), call) << fault.function;
        EXPECT_EQ(before.size(), 9 * kMiB) << fault.function << " " << call;
    }
}

namespace
{
constexpr int kLinesOfAWriter = 100;

void WriteManyLines()
{
    for (int i = 0; i < kLinesOfAWriter; ++i)
        VoReportMessage(kSource, i, L"line %d of %lu", i, ::GetCurrentThreadId());
}
} // namespace

// Run by the test below in processes of its own.
TEST(LogFile, DISABLED_WriterProcess)
{
    VoErrorLog().SetApplicationLog(true);
    std::thread other(WriteManyLines);
    WriteManyLines();
    other.join();
}

TEST(LogFile, LinesOfManyThreadsAndProcessesStayWhole)
{
    constexpr int kProcesses = 3;
    const std::string before = ReadLogFile(VoErrorLog().LogFilePath());
    wchar_t program[MAX_PATH];
    ASSERT_LT(::GetModuleFileNameW(nullptr, program, MAX_PATH), DWORD{ MAX_PATH });
    std::vector<PROCESS_INFORMATION> processes(kProcesses);
    for (PROCESS_INFORMATION& process : processes)
    {
        std::wstring commandLine =
            std::wstring(L"\"") + program +
            L"\" --gtest_also_run_disabled_tests --gtest_brief=1 --gtest_filter=LogFile.DISABLED_WriterProcess";
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        ASSERT_TRUE(::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                                     &startup, &process));
    }
    for (const PROCESS_INFORMATION& process : processes)
    {
        DWORD code = 1;
        EXPECT_EQ(::WaitForSingleObject(process.hProcess, INFINITE), WAIT_OBJECT_0);
        EXPECT_TRUE(::GetExitCodeProcess(process.hProcess, &code));
        EXPECT_EQ(code, 0u);
        ::CloseHandle(process.hThread);
        ::CloseHandle(process.hProcess);
    }
    const std::string bytes = ReadLogFile(VoErrorLog().LogFilePath()).substr(before.size());
    EXPECT_EQ(CountHeaders(bytes), size_t{ kProcesses }) << "each process adds its run header";
    const std::vector<CLogLine> lines = ParseLog(bytes);
    EXPECT_THAT(lines, SizeIs(kProcesses * 2 * kLinesOfAWriter));
    for (const CLogLine& line : lines)
        EXPECT_EQ(line.message, VoFormat(L"line %d of %d", line.line, line.threadId));
}
