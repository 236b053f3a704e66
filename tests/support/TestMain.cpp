// The main of the test programs: a crash, an abort and a hang end the program with an exit code and with the stack of the
// thread.
#include "TestMain.h"

#include <base/VoErrorHandler.h>
#include <base/VoPlatform.h>
#include <base/VoUtils.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <io.h>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

namespace TestSupport
{
namespace
{
// A child process of a death test finds its parent's folder here and leaves the removal to the parent.
constexpr const wchar_t* kFolderVariable = L"VOUTILS_TEST_FOLDER";
constexpr DWORD kDefaultTimeoutSeconds = 120;

// The name of what is running, for handlers that may neither allocate nor lock.
char g_running[256] = "the set-up";
ULONGLONG g_timeout = 0; // in milliseconds; 0 switches the watchdog off
std::atomic<ULONGLONG> g_deadline{ 0 };
HANDLE g_testThread = nullptr; // open for the life of the process
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

// One line: the module of an address and the offset in it. ./test turns it into a function and a source line.
void WriteFrame(DWORD64 address) noexcept
{
    HMODULE module = nullptr;
    char path[MAX_PATH] = "?";
    if (::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                             reinterpret_cast<const wchar_t*>(address), &module))
        ::GetModuleFileNameA(module, path, MAX_PATH - 1);
    const char* const separator = std::strrchr(path, '\\');
    char text[MAX_PATH + 50];
    std::snprintf(text, sizeof text, "  frame %s + 0x%llX\n", separator ? separator + 1 : path,
                  static_cast<unsigned long long>(address - reinterpret_cast<DWORD64>(module)));
    WriteError(text);
}

// Writes the stack of a thread, the innermost frame first. Allocates nothing.
void WriteStack(CONTEXT context) noexcept
{
    constexpr int kMostFrames = 64;
    WriteError("\n");
    for (int i = 0; i < kMostFrames && (i == 0 || context.Rip != 0); ++i)
    {
        // A caller's frame holds the address behind its call; the call itself names the right line.
        WriteFrame(i == 0 ? context.Rip : context.Rip - 1);
        DWORD64 base = 0;
        if (auto* const function = ::RtlLookupFunctionEntry(context.Rip, &base, nullptr))
        {
            void* data = nullptr;
            DWORD64 frame = 0;
            ::RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, context.Rip, function, &context, &data, &frame, nullptr);
        }
        else
        {
            // A function without unwind data has pushed nothing: the return address is on top of the stack.
            context.Rip = *reinterpret_cast<const DWORD64*>(context.Rsp);
            context.Rsp += sizeof context.Rip;
        }
    }
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers)
{
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    char reason[100];
    std::snprintf(reason, sizeof reason, "unhandled exception 0x%08lX at %p", record.ExceptionCode, record.ExceptionAddress);
    // A damaged stack may fault again while it is read.
    static std::atomic<bool> s_reading{ false };
    if (!s_reading.exchange(true))
        WriteStack(*pointers->ContextRecord);
    Die(reason, kExitCrashed);
}

// Also where std::terminate ends, whose default handler prints the exception.
void OnAbort(int)
{
    CONTEXT context;
    ::RtlCaptureContext(&context);
    WriteStack(context);
    Die("abort", kExitAborted);
}

// The stack of the thread that runs the tests. The thread goes on before its stack is read: it may hold a lock that the reading
// needs.
void WriteStackOfTests() noexcept
{
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    ::SuspendThread(g_testThread);
    const BOOL got = ::GetThreadContext(g_testThread, &context);
    ::ResumeThread(g_testThread);
    if (got)
        WriteStack(context);
}

void Watch()
{
    for (;;)
    {
        const ULONGLONG now = ::GetTickCount64();
        const ULONGLONG deadline = g_deadline.load();
        if (now >= deadline)
        {
            WriteStackOfTests();
            Die("the watchdog's time is up", kExitHung);
        }
        // The deadline only moves on, so there is nothing to see before it.
        ::Sleep(static_cast<DWORD>(deadline - now));
    }
}

