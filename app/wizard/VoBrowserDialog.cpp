// Builds, lays out and runs the browser dialog (VoBrowserDialog.h).
#include "VoBrowserDialog.h"

#include "VoBrowserCookies.h"
#include "VoOle.h"
#include "WizardShell.h"
#include "WizardTexts.h"
#include "resource.h"

#include <base/VoHResult.h>
#include <base/VoText.h>

#include <commctrl.h>

#include <algorithm>

namespace
{
// Posted to the dialog, so that the browser is created in a visible window, and is never called from inside its own events.
constexpr UINT kStartMessage = WM_APP + 1;
constexpr UINT kNewWindowMessage = WM_APP + 2;

// The dialog's first size in pixels at 96 dots an inch, where the screen has room for it, and the part of the screen that it
// may take.
constexpr LONG kFirstWidth = 1000;
constexpr LONG kFirstHeight = 700;
constexpr LONG kPercentOfScreen = 85;

// How a control follows a change of the dialog's size.
enum EAnchor : unsigned
{
    kMoveX = 1,
    kMoveY = 2,
    kGrowX = 4,
    kGrowY = 8
};

unsigned AnchorsOf(int id) noexcept
{
    switch (id)
    {
    case IDC_BROWSER_ADDRESS:
        return kGrowX;
    case IDC_BROWSER_AREA:
    case IDC_BROWSER_MESSAGE:
        return kGrowX | kGrowY;
    case IDC_BROWSER_STATUS:
        return kMoveY | kGrowX;
    case IDC_BROWSER_OUTSIDE:
        return kMoveY;
    case IDC_BROWSER_AGAIN:
    case IDCANCEL:
        return kMoveX | kMoveY;
    default:
        return 0;
    }
}

// A function of the platform that older releases lack; null then.
template <class Function>
Function UserFunction(const char* name) noexcept
{
    const HMODULE user = ::GetModuleHandleW(L"user32.dll");
    return reinterpret_cast<Function>(reinterpret_cast<void*>(user ? ::GetProcAddress(user, name) : nullptr));
}

int DpiOf(HWND window) noexcept
{
    // From Windows 10 1607 on; before that the whole system has one value for a window.
    if (const auto ofWindow = UserFunction<UINT(WINAPI*)(HWND)>("GetDpiForWindow"))
        if (const UINT dpi = ofWindow(window); dpi != 0)
            return static_cast<int>(dpi);
    const HDC context = ::GetDC(window);
    const int dpi = context ? ::GetDeviceCaps(context, LOGPIXELSY) : 0;
    ::ReleaseDC(window, context);
    return dpi > 0 ? dpi : USER_DEFAULT_SCREEN_DPI;
}

// Switches the platform's own scaling off (Windows 10 1703 and later): the dialog scales itself, in the same way on every
// release.
void DisableOwnScaling(HWND dialog) noexcept
{
    constexpr UINT kDisableAll = 1; // DDC_DISABLE_ALL
    if (const auto set = UserFunction<BOOL(WINAPI*)(HWND, UINT, UINT)>("SetDialogDpiChangeBehavior"))
        set(dialog, kDisableAll, kDisableAll);
}

// Tells screen readers that a text has changed.
void Announce(HWND text) noexcept
{
    ::NotifyWinEvent(EVENT_SYSTEM_ALERT, text, OBJID_CLIENT, CHILDID_SELF);
}

// Whether a page cannot be shown because the browser lacks what shows pages, its engine.
bool LacksEngine(HRESULT code) noexcept
{
    return code == REGDB_E_CLASSNOTREG || code == INET_E_CANNOT_INSTANTIATE_OBJECT;
}

// What a failure means, with its code. The platform has no texts for the codes of its browser.
std::wstring ReasonOf(HRESULT code)
{
    UINT id = IDS_BROWSER_REASON_OTHER;
    switch (code)
    {
    case INET_E_RESOURCE_NOT_FOUND:
        id = IDS_BROWSER_REASON_NO_SERVER;
        break;
    case INET_E_CANNOT_CONNECT:
    case INET_E_DOWNLOAD_FAILURE:
        id = IDS_BROWSER_REASON_NO_CONNECTION;
        break;
    case INET_E_CONNECTION_TIMEOUT:
        id = IDS_BROWSER_REASON_TIMEOUT;
        break;
    case INET_E_SECURITY_PROBLEM:
    case INET_E_INVALID_CERTIFICATE:
        id = IDS_BROWSER_REASON_CERTIFICATE;
        break;
    default:
        if (HRESULT_FACILITY(code) != FACILITY_INTERNET)
            return WizardErrorText(code);
    }
    return WizardText(id, { VoFormat(L"0x%08X", static_cast<unsigned>(code)) });
}

// Why the browser may not go to an address; nothing where it may.
std::optional<std::wstring> RefusalOf(std::wstring_view url)
{
    switch (CVoBrowserPolicy::Judge(url))
    {
    case EVoBrowserVerdict::Go:
        return std::nullopt;
    case EVoBrowserVerdict::RefuseScheme:
        return WizardText(IDS_BROWSER_SCHEME_REFUSED, { CVoBrowserPolicy::SchemeOf(url) });
    default:
        return WizardText(IDS_BROWSER_ADDRESS_REFUSED);
    }
}

// Runs what an event of the browser asks for. No exception may pass through the browser; without memory the event is lost.
template <class Body>
void Guarded(Body body) noexcept
{
    try
    {
        body();
    }
    catch (...)
    {
        // Lost: the user still has the dialog and its buttons.
    }
}

// The top-level owner of the dialog, disabled while this lives.
class CVoOwnerLock
{
public:
    explicit CVoOwnerLock(HWND parent) noexcept : m_owner(parent ? ::GetAncestor(parent, GA_ROOT) : nullptr)
    {
        if (m_owner && ::EnableWindow(m_owner, FALSE))
            m_owner = nullptr; // somebody else has disabled it
    }
    CVoOwnerLock(const CVoOwnerLock&) = delete;
    CVoOwnerLock& operator=(const CVoOwnerLock&) = delete;
    ~CVoOwnerLock()
    {
        if (m_owner)
            ::EnableWindow(m_owner, TRUE);
    }

private:
    HWND m_owner;
};
} // namespace

