// Builds, lays out and runs the credentials dialog (VoAuthDlg.h).
#include <VoAuthDlg.h>
#include <VoDialogTemplate.h>

#include <base/VoErrorHandler.h>

#include <base/VoText.h>

#include <commctrl.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace
{
constexpr const wchar_t* kAuthDlgSource = L"..\\source\\VoAuthDlg";

constexpr CDialogRect kDialogRect{ 0, 0, 308, 125 };

// What the user reads: another language is another table. "%1" is who asks.
struct CTexts
{
    const wchar_t* caption = L"Sign in";
    const wchar_t* serverAsks = L"The server %1 asks for a user name and password.";
    const wchar_t* proxyAsks = L"The proxy %1 asks for a user name and password.";
    const wchar_t* anyProxyAsks = L"The proxy asks for a user name and password.";
    const wchar_t* anyServerAsks = L"The server asks for a user name and password.";
    const wchar_t* userName = L"Username:";
    const wchar_t* password = L"Password:";
    const wchar_t* ok = L"OK";
    const wchar_t* cancel = L"Cancel";
};
constexpr CTexts kTexts;

// The most characters that the platform's own credentials functions take (documentation of CREDUI_MAX_USERNAME_LENGTH and
// CREDUI_MAX_PASSWORD_LENGTH).
constexpr WPARAM kMaximumUserName = 513;
constexpr WPARAM kMaximumPassword = 256;

// How a control follows a change of the dialog's size.
enum EAnchor : unsigned
{
    kMoveX = 1,
    kMoveY = 2,
    kGrowX = 4,
    kGrowY = 8
};

struct CControl
{
    EDialogControl kind;
    WORD id;
    DWORD style;
    DWORD extendedStyle;
    CDialogRect rect;
    unsigned anchors;
    const wchar_t* text;
};

constexpr DWORD kLine = SS_LEFT | SS_NOPREFIX | SS_ENDELLIPSIS | SS_NOTIFY; // shortened; notifies, so that it has a tooltip

// In keyboard order, each label before its field: screen readers use that order. Addresses may contain ampersands. The size
// grip comes last and clips its siblings, so it lies under the button near it.
constexpr CControl kControls[] = {
    { EDialogControl::Static, CAuthDlg::kQuestion, SS_LEFT | SS_NOPREFIX, 0, { 7, 5, 294, 18 }, kGrowX, L"" },
    { EDialogControl::Static, CAuthDlg::kServerAddress, kLine, 0, { 7, 26, 294, 10 }, kGrowX, L"<SERVERADDRESS>" },
    { EDialogControl::Static, CAuthDlg::kDetail, kLine, 0, { 7, 38, 294, 10 }, kGrowX, L"" },
    { EDialogControl::Static, CAuthDlg::kUserNameLabel, SS_LEFT, 0, { 7, 54, 52, 10 }, kMoveY, kTexts.userName },
    { EDialogControl::Edit,
      CAuthDlg::kUserName,
      WS_TABSTOP | ES_AUTOHSCROLL,
      WS_EX_CLIENTEDGE,
      { 62, 52, 239, 14 },
      kMoveY | kGrowX,
      L"" },
    { EDialogControl::Static, CAuthDlg::kPasswordLabel, SS_LEFT, 0, { 7, 76, 52, 10 }, kMoveY, kTexts.password },
    { EDialogControl::Edit,
      CAuthDlg::kPassword,
      WS_TABSTOP | ES_AUTOHSCROLL | ES_PASSWORD,
      WS_EX_CLIENTEDGE,
      { 62, 74, 239, 14 },
      kMoveY | kGrowX,
      L"" },
    { EDialogControl::Button, IDOK, WS_TABSTOP | BS_DEFPUSHBUTTON, 0, { 198, 104, 50, 14 }, kMoveX | kMoveY, kTexts.ok },
    { EDialogControl::Button, IDCANCEL, WS_TABSTOP | BS_PUSHBUTTON, 0, { 251, 104, 50, 14 }, kMoveX | kMoveY, kTexts.cancel },
    { EDialogControl::ScrollBar,
      CAuthDlg::kSizeGrip,
      WS_CLIPSIBLINGS | SBS_SIZEGRIP | SBS_SIZEBOXBOTTOMRIGHTALIGN,
      0,
      { 298, 115, 10, 10 },
      kMoveX | kMoveY,
      L"" },
};

// Not visible before it has its texts. It comes to the front even when the user works elsewhere: the thread that waits for it
// may have no other window.
constexpr DWORD kDialogStyle =
    DS_SETFONT | DS_CENTER | DS_SETFOREGROUND | WS_POPUP | WS_CAPTION | WS_SYSMENU | WS_THICKFRAME | WS_CLIPCHILDREN;

CDialogTemplate MakeTemplate()
{
    CDialogTemplate result(kDialogStyle, kDialogRect, L"<TITLE>", 8, L"Microsoft Sans Serif");
    for (const CControl& control : kControls)
        result.Add(control.kind, control.id, control.style, control.extendedStyle, control.rect, control.text);
    return result;
}

// Converts dialog units of this dialog to pixels. Sizes are converted apart from positions, as the platform does it: equal
// sizes in units are equal sizes in pixels.
RECT ToPixels(HWND dialog, const CDialogRect& rect) noexcept
{
    RECT pixels{ rect.x, rect.y, rect.cx, rect.cy };
    ::MapDialogRect(dialog, &pixels);
    pixels.right += pixels.left;
    pixels.bottom += pixels.top;
    return pixels;
}

// Places the controls for the dialog's current size.
void LayOut(HWND dialog) noexcept
{
    RECT client{};
    ::GetClientRect(dialog, &client);
    const RECT designed = ToPixels(dialog, kDialogRect);
    const LONG extraX = client.right - designed.right;
    const LONG extraY = client.bottom - designed.bottom;
    for (const CControl& control : kControls)
    {
        RECT rect = ToPixels(dialog, control.rect);
        if (control.id == CAuthDlg::kSizeGrip)
        {
            // In the corner, in the size of the user's settings. The font does not matter.
            rect = { designed.right - ::GetSystemMetrics(SM_CXVSCROLL), designed.bottom - ::GetSystemMetrics(SM_CYHSCROLL),
                     designed.right, designed.bottom };
        }
        ::OffsetRect(&rect, control.anchors & kMoveX ? extraX : 0, control.anchors & kMoveY ? extraY : 0);
        rect.right += control.anchors & kGrowX ? extraX : 0;
        rect.bottom += control.anchors & kGrowY ? extraY : 0;
        ::SetWindowPos(::GetDlgItem(dialog, control.id), nullptr, rect.left, rect.top, rect.right - rect.left,
                       rect.bottom - rect.top, SWP_NOZORDER | SWP_NOACTIVATE | SWP_NOCOPYBITS);
    }
}

// The dialog cannot become smaller than its template.
void LimitSize(HWND dialog, MINMAXINFO& limits) noexcept
{
    RECT rect = ToPixels(dialog, kDialogRect);
    if (::AdjustWindowRectEx(&rect, static_cast<DWORD>(::GetWindowLongPtrW(dialog, GWL_STYLE)), FALSE,
                             static_cast<DWORD>(::GetWindowLongPtrW(dialog, GWL_EXSTYLE))))
        limits.ptMinTrackSize = { rect.right - rect.left, rect.bottom - rect.top };
}

// Shows the whole text of a shortened line while the pointer is over it. Without a tooltip the dialog serves all the same.
void AddTooltip(HWND dialog, WORD id, std::wstring& text) noexcept
{
    INITCOMMONCONTROLSEX classes{ sizeof classes, ICC_BAR_CLASSES };
    if (!::InitCommonControlsEx(&classes))
        return;
    const HWND tooltip = ::CreateWindowExW(WS_EX_TOPMOST, TOOLTIPS_CLASSW, nullptr, WS_POPUP | TTS_ALWAYSTIP | TTS_NOPREFIX, 0,
                                           0, 0, 0, dialog, nullptr, nullptr, nullptr); // the dialog destroys it
    if (!tooltip)
        return;
    TTTOOLINFOW tool{};
    // The size that all versions of the common controls know. The header's macro for it computes with a null pointer.
    tool.cbSize = static_cast<UINT>(offsetof(TTTOOLINFOW, lpszText) + sizeof tool.lpszText);
    tool.uFlags = TTF_IDISHWND | TTF_SUBCLASS;
    tool.hwnd = dialog;
    tool.uId = reinterpret_cast<UINT_PTR>(::GetDlgItem(dialog, id));
    tool.lpszText = text.data();
    ::SendMessageW(tooltip, TTM_ADDTOOLW, 0, reinterpret_cast<LPARAM>(&tool));
}

// Places the dialog in the middle of its owner, whole on the owner's monitor. Without an owner the platform has placed it.
void CenterOnOwner(HWND dialog) noexcept
{
    const HWND owner = ::GetWindow(dialog, GW_OWNER);
    RECT around{};
    RECT own{};
    MONITORINFO monitor{};
    monitor.cbSize = sizeof monitor;
    if (!owner || !::IsWindowVisible(owner) || ::IsIconic(owner) || !::GetWindowRect(owner, &around) ||
        !::GetWindowRect(dialog, &own) || !::GetMonitorInfoW(::MonitorFromWindow(owner, MONITOR_DEFAULTTONEAREST), &monitor))
        return;
    const RECT& area = monitor.rcWork;
    const LONG width = own.right - own.left;
    const LONG height = own.bottom - own.top;
    const LONG x = (around.left + around.right - width) / 2;
    const LONG y = (around.top + around.bottom - height) / 2;
    // A dialog that is larger than the monitor begins at its upper left corner.
    ::SetWindowPos(dialog, nullptr, std::max(area.left, std::min(x, area.right - width)),
                   std::max(area.top, std::min(y, area.bottom - height)), 0, 0, SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void ReadField(HWND dialog, WORD id, std::wstring& text)
{
    const HWND field = ::GetDlgItem(dialog, id);
    // The platform writes a null character behind the text.
    text.assign(static_cast<size_t>(::GetWindowTextLengthW(field)) + 1, L'\0');
    text.resize(static_cast<size_t>(::GetWindowTextW(field, text.data(), static_cast<int>(text.size()))));
}

// Overwrites the field's own memory: the platform frees it without wiping it.
void WipeField(HWND dialog, WORD id) noexcept
{
    const HWND field = ::GetDlgItem(dialog, id);
    try
    {
        ::SetWindowTextW(field, std::wstring(static_cast<size_t>(::GetWindowTextLengthW(field)), L' ').c_str());
    }
    catch (...)
    {
        // No memory for as many blanks: overwrite the beginning at least.
        ::SetWindowTextW(field, L" ");
    }
    ::SetWindowTextW(field, L"");
    ::SendMessageW(field, EM_EMPTYUNDOBUFFER, 0, 0);
}
} // namespace

CAuthDlg::CAuthDlg(std::wstring_view title, std::wstring_view serverAddress, EAsker asker, std::wstring_view detail)
    : m_title(title.empty() ? std::wstring_view(kTexts.caption) : title), m_serverAddress(serverAddress), m_detail(detail)
{
    const bool isProxy = asker == EAsker::Proxy;
    const std::wstring_view name = isProxy ? detail : serverAddress;
    m_question = isProxy ? (name.empty() ? kTexts.anyProxyAsks : kTexts.proxyAsks)
                         : (name.empty() ? kTexts.anyServerAsks : kTexts.serverAsks);
    constexpr std::wstring_view kMark = L"%1";
    if (const size_t mark = m_question.find(kMark); mark != std::wstring::npos)
        m_question.replace(mark, kMark.size(), name);
}

bool CAuthDlg::DoModal(HWND parent)
{
    constexpr CVoReporter report{ kAuthDlgSource, L"CAuthDlg::DoModal" };
    const CDialogTemplate dialogTemplate = MakeTemplate();
    m_userName.clear();
    VoWipe(m_password.Get());
    m_result = 0;
    ::SetLastError(ERROR_SUCCESS);
    (void)::DialogBoxIndirectParamW(::GetModuleHandleW(nullptr), dialogTemplate.Get(), parent, &DialogProc,
                                    reinterpret_cast<LPARAM>(this));
    const DWORD error = ::GetLastError();
    if (m_failure)
        std::rethrow_exception(std::exchange(m_failure, nullptr));
    // The user did not end it. The platform gives an error only when the dialog could not be shown.
    if (m_result == 0)
        report.Win32(171, 172, error);
    return m_result == IDOK;
}

INT_PTR CALLBACK CAuthDlg::DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept
{
    switch (message)
    {
    case WM_INITDIALOG:
        ::SetWindowLongPtrW(dialog, DWLP_USER, lParam);
        reinterpret_cast<CAuthDlg*>(lParam)->OnInitDialog(dialog);
        return TRUE; // the platform sets the focus to the first field
    case WM_COMMAND:
        if (LOWORD(wParam) != IDOK && LOWORD(wParam) != IDCANCEL)
            return FALSE;
        reinterpret_cast<CAuthDlg*>(::GetWindowLongPtrW(dialog, DWLP_USER))->OnEnd(dialog, LOWORD(wParam));
        return TRUE;
    case WM_SIZE:
        LayOut(dialog);
        return TRUE;
    case WM_GETMINMAXINFO:
        LimitSize(dialog, *reinterpret_cast<MINMAXINFO*>(lParam));
        return TRUE;
    case WM_DESTROY:
        // The fields still exist here, however the dialog ended.
        WipeField(dialog, kPassword);
        if (auto* const self = reinterpret_cast<CAuthDlg*>(::GetWindowLongPtrW(dialog, DWLP_USER)))
            self->OnDestroy();
        return TRUE;
    default:
        return FALSE;
    }
}

void CAuthDlg::Cancel(DWORD threadId) noexcept
{
    if (threadId != m_threadId)
        return;
    const CVoLockHolder lock(m_windowLock);
    m_isCancelled = true;
    if (m_window)
        ::PostMessageW(m_window, WM_COMMAND, IDCANCEL, 0);
}

void CAuthDlg::OnInitDialog(HWND dialog) noexcept
{
    {
        const CVoLockHolder lock(m_windowLock);
        m_window = dialog;
        if (m_isCancelled)
            ::PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
    }
    ::SetWindowTextW(dialog, m_title.c_str());
    ::SetDlgItemTextW(dialog, kQuestion, m_question.c_str());
    ::SetDlgItemTextW(dialog, kServerAddress, m_serverAddress.c_str());
    ::SetDlgItemTextW(dialog, kDetail, m_detail.c_str());
    AddTooltip(dialog, kServerAddress, m_serverAddress);
    AddTooltip(dialog, kDetail, m_detail);
    ::SendDlgItemMessageW(dialog, kUserName, EM_SETLIMITTEXT, kMaximumUserName, 0);
    ::SendDlgItemMessageW(dialog, kPassword, EM_SETLIMITTEXT, kMaximumPassword, 0);
    LayOut(dialog);
    CenterOnOwner(dialog);
}

void CAuthDlg::OnDestroy() noexcept
{
    const CVoLockHolder lock(m_windowLock);
    m_window = nullptr;
}

void CAuthDlg::OnEnd(HWND dialog, WORD result) noexcept
{
    m_result = result;
    try
    {
        ReadField(dialog, kUserName, m_userName);
        ReadField(dialog, kPassword, m_password.Get());
    }
    catch (...)
    {
        m_failure = std::current_exception();
    }
    ::EndDialog(dialog, result);
}
