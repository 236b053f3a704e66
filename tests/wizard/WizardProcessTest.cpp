// The program vowizard.exe: its command line, and several at once.
#include <base/VoHandle.h>
#include <base/VoPlatform.h>

#include <prsht.h>

#include <gmock/gmock.h>

#include <support/DialogUser.h>
#include <support/Process.h>
#include <support/TestMain.h>

namespace
{
class CWizardProcess : public TestSupport::CProcess
{
public:
    explicit CWizardProcess(const std::wstring& arguments, HANDLE err = nullptr)
        : CProcess(L"\"" VOUTILS_WIZARD L"\" " + arguments, { .err = err })
    {
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
                if (owner == Id() && ::IsWindowVisible(found))
                    return found;
            }
            if (HasEnded(10))
                return nullptr;
        }
    }
};

TEST(WizardProcess, WrongUsageIsToldOnTheErrorStream)
{
    const std::filesystem::path file = TestSupport::MakeTestFolder(L"usage") / L"err.txt";
    for (const wchar_t* const arguments : { L"--wrong", L"http://s http://t", L"--settings-dir \"C:\\no such folder\"" })
    {
        SECURITY_ATTRIBUTES inherited{ sizeof inherited, nullptr, TRUE };
        CVoHandle err(::CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS, 0, nullptr));
        EXPECT_EQ(CWizardProcess(arguments, err.Get()).Wait(), 2U);
        err.Reset();
        EXPECT_THAT(TestSupport::ReadTestFile(file), testing::ContainsRegex("vowizard: .*\nUsage: vowizard"));
    }
}

TEST(WizardProcess, TwoWizardsRunAtOnce)
{
    if (!TestSupport::HasDisplay())
        GTEST_SKIP() << "no windows here: the process has no display";
    const CWizardProcess first(L"http://first.example");
    const CWizardProcess second(L"http://second.example");
    for (const CWizardProcess* const process : { &first, &second })
    {
        const HWND window = process->Window();
        ASSERT_TRUE(window);
        ::PostMessageW(window, PSM_PRESSBUTTON, PSBTN_CANCEL, 0);
    }
    EXPECT_EQ(first.Wait(), 0U);
    EXPECT_EQ(second.Wait(), 0U);
}
} // namespace
