#include <VoAuthCallbackImpl.h>

#include <VoAuthDlg.h>
#include <base/VoMultiThreading.h>
#include <base/com/VoComHelper.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

namespace
{
using testing::ElementsAre;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
using TestSupport::IsReportBy;

constexpr const wchar_t* kTitle = L"Sign in, please";
constexpr const wchar_t* kAddress = L"http://server.example/a?b=1&c=2";

// The user of the dialogs that open in its scope: for each, once it is on the screen, `action` runs on a thread of its own with
// the dialog's window.
class CDialogUser
{
public:
    using CAction = std::function<void(HWND dialog)>;

    explicit CDialogUser(CAction action)
        : m_hook("user32.dll", "DialogBoxIndirectParamW",
                 [action = std::move(action)](auto original, HINSTANCE instance, LPCDLGTEMPLATEW dialogTemplate, HWND parent,
                                              DLGPROC proc, LPARAM param) -> INT_PTR
                 {
                     CShown shown;
                     s_shown = &shown;
                     s_proc = proc;
                     std::thread user(
                         [&shown, &action]
                         {
                             ::WaitForSingleObject(shown.event.Handle(), INFINITE);
                             if (shown.dialog)
                                 action(shown.dialog);
                         });
                     const INT_PTR result = original(instance, dialogTemplate, parent, &Watch, param);
                     const DWORD error = ::GetLastError();
                     EXPECT_EQ(shown.event.Set(), S_OK); // in case it was never shown
                     user.join();
                     EXPECT_EQ(shown.passwordLeft, 0) << "the field keeps the password";
                     ::SetLastError(error);
                     return result;
                 })
    {
    }

private:
    struct CShown
    {
        HWND dialog = nullptr;
        LRESULT passwordLeft = 0;
        CEvent event{ false, true };
    };
    static constexpr UINT kOnScreen = WM_APP + 17;

    static INT_PTR CALLBACK Watch(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept
    {
        const INT_PTR result = s_proc(dialog, message, wParam, lParam);
        if (message == WM_INITDIALOG)
            s_shown->dialog = dialog;
        // Taken out of the modal loop, when the dialog has its focus too.
        if (message == WM_WINDOWPOSCHANGED && (reinterpret_cast<const WINDOWPOS*>(lParam)->flags & SWP_SHOWWINDOW))
            ::PostMessageW(dialog, kOnScreen, 0, 0);
        if (message == kOnScreen)
            (void)s_shown->event.Set();
        if (message == WM_DESTROY)
            s_shown->passwordLeft = ::SendDlgItemMessageW(dialog, CAuthDlg::kPassword, WM_GETTEXTLENGTH, 0, 0);
        return result;
    }

    // A dialog's messages arrive on the thread that shows it.
    inline static thread_local CShown* s_shown = nullptr;
    inline static thread_local DLGPROC s_proc = nullptr;
    CCallHook<decltype(&::DialogBoxIndirectParamW)> m_hook;
};

void Press(HWND dialog, WORD button)
{
    ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED), reinterpret_cast<LPARAM>(::GetDlgItem(dialog, button)));
}

void Enter(HWND dialog, const wchar_t* user, const wchar_t* password)
{
    EXPECT_TRUE(::SetDlgItemTextW(dialog, CAuthDlg::kUserName, user));
    EXPECT_TRUE(::SetDlgItemTextW(dialog, CAuthDlg::kPassword, password));
}

std::wstring TextOf(HWND window)
{
    std::wstring text(200, L'\0');
    text.resize(static_cast<size_t>(::SendMessageW(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()))));
    return text;
}

struct CAnswer
{
    HRESULT hr = E_UNEXPECTED;
    CVoBstr user{ L"old user" };
    CVoBstr password{ L"old password" };
    VARIANT_BOOL cancelled = 99;
    int freed = 0; // of the old texts
};

class AuthCallback : public testing::Test
{
protected:
    AuthCallback()
    {
        EXPECT_EQ(CreateGlobalAuthenticationCallbackForModule(m_callback.Put()), S_OK);
        m_parent = ::CreateWindowExW(0, L"STATIC", L"the application", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 10, 10, 400, 300,
                                     nullptr, nullptr, nullptr, nullptr);
    }
    ~AuthCallback() override { ::DestroyWindow(m_parent); }
    void SetUp() override
    {
        if (!m_parent)
            GTEST_SKIP() << "no windows here: the process has no display";
    }

