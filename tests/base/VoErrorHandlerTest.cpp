// Tests of reports, the log file and the settings.
#include <base/VoErrorHandler.h>
#include <base/VoLogSetup.h>
#include <base/VoUtils.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/TestMain.h>

#include <regex>
#include <stdexcept>

using namespace TestSupport;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;

namespace
{
constexpr const wchar_t* kExampleSource = L"..\\source\\Example";
constexpr size_t kMiB = 0x100000;

HRESULT Inner() noexcept
{
    constexpr CVoReporter report{ kExampleSource, L"Example::Inner" };
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return report.LastError(11, 12);
}

HRESULT Outer() noexcept
{
    constexpr CVoReporter report{ kExampleSource, L"Example::Outer" };
    if (const HRESULT hr = Inner(); FAILED(hr))
        return report(21, hr);
    return S_OK;
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
    const std::regex header("NEW RUN\r\n");
    return static_cast<size_t>(std::distance(std::sregex_iterator(bytes.begin(), bytes.end(), header), {}));
}
} // namespace

TEST(ErrorLog, EachCallerOfAFailureLeavesItsLineAndTheCodeComesThrough)
{
    const CLogCapture log;
    constexpr auto kNotFound = static_cast<HRESULT>(0x80070002);
    EXPECT_EQ(Outer(), kNotFound);
    VoReportMessage(kExampleSource, 5, L"%ls and %hs: %d", L"\u20AC", "narrow", 7);
    VoReportMessage("narrow.h", 6, L"%ls", std::wstring(5000, L'x').c_str());
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kExampleSource, 11, L"Example::Inner", kNotFound),
                                         IsReport(kExampleSource, 21, L"Example::Outer", kNotFound),
                                         IsMessage(kExampleSource, 5, std::wstring(L"\u20AC and narrow: 7")),
                                         IsMessage(L"narrow.h", 6, std::wstring(5000, L'x'))));
    EXPECT_EQ(log.Lines()[0].threadId, static_cast<int>(::GetCurrentThreadId()));
}

TEST(ErrorLog, AReportKeepsTheLastErrorAndAllocatesNothingWhenTheLogIsOff)
{
    CLogCapture log;
    const auto allocations = [](bool on)
    {
        VoErrorLog().SetApplicationLog(on);
        // Counts only; none fails.
        const CFailOnCall<void*(WINAPI*)(size_t)> counter("msvcrt.dll", "malloc", 0, nullptr, 0);
        ::SetLastError(4711);
        VoReportCode(kExampleSource, 1, L"f", E_FAIL);
        VoReportMessage(kExampleSource, 2, L"%ls", L"text");
        VoReportMessage("x.h", 3, L"%d", 1);
        EXPECT_EQ(::GetLastError(), 4711u);
        return counter.Calls();
    };
    EXPECT_EQ(allocations(false), 0);
    EXPECT_THAT(log.Lines(), SizeIs(0));
    EXPECT_GT(allocations(true), 0) << "the counter sees what the log allocates";
    EXPECT_THAT(log.Lines(), SizeIs(3));
}

TEST(ErrorLog, ExceptionsBecomeTheirCodes)
{
    for (const auto& [exception, code] : { std::pair(std::make_exception_ptr(std::bad_alloc()), E_OUTOFMEMORY),
                                           { std::make_exception_ptr(std::length_error("")), E_INVALIDARG },
                                           { std::make_exception_ptr(1), E_FAIL } })
        try
        {
            std::rethrow_exception(exception);
        }
        catch (...)
        {
            EXPECT_EQ(HResultFromCurrentException(), code);
        }
}

