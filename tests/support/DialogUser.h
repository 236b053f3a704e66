// Plays the user of the dialogs that a thread shows. The tests of the authentication callback and of WinINet's dialog use it.
#pragma once

#include <base/VoPlatform.h>

#include <gtest/gtest.h>

#include <functional>
#include <string_view>

namespace TestSupport
{
// Whether the process can have windows.
[[nodiscard]] inline bool HasDisplay() noexcept
{
    const HWND window = ::CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 9, 9, nullptr, nullptr, nullptr, nullptr);
    return ::DestroyWindow(window) != FALSE;
}

// Calls `action` with each dialog that its thread shows, when the dialog is visible and its modal loop takes the first message.
// One object at a time on a thread.
class CDialogUser
{
public:
    explicit CDialogUser(std::function<void(HWND dialog)> action) : m_action(std::move(action))
    {
        s_user = this;
        EXPECT_TRUE(m_hook);
    }
    ~CDialogUser() { ::UnhookWindowsHookEx(m_hook); }
    CDialogUser(const CDialogUser&) = delete;
    CDialogUser& operator=(const CDialogUser&) = delete;

    [[nodiscard]] int Shown() const noexcept { return m_shown; }

private:
    static LRESULT CALLBACK OnMessage(int code, WPARAM removed, LPARAM message)
    {
        CDialogUser& user = *s_user;
        const HWND window = ::GetAncestor(reinterpret_cast<const MSG*>(message)->hwnd, GA_ROOT);
        wchar_t name[16]{};
        if (code == HC_ACTION && window != user.m_dialog && ::IsWindowVisible(window) && ::GetClassNameW(window, name, 16) &&
            std::wstring_view(name) == L"#32770")
        {
            user.m_dialog = window;
            ++user.m_shown;
            user.m_action(window);
        }
        return ::CallNextHookEx(nullptr, code, removed, message);
    }

    inline static thread_local CDialogUser* s_user = nullptr; // the hook function has no context
    std::function<void(HWND)> m_action;
    HWND m_dialog = nullptr;
    int m_shown = 0;
    HHOOK m_hook = ::SetWindowsHookExW(WH_GETMESSAGE, &OnMessage, nullptr, ::GetCurrentThreadId());
};
} // namespace TestSupport
