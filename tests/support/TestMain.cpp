#include "TestMain.h"

#include <base/VoErrorHandler.h>
#include <base/VoPlatform.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <io.h>
#include <iterator>
#include <string>

namespace TestSupport
{
namespace
{
// A child process of a death test finds its parent's folder here and leaves the removal to the parent.
constexpr const wchar_t* kFolderVariable = L"VOUTILS_TEST_FOLDER";
constexpr const wchar_t* kTimeoutVariable = L"VOUTILS_TEST_TIMEOUT";
constexpr DWORD kDefaultTimeoutSeconds = 120;

// The name of what is running, for handlers that may neither allocate nor lock.
char g_running[256] = "the set-up";
ULONGLONG g_timeout = 0; // in milliseconds; 0 switches the watchdog off
std::atomic<ULONGLONG> g_deadline{ 0 };
std::filesystem::path g_folder;

void WriteError(const char* text) noexcept
{
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
}

// Ends the process at once. A hung or damaged process may hold any lock, so neither exit handlers nor flushes run.
[[noreturn]] void Die(const char* reason, int exitCode) noexcept
{
    char text[600];
    std::snprintf(text, sizeof text, "\nVOUTILS-TESTS-DIED: %s, while running %s\n", reason, g_running);
    WriteError(text);
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
    std::_Exit(exitCode);
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers)
{
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    // The module and the offset in it are what addr2line and a map file need.
    HMODULE module = nullptr;
    char file[MAX_PATH] = "?";
    if (::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                             static_cast<const wchar_t*>(record.ExceptionAddress), &module))
        ::GetModuleFileNameA(module, file, MAX_PATH - 1);
    const auto address = static_cast<const char*>(record.ExceptionAddress);
    char reason[500];
    std::snprintf(reason, sizeof reason, "unhandled exception 0x%08lX at %p (%s + 0x%llX)", record.ExceptionCode,
                  record.ExceptionAddress, file,
                  static_cast<unsigned long long>(module ? address - static_cast<const char*>(static_cast<void*>(module)) : 0));
    Die(reason, kExitCrashed);
}

void OnAbort(int)
{
    Die("abort", kExitAborted);
}

[[noreturn]] void OnTerminate()
{
    std::string reason = "std::terminate";
    if (const std::exception_ptr exception = std::current_exception())
    {
        try
        {
            std::rethrow_exception(exception);
        }
        catch (const std::exception& known)
        {
            reason = std::string("std::terminate by an exception: ") + known.what();
        }
        catch (...)
        {
            reason = "std::terminate by an exception of unknown type";
        }
    }
    Die(reason.c_str(), kExitAborted);
}

DWORD WINAPI Watch(void*)
{
    for (;;)
    {
        const ULONGLONG now = ::GetTickCount64();
        const ULONGLONG deadline = g_deadline.load();
        if (now >= deadline)
            Die("the watchdog's time is up", kExitHung);
        // The deadline only moves on, so there is nothing to see before it.
        ::Sleep(static_cast<DWORD>(deadline - now));
    }
}

void Running(const char* what)
{
    std::snprintf(g_running, sizeof g_running, "%s", what);
    g_deadline = ::GetTickCount64() + g_timeout;
}

// Tells the watchdog what runs. Time between tests (set-up of suites, destructors at the end) is bounded too.
class CProgress : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& test) override
    {
        Running((std::string(test.test_suite_name()) + "." + test.name()).c_str());
    }
    void OnTestEnd(const testing::TestInfo& test) override
    {
        Running((std::string("what follows ") + test.test_suite_name() + "." + test.name()).c_str());
    }
};

[[noreturn]] void FailSetUp(const char* what)
{
    char reason[200];
    std::snprintf(reason, sizeof reason, "%s (error %lu)", what, ::GetLastError());
    Die(reason, kExitSetUpFailed);
}

void InstallHandlers()
{
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    ::SetUnhandledExceptionFilter(OnUnhandledException);
    std::set_terminate(OnTerminate);
    std::signal(SIGABRT, OnAbort);

    wchar_t text[16];
    const DWORD length = ::GetEnvironmentVariableW(kTimeoutVariable, text, static_cast<DWORD>(std::size(text)));
    g_timeout = 1000ull * (length > 0 && length < std::size(text) ? std::wcstoul(text, nullptr, 10) : kDefaultTimeoutSeconds);
    Running("the set-up");
    if (g_timeout == 0)
        return;
    const HANDLE thread = ::CreateThread(nullptr, 0, Watch, nullptr, 0, nullptr);
    if (!thread)
        FailSetUp("no watchdog thread");
    ::CloseHandle(thread);
}

