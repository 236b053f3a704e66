// Tests of the browser dialog with a stand-in for the browser.
#include <VoBrowserDialog.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPUtils.h>
#include <WizardShell.h>
#include <resource.h>
#include <support/DialogUser.h>
#include <support/FakeBrowser.h>
#include <support/ImportHook.h>

#include <gtest/gtest.h>
#include <shellapi.h>
#include <wininet.h>

using namespace TestSupport;

namespace
{
constexpr const wchar_t* kStart = L"http://start.example/";

std::wstring TextOf(HWND dialog, int id)
{
    std::wstring text(1000, L'\0');
    text.resize(static_cast<size_t>(::GetDlgItemTextW(dialog, id, text.data(), static_cast<int>(text.size()))));
    return text;
}

void Press(HWND dialog, int id)
{
    ::PostMessageW(dialog, WM_COMMAND, static_cast<WPARAM>(id), 0);
}

class BrowserDialog : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!HasDisplay())
            GTEST_SKIP() << "no display";
    }
    void TearDown() override { EXPECT_EQ(0, m_engine.alive) << "a reference is left"; }

    HRESULT Show(const wchar_t* end = L"", IVoHTTPCookieStore* cookies = nullptr, HWND parent = nullptr)
    {
        const CFakeBrowserClass browser(m_engine);
        CVoBrowserDialog dialog({ kStart, end, cookies });
        const HRESULT hr = dialog.DoModal(parent);
        m_lastUrl = dialog.LastUrl();
        return hr;
    }

    CFakeEngine m_engine;
    std::wstring m_lastUrl;
};
} // namespace

TEST_F(BrowserDialog, EndsWhereTheBrowserItselfArrivesAtTheEnd)
{
    m_engine.onGo = [this](CFakeBrowser& browser, const std::wstring&)
    {
        const HWND dialog = browser.Dialog();
        const CVoComPtr<CFakeBrowser> frame = VoMakeComObject<CFakeBrowser>(m_engine);
        browser.Arrive(L"https://user.sign-in.example/form?x=1");
        EXPECT_EQ(L"https://user.sign-in.example/form?x=1", TextOf(dialog, IDC_BROWSER_ADDRESS));
        EXPECT_FALSE(browser.Raise(DISPID_BEFORENAVIGATE2, frame.Get(), L"https://good.example/done"));
        browser.Raise(DISPID_NAVIGATECOMPLETE2, frame.Get(), L"https://good.example/done");
        EXPECT_FALSE(browser.Raise(DISPID_NAVIGATEERROR, frame.Get(), L"https://frame.example/", INET_E_RESOURCE_NOT_FOUND));
        EXPECT_TRUE(::IsWindowVisible(browser.Page())) << "a frame's failure leaves the page";
        EXPECT_EQ(L"https://user.sign-in.example/form?x=1", TextOf(dialog, IDC_BROWSER_ADDRESS));
        EXPECT_TRUE(browser.Go(L"https://good.example.evil/done"));
        EXPECT_TRUE(browser.Go(L"https://good.example/done?code=1"));
    };
    EXPECT_EQ(S_OK, Show(L"https://good.example/done"));
    EXPECT_EQ(L"https://good.example/done?code=1", m_lastUrl);
    EXPECT_EQ(std::vector<std::wstring>{ kStart }, m_engine.asked);
}

