// Messages and notifications of a page (WizardPage.h).
#include "WizardPage.h"

#include "WizardTexts.h"
#include "resource.h"

#include <commctrl.h>

namespace
{
constexpr COLORREF kProblemColour = RGB(176, 0, 32);
constexpr UINT kDpiChangedAfterParent = 0x02E3; // WM_DPICHANGED_AFTERPARENT, Windows 10 1607 and later
constexpr int kDefaultDpi = 96;

// A control shows the string of its own number.
BOOL CALLBACK SetOwnText(HWND control, LPARAM /*argument*/) noexcept
try
{
    const int id = ::GetDlgCtrlID(control);
    if (id >= IDC_URL_LABEL && id < IDC_OWN_TEXT)
        ::SetWindowTextW(control, WizardText(static_cast<UINT>(id)).c_str());
    return TRUE;
}
catch (...)
{
    return FALSE;
}
} // namespace

CWizardPage::CWizardPage(CWizardWindow& wizard, EWizardPage page, UINT dialog)
    : m_wizard(wizard), m_page(page), m_resource(dialog), m_caption(WizardText(IDS_WIZARD)), m_title(WizardText(dialog)),
      m_subtitle(WizardText(dialog + 1))
{
}

PROPSHEETPAGEW CWizardPage::Describe() noexcept
{
    PROPSHEETPAGEW page{};
    page.dwSize = sizeof page;
    page.dwFlags = PSP_USETITLE | PSP_USEHEADERTITLE | PSP_USEHEADERSUBTITLE;
    page.hInstance = ::GetModuleHandleW(nullptr);
    page.pszTemplate = MAKEINTRESOURCEW(m_resource);
    page.pszTitle = m_caption.c_str();
    page.pszHeaderTitle = m_title.c_str();
    page.pszHeaderSubTitle = m_subtitle.c_str();
    page.pfnDlgProc = &DialogProc;
    page.lParam = reinterpret_cast<LPARAM>(this);
    return page;
}

std::wstring CWizardPage::TextOf(int id) const
{
    const HWND control = Control(id);
    // The platform writes a null character behind the text.
    std::wstring text(static_cast<size_t>(::GetWindowTextLengthW(control)) + 1, L'\0');
    text.resize(static_cast<size_t>(::GetWindowTextW(control, text.data(), static_cast<int>(text.size()))));
    return text;
}

void CWizardPage::SetText(int id, const std::wstring& text) const
{
    if (TextOf(id) != text)
        ::SetWindowTextW(Control(id), text.c_str());
}

void CWizardPage::Enable(int id, bool isEnabled) const noexcept
{
    if ((::IsWindowEnabled(Control(id)) != FALSE) != isEnabled)
        ::EnableWindow(Control(id), isEnabled ? TRUE : FALSE);
}

void CWizardPage::Focus(int id) const noexcept
{
    ::PostMessageW(m_dialog, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(id)), TRUE);
}

int CWizardPage::Scaled(int length) const noexcept
{
    const HDC dc = ::GetDC(m_dialog);
    const int dpi = dc ? ::GetDeviceCaps(dc, LOGPIXELSY) : kDefaultDpi;
    ::ReleaseDC(m_dialog, dc);
    return ::MulDiv(length, dpi, kDefaultDpi);
}

HFONT CWizardPage::Font() const noexcept
{
    return reinterpret_cast<HFONT>(::SendMessageW(m_dialog, WM_GETFONT, 0, 0));
}

INT_PTR CWizardPage::Result(LRESULT result) const noexcept
{
    ::SetWindowLongPtrW(m_dialog, DWLP_MSGRESULT, result);
    return TRUE;
}

INT_PTR CALLBACK CWizardPage::DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept
{
    auto* self = reinterpret_cast<CWizardPage*>(::GetWindowLongPtrW(dialog, DWLP_USER));
    if (message == WM_INITDIALOG)
    {
        self = reinterpret_cast<CWizardPage*>(reinterpret_cast<const PROPSHEETPAGEW*>(lParam)->lParam);
        self->m_dialog = dialog;
        ::SetWindowLongPtrW(dialog, DWLP_USER, reinterpret_cast<LONG_PTR>(self));
    }
    if (!self)
        return FALSE;
    try
    {
        return self->OnMessage(message, wParam, lParam);
    }
    catch (...)
    {
        // Without a text: there is no memory for one.
        ::MessageBeep(MB_ICONERROR);
        return FALSE;
    }
}

INT_PTR CWizardPage::OnMessage(UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message)
    {
    case WM_INITDIALOG:
        m_wizard.SetSheet(::GetParent(m_dialog));
        ::EnumChildWindows(m_dialog, &SetOwnText, 0);
        OnCreate();
        return TRUE;
    case WM_COMMAND:
        // Escape in an edit of several lines comes here; it closes the wizard as everywhere else.
        if (LOWORD(wParam) == IDCANCEL)
            ::PostMessageW(m_wizard.Sheet(), PSM_PRESSBUTTON, PSBTN_CANCEL, 0);
        else
            OnCommand(LOWORD(wParam), HIWORD(wParam));
        return TRUE;
    case WM_NOTIFY:
    {
        const NMHDR& header = *reinterpret_cast<const NMHDR*>(lParam);
        return header.hwndFrom == m_wizard.Sheet() ? OnSheetNotify(header) : Result(OnNotify(header));
    }
    case WM_DRAWITEM:
        OnDraw(*reinterpret_cast<const DRAWITEMSTRUCT*>(lParam));
        return TRUE;
    case WM_CTLCOLORSTATIC:
        if (!IsProblem(::GetDlgCtrlID(reinterpret_cast<HWND>(lParam))))
            return FALSE;
        ::SetTextColor(reinterpret_cast<HDC>(wParam), kProblemColour);
        ::SetBkMode(reinterpret_cast<HDC>(wParam), TRANSPARENT);
        return reinterpret_cast<INT_PTR>(::GetSysColorBrush(COLOR_BTNFACE));
    case WM_SIZE:
    case kDpiChangedAfterParent:
        OnResize();
        return FALSE;
    case WM_NCDESTROY:
        OnDestroy();
        return FALSE;
    default:
        return FALSE;
    }
}

INT_PTR CWizardPage::OnSheetNotify(const NMHDR& header)
{
    switch (header.code)
    {
    case PSN_SETACTIVE:
        m_wizard.OnActivated(m_page);
        Refresh();
        OnActivate();
        return Result(0);
    // A key may come before the button of the page is switched off.
    case PSN_WIZNEXT:
        return Result(m_wizard.Model().CanGoOn(m_page) && OnNext() ? 0 : -1);
    case PSN_WIZBACK:
        if (!m_wizard.Model().CanGoBack(m_page))
            return Result(-1);
        return Result(CWizardModel::PageBefore(m_page) == EWizardPage::Proxy ? IDD_PROXY : IDD_SERVER);
    case PSN_QUERYCANCEL:
    case PSN_WIZFINISH:
        m_wizard.Forget();
        return Result(FALSE);
    default:
        return FALSE;
    }
}