TEST(LogFormat, LinesHaveThePartsThatAreGiven)
{
    const SYSTEMTIME t{ 2024, 2, 0, 9, 3, 4, 5, 6 };
    const std::tuple<const wchar_t*, int, const wchar_t*, const wchar_t*> kCases[] = {
        { L"..\\s\\X", 0, nullptr, L" Module=m File=..\\s\\X Line=0 ThreadID=77 text\r\n" },
        { nullptr, 12, L"f", L" Line=12 Function=f ThreadID=77 text\r\n" },
        { nullptr, -1, nullptr, L" ThreadID=77 text\r\n" },
        { L"", INT_MIN, L"", L" Module=m File= Function= ThreadID=77 text\r\n" },
    };
    for (const auto& [source, line, function, expected] : kCases)
        EXPECT_EQ(VoLogSetup::Line(t, L" Module=m File=", source, line, function, 77, L"text"),
                  std::wstring(L"2024.02.09 03:04:05.006") + expected);
}

TEST(LogFormat, RunHeaderIsExact)
{
    const std::wstring rule = std::wstring(144, L'*') + L"\r\n";
    const std::wstring names = rule + L"NEW RUN\r\nModule: (mod) \r\nProcess: (proc.exe)\r\nProcess created at";
    VoLogSetup::CRunFacts facts{ L"mod", L"proc.exe", {}, L"Jan  1 2024", L"01:02:03", L"1,2,3,4", L"main" };
    EXPECT_EQ(VoLogSetup::RunHeader(facts),
              names + L" unknown time\r\nModule compiled at:Jan  1 2024  01:02:03   Version:1,2,3,4 Branch:main\r\n" + rule);
    facts = { L"mod", L"proc.exe", SYSTEMTIME{ 2024, 12, 0, 31, 0, 0, 0, 7 }, L"", L"", L"", L"" };
    EXPECT_EQ(VoLogSetup::RunHeader(facts),
              names + L":2024.12.31  00:00:00.007\r\nModule compiled at:UNKNOWN  UNKNOWN   Version:UNKNOWN Branch:UNKNOWN\r\n" +
                  rule);
}

TEST(LogSetup, TheLogIsNamedAfterTheApplicationTheModuleOrTheProcess)
{
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*> kCases[] = {
        { L"x.exe /ap \t Scanner -v", L"prog.exe", L"mod.dll", L"Scanner" },
        { L"x.exe -ap \"My Scanner\"", L"dllhost.exe", L"mod.dll", L"My Scanner" },
        { L"x.exe -ap \"\" /ap second", L"prog.exe", L"mod.dll", L"second" },
        { L"x.exe snap-ap one\"two", L"prog.exe", L"mod.dll", L"one" }, // part of a longer word: intended
        { L"x.exe -AP Scanner -apple", L"prog.v2.exe", L"mod.dll", L"prog.v2" },
        { L"", L"DLLHOST.EXE", L"mod.dll", L"mod" },
        { L"", L"php-cgi.exe", L"mod.dll", L"mod" },
        { L"", L"dllhost.exe.exe", L"mod.dll", L"dllhost.exe" },
        { L"", L"dllhost.exe", L"", L"Application" },
        { L"-ap ..\\x", L"prog.exe", L"mod.dll", L"prog" },
        { L"-ap a:b", L"prog.exe", L"mod.dll", L"prog" },
        { L"-ap \"x.\"", L"prog.exe", L"mod.dll", L"prog" },
        { L"-ap nul.x", L"prog.exe", L"mod.dll", L"prog" },
        { L"-ap Com1", L"prog.exe", L"mod.dll", L"prog" },
        { L"-ap Com", L"prog.exe", L"mod.dll", L"Com" },
    };
    for (const auto& [commandLine, process, module, expected] : kCases)
        EXPECT_EQ(VoLogSetup::LogName(VoLogSetup::FindApplicationName(commandLine), process, module), expected)
            << commandLine << process;
}