HRESULT CVoBrowserDialog::DoModal(HWND parent) noexcept
{
    try
    {
        m_result.reset();
        m_lastUrl.clear();
        if (const HRESULT hr = m_policy.Init(m_request.startUrl, m_request.endPrefix); FAILED(hr))
            return hr;
        m_wantedUrl = m_policy.StartUrl();
        const CVoOle ole;
        m_ole = ole.Result();
        if (!::CreateDialogParamW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_BROWSER), parent, &DialogProc,
                                  reinterpret_cast<LPARAM>(this)))
            return HResultFromLastError();
        {
            const CVoOwnerLock owner(parent);
            ::ShowWindow(m_dialog, SW_SHOW);
            ::PostMessageW(m_dialog, kStartMessage, 0, 0);
            RunLoop();
            Guarded([&] { HandOverCookies(m_lastUrl); });
            m_browser.Close();
        }
        // Destroy the dialog after its owner is enabled again: otherwise another program's window would come to the front.
        if (m_dialog)
            ::DestroyWindow(m_dialog);
        m_font.Reset(nullptr);
        return m_result.value_or(S_FALSE);
    }
    catch (...)
    {
        return HResultFromCurrentException(); // before the dialog exists: nothing throws while it runs
    }
}

void CVoBrowserDialog::RunLoop() noexcept
{
    MSG message{};
    while (!m_result)
    {
        const BOOL got = ::GetMessageW(&message, nullptr, 0, 0);
        if (got > 0)
        {
            Dispatch(message);
            continue;
        }
        // The message loop around this one must end, too.
        if (got == 0)
            ::PostQuitMessage(static_cast<int>(message.wParam));
        m_result = S_FALSE;
    }
}

