// The start of the console, against that of a program that does nothing.
#include "Benchmark.h"

#include <base/VoHandle.h>
#include <base/VoPlatform.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace
{
std::filesystem::path Folder()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
    return std::filesystem::path(path).parent_path();
}

// Starts a program without a console, whose start would be measured with it; its output is dropped. Waits for its end.
void Run(const std::filesystem::path& program, const wchar_t* arguments)
{
    std::wstring commandLine = L'"' + program.wstring() + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                          &startup, &process))
        throw std::runtime_error("the program did not start");
    const CVoHandle handle(process.hProcess);
    const CVoHandle thread(process.hThread);
    DWORD code = MAXDWORD;
    if (::WaitForSingleObject(handle.Get(), 60'000) != WAIT_OBJECT_0 || !::GetExitCodeProcess(handle.Get(), &code) || code != 0)
        throw std::runtime_error("the program failed");
}

const Benchmark::CGroup kStart("start", []
{
    const std::filesystem::path folder = Folder();
    Benchmark::Compare("Start and end of a program",
                       { { "an empty program", [&] { Run(folder / L"VoEmptyProgram.exe", L""); } },
                         { "voutils --version", [&] { Run(folder.parent_path() / L"app" / L"voutils.exe", L"--version"); } } },
                       { .samples = 40, .runs = 1, .maximumSeconds = 20 });
});
} // namespace