TEST(LogSetup, TheDirectoryIsTheFirstKnownOneExpandedAndWithTheVersion)
{
    ASSERT_TRUE(::SetEnvironmentVariableW(L"VO_TEST_LOGS", L"C:\\some\\logs"));
    ASSERT_TRUE(::SetEnvironmentVariableW(L"VO_TEST_LONG", std::wstring(300, L'x').c_str()));
    CVoModuleSettings settings;
    const auto choose = [&](const wchar_t* directory, bool useTemp, const wchar_t* temp, const wchar_t* module)
    {
        settings.directory = directory;
        settings.useTempDirectory = useTemp;
        return VoLogSetup::ChooseDirectory(settings, temp, module, L"current");
    };
    EXPECT_EQ(choose(L"\\", true, L"temp", L"module"), L"temp");
    EXPECT_EQ(choose(L"", false, L"temp", L"module"), L"module");
    EXPECT_EQ(choose(L"", true, L"", L""), L"current");

    const auto pathOf = [&](const wchar_t* directory, const wchar_t* version, bool append)
    {
        settings.directory = directory;
        settings.versionString = version;
        settings.appendVersionToDirectory = append;
        CVoErrorLogFile log;
        log.Init(settings);
        return log.LogFilePath().substr(0, log.LogFilePath().rfind(L'\\'));
    };
    EXPECT_EQ(pathOf(L"%VO_TEST_LOGS%\\a\\\\", L"1.2", true), L"C:\\some\\logs\\a\\1.2");
    EXPECT_EQ(pathOf(L"%VO_TEST_LOGS%", L"1.2", false), L"C:\\some\\logs");
    EXPECT_EQ(pathOf(L"%VO_TEST_LOGS%", L"", true), L"C:\\some\\logs");
    wchar_t current[MAX_PATH];
    ASSERT_GT(::GetCurrentDirectoryW(MAX_PATH, current), 0u);
    EXPECT_EQ(pathOf(L"%VO_TEST_LONG%", L"", true), std::wstring(current) + L"\\%VO_TEST_LONG%");
    EXPECT_EQ(pathOf(L"C:\\", L"", false), L"C:");
    EXPECT_EQ(pathOf(L"C:\\logs ", L"", false), L"C:\\logs") << "the platform takes the blank away";
    EXPECT_EQ(pathOf(L"logs", L"", false), std::wstring(current) + L"\\logs") << "a relative folder is made absolute once";
}

TEST(Settings, AreReadWithDefaultsAndLimits)
{
    const std::filesystem::path folder = MakeTestFolder(L"settings");
    const auto read = [&folder](const std::string& content)
    {
        WriteTestFile(folder / L"ModuleSettings.ini", content);
        const CVoModuleSettings s = VoReadModuleSettings(folder.wstring());
        return VoFormat(L"%d%d%d%d %d%d%d %d%d", s.applicationLog, s.otherLog, s.cutOff, s.useTempDirectory,
                        s.appendVersionToDirectory, s.localizerGenerate, s.needWatchdog, s.checkServerCertificate,
                        s.checkCertificateRevocation) +
               VoFormat(L" %d %u [%ls] [%ls]", s.cutOffSizeKiB, s.httpEngine, s.directory.c_str(), s.versionString.c_str());
    };
    constexpr const wchar_t* kDefaults = L"0011 001 10 8192 0 [] []";
    EXPECT_EQ(
        read("[DEBUG]\r\nAPPLOG=maybe\r\nOTHERLOG=\r\nAPPLOGCUTOFF=2\r\nUseTempDirectory=x\r\nAPPLOGCUTOFFSIZEINKBYTE=8 MB\r\n"
             "AppendSoftwareVersionToLogDir=ja\r\n[OrvLocalizer]\r\nGenerate=-1\r\n[WatchDogSettings]\r\nNeedWatchDog=n\r\n"
             "[SETTINGS]\r\nHTTPEngine=4\r\nHTTPCheckServerCert=?\r\nHTTPCheckServerCertRevocation=11\r\n"),
        kDefaults);
    EXPECT_EQ(
        read("[DEBUG]\r\nAPPLOG=TRUE\r\nOTHERLOG=1\r\nAPPLOGCUTOFF=no\r\nUseTempDirectory=off\r\nAPPLOGCUTOFFSIZEINKBYTE="
             "10000\r\n"
             "Directory=C:\\logs\r\nVersionString=1.2\r\nAppendSoftwareVersionToLogDir=yes\r\n[OrvLocalizer]\r\nGenerate=on\r\n"
             "[WatchDogSettings]\r\nNeedWatchDog=0\r\n[SETTINGS]\r\nHTTPEngine=3\r\nHTTPCheckServerCert=FALSE\r\n"
             "HTTPCheckServerCertRevocation=YES\r\n"),
        L"1100 110 01 10000 3 [C:\\logs] [1.2]");
    for (const auto& [text, size] :
         { std::pair("8191", 8192), { "1048577", 1048576 }, { "99999999999", 1048576 }, { "-99999999999", 8192 } })
    {
        read(std::string("[DEBUG]\r\nAPPLOGCUTOFFSIZEINKBYTE=") + text);
        EXPECT_EQ(VoReadModuleSettings(folder.wstring()).cutOffSizeKiB, size) << text;
    }
}