    [[nodiscard]] CAnswer Ask(bool proxy = false, const wchar_t* title = kTitle) const
    {
        CAnswer answer;
        const auto ask = proxy ? &IVoAuthenticationCallback::OnProxyAuthNeeded : &IVoAuthenticationCallback::OnServerAuthNeeded;
        // Not by way of Put, which would free the old texts itself.
        BSTR user = answer.user.Detach();
        BSTR password = answer.password.Detach();
        const CCallHook<decltype(&::SysFreeString)> hook(
            "oleaut32.dll", "SysFreeString",
            [&answer, oldUser = user, oldPassword = password](auto original, BSTR text)
            {
                answer.freed += text == oldUser || text == oldPassword;
                original(text);
            });
        answer.hr = (m_callback.Get()->*ask)(CVoBstr(title).Get(), CVoBstr(kAddress).Get(), nullptr, &user, &password,
                                             &answer.cancelled);
        *answer.user.Put() = user;
        *answer.password.Put() = password;
        return answer;
    }

    CVoComPtr<IVoAuthenticationCallback> m_callback;
    HWND m_parent;
};

TEST_F(AuthCallback, AnswersWhatTheUserDid)
{
    struct CCase
    {
        const char* rule;
        CDialogUser::CAction action;
        bool ok;
        std::wstring user;
        std::wstring password;
    };
    // Leaves the dialog by a button after filling in the fields, or by a key in a field.
    const auto press = [](WORD button, std::wstring user = L"", std::wstring password = L"")
    {
        return [=](HWND dialog)
        {
            Enter(dialog, user.c_str(), password.c_str());
            Press(dialog, button);
        };
    };
    const auto key = [](WPARAM code, WORD field)
    {
        return [=](HWND dialog)
        {
            Enter(dialog, L"u", L"p");
            ::PostMessageW(::GetDlgItem(dialog, field), WM_KEYDOWN, code, 1);
        };
    };
    const std::wstring longText(5000, L'\x00E4');
    const CCase table[] = {
        { "OK", press(IDOK, L"us er\x00FC\xD83D\xDE00", L" p&\"w "), true, L"us er\x00FC\xD83D\xDE00", L" p&\"w " },
        { "long texts", press(IDOK, longText, longText), true, longText, longText },
        { "Enter in a field is OK", key(VK_RETURN, CAuthDlg::kUserName), true, L"u", L"p" },
        { "Cancel", press(IDCANCEL, L"u", L"p"), false, {}, {} },
        { "Escape", key(VK_ESCAPE, CAuthDlg::kPassword), false, {}, {} },
        { "the close box", [](HWND dialog) { ::PostMessageW(dialog, WM_SYSCOMMAND, SC_CLOSE, 0); }, false, {}, {} },
    };
    CLogCapture log;
    for (const CCase& c : table)
    {
        for (const HWND parent : { HWND{ nullptr }, m_parent })
        {
            SCOPED_TRACE(std::string(c.rule) + (parent ? ", with parent" : ""));
            const CDialogUser user(
                [&](HWND dialog)
                {
                    EXPECT_EQ(::FindWindowW(nullptr, kTitle), dialog);
                    EXPECT_EQ(::GetWindow(dialog, GW_OWNER), parent);
                    EXPECT_NE(::IsWindowEnabled(m_parent) != FALSE, parent != nullptr);
                    c.action(dialog);
                });
            EXPECT_EQ(m_callback->SetParentWindow(parent), S_OK);
            const CAnswer answer = Ask(parent == nullptr);
            EXPECT_EQ(answer.hr, S_OK);
            EXPECT_EQ(answer.cancelled, c.ok ? VARIANT_FALSE : VARIANT_TRUE);
            EXPECT_EQ(answer.user.View(), c.ok ? c.user : L"old user");
            EXPECT_EQ(answer.password.View(), c.ok ? c.password : L"old password");
            EXPECT_EQ(answer.freed, c.ok ? 2 : 0);
            EXPECT_TRUE(::IsWindowEnabled(m_parent));
            EXPECT_EQ(::FindWindowW(nullptr, kTitle), nullptr);
        }
    }
    EXPECT_THAT(log.Lines(), testing::IsEmpty());
}

TEST_F(AuthCallback, TheDialogIsReadyForTheKeyboard)
{
    const CDialogUser user(
        [](HWND dialog)
        {
            const auto item = [dialog](WORD id) { return ::GetDlgItem(dialog, id); };
            EXPECT_TRUE(::IsWindowVisible(dialog));
            EXPECT_EQ(TextOf(item(CAuthDlg::kServerAddress)), kAddress);
            EXPECT_TRUE(::GetWindowLongPtrW(item(CAuthDlg::kServerAddress), GWL_STYLE) & SS_NOPREFIX);
            EXPECT_NE(::SendMessageW(item(CAuthDlg::kPassword), EM_GETPASSWORDCHAR, 0, 0), 0);
            EXPECT_EQ(::SendMessageW(dialog, DM_GETDEFID, 0, 0), MAKELONG(IDOK, DC_HASDEFID));
            GUITHREADINFO info{};
            info.cbSize = sizeof(info);
            EXPECT_TRUE(::GetGUIThreadInfo(::GetWindowThreadProcessId(dialog, nullptr), &info));
            EXPECT_EQ(info.hwndFocus, item(CAuthDlg::kUserName));
            HWND next = info.hwndFocus;
            for (const WORD id : { WORD{ CAuthDlg::kPassword }, WORD{ IDOK }, WORD{ IDCANCEL }, WORD{ CAuthDlg::kUserName } })
            {
                next = ::GetNextDlgTabItem(dialog, next, FALSE);
                EXPECT_EQ(::GetDlgCtrlID(next), id);
            }
            Press(dialog, IDCANCEL);
        });
    EXPECT_EQ(Ask().cancelled, VARIANT_TRUE);
}