void CVoBrowserDialog::Dispatch(MSG& message) noexcept
{
    const bool isKey = message.message >= WM_KEYFIRST && message.message <= WM_KEYLAST;
    const bool isSystemKey = message.message >= WM_SYSKEYDOWN && message.message <= WM_SYSDEADCHAR;
    if (isKey)
        m_lastKey = message;
    const bool isDown = message.message == WM_KEYDOWN;
    // Keys in the page are the page's, but for Escape, the access keys, and Tab where the page does not want it.
    if (isKey && !isSystemKey && m_dialog && ::IsChild(Item(IDC_BROWSER_AREA), message.hwnd))
    {
        if (isDown && message.wParam == VK_ESCAPE)
            return End(S_FALSE);
        if (m_browser.TranslateKey(message))
            return;
        if (!isDown || message.wParam != VK_TAB)
        {
            ::TranslateMessage(&message);
            ::DispatchMessageW(&message);
            return;
        }
    }
    if (m_dialog && ::IsDialogMessageW(m_dialog, &message))
        return;
    ::TranslateMessage(&message);
    ::DispatchMessageW(&message);
}

void CVoBrowserDialog::End(HRESULT result) noexcept
{
    if (m_result)
        return;
    m_result = result;
    // The loop may wait for a message: what ends the dialog may have come without one.
    ::PostThreadMessageW(::GetCurrentThreadId(), WM_NULL, 0, 0);
}

INT_PTR CALLBACK CVoBrowserDialog::DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept
{
    if (message == WM_INITDIALOG)
    {
        ::SetWindowLongPtrW(dialog, DWLP_USER, lParam);
        reinterpret_cast<CVoBrowserDialog*>(lParam)->m_dialog = dialog;
    }
    auto* const self = reinterpret_cast<CVoBrowserDialog*>(::GetWindowLongPtrW(dialog, DWLP_USER));
    INT_PTR handled = FALSE;
    if (self)
        Guarded([&] { handled = self->OnMessage(message, wParam, lParam); });
    return handled;
}

INT_PTR CVoBrowserDialog::OnMessage(UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message)
    {
    case WM_INITDIALOG:
        return OnInitDialog();
    case kStartMessage:
        StartBrowser();
        return TRUE;
    case kNewWindowMessage:
        GoTo(m_nextUrl);
        return TRUE;
    case WM_COMMAND:
        OnCommand(LOWORD(wParam));
        return TRUE;
    case WM_SIZE:
        LayOut();
        return TRUE;
    case WM_GETMINMAXINFO:
        LimitSize(*reinterpret_cast<MINMAXINFO*>(lParam));
        return TRUE;
    case WM_DPICHANGED:
        OnDpiChanged(LOWORD(wParam), *reinterpret_cast<const RECT*>(lParam));
        return TRUE;
    case WM_DESTROY:
        OnDestroy();
        return TRUE;
    default:
        return FALSE;
    }
}

INT_PTR CVoBrowserDialog::OnInitDialog()
{
    SetTexts();
    DisableOwnScaling(m_dialog);
    m_dpi = m_designDpi = DpiOf(m_dialog);
    ::GetClientRect(m_dialog, &m_design);
    m_places.clear();
    for (HWND child = ::GetWindow(m_dialog, GW_CHILD); child; child = ::GetWindow(child, GW_HWNDNEXT))
    {
        CPlace place{ child, {} };
        ::GetWindowRect(child, &place.rect);
        ::MapWindowPoints(nullptr, m_dialog, reinterpret_cast<POINT*>(&place.rect), 2);
        m_places.push_back(place);
    }
    const auto font = reinterpret_cast<HFONT>(::SendMessageW(m_dialog, WM_GETFONT, 0, 0));
    if (!font || ::GetObjectW(font, sizeof m_designFont, &m_designFont) == 0)
        m_designFont.lfHeight = 0;
    // A failure is not fatal: then the mouse alone reaches the page.
    (void)::SetWindowSubclass(Item(IDC_BROWSER_AREA), &AreaProc, 0, reinterpret_cast<DWORD_PTR>(this));
    EnlargeToScreen();
    return TRUE;
}