TEST_F(BrowserDialog, RefusesSchemesDownloadsAndEmptyWindowsWithAText)
{
    struct CCase
    {
        DISPID event;
        const wchar_t* url;
        LONG code;
        bool isCancelled;
        const wchar_t* text; // the beginning of the status line; null: it says nothing of a refusal
    };
    static constexpr CCase kCases[] = {
        { DISPID_BEFORENAVIGATE2, L"myapp://open", 0, true,
          L"Refused: the page wants to open an address of the kind \"myapp\"" },
        { DISPID_BEFORENAVIGATE2, L"file:///c:/x", 0, true,
          L"Refused: the page wants to open an address of the kind \"file\"" },
        { DISPID_BEFORENAVIGATE2, L"http://user@host/", 0, true, L"Refused: the page wants to open an address that is" },
        { DISPID_BEFORENAVIGATE2, L"about:blank", 0, false, nullptr },
        { DISPID_FILEDOWNLOAD, L"", 0, true, L"Refused: the page wants to download" },
        { DISPID_FILEDOWNLOAD, L"", 1, false, nullptr },
        { DISPID_NEWWINDOW3, L"about:blank", 0, true, L"Refused: the page wants to open an empty window" },
    };
    m_engine.onGo = [](CFakeBrowser& browser, const std::wstring&)
    {
        for (const CCase& c : kCases)
        {
            browser.Arrive(kStart);
            EXPECT_EQ(c.isCancelled, browser.Raise(c.event, &browser, c.url, c.code)) << c.url;
            browser.Raise(DISPID_DOWNLOADCOMPLETE, &browser, L"");
            EXPECT_EQ(c.text != nullptr, TextOf(browser.Dialog(), IDC_BROWSER_STATUS).starts_with(c.text ? c.text : L"Refused"))
                << c.url << " " << TextOf(browser.Dialog(), IDC_BROWSER_STATUS);
        }
        EXPECT_EQ(kStart, TextOf(browser.Dialog(), IDC_BROWSER_ADDRESS));
        browser.Arrive(L"ftp://redirected.example/"); // a redirect, which raises no BeforeNavigate2
        EXPECT_EQ(L"", TextOf(browser.Dialog(), IDC_BROWSER_ADDRESS));
        EXPECT_FALSE(::IsWindowVisible(::GetDlgItem(browser.Dialog(), IDC_BROWSER_AREA)));
        Press(browser.Dialog(), IDCANCEL);
    };
    EXPECT_EQ(S_FALSE, Show());
    EXPECT_EQ(kStart, m_lastUrl);
}

TEST_F(BrowserDialog, NewWindowsOpenInside)
{
    m_engine.onGo = [](CFakeBrowser& browser, const std::wstring& url)
    {
        browser.Arrive(url);
        if (url == kStart)
        {
            EXPECT_TRUE(browser.Raise(DISPID_NEWWINDOW3, &browser, L"https://window.example/"));
        }
        else
            Press(browser.Dialog(), IDCANCEL);
    };
    EXPECT_EQ(S_FALSE, Show());
    EXPECT_EQ(L"https://window.example/", m_lastUrl);
}

TEST_F(BrowserDialog, WhereNoBrowserCanBeMadeItOffersTheSystemsBrowser)
{
    struct CCase
    {
        HRESULT CFakeEngine::* step;
        HRESULT code;
        const wchar_t* text;
    };
    constexpr CCase kCases[] = { { &CFakeEngine::creation, REGDB_E_CLASSNOTREG, L"0x80040154" },
                                 { &CFakeEngine::activation, E_FAIL, L"0x80004005" },
                                 { &CFakeEngine::connection, E_ACCESSDENIED, L"0x80070005" } };
    for (const CCase& c : kCases)
    {
        m_engine.*c.step = c.code;
        std::wstring opened;
        const CCallHook<decltype(&::ShellExecuteExW)> shell("shell32.dll", "ShellExecuteExW", [&](auto, SHELLEXECUTEINFOW* what)
        {
            opened = what->lpFile;
            EXPECT_NE(std::wstring::npos, TextOf(what->hwnd, IDC_BROWSER_MESSAGE).find(c.text));
            EXPECT_TRUE(::IsWindowVisible(::GetDlgItem(what->hwnd, IDC_BROWSER_MESSAGE)));
            EXPECT_FALSE(::IsWindowVisible(::GetDlgItem(what->hwnd, IDC_BROWSER_AREA)));
            Press(what->hwnd, IDCANCEL);
            return FALSE;
        });
        CDialogUser user([](HWND dialog) { Press(dialog, IDC_BROWSER_OUTSIDE); });
        EXPECT_EQ(S_FALSE, Show());
        EXPECT_EQ(kStart, opened);
        m_engine.*c.step = S_OK;
    }
}