// Makes the process's private folder with the settings that keep its log there and switched off. True when this process owns
// the folder and removes it.
bool MakePrivateFolder()
{
    wchar_t path[MAX_PATH + 1];
    const DWORD inherited = ::GetEnvironmentVariableW(kFolderVariable, path, static_cast<DWORD>(std::size(path)));
    const bool owner = inherited == 0 || inherited >= std::size(path);
    if (owner)
    {
        if (::GetTempPathW(static_cast<DWORD>(std::size(path)), path) == 0)
            FailSetUp("no folder for temporary files");
        g_folder = path;
        g_folder /= L"VoUtilsTests-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(::GetTickCount64());
        std::filesystem::create_directories(g_folder);
        if (!::SetEnvironmentVariableW(kFolderVariable, g_folder.c_str()))
            FailSetUp("the folder cannot be handed on");

        // UTF-16 with a byte order mark, so that the folder's name may hold any character.
        const std::wstring settings =
            L"\xFEFF[DEBUG]\r\nAPPLOG=0\r\nUseTempDirectory=0\r\nDirectory=" + g_folder.wstring() + L"\r\n";
        FILE* file = ::_wfopen((g_folder / L"ModuleSettings.ini").c_str(), L"wb");
        if (!file || std::fwrite(settings.data(), sizeof(wchar_t), settings.size(), file) != settings.size() ||
            std::fclose(file) != 0)
            FailSetUp("ModuleSettings.ini cannot be written");
    }
    else
        g_folder = path;
    if (FAILED(VoSetModuleSettingsDirectory(g_folder.wstring())))
        FailSetUp("something reported, or asked for a setting, before main");
    return owner;
}

// The first argument that begins so; null when there is none.
const char* FindArgument(int argc, char** argv, const char* begin)
{
    const auto found = std::find_if(argv, argv + argc, [begin](const char* argument)
                                    { return std::strncmp(argument, begin, std::strlen(begin)) == 0; });
    return found == argv + argc ? nullptr : *found;
}
} // namespace

bool IsWine() noexcept
{
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll && ::GetProcAddress(ntdll, "wine_get_version");
}

const std::filesystem::path& TestFolder()
{
    return g_folder;
}

std::filesystem::path MakeTestFolder(std::wstring_view name)
{
    static std::atomic<int> number{ 0 };
    std::filesystem::path folder =
        g_folder / (std::wstring(name) + L"-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++number));
    std::filesystem::create_directories(folder);
    return folder;
}

namespace
{
int Run(int argc, char** argv)
{
    // "\n" stays "\n", for scripts that read the output.
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::_setmode(::_fileno(stderr), _O_BINARY);
    InstallHandlers();
    const bool ownsFolder = MakePrivateFolder();
    WSADATA sockets;
    if (::WSAStartup(MAKEWORD(2, 2), &sockets) != 0)
        FailSetUp("no sockets");

    const bool listsOnly = FindArgument(argc, argv, "--gtest_list_tests");
    // The child of a death test tells no listener what it runs; its argument holds the test's file and line.
    if (const char* deathTest = FindArgument(argc, argv, "--gtest_internal_run_death_test="))
        Running(deathTest);
    testing::InitGoogleMock(&argc, argv);
    testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    tests.listeners().Append(std::make_unique<CProgress>().release()); // the framework deletes it

    int result = RUN_ALL_TESTS();
    Running("the end of the program");
    if (ownsFolder)
    {
        std::error_code ignored; // a file that a failed test left open keeps its folder
        std::filesystem::remove_all(g_folder, ignored);
    }
    if (listsOnly)
        return result;
    if (tests.test_to_run_count() == 0)
    {
        std::printf("No test was selected.\n");
        result = 1;
    }
    std::printf("VOUTILS-TESTS-COMPLETE passed=%d failed=%d skipped=%d\n", tests.successful_test_count(),
                tests.failed_test_count(), tests.skipped_test_count());
    std::fflush(stdout);
    return result;
}
} // namespace
} // namespace TestSupport

int main(int argc, char** argv)
{
    return TestSupport::Run(argc, argv);
}