LRESULT CALLBACK CVoBrowserDialog::AreaProc(HWND area, UINT message, WPARAM wParam, LPARAM lParam, UINT_PTR id,
                                            DWORD_PTR self) noexcept
{
    auto& dialog = *reinterpret_cast<CVoBrowserDialog*>(self);
    const LRESULT result = ::DefSubclassProc(area, message, wParam, lParam);
    if (message == WM_SIZE)
        dialog.m_browser.Resize();
    else if (message == WM_SETFOCUS)
    {
        const bool isTab = dialog.m_lastKey.message == WM_KEYDOWN && dialog.m_lastKey.wParam == VK_TAB;
        dialog.m_browser.Focus(isTab ? &dialog.m_lastKey : nullptr);
    }
    else if (message == WM_NCDESTROY)
        ::RemoveWindowSubclass(area, &AreaProc, id);
    return result;
}

void CVoBrowserDialog::OnCommand(WORD id)
{
    switch (id)
    {
    case IDCANCEL:
        return End(S_FALSE);
    case IDC_BROWSER_AGAIN:
        return m_browser.Exists() ? GoTo(m_wantedUrl) : StartBrowser();
    case IDC_BROWSER_OUTSIDE:
        return OpenOutside();
    default:
        return;
    }
}

void CVoBrowserDialog::OnDestroy() noexcept
{
    // The owner may destroy the dialog: the browser must go before its window.
    m_browser.Close();
    m_dialog = nullptr;
    m_places.clear();
    End(S_FALSE);
}

void CVoBrowserDialog::StartBrowser()
{
    const HWND area = Item(IDC_BROWSER_AREA);
    ::ShowWindow(area, SW_SHOW);
    const HRESULT hr = FAILED(m_ole) ? m_ole : m_browser.Create(*this, area);
    if (FAILED(hr))
        return ShowInstead(WizardText(IDS_BROWSER_NO_ENGINE, { WizardErrorText(hr) }));
    GoTo(m_wantedUrl);
    if (::IsWindowVisible(area))
        ::SetFocus(area);
}

void CVoBrowserDialog::GoTo(const std::wstring& url)
{
    m_hasRefusal = false;
    m_wantedUrl = url;
    SetStatus(WizardText(IDS_BROWSER_LOADING));
    ShowInstead({});
    if (const HRESULT hr = m_browser.Navigate(url); FAILED(hr))
        OnFailed(url, hr);
}

void CVoBrowserDialog::OpenOutside()
{
    const std::optional<CVoBrowserAddress> address = CVoBrowserAddress::FromUrl(m_wantedUrl);
    if (!address)
        return SetStatus(WizardText(IDS_BROWSER_ADDRESS_REFUSED));
    if (const HRESULT hr = OpenWithShell(m_dialog, address->url); FAILED(hr))
        SetStatus(WizardText(IDS_BROWSER_NOT_OPENED, { WizardErrorText(hr) }));
}

void CVoBrowserDialog::HandOverCookies(const std::wstring& url)
{
    if (!m_request.cookies)
        return;
    if (const std::optional<CVoBrowserAddress> address = CVoBrowserAddress::FromUrl(url))
        (void)VoHandOverBrowserCookies(*address, *m_request.cookies.Get());
}

bool CVoBrowserDialog::MayGo(std::wstring_view url) noexcept
{
    bool mayGo = false;
    Guarded([&]
    {
        const std::optional<std::wstring> refusal = RefusalOf(url);
        mayGo = !refusal;
        if (refusal)
            Refuse(*refusal);
    });
    return mayGo;
}

void CVoBrowserDialog::OnArrived() noexcept
{
    Guarded([&]
    {
        m_hasRefusal = false;
        // A redirect does not ask again where the browser may go.
        const std::wstring url = m_browser.Location();
        if (const std::optional<std::wstring> refusal = RefusalOf(url))
        {
            SetAddress({});
            ShowInstead(*refusal);
            return;
        }
        m_lastUrl = m_wantedUrl = url;
        SetAddress(url);
        ShowInstead({});
        if (m_policy.IsEnd(url))
            End(S_OK);
    });
}

