// Keys and looks of the wizard's user (WizardUser.h).
#include "WizardUser.h"

#include <WizardTexts.h>
#include <resource.h>

#include <prsht.h>

#include <gtest/gtest.h>

namespace
{
constexpr UINT kStep = 10; // milliseconds between two looks

void Send(const std::vector<INPUT>& inputs)
{
    ::SetForegroundWindow(CWizardUser::Sheet());
    EXPECT_EQ(::SendInput(static_cast<UINT>(inputs.size()), const_cast<INPUT*>(inputs.data()), sizeof(INPUT)), inputs.size());
}
INPUT KeyInput(WORD key, DWORD flags)
{
    INPUT input{};
    input.type = INPUT_KEYBOARD;
    (flags & KEYEVENTF_UNICODE ? input.ki.wScan : input.ki.wVk) = key;
    input.ki.dwFlags = flags;
    return input;
}
// No key is on its way to the wizard.
bool IsIdle()
{
    return HIWORD(::GetQueueStatus(QS_KEY | QS_POSTMESSAGE)) == 0;
}
} // namespace

void CFakeShell::Note(HWND owner, const std::wstring& text)
{
    EXPECT_EQ(owner, CWizardUser::Sheet());
    notes.push_back(text);
}

HWND CWizardUser::Sheet()
{
    HWND found = nullptr;
    constexpr WNDENUMPROC kVisit = [](HWND window, LPARAM argument) -> BOOL
    {
        wchar_t name[16]{};
        if (!::IsWindowVisible(window) || !::GetClassNameW(window, name, 16) || std::wstring_view(name) != L"#32770")
            return TRUE;
        *reinterpret_cast<HWND*>(argument) = window;
        return FALSE;
    };
    ::EnumThreadWindows(::GetCurrentThreadId(), kVisit, reinterpret_cast<LPARAM>(&found));
    return found;
}

HWND CWizardUser::Page()
{
    return reinterpret_cast<HWND>(::SendMessageW(Sheet(), PSM_GETCURRENTPAGEHWND, 0, 0));
}

std::wstring CWizardUser::TextOf(HWND window)
{
    std::wstring text(4096, L'\0');
    text.resize(static_cast<size_t>(::GetWindowTextW(window, text.data(), static_cast<int>(text.size()))));
    return text;
}

CWizardUser& CWizardUser::OnPage(UINT title)
{
    // A control that only this page has.
    const int control = title == IDD_SERVER     ? IDC_URL
                        : title == IDD_PROXY    ? IDC_PROXY_TEST
                        : title == IDD_CHECKING ? IDC_STOP
                                                : IDC_SAVE;
    return Step([control] { return Sheet() && ::GetDlgItem(Page(), control) && ::IsChild(Page(), ::GetFocus()) && IsIdle(); });
}

CWizardUser& CWizardUser::Reads(int control, const std::wstring& part)
{
    return Step([=] { return TextOf(::GetDlgItem(Page(), control)).find(part) != std::wstring::npos && IsIdle(); });
}

CWizardUser& CWizardUser::Alt(char letter)
{
    const WORD key = static_cast<unsigned char>(letter);
    Step([key]
    {
        Send({ KeyInput(VK_MENU, 0), KeyInput(key, 0), KeyInput(key, KEYEVENTF_KEYUP), KeyInput(VK_MENU, KEYEVENTF_KEYUP) });
        return true;
    });
    return Step(IsIdle);
}

CWizardUser& CWizardUser::Key(WORD key)
{
    Step([key]
    {
        Send({ KeyInput(key, 0), KeyInput(key, KEYEVENTF_KEYUP) });
        return true;
    });
    return Step(IsIdle);
}

CWizardUser& CWizardUser::Clear()
{
    Step([]
    {
        Send({ KeyInput(VK_END, 0), KeyInput(VK_SHIFT, 0), KeyInput(VK_HOME, 0), KeyInput(VK_SHIFT, KEYEVENTF_KEYUP),
               KeyInput(VK_DELETE, 0) });
        return true;
    });
    return Step(IsIdle);
}

CWizardUser& CWizardUser::Type(const std::wstring& text)
{
    Step([text]
    {
        std::vector<INPUT> inputs;
        for (const wchar_t c : text)
        {
            inputs.push_back(KeyInput(static_cast<WORD>(c), KEYEVENTF_UNICODE));
            inputs.push_back(KeyInput(static_cast<WORD>(c), KEYEVENTF_UNICODE | KEYEVENTF_KEYUP));
        }
        Send(inputs);
        return true;
    });
    return Step(IsIdle);
}

void CALLBACK CWizardUser::OnTimer(HWND /*window*/, UINT /*message*/, UINT_PTR /*id*/, DWORD /*time*/)
{
    CWizardUser& user = *s_user;
    if (user.m_next < user.m_steps.size() && user.m_steps[user.m_next]())
        ++user.m_next;
}

HRESULT CWizardUser::Run(const std::wstring& url, CFakeShell& shell, const std::wstring& memory)
{
    CWizardSetup setup;
    setup.url = url;
    setup.memory = CWizardMemory(memory);
    setup.shell = &shell;
    s_user = this;
    m_next = 0;
    const UINT_PTR timer = ::SetTimer(nullptr, 0, kStep, &OnTimer);
    const HRESULT hr = RunWizard(setup);
    ::KillTimer(nullptr, timer);
    // The last key closes the wizard: nobody waits for what it does.
    EXPECT_GE(m_next + 1, m_steps.size()) << "steps that were done";
    return hr;
}
