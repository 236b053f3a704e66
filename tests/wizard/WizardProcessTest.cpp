// The program vowizard.exe: its command line, and several at once.
#include <base/VoHandle.h>
#include <base/VoPlatform.h>

#include <prsht.h>

#include <gmock/gmock.h>

#include <support/DialogUser.h>
#include <support/TestMain.h>

namespace
{
struct CProcess
{
    CVoHandle process;
    DWORD id = 0;

    explicit CProcess(const std::wstring& arguments, HANDLE err = nullptr)
    {
        std::wstring line = L"\"" VOUTILS_WIZARD L"\" " + arguments;
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdError = err;
        PROCESS_INFORMATION info{};
        EXPECT_TRUE(::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info));
        process.Reset(info.hProcess);
        id = info.dwProcessId;
        ::CloseHandle(info.hThread);
    }
    // The window of this process, when it is shown.
    [[nodiscard]] HWND Window() const
    {
        for (;;)
        {
            HWND found = nullptr;
            while ((found = ::FindWindowExW(nullptr, found, L"#32770", L"Connection wizard")))
            {
                DWORD owner = 0;
                ::GetWindowThreadProcessId(found, &owner);
                if (owner == id && ::IsWindowVisible(found))
                    return found;
            }
            if (::WaitForSingleObject(process.Get(), 10) == WAIT_OBJECT_0)
                return nullptr; // it has ended
        }
    }
    [[nodiscard]] DWORD Finish() const
    {
        DWORD code = MAXDWORD;
        ::WaitForSingleObject(process.Get(), INFINITE);
        ::GetExitCodeProcess(process.Get(), &code);
        return code;
    }
};

TEST(WizardProcess, WrongUsageIsToldOnTheErrorStream)
{
    const std::filesystem::path file = TestSupport::MakeTestFolder(L"usage") / L"err.txt";
    for (const wchar_t* const arguments : { L"--wrong", L"http://s http://t", L"--settings-dir \"C:\\no such folder\"" })
    {
        SECURITY_ATTRIBUTES inherited{ sizeof inherited, nullptr, TRUE };
        CVoHandle err(::CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS, 0, nullptr));
        EXPECT_EQ(CProcess(arguments, err.Get()).Finish(), 2U);
        err.Reset();
        EXPECT_THAT(TestSupport::ReadTestFile(file), testing::ContainsRegex("vowizard: .*\nUsage: vowizard"));
    }
}

TEST(WizardProcess, TwoWizardsRunAtOnce)
{
    if (!TestSupport::HasDisplay())
        GTEST_SKIP() << "no windows here: the process has no display";
    const CProcess first(L"http://first.example");
    const CProcess second(L"http://second.example");
    for (const CProcess* const process : { &first, &second })
    {
        const HWND window = process->Window();
        ASSERT_TRUE(window);
        ::PostMessageW(window, PSM_PRESSBUTTON, PSBTN_CANCEL, 0);
    }
    EXPECT_EQ(first.Finish(), 0U);
    EXPECT_EQ(second.Finish(), 0U);
}
} // namespace