void CVoBrowserDialog::OnComplete() noexcept
{
    Guarded([&] { HandOverCookies(m_browser.Location()); });
}

void CVoBrowserDialog::OnFailed(std::wstring_view url, HRESULT code) noexcept
{
    Guarded([&]
    {
        if (CVoBrowserPolicy::Judge(url) == EVoBrowserVerdict::Go)
            m_wantedUrl = url;
        SetStatus({});
        SetAddress({}); // no page is shown
        ShowInstead(LacksEngine(code) ? WizardText(IDS_BROWSER_NO_ENGINE, { WizardErrorText(code) })
                                      : WizardText(IDS_BROWSER_NO_PAGE, { CVoBrowserPolicy::Show(url), ReasonOf(code) }));
    });
}

void CVoBrowserDialog::OnNewWindow(std::wstring_view url) noexcept
{
    Guarded([&]
    {
        // A script fills an empty window: inside, it would replace the page that the script belongs to.
        if (!CVoBrowserAddress::FromUrl(url))
            return Refuse(WizardText(IDS_BROWSER_WINDOW_REFUSED));
        m_nextUrl = url;
        ::PostMessageW(m_dialog, kNewWindowMessage, 0, 0);
    });
}

void CVoBrowserDialog::OnDownloadRefused() noexcept
{
    Guarded([&] { Refuse(WizardText(IDS_BROWSER_DOWNLOAD_REFUSED)); });
}

void CVoBrowserDialog::OnBusy(bool isBusy) noexcept
{
    Guarded([&]
    {
        if (!m_hasRefusal)
            SetStatus(isBusy ? WizardText(IDS_BROWSER_LOADING) : std::wstring());
    });
}

void CVoBrowserDialog::OnTabOut(bool backwards) noexcept
{
    // Later: the browser still works on the key.
    ::PostMessageW(m_dialog, WM_NEXTDLGCTL, backwards ? 1 : 0, FALSE);
}

void CVoBrowserDialog::SetStatus(const std::wstring& text) noexcept
{
    ::SetWindowTextW(Item(IDC_BROWSER_STATUS), text.c_str());
}

void CVoBrowserDialog::Refuse(const std::wstring& text) noexcept
{
    m_hasRefusal = true;
    SetStatus(text);
    Announce(Item(IDC_BROWSER_STATUS));
}

void CVoBrowserDialog::SetAddress(const std::wstring& url)
{
    // The field shows the beginning, where the host is.
    ::SetWindowTextW(Item(IDC_BROWSER_ADDRESS), url.empty() ? L"" : CVoBrowserPolicy::Show(url).c_str());
}

void CVoBrowserDialog::ShowInstead(const std::wstring& text) noexcept
{
    const HWND area = Item(IDC_BROWSER_AREA);
    const HWND message = Item(IDC_BROWSER_MESSAGE);
    const HWND focus = ::GetFocus();
    const bool hadFocus = !focus || focus == area || ::IsChild(area, focus);
    ::SetWindowTextW(message, text.c_str());
    ::ShowWindow(area, text.empty() ? SW_SHOW : SW_HIDE);
    ::ShowWindow(message, text.empty() ? SW_HIDE : SW_SHOW);
    // The default button: without a page, Enter opens it in the system's browser. No control has the number IDOK: Enter does
    // nothing.
    ::SendMessageW(m_dialog, DM_SETDEFID, text.empty() ? IDOK : IDC_BROWSER_OUTSIDE, 0);
    if (text.empty())
        return;
    Announce(message);
    if (hadFocus)
        ::PostMessageW(m_dialog, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Item(IDC_BROWSER_OUTSIDE)), TRUE);
}