TEST(Settings, TheFolderIsFixedOnceTheLogExists)
{
    const HRESULT tooLate = HResultFromWin32(ERROR_ALREADY_INITIALIZED);
    const CLogCapture log;
    EXPECT_EQ(VoSetModuleSettingsDirectory(L"C:\\"), tooLate);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"VoSetModuleSettingsDirectory", tooLate)));
    EXPECT_EQ(VoErrorLog().Settings().directory, TestFolder().wstring());
}

TEST(LogFile, EveryRunBeginsWithItsHeaderAndTheStartLine)
{
    const CVoModuleSettings settings = OwnLog();
    std::string bytes;
    for (const int run : { 1, 2 })
    {
        CVoErrorLogFile log;
        log.Init(settings);
        log.WriteCode(kExampleSource, run, L"f", E_FAIL);
        bytes = ReadTestFile(log.LogFilePath());
    }
    EXPECT_EQ(CountHeaders(bytes), 2u);
    // What the platform knows of this process and its file.
    EXPECT_TRUE(std::regex_search(bytes, std::regex(R"(Process created at:20\d\d\.\d\d\.\d\d  \d\d:)"))) << bytes;
    EXPECT_TRUE(std::regex_search(bytes, std::regex(R"(Version:\d+,\d+,\d+,\d+ )"))) << bytes;
    const std::vector<CLogLine> lines = ParseLog(bytes);
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines[2].text, EndsWith(VoFormat(L"VoErrorHandler Line=484 Function=CVoErrorLogFile::Init ThreadID=%d Module: "
                                                 L"%ls,Logging started, logging switched on",
                                                 lines[2].threadId, VoErrorLog().ModuleName().c_str())));
    EXPECT_THAT(lines[3], IsReport(kExampleSource, 2, L"f", E_FAIL));
}

TEST(LogFile, WithTheLogOffThereIsNoFileAndNoWait)
{
    CVoModuleSettings settings = OwnLog();
    settings.applicationLog = false;
    const CFailOnCall<decltype(&::WaitForSingleObject)> waits("kernel32.dll", "WaitForSingleObject", 0, WAIT_FAILED, 0);
    CVoErrorLogFile log;
    log.Init(settings);
    log.WriteCode(kExampleSource, 1, L"f", E_FAIL);
    EXPECT_FALSE(std::filesystem::exists(log.LogFilePath()));
    EXPECT_EQ(waits.Calls(), 0);
}

