// The credentials dialog: what it gives, and what it does when it fails.
#include <VoAuthCallbackImpl.h>

#include <VoAuthDlg.h>
#include <base/com/VoComHelper.h>

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include <support/DialogUser.h>
#include <support/ImportHook.h>
#include <support/LogCapture.h>

namespace
{
using testing::ElementsAre;
using TestSupport::CDialogUser;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
using TestSupport::IsReportBy;

constexpr const wchar_t* kTitle = L"Sign in, please";
constexpr const wchar_t* kAddress = L"http://server.example/a?b=1&c=2";

void Press(HWND dialog, WORD button)
{
    ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED), reinterpret_cast<LPARAM>(::GetDlgItem(dialog, button)));
}

// Replaces the window procedure of the password field: the field must be empty when it is destroyed.
WNDPROC g_field = nullptr;
LRESULT CALLBACK WatchField(HWND field, UINT message, WPARAM wParam, LPARAM lParam)
{
    EXPECT_TRUE(message != WM_DESTROY || ::GetWindowTextLengthW(field) == 0) << "the field keeps the password";
    return ::CallWindowProcW(g_field, field, message, wParam, lParam);
}

void Enter(HWND dialog, const wchar_t* user, const wchar_t* password)
{
    EXPECT_TRUE(::SetDlgItemTextW(dialog, CAuthDlg::kUserName, user));
    const HWND field = ::GetDlgItem(dialog, CAuthDlg::kPassword);
    EXPECT_TRUE(::SetWindowTextW(field, password));
    const LONG_PTR before = ::SetWindowLongPtrW(field, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&WatchField));
    g_field = reinterpret_cast<WNDPROC>(before);
}

struct CAnswer
{
    HRESULT hr = E_UNEXPECTED;
    CVoBstr user{ L"old user" };
    CVoBstr password{ L"old password" };
    VARIANT_BOOL cancelled = 99;
    int freed = 0; // how many of the old texts
};

class AuthCallback : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(CreateGlobalAuthenticationCallbackForModule(m_callback.Put()), S_OK);
        if (!TestSupport::HasDisplay())
            GTEST_SKIP() << "no windows here: the process has no display";
        m_parent = ::CreateWindowExW(0, L"STATIC", L"the application", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 10, 10, 400, 300,
                                     nullptr, nullptr, nullptr, nullptr);
    }
    void TearDown() override { ::DestroyWindow(m_parent); }

    [[nodiscard]] CAnswer Ask(bool proxy = false) const
    {
        CAnswer answer;
        const auto ask = proxy ? &IVoAuthenticationCallback::OnProxyAuthNeeded : &IVoAuthenticationCallback::OnServerAuthNeeded;
        // Not through Put: it would free the old texts.
        BSTR user = answer.user.Detach();
        BSTR password = answer.password.Detach();
        const CCallHook<decltype(&::SysFreeString)> hook(
            "oleaut32.dll", "SysFreeString", [&answer, oldUser = user, oldPassword = password](auto original, BSTR text)
        {
            answer.freed += text == oldUser || text == oldPassword;
            original(text);
        });
        answer.hr = (m_callback.Get()->*ask)(CVoBstr(kTitle).Get(), CVoBstr(kAddress).Get(), nullptr, &user, &password,
                                             &answer.cancelled);
        *answer.user.Put() = user;
        *answer.password.Put() = password;
        return answer;
    }

    CVoComPtr<IVoAuthenticationCallback> m_callback;
    HWND m_parent = nullptr;
};

