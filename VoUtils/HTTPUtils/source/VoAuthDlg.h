// The dialog that asks the user for a name and a password. The authentication callback shows it.
#pragma once

#include <base/VoLock.h>
#include <base/VoPlatform.h>
#include <base/VoWipe.h>

#include <exception>
#include <string>

// A modal dialog for one question: a sentence that says who asks for what, the server's address, a detail, and two fields.
// Texts that are too long end with "...", and a tooltip shows them whole. The user may resize it: the texts and the fields grow
// in width, and the buttons stay in the lower right corner. It appears in the middle of its owner. One thread creates, shows
// and reads it; the thread needs no message queue before.
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
        kSizeGrip = 1005,
        kQuestion = 1006,
        kDetail = 1007
    };

    // Who asks.
    enum class EAsker
    {
        Server, // `detail` is its address, which may be longer than the line
        Proxy   // `detail` is the proxy, and `serverAddress` what is behind it
    };

    // An empty title becomes the dialog's own caption. Throws std::bad_alloc.
    CAuthDlg(std::wstring_view title, std::wstring_view serverAddress, EAsker asker, std::wstring_view detail);
    CAuthDlg(const CAuthDlg&) = delete;
    CAuthDlg& operator=(const CAuthDlg&) = delete;
    ~CAuthDlg() = default;

    // Asks the user. Both fields start empty. True: the user chose OK. False: the user cancelled, the owner was destroyed, the
    // thread's message loop ended (WM_QUIT), or the dialog could not be shown; the last three are reported. `parent` owns the
    // dialog and is disabled meanwhile; null for no owner. Throws std::bad_alloc.
    [[nodiscard]] bool DoModal(HWND parent);

    // Ends the dialog as if the user had cancelled it, or keeps it from being shown, when it is the dialog of a thread. Any
    // thread.
    void Cancel(DWORD threadId) noexcept;

    // What the user entered.
    [[nodiscard]] const std::wstring& UserName() const noexcept { return m_userName; }
    [[nodiscard]] const CVoSecret<wchar_t>& Password() const noexcept { return m_password; }

private:
    static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept;

    void OnInitDialog(HWND dialog) noexcept;
    void OnEnd(HWND dialog, WORD result) noexcept;
    void OnDestroy() noexcept;

    std::wstring m_title;
    std::wstring m_serverAddress;
    std::wstring m_question;
    std::wstring m_detail;
    std::wstring m_userName;
    CVoSecret<wchar_t> m_password;
    // How the user ended the dialog: IDOK, IDCANCEL, or 0 when the user did not end it. The platform's result is not reliable:
    // it may be IDOK when WM_QUIT ended the loop.
    WORD m_result = 0;
    const DWORD m_threadId = ::GetCurrentThreadId();
    CVoLock m_windowLock; // guards the following
    HWND m_window = nullptr;
    bool m_isCancelled = false;
    // The exception of reading the fields. An exception must not pass through the platform's window code.
    std::exception_ptr m_failure;
};