TEST(LogFile, UnpairedSurrogatesAreReplacedAndTheLineStays)
{
    CVoErrorLogFile log;
    log.Init(OwnLog());
    log.WriteLine(kExampleSource, 1, L"f", L"\xDC00 \xD83D\xDE00 \xD800");
    const std::string before = ReadTestFile(log.LogFilePath());
    EXPECT_EQ(ParseLog(before).back().message, L"\xFFFD \xD83D\xDE00 \xFFFD");
    // Text that cannot be converted at all.
    const CFailOnCall<decltype(&::WideCharToMultiByte)> failing("kernel32.dll", "WideCharToMultiByte", 1, 0,
                                                                ERROR_INVALID_PARAMETER);
    log.WriteLine(kExampleSource, 1, L"f", L"t\x00E9xt");
    EXPECT_EQ(ReadTestFile(log.LogFilePath()), before + "NO DATA");
}

TEST(LogFile, AMissingFolderIsCreatedByTheFirstLineWithTheVersionFolder)
{
    CVoModuleSettings settings = OwnLog();
    settings.directory += L"\\new";
    settings.versionString = L"1.2";
    settings.appendVersionToDirectory = true;
    settings.applicationLog = false;
    CVoErrorLogFile log;
    log.Init(settings);
    EXPECT_FALSE(std::filesystem::exists(settings.directory));
    log.SetApplicationLog(true);
    EXPECT_THAT(ParseLog(ReadTestFile(log.LogFilePath())), SizeIs(1)) << "the start line, written when the log is switched on";
    EXPECT_EQ(log.LastWriteError(), DWORD{ ERROR_SUCCESS });

    settings.directory += L"\\two\\levels\\deep";
    CVoErrorLogFile lost;
    lost.Init(settings);
    lost.SetApplicationLog(true);
    EXPECT_EQ(lost.LastWriteError(), DWORD{ ERROR_PATH_NOT_FOUND });
}

TEST(LogFile, SettingsThatDoNotParseAreTheLinesBehindTheStartLine)
{
    const std::filesystem::path folder = MakeTestFolder(L"remarks");
    WriteTestFile(folder / L"ModuleSettings.ini", "[DEBUG]\r\nAPPLOGCUTOFFSIZEINKBYTE=8192 KiB\r\nUseTempDirectory=0 ; no\r\n");
    std::vector<std::wstring> remarks;
    (void)VoReadModuleSettings(folder.wstring(), &remarks);
    CVoErrorLogFile log;
    log.Init(OwnLog(), remarks);
    log.SetApplicationLog(false);
    log.SetApplicationLog(true);
    const std::vector<CLogLine> lines = ParseLog(ReadTestFile(log.LogFilePath()));
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_EQ(lines[0].line, 484);
    EXPECT_EQ(lines[1].message, L"Setting [DEBUG] UseTempDirectory=0 ; no does not parse, the default 1 holds");
    EXPECT_EQ(lines[2].message, L"Setting [DEBUG] APPLOGCUTOFFSIZEINKBYTE=8192 KiB does not parse, the default 8192 holds");
}

TEST(LogFile, ALineThatCannotBeWrittenIsDroppedAndLeavesTheHeaderPending)
{
    // Each fault hits the first line only; the next carries the header.
    for (const CFault& fault : { VO_FAULT("kernel32.dll", CreateFileW, INVALID_HANDLE_VALUE, ERROR_SHARING_VIOLATION),
                                 VO_FAULT("kernel32.dll", SetFilePointerEx, FALSE, ERROR_SEEK),
                                 VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_DISK_FULL) })
    {
        SCOPED_TRACE(fault.function);
        CVoModuleSettings settings = OwnLog();
        settings.applicationLog = false;
        CVoErrorLogFile log;
        log.Init(settings);
        const DWORD handles = CountProcessHandles();
        {
            const auto failing = fault.inject(1);
            log.SetApplicationLog(true); // the start line is lost
            EXPECT_EQ(failing->Calls(), 1);
            EXPECT_NE(log.LastWriteError(), DWORD{ ERROR_SUCCESS });
        }
        {
            const auto failing = fault.inject(1);
            ::SetLastError(4711);
            log.WriteCode(kExampleSource, 1, L"f", E_FAIL);
            EXPECT_EQ(::GetLastError(), 4711u);
            EXPECT_EQ(failing->Calls(), 1);
        }
        EXPECT_EQ(ReadTestFile(log.LogFilePath()), "");
        EXPECT_EQ(CountProcessHandles(), handles);
        log.WriteCode(kExampleSource, 2, L"f", E_FAIL);
        const std::string bytes = ReadTestFile(log.LogFilePath());
        EXPECT_EQ(CountHeaders(bytes), 1u);
        EXPECT_THAT(ParseLog(bytes), ElementsAre(IsReport(kExampleSource, 2, L"f", E_FAIL)));
    }
}

