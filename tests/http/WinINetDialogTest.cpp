// WinINet asks for credentials in the system's own dialog, which only the real platform can show.
#include "support/HTTPSupport.h"
#include "support/TestMain.h"

#include <LoopbackServer.h>

#include <base/VoUtils.h>

namespace
{
using namespace TestSupport;

// Answers the dialogs that the thread shows while this lives, when they get the focus.
class CDialogAnswer
{
public:
    CDialogAnswer(const wchar_t* password, WORD button)
    {
        s_shown = 0;
        s_password = password;
        s_button = button;
        m_hook = ::SetWindowsHookExW(WH_CBT, &OnEvent, nullptr, ::GetCurrentThreadId());
        EXPECT_TRUE(m_hook);
    }
    ~CDialogAnswer() { ::UnhookWindowsHookEx(m_hook); }
    CDialogAnswer(const CDialogAnswer&) = delete;
    CDialogAnswer& operator=(const CDialogAnswer&) = delete;

    [[nodiscard]] static int Shown() noexcept { return s_shown; }

private:
    static LRESULT CALLBACK OnEvent(int code, WPARAM window, LPARAM data)
    {
        wchar_t name[16]{};
        const HWND dialog = reinterpret_cast<HWND>(window);
        if (code == HCBT_ACTIVATE && ::GetClassNameW(dialog, name, 16) && std::wstring_view(name) == L"#32770")
        {
            ++s_shown;
            ::EnumChildWindows(dialog, &Fill, 0);
            ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(s_button, BN_CLICKED), 0);
        }
        return ::CallNextHookEx(nullptr, code, window, data);
    }
    static BOOL CALLBACK Fill(HWND control, LPARAM /*unused*/)
    {
        wchar_t name[16]{};
        ::GetClassNameW(control, name, 16);
        const bool isPassword = (::GetWindowLongPtrW(control, GWL_STYLE) & ES_PASSWORD) != 0;
        if (VoEqualsNoCase(name, L"Edit"))
            ::SetWindowTextW(control, isPassword ? s_password : L"ann");
        return TRUE;
    }

    // What a hook of the thread can reach.
    inline static int s_shown = 0;
    inline static const wchar_t* s_password = nullptr;
    inline static WORD s_button = 0;
    HHOOK m_hook;
};

TEST(WinINetDialog, AsksForCredentials)
{
    if (!IsWine())
        GTEST_SKIP() << "the dialog's fields are those of Wine's";
    const HWND window =
        ::CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPEDWINDOW, 0, 0, 99, 99, nullptr, nullptr, nullptr, nullptr);
    if (!window)
        GTEST_SKIP() << "no windows here: the process has no display";
    ::DestroyWindow(window);
    struct
    {
        const wchar_t* password;
        WORD button;
        const char* sent; // last, in Base64
        HRESULT result;
    } const table[] = {
        { L"wrong", IDOK, "Basic YW5uOndyb25n", kResultUnexpectedStatus },
        { L"right", IDCANCEL, "", kResultUnexpectedStatus }, // S_OK on Windows, which tells that the user cancelled
        { L"right", IDOK, "Basic YW5uOnJpZ2h0", S_OK },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.sent);
        std::string sent;
        const Loopback::CLoopbackServer server(
            [&](const Loopback::CRequest& request, Loopback::CConnection& connection)
            {
                sent = request.Header("Authorization");
                if (sent == table[2].sent)
                    connection.SendResponse(200, {}, "a=1");
                else
                    connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } });
            });
        CServerAddressData address;
        ASSERT_EQ(address.SetAddress(Wide(server.URL()), false, true, true), S_OK);
        const CDialogAnswer user(row.password, row.button);
        const CTransportScope scope(0);
        std::shared_ptr<CVoHTTPMessage> message;
        EXPECT_EQ(CVoHTTPMessage::Connect(address, nullptr, nullptr, nullptr, 10, 10, false, false, message), row.result);
        EXPECT_EQ(user.Shown(), 1);
        EXPECT_EQ(sent, row.sent);
    }
}
} // namespace
