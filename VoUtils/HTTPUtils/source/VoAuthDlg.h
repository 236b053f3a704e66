// The dialog that asks the user for a name and a password.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoWipe.h>

#include <exception>
#include <string>

// A modal dialog, made for one question. The user may resize it: the fields take the width, the address takes the height, so
// that a long one can be read, and the buttons keep to the lower right corner. It is shown and used on one thread, which needs
// no message queue beforehand and of which nothing stays behind.
class CAuthDlg
{
public:
    // The controls' identifiers; the buttons have IDOK and IDCANCEL.
    enum EControl : WORD
    {
        kUserName = 1000,
        kUserNameLabel = 1001,
        kPasswordLabel = 1002,
        kPassword = 1003,
        kServerAddress = 1004,
        kSizeGrip = 1005
    };

    CAuthDlg(std::wstring_view title, std::wstring_view serverAddress) : m_title(title), m_serverAddress(serverAddress) {}
    CAuthDlg(const CAuthDlg&) = delete;
    CAuthDlg& operator=(const CAuthDlg&) = delete;
    ~CAuthDlg() = default;

    // Asks the user; both fields start empty. True: OK. False: cancelled in any way, the end of the owner or of the thread's
    // message loop (WM_QUIT) included, or the dialog could not be shown, which is reported. `parent` owns the dialog and is
    // disabled meanwhile; null for no owner. Throws std::bad_alloc.
    [[nodiscard]] bool DoModal(HWND parent);

    // What the user entered.
    [[nodiscard]] const std::wstring& UserName() const noexcept { return m_userName; }
    [[nodiscard]] const CVoSecret<wchar_t>& Password() const noexcept { return m_password; }

private:
    static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept;

    void OnInitDialog(HWND dialog) const noexcept;
    void OnEnd(HWND dialog, WORD result) noexcept;

    std::wstring m_title;
    std::wstring m_serverAddress;
    std::wstring m_userName;
    CVoSecret<wchar_t> m_password;
    // How the user ended the dialog: IDOK, IDCANCEL, or 0 when he did not. What the platform answers cannot tell: it may be
    // IDOK when WM_QUIT ended the loop.
    WORD m_result = 0;
    std::exception_ptr m_failure; // what reading the fields threw; exceptions must not pass through the platform's window code
};