TEST_F(AuthCallback, GivesWhatTheUserEntered)
{
    const auto press = [](WORD button) { return [=](HWND dialog) { Press(dialog, button); }; };
    const auto key = [](WPARAM code, WORD field)
    { return [=](HWND dialog) { ::PostMessageW(::GetDlgItem(dialog, field), WM_KEYDOWN, code, 1); }; };
    const auto close = [](HWND dialog) { ::PostMessageW(dialog, WM_SYSCOMMAND, SC_CLOSE, 0); };
    const std::tuple<const char*, std::function<void(HWND)>, bool> table[] = {
        { "OK", press(IDOK), true },          { "Enter in a field is OK", key(VK_RETURN, CAuthDlg::kUserName), true },
        { "Cancel", press(IDCANCEL), false }, { "Escape", key(VK_ESCAPE, CAuthDlg::kPassword), false },
        { "the close box", close, false },
    };
    const std::wstring entered[] = { L"", L" us er\x00FC\xD83D\xDE00&\"", std::wstring(5000, L'\x00E4') };
    const CLogCapture log;
    for (const auto& [rule, end, ok] : table)
        for (const std::wstring& text : entered)
            for (const HWND parent : { HWND{ nullptr }, m_parent })
            {
                SCOPED_TRACE(testing::Message() << rule << ", parent " << parent << ", " << text.size() << " characters");
                const CDialogUser user([&](HWND dialog)
                {
                    EXPECT_EQ(::FindWindowW(nullptr, kTitle), dialog);
                    EXPECT_EQ(::GetWindow(dialog, GW_OWNER), parent);
                    EXPECT_NE(::IsWindowEnabled(m_parent) != FALSE, parent != nullptr);
                    Enter(dialog, text.c_str(), (text + L"p").c_str());
                    end(dialog);
                });
                EXPECT_EQ(m_callback->SetParentWindow(parent), S_OK);
                const CAnswer answer = Ask(parent == nullptr);
                EXPECT_EQ(answer.hr, S_OK);
                EXPECT_EQ(answer.cancelled, ok ? VARIANT_FALSE : VARIANT_TRUE);
                EXPECT_EQ(answer.user.View(), ok ? text : L"old user");
                EXPECT_EQ(answer.password.View(), ok ? text + L"p" : L"old password");
                EXPECT_EQ(answer.freed, ok ? 2 : 0);
                EXPECT_TRUE(::IsWindowEnabled(m_parent));
                EXPECT_EQ(user.Shown(), 1);
            }
    EXPECT_THAT(log.Lines(), testing::IsEmpty());
}