void Running(const char* what) noexcept
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

void InstallHandlers()
{
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    ::SetUnhandledExceptionFilter(OnUnhandledException);
    std::signal(SIGABRT, OnAbort);
    const char* const seconds = std::getenv("VOUTILS_TEST_TIMEOUT");
    g_timeout = 1000ull * (seconds ? std::strtoul(seconds, nullptr, 10) : kDefaultTimeoutSeconds);
    Running("the set-up");
    ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &g_testThread, 0, FALSE,
                      DUPLICATE_SAME_ACCESS);
    if (g_timeout != 0)
        std::thread(Watch).detach();
}

// Makes the process's private folder with the settings that keep its log there and switched off. True when this process owns
// the folder and removes it.
bool MakePrivateFolder()
{
    const wchar_t* const inherited = ::_wgetenv(kFolderVariable);
    if (inherited)
        g_folder = inherited;
    else
    {
        g_folder = std::filesystem::temp_directory_path() /
                   VoFormat(L"VoUtilsTests-%lu-%llu", ::GetCurrentProcessId(), ::GetTickCount64());
        std::filesystem::create_directories(g_folder);
        ::SetEnvironmentVariableW(kFolderVariable, g_folder.c_str());
        // UTF-16 with a byte order mark, so that the folder's name may hold any character.
        const std::wstring settings =
            L"\xFEFF[DEBUG]\r\nAPPLOG=0\r\nUseTempDirectory=0\r\nDirectory=" + g_folder.wstring() + L"\r\n";
        WriteTestFile(g_folder / L"ModuleSettings.ini",
                      { reinterpret_cast<const char*>(settings.data()), settings.size() * sizeof(wchar_t) });
    }
    if (FAILED(VoSetModuleSettingsDirectory(g_folder.wstring())))
        Die("something reported, or asked for a setting, before main", kExitSetUpFailed);
    return !inherited;
}
} // namespace

bool IsWine() noexcept
{
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll && ::GetProcAddress(ntdll, "wine_get_version");
}

void NoteProgress(const char* what) noexcept
{
    Running(what);
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

std::string ReadTestFile(const std::filesystem::path& path)
{
    std::string bytes;
    if (FILE* const file = ::_wfopen(path.c_str(), L"rb"))
    {
        std::array<char, 65536> block;
        while (const size_t read = std::fread(block.data(), 1, block.size(), file))
            bytes.append(block.data(), read);
        std::fclose(file);
    }
    return bytes;
}

void WriteTestFile(const std::filesystem::path& path, std::string_view bytes)
{
    FILE* const file = ::_wfopen(path.c_str(), L"wb");
    const size_t written = file ? std::fwrite(bytes.data(), 1, bytes.size(), file) : 0;
    if (!file || std::fclose(file) != 0 || written != bytes.size())
        throw std::runtime_error("a file of the test cannot be written: " + path.string());
}
} // namespace TestSupport

// NOLINTNEXTLINE(bugprone-exception-escape): an exception ends the program, and the handlers report it.
int main(int argc, char** argv)
{
    using namespace TestSupport;
    // "\n" stays "\n", for scripts that read the output.
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::_setmode(::_fileno(stderr), _O_BINARY);
    InstallHandlers();
    const bool ownsFolder = MakePrivateFolder();
    WSADATA sockets;
    if (::WSAStartup(MAKEWORD(2, 2), &sockets) != 0)
        Die("no sockets", kExitSetUpFailed);
    testing::InitGoogleMock(&argc, argv);
    testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    tests.listeners().Append(std::make_unique<CProgress>().release()); // the framework deletes it

    const int result = RUN_ALL_TESTS();
    Running("the end of the program");
    if (ownsFolder)
    {
        std::error_code ignored; // a file that a failed test left open keeps its folder
        std::filesystem::remove_all(g_folder, ignored);
    }
    std::printf("VOUTILS-TESTS-COMPLETE passed=%d failed=%d skipped=%d\n", tests.successful_test_count(),
                tests.failed_test_count(), tests.skipped_test_count());
    std::fflush(stdout);
    return result;
}