void CVoBrowserDialog::SetTexts()
{
    ::SetWindowTextW(m_dialog, WizardText(IDD_BROWSER).c_str());
    for (const int id : { IDC_BROWSER_ADDRESS_LABEL, IDC_BROWSER_OUTSIDE, IDC_BROWSER_AGAIN })
        ::SetWindowTextW(Item(id), WizardText(static_cast<UINT>(id)).c_str());
    ::SetWindowTextW(Item(IDCANCEL), WizardText(IDS_BROWSER_CLOSE).c_str());
}

void CVoBrowserDialog::EnlargeToScreen() noexcept
{
    MONITORINFO monitor{};
    monitor.cbSize = sizeof monitor;
    RECT own{};
    if (!::GetMonitorInfoW(::MonitorFromWindow(m_dialog, MONITOR_DEFAULTTONEAREST), &monitor) ||
        !::GetWindowRect(m_dialog, &own))
        return;
    const RECT& area = monitor.rcWork;
    const auto fit = [&](LONG wanted, LONG least, LONG room)
    {
        return std::max(least, std::min<LONG>(::MulDiv(wanted, m_dpi, USER_DEFAULT_SCREEN_DPI), room * kPercentOfScreen / 100));
    };
    const LONG width = fit(kFirstWidth, own.right - own.left, area.right - area.left);
    const LONG height = fit(kFirstHeight, own.bottom - own.top, area.bottom - area.top);
    ::SetWindowPos(m_dialog, nullptr, (area.left + area.right - width) / 2, (area.top + area.bottom - height) / 2, width,
                   height, SWP_NOZORDER | SWP_NOACTIVATE);
}

void CVoBrowserDialog::LayOut() noexcept
{
    RECT client{};
    ::GetClientRect(m_dialog, &client);
    const LONG extraX = client.right - Scaled(m_design.right);
    const LONG extraY = client.bottom - Scaled(m_design.bottom);
    HDWP together = ::BeginDeferWindowPos(static_cast<int>(m_places.size()));
    for (const CPlace& place : m_places)
    {
        const unsigned anchors = AnchorsOf(::GetDlgCtrlID(place.window));
        const LONG x = Scaled(place.rect.left) + (anchors & kMoveX ? extraX : 0);
        const LONG y = Scaled(place.rect.top) + (anchors & kMoveY ? extraY : 0);
        const LONG width = Scaled(place.rect.right - place.rect.left) + (anchors & kGrowX ? extraX : 0);
        const LONG height = Scaled(place.rect.bottom - place.rect.top) + (anchors & kGrowY ? extraY : 0);
        if (together)
            together = ::DeferWindowPos(together, place.window, nullptr, x, y, width, height, SWP_NOZORDER | SWP_NOACTIVATE);
    }
    if (together)
        ::EndDeferWindowPos(together);
}

void CVoBrowserDialog::LimitSize(MINMAXINFO& limits) const noexcept
{
    if (m_places.empty())
        return;
    // No smaller than the template, in which every control has its place.
    RECT client{};
    RECT window{};
    if (::GetClientRect(m_dialog, &client) && ::GetWindowRect(m_dialog, &window))
        limits.ptMinTrackSize = { Scaled(m_design.right) + (window.right - window.left) - client.right,
                                  Scaled(m_design.bottom) + (window.bottom - window.top) - client.bottom };
}

void CVoBrowserDialog::OnDpiChanged(UINT dpi, const RECT& place) noexcept
{
    m_dpi = static_cast<int>(dpi);
    if (m_designFont.lfHeight != 0)
    {
        LOGFONTW scaled = m_designFont;
        scaled.lfHeight = Scaled(m_designFont.lfHeight);
        if (const HFONT font = ::CreateFontIndirectW(&scaled))
        {
            for (const CPlace& control : m_places)
                ::SendMessageW(control.window, WM_SETFONT, reinterpret_cast<WPARAM>(font), FALSE);
            m_font.Reset(font); // after no control uses the old one
        }
    }
    ::SetWindowPos(m_dialog, nullptr, place.left, place.top, place.right - place.left, place.bottom - place.top,
                   SWP_NOZORDER | SWP_NOACTIVATE);
    LayOut(); // the size may be the same
    ::RedrawWindow(m_dialog, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN);
}