TEST_F(AuthCallback, TheDialogIsReadyForTheKeyboard)
{
    const CDialogUser user([](HWND dialog)
    {
        wchar_t text[200]{};
        ::GetDlgItemTextW(dialog, CAuthDlg::kServerAddress, text, 200);
        EXPECT_STREQ(text, kAddress);
        EXPECT_TRUE(::GetWindowLongPtrW(::GetDlgItem(dialog, CAuthDlg::kServerAddress), GWL_STYLE) & SS_NOPREFIX);
        EXPECT_NE(::SendDlgItemMessageW(dialog, CAuthDlg::kPassword, EM_GETPASSWORDCHAR, 0, 0), 0);
        EXPECT_EQ(::SendMessageW(dialog, DM_GETDEFID, 0, 0), MAKELONG(IDOK, DC_HASDEFID));
        HWND next = ::GetFocus();
        for (const int id : { int{ CAuthDlg::kUserName }, int{ CAuthDlg::kPassword }, IDOK, IDCANCEL })
        {
            EXPECT_EQ(::GetDlgCtrlID(next), id);
            next = ::GetNextDlgTabItem(dialog, next, FALSE);
        }
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(Ask().cancelled, VARIANT_TRUE);
}

TEST_F(AuthCallback, TheDialogSaysWhoAsks)
{
    const std::wstring longUrl = L"http://server.example/" + std::wstring(500, L'x');
    const struct
    {
        bool proxy;
        const wchar_t *title, *address, *detail, *caption, *question;
    } cases[] = {
        { true, L"", kAddress, L"proxy.example:3128", L"Sign in",
          L"The proxy proxy.example:3128 asks for a user name and password." },
        { false, kTitle, L"server.example", longUrl.c_str(), kTitle,
          L"The server server.example asks for a user name and password." },
        { true, L"", kAddress, L"", L"Sign in", L"The proxy asks for a user name and password." },
    };
    for (const auto& item : cases)
    {
        EXPECT_EQ(m_callback->SetParentWindow(m_parent), S_OK);
        const CDialogUser user([&](HWND dialog)
        {
            const auto textOf = [&](int id)
            {
                wchar_t text[1000]{};
                ::GetWindowTextW(id == 0 ? dialog : ::GetDlgItem(dialog, id), text, 1000);
                return std::wstring(text);
            };
            EXPECT_EQ(textOf(0), item.caption);
            EXPECT_EQ(textOf(CAuthDlg::kQuestion), item.question);
            EXPECT_EQ(textOf(CAuthDlg::kServerAddress), item.address);
            EXPECT_EQ(textOf(CAuthDlg::kDetail), item.detail);
            EXPECT_EQ(::SendDlgItemMessageW(dialog, CAuthDlg::kPassword, EM_GETLIMITTEXT, 0, 0), 256);
            RECT owner{}, own{};
            ::GetWindowRect(m_parent, &owner);
            ::GetWindowRect(dialog, &own);
            EXPECT_LE(std::abs((owner.top + owner.bottom) - (own.top + own.bottom)), 2) << "in the middle of its owner";
            Press(dialog, IDCANCEL);
        });
        BSTR name = nullptr, password = nullptr;
        VARIANT_BOOL cancelled = VARIANT_FALSE;
        const auto ask =
            item.proxy ? &IVoAuthenticationCallback::OnProxyAuthNeeded : &IVoAuthenticationCallback::OnServerAuthNeeded;
        EXPECT_EQ((m_callback.Get()->*ask)(CVoBstr(item.title).Get(), CVoBstr(item.address).Get(), CVoBstr(item.detail).Get(),
                                           &name, &password, &cancelled),
                  S_OK);
        EXPECT_EQ(user.Shown(), 1);
    }
}

TEST_F(AuthCallback, QuittingTheLoopOrClosingTheOwnerCancels)
{
    EXPECT_EQ(m_callback->SetParentWindow(m_parent), S_OK);
    for (const bool quits : { true, false })
    {
        const CDialogUser user([&](HWND dialog)
        {
            Enter(dialog, L"u", L"p");
            if (quits)
                ::PostQuitMessage(7);
            else
                ::PostMessageW(m_parent, WM_CLOSE, 0, 0);
        });
        const CLogCapture log;
        const CAnswer answer = Ask();
        EXPECT_EQ(answer.hr, S_OK);
        EXPECT_EQ(answer.cancelled, VARIANT_TRUE);
        EXPECT_EQ(answer.user.View(), L"old user");
        EXPECT_THAT(log.Lines(), ElementsAre(testing::Field(&TestSupport::CLogLine::function, L"CAuthDlg::DoModal")));
        // The thread's own loop receives WM_QUIT too.
        MSG message{};
        EXPECT_EQ(::PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE) != FALSE, quits);
    }
}

TEST_F(AuthCallback, FailuresChangeNoOutArgument)
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
    log.Clear();

    // A dialog that cannot be shown counts as cancelled.
    const auto notShown = VO_FAULT("user32.dll", DialogBoxIndirectParamW, -1, ERROR_INVALID_WINDOW_HANDLE);
    CAnswer answer;
    {
        const auto injected = notShown.inject(1);
        answer = Ask();
    }
    EXPECT_EQ(answer.hr, S_OK);
    EXPECT_EQ(answer.cancelled, VARIANT_TRUE);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CAuthDlg::DoModal", notShown.expected)));

    // No memory for the second out text.
    std::optional<CFailOnCall<decltype(&::SysAllocStringLen)>> noMemory;
    const CDialogUser user([&](HWND dialog)
    {
        Enter(dialog, L"u", L"secret word");
        noMemory.emplace("oleaut32.dll", "SysAllocStringLen", 2, nullptr, ERROR_SUCCESS);
        Press(dialog, IDOK);
    });
    answer = Ask();
    noMemory.reset();
    EXPECT_EQ(answer.hr, E_OUTOFMEMORY);
    EXPECT_EQ(answer.user.View(), L"old user");
    EXPECT_EQ(answer.password.View(), L"old password");
    EXPECT_EQ(answer.cancelled, 99);
}

TEST_F(AuthCallback, AnotherThreadCancelsAQuestion)
{
    CVoComPtr<IVoAuthenticationCancel> cancel;
    ASSERT_EQ(m_callback.As(cancel), S_OK);
    const DWORD asking = ::GetCurrentThreadId();
    {
        const CDialogUser user([&](HWND) { std::thread([&] { EXPECT_EQ(cancel->CancelQuestion(asking), S_OK); }).join(); });
        EXPECT_EQ(Ask().cancelled, VARIANT_TRUE);
        EXPECT_EQ(user.Shown(), 1);
    }
    EXPECT_EQ(Ask().cancelled, VARIANT_TRUE) << "until it is taken back";
    EXPECT_EQ(cancel->ResetQuestion(asking), S_OK);
    EXPECT_EQ(cancel->CancelQuestion(asking + 4), S_OK);
    const CDialogUser user([](HWND dialog) { Press(dialog, IDOK); });
    EXPECT_EQ(Ask().cancelled, VARIANT_FALSE) << "another thread's question";
}
} // namespace
