// Asks the user for credentials in a dialog (VoAuthCallbackImpl.h).
#include <VoAuthCallbackImpl.h>

#include <VoAuthDlg.h>
#include <base/VoErrorHandler.h>
#include <base/com/VoComHelper.h>

#include <algorithm>
#include <utility>

namespace
{
constexpr const wchar_t* kAuthCallbackSource = L"..\\source\\VoAuthCallbackImpl";

// Replaces the text of an out argument, and wipes and frees the old text.
void Replace(BSTR& out, CVoBstr& text) noexcept
{
    const BSTR old = std::exchange(out, text.Detach());
    VoWipe(old);
    ::SysFreeString(old);
}
} // namespace

HRESULT CVoAuthCallbackImpl::SetParentWindow(HWND parent) noexcept
{
    m_parent.store(parent);
    return S_OK;
}

HRESULT CVoAuthCallbackImpl::QueryOther(REFIID iid, void** object) noexcept
{
    if (!IsEqualIID(iid, kVoInterfaceId<IVoAuthenticationCancel>))
        return CBase::QueryOther(iid, object);
    *object = static_cast<IVoAuthenticationCancel*>(this);
    AddRef();
    return S_OK;
}

HRESULT CVoAuthCallbackImpl::CancelQuestion(DWORD threadId) noexcept
{
    constexpr CVoReporter report{ kAuthCallbackSource, L"CVoAuthCallbackImpl::CancelQuestion" };
    return report.Guard(50, [&]() -> HRESULT
    {
        const CVoLockHolder lock(m_lock);
        m_cancelled.push_back(threadId);
        for (CAuthDlg* const dialog : m_open)
            dialog->Cancel(threadId);
        return S_OK;
    });
}

HRESULT CVoAuthCallbackImpl::ResetQuestion(DWORD threadId) noexcept
{
    const CVoLockHolder lock(m_lock);
    std::erase(m_cancelled, threadId);
    return S_OK;
}

// A dialog that CancelQuestion knows while it is open.
class CVoAuthCallbackImpl::COpenDialog
{
public:
    // Throws std::bad_alloc.
    COpenDialog(CVoAuthCallbackImpl& callback, CAuthDlg& dialog) : m_callback(callback), m_dialog(dialog)
    {
        const CVoLockHolder lock(m_callback.m_lock);
        m_callback.m_open.push_back(&m_dialog);
        const DWORD thread = ::GetCurrentThreadId();
        const auto& cancelled = m_callback.m_cancelled;
        if (std::find(cancelled.begin(), cancelled.end(), thread) != cancelled.end())
            m_dialog.Cancel(thread);
    }
    ~COpenDialog()
    {
        const CVoLockHolder lock(m_callback.m_lock);
        std::erase(m_callback.m_open, &m_dialog);
    }
    COpenDialog(const COpenDialog&) = delete;
    COpenDialog& operator=(const COpenDialog&) = delete;

private:
    CVoAuthCallbackImpl& m_callback;
    CAuthDlg& m_dialog;
};

HRESULT CVoAuthCallbackImpl::AskUser(bool proxy, BSTR title, BSTR serverAddress, BSTR detail, BSTR* user, BSTR* password,
                                     VARIANT_BOOL* cancelled) noexcept
{
    if (!user || !password || !cancelled)
        return E_POINTER;
    try
    {
        CAuthDlg dialog(CVoBstr::ViewOf(title), CVoBstr::ViewOf(serverAddress),
                        proxy ? CAuthDlg::EAsker::Proxy : CAuthDlg::EAsker::Server, CVoBstr::ViewOf(detail));
        const COpenDialog open(*this, dialog);
        if (!dialog.DoModal(m_parent.load()))
        {
            *cancelled = VARIANT_TRUE;
            return S_OK;
        }
        CVoBstr enteredUser(dialog.UserName());
        CVoBstr enteredPassword(dialog.Password().Get());
        Replace(*user, enteredUser);
        Replace(*password, enteredPassword);
        *cancelled = VARIANT_FALSE;
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }
}

HRESULT CVoAuthCallbackImpl::OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                               VARIANT_BOOL* cancelled) noexcept
{
    constexpr CVoReporter report{ kAuthCallbackSource, L"CVoAuthCallbackImpl::OnProxyAuthNeeded" };
    if (const HRESULT hr = AskUser(true, title, serverAddress, reserved, user, password, cancelled); FAILED(hr))
        return report(66, hr);
    return S_OK;
}

HRESULT CVoAuthCallbackImpl::OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                                VARIANT_BOOL* cancelled) noexcept
{
    constexpr CVoReporter report{ kAuthCallbackSource, L"CVoAuthCallbackImpl::OnServerAuthNeeded" };
    if (const HRESULT hr = AskUser(false, title, serverAddress, reserved, user, password, cancelled); FAILED(hr))
        return report(75, hr);
    return S_OK;
}

HRESULT CreateGlobalAuthenticationCallbackForModule(IVoAuthenticationCallback** callback) noexcept
{
    constexpr CVoReporter report{ kAuthCallbackSource, L"CreateGlobalAuthenticationCallbackForModule" };
    if (!callback)
        return report(84, E_POINTER);
    CVoComPtr<CVoAuthCallbackImpl> made = VoMakeComObject<CVoAuthCallbackImpl>();
    if (!made)
        return report(87, E_OUTOFMEMORY);
    *callback = made.Detach();
    return S_OK;
}