TEST_F(BrowserDialog, SaysWhyAPageCannotBeLoadedAndTriesAgain)
{
    m_engine.onGo = [this](CFakeBrowser& browser, const std::wstring& url)
    {
        const HWND dialog = browser.Dialog();
        const HWND message = ::GetDlgItem(dialog, IDC_BROWSER_MESSAGE);
        if (m_engine.asked.size() == 1)
        {
            EXPECT_FALSE(browser.Raise(DISPID_NAVIGATEERROR, &browser, url, 404)) << "the server's own page is shown";
            EXPECT_FALSE(::IsWindowVisible(message));
            EXPECT_TRUE(browser.Raise(DISPID_NAVIGATEERROR, &browser, url, INET_E_RESOURCE_NOT_FOUND));
            EXPECT_TRUE(::IsWindowVisible(message));
            EXPECT_NE(std::wstring::npos,
                      TextOf(dialog, IDC_BROWSER_MESSAGE)
                          .find(L"http://start.example/ cannot be loaded: the server was not found (0x800C0005)"));
            Press(dialog, IDC_BROWSER_AGAIN);
            return;
        }
        browser.Arrive(url);
        EXPECT_FALSE(::IsWindowVisible(message));
        EXPECT_TRUE(::IsWindowVisible(::GetDlgItem(dialog, IDC_BROWSER_AREA)));
        Press(dialog, IDCANCEL);
    };
    EXPECT_EQ(S_FALSE, Show());
    EXPECT_EQ(2u, m_engine.asked.size());
}

TEST_F(BrowserDialog, MayBeClosedWhileTheBrowserIsUnderway)
{
    m_engine.firesOnStop = true;
    m_engine.onGo = [](CFakeBrowser& browser, const std::wstring&) { Press(browser.Dialog(), IDCANCEL); };
    EXPECT_EQ(S_FALSE, Show(L"http://late.example/"));
    EXPECT_EQ(L"", m_lastUrl);

    // By its owner, while the browser works.
    const HWND owner =
        ::CreateWindowExW(0, L"STATIC", L"", WS_POPUP | WS_VISIBLE, 0, 0, 99, 99, nullptr, nullptr, nullptr, nullptr);
    m_engine.onGo = [&](CFakeBrowser& browser, const std::wstring&)
    {
        EXPECT_FALSE(::IsWindowEnabled(owner));
        ::PostMessageW(owner, WM_CLOSE, 0, 0);
        browser.Arrive(kStart);
    };
    EXPECT_EQ(S_FALSE, Show(L"", nullptr, owner));
    EXPECT_FALSE(::IsWindow(owner));

    m_engine.onGo = [](CFakeBrowser&, const std::wstring&) { ::PostQuitMessage(3); };
    EXPECT_EQ(S_FALSE, Show());
    MSG message{};
    EXPECT_TRUE(::PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) << "the outer loop must end, too";
}

TEST_F(BrowserDialog, CookiesOfTheVisitedSiteGoToTheStore)
{
    const CVoComPtr<CVoGlobalHTTPCookieStoreImpl> store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    m_engine.onGo = [](CFakeBrowser& browser, const std::wstring&)
    {
        constexpr const wchar_t* kPage = L"http://cookies.example/in/page?x=1";
        EXPECT_TRUE(::InternetSetCookieExW(kPage, nullptr, L"all=1; path=/", 0, 0));
        EXPECT_TRUE(::InternetSetCookieExW(kPage, nullptr, L"in=2; path=/in/", 0, 0));
        EXPECT_NE(0u, ::InternetSetCookieExW(kPage, nullptr, L"hidden=3; path=/; HttpOnly", INTERNET_COOKIE_HTTPONLY, 0));
        EXPECT_TRUE(::InternetSetCookieExW(L"http://other.example/", nullptr, L"other=4; path=/", 0, 0));
        browser.Arrive(kPage);
        Press(browser.Dialog(), IDCANCEL);
    };
    EXPECT_EQ(S_FALSE, Show(L"", store.Get()));
    const auto cookiesFor = [&](const wchar_t* url)
    {
        CVoBstr text;
        EXPECT_EQ(S_OK, store->GetCookieStringForHTTPRequest(CVoBstr(url).Get(), VARIANT_FALSE, text.Put()));
        return std::wstring(text.View());
    };
    EXPECT_EQ(L"all=1; hidden=3", cookiesFor(L"http://cookies.example/api"));
    EXPECT_EQ(L"in=2; all=1; hidden=3", cookiesFor(L"http://cookies.example/in/x"));
    EXPECT_EQ(L"", cookiesFor(L"http://other.example/"));
    EXPECT_EQ(L"", cookiesFor(L"http://sub.cookies.example/"));
}

