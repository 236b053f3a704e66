// WinINet asks for credentials in the system's own dialog, which only the real platform can show.
#include "http/TransportFixture.h"
#include "support/DialogUser.h"
#include "support/TestMain.h"

#include <LoopbackServer.h>

#include <base/VoUtils.h>

namespace
{
using namespace TestSupport;

// Fills in a field of Wine's dialog.
BOOL CALLBACK Fill(HWND control, LPARAM password)
{
    const bool isPassword = (::GetWindowLongPtrW(control, GWL_STYLE) & ES_PASSWORD) != 0;
    wchar_t name[16]{};
    if (::GetClassNameW(control, name, 16) && VoEqualsNoCase(name, L"Edit"))
        ::SetWindowTextW(control, isPassword ? reinterpret_cast<const wchar_t*>(password) : L"ann");
    return TRUE;
}

TEST(WinINetDialog, AsksForCredentials)
{
    if (!IsWine())
        GTEST_SKIP() << "the dialog's fields are those of Wine's";
    if (!HasDisplay())
        GTEST_SKIP() << "no windows here: the process has no display";
    struct
    {
        const wchar_t* password;
        WORD button;
        const char* sent; // last, in Base64
        HRESULT result;
    } const table[] = {
        { L"wrong", IDOK, "Basic YW5uOndyb25n", kResultUnexpectedStatus },
        { kPassword, IDCANCEL, "", kResultUnexpectedStatus }, // S_OK on Windows, which returns ERROR_CANCELLED
        { kPassword, IDOK, kBasicCredentials, S_OK },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.sent);
        std::string sent;
        const Loopback::CLoopbackServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
        {
            sent = request.Header("Authorization");
            if (Authenticate(request, connection))
                connection.SendResponse(200, {}, "a=1");
        });
        const CDialogUser user([&](HWND dialog)
        {
            ::EnumChildWindows(dialog, &Fill, reinterpret_cast<LPARAM>(row.password));
            ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(row.button, BN_CLICKED), 0);
        });
        Message message;
        EXPECT_EQ(ConnectTo(Wide(server.URL()), { .kind = 0 }, message), row.result);
        EXPECT_EQ(user.Shown(), 1);
        EXPECT_EQ(sent, row.sent);
    }
}
} // namespace
