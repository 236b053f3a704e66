// Asks the user for credentials in a dialog (VoAuthCallbackImpl.h).
#include <VoAuthCallbackImpl.h>

#include <VoAuthDlg.h>
#include <base/VoErrorHandler.h>
#include <base/com/VoComHelper.h>

#include <utility>

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\VoAuthCallbackImpl";

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

HRESULT CVoAuthCallbackImpl::AskUser(BSTR title, BSTR serverAddress, BSTR* user, BSTR* password,
                                     VARIANT_BOOL* cancelled) const noexcept
{
    if (!user || !password || !cancelled)
        return E_POINTER;
    try
    {
        CAuthDlg dialog(CVoBstr::ViewOf(title), CVoBstr::ViewOf(serverAddress));
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

HRESULT CVoAuthCallbackImpl::OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR /*reserved*/, BSTR* user, BSTR* password,
                                               VARIANT_BOOL* cancelled) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoAuthCallbackImpl::OnProxyAuthNeeded" };
    if (const HRESULT hr = AskUser(title, serverAddress, user, password, cancelled); FAILED(hr))
        return report(66, hr);
    return S_OK;
}

HRESULT CVoAuthCallbackImpl::OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR /*reserved*/, BSTR* user, BSTR* password,
                                                VARIANT_BOOL* cancelled) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoAuthCallbackImpl::OnServerAuthNeeded" };
    if (const HRESULT hr = AskUser(title, serverAddress, user, password, cancelled); FAILED(hr))
        return report(75, hr);
    return S_OK;
}

HRESULT CreateGlobalAuthenticationCallbackForModule(IVoAuthenticationCallback** callback) noexcept
{
    constexpr CVoReporter report{ kSource, L"CreateGlobalAuthenticationCallbackForModule" };
    if (!callback)
        return report(84, E_POINTER);
    CVoComPtr<CVoAuthCallbackImpl> made = VoMakeComObject<CVoAuthCallbackImpl>();
    if (!made)
        return report(87, E_OUTOFMEMORY);
    *callback = made.Detach();
    return S_OK;
}
