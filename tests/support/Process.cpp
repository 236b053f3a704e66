#include "Process.h"

#include <stdexcept>

namespace TestSupport
{
namespace
{
// In some thousand starts, Wine's new process once ends before its first instruction; CreateProcessW says ERROR_INTERNAL_ERROR
// then.
bool Create(const std::wstring& commandLine, STARTUPINFOW& startup, DWORD flags, PROCESS_INFORMATION& info)
{
    for (int attempt = 1;; ++attempt)
    {
        std::wstring line = commandLine; // CreateProcessW may change it
        if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, (startup.dwFlags & STARTF_USESTDHANDLES) != 0, flags,
                             nullptr, nullptr, &startup, &info))
            return true;
        if (attempt == 3 || ::GetLastError() != ERROR_INTERNAL_ERROR)
            return false;
    }
}
} // namespace

CProcess::CProcess(const std::wstring& commandLine, const CProcessStreams& streams, DWORD flags)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = streams.in || streams.out || streams.err ? STARTF_USESTDHANDLES : 0;
    startup.hStdInput = streams.in;
    startup.hStdOutput = streams.out;
    startup.hStdError = streams.err;
    PROCESS_INFORMATION info{};
    if (!Create(commandLine, startup, flags, info))
        throw std::runtime_error("the process does not start: error " + std::to_string(::GetLastError()));
    m_process.Reset(info.hProcess);
    m_id = info.dwProcessId;
    ::CloseHandle(info.hThread);
}

bool CProcess::HasEnded(DWORD milliseconds) const noexcept
{
    return ::WaitForSingleObject(m_process.Get(), milliseconds) == WAIT_OBJECT_0;
}

DWORD CProcess::Wait() const noexcept
{
    DWORD code = STILL_ACTIVE;
    ::WaitForSingleObject(m_process.Get(), INFINITE);
    ::GetExitCodeProcess(m_process.Get(), &code);
    return code;
}

void CProcess::Kill() const noexcept
{
    ::TerminateProcess(m_process.Get(), 7);
    (void)Wait();
}

std::wstring ThisProgram(const std::wstring& filter)
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
    return L'"' + path + L"\" --gtest_also_run_disabled_tests --gtest_filter=" + filter;
}
} // namespace TestSupport