TEST_F(AuthCallback, TheEndOfTheOwnerOrOfTheLoopCancels)
{
    const std::function<void(HWND)> ends[] = {
        [](HWND dialog) { ::PostMessageW(::GetWindow(dialog, GW_OWNER), WM_CLOSE, 0, 0); },
        [](HWND dialog) { ::PostThreadMessageW(::GetWindowThreadProcessId(dialog, nullptr), WM_QUIT, 7, 0); },
    };
    for (const auto& end : ends)
    {
        const CDialogUser user(
            [&](HWND dialog)
            {
                Enter(dialog, L"u", L"p");
                end(dialog);
            });
        EXPECT_EQ(m_callback->SetParentWindow(m_parent), S_OK);
        CLogCapture log;
        const CAnswer answer = Ask();
        EXPECT_EQ(answer.hr, S_OK);
        EXPECT_EQ(answer.cancelled, VARIANT_TRUE);
        EXPECT_EQ(answer.user.View(), L"old user");
        EXPECT_THAT(log.Lines(), ElementsAre(testing::Field(&TestSupport::CLogLine::function, L"CAuthDlg::DoModal")));
        if (!::IsWindow(m_parent))
            m_parent =
                ::CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPEDWINDOW, 0, 0, 99, 99, nullptr, nullptr, nullptr, nullptr);
    }
    // The thread's own loop learns of its end as well.
    MSG message{};
    EXPECT_TRUE(::PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE));
}

// These need no display.
TEST(AuthCallbackFailures, ADialogThatCannotBeShownCounts)
{
    CVoComPtr<IVoAuthenticationCallback> callback;
    ASSERT_EQ(CreateGlobalAuthenticationCallbackForModule(callback.Put()), S_OK);
    BSTR user = nullptr;
    BSTR password = nullptr;
    VARIANT_BOOL cancelled = VARIANT_FALSE;
    CLogCapture log;
    {
        const CFailOnCall<decltype(&::DialogBoxIndirectParamW)> fail("user32.dll", "DialogBoxIndirectParamW", 1, -1,
                                                                     ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_EQ(callback->OnProxyAuthNeeded(nullptr, nullptr, nullptr, &user, &password, &cancelled), S_OK);
    }
    EXPECT_EQ(cancelled, VARIANT_TRUE);
    EXPECT_FALSE(user || password);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CAuthDlg::DoModal", HRESULT_FROM_WIN32(ERROR_INVALID_WINDOW_HANDLE))));
}

TEST_F(AuthCallback, FailuresAreReportedAndTouchNothing)
{
    constexpr const wchar_t* kSource = L"..\\source\\VoAuthCallbackImpl";
    CLogCapture log;
    BSTR text = nullptr;
    VARIANT_BOOL cancelled = 99;
    EXPECT_EQ(m_callback->OnProxyAuthNeeded(nullptr, nullptr, nullptr, nullptr, &text, &cancelled), E_POINTER);
    EXPECT_EQ(m_callback->OnServerAuthNeeded(nullptr, nullptr, nullptr, &text, &text, nullptr), E_POINTER);
    EXPECT_EQ(cancelled, 99);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 66, L"CVoAuthCallbackImpl::OnProxyAuthNeeded", E_POINTER),
                                         IsReport(kSource, 75, L"CVoAuthCallbackImpl::OnServerAuthNeeded", E_POINTER)));

    // No memory for either text that is handed out.
    for (const int call : { 1, 2 })
    {
        std::atomic<int> calls{ -1 };
        const CCallHook<decltype(&::SysAllocStringLen)> fail(
            "oleaut32.dll", "SysAllocStringLen", [&](auto original, const OLECHAR* source, UINT length) -> BSTR
            { return calls >= 0 && ++calls == call ? nullptr : original(source, length); });
        const CDialogUser user(
            [&](HWND dialog)
            {
                Enter(dialog, L"u", L"secret word");
                calls = 0;
                Press(dialog, IDOK);
            });
        const CAnswer answer = Ask();
        calls = -1;
        EXPECT_EQ(answer.hr, E_OUTOFMEMORY);
        EXPECT_EQ(answer.user.View(), L"old user");
        EXPECT_EQ(answer.password.View(), L"old password");
        EXPECT_EQ(answer.cancelled, 99);
    }
}
} // namespace
