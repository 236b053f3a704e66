// CAuthAnswers: the targets of challenges and the credentials that they get.
#include "AuthAnswers.h"

#include <VoGlobalHTTPUtils.h>
#include <base/com/VoComHelper.h>

namespace
{
// The scheme, host and port of a URL; the text itself if it is not a URL.
std::wstring ServerTarget(BSTR serverAddress, BSTR url)
{
    CServerAddressData address;
    if (SUCCEEDED(address.SetAddress(CVoBstr::ViewOf(url), false, false, false)))
        return address.BaseURL();
    return std::wstring(CVoBstr::ViewOf(serverAddress));
}
} // namespace

void CAuthAnswers::OnRequestAccepted()
{
    const std::lock_guard lock(m_lock);
    m_answered.clear();
}

HRESULT CAuthAnswers::QueryOther(REFIID iid, void** object) noexcept
{
    // Without a dialog no question stays open.
    CVoComPtr<IVoAuthenticationCancel> dialog;
    if (!IsEqualIID(iid, kVoInterfaceId<IVoAuthenticationCancel>) || FAILED(m_dialog.As(dialog)))
        return CBase::QueryOther(iid, object);
    *object = static_cast<IVoAuthenticationCancel*>(this);
    AddRef();
    return S_OK;
}

STDMETHODIMP CAuthAnswers::CancelQuestion(DWORD threadId) noexcept
{
    CVoComPtr<IVoAuthenticationCancel> dialog;
    const HRESULT hr = m_dialog.As(dialog);
    return SUCCEEDED(hr) ? dialog->CancelQuestion(threadId) : hr;
}

STDMETHODIMP CAuthAnswers::ResetQuestion(DWORD threadId) noexcept
{
    CVoComPtr<IVoAuthenticationCancel> dialog;
    const HRESULT hr = m_dialog.As(dialog);
    return SUCCEEDED(hr) ? dialog->ResetQuestion(threadId) : hr;
}

STDMETHODIMP CAuthAnswers::SetParentWindow(HWND) noexcept
{
    return S_OK;
}

STDMETHODIMP CAuthAnswers::OnProxyAuthNeeded(BSTR, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                             VARIANT_BOOL* cancelled) noexcept
try
{
    if (m_dialog)
        return m_dialog->OnProxyAuthNeeded(CVoBstr(L"Credentials for the proxy").Get(), serverAddress, reserved, user, password,
                                           cancelled);
    const BSTR proxy = ::SysStringLen(reserved) != 0 ? reserved : serverAddress;
    return Answer(m_proxy, L"proxy " + std::wstring(CVoBstr::ViewOf(proxy)), user, password, cancelled);
}
catch (...)
{
    return HResultFromCurrentException();
}

STDMETHODIMP CAuthAnswers::OnServerAuthNeeded(BSTR, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                              VARIANT_BOOL* cancelled) noexcept
try
{
    if (m_dialog)
        return m_dialog->OnServerAuthNeeded(CVoBstr(L"Credentials for the server").Get(), serverAddress, reserved, user,
                                            password, cancelled);
    return Answer(m_server, L"server " + ServerTarget(serverAddress, reserved), user, password, cancelled);
}
catch (...)
{
    return HResultFromCurrentException();
}

HRESULT CAuthAnswers::Answer(const std::optional<CCredentials>& credentials, std::wstring target, BSTR* user, BSTR* password,
                             VARIANT_BOOL* cancelled)
{
    if (!user || !password || !cancelled)
        return E_POINTER;
    const std::lock_guard lock(m_lock);
    if (!credentials || !m_answered.insert(std::move(target)).second)
    {
        *cancelled = VARIANT_TRUE;
        return S_OK;
    }
    CVoBstr newUser(credentials->user);
    CVoBstr newPassword(credentials->password.Get());
    ::SysFreeString(std::exchange(*user, newUser.Detach()));
    ::SysFreeString(std::exchange(*password, newPassword.Detach()));
    *cancelled = VARIANT_FALSE;
    return S_OK;
}