TEST_F(BrowserDialog, TheWizardShowsAPageAndKeepsItsCookies)
{
    constexpr const wchar_t* kPage = L"http://wizard-page.example/";
    const CFakeBrowserClass browser(m_engine);
    m_engine.onGo = [](CFakeBrowser& control, const std::wstring& url)
    {
        EXPECT_TRUE(::InternetSetCookieExW(url.c_str(), nullptr, L"signed-in=1; path=/", 0, 0));
        control.Arrive(url);
        Press(control.Dialog(), IDCANCEL);
    };
    CWizardDesktop desktop;
    EXPECT_EQ(E_INVALIDARG, desktop.ShowPage(nullptr, L"file:///c:/windows/win.ini"));
    EXPECT_EQ(S_OK, desktop.ShowPage(nullptr, kPage));
    CVoComPtr<IVoHTTPCookieStore> store;
    ASSERT_EQ(S_OK, VoGlobalHTTPUtils::CreateGlobalHTTPStores(nullptr, nullptr, store.Put()));
    CVoBstr cookies;
    EXPECT_EQ(S_OK, store->GetCookieStringForHTTPRequest(CVoBstr(kPage).Get(), VARIANT_FALSE, cookies.Put()));
    EXPECT_EQ(L"signed-in=1", cookies.View());
}

TEST_F(BrowserDialog, TabLeavesThePageAndEscapeEndsTheDialogFromInside)
{
    m_engine.onGo = [](CFakeBrowser& browser, const std::wstring& url)
    {
        browser.Arrive(url);
        ::SetFocus(browser.Page());
        ::PostMessageW(browser.Page(), WM_KEYDOWN, VK_TAB, 0);
        // Comes behind what Tab posts.
        ::SetTimer(browser.Dialog(), 1, 0, [](HWND dialog, UINT, UINT_PTR id, DWORD)
        {
            ::KillTimer(dialog, id);
            EXPECT_EQ(::GetDlgItem(dialog, IDC_BROWSER_OUTSIDE), ::GetFocus());
            ::PostMessageW(dialog, WM_NEXTDLGCTL, 1, FALSE); // Shift+Tab: into the page again
            ::SetTimer(dialog, 2, 0, [](HWND window, UINT, UINT_PTR second, DWORD)
            {
                ::KillTimer(window, second);
                EXPECT_TRUE(::IsChild(::GetDlgItem(window, IDC_BROWSER_AREA), ::GetFocus()));
                ::PostMessageW(::GetFocus(), WM_KEYDOWN, VK_ESCAPE, 0);
            });
        });
    };
    EXPECT_EQ(S_FALSE, Show());
}

TEST_F(BrowserDialog, FollowsSizeAndDpi)
{
    m_engine.onGo = [](CFakeBrowser& browser, const std::wstring&)
    {
        const HWND dialog = browser.Dialog();
        const auto rectOf = [&](int id)
        {
            RECT rect{};
            ::GetWindowRect(::GetDlgItem(dialog, id), &rect);
            return rect;
        };
        const LONG button = rectOf(IDCANCEL).right - rectOf(IDCANCEL).left;
        const RECT place{ 10, 10, 1210, 910 };
        constexpr UINT kDpi = 192; // twice what it was
        ::SendMessageW(dialog, WM_DPICHANGED, MAKEWPARAM(kDpi, kDpi), reinterpret_cast<LPARAM>(&place));
        RECT window{};
        ::GetWindowRect(dialog, &window);
        EXPECT_TRUE(::EqualRect(&place, &window));
        EXPECT_NEAR(2 * button, rectOf(IDCANCEL).right - rectOf(IDCANCEL).left, 1);
        EXPECT_LT(rectOf(IDCANCEL).right, window.right);
        RECT area{};
        ::GetClientRect(::GetDlgItem(dialog, IDC_BROWSER_AREA), &area);
        EXPECT_GT(area.right, 1000);
        const RECT seen = browser.Place();
        EXPECT_TRUE(::EqualRect(&area, &seen)) << "the browser fills its area";
        MINMAXINFO limits{};
        ::SendMessageW(dialog, WM_GETMINMAXINFO, 0, reinterpret_cast<LPARAM>(&limits));
        EXPECT_GT(limits.ptMinTrackSize.x, 4 * button);
        Press(dialog, IDCANCEL);
    };
    EXPECT_EQ(S_FALSE, Show());
}
