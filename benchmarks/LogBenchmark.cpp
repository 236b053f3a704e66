// What a report costs: with the log off against nothing, with it on against writing the same line by hand.
#include "Benchmark.h"

#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

#include <filesystem>

namespace
{
constexpr CVoReporter kReport{ L"..\\source\\LogBenchmark", L"LogBenchmark::Report" };

// The least that puts one line into a file that others may open too.
void WriteByHand(const std::wstring& path, const std::string& line)
{
    const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ::SetFilePointerEx(file, LARGE_INTEGER{}, nullptr, FILE_END);
    DWORD written = 0;
    ::WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    ::CloseHandle(file);
}

std::string LastLine(const std::wstring& path)
{
    FILE* file = ::_wfopen(path.c_str(), L"rb");
    std::string bytes(4096, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
    return bytes.substr(bytes.rfind('\n', bytes.size() - 2) + 1);
}

void Run()
{
    CVoErrorLogFile& log = VoErrorLog();
    log.SetApplicationLog(false);
    volatile HRESULT code = E_FAIL;
    Benchmark::Compare("a report with the log off",
                       { { "a volatile load", [&] { Benchmark::Keep(code); } },
                         { "VoReportCode", [&] { kReport(1, code); } },
                         { "VoReportMessage", [&] { kReport.Message(2, L"code %X of %ls", code, L"nobody"); } } });

    // A log of its own, so that the benchmark leaves nothing behind.
    std::wstring temporary;
    if (FAILED(VoGetTempPath(temporary)))
        return;
    const std::filesystem::path folder =
        std::filesystem::path(temporary) / (L"VoLogBenchmark-" + std::to_wstring(::GetCurrentProcessId()));
    std::filesystem::create_directories(folder);
    CVoModuleSettings settings;
    settings.applicationLog = true;
    settings.directory = folder.wstring();
    {
        CVoErrorLogFile own;
        own.Init(settings);
        const auto report = [&own] { own.WriteCode(L"..\\source\\LogBenchmark", 3, L"LogBenchmark::Report", E_FAIL); };
        report();
        const std::string line = LastLine(own.LogFilePath());
        const std::wstring other = (folder / L"ByHand.log").wstring();
        const HANDLE mutex = ::CreateMutexW(nullptr, FALSE, L"VoLogBenchmark");
        const auto underMutex = [&]
        {
            ::WaitForSingleObject(mutex, INFINITE);
            WriteByHand(other, line);
            ::ReleaseMutex(mutex);
        };
        Benchmark::Compare("a report with the log on, " + std::to_string(line.size()) + " bytes",
                           { { "open, seek, write, close", [&] { WriteByHand(other, line); } },
                             { "VoReportCode", report },
                             { "by hand under a named mutex", underMutex } });
        ::CloseHandle(mutex);
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

const Benchmark::CGroup kGroup("log", Run);
} // namespace
