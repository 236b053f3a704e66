// A second process of the test program, for what must not share the process of a test.
#pragma once

#include <base/VoHandle.h>
#include <base/VoUtils.h>

#include <array>
#include <stdexcept>
#include <string>

namespace Stress
{
// The program once more, with one of its disabled tests.
class CChild
{
public:
    explicit CChild(const std::string& test)
    {
        std::array<wchar_t, MAX_PATH> program{};
        ::GetModuleFileNameW(nullptr, program.data(), MAX_PATH);
        std::wstring commandLine = VoFormat(L"\"%ls\" --gtest_also_run_disabled_tests --gtest_filter=Child.DISABLED_%hs",
                                            program.data(), test.c_str());
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION info{};
        if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                              &startup, &info))
            throw std::runtime_error("no process");
        m_thread = CVoHandle(info.hThread);
        m_process = CVoHandle(info.hProcess);
    }
    // Its exit code.
    [[nodiscard]] DWORD Wait() const
    {
        DWORD code = STILL_ACTIVE;
        ::WaitForSingleObject(m_process.Get(), INFINITE);
        ::GetExitCodeProcess(m_process.Get(), &code);
        return code;
    }
    void Kill() const
    {
        ::TerminateProcess(m_process.Get(), 7);
        (void)Wait();
    }

private:
    CVoHandle m_thread;
    CVoHandle m_process;
};
} // namespace Stress
