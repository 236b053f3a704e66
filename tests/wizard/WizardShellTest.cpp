// Tests of what the wizard asks of the desktop.
#include <WizardShell.h>

#include <support/ImportHook.h>

#include <gtest/gtest.h>

#include <cderr.h>
#include <commdlg.h>

#include <string>

namespace
{
TEST(WizardShell, AFileDialogThatFailsIsToldAndACancelledOneIsNot)
{
    static std::wstring s_told;
    const CCallHook<decltype(&::GetSaveFileNameW)> save("comdlg32.dll", "GetSaveFileNameW",
                                                        [](auto, LPOPENFILENAMEW) -> BOOL { return FALSE; });
    const CCallHook<decltype(&::MessageBoxW)> box("user32.dll", "MessageBoxW", [](auto, HWND, LPCWSTR text, LPCWSTR, UINT)
    {
        s_told += text;
        return IDOK;
    });
    for (const auto& [error, isTold] : { std::pair(DWORD{ 0 }, false), { DWORD{ FNERR_BUFFERTOOSMALL }, true } })
    {
        s_told.clear();
        const CCallHook<decltype(&::CommDlgExtendedError)> reason("comdlg32.dll", "CommDlgExtendedError",
                                                                  [error](auto) -> DWORD { return error; });
        EXPECT_FALSE(CWizardDesktop().AskForFile(nullptr));
        EXPECT_EQ(!s_told.empty(), isTold) << error;
    }
}
} // namespace