namespace
{
// A log's content in which each eight bytes hold their own number.
std::string Numbered(size_t size)
{
    std::string content;
    for (size_t i = 0; content.size() < size; ++i)
        content += std::to_string(10'000'000 + i);
    return content.substr(0, size);
}

// What stands in front of the line that is written next to a log of this content; "?" when the line is not at the end.
std::string BeforeTheNextLine(const std::string& content, bool cutOff)
{
    CVoModuleSettings settings = OwnLog();
    settings.cutOff = cutOff;
    CVoErrorLogFile log;
    log.Init(settings);
    WriteTestFile(log.LogFilePath(), content);
    log.WriteCode(kExampleSource, 7, L"f", E_FAIL);
    const std::string bytes = ReadTestFile(log.LogFilePath());
    const size_t start = bytes.rfind(" Module=") - 23; // the time
    return bytes.find(" Line=7 Function=f ThreadID=", start) < bytes.size() && bytes.ends_with("\r\n") ? bytes.substr(0, start)
                                                                                                       : "?";
}
} // namespace

TEST(LogFile, IsCutToItsNewestHalfOnceItExceedsTheLimit)
{
    for (const auto& [size, cutOff, kept] :
         { std::tuple(8 * kMiB + 1, true, 4 * kMiB), { 8 * kMiB, true, 8 * kMiB }, { 9 * kMiB, false, 9 * kMiB } })
    {
        const std::string content = Numbered(size);
        // Not EXPECT_EQ, which would print megabytes.
        EXPECT_TRUE(BeforeTheNextLine(content, cutOff) == content.substr(size - kept)) << size << " cut off " << cutOff;
    }
}

TEST(LogFile, ALineIsWrittenBehindTheFileAlsoWhenTheCutFails)
{
    // The start line takes one seek and one write. The next seek finds the file's end; the later ones, and all reads, are the
    // cut's.
    const std::pair<CFault, int> kFaults[] = {
        { VO_FAULT("kernel32.dll", SetFilePointerEx, FALSE, ERROR_SEEK), 4 },
        { VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT), 5 },
        { VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_WRITE_FAULT), 3 },
        { VO_FAULT("kernel32.dll", SetEndOfFile, FALSE, ERROR_DISK_FULL), 1 },
    };
    const std::string content = Numbered(9 * kMiB);
    for (const auto& [fault, call] : kFaults)
    {
        const auto failing = fault.inject(call);
        EXPECT_EQ(BeforeTheNextLine(content, true).size(), content.size()) << fault.function;
        EXPECT_GE(failing->Calls(), call) << fault.function;
    }
}

// The mutex of an elevated process gives others in its session no more than these rights.
TEST(LogFile, AsksNoMoreOfItsMutexThanToWaitAndToRelease)
{
    DWORD asked = 0;
    const CCallHook<decltype(&::CreateMutexExW)> hook(
        "kernel32.dll", "CreateMutexExW",
        [&](auto original, LPSECURITY_ATTRIBUTES attributes, LPCWSTR name, DWORD flags, DWORD access)
    {
        asked = access;
        return original(attributes, name, flags, access);
    });
    const CVoModuleSettings settings = OwnLog();
    CVoErrorLogFile log;
    log.Init(settings);
    EXPECT_EQ(asked, DWORD{ SYNCHRONIZE | MUTEX_MODIFY_STATE });
}
