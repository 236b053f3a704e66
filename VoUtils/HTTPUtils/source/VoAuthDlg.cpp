// Builds, lays out and runs the credentials dialog (VoAuthDlg.h).
#include <VoAuthDlg.h>
#include <VoDialogTemplate.h>

#include <base/VoErrorHandler.h>

#include <utility>

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\VoAuthDlg";

constexpr CDialogRect kDialogRect{ 0, 0, 308, 125 };

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

// In keyboard order, each label before its field: screen readers use that order. The address may contain ampersands, and it
// wraps anywhere because it has no blanks. The size grip comes last and clips its siblings, so it lies under the button near
// it.
constexpr CControl kControls[] = {
    { EDialogControl::Static,
      CAuthDlg::kServerAddress,
      SS_LEFT | SS_NOPREFIX | SS_EDITCONTROL,
      0,
      { 7, 7, 294, 36 },
      kGrowX | kGrowY,
      L"<SERVERADDRESS>" },
    { EDialogControl::Static, CAuthDlg::kUserNameLabel, SS_LEFT, 0, { 7, 54, 52, 10 }, kMoveY, L"Username:" },
    { EDialogControl::Edit,
      CAuthDlg::kUserName,
      WS_TABSTOP | ES_AUTOHSCROLL,
      WS_EX_CLIENTEDGE,
      { 62, 52, 239, 14 },
      kMoveY | kGrowX,
      L"" },
    { EDialogControl::Static, CAuthDlg::kPasswordLabel, SS_LEFT, 0, { 7, 76, 52, 10 }, kMoveY, L"Password:" },
    { EDialogControl::Edit,
      CAuthDlg::kPassword,
      WS_TABSTOP | ES_AUTOHSCROLL | ES_PASSWORD,
      WS_EX_CLIENTEDGE,
      { 62, 74, 239, 14 },
      kMoveY | kGrowX,
      L"" },
    { EDialogControl::Button, IDOK, WS_TABSTOP | BS_DEFPUSHBUTTON, 0, { 198, 104, 50, 14 }, kMoveX | kMoveY, L"OK" },
    { EDialogControl::Button, IDCANCEL, WS_TABSTOP | BS_PUSHBUTTON, 0, { 251, 104, 50, 14 }, kMoveX | kMoveY, L"Cancel" },
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

bool CAuthDlg::DoModal(HWND parent)
{
    constexpr CVoReporter report{ kSource, L"CAuthDlg::DoModal" };
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
    ::SetDlgItemTextW(dialog, kServerAddress, m_serverAddress.c_str());
    LayOut(dialog);
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
